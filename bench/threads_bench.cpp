// One thread round trip (create, start, join, hand back) with the pooled
// factory, the basic factory and std::thread.
#include <benchmark/benchmark.h>

#include <thread>

#include "korvel/threads.h"

namespace {

void* nothing() {
  return nullptr;
}

void roundTrips(benchmark::State& state, koThreadFactory& factory) {
  for (auto _ : state) {
    koThread* thread = factory.createThread(&nothing);
    thread->start(false);
    thread->join();
    factory.recycle(thread);
  }
}

void BM_PooledRoundTrip(benchmark::State& state) {
  koPooledThreadFactory pool(1, 16);
  roundTrips(state, pool);
}
BENCHMARK(BM_PooledRoundTrip)->UseRealTime();

void BM_BasicRoundTrip(benchmark::State& state) {
  koBasicThreadFactory factory;
  roundTrips(state, factory);
}
BENCHMARK(BM_BasicRoundTrip)->UseRealTime();

void BM_StdThreadCreateJoin(benchmark::State& state) {
  for (auto _ : state) {
    std::thread thread([] { benchmark::DoNotOptimize(nothing()); });
    thread.join();
  }
}
BENCHMARK(BM_StdThreadCreateJoin)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
