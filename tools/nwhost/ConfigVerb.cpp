// nwhost config: the update settings for people. Every value is read and written through the
// configuration requests a requester uses (0xE001, 0xE002), so what is shown is what the module
// answers.
#include <cstdio>
#include <string>

#include "config/UM_Config.h"
#include "hostlib/ModuleHost.h"
#include "nwhost/HostOptions.h"
#include "nwhost/Verbs.h"

namespace {

constexpr uint32_t kRead = 0xE001;
constexpr uint32_t kWrite = 0xE002;

int Usage() {
  std::fprintf(stderr,
               "usage: nwhost config [--module PATH] [--cabinet N | --no-cabinet] [--registry FILE] [--reveal]\n"
               "                     list | get NAME | set NAME VALUE\n"
               "Passwords are shown masked unless --reveal is given.\n");
  return 2;
}

const char* KindText(UM_Config::Kind kind) {
  switch (kind) {
    case UM_Config::Kind::Byte:
      return "byte";
    case UM_Config::Kind::Number:
      return "number";
    case UM_Config::Kind::Text:
      return "text";
    case UM_Config::Kind::MultiText:
      return "text (lines)";
    case UM_Config::Kind::Password:
      return "password";
    default:
      return "address";
  }
}

struct Answer {
  int ret = 0;
  uint32_t st = ST_ABSENT;
  std::string value;
};

bool IsNumeric(UM_Config::Kind kind) {
  return kind == UM_Config::Kind::Byte || kind == UM_Config::Kind::Number;
}

// The value of a byte or number setting as people write it: decimal digits only, within the
// setting's range: a lenient conversion would take "two" for 0 and "-5" for 4294967291.
bool ParseSettingNumber(const UM_Config::Setting& s, const std::string& text, uint32_t& value) {
  const uint64_t largest = s.kind == UM_Config::Kind::Byte ? 0xFF : 0xFFFFFFFF;
  if (text.empty() || text.size() > 10) return false;
  uint64_t number = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    number = number * 10 + static_cast<uint64_t>(c - '0');
  }
  if (number > largest) return false;
  value = static_cast<uint32_t>(number);
  return true;
}

// One configuration request with the host's cabinet, as a requester sends it. A number is
// already checked; an empty text is sent as an empty text (not as no data), so that the setting
// itself becomes empty along with its stored value.
Answer Send(ModuleHost& host, uint32_t cabinet, uint32_t oc, const UM_Config::Setting& s, const std::string* value) {
  RequestMessage m;
  ConstructRequest(m, oc, s.oe, 0, cabinet, ST_NONE);
  MessageValue& command = GetCurrentCommand(m);
  if (value) {
    uint32_t number = 0;
    if (IsNumeric(s.kind) && ParseSettingNumber(s, *value, number))
      SetDataNumber(m, command, number, 4);
    else if (!IsNumeric(s.kind))
      SetDataString(m, command, WFromUtf8(*value));
  }
  Answer a;
  a.ret = host.Request(m);
  a.st = GetCommandValue(m, 0, kKeyST, ST_ABSENT);
  WString text;
  uint32_t number = 0;
  if (GetDataType(m, 0) == kMessageTypeString && GetDataString(m, 0, text, 0))
    a.value = WToUtf8(text);
  else if (GetDataValue(m, 0, number))
    a.value = std::to_string(number);
  return a;
}

std::string Shown(const UM_Config::Setting& s, const std::string& value, bool reveal) {
  if (s.kind == UM_Config::Kind::Password && !reveal && !value.empty()) return "********";
  std::string out;
  for (char c : value) out += c == '\n' ? std::string("\\n") : std::string(1, c);
  return out;
}

}  // namespace

int NwhostConfigVerb(int argc, char** argv) {
  ModuleHost::Options options;
  options.modulePath = DefaultModulePath();
  std::string registry;
  bool reveal = false;
  int i = 1;
  for (; i < argc; ++i) {
    int taken = ParseHostOption(argc, argv, i, options, registry);
    if (taken < 0) return Usage();
    if (taken == 1) continue;
    if (std::string(argv[i]) == "--reveal") {
      reveal = true;
      continue;
    }
    break;
  }
  if (i >= argc) return Usage();
  const std::string action = argv[i];
  const UM_Config::Setting* setting = nullptr;
  if (action == "get" || action == "set") {
    if (i + 1 >= argc) return Usage();
    setting = UM_Config::FindSetting(WFromUtf8(argv[i + 1]));
    if (!setting || !UM_Config::isMyRequest(setting->oe)) {
      std::fprintf(stderr, "nwhost: no setting named %s\n", argv[i + 1]);
      return 2;
    }
    if ((action == "set") != (i + 3 == argc) || (action == "get" && i + 2 != argc)) return Usage();
    uint32_t number = 0;
    if (action == "set" && IsNumeric(setting->kind) && !ParseSettingNumber(*setting, argv[argc - 1], number)) {
      std::fprintf(stderr, "nwhost: %s takes a whole number from 0 to %s, not \"%s\"; nothing written\n", argv[i + 1],
                   setting->kind == UM_Config::Kind::Byte ? "255" : "4294967295", argv[argc - 1]);
      return 2;
    }
  } else if (action != "list" || i + 1 != argc) {
    return Usage();
  }

  ModuleHost host(options);
  if (!PrepareAndStart(registry, host)) return 1;
  const uint32_t cabinet = options.setCabinet ? options.cabinet : 0;
  int status = 0;
  if (action == "list") {
    std::printf("%-28s %-6s %-13s %s\n", "SETTING", "OE", "KIND", "VALUE");
    for (const auto& s : UM_Config::Settings()) {
      if (!UM_Config::isMyRequest(s.oe)) continue;
      Answer a = Send(host, cabinet, kRead, s, nullptr);
      std::printf("%-28s %-6u %-13s %s\n", WToUtf8(s.name).c_str(), s.oe, KindText(s.kind),
                  a.st == ST_OK ? Shown(s, a.value, reveal).c_str() : ("(ST " + std::to_string(a.st) + ")").c_str());
    }
  } else if (action == "get") {
    Answer a = Send(host, cabinet, kRead, *setting, nullptr);
    if (a.st != ST_OK) {
      std::fprintf(stderr, "nwhost: the module answered ST %u\n", a.st);
      status = 1;
    } else {
      std::printf("%s\n", Shown(*setting, a.value, reveal).c_str());
    }
  } else {
    const std::string value = argv[argc - 1];
    Answer w = Send(host, cabinet, kWrite, *setting, &value);
    Answer r = Send(host, cabinet, kRead, *setting, nullptr);
    if (w.st == ST_FAILED) {
      std::fprintf(stderr,
                   "nwhost: the module refused the value (ST 6): a text must not hold more than %u characters as "
                   "stored; nothing written\n",
                   static_cast<unsigned>(CConfigSpace::kLongestStoredText));
      status = 1;
    } else if (w.st != ST_OK || r.st != ST_OK) {
      std::fprintf(stderr, "nwhost: the module answered ST %u to the write and ST %u to the read\n", w.st, r.st);
      status = 1;
    } else {
      std::printf("%s = %s\n", WToUtf8(setting->name).c_str(), Shown(*setting, r.value, reveal).c_str());
    }
  }
  host.Stop();
  return status;
}
