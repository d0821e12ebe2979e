// The exclusive directory lock, uncontended, against the bare floor of its
// protocol (one exclusive create and one remove) and against flock(2); and
// hand-off throughput between contending processes.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "korvel/fs_lock.h"

namespace {

using Zentha::System::TimeUnit;

struct ScratchDir {
  ScratchDir() {
    char tmpl[] = "/tmp/korvel_lock_bench_XXXXXX";
    path = mkdtemp(tmpl);
  }
  ~ScratchDir() { std::system(("rm -rf " + path).c_str()); }
  std::string path;
};

void BM_ExclusiveLockUncontended(benchmark::State& state) {
  ScratchDir dir;
  koDirectoryExclusiveLock lock(dir.path, "bench");
  for (auto _ : state) {
    if (!lock.acquire(0, TimeUnit::sMilliseconds(), true) ||
        !lock.release(0, TimeUnit::sMilliseconds())) {
      state.SkipWithError("the uncontended lock failed");
      break;
    }
  }
}
BENCHMARK(BM_ExclusiveLockUncontended);

void BM_BareCreateRemove(benchmark::State& state) {
  ScratchDir dir;
  const std::string file = dir.path + "/.deploy_lock.0";
  for (auto _ : state) {
    int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0777);
    close(fd);
    remove(file.c_str());
  }
}
BENCHMARK(BM_BareCreateRemove);

void BM_Flock(benchmark::State& state) {
  ScratchDir dir;
  int fd = open((dir.path + "/flock").c_str(), O_RDWR | O_CREAT, 0644);
  for (auto _ : state) {
    flock(fd, LOCK_EX);
    flock(fd, LOCK_UN);
  }
  close(fd);
}
BENCHMARK(BM_Flock);

// The read-write lock, uncontended: each acquisition takes and releases the
// directory lock twice (once to create, once to remove the lock file). An
// infinite wait queues for the directory lock with one 10 ms polling cycle
// each time; a finite one (below 1000 s) makes a single immediate attempt.
// With refresh, each acquisition also starts and stops the refresh loop.
template <class Handle>
void rwUncontended(benchmark::State& state, Handle (koDirectoryReadWriteLock::*get)() const) {
  ScratchDir dir;
  koDirectoryReadWriteLock rw(dir.path);
  Handle handle = (rw.*get)();
  const bool noRefresh = state.range(0) == 0;
  const unsigned long timeout = state.range(1) == 1 ? koForever : 10;
  for (auto _ : state) {
    if (!handle.acquire(timeout, TimeUnit::sSeconds(), noRefresh) ||
        !handle.release(timeout, TimeUnit::sSeconds())) {
      state.SkipWithError("the uncontended lock failed");
      break;
    }
  }
}

void BM_ReadLockUncontended(benchmark::State& state) {
  rwUncontended(state, &koDirectoryReadWriteLock::getReadLock);
}
BENCHMARK(BM_ReadLockUncontended)
    ->ArgNames({"refresh", "infinite"})
    ->ArgsProduct({{0, 1}, {0, 1}})
    ->UseRealTime();

void BM_WriteLockUncontended(benchmark::State& state) {
  rwUncontended(state, &koDirectoryReadWriteLock::getWriteLock);
}
BENCHMARK(BM_WriteLockUncontended)
    ->ArgNames({"refresh", "infinite"})
    ->ArgsProduct({{0, 1}, {0, 1}})
    ->UseRealTime();

// 4 processes each take and release the lock `rounds` times with infinite
// time-out; reports hand-offs per second.
void BM_HandoffFourProcesses(benchmark::State& state) {
  const int rounds = 50;
  for (auto _ : state) {
    ScratchDir dir;
    pid_t pids[4];
    for (pid_t& pid : pids) {
      pid = fork();
      if (pid == 0) {
        koDirectoryExclusiveLock lock(dir.path, "bench");
        for (int i = 0; i < rounds; ++i) {
          if (!lock.acquire(koForever, TimeUnit::sSeconds(), true) ||
              !lock.release(koForever, TimeUnit::sSeconds())) {
            _exit(1);
          }
        }
        _exit(0);
      }
    }
    for (pid_t pid : pids) waitpid(pid, nullptr, 0);
  }
  state.counters["acquisitions/s"] =
      benchmark::Counter(4.0 * rounds * state.iterations(), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_HandoffFourProcesses)->UseRealTime()->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
