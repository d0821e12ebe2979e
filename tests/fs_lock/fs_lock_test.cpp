// Lock-file primitives, the stale test and the exclusive directory lock.
#include "korvel/fs_lock.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fs_lock/read_write_lock.h"
#include "korvel/paths.h"
#include "tests/fs_lock/lock_test_support.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace {

using korvel_test::entries;
using korvel_test::Fault;
using korvel_test::readFile;
using korvel_test::secondsSince;
using korvel_test::TempDirTest;
using korvel_test::WarningCapture;
using Zentha::System::TimeUnit;
using Verdict = koStaleLockRemover::Verdict;

const Entitled kAlways([] { return true; });

class FsLockTest : public TempDirTest {
 protected:
  ~FsLockTest() override { korvel_test::clearHooks(); }
  std::string level(int n) const { return at(".deploy_lock." + std::to_string(n)); }
  FileState stateOf(const std::string& path) const {
    const OpenLockFile file(path, O_RDONLY);
    return file.state();
  }
};

TEST_F(FsLockTest, LockFilesAreActedOnOnlyAsTheyWereJudged) {
  // Made with its number; taken when something has the name, also when the
  // file system answers EPERM; refused when nothing may be made there.
  const std::string dir = dir_.path();
  const std::string lock = level(0);
  FileState made;
  EXPECT_EQ(createLockFile(dir, lock, 0600, 41, &made), Create::kMade);
  EXPECT_EQ(readFile(lock), "41");
  EXPECT_TRUE(made.sameAs(stateOf(lock)));
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
  korvel_test::clearHooks();
  EXPECT_EQ(entries(dir), std::set<std::string>{".deploy_lock.0"});

  // Rewritten and removed only while it is as judged, and only while the
  // actor is entitled.
  FileState written;
  EXPECT_EQ(Judgement(lock, made).writeOver(100000, kAlways, &written), Act::kDone);
  EXPECT_EQ(Judgement(lock, written).writeOver(7, kAlways, &written), Act::kDone);
  EXPECT_EQ(readFile(lock), "7") << "a shorter number leaves no tail";
  EXPECT_EQ(Judgement(lock, made).writeOver(8, kAlways, &made), Act::kChanged);
  EXPECT_EQ(Judgement(lock, made).remove(kAlways), Act::kChanged);
  EXPECT_EQ(Judgement(lock, written).remove(Entitled([] { return false; })), Act::kNotEntitled);
  EXPECT_EQ(Judgement(lock, written).remove(Entitled([] { return true; }, [] { return false; })),
            Act::kNotEntitled)
      << "the lease is asked again right before the act";
  // The same bytes with another time: rewritten behind the holder's back.
  ASSERT_TRUE(korvel_test::setMtime(lock, time(nullptr) - 100));
  EXPECT_EQ(Judgement(lock, written).writeOver(9, kAlways, &made), Act::kChanged);
  EXPECT_EQ(readFile(lock), "7");
  EXPECT_EQ(Judgement(lock, stateOf(lock)).remove(kAlways), Act::kDone);
  EXPECT_EQ(Judgement(lock, written).writeOver(8, kAlways, &made), Act::kChanged);
  EXPECT_FALSE(koFileOrDirExists(lock.c_str())) << "a lost file is never re-created";

  // Replaced between the check and the write: the write went to a file
  // nobody sees any more.
  const std::string other = at("other");
  ASSERT_EQ(createLockFile(dir, lock, 0600, 10, &made), Create::kMade);
  korvel_test::writeFile(other, "11");
  korvel_test::observeLooks([&](const char* path) {
    if (path == lock) rename(other.c_str(), lock.c_str());
  });
  EXPECT_EQ(Judgement(lock, made).writeOver(12, kAlways, &written), Act::kChanged);
  korvel_test::observeLooks(nullptr);
  EXPECT_EQ(readFile(lock), "11");
  // A link at the name is foreign, even to a number in a file of one's own:
  // nothing is read or written through it.
  ASSERT_EQ(unlink(lock.c_str()), 0);
  korvel_test::writeFile(other, "13");
  ASSERT_EQ(symlink(other.c_str(), lock.c_str()), 0);
  EXPECT_EQ(OpenLockFile(lock, O_RDWR).look(), Look::kForeign);
  EXPECT_EQ(Judgement(lock, stateOf(other)).writeOver(14, kAlways, &written), Act::kChanged);
  EXPECT_EQ(readFile(other), "13");
  ASSERT_EQ(unlink(lock.c_str()), 0);
  ASSERT_EQ(unlink(other.c_str()), 0);

  // Removal with patience: about 20 ms, but one attempt whatever the deadline.
  const auto before = std::chrono::steady_clock::now();
  EXPECT_FALSE(unlinkWithTenacity(at("missing"), Deadline::afterSeconds(0.02)));
  EXPECT_GE(secondsSince(before), 0.019);
  korvel_test::removeCalls = 0;
  EXPECT_FALSE(unlinkWithTenacity(at("missing"), Deadline::afterSeconds(0)));
  EXPECT_EQ(korvel_test::removeCalls, 1);
}

