// The configuration space: the persistent store behind the host's configuration requests.
//
// A value is addressed by the current command of a request message: its opcode extension (OE),
// object id (OI) and cabinet (CA). It lives in the active section of CommonConfig.ccs under a key
// built from them, with a second key "<key>.Size" (or "<key>.Size[]" for a byte array) giving its
// length; a value never written there is looked up in section "DefaultConfig" of the read-only
// DefaultConfig.ccs under the OE alone. docs/config.md describes the files and keys.
//
// Results: "ST" 0 success, 19 (ST_NOT_AVAILABLE) not found, 6 (ST_FAILED) the ini write failed.
// There is no lock here; the caller serialises writes.
#pragma once

#include <cstdint>

#include "base/WString.h"
#include "config/CIniFile.h"
#include "foundation/RequestMessage.h"

class CConfigSpace {
 public:
  static constexpr const char16_t* kDefaultSection = u"DefaultConfig";

  CConfigSpace() = default;
  CConfigSpace(const CConfigSpace&) = delete;
  CConfigSpace& operator=(const CConfigSpace&) = delete;

  // The server's own cabinet number: requests for it use the local key form.
  void SetOwnCabinet(uint32_t cabinet) { m_ownCabinet = cabinet; }
  uint32_t OwnCabinet() const { return m_ownCabinet; }

  // Takes the active section from the host's configuration key ("Active Config"); without it the
  // section stays as it was ("CurrentConfig" at first).
  const WString& ReadActiveSection();
  const WString& SectionName() const { return m_section; }

  // Opens CommonConfig.ccs (created if missing) and DefaultConfig.ccs (from the binary directory,
  // else the data directory). Nonzero if both are usable.
  int Open();
  void Close();

  // Section null means the active section. With `fallback` a value missing from the common file is
  // looked up in the default file. Nonzero if a value was found.
  int ReadValue(RequestMessage& message, int fallback, const char16_t* section);
  // As ReadValue, but every length above 0 means a text, and "||" in it becomes a line break.
  int ReadTextValue(RequestMessage& message, int fallback, const char16_t* section);
  // As ReadTextValue, then deciphers the stored text into clear text.
  int ReadPassword(RequestMessage& message, int fallback, const char16_t* section);

  // The longest text the store takes, counted as stored (line breaks as "||", passwords
  // enciphered): what is longer would read back as absent.
  static constexpr uint32_t kLongestStoredText = CIniFile::kLongestValue;

  // Nonzero on success ("ST" 0); on failure "ST" is 6.
  int WriteNumber(RequestMessage& message, const char16_t* section);
  // Every line break of the text (LF, CR LF or a lone CR) is stored as "||". A text that could not
  // be read back whole (one holding a terminator, or longer than kLongestStoredText as stored) is
  // refused: 0, "ST" 6, nothing stored, and `refused` (if given) set; a failed ini write leaves it
  // clear.
  int WriteText(RequestMessage& message, const char16_t* section, bool* refused = nullptr);
  int WritePassword(RequestMessage& message, const char16_t* section, bool* refused = nullptr);

  // One look-up in one file: the key of the command's address (the OE alone with useDefaultKey),
  // sized by its ".Size" or ".Size[]" key. Loads "DA" and sets "ST" 0 when a size key is there;
  // false, with the message untouched, when not. `textOnly` reads every length as a text.
  bool ReadSingleValue(CIniFile& file, RequestMessage& message, const char16_t* section, bool useDefaultKey,
                       bool textOnly = false);

  CIniFile& DefaultFile() { return m_defaultFile; }
  CIniFile& CommonFile() { return m_commonFile; }

  // "<DataRoot><sep><base>.ccs"; on a read-only medium the temporary directory (else the system
  // directory) takes the place of the data directory. Empty when no path can be made.
  static WString MakeConfigFileName(const char16_t* baseName);

 private:
  int ReadInto(RequestMessage& message, int fallback, const char16_t* section, bool textOnly);
  WString ValueKey(const RequestMessage& message) const;
  int StoreText(RequestMessage& message, const char16_t* section, const WString& text, const char16_t* caller,
                bool* refused);

  CIniFile m_defaultFile;
  CIniFile m_commonFile;
  WString m_section = u"CurrentConfig";
  uint32_t m_ownCabinet = 0;
};
