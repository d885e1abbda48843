// Opcodes of the module's requests, events and the host's messages.
#pragma once

#include <cstdint>

constexpr uint32_t CM_UmDataChanged = 0x3340;
constexpr uint32_t CM_UmAlert = 0x3341;
constexpr uint32_t CM_UmServerStartCheck = 0x3331;
constexpr uint32_t CM_UmConfigChanged = 0x3333;
constexpr uint32_t CM_UmSetRepositoryAccessqLTX = 0x33A8;
constexpr uint32_t CM_UmJobFirst = 0x33A0;
constexpr uint32_t CM_UmJobLast = 0x33DF;
constexpr uint32_t CM_UmFamilyFirst = 0x3300;
constexpr uint32_t CM_UmFamilyLast = 0x33FF;
constexpr uint32_t CM_ReadConfigurationSpace = 0xE001;
constexpr uint32_t CM_WriteConfigurationSpace = 0xE002;

constexpr uint32_t CM_VInfoScanState = 0x0C80;
constexpr uint32_t CM_VInfoStartScanning = 0x0C81;
constexpr uint32_t CM_VInfoScanTime = 0x0C84;
constexpr uint32_t CM_RequestShutdownAndReset = 0x0206;

constexpr uint32_t kHostRequestTimeoutMs = 5000;