// Files are told apart by the numbers in them, so two processes' numbers
// must not meet: not even those of processes forked one after the other,
// whose ids are close.
TEST_F(FsLockTest, NumbersOfTwoProcessesNeverMeet) {
  std::vector<pid_t> children;
  for (const char* name : {"first", "second"}) {
    children.push_back(korvel_test::forkChild([&] {
      LockNumbers numbers;
      std::string text;
      for (int i = 0; i < 64; ++i) text += std::to_string(numbers.next()) + " ";
      korvel_test::writeFile(at(name), text);
      return 0;
    }));
  }
  for (pid_t child : children) ASSERT_EQ(korvel_test::waitChild(child), 0);
  std::set<std::string> seen;
  for (const char* name : {"first", "second"}) {
    std::istringstream numbers(readFile(at(name)));
    for (std::string n; numbers >> n;) EXPECT_TRUE(seen.insert(n).second) << n << " twice";
  }
  EXPECT_EQ(seen.size(), 128U);
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
  EXPECT_NEAR(Deadline::afterSeconds(5).capped(1).remaining(), 1.0, 0.2);
  EXPECT_NEAR(Deadline::afterSeconds(1).capped(5).remaining(), 1.0, 0.2);
  EXPECT_NEAR(Deadline::after(koForever, TimeUnit::sSeconds()).capped(1).remaining(), 1.0, 0.2);
  EXPECT_EQ(koDirectoryLockThreadPool().get(), koDirectoryLockThreadPool().get());
  koDirectoryExclusiveLock holder(dir_.path(), "h");
  koDirectoryExclusiveLock other(dir_.path(), "o");
  ASSERT_TRUE(holder.acquire(0, TimeUnit::sSeconds(), true));
  const auto before = std::chrono::steady_clock::now();
  EXPECT_FALSE(other.try_lock_for(std::chrono::milliseconds(300)));
  EXPECT_LT(secondsSince(before), 10) << "300 ms, not 300 s";
  std::thread releaser([&] {
    usleep(300000);
    EXPECT_TRUE(holder.release());
  });
  EXPECT_TRUE(other.try_lock_for(std::chrono::milliseconds(3000))) << "3000 ms, not 3";
  releaser.join();
  other.unlock();
}

