// One contender of the fault explorer: a process that takes, holds and
// releases one directory's lock through the public API, as its seed says,
// while its host layer (the host calls defined below) compresses time,
// stamps file times, injects its faults of the schedule and records what
// the oracle needs. Started by the runner (explorer.cpp) as
//
//   explorer --contend DIR LOG SEED CALM ID SCALE EPOCH
//
// Time: host time (hostMonotonic) is CLOCK_MONOTONIC since the epoch, times
// scale: every contender and the runner read one clock. Waits and sleeps
// last 1/scale of their host time. File times are set by this host with
// futimens after every change: from the server's clock (host time plus the
// server's steps), or from this contender's wall clock when the schedule
// has clients stamp them. hostRealtime() is the wall clock: host time plus
// this contender's steps.
//
// The log has one line per event, "WHAT T ...", T in host seconds:
//   start, end, acq KIND (X, W or R), fail ERRNO, error WHAT, chk (lost()
//   said no), lost (lost() said yes), told (the loss handler ran), rls (a
//   release starts), rel OK ERRNO (it returned), die; and from the host
//   layer (see "Observation"): w OPEN PATH NUMBER, rm PATH NUMBER,
//   take PATH NUMBER, late PATH, fault KIND CALL PATH.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>

#include "explorer/schedule.h"
#include "host/host.h"
#include "korvel/fs_lock.h"
#include "tests/support/any_lock.h"

using explorer::Call;
using explorer::Fault;
using explorer::monotonicNs;
using explorer::Step;

