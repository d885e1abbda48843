#include "platform/Registry.h"

#include "platform/Environment.h"
#include "platform/FileIo.h"
#include "platform/RegFile.h"

namespace platform {

namespace {

class FileRegistryKey : public RegistryKey {
 public:
  explicit FileRegistryKey(RegFileKey key) : m_key(std::move(key)) {}

  bool ReadRaw(WStringView name, RegType& type, std::vector<uint8_t>& data) override {
    for (const auto& v : m_key.values) {
      if (WEqualsNoCase(v.name, name)) {
        type = v.type;
        data = v.data;
        return true;
      }
    }
    return false;
  }

 private:
  RegFileKey m_key;
};

bool LoadRegFile(RegFile& file) {
  std::string bytes;
  if (!ReadWholeFile(RegistryFilePath(), bytes)) return false;
  return ParseRegFile(bytes, file);
}

bool SaveRegFile(const RegFile& file) {
  std::string bytes = SerializeRegFile(file);
  WString path = RegistryFilePath();
  WString tmp = path + u".new";
  return WriteWholeFile(tmp, bytes.data(), bytes.size()) && RenamePath(tmp, path);
}

// Loads the file (or starts a new one in UTF-16LE, as the registry editor writes) for a change.
RegFile LoadForChange() {
  RegFile file;
  if (!LoadRegFile(file)) file = RegFile{};
  return file;
}

}  // namespace

WString RegistryFilePath() {
  WString path;
  if (GetEnv(u"NODEWARDEN_REGISTRY", path) && !path.empty()) return path;
  return u"/etc/nodewarden/registry.reg";
}

std::unique_ptr<RegistryKey> RegistryKey::OpenLocalMachine(WStringView path) {
  RegFile file;
  if (!LoadRegFile(file)) return nullptr;
  RegFileKey* key = file.FindLocalMachineKey(path);
  if (!key) return nullptr;
  return std::make_unique<FileRegistryKey>(*key);
}

namespace {
// Loads the file (or starts a new one), sets one value and writes the file back.
bool PutValue(WStringView path, const RegFileValue& value) {
  RegFile file = LoadForChange();
  file.AddLocalMachineKey(path).SetValue(value);
  return SaveRegFile(file);
}
}  // namespace

bool RegistryWriteString(WStringView path, WStringView name, WStringView value, bool expandable) {
  return PutValue(path, {WString(name), expandable ? RegType::ExpandString : RegType::String, RegStringData(value)});
}

bool RegistryWriteDword(WStringView path, WStringView name, uint32_t d) {
  return PutValue(path, {WString(name),
                         RegType::Dword,
                         {static_cast<uint8_t>(d), static_cast<uint8_t>(d >> 8), static_cast<uint8_t>(d >> 16),
                          static_cast<uint8_t>(d >> 24)}});
}

bool RegistryDeleteValue(WStringView path, WStringView name) {
  RegFile file;
  if (!LoadRegFile(file)) return false;
  RegFileKey* key = file.FindLocalMachineKey(path);
  if (!key) return false;
  for (size_t i = 0; i < key->values.size(); ++i)
    if (WEqualsNoCase(key->values[i].name, name)) {
      key->values.erase(key->values.begin() + i);
      return SaveRegFile(file);
    }
  return false;
}

bool RegistryDeleteTree(WStringView path) {
  RegFile file;
  if (!LoadRegFile(file)) return false;
  WString prefix = WString(path) + u"\\";
  bool removed = false;
  for (size_t i = 0; i < file.keys.size();) {
    WString sub;
    bool match = RegLocalMachineSubPath(file.keys[i].path, sub) &&
                 (WEqualsNoCase(sub, path) ||
                  (sub.size() > prefix.size() && WEqualsNoCase(WStringView(sub).substr(0, prefix.size()), prefix)));
    if (match) {
      file.keys.erase(file.keys.begin() + i);
      removed = true;
    } else {
      ++i;
    }
  }
  return removed ? SaveRegFile(file) : false;
}

}  // namespace platform
