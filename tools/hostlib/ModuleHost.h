// The host as the module meets it in the field, shared by the host program and the integration
// tests: it loads the module file, calls the exports and the module's operations in the host's
// order, delivers requests and replies, records every event and alert the module posts and every
// request it sends, and can stop and reload the module as a reboot of the server would.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "foundation/RequestMessage.h"
#include "module/IExtensionModule.h"
#include "module/IModuleHost.h"
#include "module/ModuleExports.h"

// The module file's entry points. The four repository functions are only looked up: the host
// never calls them.
struct ModuleEntryPoints {
  EM_GetModuleNameFn getModuleName = nullptr;
  EM_CreateFn create = nullptr;
  EM_DeleteFn remove = nullptr;
  EM_SetupActionFn setupAction = nullptr;
  void* updateTree = nullptr;
  void* download = nullptr;
  void* checkWebConnection = nullptr;
  void* deleteBinary = nullptr;
};

// One event, alert or host request as the host saw it while the module's call was in progress.
struct HostMessage {
  uint32_t opcode = 0;
  uint32_t timeoutMs = 0;  // of a host request
  // A deep copy with one command (index 0); it outlives the module file.
  std::shared_ptr<RequestMessage> message;
  uint32_t Value(const char16_t* key, uint32_t def = 0) const { return GetCommandValue(*message, 0, key, def); }
  bool Has(const char16_t* key) const { return HasCommandKey(*message, 0, key); }
};

class ModuleHost final : public IModuleHost {
 public:
  struct Options {
    std::u16string modulePath;
    // SetServerCabinetNumber(cabinet) before StartModule, unless setCabinet is false.
    bool setCabinet = true;
    uint32_t cabinet = 0;
    uint32_t identifier = 0x00010001;
    uint32_t hostType = 1;
  };

  explicit ModuleHost(Options options);
  ~ModuleHost();
  ModuleHost(const ModuleHost&) = delete;
  ModuleHost& operator=(const ModuleHost&) = delete;

  // Loads the file and looks up the entry points; false when the file cannot be loaded or one of
  // EM_GetModuleName, EM_Create, EM_Delete, EM_SetupAction is missing.
  bool Load();
  // Load (unless loaded), then EM_Create, GetProperties, DetectHardware, SetServerCabinetNumber,
  // StartModule(this, identifier), OnSwitchStarted. False when a step could not run or StartModule
  // returned 0.
  bool Start();
  // OnSwitchEvent(2, 0, 0), StopModule, EM_Delete for a started module, then unload. Safe to repeat.
  void Stop();
  // A full stop and a fresh load, as a reboot of the server would do.
  bool Restart();

  bool Loaded() const { return m_library != nullptr; }
  const std::string& LastError() const { return m_error; }
  const ModuleEntryPoints& Entries() const { return m_entries; }
  IExtensionModule* Module() const { return m_module; }
  void* LibraryHandle() const { return m_library; }

  // What the calling order got back at the last start.
  int CreateResult() const { return m_createResult; }
  int PropertiesResult() const { return m_propertiesResult; }
  const ModuleProperties& Properties() const { return m_properties; }
  int DetectHardwareResult() const { return m_detectHardwareResult; }
  int StartResult() const { return m_startResult; }

  // Deliveries on the caller's thread.
  int Request(RequestMessage& message);
  void Reply(RequestMessage& message);
  void SwitchEvent(uint32_t code);

  // Waits in real time for the earliest event with `opcode` that no earlier wait took, and takes
  // it. Events posted before the call count.
  bool WaitForEvent(uint32_t opcode, uint32_t timeoutMs, HostMessage* taken = nullptr);
  std::vector<HostMessage> Events() const;
  std::vector<HostMessage> HostRequests() const;
  void ClearRecords();
  int ModuleStartedCalls() const;
  int ModuleStoppingCalls() const;

  // Called on the module's thread while it is inside PostEvent or SendRequest, with the message as
  // the module handed it over (an event's "ST" then reads 255).
  void SetEventCallback(std::function<void(const RequestMessage&)> callback);
  void SetHostRequestCallback(std::function<void(const RequestMessage&, uint32_t timeoutMs)> callback);

  // IModuleHost
  int SendRequest(IExtensionModule* module, RequestMessage* message, uint32_t timeoutMs) override;
  void PostEvent(IExtensionModule* module, RequestMessage* message) override;
  void ModuleStarted(IExtensionModule* module, uint32_t reserved) override;
  void ModuleStopping(IExtensionModule* module) override;
  uint32_t GetHostType() override { return m_options.hostType; }

 private:
  void Unload();
  static HostMessage Record(const RequestMessage& message, uint32_t timeoutMs);

  Options m_options;
  std::string m_error;
  void* m_library = nullptr;
  ModuleEntryPoints m_entries;
  IExtensionModule* m_module = nullptr;
  bool m_started = false;

  int m_createResult = 0;
  int m_propertiesResult = 0;
  ModuleProperties m_properties{};
  int m_detectHardwareResult = 0;
  int m_startResult = 0;

  mutable std::mutex m_mutex;
  std::condition_variable m_posted;
  std::vector<HostMessage> m_events;
  std::vector<bool> m_taken;
  std::vector<HostMessage> m_hostRequests;
  int m_moduleStarted = 0;
  int m_moduleStopping = 0;
  std::function<void(const RequestMessage&)> m_eventCallback;
  std::function<void(const RequestMessage&, uint32_t)> m_hostRequestCallback;
};

// The module file that a host program finds beside its own executable.
std::u16string DefaultModulePath();
