// The library against its anchors, pair by pair in one run: each round
// measures ours and the anchor back to back (alternating which goes first),
// and the table gives the medians of the rounds, their ratio and the range of
// the per-round ratios. Reported, never asserted: bench/run.sh drives it.
//
//   korvel_bench table LOCK_TOOL [RW_SECONDS [RW_RUNS]]
//                                       the table, as markdown
//   korvel_bench cycles ours|prescribed DIR N
//                                       N exclusive lock cycles, for strace
//   korvel_bench rw-child ...           one process of the read-write row
//   korvel_bench contention-child ..., dead-holder-child ..., pool-child CPUS
//                                       the processes of the contention group
#include <fcntl.h>
#include <ftw.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "korvel/fs_lock.h"
#include "korvel/paths.h"
#include "korvel/threads.h"

extern char** environ;

namespace {

using Zentha::System::TimeUnit;

double clockSeconds(clockid_t clock) {
  timespec ts;
  clock_gettime(clock, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}
double wallNow() {
  return clockSeconds(CLOCK_MONOTONIC);
}
double cpuNow() {
  return clockSeconds(CLOCK_PROCESS_CPUTIME_ID);
}
int64_t nowNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void fail(const std::string& what, bool systemError = true) {
  fprintf(stderr, "korvel_bench: %s%s%s\n", what.c_str(), systemError ? ": " : "",
          systemError ? strerror(errno) : "");
  exit(1);
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  size_t rank = static_cast<size_t>(p * static_cast<double>(v.size()) + 0.999999);
  return v[std::min(v.size(), std::max<size_t>(rank, 1)) - 1];
}

std::string format(const char* fmt, double value) {
  char text[64];
  snprintf(text, sizeof text, fmt, value);
  return text;
}

std::string duration(double seconds) {
  if (seconds < 1e-3) return format("%.2f µs", seconds * 1e6);
  if (seconds < 1.0) return format("%.1f ms", seconds * 1e3);
  return format("%.2f s", seconds);
}

// A scratch directory below $TMPDIR (or /tmp), removed with its contents.
struct ScratchDir {
  ScratchDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/korvel_bench_XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) fail("mkdtemp");
    path = pattern;
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  std::string operator/(const std::string& name) const { return path + "/" + name; }
  std::string path;
};

// ---- Rounds and rows ----

struct Samples {
  std::vector<double> ours, anchor;
};

// rounds pairs of samples; the first of each pair alternates.
Samples interleave(int rounds, const std::function<double()>& ours,
                   const std::function<double()>& anchor) {
  Samples s;
  for (int r = 0; r < rounds; ++r) {
    if (r % 2 == 0) {
      s.ours.push_back(ours());
      s.anchor.push_back(anchor());
    } else {
      s.anchor.push_back(anchor());
      s.ours.push_back(ours());
    }
  }
  return s;
}

// Wall time per call of f over n calls.
double perCall(int n, const std::function<void()>& f) {
  const double start = wallNow();
  for (int i = 0; i < n; ++i) f();
  return (wallNow() - start) / n;
}

std::vector<std::string> rows;

void addRow(const std::string& what, const std::string& ours, const std::string& anchor,
            const std::string& ratio) {
  rows.push_back("| " + what + " | " + ours + " | " + anchor + " | " + ratio + " |");
}

// The row of a timed pair: medians, their ratio, and the range of the
// per-round ratios.
void addTimedRow(const std::string& what, const std::string& anchorName, const Samples& s) {
  std::vector<double> ratios;
  for (size_t i = 0; i < s.ours.size(); ++i) ratios.push_back(s.ours[i] / s.anchor[i]);
  std::sort(ratios.begin(), ratios.end());
  const double ratio = median(s.ours) / median(s.anchor);
  addRow(
      what, duration(median(s.ours)), anchorName + " " + duration(median(s.anchor)),
      format("%.2f", ratio) + format(" (%.2f", ratios.front()) + format("–%.2f)", ratios.back()));
  fprintf(stderr, "  %s\n", rows.back().c_str());
}

// ---- The exclusive lock cycle and its prescribed system calls ----

void touchByHand(const char* file, int value) {
  const int fd = open(file, O_RDWR | O_CREAT | O_TRUNC, 0666);
  if (fd < 0) fail("open for the touch");
  char text[16];
  const int n = snprintf(text, sizeof text, "%d", value);
  if (write(fd, text, static_cast<size_t>(n)) != n) fail("write");
  close(fd);
}

// What an uncontended acquire(0) and release with the refresh loop must do
// at least: a probe that finds no holder, the exclusive create, the touch,
// the refresh loop's first touch, the removal.
void prescribedCycle(const std::string& file, int& counter) {
  const char* name = file.c_str();
  int fd = open(name, O_RDONLY);
  if (fd >= 0) fail("lock file present", false);
  fd = open(name, O_WRONLY | O_CREAT | O_EXCL, 0777);
  if (fd < 0) fail("exclusive create");
  close(fd);
  touchByHand(name, counter++);
  touchByHand(name, counter++);
  if (unlink(name) != 0) fail("unlink");
}

void lockCycle(koDirectoryExclusiveLock& lock) {
  if (!lock.acquire(0, TimeUnit::sMilliseconds(), false)) fail("acquire(0) failed", false);
  if (!lock.release(0, TimeUnit::sMilliseconds())) fail("release failed", false);
}

void exclusiveRow() {
  ScratchDir ours, anchor;
  koDirectoryExclusiveLock lock(ours.path, "bench");
  const std::string file = anchor / ".deploy_lock.0";
  int counter = getpid();
  const int n = 200;
  addTimedRow("exclusive `acquire(0)` + `release`, with the refresh loop", "prescribed sequence",
              interleave(
                  15, [&] { return perCall(n, [&] { lockCycle(lock); }); },
                  [&] { return perCall(n, [&] { prescribedCycle(file, counter); }); }));
}

int cycles(const char* kind, const char* dir, int n) {
  if (strcmp(kind, "ours") == 0) {
    koDirectoryExclusiveLock lock(dir, "bench");
    for (int i = 0; i < n; ++i) lockCycle(lock);
    return 0;
  }
  if (strcmp(kind, "prescribed") == 0) {
    const std::string file = std::string(dir) + "/.deploy_lock.0";
    int counter = getpid();
    for (int i = 0; i < n; ++i) prescribedCycle(file, counter);
    return 0;
  }
  fprintf(stderr, "korvel_bench cycles: ours or prescribed\n");
  return 64;
}

// ---- The read-write lock under contention, between processes ----

constexpr int kReaders = 6;
constexpr int kWriters = 2;
constexpr int kMaxSamples = 1 << 16;

// Shared by the parent and the lock processes through a mapped file.
struct Slot {
  std::atomic<int64_t> waitStart;  // of the wait in progress; 0 when none
  std::atomic<int> count;          // acquisitions finished before the end
  int64_t waits[kMaxSamples];      // their waits, in ns
};
struct Board {
  std::atomic<int> ready;
  std::atomic<int64_t> endNs;  // 0 until every process is ready
  Slot slots[kReaders + kWriters];
};

Board* mapBoard(const std::string& file, bool create) {
  const int fd = open(file.c_str(), create ? O_RDWR | O_CREAT | O_TRUNC : O_RDWR, 0600);
  if (fd < 0 || (create && ftruncate(fd, sizeof(Board)) != 0)) fail("board file");
  void* memory = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (memory == MAP_FAILED) fail("mmap");
  return static_cast<Board*>(memory);
}

// One lock process: acquire, hold 1 ms, release, until the end; then stops
// and waits to be killed. A wait still running at the end stays in waitStart.
int rwChild(const char* dir, const char* boardFile, int index) {
  Board* board = mapBoard(boardFile, false);
  Slot& slot = board->slots[index];
  koDirectoryReadWriteLock rw(dir);
  koDirectoryReadWriteLock::ReadLock reader = rw.getReadLock();
  koDirectoryReadWriteLock::WriteLock writer = rw.getWriteLock();
  koDirectoryReadWriteLock::AbstractLock& lock =
      index < kReaders ? static_cast<koDirectoryReadWriteLock::AbstractLock&>(reader) : writer;
  ++board->ready;
  while (board->endNs == 0) usleep(1000);
  const int64_t end = board->endNs;
  for (;;) {
    const int64_t start = nowNs();
    if (start >= end) break;
    slot.waitStart = start;
    if (!lock.acquire(koForever, TimeUnit::sSeconds())) break;
    const int64_t acquired = nowNs();
    if (acquired > end) break;
    const int n = slot.count;
    if (n < kMaxSamples) slot.waits[n] = acquired - start;
    slot.count = n + 1;
    slot.waitStart = 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (!lock.release(koForever, TimeUnit::sSeconds())) break;
  }
  for (;;) pause();
}

struct RwResult {
  double writesPerSecond, readsPerSecond, writerP99;
  int unfinished;  // writer waits still running at the end
};

RwResult rwRun(double seconds) {
  ScratchDir scratch;
  const std::string dir = scratch / "locked";
  const std::string boardFile = scratch / "board";
  mkdir(dir.c_str(), 0755);
  Board* board = mapBoard(boardFile, true);
  std::vector<pid_t> children;
  for (int i = 0; i < kReaders + kWriters; ++i) {
    const std::string index = std::to_string(i);
    const char* argv[] = {"korvel_bench",    "rw-child",    dir.c_str(),
                          boardFile.c_str(), index.c_str(), nullptr};
    pid_t pid;
    if (posix_spawn(&pid, "/proc/self/exe", nullptr, nullptr, const_cast<char**>(argv), environ) !=
        0) {
      fail("spawn a lock process");
    }
    children.push_back(pid);
  }
  while (board->ready < kReaders + kWriters) usleep(1000);
  const int64_t end = nowNs() + static_cast<int64_t>(seconds * 1e9);
  board->endNs = end;
  // Grace for the last hold and release to finish; then stop everyone.
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds + 0.5));
  for (pid_t pid : children) kill(pid, SIGKILL);
  for (pid_t pid : children) waitpid(pid, nullptr, 0);

  RwResult result = {0, 0, 0, 0};
  std::vector<double> writerWaits;
  for (int i = 0; i < kReaders + kWriters; ++i) {
    const Slot& slot = board->slots[i];
    const int n = std::min(slot.count.load(), kMaxSamples);
    if (i < kReaders) {
      result.readsPerSecond += slot.count / seconds;
      continue;
    }
    result.writesPerSecond += slot.count / seconds;
    for (int k = 0; k < n; ++k) writerWaits.push_back(static_cast<double>(slot.waits[k]) * 1e-9);
    const int64_t start = slot.waitStart;
    if (start != 0 && start < end) {
      writerWaits.push_back(static_cast<double>(end - start) * 1e-9);  // at least this long
      ++result.unfinished;
    }
  }
  result.writerP99 = percentile(writerWaits, 0.99);
  munmap(board, sizeof(Board));
  return result;
}

