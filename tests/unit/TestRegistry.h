// A private registry for a test: on POSIX a fresh .reg file named by NODEWARDEN_REGISTRY, on
// Windows a key of the test's own below HKEY_LOCAL_MACHINE that is removed afterwards.
#pragma once

#include <string>

#include "base/WString.h"
#include "platform/Environment.h"
#include "platform/FileIo.h"
#include "platform/Registry.h"

class TestRegistry {
 public:
  explicit TestRegistry(const char16_t* tag) {
#ifndef _WIN32
    m_file = platform::TempDirectory() + u"/em_test_" + tag + u".reg";
    platform::RemoveFilePath(m_file);
    platform::GetEnv(u"NODEWARDEN_REGISTRY", m_saved);
    platform::SetEnv(u"NODEWARDEN_REGISTRY", m_file);
#else
    (void)tag;
#endif
  }
  ~TestRegistry() {
    for (const auto& k : m_keys) platform::RegistryDeleteTree(k);
#ifndef _WIN32
    platform::RemoveFilePath(m_file);
    if (m_saved.empty())
      platform::UnsetEnv(u"NODEWARDEN_REGISTRY");
    else
      platform::SetEnv(u"NODEWARDEN_REGISTRY", m_saved);
#endif
  }
  // Keys written through these are removed at the end of the test.
  void Dword(const WString& key, const char16_t* name, uint32_t value) {
    m_keys.push_back(key);
    platform::RegistryWriteDword(key, name, value);
  }
  void String(const WString& key, const char16_t* name, const WString& value, bool expandable = false) {
    m_keys.push_back(key);
    platform::RegistryWriteString(key, name, value, expandable);
  }
  void DeleteKey(const WString& key) {
    platform::RegistryDeleteTree(key);
  }
  const WString& File() const {
    return m_file;
  }

 private:
  WString m_file;
  WString m_saved;
  std::vector<WString> m_keys;
};

// A fresh directory below the temporary directory for one test.
inline WString TestDirectory(const char16_t* tag) {
  WString dir = platform::TempDirectory() + platform::kPathSeparator + u"em_test_" + tag;
  platform::CreateDirectoryPath(dir);
  return dir;
}

// A text as a file in UTF-16LE with its byte-order mark, as the registry editor and the
// configuration files write it.
inline std::string Utf16LeWithMark(const std::u16string& text) {
  std::string out("\xFF\xFE", 2);
  for (char16_t c : text) {
    out.push_back(static_cast<char>(c & 0xFF));
    out.push_back(static_cast<char>(c >> 8));
  }
  return out;
}
