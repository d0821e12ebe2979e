// Lock-file primitives, the stale test and the exclusive directory lock.
#include "korvel/fs_lock.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fs_lock/fs_lock_internal.h"
#include "tests/fs_lock/lock_test_support.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace {

using korvel_test::entries;
using korvel_test::Fault;
using korvel_test::readFile;
using korvel_test::TempDirTest;
using korvel_test::WarningCapture;
using Zentha::System::TimeUnit;

// Waits until the clock is early in a second, so that a file written now
// gets the same whole-second time as time() reports.
time_t earlyInSecond() {
  for (;;) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    if (now.tv_usec > 100000 && now.tv_usec < 500000) return now.tv_sec;
    usleep(20000);
  }
}

class FsLockTest : public TempDirTest {
 protected:
  ~FsLockTest() override { korvel_test::clearHooks(); }
  std::string level(int n) const { return at(".deploy_lock." + std::to_string(n)); }
};

TEST_F(FsLockTest, LockFilesKnowTheirOwner) {
  const std::string f = at("n");
  ASSERT_TRUE(writeIntToFile(f.c_str(), 12345));
  ASSERT_TRUE(writeIntToFile(f.c_str(), -7));
  EXPECT_EQ(readFile(f), "-7") << "truncated, no newline";
  int value = 0;
  for (const char* unreadable : {"", "text"}) {
    korvel_test::writeFile(f, unreadable);
    EXPECT_FALSE(readIntFromFile(f.c_str(), value)) << unreadable;
  }

  // Made with its number; taken when it exists, also when the file system
  // answers EPERM; refused when nothing may be made there at all.
  const std::string dir = dir_.path();
  const std::string lock = level(0);
  EXPECT_EQ(createLockFile(dir, lock, 0600, 41), Create::kMade);
  EXPECT_EQ(readFile(lock), "41");
  EXPECT_EQ(createLockFile(dir, lock, 0600, 42), Create::kTaken);
  korvel_test::failUnder(Fault::kCreate, lock);
  EXPECT_EQ(createLockFile(dir, lock, 0600, 42), Create::kTaken);
  korvel_test::failUnder(Fault::kCreate, dir, EACCES);
  EXPECT_EQ(createLockFile(dir, level(1), 0600, 42), Create::kRefused);
  EXPECT_EQ(errno, EACCES);
  korvel_test::failUnder(Fault::kCreate, level(1), ENOSPC);
  EXPECT_EQ(createLockFile(dir, level(1), 0600, 42), Create::kTransient);
  korvel_test::failUnder(Fault::kCreate, level(1), EPERM);
  EXPECT_EQ(createLockFile(dir, level(1), 0600, 42), Create::kTaken)
      << "a writable directory: the winner of a race has gone again";
  EXPECT_EQ(entries(dir), (std::set<std::string>{".deploy_lock.0", "n"}));

  // Rewritten and removed only while it holds our number.
  EXPECT_EQ(rewriteIfOurs(lock, 41, 100000), Owned::kYes);
  EXPECT_EQ(rewriteIfOurs(lock, 100000, 7), Owned::kYes);
  EXPECT_EQ(readFile(lock), "7") << "a shorter number leaves no tail";
  EXPECT_EQ(rewriteIfOurs(lock, 41, 8), Owned::kLost);
  EXPECT_EQ(removeIfOurs(lock, 41), Owned::kLost);
  EXPECT_EQ(readFile(lock), "7");
  EXPECT_EQ(removeIfOurs(lock, 7), Owned::kYes);
  EXPECT_EQ(rewriteIfOurs(lock, 7, 8), Owned::kLost);
  EXPECT_FALSE(koFileOrDirExists(lock.c_str())) << "a lost file is never re-created";

  // Removal with patience: about 20 ms, but one attempt whatever the deadline.
  const auto before = std::chrono::steady_clock::now();
  EXPECT_FALSE(removeFileWithTenacity(at("missing").c_str()));
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(19));
  korvel_test::removeCalls = 0;
  EXPECT_FALSE(removeFileWithTenacity(at("missing").c_str(), Deadline::afterSeconds(0)));
  EXPECT_EQ(korvel_test::removeCalls, 1);
}

