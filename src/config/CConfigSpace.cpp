#include "config/CConfigSpace.h"

#include <algorithm>
#include <vector>

#include "base/WFormat.h"
#include "foundation/CDebug.h"
#include "foundation/PasswordCipher.h"
#include "foundation/RootPaths.h"
#include "platform/PrivateProfile.h"

namespace {

const char16_t kHostUuidKey[] = u"SYSTEM\\CurrentControlSet\\Control\\UUID\\7D41E2A0-5B3C-4F18-9E66-2C0A91D7B34F";
const char16_t kAgentParametersKey[] = u"SOFTWARE\\Hadley Brandt\\SNMP Agents\\HBR Node Warden\\Parameters";

struct Address {
  uint32_t oe, oi, ca;
};

Address AddressOf(const RequestMessage& message) {
  const int32_t i = message.commandIndex;
  return {GetCommandValue(message, i, kKeyOE, 0), GetCommandValue(message, i, kKeyOI, 0),
          GetCommandValue(message, i, kKeyCA, 0)};
}

WString LocalKey(const Address& a) {
  return WFormat(u"%04X.FFFF.%04X", a.oe, a.oi);
}
WString CabinetKey(const Address& a) {
  return WFormat(u"%04X.%04X.%04X", a.oe, a.ca, a.oi);
}

// The value of the leading hexadecimal digits of a pair, as a base-16 conversion reads it.
uint8_t HexPair(char16_t high, char16_t low) {
  auto digit = [](char16_t c) -> int {
    if (c >= u'0' && c <= u'9') return c - u'0';
    if (c >= u'a' && c <= u'f') return c - u'a' + 10;
    if (c >= u'A' && c <= u'F') return c - u'A' + 10;
    return -1;
  };
  const int h = digit(high);
  if (h < 0) return 0;
  const int l = digit(low);
  return static_cast<uint8_t>(l < 0 ? h : h * 16 + l);
}

void SetStatusOk(RequestMessage& message) {
  SetCommandValue(message, GetCurrentCommand(message), kKeyST, ST_OK, false);
}

// The stored form of a text: each line break, whatever its form, becomes "||". A carriage return
// left in the text would end the entry in the file and the rest would be read as entries of
// their own.
WString StoredLines(WStringView text) {
  if (text.find_first_of(u"\r\n") == WStringView::npos) return WString(text);
  WString stored;
  stored.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == u'\r' || text[i] == u'\n') {
      stored += u"||";
      if (text[i] == u'\r' && i + 1 < text.size() && text[i + 1] == u'\n') ++i;
    } else {
      stored += text[i];
    }
  }
  return stored;
}

// Whether a text needs a pair of quotation marks around it in the file. Every reader of the file
// drops the blanks around a value and one pair of enclosing quotation marks; a text that begins
// or ends with a blank (or any character a reader might take for one) or with a quotation mark
// would not read back whole without a pair of its own, which the reader drops again.
bool InIniQuotes(WStringView text) {
  if (text.empty()) return false;
  auto edge = [](char16_t c) { return c <= u' ' || c == u'"' || c == u'\'' || c >= 0x7F; };
  return edge(text.front()) || edge(text.back());
}

// Why a text cannot be stored so that it reads back whole; null when it can.
const char16_t* RefusalOf(WStringView clear, WStringView stored) {
  if (clear.find(u'\0') != WStringView::npos || stored.find(u'\0') != WStringView::npos)
    return u"it holds a terminator, at which the stored text would end";
  if (stored.size() > CConfigSpace::kLongestStoredText) return u"it is too long to be read back";
  return nullptr;
}

// A refused text leaves both keys as they were: the old value stays readable.
int Refuse(RequestMessage& message, const char16_t* caller, const char16_t* why, bool* refused) {
  TRACE(1, u"CConfigSpace::%s()\t: ERROR! text of OpCodeExt %04X refused, nothing stored: %s\n", caller,
        GetCommandValue(message, message.commandIndex, kKeyOE, 0), why);
  SetCommandValue(message, GetCurrentCommand(message), kKeyST, ST_FAILED, false);
  if (refused) *refused = true;
  return 0;
}

}  // namespace

const WString& CConfigSpace::ReadActiveSection() {
  TRACE(3, u"CConfigSpace::ReadActiveSection()\t: start\n");
  WString base;
  WString key;
  if (ReadRegistryString(kHostUuidKey, u"Node Warden", base)) {
    // Read once more for the text; the fixed product key stands in if that read fails.
    key = ReadHostBaseKeyPath() + u"\\CONFIG";
  } else {
    key = kAgentParametersKey;
  }
  WString active;
  if (ReadRegistryString(key, u"Active Config", active)) m_section = active;
  TRACE(3, u"CConfigSpace::ReadActiveSection()\t: end, section '%s' (key %s)\n", m_section.c_str(), key.c_str());
  return m_section;
}