// A file is stale once this host has seen it unchanged for more than 15 s,
// or when the server's clock says it is more than ten minutes old; never
// by file times alone.
TEST_F(FsLockTest, StaleMeansUnchangedForFifteenSecondsOrLongDead) {
  const std::string lock = level(0);
  korvel_test::writeFile(lock, "1", 300);
  FileState seen;
  {
    koStaleLockRemover judge;
    korvel_test::freezeClock(true);  // the limit met exactly
    EXPECT_EQ(judge.judge(lock, &seen), Verdict::kLive) << "five minutes old, but just seen";
    korvel_test::advanceClock(15.0);
    EXPECT_EQ(judge.judge(lock, &seen), Verdict::kLive) << "exactly 15 s is not more";
    korvel_test::advanceClock(0.001);
    EXPECT_EQ(judge.judge(lock, &seen), Verdict::kStale);
    korvel_test::freezeClock(false);
    korvel_test::writeFile(lock, "2", 300);  // its holder refreshed: watched afresh
    EXPECT_EQ(judge.judge(lock, &seen), Verdict::kLive);
    judge.remember();  // as an attempt that ends without the lock
  }
  // A later attempt on this host goes on from what the earlier one saw.
  korvel_test::advanceClock(15.1);
  {
    koStaleLockRemover judge;
    EXPECT_EQ(judge.judge(lock, &seen), Verdict::kStale);
  }
  // Watched until the last look began: a server that took a second to
  // make the fresh file says nothing of that second.
  {
    korvel_test::writeFile(lock, "3");
    koStaleLockRemover judge;
    EXPECT_EQ(judge.judge(lock, &seen), Verdict::kLive);
    korvel_test::advanceClock(14.5);
    korvel_test::observeOpens([&lock](const char* path, int flags) {
      if ((flags & O_CREAT) != 0 && path != lock) korvel_test::advanceClock(1.0);
    });
    EXPECT_EQ(judge.judge(lock, &seen), Verdict::kLive);
    korvel_test::observeOpens(nullptr);
  }
  {
    // Exactly ten minutes old, by a server that keeps whole seconds: not
    // more. The lock and the fresh file are stamped in the same second.
    korvel_test::stampWholeSeconds(true);
    korvel_test::freezeClock(true);
    timespec now;
    do {
      usleep(10000);
      clock_gettime(CLOCK_REALTIME, &now);
    } while (now.tv_nsec < 50000000 || now.tv_nsec > 500000000);  // clear of the coarse clock
    korvel_test::writeFile(lock, "600", 0);
    ASSERT_TRUE(korvel_test::setMtime(lock, now.tv_sec - 600));
    koStaleLockRemover judge;
    EXPECT_EQ(judge.judge(lock, &seen), Verdict::kLive);
    korvel_test::freezeClock(false);
    korvel_test::stampWholeSeconds(false);
  }
  for (const time_t age : {590, 610}) {
    korvel_test::writeFile(lock, std::to_string(age), age);
    koStaleLockRemover judge;
    EXPECT_EQ(judge.judge(lock, &seen), age > 600 ? Verdict::kStale : Verdict::kLive) << age;
  }
  // Threads judge side by side; each fresh file is their own.
  std::vector<std::thread> testers;
  for (int t = 0; t < 4; ++t) {
    testers.emplace_back([&] {
      koStaleLockRemover judge;
      FileState mine;
      for (int i = 0; i < 25; ++i) EXPECT_EQ(judge.judge(lock, &mine), Verdict::kStale);
    });
  }
  for (std::thread& t : testers) t.join();
  EXPECT_EQ(entries(dir_.path()), std::set<std::string>{".deploy_lock.0"})
      << "no fresh file is left";

  // A vanished file is no error; a stale one that resists is named once,
  // with its owner and what would fix it.
  koStaleLockRemover judge;
  EXPECT_EQ(judge.judge(level(3), &seen), Verdict::kMissing);
  WarningCapture warnings;
  korvel_test::failUnder(Fault::kRemove, lock, EPERM);
  const Judgement stale(lock, stateOf(lock));
  for (int poll = 0; poll < 3; ++poll)
    EXPECT_EQ(judge.removeStaleFile(stale, kAlways), Act::kError);
  EXPECT_EQ(warnings.count("FS_LOCK: cannot remove the stale lock file " + lock + " of user " +
                           std::to_string(getuid()) + ": " + errorText(EPERM) +
                           "; its owner or root can remove it with korvel-lock --clean"),
            1)
      << warnings.text();
  korvel_test::failUnder(Fault::kRemove, "");
  EXPECT_EQ(judge.removeStaleFile(stale, kAlways), Act::kDone);
  EXPECT_TRUE(entries(dir_.path()).empty());
}

