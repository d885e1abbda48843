// One ini file of the configuration space: its name, whether it may be used, and the buffer that
// text reads land in. Every read and write goes through the private-profile service and touches
// the file system only for that call.
#pragma once

#include <cstdint>
#include <memory>

#include "base/WString.h"

class CIniFile {
 public:
  static constexpr uint32_t kBufferStep = 1024;    // characters
  static constexpr uint32_t kBufferLimit = 65536;  // the buffer stays below this many characters
  // The largest buffer, the last multiple of the step below the limit: 64,512 characters.
  static constexpr uint32_t kLargestBuffer = (kBufferLimit - 1) / kBufferStep * kBufferStep;
  // The longest value that reads back whole (64,509 characters): a read that fills the buffer to
  // its last one or two places cannot be told from a cut one.
  static constexpr uint32_t kLongestValue = kLargestBuffer - 3;

  CIniFile() = default;
  CIniFile(const CIniFile&) = delete;
  CIniFile& operator=(const CIniFile&) = delete;

  // Ignores a null or empty name. A bare file name gets the current directory's prefix, so that
  // the system does not look for it in its own directory.
  void SetFileName(const char16_t* name);
  const WString& GetFileName() const { return m_fileName; }

  // Whether the file can be opened for reading. The file counts as open afterwards unless mustExist
  // is set and it is missing; with no name it is closed and the result is 0.
  int OpenExisting(int mustExist);
  // As OpenExisting, but a missing file is created holding only the UTF-16 byte order mark, which
  // makes every later write to it store wide characters. With mustExist the result (and the open
  // state) says whether the file exists now; without it both are 1.
  int OpenUnicode(int mustExist);
  void Close() { m_open = 0; }
  bool IsOpen() const { return m_open != 0 && !m_fileName.empty(); }

  // The value text, in this object's buffer (copy it at once), or `def`. A value longer than
  // kLongestValue reads as absent. The file is read at most twice: a value that fills the first
  // buffer is read again into the largest one.
  const char16_t* GetIniText(const char16_t* section, const char16_t* key, const char16_t* def);
  // The value as a number (see platform/PrivateProfile.h), or `def` as unsigned.
  uint32_t GetIniInt(const char16_t* section, const char16_t* key, int32_t def);

  // Nonzero on success; 0 while the file is closed.
  int WriteString(const char16_t* section, const char16_t* key, const char16_t* value);
  int WriteUnsigned(const char16_t* section, const char16_t* key, uint32_t value);
  int WriteSigned(const char16_t* section, const char16_t* key, int32_t value);
  int DeleteKey(const char16_t* section, const char16_t* key);

  uint32_t BufferCapacity() const { return m_capacity; }

 private:
  // Reads into a fresh buffer of `capacity` characters; false if it cannot be had.
  bool ReadWithCapacity(uint32_t capacity, const char16_t* section, const char16_t* key, const char16_t* def,
                        uint32_t& copied);

  WString m_fileName;
  std::unique_ptr<char16_t[]> m_buffer;
  uint32_t m_capacity = 0;
  int32_t m_open = 0;
};