void rwRows(double seconds, int runs) {
  std::vector<double> writes, reads, p99;
  int unfinished = 0;
  for (int r = 0; r < runs; ++r) {
    RwResult result = rwRun(seconds);
    writes.push_back(result.writesPerSecond);
    reads.push_back(result.readsPerSecond);
    p99.push_back(result.writerP99);
    unfinished += result.unfinished;
    fprintf(stderr, "  rw run %d: writes %.1f/s, reads %.1f/s, writer p99 %s, unfinished %d\n",
            r + 1, result.writesPerSecond, result.readsPerSecond,
            duration(result.writerP99).c_str(), result.unfinished);
  }
  auto range = [](std::vector<double> v, const char* fmt) {
    std::sort(v.begin(), v.end());
    return format(fmt, median(v)) + " (" + format(fmt, v.front()) + "–" + format(fmt, v.back()) +
           ")";
  };
  const std::string what = "read-write lock, " + std::to_string(kReaders) + " readers + " +
                           std::to_string(kWriters) + " writers (processes), 1 ms holds: ";
  addRow(what + "writer acquisitions/s", range(writes, "%.1f"), "—", "—");
  std::vector<double> p99ms;
  for (double v : p99) p99ms.push_back(v * 1e3);
  addRow(what + "writer wait p99" +
             (unfinished > 0 ? " (waits unfinished at the end count as far as they got)" : ""),
         range(p99ms, "%.0f ms"), "—", "—");
  addRow(what + "reader acquisitions/s", range(reads, "%.1f"), "—", "—");
}

