// The module object as the host drives it, and the properties record exchanged by address.
#pragma once

#include <cstddef>
#include <cstdint>

class IModuleHost;
struct RequestMessage;

// Owned by the host; its layout is a contract with the host. The module writes only the fields
// named here and leaves the rest alone.
struct ModuleProperties {
  uint32_t size;  // set by the host; at least kModulePropertiesMinSize
  uint32_t reserved04;
  uint32_t flags08;  // OR-ed with 3
  uint32_t reserved0C[3];
  uint32_t flags18;  // OR-ed with 3
  uint32_t reserved1C;
  uint32_t value20;  // 100
  uint32_t reserved24[3];
  uint32_t value30;  // 1
  char16_t name[100];
  char16_t description[100];
};
constexpr uint32_t kModulePropertiesMinSize = 452;
static_assert(sizeof(ModuleProperties) == kModulePropertiesMinSize, "host contract");
static_assert(offsetof(ModuleProperties, name) == 52 && offsetof(ModuleProperties, description) == 252,
              "host contract");

class IExtensionModule {
 public:
  virtual ~IExtensionModule() noexcept(false) {}
  virtual int GetProperties(ModuleProperties* properties) = 0;
  virtual int DetectHardware() = 0;
  virtual int StartModule(IModuleHost* host, uint32_t identifier) = 0;
  virtual int StopModule() = 0;
  virtual void OnSwitchStarted() = 0;
  virtual void ApplicationReply(RequestMessage* message) = 0;
  virtual int ApplicationRequest(RequestMessage* message) = 0;
  virtual int GetCabinetNumber(uint32_t* number) = 0;
  virtual int SetServerCabinetNumber(uint32_t number) = 0;
  virtual int OnHostNotification1(uint32_t a, uint32_t b) = 0;
  virtual int OnHostNotification2(uint32_t a, uint32_t b) = 0;
  virtual void OnSwitchEvent(uint32_t code, uint32_t a, uint32_t b) = 0;
  virtual const char16_t* GetModuleName() = 0;
  virtual void OnNotification1(uint32_t a) = 0;
  virtual void OnNotification2(uint32_t a) = 0;
  virtual void OnNotification3(uint32_t a) = 0;
  virtual void OnNotification4(uint32_t a) = 0;
};

// The switch event that announces the host's shutdown.
constexpr uint32_t kSwitchEventShutdown = 2;