TEST_F(FsLockTest, TimeOutsSaturateAndKeepTheirMilliseconds) {
  EXPECT_TRUE(Deadline::after(koForever, TimeUnit::sSeconds()).infinite());
  EXPECT_TRUE(Deadline::after(LONG_MAX, TimeUnit::sMilliseconds()).infinite());
  EXPECT_TRUE(Deadline::after(koForever - 1, TimeUnit::sMilliseconds()).infinite());
  EXPECT_TRUE(Deadline::after(koForever / 10, TimeUnit::sSeconds()).infinite()) << "wraps in ms";
  const Deadline soon = Deadline::after(1500, TimeUnit::sMilliseconds());
  EXPECT_FALSE(soon.infinite());
  EXPECT_NEAR(soon.remaining(), 1.5, 0.2);
  EXPECT_NEAR(Deadline::after(2, TimeUnit::sSeconds()).remaining(), 2.0, 0.2);
  EXPECT_TRUE(Deadline::after(0, TimeUnit::sSeconds()).passed());
  EXPECT_EQ(koDirectoryLockThreadPool().get(), koDirectoryLockThreadPool().get());
}

TEST_F(FsLockTest, StaleMeansMoreThanFifteenSecondsOnTheServerClock) {
  // The file server's clock is an hour behind this host's: only the two
  // server times may be compared.
  korvel_test::skewServerClock(dir_.path(), -3600);
  const std::string lock = level(0);
  korvel_test::writeFile(lock, "1");
  for (int attempt = 0; attempt < 5; ++attempt) {
    const time_t now = earlyInSecond();
    koStaleLockRemover exactly;
    ASSERT_TRUE(korvel_test::setMtime(lock, now - 15));
    exactly.update(lock.c_str());
    koStaleLockRemover older;
    ASSERT_TRUE(korvel_test::setMtime(lock, now - 16));
    older.update(lock.c_str());
    if (time(nullptr) != now) continue;  // crossed a second: try again
    EXPECT_TRUE(exactly.staleFiles.empty());
    EXPECT_EQ(older.staleFiles, std::vector<std::string>{lock});
    break;
  }
  // Threads test side by side; each temporary file is their own.
  std::vector<std::thread> testers;
  for (int t = 0; t < 4; ++t) {
    testers.emplace_back([&] {
      koStaleLockRemover remover;
      for (int i = 0; i < 25; ++i) remover.update(lock.c_str());
      EXPECT_EQ(remover.staleFiles.size(), 25u);
    });
  }
  for (std::thread& t : testers) t.join();
  EXPECT_EQ(entries(dir_.path()), std::set<std::string>{".deploy_lock.0"})
      << "no temporary file is left";

  // A vanished file is no error; a stale one that resists is named once.
  koStaleLockRemover remover;
  remover.update(level(3).c_str());
  EXPECT_TRUE(remover.staleFiles.empty());
  WarningCapture warnings;
  korvel_test::failUnder(Fault::kRemove, lock, EACCES);
  for (int poll = 0; poll < 3; ++poll) remover.removeStaleFile(lock);
  EXPECT_EQ(warnings.text(),
            "FS_LOCK: cannot remove the stale lock file " + lock + ": " + errorText(EACCES) + "\n");
  korvel_test::failUnder(Fault::kRemove, "");
  remover.removeStaleFile(lock);
  EXPECT_TRUE(entries(dir_.path()).empty());
}

