// The host's default module: keeps the host, the identifier, the shutdown flag and the server's
// cabinet number, and answers every operation it does not know with its neutral result.
#pragma once

#include <atomic>
#include <cstdint>

#include "module/IExtensionModule.h"

class CExtensionModule : public IExtensionModule {
 public:
  CExtensionModule() = default;
  ~CExtensionModule() noexcept(false) override {}

  int GetProperties(ModuleProperties* properties) override;
  int DetectHardware() override { return 1; }
  int StartModule(IModuleHost* host, uint32_t identifier) override;
  int StopModule() override { return 1; }
  void OnSwitchStarted() override {}
  void ApplicationReply(RequestMessage* /*message*/) override {}
  int ApplicationRequest(RequestMessage* message) override;
  int GetCabinetNumber(uint32_t* /*number*/) override { return 0; }
  int SetServerCabinetNumber(uint32_t number) override;
  int OnHostNotification1(uint32_t, uint32_t) override { return 0; }
  int OnHostNotification2(uint32_t, uint32_t) override { return 0; }
  void OnSwitchEvent(uint32_t code, uint32_t a, uint32_t b) override;
  const char16_t* GetModuleName() override { return u"EM_XXX"; }
  void OnNotification1(uint32_t) override {}
  void OnNotification2(uint32_t) override {}
  void OnNotification3(uint32_t) override {}
  void OnNotification4(uint32_t) override {}
  virtual int HostQuery1(uint32_t, uint32_t, uint32_t) { return 0; }
  virtual int HostQuery2(uint32_t, uint32_t, uint32_t) { return 0; }
  virtual int HostQuery3(uint32_t, uint32_t, uint32_t) { return 0; }
  virtual int HostQuery4(uint32_t, uint32_t, uint32_t) { return 0; }
  virtual int HostQuery5(uint32_t, uint32_t, uint32_t) { return 0; }

  IModuleHost* Host() const { return m_host; }

  // The server cabinet number is one per process, written once before start.
  static uint32_t ServerCabinetNumber() { return s_cabinetNumber.load(std::memory_order_relaxed); }
  static bool ServerCabinetSet() { return s_cabinetSet.load(std::memory_order_relaxed) != 0; }
  // Back to the state at load (a fresh load of the module file in the host).
  static void ResetServerCabinet();

 protected:
  IModuleHost* m_host = nullptr;
  uint16_t m_identifierLow = 0;
  uint16_t m_identifierHigh = 0;
  std::atomic<uint32_t> m_bSwitchShutdown{0};

 private:
  static std::atomic<uint32_t> s_cabinetNumber;
  static std::atomic<uint8_t> s_cabinetSet;
};