// ---- korvel-lock against flock(1) ----

// Runs argv to its end; returns the wall time.
double runCommand(const std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  const double start = wallNow();
  pid_t pid;
  if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) fail(args[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  const double elapsed = wallNow() - start;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    fprintf(stderr, "korvel_bench: %s exited with status %d\n", args[0].c_str(), status);
    exit(1);
  }
  return elapsed;
}

// The rounds of the last commandRow, for the contention summary.
Samples toolSamples;

void commandRow(const std::string& lockTool) {
  ScratchDir scratch;
  const std::string dir = scratch / "locked";
  mkdir(dir.c_str(), 0755);
  const std::string file = scratch / "flockfile";
  const int n = 5;
  toolSamples = interleave(
      12, [&] { return perCall(n, [&] {
                  runCommand({lockTool, dir, "--", "true"});
                }); },
      [&] { return perCall(n, [&] {
              runCommand({"flock", file, "true"});
            }); });
  addTimedRow("`korvel-lock DIR -- true`", "`flock FILE true`", toolSamples);
}

// ---- Threads ----

void* nothing() {
  return nullptr;
}

// Wall time and process CPU time (both threads) of the same rounds: on a
// loaded machine the wall time of a hand-off is mostly waiting to be
// scheduled, while the CPU time still shows the work and the switches.
// A pooled round lasts many scheduler ticks: the time of a thread that
// spins on another core is only added to the process at a tick.
void threadRow() {
  koPooledThreadFactory pool(1, 16);
  Samples wall, cpu;
  auto measure = [&](bool ours, int n, const std::function<void()>& f) {
    const double cpuStart = cpuNow();
    const double wallTime = perCall(n, f);
    (ours ? wall.ours : wall.anchor).push_back(wallTime);
    (ours ? cpu.ours : cpu.anchor).push_back((cpuNow() - cpuStart) / n);
  };
  auto pooled = [&] {
    koThread* thread = pool.createThread(&nothing);
    thread->start(false);
    thread->join();
    pool.recycle(thread);
  };
  auto plain = [] {
    std::thread thread(nothing);
    thread.join();
  };
  for (int r = 0; r < 31; ++r) {
    if (r % 2 == 0) measure(true, 20000, pooled);
    measure(false, 100, plain);
    if (r % 2 == 1) measure(true, 20000, pooled);
  }
  addTimedRow("pooled thread round trip (create, start, join, recycle a trivial body)",
              "`std::thread` create+join", wall);
  addTimedRow("the same, CPU time of the process", "`std::thread` create+join", cpu);
}