WString CConfigSpace::MakeConfigFileName(const char16_t* baseName) {
  WString dataRoot;
  ReadDataRoot(dataRoot);
  const char16_t sep[2] = {kSep, 0};
  WString path = WFormat(u"%s%s%s.ccs", dataRoot.c_str(), sep, baseName);
  if (platform::IsOnReadOnlyMedium(path)) {
    // The temporary directory ends in a separator and the system directory does not; the same
    // format serves both all the same.
    WString dir = SystemTempDirectory();
    if (dir.empty()) dir = platform::SystemDirectory();
    TRACE(2, u"CConfigSpace::MakeConfigFileName()\t: '%s' is on a read-only medium - use '%s'\n", path.c_str(),
          dir.c_str());
    path = WFormat(u"%s%s.ccs", dir.c_str(), baseName);
  }
  return path;
}

int CConfigSpace::Open() {
  TRACE(3, u"CConfigSpace::Open()\t: start\n");
  const WString common = MakeConfigFileName(u"CommonConfig");
  m_commonFile.SetFileName(common.c_str());
  const int result = m_commonFile.OpenUnicode(0);
  TRACE(3, u"CConfigSpace::Open()\t: Use UNICODE CommonConfig file '%s'\n", m_commonFile.GetFileName().c_str());

  const char16_t sep[2] = {kSep, 0};
  WString dir;
  m_defaultFile.SetFileName(WFormat(u"%s%s%s.ccs", ReadBinRoot(dir).c_str(), sep, kDefaultSection).c_str());
  int found = m_defaultFile.OpenExisting(1);
  if (!found) {
    m_defaultFile.SetFileName(WFormat(u"%s%s%s.ccs", ReadDataRoot(dir).c_str(), sep, kDefaultSection).c_str());
    found = m_defaultFile.OpenExisting(1);
  }
  TRACE(3, u"CConfigSpace::Open()\t: end, default file '%s' %s\n", m_defaultFile.GetFileName().c_str(),
        found ? u"found" : u"missing");
  return found ? result : 0;
}

void CConfigSpace::Close() {
  m_defaultFile.Close();
  m_commonFile.Close();
}

bool CConfigSpace::ReadSingleValue(CIniFile& file, RequestMessage& message, const char16_t* section, bool useDefaultKey,
                                   bool textOnly) {
  if (section == nullptr || *section == 0) return false;
  const Address address = AddressOf(message);
  WString key;
  int32_t length = -1;
  bool isArray = false;
  auto lookUpSize = [&](const WString& candidate) {
    key = candidate;
    length = static_cast<int32_t>(file.GetIniInt(section, (key + u".Size").c_str(), -1));
    if (length == -1) {
      length = static_cast<int32_t>(file.GetIniInt(section, (key + u".Size[]").c_str(), -1));
      isArray = length != -1;
    }
  };
  if (useDefaultKey) {
    lookUpSize(WFormat(u"%04X", address.oe));
  } else {
    if (address.ca == m_ownCabinet) lookUpSize(LocalKey(address));
    if (length == -1) lookUpSize(CabinetKey(address));
  }
  if (length == -1) return false;
  TRACE(3, u"CConfigSpace::ReadValue()\t: key %s in [%s] has %s %d\n", key.c_str(), section,
        isArray ? u"array size" : u"size", length);

  MessageValue& command = GetCurrentCommand(message);
  if (length == 0) {
    ClearData(message, ST_OK);
    return true;
  }
  if (isArray) {
    const WString text = file.GetIniText(section, key.c_str(), u"");
    // A size larger than the text holds pairs for yields only the pairs that are there.
    const size_t count = std::min(static_cast<size_t>(length < 0 ? 0 : length), text.size() / 2);
    std::vector<uint8_t> bytes(count);
    for (size_t i = 0; i < count; ++i) bytes[i] = HexPair(text[2 * i], text[2 * i + 1]);
    SetDataBytes(message, command, bytes.data(), bytes.size());
  } else if (textOnly) {
    SetDataString(message, command, WReplaceAll(file.GetIniText(section, key.c_str(), u""), u"||", u"\n"));
  } else if (length == 1 || length == 2 || length == 4) {
    uint32_t number = file.GetIniInt(section, key.c_str(), 0);
    if (length == 1) number &= 0xFF;
    if (length == 2) number &= 0xFFFF;
    SetDataNumber(message, command, number, length);
  } else {
    SetDataString(message, command, WString(file.GetIniText(section, key.c_str(), u"")));
  }
  SetStatusOk(message);
  return true;
}

int CConfigSpace::ReadInto(RequestMessage& message, int fallback, const char16_t* section, bool textOnly) {
  if (section == nullptr) section = m_section.c_str();
  SetCommandValue(message, GetCurrentCommand(message), kKeyST, ST_NOT_AVAILABLE, false);
  if (ReadSingleValue(m_commonFile, message, section, false, textOnly)) return 1;
  if (!fallback) return 0;
  TRACE(3, u"CConfigSpace::ReadValue()\t: Config value not found in current config - look up default config\n");
  return ReadSingleValue(m_defaultFile, message, kDefaultSection, true, textOnly) ? 1 : 0;
}

int CConfigSpace::ReadValue(RequestMessage& message, int fallback, const char16_t* section) {
  return ReadInto(message, fallback, section, false);
}

