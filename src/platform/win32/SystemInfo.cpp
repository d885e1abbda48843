#include "platform/SystemInfo.h"

#include <vector>

#include "base/WFormat.h"
#include "platform/Registry.h"
#include "platform/win32/Win32Util.h"
// psapi.h needs the types of windows.h first.
#include <psapi.h>

namespace platform {

uint32_t CurrentProcessId() {
  return GetCurrentProcessId();
}

WString ComputerName() {
  wchar_t buf[MAX_COMPUTERNAME_LENGTH + 1];
  DWORD n = MAX_COMPUTERNAME_LENGTH + 1;
  if (!GetComputerNameW(buf, &n)) return WString();
  return WString(U16(buf), n);
}

bool NativeProcessorArchitecture(uint16_t& architecture) {
  using Fn = void(WINAPI*)(LPSYSTEM_INFO);
  HMODULE k = GetModuleHandleW(L"kernel32.dll");
  auto fn = k ? reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(k, "GetNativeSystemInfo"))) : nullptr;
  if (!fn) return false;
  SYSTEM_INFO si{};
  fn(&si);
  architecture = si.wProcessorArchitecture;
  return true;
}

WString OsProductName() {
  auto key = RegistryKey::OpenLocalMachine(u"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion");
  WString name;
  if (key && key->ReadString(u"ProductName", name)) return name;
  return WString();
}

bool CurrentProcessorNumber(uint32_t& number) {
  // Processor groups: the active processors of the groups below ours plus our number in the group.
  HMODULE k = GetModuleHandleW(L"kernel32.dll");
  using GroupCountFn = WORD(WINAPI*)();
  using CountFn = DWORD(WINAPI*)(WORD);
  using NumberExFn = void(WINAPI*)(PPROCESSOR_NUMBER);
  using NumberFn = DWORD(WINAPI*)();
  auto groupCount =
      reinterpret_cast<GroupCountFn>(reinterpret_cast<void*>(GetProcAddress(k, "GetActiveProcessorGroupCount")));
  auto count = reinterpret_cast<CountFn>(reinterpret_cast<void*>(GetProcAddress(k, "GetActiveProcessorCount")));
  auto numberEx =
      reinterpret_cast<NumberExFn>(reinterpret_cast<void*>(GetProcAddress(k, "GetCurrentProcessorNumberEx")));
  if (groupCount && count && numberEx) {
    PROCESSOR_NUMBER pn{};
    numberEx(&pn);
    uint32_t n = 0;
    for (WORD g = 0; g < pn.Group; ++g) n += count(g);
    number = n + pn.Number;
    return true;
  }
  auto plain = reinterpret_cast<NumberFn>(reinterpret_cast<void*>(GetProcAddress(k, "GetCurrentProcessorNumber")));
  if (!plain) return false;
  number = plain();
  return true;
}

bool ProcessMemory(uint64_t& privateBytes, uint64_t& workingSet) {
  PROCESS_MEMORY_COUNTERS_EX pmc{};
  pmc.cb = sizeof pmc;
  if (!GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&pmc), sizeof pmc))
    return false;
  if (pmc.cb >= 80) {
    privateBytes = pmc.PrivateUsage;
    workingSet = pmc.WorkingSetSize;
  } else {
    privateBytes = pmc.PagefileUsage;
    workingSet = 0;
  }
  return true;
}

bool ProcessHandleCount(uint32_t& count) {
  DWORD n = 0;
  if (!GetProcessHandleCount(GetCurrentProcess(), &n)) return false;
  count = n;
  return true;
}

bool FormatIpv6Address(const uint8_t bytes[16], WString& text) {
  // The system's formatter lives in ntdll; looked up, since not every system has it.
  using Fn = wchar_t*(WINAPI*)(const void*, wchar_t*);
  HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
  auto fn =
      ntdll ? reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(ntdll, "RtlIpv6AddressToStringW"))) : nullptr;
  if (!fn) return false;
  wchar_t buf[64] = {0};
  fn(bytes, buf);
  text = U16(buf);
  return true;
}

WString ModuleFilePath() {
  HMODULE self = nullptr;
  if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                          reinterpret_cast<LPCWSTR>(&ModuleFilePath), &self))
    return WString();
  wchar_t buf[MAX_PATH + 1];
  DWORD n = GetModuleFileNameW(self, buf, MAX_PATH + 1);
  return WString(U16(buf), n);
}

bool ReadModuleVersion(const WString& modulePath, ModuleVersionInfo& info) {
  DWORD dummy = 0;
  DWORD size = GetFileVersionInfoSizeW(W32(modulePath), &dummy);
  if (!size) return false;
  std::vector<uint8_t> block(size);
  if (!GetFileVersionInfoW(W32(modulePath), 0, size, block.data())) return false;
  VS_FIXEDFILEINFO* fixed = nullptr;
  UINT len = 0;
  if (VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&fixed), &len) && fixed) {
    info.fileVersion[0] = HIWORD(fixed->dwFileVersionMS);
    info.fileVersion[1] = LOWORD(fixed->dwFileVersionMS);
    info.fileVersion[2] = HIWORD(fixed->dwFileVersionLS);
    info.fileVersion[3] = LOWORD(fixed->dwFileVersionLS);
  }
  struct Translation {
    WORD language, codePage;
  }* tr = nullptr;
  WString prefix = u"\\StringFileInfo\\040904b0\\";
  if (VerQueryValueW(block.data(), L"\\VarFileInfo\\Translation", reinterpret_cast<void**>(&tr), &len) && tr &&
      len >= sizeof(Translation)) {
    prefix = WFormat(u"\\StringFileInfo\\%04x%04x\\", static_cast<unsigned>(tr->language),
                     static_cast<unsigned>(tr->codePage));
  }
  auto read = [&](const char16_t* name, WString& out) {
    WString q = prefix + name;
    wchar_t* value = nullptr;
    UINT n = 0;
    if (VerQueryValueW(block.data(), W32(q), reinterpret_cast<void**>(&value), &n) && value) {
      out = U16(value);
      for (char16_t& c : out)
        if (c < 0x20) c = u'?';  // the banner prints only what can be read
    }
  };
  read(u"FileDescription", info.fileDescription);
  read(u"CompanyName", info.companyName);
  read(u"ProductVersion", info.productVersion);
  return true;
}

}  // namespace platform
