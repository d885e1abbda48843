#include "foundation/RootPaths.h"

#include "foundation/CDebug.h"
#include "platform/FileIo.h"
#include "platform/Registry.h"

namespace {

const char16_t kHostUuidKey[] = u"SYSTEM\\CurrentControlSet\\Control\\UUID\\7D41E2A0-5B3C-4F18-9E66-2C0A91D7B34F";
const char16_t kHostFixedKey[] = u"SOFTWARE\\Hadley Brandt\\Management\\Node Warden";

// One trailing separator goes, unless it belongs to a bare drive ("C:\" keeps it).
void DropTrailingSeparator(WString& s) {
  if (s.size() >= 4 && (s.back() == u'\\' || s.back() == u'/')) s.pop_back();
}

// A root value of the host's installation, with the separator rule for registry values.
bool ReadRootValue(const WString& key, const char16_t* name, WString& out) {
  WString v;
  if (!ReadRegistryString(key, name, v) || v.empty()) return false;
  DropTrailingSeparator(v);
  out = v;
  return true;
}

}  // namespace

int ReadRegistryString(WStringView keyPath, WStringView valueName, WString& out) {
  auto key = platform::RegistryKey::OpenLocalMachine(keyPath);
  if (!key) return 0;
  return key->ReadString(valueName, out) ? 1 : 0;
}

WString ReadHostBaseKeyPath() {
  WString base;
  if (ReadRegistryString(kHostUuidKey, u"Node Warden", base) && !base.empty()) return base;
  return kHostFixedKey;
}

WString ReadSetupKeyPath() {
  return ReadHostBaseKeyPath() + u"\\Setup";
}
WString ReadDataKeyPath() {
  return ReadHostBaseKeyPath() + u"\\DATA";
}

WString SystemTempDirectory() {
  WString t = platform::TempDirectory();
  if (t.size() >= 260) return WString();
  if (!t.empty() && t.back() != kSep) t.push_back(kSep);
  return t;
}

WString CurrentDirectoryText() {
  WString c = platform::CurrentDirectory();
  if (c.size() < 2) return WString();
  if (c.size() > 1 && (c.back() == u'\\' || c.back() == u'/')) c.pop_back();
  return c;
}

const WString& ReadDataRoot(WString& out) {
  if (!ReadRootValue(ReadDataKeyPath(), u"DataRoot", out)) out = SystemTempDirectory();
  return out;
}

const WString& ReadTempRoot(WString& out) {
  if (!ReadRootValue(ReadSetupKeyPath(), u"TempRoot", out)) ReadDataRoot(out);
  return out;
}

const WString& ReadFileRoot(WString& out) {
  if (!ReadRootValue(ReadSetupKeyPath(), u"FileRoot", out)) out = CurrentDirectoryText();
  return out;
}

const WString& ReadBinRoot(WString& out) {
  const WString setup = ReadSetupKeyPath();
  if (ReadRootValue(setup, u"BinRoot", out)) return out;
  if (ReadRootValue(setup, u"FileRoot", out)) return out;
  out = CurrentDirectoryText();
  if (!out.empty()) return out;
  ReadFileRoot(out);
  out += kSep;
  out += u"Bin";
  return out;
}
