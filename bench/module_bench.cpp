// The cost of the request path: one routed request with a short reply, and a 200-byte byte-stream
// reply as the check and job handlers build them.
#include <benchmark/benchmark.h>

#include <vector>

#include "foundation/Opcodes.h"
#include "foundation/RequestMessage.h"
#include "module/CUpdateExtensionModule.h"

namespace {

void BM_RoutedRequestShortReply(benchmark::State& state) {
  CUpdateExtensionModule module;
  module.SetServerCabinetNumber(0);
  RequestMessage m;
  for (auto _ : state) {
    // The host hands in a fresh command each time: OC and CA, no ST.
    ResetMessage(m);
    MessageValue& c = GetCurrentCommand(m);
    SetCommandValue(m, c, kKeyOC, CM_UmServerStartCheck, false);
    SetCommandValue(m, c, kKeyCA, 0, false);
    benchmark::DoNotOptimize(module.ApplicationRequest(&m));
    benchmark::DoNotOptimize(GetCommandValue(m, 0, kKeyST, ST_ABSENT));
  }
}
BENCHMARK(BM_RoutedRequestShortReply);

void BM_UnknownOpcodeRequest(benchmark::State& state) {
  CUpdateExtensionModule module;
  RequestMessage m;
  for (auto _ : state) {
    ResetMessage(m);
    SetCommandValue(m, GetCurrentCommand(m), kKeyOC, 0xE003, false);
    benchmark::DoNotOptimize(module.ApplicationRequest(&m));
  }
}
BENCHMARK(BM_UnknownOpcodeRequest);

void BM_Build200ByteRawReply(benchmark::State& state) {
  std::vector<uint8_t> bytes(200);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i);
  RequestMessage m;
  for (auto _ : state) {
    ResetMessage(m);
    SetCommandValue(m, GetCurrentCommand(m), kKeyOC, 0x3301, false);
    ReplyBytes(m, bytes, ST_OK);
    benchmark::DoNotOptimize(GetDataLength(m, 0));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 200);
}
BENCHMARK(BM_Build200ByteRawReply);

}  // namespace

BENCHMARK_MAIN();
