// Opcodes of the module's requests, events and the host's messages.
#pragma once

#include <cstdint>

constexpr uint32_t CM_UmDataChanged = 0x3340;
constexpr uint32_t CM_UmAlert = 0x3341;
constexpr uint32_t CM_UmServerStartCheck = 0x3331;
constexpr uint32_t CM_UmSetRepositoryAccessqLTX = 0x33A8;
constexpr uint32_t CM_UmJobFirst = 0x33A0;
constexpr uint32_t CM_UmJobLast = 0x33DF;
constexpr uint32_t CM_UmFamilyFirst = 0x3300;
constexpr uint32_t CM_UmFamilyLast = 0x33FF;
// The check's data requests: row counts, the fields of a row (OI = the row), the server's values.
constexpr uint32_t CM_UmDiffNumberEntries = 0x3300;
constexpr uint32_t CM_UmDiffComponentPath = 0x3301;
constexpr uint32_t CM_UmDiffComponentType = 0x3302;
constexpr uint32_t CM_UmDiffComponentSubType = 0x3303;
constexpr uint32_t CM_UmDiffRepositoryVersion = 0x3304;
constexpr uint32_t CM_UmDiffInstalledVersion = 0x3305;
constexpr uint32_t CM_UmDiffObjectName = 0x3306;
constexpr uint32_t CM_UmDiffRanking = 0x3308;
constexpr uint32_t CM_UmDiffMandatory = 0x3309;
constexpr uint32_t CM_UmDiffPrerequire = 0x330A;
constexpr uint32_t CM_UmDiffSeverity = 0x330B;
constexpr uint32_t CM_UmDiffEngineError = 0x330C;
constexpr uint32_t CM_UmDiffEngineErrorText = 0x330D;
constexpr uint32_t CM_UmDiffMinStepVersion = 0x330E;
constexpr uint32_t CM_UmDiffReboot = 0x3310;
constexpr uint32_t CM_UmDiffInstallTime = 0x3311;
constexpr uint32_t CM_UmDiffDownloadSize = 0x3312;
constexpr uint32_t CM_UmDiffKPKVersion = 0x3313;
constexpr uint32_t CM_UmDiffReleaseNote = 0x3314;
constexpr uint32_t CM_UmDiffVendor = 0x3315;
constexpr uint32_t CM_UmDiffComponentId = 0x3316;
constexpr uint32_t CM_UmDiffBinaryLoaded = 0x3317;
constexpr uint32_t CM_UmServerSeverity = 0x3330;
constexpr uint32_t CM_UmServerCheckDate = 0x3332;
constexpr uint32_t CM_UmServerCheckConfig = 0x3333;
constexpr uint32_t CM_UmServerConfigResult = 0x3334;
constexpr uint32_t CM_UmServerCheckLog = 0x3335;
constexpr uint32_t CM_UmServerCheckStatus = 0x3336;
constexpr uint32_t CM_UmServerCheckError = 0x3337;
constexpr uint32_t CM_UmInstalledNumberEntries = 0x3390;
constexpr uint32_t CM_UmInstalledType = 0x3392;
constexpr uint32_t CM_UmInstalledSubType = 0x3393;
constexpr uint32_t CM_UmInstalledVersion = 0x3394;
constexpr uint32_t CM_UmInstalledPciId = 0x3395;
constexpr uint32_t CM_UmInstalledKPKVersion = 0x3396;

constexpr uint32_t CM_ReadConfigurationSpace = 0xE001;
constexpr uint32_t CM_WriteConfigurationSpace = 0xE002;

constexpr uint32_t CM_VInfoScanState = 0x0C80;
constexpr uint32_t CM_VInfoStartScanning = 0x0C81;
constexpr uint32_t CM_VInfoScanTime = 0x0C84;
constexpr uint32_t CM_RequestShutdownAndReset = 0x0206;

constexpr uint32_t kHostRequestTimeoutMs = 5000;