// ---- Directory size ----

// root/dNN/sN/fNN: 1 + 100 + 1000 directories, 100 files in each leaf.
int64_t buildTree(const std::string& root) {
  int64_t bytes = 0;
  const char data[] = "abc";
  for (int d = 0; d < 100; ++d) {
    const std::string top = root + "/d" + std::to_string(d);
    if (mkdir(top.c_str(), 0755) != 0) fail("mkdir");
    for (int s = 0; s < 10; ++s) {
      const std::string leaf = top + "/s" + std::to_string(s);
      if (mkdir(leaf.c_str(), 0755) != 0) fail("mkdir");
      const int dirFd = open(leaf.c_str(), O_RDONLY | O_DIRECTORY);
      for (int f = 0; f < 100; ++f) {
        const int fd = openat(dirFd, ("f" + std::to_string(f)).c_str(), O_WRONLY | O_CREAT, 0644);
        if (fd < 0) fail("create");
        const size_t size = static_cast<size_t>(f % 4);
        if (size > 0 && write(fd, data, size) != static_cast<ssize_t>(size)) fail("write");
        bytes += static_cast<int64_t>(size);
        close(fd);
      }
      close(dirFd);
    }
  }
  return bytes;
}

int64_t nftwTotal = 0;
int addSize(const char*, const struct stat* st, int type, FTW*) {
  if (type == FTW_F) nftwTotal += st->st_size;
  return 0;
}

void directorySizeRow() {
  ScratchDir scratch;
  fprintf(stderr, "  making 100,000 files in 1,101 directories...\n");
  const int64_t expected = buildTree(scratch.path);
  const char* root = scratch.path.c_str();
  auto ours = [&] {
    const double start = cpuNow();
    const int64_t total = koGetDirectorySize(root);
    const double elapsed = cpuNow() - start;
    if (total != expected) fprintf(stderr, "korvel_bench: koGetDirectorySize: wrong total\n");
    return elapsed;
  };
  auto anchor = [&] {
    nftwTotal = 0;
    const double start = cpuNow();
    nftw(root, addSize, 64, 0);
    const double elapsed = cpuNow() - start;
    if (nftwTotal != expected) fprintf(stderr, "korvel_bench: nftw: wrong total\n");
    return elapsed;
  };
  ours();  // both warm the same caches
  anchor();
  addTimedRow("`koGetDirectorySize`, 100,000 files in 1,101 directories (CPU time)", "nftw sum",
              interleave(7, ours, anchor));
}

// ---- Canonical paths ----

void canonicalRow() {
  ScratchDir scratch;
  std::filesystem::create_directories(scratch / "a/b/c");
  // Five existing components, then five that are not there.
  const std::string in = scratch / "a/b/c/new/x/../y/z";
  static char out[8706 + 1];  // as large as the library's own path buffers
  addTimedRow("`koCanonicalizePath` with a missing tail (`<tmp>/a/b/c` + `new/x/../y/z`)",
              "`std::filesystem::weakly_canonical`",
              interleave(
                  15,
                  [&] {
                    return perCall(2000,
                                   [&] { koCanonicalizePath(out, 8706, in.c_str(), in.size()); });
                  },
                  [&] {
                    return perCall(2000, [&] {
                      std::error_code ec;
                      std::filesystem::path p = std::filesystem::weakly_canonical(in, ec);
                      if (p.empty()) fail("weakly_canonical", false);
                    });
                  }));
}

// ---- Same-host contention: the exclusive lock against flock(2) ----
//
// n processes contend for one lock over a fixed wall time, each holding it
// for 1 ms at a time with no time-out. Every process records in a shared
// mapped log, on CLOCK_MONOTONIC, when it called acquire, when it held the
// lock and when it began to release. The holds, put in the order of their
// acquisitions, give the hand-offs (one holder beginning its release to the
// next holder acquiring), the waits and the holds of each process.

constexpr int kMaxContenders = 32;
constexpr int kMaxHolds = 1 << 17;

struct Hold {
  int64_t call, acquired, releasing;  // ns; releasing is 0 until set
  int32_t process;
};
struct ContentionBoard {
  std::atomic<int> ready;
  std::atomic<int64_t> startNs, endNs;  // 0 until every process is ready
  std::atomic<int> used;                // entries of holds taken
  // A wait that began before the end and ended after it: how long it had
  // lasted at the end (at least that long).
  std::atomic<int64_t> unfinished[kMaxContenders];
  Hold holds[kMaxHolds];
};

