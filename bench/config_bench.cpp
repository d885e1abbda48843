// Start of the whole module with a full configuration (all 23 settings in CommonConfig.ccs and
// their defaults in DefaultConfig.ccs), and the cost of one configuration read.
#include <benchmark/benchmark.h>

#include <string>

#include "config/CConfigSpace.h"
#include "foundation/RequestMessage.h"
#include "foundation/RootPaths.h"
#include "module/CUpdateExtensionModule.h"
#include "platform/Environment.h"
#include "platform/FileIo.h"
#include "platform/Registry.h"

namespace {

std::string Utf16File(const std::u16string& text) {
  std::string out("\xFF\xFE", 2);
  for (char16_t c : text) {
    out.push_back(static_cast<char>(c & 0xFF));
    out.push_back(static_cast<char>(c >> 8));
  }
  return out;
}

// A private installation: registry file, data and binary directories, both settings files.
struct Installation {
  Installation() {
    root = platform::TempDirectory() + u"/em_bench_config";
    platform::CreateDirectoryPath(root);
    platform::CreateDirectoryPath(root + u"/data");
    platform::CreateDirectoryPath(root + u"/repo");
    platform::SetEnv(u"NODEWARDEN_REGISTRY", root + u"/registry.reg");
    const WString base = u"SOFTWARE\\Hadley Brandt\\Management\\Node Warden";
    platform::RegistryWriteString(base + u"\\DATA", u"DataRoot", root + u"/data", false);
    platform::RegistryWriteString(base + u"\\Setup", u"BinRoot", root, false);
    struct Value {
      const char16_t* key;
      const char16_t* value;
    };
    // Key "%04X.FFFF.0000" of each OE, with its size.
    const Value values[] = {
        {u"1A40", u"REPO"},
        {u"1A41", u"1"},
        {u"1A44", u"2"},
        {u"1A45", u"0"},
        {u"1A42", u"updateuser"},
        {u"1A43", u"8lAiMWv40UaXqykBnie1Hw=="},
        {u"1A47", u"dl.example"},
        {u"1A48", u"/repository"},
        {u"1A4D", u"1"},
        {u"1A4E", u"1"},
        {u"041A", u"Updates for the server"},
        {u"041B", u"line one||line two"},
        {u"1A90", u"2"},
        {u"1A92", u"8080"},
        {u"1A91", u"proxy.example"},
        {u"1A93", u"proxyuser"},
        {u"1A94", u"8lAiMWv40UaXqykBnie1Hw=="},
        {u"1A46", u"0"},
        {u"1A49", u"0"},
        {u"1A4A", u"1700000000"},
        {u"1A4B", u"7"},
        {u"1A4C", u"1"},
        {u"020A", u"C0A80001"},
    };
    std::u16string common = u"[CurrentConfig]\r\n", defaults = u"[DefaultConfig]\r\n";
    for (const Value& v : values) {
      WString value = v.value;
      if (value == u"REPO") value = root + u"/repo";
      const bool bytes = WString(v.key) == u"020A";
      const bool number = value.find_first_not_of(u"0123456789") == WString::npos;
      WString size;
      if (bytes) {
        size = WFromAscii(std::to_string(value.size() / 2));
      } else if (number) {
        const unsigned long n = std::stoul(WToUtf8(value));
        size = n < 256 ? u"1" : n < 65536 ? u"2" : u"4";
      } else {
        // A text of 1, 2 or 4 characters would read as a number: one blank more.
        if (value.size() == 1 || value.size() == 2 || value.size() == 4) value += u" ";
        size = WFromAscii(std::to_string(value.size()));
      }
      const WString sizeKey = bytes ? u".Size[]" : u".Size";
      common +=
          WString(v.key) + u".FFFF.0000=" + value + u"\r\n" + v.key + u".FFFF.0000" + sizeKey + u"=" + size + u"\r\n";
      defaults += WString(v.key) + u"=" + value + u"\r\n" + v.key + sizeKey + u"=" + size + u"\r\n";
    }
    const std::string c = Utf16File(common), d = Utf16File(defaults);
    platform::WriteWholeFile(root + u"/data/CommonConfig.ccs", c.data(), c.size());
    platform::WriteWholeFile(root + u"/DefaultConfig.ccs", d.data(), d.size());
  }
  WString root;
};

Installation& TheInstallation() {
  static Installation installation;
  return installation;
}

void BM_StartModuleFullConfiguration(benchmark::State& state) {
  TheInstallation();
  for (auto _ : state) {
    CUpdateExtensionModule module;
    module.SetServerCabinetNumber(0);
    module.StartModule(nullptr, 0x00010001);
    state.PauseTiming();
    module.StopModule();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_StartModuleFullConfiguration)->Unit(benchmark::kMicrosecond);

void BM_ReadRequestFromMemory(benchmark::State& state) {
  TheInstallation();
  CUpdateExtensionModule module;
  module.SetServerCabinetNumber(0);
  module.StartModule(nullptr, 0x00010001);
  RequestMessage m;
  for (auto _ : state) {
    ConstructRequest(m, 0xE001, 6801, 0, 0, ST_NONE);
    benchmark::DoNotOptimize(module.ApplicationRequest(&m));
  }
  module.StopModule();
}
BENCHMARK(BM_ReadRequestFromMemory);

void BM_ReadValueFromConfigurationSpace(benchmark::State& state) {
  TheInstallation();
  CConfigSpace space;
  space.ReadActiveSection();
  space.Open();
  RequestMessage m;
  for (auto _ : state) {
    ConstructRequest(m, 0, 0x1A91, 0, 0, ST_NONE);
    benchmark::DoNotOptimize(space.ReadValue(m, 1, nullptr));
  }
}
BENCHMARK(BM_ReadValueFromConfigurationSpace)->Unit(benchmark::kMicrosecond);

}  // namespace

// The task serializer's start pauses 100 ms by design. Run with EM_MENDER_TIME_SCALE=1000 to take
// the pause out of the wall time; the CPU time is the work of the start either way.
BENCHMARK_MAIN();
