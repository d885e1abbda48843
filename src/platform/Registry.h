// Registry reads below the local machine hive. On Windows the system registry (64-bit view,
// falling back to plain read access when that is refused); on POSIX a file in the registry
// editor's export format, named by NODEWARDEN_REGISTRY (default /etc/nodewarden/registry.reg),
// read afresh at each opening of a key.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/WString.h"

namespace platform {

enum class RegType : uint32_t {
  None = 0,
  String = 1,
  ExpandString = 2,
  Binary = 3,
  Dword = 4,
  MultiString = 7,
  Qword = 11
};

class RegistryKey {
 public:
  virtual ~RegistryKey() = default;
  // Opens `path` (e.g. u"SOFTWARE\\Debug") below HKEY_LOCAL_MACHINE; null when it does not exist.
  static std::unique_ptr<RegistryKey> OpenLocalMachine(WStringView path);

  // A string or expandable string; expandable ones come back expanded from the environment.
  bool ReadString(WStringView name, WString& value);
  // A four-byte number.
  bool ReadDword(WStringView name, uint32_t& value);
  // The value as stored: its type and bytes (strings UTF-16LE with their terminator).
  virtual bool ReadRaw(WStringView name, RegType& type, std::vector<uint8_t>& data) = 0;
};

// Writes, for the host and the tests that prepare a server's settings.
bool RegistryWriteString(WStringView path, WStringView name, WStringView value, bool expandable);
bool RegistryWriteDword(WStringView path, WStringView name, uint32_t value);
bool RegistryDeleteValue(WStringView path, WStringView name);
// Removes the key with everything below it.
bool RegistryDeleteTree(WStringView path);

// The path of the POSIX registry file in force (empty on Windows).
WString RegistryFilePath();

}  // namespace platform