ContentionBoard* mapContentionBoard(const std::string& file, bool create) {
  const int fd = open(file.c_str(), create ? O_RDWR | O_CREAT | O_TRUNC : O_RDWR, 0600);
  if (fd < 0 || (create && ftruncate(fd, sizeof(ContentionBoard)) != 0)) fail("board file");
  void* memory = mmap(nullptr, sizeof(ContentionBoard), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (memory == MAP_FAILED) fail("mmap");
  return static_cast<ContentionBoard*>(memory);
}

void sleepUntil(int64_t ns) {
  const timespec until = {static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
  }
}

// One contending process; kind is "korvel" or "flock". Runs until the end
// and exits after its last release.
int contentionChild(const char* kind, const char* dir, const char* boardFile, int index) {
  ContentionBoard* board = mapContentionBoard(boardFile, false);
  const bool ours = strcmp(kind, "korvel") == 0;
  koDirectoryExclusiveLock lock(dir, "bench");
  int fd = -1;
  if (!ours) {
    fd = open((std::string(dir) + "/flock_anchor").c_str(), O_RDWR | O_CREAT, 0644);
    if (fd < 0) fail("open the flock file");
  }
  auto acquire = [&] {
    if (ours ? !lock.acquire(koForever, TimeUnit::sMilliseconds(), false)
             : flock(fd, LOCK_EX) != 0) {
      fail("acquire", !ours);
    }
  };
  auto release = [&] {
    if (ours ? !lock.release(koForever, TimeUnit::sMilliseconds()) : flock(fd, LOCK_UN) != 0) {
      fail("release", !ours);
    }
  };
  ++board->ready;
  while (board->startNs == 0) usleep(1000);
  const int64_t end = board->endNs;
  sleepUntil(board->startNs);
  for (;;) {
    const int64_t call = nowNs();
    if (call >= end) break;
    acquire();
    const int64_t acquired = nowNs();
    if (acquired >= end) {
      board->unfinished[index] = end - call;
      release();
      break;
    }
    Hold* hold = nullptr;
    const int slot = board->used++;
    if (slot < kMaxHolds) {
      hold = &board->holds[slot];
      *hold = {call, acquired, 0, index};
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (hold != nullptr) hold->releasing = nowNs();
    release();
  }
  if (fd >= 0) close(fd);
  munmap(board, sizeof(ContentionBoard));
  return 0;
}

struct ContentionResult {
  double handoffP50, handoffP99, holdsPerSecond, waitP99, fairness;
  int fewest;    // holds of the process with the fewest
  int overlaps;  // acquisitions before the previous holder began to release
  int unfinished, killed;
};

// Waits for the children until deadlineNs; kills those still running then.
// Returns how many had to be killed.
int reap(std::vector<pid_t> children, int64_t deadlineNs) {
  while (!children.empty() && nowNs() < deadlineNs) {
    const pid_t pid = waitpid(-1, nullptr, WNOHANG);
    if (pid > 0) {
      children.erase(std::remove(children.begin(), children.end(), pid), children.end());
    } else {
      usleep(2000);
    }
  }
  for (pid_t pid : children) kill(pid, SIGKILL);
  for (pid_t pid : children) waitpid(pid, nullptr, 0);
  return static_cast<int>(children.size());
}

pid_t spawnSelf(const std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid;
  if (posix_spawn(&pid, "/proc/self/exe", nullptr, nullptr, argv.data(), environ) != 0) {
    fail("spawn " + args[1]);
  }
  return pid;
}

ContentionResult contentionRun(const char* kind, int processes, double seconds) {
  ScratchDir scratch;
  const std::string dir = scratch / "locked";
  const std::string boardFile = scratch / "board";
  mkdir(dir.c_str(), 0755);
  ContentionBoard* board = mapContentionBoard(boardFile, true);
  std::vector<pid_t> children;
  for (int i = 0; i < processes; ++i) {
    children.push_back(
        spawnSelf({"korvel_bench", "contention-child", kind, dir, boardFile, std::to_string(i)}));
  }
  while (board->ready < processes) usleep(1000);
  const int64_t start = nowNs() + 100000000;  // every process asleep until then
  const int64_t end = start + static_cast<int64_t>(seconds * 1e9);
  board->endNs = end;
  board->startNs = start;
  // The waits still running at the end finish once the holders stop.
  ContentionResult r = {};
  r.killed = reap(children, end + 60000000000);

  const int used = std::min(board->used.load(), kMaxHolds);
  std::vector<Hold> holds(board->holds, board->holds + used);
  std::sort(holds.begin(), holds.end(),
            [](const Hold& a, const Hold& b) { return a.acquired < b.acquired; });
  std::vector<double> handoffs, waits;
  std::vector<int> perProcess(processes, 0);
  for (size_t i = 0; i < holds.size(); ++i) {
    waits.push_back(static_cast<double>(holds[i].acquired - holds[i].call) * 1e-9);
    ++perProcess[holds[i].process];
    if (i + 1 == holds.size() || holds[i].releasing == 0) continue;
    const int64_t handoff = holds[i + 1].acquired - holds[i].releasing;
    if (handoff < 0) ++r.overlaps;
    handoffs.push_back(static_cast<double>(handoff) * 1e-9);
  }
  for (int i = 0; i < processes; ++i) {
    if (board->unfinished[i] == 0) continue;
    waits.push_back(static_cast<double>(board->unfinished[i]) * 1e-9);
    ++r.unfinished;
  }
  r.handoffP50 = percentile(handoffs, 0.5);
  r.handoffP99 = percentile(handoffs, 0.99);
  r.holdsPerSecond = static_cast<double>(holds.size()) / seconds;
  r.waitP99 = percentile(waits, 0.99);
  const auto extremes = std::minmax_element(perProcess.begin(), perProcess.end());
  r.fewest = *extremes.first;
  r.fairness = r.fewest > 0 ? static_cast<double>(*extremes.second) / r.fewest : 0;
  munmap(board, sizeof(ContentionBoard));
  return r;
}

// The rows of the contention table and of the summary below it, with the
// targets beside the figures.
std::vector<std::string> contentionRows, summaryRows;

void addSummaryRow(const std::string& what, const std::string& ours, const std::string& anchor,
                   const std::string& ratio, const std::string& target) {
  summaryRows.push_back("| " + what + " | " + ours + " | " + anchor + " | " + ratio + " | " +
                        target + " |");
  fprintf(stderr, "  %s\n", summaryRows.back().c_str());
}

std::string ratioWithRange(const Samples& s) {
  std::vector<double> ratios;
  for (size_t i = 0; i < s.ours.size(); ++i) ratios.push_back(s.ours[i] / s.anchor[i]);
  std::sort(ratios.begin(), ratios.end());
  return format("%.2f", median(s.ours) / median(s.anchor)) + format(" (%.2f", ratios.front()) +
         format("–%.2f)", ratios.back());
}

std::string millis(double seconds) {
  return format(seconds < 0.1e-3 ? "%.3f" : seconds < 10e-3 ? "%.2f" : "%.1f", seconds * 1e3);
}

void contentionTable(double seconds) {
  struct Target {
    int processes;
    const char* handoff;
    const char* fairness;
  };
  const Target targets[] = {{8, "≤ 0.1 / ≤ 1 ms", "—"}, {32, "≤ 0.3 / ≤ 5 ms", "≤ 1.3"}};
  for (const Target& target : targets) {
    const int n = target.processes;
    ContentionResult korvel{}, anchor{};
    // Which goes first alternates with the size.
    for (int k = 0; k < 2; ++k) {
      const bool oursNow = (k == 0) == (n == 8);
      fprintf(stderr, "  %d processes, %s, %.0f s...\n", n, oursNow ? "libkorvel" : "flock",
              seconds);
      (oursNow ? korvel : anchor) = contentionRun(oursNow ? "korvel" : "flock", n, seconds);
    }
    for (int k = 0; k < 2; ++k) {
      const ContentionResult& r = k == 0 ? korvel : anchor;
      std::string notes;
      if (r.overlaps > 0) notes += format(" **%.0f overlapping holds**", r.overlaps);
      if (r.unfinished > 0) notes += format(" (%.0f waits unfinished at the end)", r.unfinished);
      if (r.killed > 0) notes += format(" (%.0f processes killed at the end)", r.killed);
      contentionRows.push_back("| " + std::to_string(n) + " | " + (k == 0 ? "libkorvel" : "flock") +
                               " | " + millis(r.handoffP50) + " / " + millis(r.handoffP99) +
                               " ms | " + format("%.0f", r.holdsPerSecond) + " | " +
                               duration(r.waitP99) + notes + " | " +
                               (r.fewest > 0 ? format("%.2f", r.fairness) : std::string("∞")) +
                               " | " + std::to_string(r.fewest) + " |");
      fprintf(stderr, "  %s\n", contentionRows.back().c_str());
    }
    contentionRows.push_back("| " + std::to_string(n) + " | target for libkorvel | " +
                             target.handoff + " | ≥ " +
                             format("%.0f", 0.8 * anchor.holdsPerSecond) + " (0.8 × flock) | — | " +
                             target.fairness + " | ≥ 100 |");
  }
}

// ---- A holder killed on the same host ----

struct DeadHolderBoard {
  std::atomic<int64_t> held;      // when the holder acquired (ns); 0 before
  std::atomic<int64_t> waiting;   // when the waiter called acquire
  std::atomic<int64_t> acquired;  // when the waiter acquired
};

DeadHolderBoard* mapDeadHolderBoard(const std::string& file, bool create) {
  const int fd = open(file.c_str(), create ? O_RDWR | O_CREAT | O_TRUNC : O_RDWR, 0600);
  if (fd < 0 || (create && ftruncate(fd, sizeof(DeadHolderBoard)) != 0)) fail("board file");
  void* memory = mmap(nullptr, sizeof(DeadHolderBoard), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (memory == MAP_FAILED) fail("mmap");
  return static_cast<DeadHolderBoard*>(memory);
}

// role "holder": acquires and waits to be killed; "waiter": acquires once.
int deadHolderChild(const char* role, const char* dir, const char* boardFile) {
  DeadHolderBoard* board = mapDeadHolderBoard(boardFile, false);
  koDirectoryExclusiveLock lock(dir, "bench");
  const bool holder = strcmp(role, "holder") == 0;
  if (!holder) board->waiting = nowNs();
  if (!lock.acquire(koForever, TimeUnit::sMilliseconds(), false)) fail("acquire", false);
  (holder ? board->held : board->acquired) = nowNs();
  if (!holder) return lock.release(koForever, TimeUnit::sMilliseconds()) ? 0 : 1;
  for (;;) pause();
}

void deadHolderRows() {
  ScratchDir scratch;
  const std::string dir = scratch / "locked";
  const std::string boardFile = scratch / "board";
  mkdir(dir.c_str(), 0755);
  DeadHolderBoard* board = mapDeadHolderBoard(boardFile, true);
  const pid_t holder = spawnSelf({"korvel_bench", "dead-holder-child", "holder", dir, boardFile});
  while (board->held == 0) usleep(1000);
  const pid_t waiter = spawnSelf({"korvel_bench", "dead-holder-child", "waiter", dir, boardFile});
  while (board->waiting == 0) usleep(1000);
  // The waiter has queued behind the holder by then.
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  struct stat st;
  const bool stamped = stat((dir + "/.deploy_lock.0").c_str(), &st) == 0;
  timespec realNow;
  clock_gettime(CLOCK_REALTIME, &realNow);
  const int64_t killed = nowNs();
  kill(holder, SIGKILL);
  waitpid(holder, nullptr, 0);
  fprintf(stderr, "  holder killed; waiting up to 40 s for the waiter...\n");
  const int notLeft = reap({waiter}, killed + 40000000000);
  const int64_t acquired = board->acquired;
  std::string fromKill = "not within 40 s", fromRefresh = "—";
  if (notLeft == 0 && acquired != 0) {
    const double afterKill = static_cast<double>(acquired - killed) * 1e-9;
    fromKill = duration(afterKill);
    if (stamped) {
      // The lock file's last write (acquire or refresh) on the real-time
      // clock, and the kill on both clocks.
      const double refreshToKill = static_cast<double>(realNow.tv_sec - st.st_mtim.tv_sec) +
                                   static_cast<double>(realNow.tv_nsec - st.st_mtim.tv_nsec) * 1e-9;
      fromRefresh = duration(afterKill + refreshToKill);
    }
  }
  addSummaryRow("same-host holder killed (SIGKILL): a waiter acquires, from the kill", fromKill,
                "—", "—", "≤ 100 ms");
  addSummaryRow("the same, from the holder's last write of its lock file", fromRefresh, "—", "—",
                "—");
  munmap(board, sizeof(DeadHolderBoard));
}

// ---- The pooled thread on one CPU and on two ----

// Binds this process (it has no other thread yet) to the first cpus CPUs it
// may use, then prints: the pooled round trip's and std::thread's medians
// and the lowest and highest per-round ratio. Exit 2: not that many CPUs.
int poolChild(int cpus) {
  cpu_set_t allowed, bound;
  if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) fail("sched_getaffinity");
  CPU_ZERO(&bound);
  int taken = 0;
  for (int cpu = 0; cpu < CPU_SETSIZE && taken < cpus; ++cpu) {
    if (CPU_ISSET(cpu, &allowed)) {
      CPU_SET(cpu, &bound);
      ++taken;
    }
  }
  if (taken < cpus) return 2;
  if (sched_setaffinity(0, sizeof bound, &bound) != 0) fail("sched_setaffinity");
  koPooledThreadFactory pool(1, 16);
  auto pooled = [&] {
    koThread* thread = pool.createThread(&nothing);
    thread->start(false);
    thread->join();
    pool.recycle(thread);
  };
  auto plain = [] {
    std::thread thread(nothing);
    thread.join();
  };
  for (int i = 0; i < 1000; ++i) pooled();  // warm
  const Samples s = interleave(
      15, [&] { return perCall(5000, pooled); }, [&] { return perCall(200, plain); });
  std::vector<double> ratios;
  for (size_t i = 0; i < s.ours.size(); ++i) ratios.push_back(s.ours[i] / s.anchor[i]);
  printf("%.9g %.9g %.9g %.9g\n", median(s.ours), median(s.anchor),
         *std::min_element(ratios.begin(), ratios.end()),
         *std::max_element(ratios.begin(), ratios.end()));
  return 0;
}

void poolCpuRows() {
  char self[4096];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) fail("readlink /proc/self/exe");
  self[n] = '\0';
  for (const int cpus : {1, 2}) {
    const std::string what =
        "pooled thread round trip (create, start, join, recycle a trivial "
        "body), process bound to " +
        std::to_string(cpus) + (cpus == 1 ? " CPU" : " CPUs");
    const std::string target = cpus == 1 ? "ratio ≤ 0.25" : "no slower than before (about 1 µs)";
    const std::string command = std::string("'") + self + "' pool-child " + std::to_string(cpus);
    FILE* child = popen(command.c_str(), "r");
    double ours = 0, anchor = 0, low = 0, high = 0;
    const bool read =
        child != nullptr && fscanf(child, "%lf %lf %lf %lf", &ours, &anchor, &low, &high) == 4;
    if (child != nullptr) pclose(child);
    if (!read) {
      addSummaryRow(what, "not measured (too few CPUs?)", "—", "—", target);
      continue;
    }
    addSummaryRow(what, duration(ours), "`std::thread` create+join " + duration(anchor),
                  format("%.2f", ours / anchor) + format(" (%.2f", low) + format("–%.2f)", high),
                  target);
  }
}

double loadAverage() {
  double load = 0;
  FILE* f = fopen("/proc/loadavg", "r");
  if (f != nullptr) {
    if (fscanf(f, "%lf", &load) != 1) load = 0;
    fclose(f);
  }
  return load;
}

// The contention group: the table of n processes against flock(2), then a
// summary of the same-host dead holder (skipped when
// KORVEL_BENCH_DEAD_HOLDER=0), the pooled thread on one CPU and on two, and
// korvel-lock against flock(1) (measured here unless the tool group ran).
void contentionGroup(const std::string& lockTool) {
  const char* secondsText = getenv("KORVEL_BENCH_CONTENTION_SECONDS");
  const double seconds = secondsText != nullptr ? atof(secondsText) : 6.0;
  contentionTable(seconds > 0 ? seconds : 6.0);
  const char* dead = getenv("KORVEL_BENCH_DEAD_HOLDER");
  if (dead == nullptr || strcmp(dead, "0") != 0) deadHolderRows();
  poolCpuRows();
  if (toolSamples.ours.empty()) {
    commandRow(lockTool);
    rows.pop_back();  // shown in the summary only
  }
  addSummaryRow("`korvel-lock DIR -- true`", duration(median(toolSamples.ours)),
                "`flock FILE true` " + duration(median(toolSamples.anchor)),
                ratioWithRange(toolSamples), "ratio ≤ 1.5");
}

// KORVEL_BENCH_ONLY=threads,canonical (for example) runs only those groups.
int table(const std::string& lockTool, double rwSeconds, int rwRuns) {
  const struct {
    const char* name;
    std::function<void()> run;
  } groups[] = {
      {"exclusive", exclusiveRow},
      {"rw", [&] { rwRows(rwSeconds, rwRuns); }},
      {"tool", [&] { commandRow(lockTool); }},
      {"threads", threadRow},
      {"dirsize", directorySizeRow},
      {"canonical", canonicalRow},
      {"contention", [&] { contentionGroup(lockTool); }},
  };
  const char* only = getenv("KORVEL_BENCH_ONLY");
  const double loadBefore = loadAverage();
  for (const auto& group : groups) {
    if (only != nullptr && !strstr(("," + std::string(only) + ",").c_str(),
                                   ("," + std::string(group.name) + ",").c_str())) {
      continue;
    }
    fprintf(stderr, "%s...\n", group.name);
    group.run();
  }
  if (!rows.empty()) {
    printf("| what | ours | anchor | ratio (range of rounds) |\n|---|---|---|---|\n");
    for (const std::string& row : rows) printf("%s\n", row.c_str());
    printf("\n");
  }
  if (!contentionRows.empty()) {
    printf(
        "| processes | | handoff p50 / p99 | holds/s | wait p99 | fairness (max/min holds) | "
        "fewest holds of a process |\n|---|---|---|---|---|---|---|\n");
    for (const std::string& row : contentionRows) printf("%s\n", row.c_str());
    printf(
        "\n| what | ours | anchor | ratio (range of rounds) | target |\n|---|---|---|---|---|\n");
    for (const std::string& row : summaryRows) printf("%s\n", row.c_str());
    printf("\n");
  }
  printf("%ld cores; load average %.2f before, %.2f after.\n", sysconf(_SC_NPROCESSORS_ONLN),
         loadBefore, loadAverage());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 3 && strcmp(argv[1], "table") == 0) {
    const double seconds = argc > 3 ? atof(argv[3]) : 8.0;
    const int runs = argc > 4 ? atoi(argv[4]) : 3;
    return table(argv[2], seconds, runs);
  }
  if (argc == 5 && strcmp(argv[1], "cycles") == 0) return cycles(argv[2], argv[3], atoi(argv[4]));
  if (argc == 5 && strcmp(argv[1], "rw-child") == 0)
    return rwChild(argv[2], argv[3], atoi(argv[4]));
  if (argc == 6 && strcmp(argv[1], "contention-child") == 0)
    return contentionChild(argv[2], argv[3], argv[4], atoi(argv[5]));
  if (argc == 5 && strcmp(argv[1], "dead-holder-child") == 0)
    return deadHolderChild(argv[2], argv[3], argv[4]);
  if (argc == 3 && strcmp(argv[1], "pool-child") == 0) return poolChild(atoi(argv[2]));
  fprintf(stderr,
          "usage: korvel_bench table LOCK_TOOL [RW_SECONDS [RW_RUNS]]\n"
          "       korvel_bench cycles ours|prescribed DIR N\n");
  return 64;
}
