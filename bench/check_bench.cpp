// One comparison as a check makes it (createDiffData, createInstalledData, createGlobalInfo) with
// the simulated engine, on the repository and inventory that bench/check_bench.sh prepares: wall
// time per comparison, and how far the comparisons raised the process's peak resident set above
// what it was with the engine made and idle.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "check/DiffData.h"
#include "check/GetVVDiff.h"
#include "check/InstalledData.h"
#include "foundation/UM_Util.h"

namespace {

// VmHWM or VmRSS of /proc/self/status in KB.
long StatusKb(const std::string& key) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.compare(0, key.size() + 1, key + ":") == 0) return std::atol(line.c_str() + key.size() + 1);
  return -1;
}

void BM_Comparison(benchmark::State& state) {
  const char* repo = std::getenv("EM_CHECK_BENCH_REPOSITORY");
  if (!repo) {
    state.SkipWithError("run through bench/check_bench.sh (EM_CHECK_BENCH_REPOSITORY is not set)");
    return;
  }
  UM_Util util(nullptr);
  util.umStartLogging(u"UM_Checknew.log", u"UpdateCheck");
  GetVVDiff diff(&util, nullptr);
  // The resident set with the engine made and idle, taken once: the peak is the process's.
  static const long idleKb = StatusKb("VmRSS");
  int rows = 0, installed = 0;
  for (auto _ : state) {
    diff.callKordUpTool();
    diff.initGetVVDiff(u"UM_Checknew.log");
    std::unique_ptr<DiffData> table = diff.createDiffData(WFromUtf8(repo));
    std::unique_ptr<InstalledData> inventory = diff.createInstalledData();
    diff.createGlobalInfo();
    rows = table ? table->getNumberEntries() : -1;
    installed = inventory ? inventory->getNumberEntries() : -1;
  }
  state.counters["rows"] = rows;
  state.counters["installed"] = installed;
  state.counters["peak_above_idle_MB"] = static_cast<double>(StatusKb("VmHWM") - idleKb) / 1024.0;
}
BENCHMARK(BM_Comparison)->Unit(benchmark::kMillisecond)->MinTime(3.0);

}  // namespace

BENCHMARK_MAIN();