namespace {

// ---- Configuration ----

struct Config {
  std::string dir;
  int id = 0;
  double scale = 1.0;
  long long epochNs = 0;
  std::unique_ptr<explorer::Schedule> schedule;
  std::vector<Fault> faults;  // this contender's and anyone's, used up as they fire
  std::string root;           // the schedule's folder
};
Config config;
int logFd = -1;

// ---- Clocks ----

// The wall clock and the server's clock at host time 0: years before the
// real clock, so that the kernel's own stamp on a file, in the microseconds
// before this host sets it, makes the file look new, never stale.
constexpr double kEpochWallClock = 1.7e9;

double now() {
  return static_cast<double>(monotonicNs() - config.epochNs) * 1e-9 * config.scale;
}

double wallClock(double t) {
  return kEpochWallClock + t + explorer::offsetAt(config.schedule->clock[config.id], t);
}

// Sleeps for host seconds.
void sleepFor(double seconds) {
  const double real = seconds / config.scale;
  if (real <= 0) return;
  timespec left = {static_cast<time_t>(real),
                   static_cast<long>((real - static_cast<time_t>(real)) * 1e9)};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

// Logs "WHAT T REST", T the host time now.
void say(const char* what, const char* format = "", ...) {
  const double t = now();
  char rest[400];
  va_list args;
  va_start(args, format);
  vsnprintf(rest, sizeof rest, format, args);
  va_end(args);
  char line[512];
  const int n = snprintf(line, sizeof line, "%s %.4f%s%s\n", what, t, *rest ? " " : "", rest);
  (void)!write(logFd, line, static_cast<size_t>(std::min(n, static_cast<int>(sizeof line) - 1)));
}

// The time the file server stamps a change made at t with.
double serverTime(double t) {
  return config.schedule->clientStamps
             ? wallClock(t)
             : kEpochWallClock + t + explorer::offsetAt(config.schedule->server, t);
}

// Sets the file times of fd as the file server would.
void stamp(int fd) {
  const double at = serverTime(now());
  timespec times[2];
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_sec = static_cast<time_t>(at);
  times[1].tv_nsec = static_cast<long>((at - static_cast<double>(times[1].tv_sec)) * 1e9);
  hostDefaultFutimens(fd, times);
}

// ---- Faults ----

std::mutex faultMutex;

// Whether this thread's write goes to a lock file that held its own number,
// other than a queue place: a refresh.
thread_local bool rewritingHeld = false;

// The lock file this thread's last stat showed more than 15 s older than
// the server's clock; cleared when it sleeps.
thread_local std::string judgedStale;

// The fault that hits this call, if any; it is logged and used up.
const Fault* fire(Call call, const char* path) {
  std::lock_guard<std::mutex> lock(faultMutex);
  const double t = now();
  for (Fault& f : config.faults) {
    const bool target = f.target == explorer::kJudgedStale ? judgedStale == path
                        : f.target == explorer::kHeldFile  ? rewritingHeld
                                                           : explorer::targets(f.target, path);
    if (f.call != call || f.at < 0 || t < f.at || !target) continue;
    if (f.skip-- > 0) continue;
    f.at = -1;  // used up
    // A fault of anyone goes to the contender that claims it first.
    const std::string claim = config.root + "/claimed." + std::to_string(f.anyone);
    if (f.anyone >= 0 && mkdir(claim.c_str(), 0755) != 0) continue;
    // A hang or pause that would outlast the schedule is left out.
    if (f.kind != 'f' && t + f.seconds > config.schedule->end - 0.5) return nullptr;
    say("fault", "%c %d %s", f.kind, call, *path != '\0' ? path : "-");
    return &f;
  }
  return nullptr;
}

// Runs one host call with the fault that hits it. `failed` is the call's
// failure value.
template <class Result, class Body>
Result faulted(Call call, const char* path, Result failed, Body body) {
  const Fault* f = fire(call, path);
  if (f != nullptr && f->kind == 'f') {
    errno = f->error;
    return failed;
  }
  if (f != nullptr && f->kind == 's' && !f->afterCall) sleepFor(f->seconds);
  const Result result = body();
  const int error = errno;
  if (f != nullptr && f->kind != 's') sleepFor(f->seconds);
  if (f != nullptr && f->kind == 's' && f->afterCall) sleepFor(f->seconds);
  errno = error;
  return result;
}

// ---- Observation ----
//
// What the oracle needs from inside the library is read here, from the
// host calls on lock files (names starting ".deploy_"), and nowhere else:
//   - "w START PATH NUMBER": a write of NUMBER reached PATH; START is when
//     the write call began, which is no earlier than the start the library
//     counts its lease from. The holder's lease ends 14 s after the last one.
//   - "rm PATH NUMBER": PATH was removed while it held NUMBER.
//   - "take PATH NUMBER": a file holding another's NUMBER was written over.
//   - "late PATH": an act (write or removal) on a lock file landed more than
//     a second after the same thread read a lock file (its own number read
//     back, or the file it judged) and did nothing else in between: a hit in
//     the known window between the check of a judgement and its act, which a
//     stalled request (a hung mount) stretches.
// A number is "own" once this process has written it anywhere.

constexpr double kLateSeconds = 1.0;

constexpr double kNever = 1e300;

struct Opened {
  std::string path;
  bool lockFile;
  int previous;  // the number it held when opened for writing, or -1
  // When the open that made the file began, until its first write: the
  // file was there from then on, and the maker's lease counts from then.
  double made;
};

std::mutex observedMutex;
std::map<int, Opened> opened;           // guarded by observedMutex
std::map<int, double> ownNumbers;       // -> its write's start; guarded by observedMutex
thread_local double readBackAt = -1.0;  // the open window's start, or -1

bool isLockFile(const char* path) {
  const char* slash = strrchr(path, '/');
  return strncmp(slash != nullptr ? slash + 1 : path, ".deploy_", 8) == 0;
}

int numberIn(const char* text, size_t size) {
  char copy[32];
  const size_t n = std::min(size, sizeof copy - 1);
  memcpy(copy, text, n);
  copy[n] = '\0';
  int value = -1;
  return sscanf(copy, "%d", &value) == 1 ? value : -1;
}

int numberOf(const char* path) {
  const int fd = hostDefaultOpen(path, O_RDONLY | O_NONBLOCK, 0);
  if (fd < 0) return -1;
  char text[32];
  const ssize_t n = hostDefaultPread(fd, text, sizeof text, 0);
  hostDefaultClose(fd);
  return n > 0 ? numberIn(text, static_cast<size_t>(n)) : -1;
}

// The path fd was opened with, for any file this process opened.
std::string pathOf(int fd) {
  std::lock_guard<std::mutex> lock(observedMutex);
  auto found = opened.find(fd);
  return found != opened.end() ? found->second.path : std::string();
}

// Called before and after an act: a request that hangs before it reaches
// the server lands late too.
void actOn(const char* path) {
  if (readBackAt >= 0 && now() - readBackAt > kLateSeconds) {
    say("late", "%s", path);
    readBackAt = -1;
  }
}

// A write of size bytes from text, begun at start, went through fd.
void wrote(int fd, const void* text, size_t size, double start) {
  std::lock_guard<std::mutex> lock(observedMutex);
  auto found = opened.find(fd);
  if (found == opened.end() || !found->second.lockFile) return;
  Opened& o = found->second;
  const int number = numberIn(static_cast<const char*>(text), size);
  if (o.previous >= 0 && ownNumbers.count(o.previous) == 0) {
    say("take", "%s %d", o.path.c_str(), o.previous);
  }
  o.previous = -1;
  start = std::min(start, o.made);
  o.made = kNever;
  ownNumbers[number] = start;
  say("w", "%.4f %s %d", start, o.path.c_str(), number);
}

}  // namespace

// ---- The host calls ----

extern "C" double hostMonotonic() {
  return now();
}

extern "C" double hostRealtime() {
  return wallClock(now());
}

// Sleeps last at least this many host seconds, a millisecond of real time
// at the default scale: polling faster only burns the cores the other
// contenders need. Fixed in host time, so that a schedule runs the same at
// any scale.
constexpr double kShortestSleep = 0.2;

extern "C" void hostSleepMilliseconds(unsigned ms) {
  readBackAt = -1;
  judgedStale.clear();
  sleepFor(std::max(ms / 1000.0, kShortestSleep));
}

extern "C" double hostRealSeconds(double seconds) {
  return seconds / config.scale;
}

extern "C" int hostOpen(const char* path, int flags, unsigned mode) {
  const bool lockFile = isLockFile(path);
  const bool writes = (flags & O_ACCMODE) != O_RDONLY;
  if (!writes || (flags & O_CREAT) != 0) readBackAt = -1;
  const int previous = lockFile && writes && (flags & O_CREAT) == 0 ? numberOf(path) : -1;
  const bool creates = (flags & (O_CREAT | O_EXCL)) == (O_CREAT | O_EXCL);
  const double start = now();
  // Stamped at once, before a late answer: the server has the file by then.
  const int fd = faulted(explorer::kOpen, path, -1, [&] {
    const int made = hostDefaultOpen(path, flags, mode);
    if (made >= 0 && ((flags & O_TRUNC) != 0 || creates)) {
      stamp(made);
    }
    return made;
  });
  if (fd < 0) return fd;
  std::lock_guard<std::mutex> lock(observedMutex);
  opened[fd] = Opened{path, lockFile, previous, creates ? start : kNever};
  return fd;
}

extern "C" int hostClose(int fd) {
  const std::string path = pathOf(fd);
  {
    std::lock_guard<std::mutex> lock(observedMutex);
    opened.erase(fd);
  }
  return faulted(explorer::kClose, path.c_str(), -1, [&] { return hostDefaultClose(fd); });
}

extern "C" ssize_t hostPread(int fd, void* buffer, size_t size, off_t offset) {
  const ssize_t n = faulted(explorer::kPread, pathOf(fd).c_str(), static_cast<ssize_t>(-1),
                            [&] { return hostDefaultPread(fd, buffer, size, offset); });
  std::lock_guard<std::mutex> lock(observedMutex);
  auto found = opened.find(fd);
  if (found == opened.end() || !found->second.lockFile) return n;
  readBackAt = n > 0 ? now() : -1.0;
  return n;
}

namespace {

template <class Body>
ssize_t writeThrough(int fd, const void* buffer, size_t size, Body body) {
  const std::string path = pathOf(fd);
  if (isLockFile(path.c_str())) actOn(path.c_str());
  {
    std::lock_guard<std::mutex> lock(observedMutex);
    auto found = opened.find(fd);
    rewritingHeld = found != opened.end() && ownNumbers.count(found->second.previous) != 0 &&
                    !explorer::targets(explorer::kQueueLevel, path.c_str());
  }
  const double start = now();
  const ssize_t n = faulted(explorer::kWrite, path.c_str(), static_cast<ssize_t>(-1), [&] {
    if (isLockFile(path.c_str())) actOn(path.c_str());
    const ssize_t written = body();
    if (written == static_cast<ssize_t>(size)) stamp(fd);
    return written;
  });
  if (n == static_cast<ssize_t>(size)) wrote(fd, buffer, size, start);
  return n;
}

}  // namespace

extern "C" ssize_t hostWrite(int fd, const void* buffer, size_t size) {
  return writeThrough(fd, buffer, size, [&] { return hostDefaultWrite(fd, buffer, size); });
}

extern "C" ssize_t hostPwrite(int fd, const void* buffer, size_t size, off_t offset) {
  return writeThrough(fd, buffer, size,
                      [&] { return hostDefaultPwrite(fd, buffer, size, offset); });
}

extern "C" int hostFtruncate(int fd, off_t length) {
  const std::string path = pathOf(fd);
  if (isLockFile(path.c_str())) actOn(path.c_str());
  return faulted(explorer::kFtruncate, path.c_str(), -1, [&] {
    const int rc = hostDefaultFtruncate(fd, length);
    if (rc == 0) stamp(fd);
    return rc;
  });
}

namespace {

// A stat (by name or by descriptor) of path: a lock file it shows more than
// 15 s older than the server's clock is a judgement of staleness.
template <class Body>
int statted(const std::string& path, const struct stat* st, Body body) {
  readBackAt = -1;
  const int rc = faulted(explorer::kStat, path.c_str(), -1, body);
  if (rc == 0 && isLockFile(path.c_str()) &&
      serverTime(now()) - static_cast<double>(st->st_mtime) > 15) {
    judgedStale = path;
  }
  return rc;
}

}  // namespace

extern "C" int hostStat(const char* path, struct stat* st) {
  return statted(path, st, [&] { return hostDefaultStat(path, st); });
}

extern "C" int hostLstat(const char* path, struct stat* st) {
  return statted(path, st, [&] { return hostDefaultLstat(path, st); });
}

extern "C" int hostFstat(int fd, struct stat* st) {
  return statted(pathOf(fd), st, [&] { return hostDefaultFstat(fd, st); });
}

// A removal of `gone` under the faults of removals, acting on the lock
// file `acted` (a rename's target, else gone itself); *number is what it
// took away, read after a hang.
template <class Call>
int removal(const char* gone, const char* acted, int* number, Call call) {
  const bool lockFile = isLockFile(acted);
  if (lockFile) actOn(acted);
  return faulted(explorer::kRemove, gone, -1, [&] {
    if (lockFile) {
      actOn(acted);
      *number = numberOf(gone);
    }
    return call();
  });
}

extern "C" int hostUnlink(const char* path) {
  int number = -1;
  const int rc = removal(path, path, &number, [&] { return hostDefaultUnlink(path); });
  if (rc == 0 && isLockFile(path)) say("rm", "%s %d", path, number);
  return rc;
}

// A lock file moved whole: its old name is removed, and the write that
// made its content reached the new name.
extern "C" int hostRenameExclusive(const char* from, const char* to) {
  int number = -1;
  const int rc = removal(from, to, &number, [&] { return hostDefaultRenameExclusive(from, to); });
  if (rc != 0 || !isLockFile(to)) return rc;
  say("rm", "%s %d", from, number);
  std::lock_guard<std::mutex> lock(observedMutex);
  const auto own = ownNumbers.find(number);
  if (own != ownNumbers.end()) {
    say("w", "%.4f %s %d", own->second, to, number);
  } else {
    say("take", "%s %d", to, number);
  }
  return rc;
}

// What a contender's host knows (see Schedule::oneHost).
extern "C" const char* hostLocalStateDirectory() {
  static const std::string dir = [] {
    const std::string made =
        config.root + (config.schedule->oneHost ? "/host" : "/host." + std::to_string(config.id));
    mkdir(made.c_str(), 0755);  // a host's /dev/shm is always there
    return made;
  }();
  return dir.c_str();
}

extern "C" char* hostGetDirList(const char* pattern, int flags) {
  readBackAt = -1;
  return faulted(explorer::kList, pattern, static_cast<char*>(nullptr),
                 [&] { return hostDefaultGetDirList(pattern, flags); });
}

// ---- The contender ----

namespace {

// A directory whose stat failed reads as gone: the lock throws, and the
// contender logs it as an error (errno -1) and goes on.
template <class Call>
bool failSafe(Call call) {
  try {
    return call();
  } catch (const std::exception& e) {
    say("error", "%s", e.what());
    errno = -1;
    return false;
  }
}

// Takes the lock again and again until the schedule ends: a gap, an
// acquisition with a time-out (0, a single attempt, one time in five), a
// hold (calm: 10 to 25 s one time in three, so that a lease can run out
// in it) that looks at lost() every quarter second, a release.
void contend() {
  const explorer::Schedule& schedule = *config.schedule;
  std::mt19937_64 random(schedule.seed * 7919 + static_cast<unsigned>(config.id));
  auto uniform = [&random](double low, double high) {
    return std::uniform_real_distribution<double>(low, high)(random);
  };
  korvel_test::AnyLock lock(config.dir, !schedule.rw, "explorer");
  lock.onLost([] { say("told"); });
  const double end = schedule.end;
  bool victim = config.id == 0;
  for (bool first = true;; first = false) {
    // The others let contender 0 go first.
    if (!(first && victim)) sleepFor(first ? uniform(1.0, 3.0) : uniform(0.0, 2.0));
    const double left = end - 1.0 - now();
    if (left <= 0) break;
    const bool write = victim || uniform(0, 1) < 0.5;
    // Contender 0 waits as long as it takes for the hold it dies in.
    const unsigned long ms =
        victim ? static_cast<unsigned long>(1000 * left)
        : uniform(0, 1) < 0.2
            ? 0
            : static_cast<unsigned long>(1000 * uniform(1.0, std::min(20.0, left)));
    if (!failSafe([&] { return lock.acquire(ms, write); })) {
      say("fail", "%d", errno);
      continue;
    }
    say("acq", "%s", lock.kind());
    const double until =
        std::min(now() + (victim                                 ? schedule.dieAfter
                          : schedule.calm && uniform(0, 1) < 0.3 ? uniform(10, 25)
                                                                 : uniform(0.5, 10)),
                 end - 0.5);
    while (now() < until) {
      sleepFor(0.25);
      if (lock.lost()) {
        say("lost");
        break;
      }
      say("chk");
    }
    if (victim) {
      say("die");
      raise(SIGKILL);
    }
    say("rls");  // the hold ends here, whatever the release does
    const bool released = failSafe([&] { return lock.release(); });
    say("rel", "%d %d", released ? 1 : 0, released ? 0 : errno);
  }
}

}  // namespace

int contenderMain(int argc, char** argv) {
  if (argc != 9) return 64;
  config.dir = argv[2];
  logFd = open(argv[3], O_WRONLY | O_CREAT | O_APPEND | O_TRUNC, 0644);
  config.schedule.reset(new explorer::Schedule(strtoull(argv[4], nullptr, 10), atoi(argv[5]) != 0));
  config.id = atoi(argv[6]);
  config.scale = atof(argv[7]);
  config.epochNs = atoll(argv[8]);
  config.faults = config.schedule->faults.at(static_cast<size_t>(config.id));
  // The steady contender takes none of anyone's faults.
  for (size_t i = 0; config.id != config.schedule->steady && i < config.schedule->anyone.size();
       ++i) {
    config.faults.push_back(config.schedule->anyone[i]);
    config.faults.back().anyone = static_cast<int>(i);
  }
  config.root = argv[3];
  config.root.erase(config.root.rfind('/'));
  // All contenders begin at host time 0, however long each took to start.
  sleepFor(-now());
  say("start");
  contend();
  say("end");
  return 0;
}
