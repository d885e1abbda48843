// nwhost script: the host for programs. JSON lines in on standard input, JSON lines out on
// standard output, one reply, event or note per line.
//
// Input, one object a line:
//   {"op":"request","OC":13105,"OE":0,"OI":0,"CA":0,"MI":0,"ST":0,"DA":...}   ApplicationRequest
//   {"op":"reply", ...the same keys...}                                       ApplicationReply
//   {"op":"event","code":2}                                                   OnSwitchEvent(code, 0, 0)
//   {"op":"wait","OC":13120,"timeout_ms":5000}   take the earliest untaken event with that opcode
//   {"op":"sleep","ms":100}  {"op":"restart"}  {"op":"properties"}
// Output:
//   {"op":"reply","OC":..,"ret":..,"ST":..,"DA":..}        ("ret" only for ApplicationRequest)
//   {"op":"event","OC":..,"OE":..,"OI":..,"CA":..,"MI":..,"ST":..,"DA":..}   as seen inside PostEvent
//   {"op":"alert","number":..,"severity":..,"platform":..,"time":..,"args":[..]}   right after the
//                                                event line of each alert (0x3341): its record decoded
//   {"op":"host-request",...,"timeout_ms":..}              each SendRequest; the host answers ST 0
//   {"op":"timeout","OC":..}  {"op":"properties",...}  {"op":"error","message":".."}
// The host's own sleeps and waits run in real time; EM_MENDER_TIME_SCALE shortens only the module's.
// A line nests at most kMaxJsonDepth levels: a deeper one gets an error line, whatever its depth.
#include <rapidjson/document.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "foundation/Opcodes.h"
#include "hostlib/AlertRecord.h"
#include "hostlib/JsonMessage.h"
#include "hostlib/ModuleHost.h"
#include "nwhost/HostOptions.h"
#include "nwhost/Verbs.h"
#include "platform/Environment.h"
#include "platform/FileIo.h"

namespace {

// Lines come from the reading thread and from the module's threads (events); each goes out whole
// and at once.
class LineOutput {
 public:
  void Emit(const std::string& line) {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
  }

 private:
  std::mutex m_mutex;
};

std::string ErrorLine(const std::string& message) {
  rapidjson::StringBuffer buffer;
  JsonWriter writer(buffer);
  writer.StartObject();
  writer.Key("op");
  writer.String("error");
  writer.Key("message");
  writer.String(message.c_str(), static_cast<rapidjson::SizeType>(message.size()));
  writer.EndObject();
  return buffer.GetString();
}

std::string Utf8Field(const char16_t* text, size_t capacity) {
  size_t length = 0;
  while (length < capacity && text[length]) ++length;
  return WToUtf8(WStringView(text, length));
}

std::string PropertiesLine(const ModuleHost& host) {
  const ModuleProperties& p = host.Properties();
  rapidjson::StringBuffer buffer;
  JsonWriter writer(buffer);
  writer.StartObject();
  writer.Key("op");
  writer.String("properties");
  writer.Key("getProperties");
  writer.Int(host.PropertiesResult());
  writer.Key("size");
  writer.Uint(p.size);
  writer.Key("name");
  writer.String(Utf8Field(p.name, std::size(p.name)).c_str());
  writer.Key("description");
  writer.String(Utf8Field(p.description, std::size(p.description)).c_str());
  writer.Key("detectHardware");
  writer.Int(host.DetectHardwareResult());
  writer.Key("flags8");
  writer.Uint(p.flags08);
  writer.Key("flags24");
  writer.Uint(p.flags18);
  writer.Key("value32");
  writer.Uint(p.value20);
  writer.Key("value48");
  writer.Uint(p.value30);
  writer.EndObject();
  return buffer.GetString();
}

// A number field of an input object, or `def` when left out. False for a field of another kind.
bool ReadUint(const rapidjson::Value& object, const char* name, uint32_t def, uint32_t& out, std::string& error) {
  const auto member = object.FindMember(name);
  if (member == object.MemberEnd()) {
    out = def;
    return true;
  }
  if (!member->value.IsUint()) {
    error = std::string("\"") + name + "\" must be an unsigned 32-bit number";
    return false;
  }
  out = member->value.GetUint();
  return true;
}

// The decoded record of an alert event; a record that cannot be decoded gets its reason.
std::string AlertJsonLine(const RequestMessage& message) {
  std::vector<uint8_t> bytes;
  GetDataStream(message, message.commandIndex, bytes);
  AlertRecord record;
  std::string error;
  rapidjson::StringBuffer buffer;
  JsonWriter writer(buffer);
  writer.StartObject();
  writer.Key("op");
  writer.String("alert");
  if (!DecodeAlertRecord(bytes, record, error)) {
    writer.Key("error");
    writer.String(error.c_str(), static_cast<rapidjson::SizeType>(error.size()));
  } else {
    writer.Key("number");
    writer.Uint(record.number);
    writer.Key("severity");
    writer.Uint(record.severity);
    writer.Key("platform");
    writer.Uint(record.platform);
    writer.Key("time");
    writer.Uint(record.time);
    writer.Key("args");
    writer.StartArray();
    for (const std::string& arg : record.arguments)
      writer.String(arg.c_str(), static_cast<rapidjson::SizeType>(arg.size()));
    writer.EndArray();
  }
  writer.EndObject();
  return buffer.GetString();
}

int Usage() {
  std::fprintf(stderr,
               "usage: nwhost script [--module PATH] [--cabinet N | --no-cabinet] [--registry FILE]\n"
               "  reads JSON lines from standard input, writes JSON lines to standard output\n");
  return 2;
}

class ScriptRunner {
 public:
  explicit ScriptRunner(ModuleHost& host) : m_host(host) {
    m_host.SetEventCallback([this](const RequestMessage& message) {
      std::string lines = CommandJsonLine("event", CommandOrEmpty(message, message.commandIndex));
      // The decoded alert follows its event line at once: both go out in one piece.
      if (GetCommandValue(message, message.commandIndex, kKeyOC, 0) == CM_UmAlert)
        lines += "\n" + AlertJsonLine(message);
      m_out.Emit(lines);
    });
    m_host.SetHostRequestCallback([this](const RequestMessage& message, uint32_t timeoutMs) {
      m_out.Emit(
          CommandJsonLine("host-request", CommandOrEmpty(message, message.commandIndex), "timeout_ms", timeoutMs));
    });
  }

