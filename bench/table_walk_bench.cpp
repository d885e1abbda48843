// A requester's walk of the published update table through the module's routed request path: the
// number of rows, then every field opcode for every row, as a management console reads the table
// after CM_UmDataChanged. The module is started in-process with a small host, its scheduler thread
// runs one check (CM_UmServerStartCheck) on the repository and inventory that
// bench/check_module_bench.sh prepares, and the table must then hold exactly the number of rows
// the script asks for (EM_TABLE_WALK_ROWS, 199 by default): otherwise the program stops before
// timing anything.
#include <benchmark/benchmark.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "base/WString.h"
#include "foundation/Opcodes.h"
#include "foundation/RequestMessage.h"
#include "module/CUpdateExtensionModule.h"
#include "module/IExtensionModule.h"
#include "module/IModuleHost.h"

namespace {

constexpr uint32_t kDiffNumberEntries = CM_UmDiffNumberEntries;
constexpr uint32_t kDiffFirstField = CM_UmDiffComponentPath;
constexpr uint32_t kDiffLastField = CM_UmDiffBinaryLoaded;
// Not fields of a row: the module answers them as unknown opcodes.
constexpr uint32_t kDiffGap1 = 0x3307;
constexpr uint32_t kDiffGap2 = 0x330F;
constexpr uint32_t kDiffReleaseNote = CM_UmDiffReleaseNote;
constexpr uint32_t kOeRepositoryPath = 6720;
constexpr uint32_t kOeRepositoryAccess = 6721;
constexpr uint32_t kOeAutomaticDownload = 6725;
constexpr uint32_t kRepositoryLocalRW = 1;
// A check of a 2,000-leaf repository takes well under a minute; this only keeps a broken setup
// from hanging the run.
constexpr auto kCheckTimeout = std::chrono::minutes(10);

[[noreturn]] void Fail(const std::string& text) {
  std::fprintf(stderr, "table_walk_bench: %s\n", text.c_str());
  std::fflush(stderr);
  // The module's threads may be running: no static destructors.
  std::_Exit(1);
}

// The host side the module needs: events are kept by opcode, requests to the host are taken.
class BenchHost : public IModuleHost {
 public:
  int SendRequest(IExtensionModule*, RequestMessage* message, uint32_t) override {
    SetCommandValue(*message, GetCurrentCommand(*message), kKeyST, ST_OK, false);
    return 1;
  }
  void PostEvent(IExtensionModule*, RequestMessage* message) override {
    const uint32_t oc = GetCommandValue(*message, message->commandIndex, kKeyOC, 0);
    std::lock_guard<std::mutex> lock(mutex);
    events.push_back(oc);
    posted.notify_all();
  }
  void ModuleStarted(IExtensionModule*, uint32_t) override {}
  void ModuleStopping(IExtensionModule*) override {}
  uint32_t GetHostType() override { return 0; }

  bool WaitFor(uint32_t oc) {
    std::unique_lock<std::mutex> lock(mutex);
    return posted.wait_for(lock, kCheckTimeout, [&] {
      for (uint32_t e : events)
        if (e == oc) return true;
      return false;
    });
  }

 private:
  std::mutex mutex;
  std::condition_variable posted;
  std::vector<uint32_t> events;
};

// One request as a requester sends it: OC, OE, OI and CA, no ST.
void Request(CUpdateExtensionModule& module, RequestMessage& m, uint32_t oc, uint32_t oi) {
  ResetMessage(m);
  MessageValue& c = GetCurrentCommand(m);
  SetCommandValue(m, c, kKeyOC, oc, false);
  SetCommandValue(m, c, kKeyOE, 0, false);
  SetCommandValue(m, c, kKeyOI, oi, false);
  SetCommandValue(m, c, kKeyCA, 0, false);
  module.ApplicationRequest(&m);
}

uint32_t Status(const RequestMessage& m) {
  return GetCommandValue(m, m.commandIndex, kKeyST, ST_ABSENT);
}

void WriteSetting(CUpdateExtensionModule& module, uint32_t oe, uint32_t value, const std::u16string* text) {
  RequestMessage m;
  ConstructRequest(m, CM_WriteConfigurationSpace, oe, 0, 0, ST_NONE);
  if (text)
    SetDataString(m, GetCurrentCommand(m), *text);
  else
    SetDataNumber(m, GetCurrentCommand(m), value, 1);
  module.ApplicationRequest(&m);
  if (Status(m) != ST_OK) Fail("the module refused setting " + std::to_string(oe));
}

std::vector<uint32_t> FieldOpcodes(bool withReleaseNote) {
  std::vector<uint32_t> out;
  for (uint32_t oc = kDiffFirstField; oc <= kDiffLastField; ++oc)
    if (oc != kDiffGap1 && oc != kDiffGap2 && (withReleaseNote || oc != kDiffReleaseNote)) out.push_back(oc);
  return out;
}

// The started module with the table of one check; made once for the whole program.
struct Fixture {
  BenchHost host;
  CUpdateExtensionModule module;
  uint32_t rows = 0;

