#include "hostlib/ModuleHost.h"

#include <chrono>
#include <cstring>

#include "hostlib/JsonMessage.h"
#include "platform/DynamicLibrary.h"
#include "platform/SystemInfo.h"

namespace {

template <typename Fn>
Fn Entry(void* library, const char* name) {
  return reinterpret_cast<Fn>(platform::FindModuleSymbol(library, name));
}

}  // namespace

std::u16string DefaultModulePath() {
  WString self = platform::ModuleFilePath();
  const size_t slash = self.find_last_of(u"/\\");
  const WString folder = slash == WString::npos ? WString() : self.substr(0, slash + 1);
#ifdef _WIN32
  return folder + u"EM_MENDER.dll";
#else
  return folder + u"libEM_MENDER.so";
#endif
}

ModuleHost::ModuleHost(Options options) : m_options(std::move(options)) {}

ModuleHost::~ModuleHost() {
  Stop();
}

bool ModuleHost::Load() {
  if (m_library) return true;
  WString error;
  m_library = platform::LoadModuleFile(m_options.modulePath, error);
  if (!m_library) {
    m_error = "cannot load " + WToUtf8(m_options.modulePath) + ": " + WToUtf8(error);
    return false;
  }
  m_entries = ModuleEntryPoints{};
  m_entries.getModuleName = Entry<EM_GetModuleNameFn>(m_library, "EM_GetModuleName");
  m_entries.create = Entry<EM_CreateFn>(m_library, "EM_Create");
  m_entries.remove = Entry<EM_DeleteFn>(m_library, "EM_Delete");
  m_entries.setupAction = Entry<EM_SetupActionFn>(m_library, "EM_SetupAction");
  m_entries.updateTree = platform::FindModuleSymbol(m_library, "updateTree");
  m_entries.download = platform::FindModuleSymbol(m_library, "download");
  m_entries.checkWebConnection = platform::FindModuleSymbol(m_library, "checkWebConnection");
  m_entries.deleteBinary = platform::FindModuleSymbol(m_library, "deleteBinary");
  if (!m_entries.getModuleName || !m_entries.create || !m_entries.remove || !m_entries.setupAction) {
    m_error = "the module file lacks one of EM_GetModuleName, EM_Create, EM_Delete, EM_SetupAction";
    Unload();
    return false;
  }
  return true;
}

bool ModuleHost::Start() {
  if (m_started) return true;
  if (!Load()) return false;
  m_module = nullptr;
  m_createResult = m_entries.create(&m_module, nullptr);
  if (!m_createResult || !m_module) {
    m_error = "EM_Create made no module object";
    m_module = nullptr;
    return false;
  }
  // A zeroed record of the least size the module accepts; what it writes is kept for the caller.
  m_properties = ModuleProperties{};
  m_properties.size = kModulePropertiesMinSize;
  m_propertiesResult = m_module->GetProperties(&m_properties);
  m_detectHardwareResult = m_module->DetectHardware();
  // The number must be known before the start: the settings are read at start only when the
  // module already knows its cabinet.
  if (m_options.setCabinet) m_module->SetServerCabinetNumber(m_options.cabinet);
  m_startResult = m_module->StartModule(this, m_options.identifier);
  m_started = true;
  if (!m_startResult) {
    m_error = "StartModule returned 0";
    Stop();
    return false;
  }
  m_module->OnSwitchStarted();
  return true;
}

void ModuleHost::Stop() {
  if (m_started && m_module) {
    // The shutdown event comes first: the module's long-running threads leave their loops only
    // when they see it.
    m_module->OnSwitchEvent(kSwitchEventShutdown, 0, 0);
    m_module->StopModule();
    m_entries.remove();
  }
  m_started = false;
  m_module = nullptr;
  Unload();
}

bool ModuleHost::Restart() {
  Stop();
  return Start();
}

void ModuleHost::Unload() {
  if (m_library) platform::UnloadModuleFile(m_library);
  m_library = nullptr;
  m_entries = ModuleEntryPoints{};
}

int ModuleHost::Request(RequestMessage& message) {
  return m_module ? m_module->ApplicationRequest(&message) : 0;
}

void ModuleHost::Reply(RequestMessage& message) {
  if (m_module) m_module->ApplicationReply(&message);
}

void ModuleHost::SwitchEvent(uint32_t code) {
  if (m_module) m_module->OnSwitchEvent(code, 0, 0);
}

HostMessage ModuleHost::Record(const RequestMessage& message, uint32_t timeoutMs) {
  HostMessage record;
  record.message = std::make_shared<RequestMessage>();
  CopyCommand(CommandOrEmpty(message, message.commandIndex), *record.message);
  record.opcode = record.Value(kKeyOC);
  record.timeoutMs = timeoutMs;
  return record;
}

int ModuleHost::SendRequest(IExtensionModule* /*module*/, RequestMessage* message, uint32_t timeoutMs) {
  HostMessage record = Record(*message, timeoutMs);
  std::function<void(const RequestMessage&, uint32_t)> callback;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    callback = m_hostRequestCallback;
  }
  if (callback) callback(*message, timeoutMs);
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_hostRequests.push_back(std::move(record));
  }
  // The host took the request: the reply stands in the same message.
  SetCommandValue(*message, GetCurrentCommand(*message), kKeyST, ST_OK, false);
  return 1;
}

void ModuleHost::PostEvent(IExtensionModule* /*module*/, RequestMessage* message) {
  HostMessage record = Record(*message, 0);
  std::function<void(const RequestMessage&)> callback;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    callback = m_eventCallback;
  }
  // Shown before it is recorded, so that whoever waits for it sees it printed first.
  if (callback) callback(*message);
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_events.push_back(std::move(record));
    m_taken.push_back(false);
  }
  m_posted.notify_all();
}

void ModuleHost::ModuleStarted(IExtensionModule* /*module*/, uint32_t /*reserved*/) {
  std::lock_guard<std::mutex> lock(m_mutex);
  ++m_moduleStarted;
}

void ModuleHost::ModuleStopping(IExtensionModule* /*module*/) {
  std::lock_guard<std::mutex> lock(m_mutex);
  ++m_moduleStopping;
}

bool ModuleHost::WaitForEvent(uint32_t opcode, uint32_t timeoutMs, HostMessage* taken) {
  std::unique_lock<std::mutex> lock(m_mutex);
  size_t found = 0;
  const auto available = [&] {
    for (size_t i = 0; i < m_events.size(); ++i) {
      if (!m_taken[i] && m_events[i].opcode == opcode) {
        found = i;
        return true;
      }
    }
    return false;
  };
  // The host's own waits run in real time, whatever the module's time scale is.
  if (!m_posted.wait_for(lock, std::chrono::milliseconds(timeoutMs), available)) return false;
  m_taken[found] = true;
  if (taken) *taken = m_events[found];
  return true;
}

std::vector<HostMessage> ModuleHost::Events() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_events;
}

std::vector<HostMessage> ModuleHost::HostRequests() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_hostRequests;
}

void ModuleHost::ClearRecords() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_events.clear();
  m_taken.clear();
  m_hostRequests.clear();
  m_moduleStarted = 0;
  m_moduleStopping = 0;
}

int ModuleHost::ModuleStartedCalls() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_moduleStarted;
}

int ModuleHost::ModuleStoppingCalls() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_moduleStopping;
}

void ModuleHost::SetEventCallback(std::function<void(const RequestMessage&)> callback) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_eventCallback = std::move(callback);
}

void ModuleHost::SetHostRequestCallback(std::function<void(const RequestMessage&, uint32_t)> callback) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_hostRequestCallback = std::move(callback);
}
