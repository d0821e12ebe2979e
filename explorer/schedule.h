// A schedule of the fault explorer, made from its seed alone, so that the
// runner and each contender derive the same one.
//
// Times are host times: seconds on the contenders' hostMonotonic(), which
// runs `scale` times faster than CLOCK_MONOTONIC from a common epoch, so that
// all contenders and the runner read one clock.
#ifndef KORVEL_EXPLORER_SCHEDULE_H_
#define KORVEL_EXPLORER_SCHEDULE_H_

#include <string>
#include <vector>

namespace explorer {

// printf into a string (up to 511 characters).
std::string format(const char* text, ...) __attribute__((format(printf, 1, 2)));

enum Call { kOpen, kClose, kPread, kWrite, kFtruncate, kStat, kRemove, kList, kCalls };
// Which files a fault is for, by name; or the file its thread last saw more
// than 15 s older than the server's clock (a judgement of staleness, and the
// act on it: the removal of a read-write lock file, the open that takes a
// level over).
enum Target {
  kAnyFile,
  kWriteLock,
  kReadLock,
  kLevel0,
  kQueueLevel,
  kTempFile,
  kJudgedStale,
  kHeldFile,  // a lock it holds, rewritten (a refresh)
  kTargets
};

// Whether path (the file of a call; a pattern for a listing) is target's.
bool targets(int target, const char* path);

// One fault of one contender: it hits the (skip+1)-th call of its kind on
// a file of its target made at or after `at`, on any thread of the contender.
struct Fault {
  char kind;  // 's' the call hangs, 'f' it fails, 'p' the thread pauses after it
  int call;
  int target;
  bool afterCall;  // a hang: the answer is late (true) or the request (false)
  double at;
  int skip;
  double seconds;  // of a hang or a pause
  int error;       // of a failure
  int anyone;      // -1, or the index of a fault for whichever contender comes first
};

// A clock step: from `at` on, the clock reads `delta` seconds more.
struct Step {
  double at;
  double delta;
};

// CLOCK_MONOTONIC in nanoseconds: the clock the runner and every contender
// share.
long long monotonicNs();

// The sum of the steps made by time t.
double offsetAt(const std::vector<Step>& steps, double t);

struct Signal {
  double at;
  int who;
  int signal;  // SIGSTOP, with SIGCONT `length` later; or SIGKILL
  double length;
};

// The lock (exclusive, or read-write with readers and writers), 3 or 4
// contenders, 40 s, file times from the server's clock or from each client's,
// and the faults. Contender 0 is killed early in its first hold, so that
// every schedule has a dead holder's file to take over. A calm schedule has
// only the faults the lock survives by design: server-stamped file times,
// steps of the clients' wall clocks, pauses shorter than the lease, writes
// answered late, kills.
struct Schedule {
  Schedule(unsigned long long seed, bool calm);
  std::string words() const;

  unsigned long long seed;
  bool calm;
  bool rw;
  int processes;
  double end = 40.0;
  bool clientStamps;
  double dieAfter;  // contender 0's first hold ends in SIGKILL
  std::vector<Step> server;
  std::vector<std::vector<Step>> clock;    // per contender
  std::vector<std::vector<Fault>> faults;  // per contender
  std::vector<Fault> anyone;               // each for the first contender it hits
  std::vector<Signal> signals;
  // The contenders share one host's knowledge (what it saw of lock files,
  // which of its processes hold them), so that a killed holder is known
  // dead at once; otherwise each stands for a host of its own, and only the
  // rules that work across hosts apply.
  bool oneHost;
  int steady;  // the contender spared long faults (see Schedule())
};

}  // namespace explorer

// The contender's main (contender.cpp), for "explorer --contend ...".
int contenderMain(int argc, char** argv);

#endif  // KORVEL_EXPLORER_SCHEDULE_H_
