#include "nwhost/HostOptions.h"

#include <cstdio>
#include <filesystem>
#include <system_error>

#include "foundation/RootPaths.h"
#include "platform/Environment.h"
#include "platform/FileIo.h"
#include "platform/RegFile.h"
#include "platform/Registry.h"
#include "platform/SystemInfo.h"

namespace {

#ifdef _WIN32
// Brings the keys of a registry export into the system registry below the local machine hive,
// which is where the module reads its settings on Windows.
bool ImportRegistryFile(const std::string& path, std::string& error) {
  std::string bytes;
  if (!platform::ReadWholeFile(WFromUtf8(path), bytes)) {
    error = "cannot read " + path;
    return false;
  }
  platform::RegFile file;
  if (!platform::ParseRegFile(bytes, file)) {
    error = path + " is no registry export";
    return false;
  }
  for (const platform::RegFileKey& key : file.keys) {
    WString sub;
    if (!platform::RegLocalMachineSubPath(key.path, sub)) {
      std::fprintf(stderr, "nwhost: skipping key outside HKEY_LOCAL_MACHINE: %s\n", WToUtf8(key.path).c_str());
      continue;
    }
    for (const platform::RegFileValue& value : key.values) {
      bool written = false;
      switch (value.type) {
        case platform::RegType::String:
        case platform::RegType::ExpandString:
          written = platform::RegistryWriteString(sub, value.name, platform::RegDataString(value.data),
                                                  value.type == platform::RegType::ExpandString);
          break;
        case platform::RegType::Dword:
          if (value.data.size() == 4) {
            const uint32_t number = value.data[0] | (value.data[1] << 8) | (value.data[2] << 16) |
                                    (static_cast<uint32_t>(value.data[3]) << 24);
            written = platform::RegistryWriteDword(sub, value.name, number);
          }
          break;
        default:
          break;
      }
      if (!written) {
        error = "cannot write " + WToUtf8(key.path) + "\\" + WToUtf8(value.name);
        return false;
      }
    }
  }
  return true;
}

#endif

}  // namespace

bool PrepareRegistry(const std::string& path, std::string& error) {
#ifdef _WIN32
  return ImportRegistryFile(path, error);
#else
  // The POSIX registry is the file itself; the module reads it afresh at each lookup.
  if (!platform::SetEnv(u"NODEWARDEN_REGISTRY", WFromUtf8(path))) {
    error = "cannot set NODEWARDEN_REGISTRY";
    return false;
  }
  return true;
#endif
}

int ParseHostOption(int argc, char** argv, int& i, ModuleHost::Options& options, std::string& registry) {
  const std::string arg = argv[i];
  const bool hasValue = i + 1 < argc;
  if (arg == "--module") {
    if (!hasValue) return -1;
    options.modulePath = WFromUtf8(argv[++i]);
    return 1;
  }
  if (arg == "--cabinet") {
    if (!hasValue) return -1;
    const std::string text = argv[++i];
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 10) return -1;
    const unsigned long long number = std::stoull(text);
    if (number > 0xFFFFFFFFull) return -1;
    options.cabinet = static_cast<uint32_t>(number);
    options.setCabinet = true;
    return 1;
  }
  if (arg == "--no-cabinet") {
    options.setCabinet = false;
    return 1;
  }
  if (arg == "--registry") {
    if (!hasValue) return -1;
    registry = argv[++i];
    return 1;
  }
  return 0;
}

bool PrepareAndStart(const std::string& registry, ModuleHost& host) {
  std::string error;
  if (!registry.empty() && !PrepareRegistry(registry, error)) {
    std::fprintf(stderr, "nwhost: %s\n", error.c_str());
    return false;
  }
  if (!host.Start()) {
    std::fprintf(stderr, "nwhost: %s\n", host.LastError().c_str());
    return false;
  }
  return true;
}

bool ProvideTransferTool(const WString& directory, const char* place, const std::string& tool, std::string& error) {
#ifdef _WIN32
  const WString name = u"FileDownLoad.exe";
#else
  const WString name = u"FileDownLoad";
#endif
  const WString here = directory + kSep + name;
  if (platform::FileExists(here)) return true;
  WString source;
  if (!tool.empty()) {
    source = WFromUtf8(tool);
  } else {
    const WString self = platform::ModuleFilePath();
    const size_t slash = self.find_last_of(u"/\\");
    source = (slash == WString::npos ? WString() : self.substr(0, slash + 1)) + name;
  }
  if (!platform::FileExists(source)) {
    error = std::string(place) + " has no " + WToUtf8(name) + " and " + WToUtf8(source) +
            " does not exist (--tool names one)";
    return false;
  }
  std::error_code ec;
  std::filesystem::copy_file(std::filesystem::path(source), std::filesystem::path(here),
                             std::filesystem::copy_options::overwrite_existing, ec);
  if (ec) {
    error = "cannot copy " + WToUtf8(source) + " into " + place + ": " + ec.message();
    return false;
  }
  return true;
}
