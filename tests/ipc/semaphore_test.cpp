// The named semaphore against the real system and the default message
// service. No threads here: children are forked freely.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "korvel/ipc.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace {

using korvel_test::captureStderr;
using korvel_test::readFile;
struct SemaphoreTest : korvel_test::TempDirTest {};

// A system name no other run uses.
std::string uniqueName(const std::string& tag) {
  return "/korvel_test_" + std::to_string(getpid()) + "_" + tag;
}

bool systemNameExists(const std::string& name) {
  return access(("/dev/shm/sem." + name.substr(1)).c_str(), F_OK) == 0;
}

TEST(Semaphore, NamesAreFormedAndSlashSpellingsMeetInOneSemaphore) {
  const std::pair<std::string, std::string> names[] = {
      {"jobs/a/b", "/jobs_a_b"}, {"/x/y", "/x_y"}, {"/", "/"}, {"//", "/_"}, {"", ""}};
  for (const auto& [given, system] : names)
    EXPECT_EQ(koSemaphoreIPC(given, 0, false).Name(), system);

  const std::string base = uniqueName("a_b");  // "/korvel_test_<pid>_a_b"
  koSemaphoreIPC slashed(base.substr(1, base.size() - 5) + "/a/b", 0, false),
      underscored(base, 0, false);
  ASSERT_TRUE(slashed.Open() && underscored.Open() && slashed.TryAcquire());
  EXPECT_FALSE(underscored.TryAcquire()) << "one semaphore";
  EXPECT_TRUE(slashed.Release() && !slashed.OwnsLock());
  EXPECT_TRUE(underscored.TryAcquire());

  const std::string err = captureStderr([] {
    koSemaphoreIPC nameless("", 5, true);
    int value = -1;
    EXPECT_FALSE(nameless.Open() || nameless.IsValid() || nameless.Acquire(false) ||
                 nameless.Acquire(true) || nameless.TryAcquire() || nameless.Release() ||
                 nameless.GetValue(&value));
    EXPECT_EQ(value + nameless.LastError(), -1);
  });
  EXPECT_EQ(err, "") << "an empty name never opens, and says nothing";
}

TEST(Semaphore, DeadlinesAreAbsoluteAndReleasesCountUp) {
  const std::string name = uniqueName("taken");
  koSemaphoreIPC holder(name, 0, false), other(name, 5, false);
  ASSERT_TRUE(holder.Open() && other.Open());
  int value = -1;
  EXPECT_TRUE(holder.GetValue(&value) && value == 1) << "created with one";
  ASSERT_TRUE(holder.Acquire(false));
  EXPECT_TRUE(holder.GetValue(&value) && value == 0);

  EXPECT_EQ(captureStderr([&] { EXPECT_FALSE(other.TryAcquire()); }), "")
      << "a taken semaphore is not a failure worth a message";
  EXPECT_EQ(other.LastError(), EAGAIN);
  // The time-out is an absolute deadline: 5 s after the epoch is long past.
  const auto start = std::chrono::steady_clock::now();
  const std::string err = captureStderr([&] { EXPECT_FALSE(other.Acquire(true)); });
  EXPECT_LT(korvel_test::secondsSince(start), 2.0);
  EXPECT_TRUE(other.WaitTimedOut());
  EXPECT_EQ(err, "Wait on semaphore '" + name + "' timed out after 5 seconds.\n");

  EXPECT_TRUE(holder.Release());
  EXPECT_TRUE(other.Acquire(true)) << "a free semaphore is taken whatever the deadline";
  EXPECT_EQ(other.LastError(), 0);
  EXPECT_TRUE(other.Release() && other.Release()) << "a release without an acquire counts too";
  EXPECT_TRUE(holder.GetValue(&value) && value == 2);
}

TEST_F(SemaphoreTest, ProcessesExcludeEachOtherAndTheLastNameGoesWithThem) {
  const std::string name = uniqueName("mutex");
  const std::string counter = at("counter");
  korvel_test::writeFile(counter, "0");
  // Held until every child has opened the name: a finished child unlinks
  // it, and a later opener would get a fresh semaphore.
  koSemaphoreIPC gate(name, 0, false);
  ASSERT_TRUE(gate.Open() && gate.Acquire(false));
  int opened[2];
  ASSERT_EQ(pipe(opened), 0);
  const int processes = 4, rounds = 200;
  std::vector<pid_t> pids;
  for (int p = 0; p < processes; ++p) {
    pids.push_back(korvel_test::forkChild([&] {
      koSemaphoreIPC sem(name, 0, false);
      if (!sem.Open() || write(opened[1], "o", 1) != 1) return 90;
      for (int i = 0; i < rounds; ++i) {
        if (!sem.Acquire(false)) return 92;
        // Inside alone: a read-modify-write of the counter loses nothing.
        const int value = std::stoi(readFile(counter));
        usleep(50);
        korvel_test::writeFile(counter, std::to_string(value + 1));
        if (!sem.Release()) return 93;
      }
      return 0;
    }));
  }
  char byte;
  for (int p = 0; p < processes; ++p) ASSERT_EQ(read(opened[0], &byte, 1), 1);
  ASSERT_TRUE(gate.Release());
  for (pid_t pid : pids) EXPECT_EQ(korvel_test::waitChild(pid), 0);
  EXPECT_EQ(readFile(counter), std::to_string(processes * rounds));
  close(opened[0]);
  close(opened[1]);

  // The children unlinked the name as they went; the gate keeps their
  // semaphore, and a newcomer gets a fresh one.
  EXPECT_FALSE(systemNameExists(name));
  ASSERT_TRUE(gate.TryAcquire());
  koSemaphoreIPC newcomer(name, 0, false);
  ASSERT_TRUE(newcomer.Open());
  EXPECT_TRUE(newcomer.TryAcquire());
}

TEST(Semaphore, OverlongNameIsReportedThenRefusedOrShortened) {
  const std::string tag = uniqueName("");
  const std::string given = tag + std::string(5000 - tag.size(), 'n');
  // Each message is cut to the reporter's 2048-byte buffer, newline included.
  const std::string tooLong = ("Cannot open semaphore '" + given +
                               "'. The name is 5000 characters long. Maximum name length is 4353.")
                                  .substr(0, 2046) +
                              "\n";
  // At the limit, no word of it: the system's refusal alone.
  koSemaphoreIPC atLimit(given.substr(0, 4353), 0, false);
  EXPECT_EQ(captureStderr([&] { EXPECT_FALSE(atLimit.Open()); }).find("Cannot open semaphore"),
            std::string::npos);
  koSemaphoreIPC refused(given, 0, false);
  std::string err = captureStderr([&] { EXPECT_FALSE(refused.Open()); });
  EXPECT_EQ(refused.LastError(), ENAMETOOLONG);
  EXPECT_EQ(err, tooLong + ("Failed to open semaphore '" + given).substr(0, 2046) + "\n");

  // With shortening asked for, the name loses characters until the system
  // takes it; only the first message remains.
  koSemaphoreIPC shortened(given, 0, true);
  err = captureStderr([&] { EXPECT_TRUE(shortened.Open()); });
  EXPECT_EQ(err, tooLong);
  EXPECT_LT(shortened.Name().size(), 256u);
  EXPECT_TRUE(systemNameExists(shortened.Name())) << "the name kept is the name opened";
}

}  // namespace
