// The registry editor's export format ("Windows Registry Editor Version 5.00"), read in both
// encodings such files come in (UTF-16LE with its mark, or UTF-8/ASCII) with CR LF or LF line
// ends, and written back. Used by the POSIX registry and by the host to import a settings file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/WString.h"
#include "platform/Registry.h"

namespace platform {

struct RegFileValue {
  WString name;  // empty for the default value "@"
  RegType type = RegType::None;
  std::vector<uint8_t> data;  // as the registry stores it: strings UTF-16LE with terminator
};

struct RegFileKey {
  WString path;  // full path as written, e.g. HKEY_LOCAL_MACHINE\SOFTWARE\Debug
  std::vector<RegFileValue> values;

  // Replaces the value of the same name (compared without case) or appends it.
  void SetValue(const RegFileValue& value);
};

struct RegFile {
  bool utf16 = true;  // the encoding to write back in
  std::vector<RegFileKey> keys;

  // Finds a key by its path below HKEY_LOCAL_MACHINE (case-insensitive, HKLM accepted too).
  RegFileKey* FindLocalMachineKey(WStringView path);
  RegFileKey& AddLocalMachineKey(WStringView path);
};

// Parses the bytes of a .reg file. Lines that cannot be read are skipped; false only when the
// text does not start with a known header.
bool ParseRegFile(const std::string& bytes, RegFile& file);
std::string SerializeRegFile(const RegFile& file);

// Helpers for the value data.
std::vector<uint8_t> RegStringData(WStringView text);
WString RegDataString(const std::vector<uint8_t>& data);

// Path below HKEY_LOCAL_MACHINE of a full key path, or false for other hives.
bool RegLocalMachineSubPath(WStringView fullPath, WString& subPath);

}  // namespace platform
