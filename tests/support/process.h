// Multi-process helpers for tests: run a function in a forked child and
// collect its exit status.
#ifndef KORVEL_TESTS_SUPPORT_PROCESS_H_
#define KORVEL_TESTS_SUPPORT_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace korvel_test {

// Forks; the child runs body and exits with its result (an escaping exception
// gives 99). Returns the child's pid, or -1.
pid_t forkChild(const std::function<int()>& body);

// Waits for pid and returns its exit code, or 128 + signal number when it
// was killed, or -1 when waiting failed.
int waitChild(pid_t pid);

// forkChild + waitChild.
int runInChild(const std::function<int()>& body);

// Runs body in a child with its standard output and standard error captured;
// returns the exit code and stores what was written.
int runInChildCapturing(const std::function<int()>& body, std::string* out, std::string* err);

// Runs body in this process with file descriptor 2 sent to a temporary
// file; returns what was written to it.
std::string captureStderr(const std::function<void()>& body);

// Wall time since start, in seconds (steady clock).
double secondsSince(std::chrono::steady_clock::time_point start);

// Starts program with args in a new process (fork + exec). The environment
// is this process's without any KORVEL_* variable, plus env ("NAME=value").
// Standard output and error go to outPath and errPath when not empty.
// Returns the pid, or -1.
pid_t spawn(const std::string& program, const std::vector<std::string>& args,
            const std::vector<std::string>& env = {}, const std::string& outPath = "",
            const std::string& errPath = "");

}  // namespace korvel_test

#endif  // KORVEL_TESTS_SUPPORT_PROCESS_H_