TEST_F(FsLockTest, ReentrantAcquireAndRelease) {
  {
    koDirectoryExclusiveLock lock(dir_.path(), "t");
    EXPECT_FALSE(lock.release(0, TimeUnit::sSeconds())) << "release without acquire";
    ASSERT_TRUE(lock.acquire(0, TimeUnit::sSeconds(), false));
    EXPECT_TRUE(koFileExists(level(0).c_str()));
    ASSERT_TRUE(lock.acquire(koForever, TimeUnit::sSeconds(), false));
    EXPECT_TRUE(lock.release(koForever, TimeUnit::sSeconds()));
    EXPECT_TRUE(koFileExists(level(0).c_str())) << "still held once";
    EXPECT_TRUE(lock.release(1, TimeUnit::sSeconds()));
    EXPECT_TRUE(entries(dir_.path()).empty());
    EXPECT_FALSE(lock.release(1, TimeUnit::sSeconds()));
    ASSERT_TRUE(lock.acquire(koForever, TimeUnit::sSeconds(), false));
    ASSERT_TRUE(lock.acquire(koForever, TimeUnit::sSeconds(), false));
  }
  EXPECT_TRUE(entries(dir_.path()).empty()) << "the destructor released both";
}

TEST_F(FsLockTest, BusyLockTimesOutAndLeavesNoQueueFile) {
  koDirectoryExclusiveLock holder(dir_.path(), "holder");
  koDirectoryExclusiveLock other(dir_.path(), "other");
  ASSERT_TRUE(holder.acquire(koForever, TimeUnit::sSeconds(), false));
  EXPECT_FALSE(other.acquire(0, TimeUnit::sSeconds(), true));
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(entries(dir_.path()), std::set<std::string>{".deploy_lock.0"});
  const auto before = std::chrono::steady_clock::now();
  EXPECT_FALSE(other.acquire(300, TimeUnit::sMilliseconds(), true));
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(250));
  EXPECT_EQ(entries(dir_.path()), std::set<std::string>{".deploy_lock.0"});
}

TEST_F(FsLockTest, StaleHolderIsTakenOverEvenByASingleAttempt) {
  // A dead holder: its level-0 file was last refreshed 20 s ago.
  korvel_test::writeFile(level(0), "4242");
  ASSERT_TRUE(korvel_test::setMtime(level(0), time(nullptr) - 20));
  koDirectoryExclusiveLock lock(dir_.path(), "waiter");
  ASSERT_TRUE(lock.acquire(0, TimeUnit::sSeconds(), false));
  EXPECT_EQ(entries(dir_.path()), std::set<std::string>{".deploy_lock.0"})
      << "the queue file is cleaned up";
  EXPECT_NE(readFile(level(0)), "4242") << "level 0 holds the new holder's number";
  EXPECT_TRUE(lock.release(koForever, TimeUnit::sSeconds()));
  EXPECT_TRUE(entries(dir_.path()).empty());
}

TEST_F(FsLockTest, NothingHangsSilently) {
  WarningCapture warnings;
  {
    // A full file system: said once, retried, its error kept.
    korvel_test::failUnder(Fault::kCreate, dir_.path(), ENOSPC);
    koDirectoryExclusiveLock lock(dir_.path(), "t");
    EXPECT_FALSE(lock.acquire(300, TimeUnit::sMilliseconds(), false));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(warnings.count("for now: " + errorText(ENOSPC)), 1) << warnings.text();
  }
  {
    // Nothing can be made in the directory: even a wait without end ends.
    korvel_test::failUnder(Fault::kCreate, dir_.path(), EACCES);
    koDirectoryExclusiveLock lock(dir_.path(), "t");
    EXPECT_FALSE(lock.acquire(koForever, TimeUnit::sSeconds(), false));
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(warnings.count("FS_LOCK: cannot create " + level(0) + ": " + errorText(EACCES)), 1);
    korvel_test::failUnder(Fault::kCreate, "");
  }
  {
    // A holder whose refreshes all fail keeps trying, with back-off.
    koDirectoryExclusiveLock lock(dir_.path(), "t");
    ASSERT_TRUE(lock.acquire(koForever, TimeUnit::sSeconds(), false));
    korvel_test::failUnder(Fault::kWrite, level(0));
    const int before = korvel_test::writesTo(level(0));
    EXPECT_TRUE(korvel_test::eventually(
        [&] { return warnings.count("Failed to refresh lock!") == 1; }, 10));
    EXPECT_GT(korvel_test::writesTo(level(0)), before);
    EXPECT_LT(korvel_test::writesTo(level(0)), before + 20) << "retried without pause";
    // Then it cannot remove its file either: the destructor gives up.
    korvel_test::failUnder(Fault::kRemove, level(0), EACCES);
  }
  EXPECT_EQ(warnings.count("FS_LOCK: cannot remove " + level(0)), 1) << warnings.text();
}

