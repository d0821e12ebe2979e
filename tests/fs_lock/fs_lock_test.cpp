#include "korvel/fs_lock.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fs_lock/fs_lock_internal.h"
#include "paths/path_string.h"
#include "tests/fs_lock/lock_test_support.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace {

using korvel_test::entries;
using korvel_test::TempDirTest;
using Zentha::System::TimeUnit;
const unsigned long kForever = static_cast<unsigned long>(-1);

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
  std::string lockFile(int level) const { return at(".deploy_lock." + std::to_string(level)); }
};

TEST_F(FsLockTest, IntFilesAndRemovalWithPatience) {
  const std::string f = at("n");
  ASSERT_TRUE(writeIntToFile(f.c_str(), 12345));
  ASSERT_TRUE(writeIntToFile(f.c_str(), -7));
  EXPECT_EQ(korvel_test::readFile(f), "-7") << "truncated, no newline";
  int value = 0;
  EXPECT_TRUE(readIntFromFile(f.c_str(), value));
  EXPECT_EQ(value, -7);
  korvel_test::writeFile(f, "");
  EXPECT_FALSE(readIntFromFile(f.c_str(), value));
  korvel_test::writeFile(f, "text");
  EXPECT_FALSE(readIntFromFile(f.c_str(), value));
  EXPECT_FALSE(readIntFromFile(at("missing").c_str(), value));
  EXPECT_FALSE(writeIntToFile(at("missing/n").c_str(), 1));

  const auto before = std::chrono::steady_clock::now();
  korvel_test::removeCalls = 0;
  EXPECT_FALSE(removeFileWithTenacity(at("missing").c_str()));
  const auto spent = std::chrono::steady_clock::now() - before;
  EXPECT_GE(spent, std::chrono::milliseconds(19));
  EXPECT_GT(korvel_test::removeCalls, 1);
  korvel_test::removeCalls = 0;
  EXPECT_FALSE(removeFileWithTenacity(at("missing").c_str(), 0, hostRealtime() - 10));
  EXPECT_EQ(korvel_test::removeCalls, 1) << "one attempt even with a past deadline";
  EXPECT_TRUE(removeFileWithTenacity(f.c_str(), 0, 0.0));
  EXPECT_FALSE(koFileOrDirExists(f.c_str()));

  // Unbounded: keeps trying until the file can go.
  korvel_test::writeFile(f, "1");
  korvel_test::failUnder(korvel_test::Fault::kRemove, f);
  std::thread unblock([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    korvel_test::failUnder(korvel_test::Fault::kRemove, "");
  });
  EXPECT_TRUE(removeFileWithTenacity(f.c_str(), kForever, 0.0));
  unblock.join();
}

TEST_F(FsLockTest, StaleMeansMoreThanFifteenSecondsOnTheServerClock) {
  const std::string lock = lockFile(0);
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
    older.update(lock.c_str());
    EXPECT_EQ(older.staleFiles.size(), 2u) << "a file still stale is listed again";
    EXPECT_EQ(entries(dir_.path()), std::set<std::string>{".deploy_lock.0"})
        << "no temporary file is left";
    return;
  }
  FAIL() << "the clock kept crossing second boundaries";
}

TEST_F(FsLockTest, StaleTestToleratesVanishedFilesAndRemovesStaleOnes) {
  koStaleLockRemover remover;
  remover.update(lockFile(3).c_str());
  EXPECT_TRUE(remover.staleFiles.empty());
  EXPECT_TRUE(entries(dir_.path()).empty());

  // Found through the walker, removed with tenacity.
  for (int i = 0; i < 3; ++i) {
    korvel_test::writeFile(at(".deploy_read_lock." + std::to_string(i)), "1");
    ASSERT_TRUE(korvel_test::setMtime(at(".deploy_read_lock." + std::to_string(i)),
                                      time(nullptr) - (i == 1 ? 5 : 60)));
  }
  UpdateStaleLockStatus procedure(&remover);
  EXPECT_EQ(koFindMatchingFilesAndDirs((dir_ / ".deploy_read_lock.*").c_str(), procedure,
                                       koIgnoreString(), 0, false),
            3);
  ASSERT_EQ(remover.staleFiles.size(), 2u);
  for (const auto& f : remover.staleFiles) remover.removeStaleFile(f);
  EXPECT_EQ(entries(dir_.path()), std::set<std::string>{".deploy_read_lock.1"});
}

