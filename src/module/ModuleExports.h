// The plain entry points of the module file, as the host and the setup program call them.
#pragma once

#include <cstdint>

#include "module/IExtensionModule.h"

#if defined(_WIN32)
#define EM_EXPORT extern "C" __declspec(dllexport)
#else
#define EM_EXPORT extern "C" __attribute__((visibility("default")))
#endif

// The flat settings record of the repository functions (2612 bytes).
struct WebParamRecord;

using EM_GetModuleNameFn = const char16_t* (*)();
using EM_CreateFn = int (*)(IExtensionModule** module, void* reserved);
using EM_DeleteFn = int (*)();
using EM_SetupActionFn = int (*)(int action, ...);

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
