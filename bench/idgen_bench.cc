// Identifier generation: GetNextRecordID against its own parts (an MD5 of a
// seed of the same length, and the time-stamp formatting), so the figures show
// where a call's time goes. Goal: at least 1,000,000 identifiers per second.
#include <benchmark/benchmark.h>

#include <string>

#include "codec/md5.h"
#include "platform/clock.h"
#include "platform/format.h"
#include "platform/object.h"
#include "records/idgen.h"

namespace {

void BM_GetNextRecordID(benchmark::State& state) {
  quillo::idgen gen;
  for (auto _ : state) benchmark::DoNotOptimize(gen.GetNextRecordID());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GetNextRecordID);

void BM_GetNextRecordIDByName(benchmark::State& state) {
  quillo::ObjectPtr gen = quillo::CreateObject("idgen");
  for (auto _ : state) {
    benchmark::DoNotOptimize(quillo::CallByName(gen, "GetNextRecordID", quillo::CallKind::kMethod));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GetNextRecordIDByName);

// Anchor: the digest alone, of a seed of typical length.
void BM_Md5OfSeed(benchmark::State& state) {
  std::string seed = "2005030114150937";
  for (auto _ : state) benchmark::DoNotOptimize(quillo::Md5Hex(seed));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Md5OfSeed);

// The time stamp alone: the clock and its formatting.
void BM_TimeStamp(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(quillo::FormatDate(quillo::Now(), "yyyymmddhhnnss"));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TimeStamp);

// The clock alone.
void BM_Now(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(quillo::Now());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Now);

}  // namespace

BENCHMARK_MAIN();