TEST_F(FsLockTest, PathStringNormalisesAndSplits) {
  koPathString path(" /a//b///c \n");
  EXPECT_EQ(path.str(), "/a/b/c");
  path = std::string("\t//x//");
  EXPECT_EQ(path.str(), "/x/");
  EXPECT_EQ(koPathString("/a/b/c").components(), (std::vector<std::string>{"/a", "b", "c"}));
  EXPECT_EQ(koPathString("a/b").components(), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(koPathString("/a/").join("*").str(), "/a/*");
}

TEST_F(FsLockTest, ThreadPoolIsSharedAndDeadlinesAddUp) {
  EXPECT_EQ(koDirectoryLockThreadPool().get(), koDirectoryLockThreadPool().get());
  const double now = hostRealtime();
  EXPECT_NEAR(realtimeDeadline(1500, TimeUnit::sMilliseconds()) - now, 1.5, 0.5);
  EXPECT_NEAR(realtimeDeadline(2, TimeUnit::sSeconds()) - now, 2.0, 0.5);
  boost::xtime x = xtimeDeadline(1999, TimeUnit::sMilliseconds());
  EXPECT_NEAR(static_cast<double>(x.sec), now + 1.0, 1.1) << "whole seconds only";
}

TEST_F(FsLockTest, ReentrantAcquireAndRelease) {
  koDirectoryExclusiveLock lock(dir_.path(), "t");
  EXPECT_FALSE(lock.release(0, TimeUnit::sSeconds())) << "release without acquire";
  ASSERT_TRUE(lock.acquire(0, TimeUnit::sSeconds(), false));
  EXPECT_TRUE(koFileExists(lockFile(0).c_str()));
  ASSERT_TRUE(lock.acquire(kForever, TimeUnit::sSeconds(), false));
  EXPECT_TRUE(lock.release(kForever, TimeUnit::sSeconds()));
  EXPECT_TRUE(koFileExists(lockFile(0).c_str())) << "still held once";
  EXPECT_TRUE(lock.release(1, TimeUnit::sSeconds()));
  EXPECT_TRUE(entries(dir_.path()).empty());
  EXPECT_FALSE(lock.release(1, TimeUnit::sSeconds()));
}

TEST_F(FsLockTest, BusyLockTimesOutAndLeavesNoQueueFile) {
  koDirectoryExclusiveLock holder(dir_.path(), "holder");
  koDirectoryExclusiveLock other(dir_.path(), "other");
  ASSERT_TRUE(holder.acquire(kForever, TimeUnit::sSeconds(), false));
  EXPECT_FALSE(other.acquire(0, TimeUnit::sSeconds(), true));
  EXPECT_EQ(entries(dir_.path()), std::set<std::string>{".deploy_lock.0"});
  const auto before = std::chrono::steady_clock::now();
  EXPECT_FALSE(other.acquire(300, TimeUnit::sMilliseconds(), true));
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(250));
  EXPECT_EQ(entries(dir_.path()), std::set<std::string>{".deploy_lock.0"});

  // Released by another thread while we wait: we get it.
  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    holder.release(kForever, TimeUnit::sSeconds());
  });
  EXPECT_TRUE(other.acquire(10, TimeUnit::sSeconds(), true));
  releaser.join();
  EXPECT_EQ(entries(dir_.path()), std::set<std::string>{".deploy_lock.0"});
  EXPECT_TRUE(other.release(kForever, TimeUnit::sSeconds()));
  EXPECT_TRUE(entries(dir_.path()).empty());
}

TEST_F(FsLockTest, DestroyedHolderLeavesNoLockFile) {
  {
    koDirectoryExclusiveLock lock(dir_.path(), "t");
    ASSERT_TRUE(lock.acquire(kForever, TimeUnit::sSeconds(), false));
    ASSERT_TRUE(lock.acquire(kForever, TimeUnit::sSeconds(), false));
  }
  EXPECT_TRUE(entries(dir_.path()).empty());
}

TEST_F(FsLockTest, MissingDirectoryThrowsWithThePath) {
  const std::string missing = at("gone");
  koDirectoryExclusiveLock lock(missing, "t");
  try {
    lock.acquire(0, TimeUnit::sSeconds(), true);
    FAIL() << "expected koNoSuchDirectory";
  } catch (const koNoSuchDirectory& e) {
    EXPECT_EQ(std::string(e.what()),
              "Tried to obtain a lock on a non-existent directory" + missing);
  }
}

TEST_F(FsLockTest, RefusedCreatesMeanTakenWhateverTheError) {
  // Every exclusive create fails with EPERM: acquisition times out quietly.
  korvel_test::failUnder(korvel_test::Fault::kCreate, dir_.path());
  koDirectoryExclusiveLock lock(dir_.path(), "t");
  EXPECT_FALSE(lock.acquire(0, TimeUnit::sSeconds(), true));
  EXPECT_FALSE(lock.acquire(200, TimeUnit::sMilliseconds(), true));
  EXPECT_TRUE(entries(dir_.path()).empty());
}