int CConfigSpace::ReadTextValue(RequestMessage& message, int fallback, const char16_t* section) {
  return ReadInto(message, fallback, section, true);
}

int CConfigSpace::ReadPassword(RequestMessage& message, int fallback, const char16_t* section) {
  if (!ReadInto(message, fallback, section, true)) return 0;
  WString stored, clear;
  GetDataString(message, message.commandIndex, stored, 0);
  DecryptPassword(clear, stored);
  SetDataString(message, GetCurrentCommand(message), clear);
  SetStatusOk(message);
  return 1;
}

WString CConfigSpace::ValueKey(const RequestMessage& message) const {
  const Address address = AddressOf(message);
  return address.ca == m_ownCabinet ? LocalKey(address) : CabinetKey(address);
}

int CConfigSpace::WriteNumber(RequestMessage& message, const char16_t* section) {
  const int64_t length = GetDataLength(message, message.commandIndex);
  const WString key = ValueKey(message);
  const WString sizeKey = key + u".Size";
  if (section == nullptr) section = m_section.c_str();
  TRACE(3, u"CConfigSpace::WriteNumber()\t: start, key %s in [%s], length %d\n", key.c_str(), section,
        static_cast<int>(length));

  int ok = 0;
  if (length == 0) {
    TRACE(3, u"CConfigSpace::WriteNumber()\t: Delete configspace number\n");
    ok = m_commonFile.DeleteKey(section, key.c_str());
  } else if (length == 1 || length == 2 || length == 4) {
    uint32_t number = 0;
    GetDataValue(message, message.commandIndex, number);
    if (length == 1) number &= 0xFF;
    if (length == 2) number &= 0xFFFF;
    ok = m_commonFile.WriteUnsigned(section, key.c_str(), number);
  } else {
    TRACE(1,
          u"CConfigSpace::WriteNumber()\t: ## FATAL ERROR! Try to write a string or stream in WriteNumber() "
          u"(OpCodeExt %04X) - fix this!\n",
          GetCommandValue(message, message.commandIndex, kKeyOE, 0));
  }
  if (ok) {
    m_commonFile.WriteUnsigned(section, sizeKey.c_str(),
                               static_cast<uint32_t>(GetDataLength(message, message.commandIndex)));
    SetStatusOk(message);
    return 1;
  }
  SetCommandValue(message, GetCurrentCommand(message), kKeyST, ST_FAILED, false);
  return 0;
}

int CConfigSpace::StoreText(RequestMessage& message, const char16_t* section, const WString& text,
                            const char16_t* caller, bool* refused) {
  const WString key = ValueKey(message);
  const WString sizeKey = key + u".Size";
  if (section == nullptr) section = m_section.c_str();
  TRACE(3, u"CConfigSpace::%s()\t: key %s in [%s], %d characters\n", caller, key.c_str(), section,
        static_cast<int>(text.size()));
  int ok;
  if (text.empty()) {
    ok = m_commonFile.DeleteKey(section, key.c_str());
    m_commonFile.WriteSigned(section, sizeKey.c_str(), 0);
  } else {
    ok = m_commonFile.WriteString(section, key.c_str(),
                                  InIniQuotes(text) ? (u"\"" + text + u"\"").c_str() : text.c_str());
    if (ok) {
      m_commonFile.WriteUnsigned(section, sizeKey.c_str(), static_cast<uint32_t>(text.size()));
    } else {
      TRACE(1, u"CConfigSpace::%s()\t: ERROR! Write configspace string FAILED! Set \"%s=0\"\n", caller,
            sizeKey.c_str());
      m_commonFile.WriteUnsigned(section, sizeKey.c_str(), 0);
    }
  }
  SetCommandValue(message, GetCurrentCommand(message), kKeyST, ok ? ST_OK : ST_FAILED, false);
  if (refused) *refused = false;
  return ok ? 1 : 0;
}

int CConfigSpace::WriteText(RequestMessage& message, const char16_t* section, bool* refused) {
  WString text;
  GetDataString(message, message.commandIndex, text, 0);
  // The stored form is never shorter than the text: most refusals need no conversion.
  if (const char16_t* why = RefusalOf(text, text)) return Refuse(message, u"WriteText", why, refused);
  const WString stored = StoredLines(text);
  if (const char16_t* why = RefusalOf(text, stored)) return Refuse(message, u"WriteText", why, refused);
  return StoreText(message, section, stored, u"WriteText", refused);
}

int CConfigSpace::WritePassword(RequestMessage& message, const char16_t* section, bool* refused) {
  WString text, stored;
  GetDataString(message, message.commandIndex, text, 0);
  // Checked on the clear text first: the cipher would carry a terminator into the stored text,
  // and the deciphered password ends at it.
  if (const char16_t* why = RefusalOf(text, u"")) return Refuse(message, u"WritePassword", why, refused);
  if (GetDataLength(message, message.commandIndex) != 0) EncryptPassword(stored, text);
  stored = StoredLines(stored);
  if (const char16_t* why = RefusalOf(text, stored)) return Refuse(message, u"WritePassword", why, refused);
  return StoreText(message, section, stored, u"WritePassword", refused);
}
