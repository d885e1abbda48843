// The plain entry points of the module file, as the host and the setup program call them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "module/IExtensionModule.h"

#if defined(_WIN32)
#define EM_EXPORT extern "C" __declspec(dllexport)
#else
#define EM_EXPORT extern "C" __attribute__((visibility("default")))
#endif

// The flat settings record of the repository functions: 2612 bytes, strings of 260 UTF-16 units
// each, terminated within their field. Outside programs fill it by byte offset, so its layout is
// fixed here and checked below; the strings are 16-bit on Linux as well.
struct WebParamRecord {
  uint8_t proxyMode;  // 0 none, 1 the system's proxy, 2 the one given here
  uint8_t reserved1[3];
  char16_t server[260];
  char16_t path[260];
  uint8_t protocol;  // 0 http, anything else https
  uint8_t reserved2[3];
  int32_t proxyPort;
  char16_t proxyServer[260];
  char16_t proxyUser[260];
  char16_t proxyPassword[260];
};
static_assert(sizeof(WebParamRecord) == 2612);
static_assert(offsetof(WebParamRecord, server) == 4);
static_assert(offsetof(WebParamRecord, path) == 524);
static_assert(offsetof(WebParamRecord, protocol) == 1044);
static_assert(offsetof(WebParamRecord, proxyPort) == 1048);
static_assert(offsetof(WebParamRecord, proxyServer) == 1052);
static_assert(offsetof(WebParamRecord, proxyUser) == 1572);
static_assert(offsetof(WebParamRecord, proxyPassword) == 2092);
static_assert(alignof(WebParamRecord) == 4);

using EM_GetModuleNameFn = const char16_t* (*)();
using EM_CreateFn = int (*)(IExtensionModule** module, void* reserved);
using EM_DeleteFn = int (*)();
using EM_SetupActionFn = int (*)(int action, ...);
using EM_UpdateTreeFn = int (*)(const WebParamRecord*, const char16_t*, const char16_t*, int);
using EM_DownloadFn = int (*)(const WebParamRecord*, const char16_t*, const char16_t*, const char16_t*, int);
using EM_CheckWebConnectionFn = int (*)(const WebParamRecord*);
using EM_DeleteBinaryFn = int (*)(const char16_t*, const char16_t*);

constexpr int kSetupActionUninstall = 4;

EM_EXPORT const char16_t* EM_GetModuleName();
EM_EXPORT int EM_Create(IExtensionModule** module, void* reserved);
EM_EXPORT int EM_Delete();
EM_EXPORT int EM_SetupAction(int action, ...);
EM_EXPORT int updateTree(const WebParamRecord* record, const char16_t* localRepository, const char16_t* logFile,
                         int dnlFlags);
EM_EXPORT int download(const WebParamRecord* record, const char16_t* localRepository, const char16_t* componentPath,
                       const char16_t* logFile, int dnlFlags);
EM_EXPORT int checkWebConnection(const WebParamRecord* record);
EM_EXPORT int deleteBinary(const char16_t* localRepository, const char16_t* componentPath);