  ~ScriptRunner() {
    m_host.SetEventCallback(nullptr);
    m_host.SetHostRequestCallback(nullptr);
  }

  void Run(std::istream& in) {
    std::string line;
    while (std::getline(in, line)) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (line.find_first_not_of(" \t") == std::string::npos) continue;
      std::string error;
      if (!Handle(line, error)) m_out.Emit(ErrorLine(error));
    }
  }

 private:
  bool Handle(const std::string& line, std::string& error) {
    rapidjson::Document input;
    if (!ParseJsonText(line, input, error)) return false;
    if (!input.IsObject() || !input.HasMember("op") || !input["op"].IsString()) {
      error = "each line must be an object with a text \"op\"";
      return false;
    }
    const std::string op = input["op"].GetString();
    if (op == "request" || op == "reply") return Deliver(input, op == "request", error);
    if (op == "event") {
      uint32_t code = 0;
      if (!input.HasMember("code")) {
        error = "\"event\" needs a \"code\"";
        return false;
      }
      if (!ReadUint(input, "code", 0, code, error)) return false;
      if (!Running(error)) return false;
      m_host.SwitchEvent(code);
      return true;
    }
    if (op == "wait") {
      uint32_t opcode = 0, timeoutMs = 0;
      if (!input.HasMember("OC")) {
        error = "\"wait\" needs an \"OC\"";
        return false;
      }
      if (!ReadUint(input, "OC", 0, opcode, error) || !ReadUint(input, "timeout_ms", 5000, timeoutMs, error))
        return false;
      if (!m_host.WaitForEvent(opcode, timeoutMs)) {
        rapidjson::StringBuffer buffer;
        JsonWriter writer(buffer);
        writer.StartObject();
        writer.Key("op");
        writer.String("timeout");
        writer.Key("OC");
        writer.Uint(opcode);
        writer.EndObject();
        m_out.Emit(buffer.GetString());
      }
      return true;
    }
    if (op == "sleep") {
      uint32_t ms = 0;
      if (!ReadUint(input, "ms", 0, ms, error)) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(ms));
      return true;
    }
    if (op == "restart") {
      if (!m_host.Restart()) {
        error = "restart failed: " + m_host.LastError();
        return false;
      }
      return true;
    }
    if (op == "properties") {
      if (!Running(error)) return false;
      m_out.Emit(PropertiesLine(m_host));
      return true;
    }
    error = "unknown op \"" + op + "\"";
    return false;
  }

  bool Running(std::string& error) {
    if (m_host.Module()) return true;
    error = "the module is not running";
    return false;
  }

  bool Deliver(const rapidjson::Document& input, bool request, std::string& error) {
    RequestMessage message;
    if (!CommandFromJson(input, message, error)) return false;
    if (!Running(error)) return false;
    std::optional<int> ret;
    if (request)
      ret = m_host.Request(message);
    else
      m_host.Reply(message);
    m_out.Emit(ReplyJsonLine(message, ret));
    return true;
  }

  ModuleHost& m_host;
  LineOutput m_out;
};

}  // namespace

int NwhostScriptVerb(int argc, char** argv) {
  ModuleHost::Options options;
  options.modulePath = DefaultModulePath();
  std::string registry;
  for (int i = 1; i < argc; ++i) {
    if (ParseHostOption(argc, argv, i, options, registry) != 1) return Usage();
  }

  ModuleHost host(options);
  if (!PrepareAndStart(registry, host)) return 1;
  {
    ScriptRunner runner(host);
    runner.Run(std::cin);
    // Events the module posts while it shuts down are still shown.
    host.Stop();
  }
  return 0;
}
