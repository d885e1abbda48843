// nwhost demo: a short run for people. It loads the module as the agent does, shows what the
// module reports about itself, sends it two requests and shows the answers, reads its update
// settings, then shuts it down.
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "config/UM_Config.h"
#include "foundation/Opcodes.h"
#include "hostlib/JsonMessage.h"
#include "hostlib/ModuleHost.h"
#include "nwhost/Verbs.h"

namespace {

std::string Field(const char16_t* text, size_t capacity) {
  size_t length = 0;
  while (length < capacity && text[length]) ++length;
  return WToUtf8(WStringView(text, length));
}

const char* StatusName(const RequestMessage& message) {
  if (!HasCommandKey(message, 0, kKeyST)) return "(no status)";
  switch (GetCommandValue(message, 0, kKeyST, ST_ABSENT)) {
    case ST_OK:
      return "OK";
    case ST_DENIED:
      return "denied (not handled here)";
    case ST_ILLEGAL:
      return "illegal";
    case ST_FAILED:
      return "failed";
    case ST_NOT_AVAILABLE:
      return "not available";
    case ST_ILLEGAL_CABINET:
      return "illegal cabinet";
    default:
      return "other";
  }
}

void Row(const char* name, const std::string& value) {
  std::printf("  %-28s %s\n", name, value.c_str());
}

void ShowRequest(ModuleHost& host, const char* title, uint32_t opcode) {
  RequestMessage message;
  std::string error;
  CommandFromJsonText("{\"OC\":" + std::to_string(opcode) + ",\"CA\":0}", message, error);
  const int result = host.Request(message);
  std::printf("\n%s: opcode 0x%04X, cabinet 0\n", title, opcode);
  Row("ApplicationRequest returned", std::to_string(result));
  Row("status (ST)", std::to_string(GetCommandValue(message, 0, kKeyST, ST_ABSENT)) + "  " + StatusName(message));
  Row("data length", std::to_string(GetDataLength(message, 0)) + " bytes");
}

// The update settings as a requester reads them (CM_ReadConfigurationSpace); passwords masked.
void ShowSettings(ModuleHost& host) {
  std::printf("\nUpdate settings (CM_ReadConfigurationSpace, 0xE001)\n");
  for (const auto& s : UM_Config::Settings()) {
    if (!UM_Config::isMyRequest(s.oe)) continue;
    RequestMessage message;
    ConstructRequest(message, 0xE001, s.oe, 0, 0, ST_NONE);
    host.Request(message);
    std::string value;
    WString text;
    uint32_t number = 0;
    if (GetCommandValue(message, 0, kKeyST, ST_ABSENT) != ST_OK)
      value = std::string("(") + StatusName(message) + ")";
    else if (GetDataType(message, 0) == kMessageTypeString && GetDataString(message, 0, text, 0))
      value = s.kind == UM_Config::Kind::Password && !text.empty() ? "********" : WToUtf8(text);
    else if (GetDataValue(message, 0, number))
      value = std::to_string(number);
    Row(WToUtf8(s.name).c_str(), value);
  }
}

}  // namespace

int NwhostDemoVerb(int argc, char** argv) {
  ModuleHost::Options options;
  options.modulePath = DefaultModulePath();
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--module" && i + 1 < argc) {
      options.modulePath = WFromUtf8(argv[++i]);
    } else {
      std::fprintf(stderr, "usage: nwhost demo [--module PATH]\n");
      return 2;
    }
  }

  std::printf("Loading %s\n", WToUtf8(options.modulePath).c_str());
  ModuleHost host(options);
  if (!host.Start()) {
    std::fprintf(stderr, "nwhost: %s\n", host.LastError().c_str());
    return 1;
  }
  const ModuleProperties& p = host.Properties();
  std::printf("\nThe module, as the agent sees it after start (cabinet 0)\n");
  Row("EM_GetModuleName", WToUtf8(host.Entries().getModuleName ? host.Entries().getModuleName() : u""));
  Row("GetProperties returned", std::to_string(host.PropertiesResult()));
  Row("name", Field(p.name, std::size(p.name)));
  Row("description", Field(p.description, std::size(p.description)));
  Row("flags at 8 / 24", std::to_string(p.flags08) + " / " + std::to_string(p.flags18));
  Row("values at 32 / 48", std::to_string(p.value20) + " / " + std::to_string(p.value30));
  Row("DetectHardware returned", std::to_string(host.DetectHardwareResult()));
  Row("StartModule returned", std::to_string(host.StartResult()));
  uint32_t cabinet = 0;
  const int known = host.Module()->GetCabinetNumber(&cabinet);
  Row("cabinet number", std::to_string(cabinet) + (known ? "  (set by the host)" : "  (not set)"));

  ShowRequest(host, "Server start check (CM_UmServerStartCheck)", CM_UmServerStartCheck);
  ShowRequest(host, "An opcode the module does not know", 0xE003);
  ShowSettings(host);

  // Whatever the module posts in reaction within a moment is shown as it arrived.
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const auto events = host.Events();
  std::printf("\nEvents posted by the module: %zu\n", events.size());
  for (const HostMessage& event : events)
    std::printf("  %s\n", CommandJsonLine("event", CommandOrEmpty(*event.message, 0)).c_str());
  const auto requests = host.HostRequests();
  std::printf("Requests sent to the host: %zu\n", requests.size());
  for (const HostMessage& request : requests)
    std::printf("  %s\n", CommandJsonLine("host-request", CommandOrEmpty(*request.message, 0)).c_str());

  host.Stop();
  std::printf("\nModule stopped and unloaded (shutdown event, StopModule, EM_Delete).\n");
  return 0;
}
