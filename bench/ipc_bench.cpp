// The named semaphore's uncontended acquire and release against the bare
// system calls: the wrapper adds a host-layer call and a few stores.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <semaphore.h>
#include <unistd.h>

#include <string>

#include "korvel/ipc.h"

namespace {

std::string benchName(const char* tag) {
  return "/korvel_bench_" + std::to_string(getpid()) + "_" + tag;
}

void BM_SemaphoreAcquireRelease(benchmark::State& state) {
  koSemaphoreIPC sem(benchName("wrapped"), 0, false);
  if (!sem.Open()) {
    state.SkipWithError("cannot open the semaphore");
    return;
  }
  for (auto _ : state) {
    sem.Acquire(false);
    sem.Release();
  }
}
BENCHMARK(BM_SemaphoreAcquireRelease);

void BM_RawSemWaitPost(benchmark::State& state) {
  const std::string name = benchName("raw");
  sem_t* sem = sem_open(name.c_str(), O_CREAT, 0666, 1);
  if (sem == SEM_FAILED) {
    state.SkipWithError("cannot open the semaphore");
    return;
  }
  for (auto _ : state) {
    sem_wait(sem);
    sem_post(sem);
  }
  sem_close(sem);
  sem_unlink(name.c_str());
}
BENCHMARK(BM_RawSemWaitPost);

}  // namespace

BENCHMARK_MAIN();
