#include "platform/SystemInfo.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <dlfcn.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "platform/Registry.h"

namespace platform {

uint32_t CurrentProcessId() {
  return static_cast<uint32_t>(::getpid());
}

WString ComputerName() {
  char name[256] = {0};
  if (::gethostname(name, sizeof name - 1) != 0) return WString();
  // The system's computer name is the host part, in capitals.
  WString w = WFromUtf8(name);
  size_t dot = w.find(u'.');
  if (dot != WString::npos) w.resize(dot);
  for (auto& c : w) c = WToUpperAscii(c);
  return w;
}

bool NativeProcessorArchitecture(uint16_t& architecture) {
  utsname u{};
  if (::uname(&u) != 0) return false;
  std::string m = u.machine;
  if (m == "x86_64" || m == "amd64")
    architecture = 9;
  else if (m == "aarch64" || m == "arm64")
    architecture = 12;
  else if (m == "ia64")
    architecture = 6;
  else if (m.size() == 4 && m[0] == 'i' && m.substr(2) == "86")
    architecture = 0;
  else
    architecture = 0xFFFF;
  return true;
}

WString OsProductName() {
  // The settings file may carry the Windows value; otherwise the distribution's own name.
  if (auto key = RegistryKey::OpenLocalMachine(u"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion")) {
    WString name;
    if (key->ReadString(u"ProductName", name)) return name;
  }
  std::ifstream in("/etc/os-release");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("PRETTY_NAME=", 0) == 0) {
      std::string v = line.substr(12);
      if (v.size() >= 2 && (v.front() == '"' || v.front() == '\'')) v = v.substr(1, v.size() - 2);
      return WFromUtf8(v);
    }
  }
  return WString();
}

bool CurrentProcessorNumber(uint32_t& number) {
  int cpu = ::sched_getcpu();
  if (cpu < 0) return false;
  number = static_cast<uint32_t>(cpu);
  return true;
}

bool ProcessMemory(uint64_t& privateBytes, uint64_t& workingSet) {
  FILE* f = fopen("/proc/self/status", "r");
  if (!f) return false;
  char line[256];
  bool haveData = false, haveRss = false;
  while (fgets(line, sizeof line, f)) {
    unsigned long long kb = 0;
    if (sscanf(line, "VmData: %llu kB", &kb) == 1) {
      privateBytes = kb * 1024;
      haveData = true;
    } else if (sscanf(line, "VmRSS: %llu kB", &kb) == 1) {
      workingSet = kb * 1024;
      haveRss = true;
    }
  }
  fclose(f);
  return haveData && haveRss;
}

bool ProcessHandleCount(uint32_t& count) {
  DIR* d = opendir("/proc/self/fd");
  if (!d) return false;
  uint32_t n = 0;
  while (dirent* e = readdir(d))
    if (e->d_name[0] != '.') ++n;
  closedir(d);
  count = n > 0 ? n - 1 : 0;  // less the directory handle of this count
  return true;
}

bool FormatIpv6Address(const uint8_t bytes[16], WString& text) {
  char buf[INET6_ADDRSTRLEN];
  if (!::inet_ntop(AF_INET6, bytes, buf, sizeof buf)) return false;
  text = WFromUtf8(buf);
  return true;
}

WString ModuleFilePath() {
  Dl_info info{};
  if (::dladdr(reinterpret_cast<void*>(&ModuleFilePath), &info) && info.dli_fname) {
    char resolved[4096];
    if (::realpath(info.dli_fname, resolved)) return WFromUtf8(resolved);
    return WFromUtf8(info.dli_fname);
  }
  return WString();
}

bool ReadModuleVersion(const WString& /*modulePath*/, ModuleVersionInfo& info) {
  // No version resources on POSIX: the build's own metadata stands in for them.
  info.fileDescription = u"Update filter module";
  info.companyName = u"Tessaly";
  info.productVersion = WFromAscii(EM_VERSION_TEXT);
  info.fileVersion[0] = EM_VERSION_MAJOR;
  info.fileVersion[1] = EM_VERSION_MINOR;
  info.fileVersion[2] = EM_VERSION_PATCH;
  info.fileVersion[3] = EM_VERSION_TWEAK;
  return true;
}

}  // namespace platform