// The locks keep their own times, whatever the loop context's public wait
// does with amounts under a second: a refresh every 5 s, a deadline of
// 900 ms kept to the millisecond.
TEST_F(FsLockTest, RefreshesComeEveryFiveSecondsAndDeadlinesKeepTheirMilliseconds) {
  korvel_test::scaleWaits(10);  // the 5 s refresh period passes in 0.5 s
  koDirectoryExclusiveLock lock(dir_.path(), "t");
  ASSERT_TRUE(lock.acquire(koForever, TimeUnit::sSeconds(), false));
  const int before = korvel_test::writesTo(level(0));
  usleep(2250000);
  const int refreshes = korvel_test::writesTo(level(0)) - before;
  EXPECT_GE(refreshes, 3) << "one refresh per 5 s";
  EXPECT_LE(refreshes, 5) << "one refresh per 5 s";
  korvel_test::failUnder(Fault::kRemove, level(0), EIO);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(lock.release(900, TimeUnit::sMilliseconds()));
  EXPECT_GE(korvel_test::secondsSince(start), 0.85);
  EXPECT_LT(korvel_test::secondsSince(start), 1.6) << "a release tries for the time it was given";
}

// The lease runs out on the holder's own clock, without any file-system
// call: the loss is told, and the file left alone.
TEST_F(FsLockTest, ALeaseRunsOutOnTheClockAlone) {
  koDirectoryExclusiveLock lock(dir_.path(), "t");
  std::atomic<int> told{0};
  lock.onLost([&] { ++told; });
  ASSERT_TRUE(lock.acquire(0, TimeUnit::sSeconds(), true));
  korvel_test::advanceClock(12);
  usleep(1500000);  // the lease timer looks at least once a second
  EXPECT_FALSE(lock.lost());
  korvel_test::advanceClock(1);  // 14.5 s: lost within the timer's second
  EXPECT_TRUE(korvel_test::eventually([&] { return told == 1; }, 1.3));
  EXPECT_TRUE(lock.lost());
  EXPECT_FALSE(lock.acquire(0, TimeUnit::sSeconds(), true)) << "nested on a lost lock";
  EXPECT_FALSE(lock.release(koForever, TimeUnit::sSeconds()));
  EXPECT_EQ(errno, ENOLCK);
  EXPECT_TRUE(koFileExists(level(0).c_str()));
}

// A waiter stopped on its way to a stale level 0 (before it judged it, or
// after) while another waiter took over its queue place and level 0: it
// must not overwrite the new holder's file when it resumes.
TEST_F(FsLockTest, AWaiterStoppedBeforeATakeoverLeavesTheNewHolderAlone) {
  for (bool afterJudging : {false, true}) {
    SCOPED_TRACE(afterJudging ? "stopped after judging level 0" : "stopped before");
    korvel_test::clearHooks();
    korvel_test::writeFile(level(0), "4242");
    ASSERT_TRUE(korvel_test::setMtime(level(0), time(nullptr) - 30));
    bool stopped = false;
    auto stop = [&] {
      stopped = true;
      korvel_test::writeFile(level(1), "777");
      korvel_test::writeFile(level(0), "778");
      korvel_test::advanceClock(20);
    };
    // Before: its try at level 0 from level 1. After: the stale test's own
    // fresh file going.
    korvel_test::observeOpens([&](const char* path, int flags) {
      if (!afterJudging && !stopped && (flags & O_EXCL) != 0 && level(0) == path) stop();
    });
    korvel_test::observeRemoves([&](const char* path) {
      if (afterJudging && !stopped && strstr(path, "/.deploy_") == nullptr) stop();
    });
    koDirectoryExclusiveLock waiter(dir_.path(), "waiter");
    EXPECT_FALSE(waiter.acquire(1, TimeUnit::sSeconds(), true));
    EXPECT_TRUE(stopped);
    EXPECT_EQ(readFile(level(0)), "778") << "the new holder's file was overwritten";
    korvel_test::removeTree(dir_.path());
    ASSERT_EQ(mkdir(dir_.path().c_str(), 0700), 0);
  }
}

