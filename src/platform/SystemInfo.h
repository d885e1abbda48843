// Facts about the system and this process.
#pragma once

#include <cstdint>

#include "base/WString.h"

namespace platform {

WString ComputerName();
uint32_t CurrentProcessId();
// The processor architecture of the machine with the system's codes: 0 x86, 6 IA64, 9 x64,
// 12 ARM64. False when the native query is missing.
bool NativeProcessorArchitecture(uint16_t& architecture);
// The operating system's product name; empty if it cannot be read.
WString OsProductName();
bool CurrentProcessorNumber(uint32_t& number);
// Private bytes and working set of the process.
bool ProcessMemory(uint64_t& privateBytes, uint64_t& workingSet);
bool ProcessHandleCount(uint32_t& count);

// The system's text form of an IPv6 address; false when the system has no formatter.
bool FormatIpv6Address(const uint8_t bytes[16], WString& text);

// Path of the file that holds this code (the module file when called from the module).
WString ModuleFilePath();

struct ModuleVersionInfo {
  WString fileDescription;
  WString companyName;
  WString productVersion;
  uint16_t fileVersion[4] = {0, 0, 0, 0};
};
// The version resource of a module file; on POSIX the build metadata compiled into this code.
bool ReadModuleVersion(const WString& modulePath, ModuleVersionInfo& info);

}  // namespace platform
