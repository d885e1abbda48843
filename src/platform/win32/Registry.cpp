#include "platform/Registry.h"

#include "platform/win32/Win32Util.h"

namespace platform {

namespace {

class Win32RegistryKey : public RegistryKey {
 public:
  explicit Win32RegistryKey(HKEY key) : m_key(key) {}
  ~Win32RegistryKey() override { RegCloseKey(m_key); }

  bool ReadRaw(WStringView name, RegType& type, std::vector<uint8_t>& data) override {
    WString n(name);
    DWORD t = 0, size = 0;
    if (RegQueryValueExW(m_key, W32(n), nullptr, &t, nullptr, &size) != ERROR_SUCCESS) return false;
    data.assign(size, 0);
    if (RegQueryValueExW(m_key, W32(n), nullptr, &t, data.data(), &size) != ERROR_SUCCESS) return false;
    data.resize(size);
    type = static_cast<RegType>(t);
    return true;
  }

 private:
  HKEY m_key;
};

}  // namespace

WString RegistryFilePath() {
  return WString();
}

std::unique_ptr<RegistryKey> RegistryKey::OpenLocalMachine(WStringView path) {
  WString p(path);
  HKEY key = nullptr;
  // The 64-bit view first; plain read access when that is refused.
  LONG rc = RegOpenKeyExW(HKEY_LOCAL_MACHINE, W32(p), 0, KEY_WOW64_64KEY | KEY_QUERY_VALUE, &key);
  if (rc == ERROR_ACCESS_DENIED) rc = RegOpenKeyExW(HKEY_LOCAL_MACHINE, W32(p), 0, KEY_READ, &key);
  if (rc != ERROR_SUCCESS) return nullptr;
  return std::make_unique<Win32RegistryKey>(key);
}

namespace {
bool WriteValue(WStringView path, WStringView name, DWORD type, const void* data, DWORD size) {
  WString p(path), n(name);
  HKEY key = nullptr;
  if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, W32(p), 0, nullptr, 0, KEY_WOW64_64KEY | KEY_SET_VALUE, nullptr, &key,
                      nullptr) != ERROR_SUCCESS)
    return false;
  LONG rc = RegSetValueExW(key, W32(n), 0, type, static_cast<const BYTE*>(data), size);
  RegCloseKey(key);
  return rc == ERROR_SUCCESS;
}
}  // namespace

bool RegistryWriteString(WStringView path, WStringView name, WStringView value, bool expandable) {
  WString v(value);
  return WriteValue(path, name, expandable ? REG_EXPAND_SZ : REG_SZ, v.c_str(),
                    static_cast<DWORD>((v.size() + 1) * sizeof(char16_t)));
}

bool RegistryWriteDword(WStringView path, WStringView name, uint32_t value) {
  DWORD d = value;
  return WriteValue(path, name, REG_DWORD, &d, sizeof d);
}

bool RegistryDeleteValue(WStringView path, WStringView name) {
  WString p(path), n(name);
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, W32(p), 0, KEY_WOW64_64KEY | KEY_SET_VALUE, &key) != ERROR_SUCCESS)
    return false;
  LONG rc = RegDeleteValueW(key, W32(n));
  RegCloseKey(key);
  return rc == ERROR_SUCCESS;
}

bool RegistryDeleteTree(WStringView path) {
  WString p(path);
  return RegDeleteTreeW(HKEY_LOCAL_MACHINE, W32(p)) == ERROR_SUCCESS &&
         RegDeleteKeyW(HKEY_LOCAL_MACHINE, W32(p)) == ERROR_SUCCESS;
}

}  // namespace platform