TEST_F(FsLockTest, ReentrantAcquireAndRelease) {
  {
    koDirectoryExclusiveLock lock(dir_.path(), "t");
    EXPECT_FALSE(lock.release(0, TimeUnit::sSeconds())) << "release without acquire";
    ASSERT_TRUE(lock.acquire(0, TimeUnit::sSeconds(), false));
    EXPECT_TRUE(koFileExists(level(0).c_str()));
    ASSERT_TRUE(lock.acquire(koForever, TimeUnit::sSeconds(), false));
    EXPECT_TRUE(lock.release());
    EXPECT_TRUE(koFileExists(level(0).c_str())) << "still held once";
    const std::string holders = korvel_test::localStateDirectory() + "/korvel-holders";
    EXPECT_EQ(entries(holders).size(), 1u) << "this host's record of the holding";
    EXPECT_TRUE(lock.release(1, TimeUnit::sSeconds()));
    EXPECT_TRUE(entries(dir_.path()).empty());
    EXPECT_TRUE(entries(holders).empty()) << "and its record gone with it";
    EXPECT_FALSE(lock.release(1, TimeUnit::sSeconds()));
    ASSERT_TRUE(lock.acquire(koForever, TimeUnit::sSeconds(), false));
    ASSERT_TRUE(lock.acquire(koForever, TimeUnit::sSeconds(), false));
  }
  EXPECT_TRUE(entries(dir_.path()).empty()) << "the destructor released both";
}

TEST_F(FsLockTest, BusyLockTimesOutAndRemovesItsQueueFileOrSaysSo) {
  koDirectoryExclusiveLock holder(dir_.path(), "holder");
  koDirectoryExclusiveLock other(dir_.path(), "other");
  ASSERT_TRUE(holder.acquire(koForever, TimeUnit::sSeconds(), false));
  EXPECT_FALSE(other.acquire(0, TimeUnit::sSeconds(), true));
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(entries(dir_.path()), std::set<std::string>{".deploy_lock.0"});
  const auto before = std::chrono::steady_clock::now();
  EXPECT_FALSE(other.acquire(300, TimeUnit::sMilliseconds(), true));
  EXPECT_GE(secondsSince(before), 0.25);
  EXPECT_EQ(errno, ETIMEDOUT) << "kept through the clean-up of the wait";
  EXPECT_EQ(entries(dir_.path()), std::set<std::string>{".deploy_lock.0"});
  // A queue place that cannot be removed is reported.
  WarningCapture warnings;
  korvel_test::failUnder(Fault::kRemove, level(1));
  EXPECT_FALSE(other.acquire(0, TimeUnit::sSeconds(), true));
  EXPECT_EQ(warnings.text(), "FS_LOCK: failed to remove " + level(1) + "(768)\n");
  EXPECT_TRUE(holder.release(koForever, TimeUnit::sSeconds()));
}

// Waiters already queued go first: a newcomer that finds level 0 free and
// a waiter right above it lets the waiter move in, and queues behind it.
TEST_F(FsLockTest, ANewcomerLetsTheWaiterAboveMoveIn) {
  korvel_test::writeFile(level(1), "77");
  int looks = 0;
  korvel_test::observeLooks([&](const char* path) {
    // The waiter steps down while the newcomer looks at it a second time.
    if (path == level(1) && ++looks == 2 && link(path, level(0).c_str()) == 0) unlink(path);
  });
  koDirectoryExclusiveLock newcomer(dir_.path(), "newcomer");
  EXPECT_FALSE(newcomer.acquire(300, TimeUnit::sMilliseconds(), true));
  korvel_test::observeLooks(nullptr);
  EXPECT_EQ(readFile(level(0)), "77");
}

// A waiter is woken when the file in its way moves away, not only when it
// is removed: it is in before a latecomer.
TEST_F(FsLockTest, AWaiterIsWokenWhenTheFileInItsWayMoves) {
  korvel_test::writeFile(level(0), "5");
  korvel_test::waitScale = 0.01;  // a poll lasts a second: only a wake-up is in time
  koDirectoryExclusiveLock waiter(dir_.path(), "waiter");
  std::thread others([&] {
    usleep(100000);
    rename(level(0).c_str(), at("moved").c_str());
    usleep(300000);
    close(open(level(0).c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600));
  });
  EXPECT_TRUE(waiter.acquire(600, TimeUnit::sMilliseconds(), true));
  others.join();
  EXPECT_TRUE(waiter.release());
}

