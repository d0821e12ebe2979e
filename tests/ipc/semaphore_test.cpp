// The named semaphore against the real system and the default message
// service. No threads here: children are forked freely.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "korvel/ipc.h"
#include "tests/support/process.h"

namespace {

using korvel_test::captureStderr;
using korvel_test::secondsSince;

// A system name no other run uses; unlinked again by the fixture.
class SemaphoreTest : public ::testing::Test {
 protected:
  std::string uniqueName(const std::string& tag) {
    std::string name = "/korvel_test_" + std::to_string(getpid()) + "_" + tag;
    names_.push_back(name);
    return name;
  }
  ~SemaphoreTest() override {
    for (const std::string& name : names_) sem_unlink(name.c_str());
  }
  static bool systemNameExists(const std::string& name) {
    return access(("/dev/shm/sem." + name.substr(1)).c_str(), F_OK) == 0;
  }

 private:
  std::vector<std::string> names_;
};

TEST_F(SemaphoreTest, NamesAreFormedAndSlashSpellingsMeetInOneSemaphore) {
  EXPECT_EQ(koSemaphoreIPC("jobs/a/b", 0, false).Name(), "/jobs_a_b");
  EXPECT_EQ(koSemaphoreIPC("/x/y", 0, false).Name(), "/x_y");
  EXPECT_EQ(koSemaphoreIPC("/", 0, false).Name(), "/");
  EXPECT_EQ(koSemaphoreIPC("//", 0, false).Name(), "/_");
  EXPECT_EQ(koSemaphoreIPC("", 0, false).Name(), "");

  const std::string base = uniqueName("a_b");  // "/korvel_test_<pid>_a_b"
  koSemaphoreIPC slashed(base.substr(1, base.size() - 5) + "/a/b", 0, false);
  koSemaphoreIPC underscored(base, 0, false);
  ASSERT_EQ(slashed.Name(), base);
  ASSERT_TRUE(slashed.Open());
  ASSERT_TRUE(underscored.Open());
  EXPECT_TRUE(slashed.IsValid());
  ASSERT_TRUE(slashed.TryAcquire());
  EXPECT_TRUE(slashed.OwnsLock());
  EXPECT_FALSE(underscored.TryAcquire());
  EXPECT_EQ(underscored.LastError(), EAGAIN);
  EXPECT_TRUE(slashed.Release());
  EXPECT_FALSE(slashed.OwnsLock());
  EXPECT_TRUE(underscored.TryAcquire());
  EXPECT_TRUE(underscored.Release());
}

TEST_F(SemaphoreTest, EmptyNameNeverOpensAndSaysNothing) {
  const std::string err = captureStderr([] {
    koSemaphoreIPC nameless("", 5, true);
    EXPECT_FALSE(nameless.Open());
    EXPECT_FALSE(nameless.IsValid());
    EXPECT_FALSE(nameless.Acquire(false));
    EXPECT_FALSE(nameless.Acquire(true));
    EXPECT_FALSE(nameless.TryAcquire());
    EXPECT_FALSE(nameless.Release());
    int value = -1;
    EXPECT_FALSE(nameless.GetValue(&value));
    EXPECT_EQ(value, -1);
    EXPECT_EQ(nameless.LastError(), 0);
    EXPECT_FALSE(nameless.OwnsLock());
  });
  EXPECT_EQ(err, "");
}

TEST_F(SemaphoreTest, TakenSemaphoreRefusesTriesAndPastDeadlinesAtOnce) {
  const std::string name = uniqueName("taken");
  koSemaphoreIPC holder(name, 0, false);
  koSemaphoreIPC other(name, 5, false);
  ASSERT_TRUE(holder.Open());
  ASSERT_TRUE(other.Open());
  ASSERT_TRUE(holder.Acquire(false));

  std::string err = captureStderr([&] { EXPECT_FALSE(other.TryAcquire()); });
  EXPECT_EQ(other.LastError(), EAGAIN);
  EXPECT_FALSE(other.WaitTimedOut());
  EXPECT_EQ(err, "") << "a taken semaphore is not a failure worth a message";

  // The time-out is an absolute deadline: 5 s after the epoch is long past.
  const auto start = std::chrono::steady_clock::now();
  err = captureStderr([&] { EXPECT_FALSE(other.Acquire(true)); });
  EXPECT_LT(secondsSince(start), 2.0);
  EXPECT_TRUE(other.WaitTimedOut());
  EXPECT_EQ(err, "Wait on semaphore '" + name + "' timed out after 5 seconds.\n");
  EXPECT_FALSE(other.OwnsLock());

  // A real deadline is waited for.
  other.TimeOut() = static_cast<int>(time(nullptr)) + 2;
  const auto waitStart = std::chrono::steady_clock::now();
  err = captureStderr([&] { EXPECT_FALSE(other.Acquire(true)); });
  EXPECT_GE(secondsSince(waitStart), 0.9);
  EXPECT_TRUE(other.WaitTimedOut());
  EXPECT_EQ(err, "Wait on semaphore '" + name + "' timed out after " +
                     std::to_string(other.TimeOut()) + " seconds.\n");

  EXPECT_TRUE(holder.Release());
  EXPECT_TRUE(other.Acquire(true)) << "a free semaphore is taken whatever the deadline";
  EXPECT_EQ(other.LastError(), 0);
  EXPECT_TRUE(other.Release());
}

TEST_F(SemaphoreTest, ReleasesCountUpWithoutAcquisitions) {
  koSemaphoreIPC sem(uniqueName("count"), 0, false);
  ASSERT_TRUE(sem.Open());
  int value = -1;
  ASSERT_TRUE(sem.GetValue(&value));
  EXPECT_EQ(value, 1) << "created with one";
  ASSERT_TRUE(sem.Acquire(false));
  ASSERT_TRUE(sem.GetValue(&value));
  EXPECT_EQ(value, 0);
  EXPECT_TRUE(sem.Release());
  EXPECT_TRUE(sem.Release());
  ASSERT_TRUE(sem.GetValue(&value));
  EXPECT_EQ(value, 2);
  EXPECT_TRUE(sem.Open()) << "already open";
}

TEST_F(SemaphoreTest, ProcessesExcludeEachOtherThroughOneName) {
  const std::string name = uniqueName("mutex");
  const std::string counterPath = "/tmp/korvel_sem_counter_" + std::to_string(getpid());
  remove(counterPath.c_str());
  int ready[2];
  int go[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(go), 0);
  const int processes = 4;
  const int rounds = 200;
  std::vector<pid_t> pids;
  for (int p = 0; p < processes; ++p) {
    pids.push_back(korvel_test::forkChild([&] {
      close(ready[0]);
      close(go[1]);
      // Everyone opens before anyone may finish: a finished process unlinks
      // the name, and a later opener would get a fresh semaphore.
      koSemaphoreIPC sem(name, 0, false);
      if (!sem.Open()) return 90;
      char byte = 'r';
      if (write(ready[1], &byte, 1) != 1 || read(go[0], &byte, 1) != 0) return 91;
      int overlaps = 0;
      const std::string inside = counterPath + ".inside";
      for (int i = 0; i < rounds; ++i) {
        if (!sem.Acquire(false)) return 92;
        int fd = open(inside.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
        if (fd < 0) ++overlaps;
        int value = 0;
        if (FILE* in = fopen(counterPath.c_str(), "r")) {
          if (fscanf(in, "%d", &value) != 1) value = 0;
          fclose(in);
        }
        usleep(50);
        if (FILE* out = fopen(counterPath.c_str(), "w")) {
          fprintf(out, "%d", value + 1);
          fclose(out);
        }
        if (fd >= 0) {
          close(fd);
          unlink(inside.c_str());
        }
        if (!sem.Release()) return 93;
      }
      return overlaps > 80 ? 80 : overlaps;
    }));
  }
  close(ready[1]);
  close(go[0]);
  char byte;
  for (int p = 0; p < processes; ++p) ASSERT_EQ(read(ready[0], &byte, 1), 1);
  close(go[1]);
  for (pid_t pid : pids) EXPECT_EQ(korvel_test::waitChild(pid), 0);
  close(ready[0]);

  int total = 0;
  if (FILE* in = fopen(counterPath.c_str(), "r")) {
    EXPECT_EQ(fscanf(in, "%d", &total), 1);
    fclose(in);
  }
  EXPECT_EQ(total, processes * rounds) << "an update was lost: two processes were inside";
  remove(counterPath.c_str());
  EXPECT_FALSE(systemNameExists(name)) << "the last process to go unlinked the name";
}

TEST_F(SemaphoreTest, DestructionUnlinksTheNameWhileHoldersKeepTheirSemaphore) {
  const std::string name = uniqueName("unlink");
  koSemaphoreIPC holder(name, 0, false);
  ASSERT_TRUE(holder.Open());
  ASSERT_TRUE(holder.Acquire(false));
  EXPECT_TRUE(systemNameExists(name));
  EXPECT_EQ(korvel_test::runInChild([&] {
              koSemaphoreIPC visitor(name, 0, false);
              if (!visitor.Open()) return 1;
              return visitor.TryAcquire() ? 2 : 0;
            }),
            0);
  EXPECT_FALSE(systemNameExists(name)) << "the visitor's destructor unlinked the name";

  koSemaphoreIPC newcomer(name, 0, false);
  ASSERT_TRUE(newcomer.Open());
  EXPECT_TRUE(newcomer.TryAcquire()) << "a fresh semaphore behind the old name";
  EXPECT_TRUE(holder.Release());
  int value = -1;
  ASSERT_TRUE(holder.GetValue(&value));
  EXPECT_EQ(value, 1) << "the holder still uses its own semaphore";
}

// The formatted text cut to the reporter's buffer, with the newline.
std::string asReported(const std::string& text) {
  return (text.size() > 2046 ? text.substr(0, 2046) : text) + "\n";
}

TEST_F(SemaphoreTest, OverlongNameIsReportedThenRefusedOrShortened) {
  const std::string tag = uniqueName("");
  const std::string given = tag + std::string(5000 - tag.size(), 'n');
  std::string err;
  {
    koSemaphoreIPC sem(given, 0, false);
    ASSERT_EQ(sem.Name().size(), 5000u);
    err = captureStderr([&] { EXPECT_FALSE(sem.Open()); });
    EXPECT_EQ(sem.LastError(), ENAMETOOLONG);
    EXPECT_FALSE(sem.IsValid());
  }
  EXPECT_EQ(err, asReported("Cannot open semaphore '" + given +
                            "'. The name is 5000 characters long. Maximum name length is 4353.") +
                     asReported("Failed to open semaphore '" + given +
                                "'. \n System error: File name too long"));
  EXPECT_EQ(err.size(), 2u * 2047u) << "each message cut to the 2048-byte buffer";

  koSemaphoreIPC shortened(given, 0, true);
  err = captureStderr([&] { EXPECT_TRUE(shortened.Open()); });
  EXPECT_EQ(err, asReported("Cannot open semaphore '" + given +
                            "'. The name is 5000 characters long. Maximum name length is 4353."));
  const std::string kept = shortened.Name();
  EXPECT_LT(kept.size(), 256u);
  EXPECT_EQ(kept[0], '/');
  // Characters go from the front, so the end of the name survives.
  EXPECT_EQ(given.compare(given.size() - (kept.size() - 1), std::string::npos, kept, 1), 0);
  for (size_t drop = 0; drop < 2; ++drop) {  // the name opened may be one longer
    sem_unlink(("/" + given.substr(given.size() - (kept.size() - 1) - drop)).c_str());
  }
}

TEST_F(SemaphoreTest, AnotherUsersSemaphoreIsReportedWhenItCannotBeTakenOver) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to act as two users";
  const std::string name = uniqueName("zombie");
  // Owned by root, usable by nobody else; /dev/shm is sticky, so another
  // user can neither open nor unlink it.
  sem_t* foreign = sem_open(name.c_str(), O_CREAT | O_EXCL, 0600, 1);
  ASSERT_NE(foreign, SEM_FAILED);
  sem_close(foreign);
  std::string err;
  EXPECT_EQ(korvel_test::runInChildCapturing(
                [&] {
                  if (setgid(65534) != 0 || setuid(65534) != 0) return 90;
                  koSemaphoreIPC sem(name, 0, false);
                  if (sem.Open()) return 1;
                  return sem.LastError() == EACCES ? 0 : 2;
                },
                nullptr, &err),
            0);
  EXPECT_EQ(err, "Failed to unlink (delete) zombie semaphore '" + name +
                     "'. \n System error: Permission denied\n"
                     "Failed to open semaphore '" +
                     name + "'. \n System error: Permission denied\n");
  EXPECT_TRUE(systemNameExists(name));
}

}  // namespace
