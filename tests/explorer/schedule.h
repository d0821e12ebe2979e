// What the explorer and its contenders agree on: the host calls a fault can
// hit, one fault, and the arguments a contender is started with.
//
// Time in a schedule is host time: seconds on the contenders' hostMonotonic(),
// which runs `scale` times faster than CLOCK_MONOTONIC from a common epoch,
// so that all contenders and the runner read the same clock.
#ifndef KORVEL_TESTS_EXPLORER_SCHEDULE_H_
#define KORVEL_TESTS_EXPLORER_SCHEDULE_H_

#include <string>
#include <vector>

namespace explorer {

enum Call { kOpen, kClose, kPread, kWrite, kFtruncate, kStat, kRemove, kList, kCalls };
constexpr const char* kCallNames[kCalls] = {"open",      "close", "pread",  "write",
                                            "ftruncate", "stat",  "remove", "list"};

// Which files a fault is for, by name.
enum Target { kAnyFile, kWriteLock, kReadLock, kLevel0, kQueueLevel, kTempFile, kTargets };
constexpr const char* kTargetNames[kTargets] = {"",
                                                " of the write lock",
                                                " of a read lock",
                                                " of level 0",
                                                " of a queue level",
                                                " of a temp file"};
// Whether path (the file of a call; a pattern for a listing) is target's.
bool targets(int target, const char* path);

// One fault of one contender: it hits the (skip+1)-th call of its kind on
// a file of its target made at or after `at`, on any thread of the contender.
struct Fault {
  char kind = 's';  // 's' the call hangs, 'f' it fails, 'p' the thread pauses after it
  int call = kStat;
  int target = kAnyFile;
  bool afterCall = false;  // a hang: the answer is late (true) or the request (false)
  double at = 0.0;
  int skip = 0;
  double seconds = 0.0;  // of a hang or a pause
  int error = 0;         // of a failure

  std::string encode() const;
  static Fault decode(const std::string& text);
  std::string words() const;
};

// A clock step: from `at` on, the clock reads `delta` seconds more.
struct Step {
  double at;
  double delta;
};

// The sum of the steps made by time t.
double offsetAt(const std::vector<Step>& steps, double t);

}  // namespace explorer

#endif  // KORVEL_TESTS_EXPLORER_SCHEDULE_H_