// A dead holder's file is taken over by a single attempt only when it is
// long dead, or when this host already watched it long enough (a cron job's
// next -n run); queue places that killed waiters left are swept.
TEST_F(FsLockTest, DeadHoldersAreTakenOverOnceWatchedLongEnough) {
  for (const time_t age : {30, 700}) {
    SCOPED_TRACE(age);
    korvel_test::clearHooks();
    korvel_test::writeFile(level(0), "4242", age);
    koDirectoryExclusiveLock lock(dir_.path(), "waiter");
    if (age < 600) {
      EXPECT_FALSE(lock.acquire(0, TimeUnit::sSeconds(), false));
      korvel_test::advanceClock(16);
    }
    ASSERT_TRUE(lock.acquire(0, TimeUnit::sSeconds(), false));
    EXPECT_EQ(entries(dir_.path()), std::set<std::string>{".deploy_lock.0"})
        << "the queue file is cleaned up";
    EXPECT_NE(readFile(level(0)), "4242") << "level 0 holds the new holder's number";
    EXPECT_TRUE(lock.release(koForever, TimeUnit::sSeconds()));
    EXPECT_TRUE(entries(dir_.path()).empty());
  }
  for (int n : {1, 2, 4, 5}) {  // past a gap at 3 too
    korvel_test::writeFile(level(n), "7", n == 5 ? 1 : n == 1 ? 30 : 700);
  }
  koDirectoryExclusiveLock lock(dir_.path(), "sweeper");
  ASSERT_TRUE(lock.acquire(0, TimeUnit::sSeconds(), true));
  EXPECT_EQ(entries(dir_.path()),
            (std::set<std::string>{".deploy_lock.0", ".deploy_lock.1", ".deploy_lock.5"}))
      << "the long dead places go; a fresh one stays, one that looks old is watched";
  EXPECT_TRUE(lock.release());
  korvel_test::advanceClock(16);  // the next sweep, more than a period later
  ASSERT_TRUE(lock.acquire(0, TimeUnit::sSeconds(), true));
  EXPECT_EQ(entries(dir_.path()), (std::set<std::string>{".deploy_lock.0", ".deploy_lock.5"}));
  EXPECT_TRUE(lock.release());
}

