// Multi-process helpers for tests: children that run a function or a
// program, as this user or as an unprivileged one, with their output
// captured.
#ifndef KORVEL_TESTS_SUPPORT_PROCESS_H_
#define KORVEL_TESTS_SUPPORT_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace korvel_test {

// The user and group runUnprivileged switches to when the test runs as root.
constexpr uid_t kNobody = 65534;

// Forks; the child runs body and exits with its result (an escaping exception
// gives 99). Returns the child's pid, or -1.
pid_t forkChild(const std::function<int()>& body);

// Waits for pid and returns its exit code, or 128 + signal number when it
// was killed, or -1 when waiting failed.
int waitChild(pid_t pid);

// forkChild + waitChild.
int runInChild(const std::function<int()>& body);

// runInChild, as the unprivileged user (kNobody unless told otherwise) when
// the test runs as root, whom permissions do not bind; 90 when the switch
// fails.
int runUnprivileged(const std::function<int()>& body, uid_t user = kNobody);

// Runs body in a child with its standard output and standard error captured;
// returns the exit code and stores what was written (either may be null).
int runInChildCapturing(const std::function<int()>& body, std::string* out, std::string* err);

// Runs body in this process with file descriptor 2 sent to a temporary
// file; returns what was written to it.
std::string captureStderr(const std::function<void()>& body);

// Wall time since start, in seconds (steady clock).
double secondsSince(std::chrono::steady_clock::time_point start);

// Polls condition every 2 ms until it holds (true) or `seconds` have passed
// (false).
bool eventually(const std::function<bool()>& condition, double seconds = 20.0);

// Starts program with args in a new process (fork + exec). The environment
// is this process's without any KORVEL_* variable, plus env ("NAME=value").
// Standard output and error go to outPath and errPath when not empty.
// Returns the pid, or -1.
pid_t spawn(const std::string& program, const std::vector<std::string>& args,
            const std::vector<std::string>& env = {}, const std::string& outPath = "",
            const std::string& errPath = "");

}  // namespace korvel_test

#endif  // KORVEL_TESTS_SUPPORT_PROCESS_H_
