#include "explorer/schedule.h"

#include <signal.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <random>

namespace explorer {

std::string format(const char* text, ...) {
  char line[512];
  va_list args;
  va_start(args, text);
  vsnprintf(line, sizeof line, text, args);
  va_end(args);
  return line;
}

namespace {

const char* const kCallNames[kCalls] = {"open",      "close", "pread",  "write",
                                        "ftruncate", "stat",  "remove", "list"};
const char* const kTargetNames[kTargets] = {"",
                                            " of the write lock",
                                            " of a read lock",
                                            " of level 0",
                                            " of a queue level",
                                            " of a temp file",
                                            " of a file it judged stale",
                                            " of a lock it holds"};

// One line of a schedule in words.
std::string line(const std::string& text) {
  return "  " + text + "\n";
}

// "p1: its 2nd stat ...", or for a fault of anyone "whoever comes first: ...".
std::string words(const std::string& who, const Fault& f) {
  static const char* const ordinal[] = {"first", "2nd", "3rd", "4th"};
  const char* w = who.c_str();
  const char* call = kCallNames[f.call];
  const char* file = kTargetNames[f.target];
  if (f.kind == 'f') {
    return line(format("%s: its %s %s%s from %.1f s fails with %s", w, ordinal[f.skip], call, file,
                       f.at, strerrorname_np(f.error)));
  }
  if (f.kind == 's') {
    return line(format("%s: its %s %s%s from %.1f s hangs %.1f s (%s)", w, ordinal[f.skip], call,
                       file, f.at, f.seconds,
                       f.afterCall ? "the answer is late" : "before it reaches the server"));
  }
  return line(format("%s: the thread making its %s %s%s from %.1f s pauses %.1f s after it", w,
                     ordinal[f.skip], call, file, f.at, f.seconds));
}

}  // namespace

bool targets(int target, const char* path) {
  const char* slash = strrchr(path, '/');
  const char* name = slash != nullptr ? slash + 1 : path;
  switch (target) {
    case kWriteLock:
      return strcmp(name, ".deploy_write_lock") == 0;
    case kReadLock:
      return strncmp(name, ".deploy_read_lock.", 18) == 0;
    case kLevel0:
      return strcmp(name, ".deploy_lock.0") == 0;
    case kQueueLevel:
      return strncmp(name, ".deploy_lock.", 13) == 0 && strcmp(name + 13, "0") != 0;
    case kTempFile:
      return name[0] == '.' && name[1] >= '0' && name[1] <= '9';
    case kJudgedStale:
    case kHeldFile:
      return false;  // decided by the contender, which knows
    default:
      return true;
  }
}

long long monotonicNs() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec * 1000000000LL + t.tv_nsec;
}

double offsetAt(const std::vector<Step>& steps, double t) {
  double sum = 0.0;
  for (const Step& s : steps) sum += s.at <= t ? s.delta : 0.0;
  return sum;
}