// A child made by fork() that destroys its copy of a held lock neither
// waits for the parent's refresh thread nor removes the parent's file.
TEST_F(FsLockTest, AForkedChildLeavesItsParentsLockAlone) {
  auto* lock = new koDirectoryExclusiveLock(dir_.path(), "t");
  ASSERT_TRUE(lock->acquire(0, TimeUnit::sSeconds(), false));
  EXPECT_EQ(korvel_test::runInChild([&] {
              alarm(5);
              delete lock;
              return 0;
            }),
            0);
  EXPECT_TRUE(koFileExists(level(0).c_str()));
  EXPECT_TRUE(lock->release(koForever, TimeUnit::sSeconds()));
  delete lock;
}

TEST_F(FsLockTest, UnremovableQueueFileIsReported) {
  koDirectoryExclusiveLock holder(dir_.path(), "holder");
  ASSERT_TRUE(holder.acquire(koForever, TimeUnit::sSeconds(), true));
  WarningCapture warnings;
  korvel_test::failUnder(Fault::kRemove, level(1));
  koDirectoryExclusiveLock waiter(dir_.path(), "waiter");
  EXPECT_FALSE(waiter.acquire(0, TimeUnit::sSeconds(), true));
  EXPECT_EQ(warnings.text(), "FS_LOCK: failed to remove " + level(1) + "(768)\n");
  EXPECT_TRUE(holder.release(koForever, TimeUnit::sSeconds()));
}

// ---- Real processes ----

class LockProcessTest : public FsLockTest {
 protected:
  pid_t start(const std::vector<std::string>& args, const std::string& out = "",
              const std::vector<std::string>& env = {}, const std::string& err = "") {
    return korvel_test::spawn(KORVEL_LOCK_CHILD, args, env, out, err);
  }
  // A child holding dir's lock of kind, once it says so.
  pid_t holder(const std::string& dir, const std::string& kind, const std::string& out) {
    const pid_t pid = start({"hold", dir, kind}, out);
    EXPECT_TRUE(korvel_test::waitForFileText(out, "held\n", 20)) << kind;
    return pid;
  }
  int tryLock(const std::string& dir, const std::string& kind, int ms) {
    return korvel_test::waitChild(start({"try", dir, kind, std::to_string(ms)}));
  }
};

TEST_F(LockProcessTest, DiagnosticsFollowTheEnvironmentAtLoad) {
  struct Case {
    std::vector<std::string> env;
    std::string mode;
    bool verbose;
  };
  const Case cases[] = {{{}, "once", false},
                        {{"KORVEL_FSLOCK_WARNING=1"}, "once", false},
                        {{"KORVEL_FSLOCK_VERBOSE="}, "once", true},
                        {{}, "late", false}};
  ASSERT_EQ(mkdir(at("locked").c_str(), 0755), 0);
  for (const Case& c : cases) {
    const pid_t pid = start({c.mode, at("locked")}, at("out"), c.env, at("err"));
    EXPECT_EQ(korvel_test::waitChild(pid), 0);
    const std::string verbose = "Queuing for lock acquire in directory " + at("locked") +
                                "\nAttempting to create queue file...\nqueue file created at "
                                "level 0\n";
    EXPECT_EQ(readFile(at("out")), c.verbose ? verbose : "") << c.mode;
    EXPECT_EQ(readFile(at("err")), "");
  }
}

}  // namespace