TEST_F(FsLockTest, NothingHangsSilently) {
  WarningCapture warnings;
  {
    // A full file system: said once, retried, its error kept.
    korvel_test::failUnder(Fault::kCreate, dir_.path(), ENOSPC);
    koDirectoryExclusiveLock lock(dir_.path(), "t");
    EXPECT_FALSE(lock.acquire(300, TimeUnit::sMilliseconds(), false));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(warnings.count("for now: " + errorText(ENOSPC) + "; still trying"), 1)
        << warnings.text();
    // Tried again at least once a second: had soon after the space is back.
    std::thread cleared([] {
      usleep(2900000);
      korvel_test::failUnder(Fault::kCreate, "");
    });
    EXPECT_TRUE(lock.acquire(4200, TimeUnit::sMilliseconds(), false));
    cleared.join();
    EXPECT_TRUE(lock.release());
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
  korvel_test::waitScale = 10;  // the 5 s refresh period passes in 0.5 s
  koDirectoryExclusiveLock lock(dir_.path(), "t");
  ASSERT_TRUE(lock.acquire(koForever, TimeUnit::sSeconds(), false));
  const int before = korvel_test::writesTo(level(0));
  usleep(2250000);
  const int refreshes = korvel_test::writesTo(level(0)) - before;
  EXPECT_GE(refreshes, 3) << "one refresh per 5 s";
  EXPECT_LE(refreshes, 5) << "one refresh per 5 s";
  // Released, the refresh thread lingers a period, then ends; the next
  // acquisition starts it again.
  ASSERT_TRUE(lock.release(koForever, TimeUnit::sSeconds()));
  usleep(1500000);
  ASSERT_TRUE(lock.acquire(koForever, TimeUnit::sSeconds(), false));
  const int again = korvel_test::writesTo(level(0));
  usleep(1200000);
  EXPECT_GE(korvel_test::writesTo(level(0)) - again, 1) << "refreshed after a new start";
  korvel_test::failUnder(Fault::kRemove, level(0), EIO);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(lock.release(900, TimeUnit::sMilliseconds()));
  EXPECT_GE(secondsSince(start), 0.85);
  EXPECT_LT(secondsSince(start), 1.6) << "a release tries for the time it was given";
}

// The lease runs out on the holder's own clock, without any file-system
// call: the loss is told, and the file left alone.
TEST_F(FsLockTest, ALeaseRunsOutOnTheClockAlone) {
  ASSERT_EQ(mkdir(at("timer").c_str(), 0700), 0);
  {
    // First, while the lease timer is idle: a lease that ran out while the
    // timer slept is told at its next look, a second after the holding began.
    koDirectoryExclusiveLock timed(at("timer"), "t");
    std::atomic<int> timedTold{0};
    timed.onLost([&] { ++timedTold; });
    ASSERT_TRUE(timed.acquire(0, TimeUnit::sSeconds(), true));
    usleep(100000);  // the timer has begun its wait
    korvel_test::advanceClock(15);
    EXPECT_TRUE(korvel_test::eventually([&] { return timedTold == 1; }, 1.6));
  }
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
  usleep(200000);
  EXPECT_EQ(told, 1) << "told once, however often the loss is found";

  for (const char* name : {"slow", "refreshed"}) ASSERT_EQ(mkdir(at(name).c_str(), 0700), 0);
  {
    // A create that hung 10 s: the lease runs from its start.
    koDirectoryExclusiveLock slow(at("slow"), "s");
    const std::string file = at("slow/.deploy_lock.0");
    korvel_test::observeOpens([file](const char* path, int flags) {
      if (path == file && (flags & O_CREAT) != 0) korvel_test::advanceClock(10);
    });
    ASSERT_TRUE(slow.acquire(0, TimeUnit::sSeconds(), true));
    korvel_test::observeOpens(nullptr);
    korvel_test::advanceClock(4.5);
    EXPECT_TRUE(slow.lost());
  }
  {
    // Each refresh moves the lease to 14 s from its own start, no further.
    korvel_test::waitScale = 10;  // a refresh every 0.5 s
    koDirectoryExclusiveLock refreshed(at("refreshed"), "r");
    ASSERT_TRUE(refreshed.acquire(0, TimeUnit::sSeconds(), false));
    usleep(1300000);
    korvel_test::advanceClock(14.5);
    EXPECT_TRUE(refreshed.lost());
  }
}

// Handlers run one at a time on one thread; one may destroy, release or
// acquire any lock, also one whose own handler is queued behind it.
TEST_F(FsLockTest, LossHandlersMayTearDownAnyLock) {
  for (const char* name : {"a", "b", "c", "d"}) ASSERT_EQ(mkdir(at(name).c_str(), 0700), 0);
  // A lock held throughout keeps the lease timer waiting (up to a second
  // between looks), so that it does not look while the others are listed.
  koDirectoryExclusiveLock keeper(at("d"), "d");
  ASSERT_TRUE(keeper.acquire(0, TimeUnit::sSeconds(), true));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // its first look
  auto* a = new koDirectoryExclusiveLock(at("a"), "a");
  auto* b = new koDirectoryExclusiveLock(at("b"), "b");
  koDirectoryExclusiveLock c(at("c"), "c");
  std::atomic<int> ran{0};
  a->onLost([&] {
    ++ran;
    delete b;  // its lease ended after a's, so its handler is queued behind this one
    b = nullptr;
    koDirectoryExclusiveLock again(at("c"), "again");
    if (again.acquire(0, TimeUnit::sSeconds(), true) && again.release()) ++ran;
    delete a;  // the handler's own lock
  });
  b->onLost([&] { ran += 100; });
  c.onLost([&] { ++ran; });
  // b is held once before a, so the timer lists it first; its lease still
  // ends after a's.
  ASSERT_TRUE(b->acquire(0, TimeUnit::sSeconds(), true) && b->release());
  ASSERT_TRUE(a->acquire(0, TimeUnit::sSeconds(), true));
  ASSERT_TRUE(b->acquire(0, TimeUnit::sSeconds(), true));
  korvel_test::advanceClock(15);
  EXPECT_TRUE(korvel_test::eventually([&] { return ran == 2; }, 5));
  ASSERT_TRUE(c.acquire(0, TimeUnit::sSeconds(), true));
  korvel_test::advanceClock(15);
  EXPECT_TRUE(korvel_test::eventually([&] { return ran == 3; }, 5)) << "handlers run on";
  EXPECT_EQ(ran, 3) << "a destroyed lock's handler never runs";
}

// A waiter stopped on its way to a dead level 0 (before it judged it, or
// after) while another waiter took over its queue place (and level 0, or
// not yet): it must not write into level 0 when it resumes.
TEST_F(FsLockTest, AWaiterStoppedBeforeATakeoverLeavesLevelZeroAlone) {
  struct Case {
    bool afterJudging;
    const char* level0;  // what the other waiter made of level 0 meanwhile
    double stop;         // seconds: past its lease, or within it (its place alone lost)
  };
  for (const Case& c : {Case{false, "778", 20}, Case{true, "778", 20}, Case{true, "4242", 20},
                        Case{true, "4242", 5}}) {
    SCOPED_TRACE(std::string(c.afterJudging ? "after" : "before") + " judging, level 0 " +
                 c.level0 + ", stopped " + std::to_string(c.stop) + " s");
    korvel_test::clearHooks();
    korvel_test::writeFile(level(0), "4242", 700);
    bool stopped = false;
    auto stop = [&] {
      stopped = true;
      korvel_test::writeFile(level(1), "777");
      if (std::string(c.level0) != "4242") korvel_test::writeFile(level(0), c.level0);
      korvel_test::advanceClock(c.stop);
    };
    // Before: its try at level 0 from level 1. After: the stale test's own
    // fresh file going.
    korvel_test::observeOpens([&](const char* path, int flags) {
      if (!c.afterJudging && !stopped && (flags & O_EXCL) != 0 && level(0) == path) stop();
    });
    korvel_test::observeRemoves([&](const char* path) {
      if (c.afterJudging && !stopped && strstr(path, "/.deploy_") == nullptr) stop();
    });
    koDirectoryExclusiveLock waiter(dir_.path(), "waiter");
    EXPECT_FALSE(waiter.acquire(1, TimeUnit::sSeconds(), true));
    EXPECT_TRUE(stopped);
    EXPECT_EQ(readFile(level(0)), c.level0) << "level 0 was written by a waiter without a place";
    korvel_test::removeTree(dir_.path());
    ASSERT_EQ(mkdir(dir_.path().c_str(), 0700), 0);
  }
}

// Directories a lock cannot use are refused at once: the empty path, one
// too long for the stale test's fresh files; a relative path means what it
// meant when the lock was made; a child made by fork() uses none of its
// parent's locks.
TEST_F(FsLockTest, BadDirectoriesAndForkedChildrenAreRefused) {
  WarningCapture warnings;
  koDirectoryExclusiveLock empty("", "empty");
  EXPECT_FALSE(empty.acquire(koForever, TimeUnit::sSeconds(), true));
  EXPECT_EQ(errno, EINVAL);
  std::string deep = dir_.path();
  while (deep.size() < PATH_MAX - 40) {
    deep += "/" + std::string(std::min<size_t>(200, PATH_MAX - 41 - deep.size()), 'd');
  }
  ASSERT_TRUE(koMkdirP(deep.c_str()));
  koDirectoryExclusiveLock tooLong(deep, "deep");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(tooLong.acquire(koForever, TimeUnit::sSeconds(), true));
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_LT(secondsSince(start), 1.0);
  EXPECT_EQ(warnings.count("is too long for the lock"), 1) << warnings.text();

  char cwd[PATH_MAX];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(dir_.path().c_str()), 0);
  ASSERT_EQ(mkdir("rel", 0700), 0);
  auto* lock = new koDirectoryExclusiveLock("rel", "relative");
  ASSERT_TRUE(lock->acquire(0, TimeUnit::sSeconds(), false));
  ASSERT_EQ(chdir(cwd), 0);
  EXPECT_FALSE(lock->lost());
  EXPECT_EQ(korvel_test::runInChild([&] {
              alarm(5);
              const bool refused = !lock->acquire(0, TimeUnit::sSeconds(), true) &&
                                   errno == EPERM && !lock->release() && errno == EPERM;
              delete lock;  // neither waits for the parent's threads nor removes its file
              return refused ? 0 : 1;
            }),
            0);
  EXPECT_TRUE(koFileExists(at("rel/.deploy_lock.0").c_str()));
  EXPECT_TRUE(lock->release());
  EXPECT_FALSE(lock->lost());
  EXPECT_TRUE(entries(at("rel")).empty());
  delete lock;
}