TEST_F(FsLockTest, StaleHolderIsTakenOverWithoutWaiting) {
  // A dead holder: its level-0 file was last refreshed 20 s ago.
  korvel_test::writeFile(lockFile(0), "4242");
  ASSERT_TRUE(korvel_test::setMtime(lockFile(0), time(nullptr) - 20));
  koDirectoryExclusiveLock lock(dir_.path(), "waiter");
  const auto before = std::chrono::steady_clock::now();
  ASSERT_TRUE(lock.acquire(5, TimeUnit::sSeconds(), false));
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(3));
  EXPECT_EQ(entries(dir_.path()), std::set<std::string>{".deploy_lock.0"})
      << "the queue file is cleaned up";
  struct stat st;
  ASSERT_EQ(stat(lockFile(0).c_str(), &st), 0);
  EXPECT_GE(st.st_mtime, time(nullptr) - 2) << "level 0 was rewritten by the new holder";
  EXPECT_TRUE(lock.release(kForever, TimeUnit::sSeconds()));
  EXPECT_TRUE(entries(dir_.path()).empty());
}

TEST_F(FsLockTest, UnremovableQueueFileIsReported) {
  // The holder stays; our queue file cannot be removed after the time-out.
  koDirectoryExclusiveLock holder(dir_.path(), "holder");
  ASSERT_TRUE(holder.acquire(kForever, TimeUnit::sSeconds(), true));
  std::string err;
  const std::string dir = dir_.path();
  std::string queueFile = lockFile(1);
  EXPECT_EQ(korvel_test::runInChildCapturing(
                [&] {
                  warningLog.enabled = true;
                  korvel_test::failUnder(korvel_test::Fault::kRemove, queueFile);
                  koDirectoryExclusiveLock waiter(dir, "waiter");
                  return waiter.acquire(0, TimeUnit::sSeconds(), true) ? 1 : 0;
                },
                nullptr, &err),
            0);
  EXPECT_EQ(err, "FS_LOCK: failed to remove " + queueFile + "(768)\n");
  EXPECT_TRUE(holder.release(kForever, TimeUnit::sSeconds()));
}

// ---- Real processes ----

class LockProcessTest : public FsLockTest {
 protected:
  pid_t start(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
              const std::string& out = "", const std::string& err = "") {
    return korvel_test::spawn(KORVEL_LOCK_CHILD, args, env, out, err);
  }
};

TEST_F(LockProcessTest, ProcessesNeverOverlapAndNoUpdateIsLost) {
  const int processes = 4;
  const int rounds = 100;
  std::vector<pid_t> pids;
  for (int i = 0; i < processes; ++i) {
    pids.push_back(start({"count", dir_.path(), std::to_string(rounds)}));
    ASSERT_GT(pids.back(), 0);
  }
  for (pid_t pid : pids) EXPECT_EQ(korvel_test::waitChild(pid), 0) << "overlaps or failures";
  EXPECT_EQ(korvel_test::readFile(at("counter")), std::to_string(processes * rounds));
  EXPECT_EQ(entries(dir_.path()), std::set<std::string>{"counter"});
}

TEST_F(LockProcessTest, KilledHolderIsTakenOver) {
  const std::string out = at("holder.out");
  const std::string locks = at("locks");
  ASSERT_EQ(mkdir(locks.c_str(), 0755), 0);
  pid_t holder = start({"hold", locks}, {}, out);
  ASSERT_GT(holder, 0);
  ASSERT_TRUE(korvel_test::waitForFileText(out, "held\n", 5.0));
  kill(holder, SIGKILL);
  korvel_test::waitChild(holder);

  koDirectoryExclusiveLock waiter(locks, "waiter");
  const auto before = std::chrono::steady_clock::now();
  ASSERT_TRUE(waiter.acquire(40, TimeUnit::sSeconds(), true));
  const auto waited = std::chrono::steady_clock::now() - before;
  EXPECT_GE(waited, std::chrono::seconds(8)) << "a fresh lock must not be broken early";
  EXPECT_EQ(entries(locks), std::set<std::string>{".deploy_lock.0"});
  EXPECT_TRUE(waiter.release(kForever, TimeUnit::sSeconds()));
}

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
    const std::string out = at("out");
    const std::string err = at("err");
    pid_t pid = start({c.mode, at("locked")}, c.env, out, err);
    EXPECT_EQ(korvel_test::waitChild(pid), 0);
    const std::string text = korvel_test::readFile(out);
    if (c.verbose) {
      EXPECT_NE(text.find("Queuing for lock acquire in directory " + at("locked") + "\n"),
                std::string::npos)
          << text;
      EXPECT_NE(text.find("Attempting to create queue file...\nqueue file created at level 0\n"),
                std::string::npos)
          << text;
    } else {
      EXPECT_EQ(text, "") << c.mode;
    }
    EXPECT_EQ(korvel_test::readFile(err), "");
  }
}

}  // namespace
