#include "platform/Registry.h"

#include "platform/Environment.h"
#include "platform/RegFile.h"

namespace platform {

bool RegistryKey::ReadString(WStringView name, WString& value) {
  RegType type;
  std::vector<uint8_t> data;
  if (!ReadRaw(name, type, data)) return false;
  if (type == RegType::String) {
    value = RegDataString(data);
    return true;
  }
  if (type == RegType::ExpandString) {
    value = ExpandEnvironment(RegDataString(data));
    return true;
  }
  return false;
}

bool RegistryKey::ReadDword(WStringView name, uint32_t& value) {
  RegType type;
  std::vector<uint8_t> data;
  if (!ReadRaw(name, type, data) || data.size() < 4) return false;
  if (type != RegType::Dword && type != RegType::Binary) return false;
  value = data[0] | (data[1] << 8) | (data[2] << 16) | (static_cast<uint32_t>(data[3]) << 24);
  return true;
}

}  // namespace platform