// ---- Real processes ----

class LockProcessTest : public FsLockTest {
 protected:
  pid_t start(const std::vector<std::string>& args, const std::string& out = "",
              std::vector<std::string> env = {}, const std::string& err = "") {
    env.push_back("KORVEL_TEST_STATE_DIR=" + korvel_test::localStateDirectory());
    return korvel_test::spawn(KORVEL_LOCK_CHILD, args, env, out, err);
  }
};

// On one host the kernel can tell more than the files: a waiter is woken
// when the level below goes, not at its next poll (here made 10 s long),
// and a holder that died is known dead at once (its registration is no
// longer locked). Without such evidence nothing is judged early, without
// notification the poll still serves, and without renames a place moves
// down by a create.
TEST_F(LockProcessTest, OnOneHostTheKernelTellsWhatItKnows) {
  for (const char* how : {"woken", "polling", "woken, created"}) {
    SCOPED_TRACE(how);
    const bool watched = strcmp(how, "polling") != 0;
    korvel_test::clearHooks();
    korvel_test::watchesFail = !watched;
    korvel_test::renamesRefused = strstr(how, "created") != nullptr;
    if (watched) korvel_test::waitScale = 0.001;
    koDirectoryExclusiveLock holder(dir_.path(), "holder");
    koDirectoryExclusiveLock waiter(dir_.path(), "waiter");
    ASSERT_TRUE(holder.acquire(0, TimeUnit::sSeconds(), true));
    std::atomic<bool> taken{false};
    std::thread waiting([&] { taken = waiter.acquire(koForever, TimeUnit::sSeconds(), true); });
    ASSERT_TRUE(korvel_test::eventually([&] { return koFileExists(level(1).c_str()); }, 5));
    usleep(50000);
    EXPECT_TRUE(holder.release());
    EXPECT_TRUE(korvel_test::eventually([&] { return taken.load(); }, 2));
    waiting.join();
    EXPECT_TRUE(waiter.release());
  }
  korvel_test::clearHooks();

  // A holder killed on this host, after a refresh or two: taken over at
  // once.
  const pid_t killed =
      start({"hold", dir_.path(), "excl"}, at("killed.out"), {"KORVEL_TEST_TIME_SCALE=10"});
  ASSERT_TRUE(korvel_test::waitForFileText(at("killed.out"), "held\n", 20));
  usleep(1200000);  // its refreshes come every 0.5 s
  kill(killed, SIGKILL);
  korvel_test::waitChild(killed);
  koDirectoryExclusiveLock waiter(dir_.path(), "waiter");
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(waiter.acquire(5, TimeUnit::sSeconds(), true));
  EXPECT_LT(secondsSince(start), 1.0);
  EXPECT_TRUE(waiter.release());

  // No evidence: a holder not known here, one whose registration speaks of
  // another number, one registered by a user other than the file's owner.
  korvel_test::writeFile(level(0), "4242");
  const FileState dead = stateOf(level(0));
  char identity[64];
  snprintf(identity, sizeof identity, "%lx-%lx", static_cast<unsigned long>(dead.device),
           static_cast<unsigned long>(dead.inode));
  const std::string registration =
      korvel_test::localStateDirectory() + "/korvel-holders/" + identity + "-4242";
  struct Planted {
    const char* number;  // what the registration says; none at all when empty
    uid_t owner;
  };
  const Planted planted[] = {{"", 0}, {"4243", 0}, {"4242", korvel_test::kNobody}};
  for (const Planted& p : planted) {
    if (*p.number != '\0') {
      korvel_test::writeFile(registration, std::string(identity) + " " + p.number + "\n");
      if (p.owner != 0 && (geteuid() != 0 || chown(registration.c_str(), p.owner, p.owner) != 0)) {
        continue;  // as another user only where the test may act as one
      }
    }
    koDirectoryExclusiveLock early(dir_.path(), "early");
    EXPECT_FALSE(early.acquire(0, TimeUnit::sSeconds(), true)) << p.number << " " << p.owner;
  }
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