Schedule::Schedule(unsigned long long s, bool c) : seed(s), calm(c) {
  std::mt19937_64 random(s);
  auto uniform = [&random](double low, double high) {
    return std::uniform_real_distribution<double>(low, high)(random);
  };
  auto chance = [&uniform](double p) { return uniform(0, 1) < p; };
  auto pick = [&random](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
  auto sign = [&chance] { return chance(0.5) ? 1 : -1; };
  static const int kExclusiveTargets[] = {kLevel0, kQueueLevel, kTempFile};
  static const int kReadWriteTargets[] = {kWriteLock, kReadLock, kLevel0, kTempFile};
  static const int kErrors[] = {EIO, ENOSPC, ESTALE, EINTR};
  rw = chance(0.5);
  processes = 3 + pick(2);
  clientStamps = !calm && chance(0.2);
  dieAfter = uniform(0.5, 4.0);
  if (!calm && chance(0.3)) server.push_back({uniform(2, end - 6), sign() * uniform(1, 40)});
  clock.resize(processes);
  faults.resize(processes);
  for (int p = 0; p < processes; ++p) {
    if (clientStamps && chance(0.5)) clock[p].push_back({0, sign() * uniform(1, 200)});
    if (chance(0.15)) clock[p].push_back({uniform(2, end - 6), sign() * uniform(1, 200)});
    for (int n = pick(calm ? 3 : 4); n > 0; --n) {
      Fault f;
      const double kind = uniform(0, 1);
      f.kind = calm ? 'p' : kind < 0.45 ? 's' : kind < 0.75 ? 'f' : 'p';
      f.call = chance(0.3) ? kStat : pick(kCalls);  // the stale test's own call
      // Half of them for one kind of file of this lock.
      f.target = f.call != kList && chance(0.5)
                     ? rw ? kReadWriteTargets[pick(4)] : kExclusiveTargets[pick(3)]
                     : kAnyFile;
      f.afterCall = chance(0.5);
      // Calm: the answer to a write comes late, the write itself is made.
      if (calm && chance(0.4)) f.kind = 's', f.call = kWrite, f.afterCall = true;
      // Half of them around 16 s, when contender 0's file, written in its
      // first second, first looks stale: where the takeovers are.
      f.at = chance(0.5) ? uniform(15.5, 17) : uniform(0, end - 2);
      f.skip = pick(4);
      f.seconds = f.kind == 's' ? uniform(calm ? 5 : 16, 21) : uniform(0.2, calm ? 10 : 20);
      f.error = kErrors[pick(4)];
      f.anyone = -1;
      faults[p].push_back(f);
    }
    // Calm: a refresh answered late, so that a lease runs out in a hold.
    if (calm && chance(0.5)) {
      faults[p].push_back(
          {'s', kWrite, kHeldFile, true, uniform(6, 30), pick(2), uniform(9.5, 21), 0, -1});
    }
  }
  // The act on a judgement of staleness (the removal of a read-write lock
  // file, the open that takes a level over) delayed in whichever contender
  // makes the first one: the time from judgement to act, made long.
  if (!calm && chance(0.3)) {
    anyone.push_back({chance(0.6) ? 's' : 'p', rw ? kRemove : kOpen, kJudgedStale, false,
                      uniform(10, 17), 0, uniform(16, 21), 0, 0});
  }
  if (!calm && chance(0.3)) {
    const double at = uniform(1, 20);
    signals.push_back(
        {at, 1 + pick(processes - 1), SIGSTOP, uniform(1, std::min(20.0, end - 1 - at))});
  }
  if (chance(0.15)) signals.push_back({uniform(1, end - 2), 1 + pick(processes - 1), SIGKILL, 0});
  oneHost = chance(0.25);  // drawn last: the draws above keep their seeds
  // One survivor is steady, so that every schedule sees contender 0's file
  // taken over: it is never stopped, killed or hung, pauses briefly, and
  // takes none of anyone's faults.
  steady = 1 + pick(processes - 1);
  std::vector<Fault>& mild = faults[steady];
  mild.erase(std::remove_if(mild.begin(), mild.end(), [](const Fault& f) { return f.kind == 's'; }),
             mild.end());
  for (Fault& f : mild) f.seconds = std::min(f.seconds, 3.0);
  signals.erase(std::remove_if(signals.begin(), signals.end(),
                               [this](const Signal& sig) { return sig.who == steady; }),
                signals.end());
}

std::string Schedule::words() const {
  char head[256];
  snprintf(head, sizeof head,
           "seed %llu: %s lock, %d contenders %s for %.0f s, file times from %s\n", seed,
           rw ? "read-write" : "exclusive", processes,
           oneHost ? "on one host" : "on hosts of their own", end,
           clientStamps ? "each client's wall clock" : "the server's clock");
  std::string out = head;
  out += line(format("p0 takes the lock%s first and is killed %.1f s into that hold",
                     rw ? " for writing" : "", dieAfter));
  out += line(format("p%d is steady: never hung, stopped or killed, its pauses short", steady));
  for (const Step& s : server)
    out += line(format("the server's clock steps %+.1f s at %.1f s", s.delta, s.at));
  for (int p = 0; p < processes; ++p) {
    for (const Step& s : clock[p]) {
      out += line(format("p%d's wall clock steps %+.1f s at %.1f s", p, s.delta, s.at));
    }
    for (const Fault& f : faults[p]) out += explorer::words("p" + std::to_string(p), f);
  }
  for (const Fault& f : anyone) out += explorer::words("whoever comes first", f);
  for (const Signal& s : signals) {
    out +=
        s.signal == SIGSTOP
            ? line(format("p%d is stopped (SIGSTOP) at %.1f s for %.1f s", s.who, s.at, s.length))
            : line(format("p%d is killed (SIGKILL) at %.1f s", s.who, s.at));
  }
  return out;
}

}  // namespace explorer