  Fixture() {
    const char* repo = std::getenv("EM_TABLE_WALK_REPOSITORY");
    if (!repo) Fail("run through bench/check_module_bench.sh (EM_TABLE_WALK_REPOSITORY is not set)");
    const char* wanted = std::getenv("EM_TABLE_WALK_ROWS");
    const uint32_t want = wanted ? static_cast<uint32_t>(std::strtoul(wanted, nullptr, 10)) : 199;

    // The agent's order: cabinet, start, switch started (which starts the scheduler's thread).
    module.SetServerCabinetNumber(0);
    if (!module.StartModule(&host, 1)) Fail("StartModule returned 0");
    module.OnSwitchStarted();
    const std::u16string path = WFromUtf8(repo);
    WriteSetting(module, kOeRepositoryAccess, kRepositoryLocalRW, nullptr);
    WriteSetting(module, kOeAutomaticDownload, 0, nullptr);
    WriteSetting(module, kOeRepositoryPath, 0, &path);

    RequestMessage m;
    Request(module, m, CM_UmServerStartCheck, 0);
    if (Status(m) != ST_OK) Fail("CM_UmServerStartCheck answered ST " + std::to_string(Status(m)));
    if (!host.WaitFor(CM_UmDataChanged)) Fail("no CM_UmDataChanged within ten minutes");
    Request(module, m, kDiffNumberEntries, 0);
    uint32_t n = 0;
    GetDataValue(m, m.commandIndex, n);
    if (Status(m) != ST_OK || n != want)
      Fail("the check gave " + std::to_string(n) + " rows (ST " + std::to_string(Status(m)) + "), not " +
           std::to_string(want) + ": adjust the inventory's --max in bench/check_module_bench.sh");
    rows = n;
    // Every field of every row must answer as a requester expects before anything is timed: ST 0,
    // or 19 for a release note the package does not have.
    for (uint32_t oi = 0; oi < rows; ++oi) {
      for (uint32_t oc : FieldOpcodes(true)) {
        Request(module, m, oc, oi);
        const uint32_t st = Status(m);
        if (st != ST_OK && !(oc == kDiffReleaseNote && st == ST_NOT_AVAILABLE))
          Fail("opcode " + std::to_string(oc) + " OI " + std::to_string(oi) + " answered ST " + std::to_string(st));
      }
    }
  }
  ~Fixture() {
    module.OnSwitchEvent(kSwitchEventShutdown, 0, 0);
    module.StopModule();
  }
};

Fixture& Module() {
  static Fixture fixture;
  return fixture;
}

// The walk: the number of rows, then each field opcode of each row; of each reply the length of its
// data is taken. state.range(0) says whether the release notes (a file read each) are asked.
void BM_TableWalk(benchmark::State& state) {
  Fixture& f = Module();
  const std::vector<uint32_t> fields = FieldOpcodes(state.range(0) != 0);
  RequestMessage m;
  int64_t bytes = 0;
  for (auto _ : state) {
    Request(f.module, m, kDiffNumberEntries, 0);
    uint32_t n = 0;
    GetDataValue(m, m.commandIndex, n);
    for (uint32_t oi = 0; oi < n; ++oi) {
      for (uint32_t oc : fields) {
        Request(f.module, m, oc, oi);
        bytes += GetDataLength(m, m.commandIndex);
      }
    }
    benchmark::DoNotOptimize(bytes);
  }
  const double requests = 1.0 + static_cast<double>(f.rows) * static_cast<double>(fields.size());
  state.counters["rows"] = f.rows;
  state.counters["requests"] = requests;
  // Shown as the time of one request (CPU time per request, e.g. "5.3us").
  state.counters["per_request"] =
      benchmark::Counter(requests, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["reply_bytes"] = static_cast<double>(bytes) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_TableWalk)->ArgName("release_notes")->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
