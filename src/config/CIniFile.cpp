#include "config/CIniFile.h"

#include <new>

#include "base/WFormat.h"
#include "foundation/CDebug.h"
#include "foundation/RootPaths.h"
#include "platform/FileIo.h"
#include "platform/PrivateProfile.h"

void CIniFile::SetFileName(const char16_t* name) {
  if (name == nullptr || *name == 0) return;
  m_fileName = name;
  if (m_fileName.find_first_of(u"\\/") == WString::npos) m_fileName = WString(u".") + kSep + m_fileName;
}

namespace {
bool CanRead(const WString& path) {
  size_t got = 0;
  char none = 0;
  return platform::FileExists(path) && platform::ReadFilePrefix(path, &none, 0, got);
}
}  // namespace

int CIniFile::OpenExisting(int mustExist) {
  if (m_fileName.empty()) {
    m_open = 0;
    return 0;
  }
  const bool readable = CanRead(m_fileName);
  m_open = (!mustExist || readable) ? 1 : 0;
  TRACE(3, u"CIniFile::OpenExisting()\t: '%s' %s\n", m_fileName.c_str(), readable ? u"found" : u"not found");
  return readable ? 1 : 0;
}

int CIniFile::OpenUnicode(int mustExist) {
  m_open = 0;
  if (m_fileName.empty()) return mustExist ? 0 : 1;
  if (CanRead(m_fileName)) {
    TRACE(3, u"CIniFile::OpenUnicode()\t: '%s' already exists\n", m_fileName.c_str());
  } else if (platform::FileExists(m_fileName)) {
    // There but unreadable: replacing it would lose what it holds.
    TRACE(1, u"CIniFile::OpenUnicode()\t: ERROR! cannot read '%s'\n", m_fileName.c_str());
  } else {
    TRACE(3, u"CIniFile::OpenUnicode()\t: Create empty UNICODE ini file '%s'\n", m_fileName.c_str());
    static const unsigned char kMark[2] = {0xFF, 0xFE};
    if (!platform::WriteWholeFile(m_fileName, kMark, sizeof kMark)) {
      TRACE(1, u"CIniFile::OpenUnicode()\t: ERROR! cannot create '%s'\n", m_fileName.c_str());
      platform::RemoveFilePath(m_fileName);
    }
  }
  m_open = mustExist ? (platform::FileExists(m_fileName) ? 1 : 0) : 1;
  return m_open;
}

bool CIniFile::ReadWithCapacity(uint32_t capacity, const char16_t* section, const char16_t* key, const char16_t* def,
                                uint32_t& copied) {
  if (capacity != m_capacity || !m_buffer) {
    m_buffer.reset(new (std::nothrow) char16_t[capacity]);
    m_capacity = m_buffer ? capacity : 0;
    if (!m_buffer) return false;
  }
  copied = platform::ProfileReadText(m_fileName, section, key, def, m_buffer.get(), m_capacity);
  return true;
}

const char16_t* CIniFile::GetIniText(const char16_t* section, const char16_t* key, const char16_t* def) {
  if (def == nullptr) def = u"";
  if (!IsOpen()) return def;
  uint32_t capacity = m_buffer ? m_capacity : kBufferStep;
  uint32_t copied = 0;
  while (ReadWithCapacity(capacity, section, key, def, copied)) {
    // The system's read says "cut" only by filling the buffer to its last one or two places.
    if (copied + 1 != m_capacity && copied + 2 != m_capacity) return m_buffer.get();
    if (m_capacity >= kLargestBuffer) break;
    // Straight to the largest buffer: growing it a step at a time would read the whole file once
    // a step, which for a long value in a large file costs minutes at every start.
    capacity = kLargestBuffer;
  }
  TRACE(1, u"CIniFile::GetIniText()\t: value of '%s' does not fit %u characters - taken as absent\n", key,
        static_cast<unsigned>(m_capacity));
  m_buffer.reset();
  m_capacity = 0;
  return def;
}

uint32_t CIniFile::GetIniInt(const char16_t* section, const char16_t* key, int32_t def) {
  if (!IsOpen()) return static_cast<uint32_t>(def);
  return platform::ProfileReadInt(m_fileName, section, key, def);
}

int CIniFile::WriteString(const char16_t* section, const char16_t* key, const char16_t* value) {
  if (!IsOpen()) return 0;
  return platform::ProfileWrite(m_fileName, section, key, value) ? 1 : 0;
}

int CIniFile::WriteUnsigned(const char16_t* section, const char16_t* key, uint32_t value) {
  return WriteString(section, key, WFormat(u"%u", value).c_str());
}

int CIniFile::WriteSigned(const char16_t* section, const char16_t* key, int32_t value) {
  return WriteString(section, key, WFormat(u"%d", value).c_str());
}

int CIniFile::DeleteKey(const char16_t* section, const char16_t* key) {
  if (key == nullptr) return 0;  // a null key would take the whole section with it
  return WriteString(section, key, nullptr);
}
