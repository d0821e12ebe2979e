// The read-write directory lock, in one process and between processes.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "fs_lock/fs_lock_internal.h"
#include "korvel/fs_lock.h"
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
using ReadLock = koDirectoryReadWriteLock::ReadLock;
using WriteLock = koDirectoryReadWriteLock::WriteLock;

const char kWriteLock[] = ".deploy_write_lock";
const char kReadLockPrefix[] = ".deploy_read_lock.";

bool loopRunning(const koDirectoryReadWriteLock& rw) {
  koDirectoryReadWriteLock::ScopedLock lock(rw.getImpl()->getMutex());
  return rw.getImpl()->refreshLoopRunning();
}

class RwLockTest : public TempDirTest {
 protected:
  ~RwLockTest() override { korvel_test::clearHooks(); }

  std::vector<std::string> readLockFiles(const std::string& dir) const {
    std::vector<std::string> names;
    for (const std::string& name : entries(dir)) {
      if (name.compare(0, strlen(kReadLockPrefix), kReadLockPrefix) == 0) names.push_back(name);
    }
    return names;
  }
  std::vector<std::string> readLockFiles() const { return readLockFiles(dir_.path()); }
  bool writeLockFileExists() const { return access(at(kWriteLock).c_str(), F_OK) == 0; }
};

TEST_F(RwLockTest, HandlesCountShareAndBlockEachOther) {
  koDirectoryReadWriteLock rw(dir_.path());
  ReadLock first = rw.getReadLock();
  ReadLock second = rw.getReadLock();
  ASSERT_TRUE(first.acquire(koForever, TimeUnit::sSeconds()));
  ASSERT_TRUE(second.acquire(koForever, TimeUnit::sSeconds(), true));
  const std::vector<std::string> files = readLockFiles();
  ASSERT_EQ(files.size(), 2u) << "one file per held read lock";
  for (const std::string& file : files) {
    EXPECT_EQ(readFile(at(file)).find_first_not_of("0123456789"), std::string::npos);
  }
  // Own readers block this process's writers.
  WriteLock writing = rw.getWriteLock();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(writing.acquire(300, TimeUnit::sMilliseconds()));
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_GE(secondsSince(start), 0.25) << "kept polling until the deadline";
  // A writer of this process that waits does not hold up the readers'
  // releases, on other threads.
  std::thread waiter([&] { EXPECT_TRUE(writing.acquire(koForever, TimeUnit::sSeconds())); });
  usleep(200000);
  EXPECT_TRUE(first.release(koForever, TimeUnit::sSeconds()));
  EXPECT_FALSE(loopRunning(rw)) << "only a file without refresh is left";
  EXPECT_TRUE(second.release(koForever, TimeUnit::sSeconds()));
  waiter.join();
  EXPECT_TRUE(writing.release(koForever, TimeUnit::sSeconds()));
  ASSERT_TRUE(second.acquire(koForever, TimeUnit::sSeconds(), true));
  EXPECT_TRUE(second.release(koForever, TimeUnit::sSeconds()));
  EXPECT_TRUE(entries(dir_.path()).empty()) << "no lock file and no directory-lock file left";

  // Copies share one count; nested acquisitions need as many releases.
  WriteLock copy = writing;
  EXPECT_FALSE(copy.release(koForever, TimeUnit::sSeconds())) << "nothing to release";
  ASSERT_TRUE(writing.acquire(koForever, TimeUnit::sSeconds()));
  EXPECT_TRUE(copy.isAcquired());
  ASSERT_TRUE(copy.acquire(0, TimeUnit::sSeconds())) << "nested: no file work, no waiting";
  EXPECT_FALSE(first.acquire(300, TimeUnit::sMilliseconds()));
  EXPECT_FALSE(rw.getWriteLock().acquire(300, TimeUnit::sMilliseconds()))
      << "one write lock per directory and process, whatever the handle";
  EXPECT_TRUE(writing.release(koForever, TimeUnit::sSeconds()));
  EXPECT_TRUE(writeLockFileExists()) << "one acquisition is still counted";
  EXPECT_TRUE(copy.release(koForever, TimeUnit::sSeconds()));
  EXPECT_FALSE(writeLockFileExists());

  // The last copy of a held handle frees its file.
  {
    ReadLock reading = rw.getReadLock();
    ASSERT_TRUE(reading.acquire(koForever, TimeUnit::sSeconds()));
    ReadLock other = reading;
  }
  EXPECT_TRUE(entries(dir_.path()).empty());
  EXPECT_FALSE(loopRunning(rw));
}

TEST_F(RwLockTest, DowngradeHandsOverWithoutAGap) {
  koDirectoryReadWriteLock rw(dir_.path());
  WriteLock writing = rw.getWriteLock();
  ASSERT_TRUE(writing.acquire(koForever, TimeUnit::sSeconds()));
  ASSERT_TRUE(writing.acquire(koForever, TimeUnit::sSeconds()));

  // When the write-lock file goes, a read-lock file must already be there.
  const std::string writeLockPath = at(kWriteLock);
  int writeLockRemovals = 0;
  bool readLockPresent = false;
  korvel_test::observeRemoves([&](const char* path) {
    if (writeLockPath != path) return;
    ++writeLockRemovals;
    readLockPresent = !readLockFiles().empty();
  });
  ReadLock reading = writing.downgrade(koForever, TimeUnit::sSeconds());
  korvel_test::observeRemoves(nullptr);
  EXPECT_EQ(writeLockRemovals, 1);
  EXPECT_TRUE(readLockPresent);
  EXPECT_FALSE(writing.isAcquired());
  EXPECT_FALSE(writeLockFileExists());
  EXPECT_EQ(readLockFiles().size(), 1u);
  EXPECT_TRUE(loopRunning(rw)) << "the read lock is refreshed as the write lock was";
  EXPECT_TRUE(reading.release(koForever, TimeUnit::sSeconds()));
  EXPECT_EQ(readLockFiles().size(), 1u) << "acquired twice as a writer, so held twice";
  EXPECT_TRUE(reading.release(koForever, TimeUnit::sSeconds()));
  EXPECT_TRUE(entries(dir_.path()).empty());
  EXPECT_FALSE(loopRunning(rw));
  EXPECT_FALSE(writing.downgrade(koForever, TimeUnit::sSeconds()).isAcquired())
      << "a handle that is not held downgrades to nothing";
}

// Every held file that asks for refresh is rewritten, also while another
// thread of the process waits for the lock; a file without refresh never is.
TEST_F(RwLockTest, HeldFilesAreRewrittenAndNothingStarvesTheRefresh) {
  for (const char* name : {"x", "w", "r"}) ASSERT_EQ(mkdir(at(name).c_str(), 0755), 0);
  koDirectoryExclusiveLock exclusive(at("x"), "x");
  ASSERT_TRUE(exclusive.acquire(koForever, TimeUnit::sSeconds(), false));
  koDirectoryReadWriteLock w(at("w"));
  WriteLock writing = w.getWriteLock();
  ASSERT_TRUE(writing.acquire(koForever, TimeUnit::sSeconds()));
  koDirectoryReadWriteLock r(at("r"));
  ReadLock quiet = r.getReadLock();
  ASSERT_TRUE(quiet.acquire(koForever, TimeUnit::sSeconds(), true));
  const std::string quietFile = at("r/") + readLockFiles(at("r"))[0];
  ReadLock reading = r.getReadLock();
  ASSERT_TRUE(reading.acquire(koForever, TimeUnit::sSeconds()));
  std::string readFileName;
  for (const std::string& name : readLockFiles(at("r"))) {
    if (at("r/") + name != quietFile) readFileName = at("r/") + name;
  }
  // A writer of the same process waits on the read locks.
  std::thread waiter([&] { EXPECT_FALSE(r.getWriteLock().acquire(7, TimeUnit::sSeconds())); });
  // And a holder whose file is taken over finds out at its next refresh.
  ASSERT_EQ(mkdir(at("t").c_str(), 0755), 0);
  koDirectoryExclusiveLock overtaken(at("t"), "old");
  std::atomic<int> told{0};
  overtaken.onLost([&] { ++told; });
  ASSERT_TRUE(overtaken.acquire(koForever, TimeUnit::sSeconds(), false));
  ASSERT_TRUE(korvel_test::setMtime(at("t/.deploy_lock.0"), time(nullptr) - 30));
  koDirectoryExclusiveLock taker(at("t"), "new");
  ASSERT_TRUE(taker.acquire(0, TimeUnit::sSeconds(), true));

  const std::string files[] = {at("x/.deploy_lock.0"), at("w/") + kWriteLock, readFileName};
  std::string before[3];
  for (int i = 0; i < 3; ++i) before[i] = readFile(files[i]);
  const std::string quietBefore = readFile(quietFile);
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(korvel_test::eventually([&] { return readFile(files[i]) != before[i]; }, 8))
        << files[i] << " never refreshed";
  }
  waiter.join();
  EXPECT_EQ(readFile(quietFile), quietBefore) << "a lock taken without refresh was rewritten";
  EXPECT_TRUE(korvel_test::eventually([&] { return told == 1; }, 2));
  EXPECT_TRUE(overtaken.lost());
  EXPECT_FALSE(overtaken.release(koForever, TimeUnit::sSeconds()));
  EXPECT_TRUE(taker.release(koForever, TimeUnit::sSeconds())) << "its file was left alone";
  EXPECT_EQ(told, 1);

  // With nothing left to refresh, the loop stops: no more directory locks.
  ReadLock downgraded = writing.downgrade(koForever, TimeUnit::sSeconds());
  EXPECT_TRUE(downgraded.release(koForever, TimeUnit::sSeconds()));
  EXPECT_FALSE(loopRunning(w));
  int dirLocks = 0;
  korvel_test::observeOpens([&](const char* path, int flags) {
    dirLocks += (flags & O_EXCL) != 0 && strstr(path, "/w/.deploy_lock.") != nullptr;
  });
  usleep(5500000);
  korvel_test::observeOpens(nullptr);
  EXPECT_EQ(dirLocks, 0);
}

TEST_F(RwLockTest, MissingAndUnusableDirectoriesAreReportedWhereTheyMatter) {
  const std::string missing = at("missing");
  {
    koDirectoryReadWriteLock rw(missing);
    try {
      rw.getReadLock().acquire(koForever, TimeUnit::sSeconds());
      ADD_FAILURE() << "no exception";
    } catch (const koNoSuchDirectory& e) {
      EXPECT_STREQ(e.what(),
                   ("Tried to obtain a lock on a non-existent directory" + missing).c_str());
    }
  }
  // A directory whose lock-file names are too long ends even a finite wait
  // at once; a writer that cannot list the directory is refused.
  std::string deep = dir_.path();
  while (deep.size() < 4078)
    deep += "/" + std::string(std::min<size_t>(200, 4077 - deep.size()), 'd');
  ASSERT_TRUE(koMkdirP(deep.c_str()));
  koDirectoryReadWriteLock tooLong(deep);
  WarningCapture warnings;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(tooLong.getWriteLock().acquire(koForever, TimeUnit::sSeconds()));
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_LT(secondsSince(start), 1.0);
  korvel_test::failUnder(Fault::kList, at(""), EACCES);
  koDirectoryReadWriteLock unlistable(dir_.path());
  EXPECT_FALSE(unlistable.getWriteLock().acquire(koForever, TimeUnit::sSeconds()));
  EXPECT_EQ(errno, EACCES);
  // Nor does a reader enter when the write lock's file cannot be looked at.
  korvel_test::failUnder(Fault::kStat, at(kWriteLock), EIO);
  EXPECT_FALSE(unlistable.getReadLock().acquire(koForever, TimeUnit::sSeconds()));
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(warnings.count("FS_LOCK: cannot"), 3) << warnings.text();

  // The directory vanishes under a held write lock: release reports it.
  korvel_test::clearHooks();
  ASSERT_EQ(mkdir(missing.c_str(), 0755), 0);
  koDirectoryReadWriteLock rw(missing);
  WriteLock writing = rw.getWriteLock();
  ASSERT_TRUE(writing.acquire(koForever, TimeUnit::sSeconds()));
  korvel_test::removeTree(missing);
  EXPECT_THROW(writing.release(koForever, TimeUnit::sSeconds()), koNoSuchDirectory);
  EXPECT_FALSE(loopRunning(rw));
}

// This process was stopped (its clock jumps) while it made its lock file:
// the directory lock may have been taken over meanwhile, so the file is
// taken back rather than held.
TEST_F(RwLockTest, NoLockFileIsKeptFromUnderALostDirectoryLock) {
  korvel_test::observeOpens([&](const char* path, int flags) {
    if ((flags & O_EXCL) != 0 && at(kWriteLock) == path) korvel_test::advanceClock(20);
  });
  koDirectoryReadWriteLock rw(dir_.path());
  WriteLock writing = rw.getWriteLock();
  EXPECT_FALSE(writing.acquire(1, TimeUnit::sSeconds()));
  EXPECT_FALSE(writeLockFileExists());
}

TEST_F(RwLockTest, UnremovableLockFileIsReportedAndLeftToGoStale) {
  koDirectoryReadWriteLock rw(dir_.path());
  WriteLock writing = rw.getWriteLock();
  ReadLock reading = rw.getReadLock();
  koDirectoryReadWriteLock::AbstractLock* locks[] = {&writing, &reading};
  const char* callSites[] = {"(1570)\n", "(1523)\n"};
  for (int i = 0; i < 2; ++i) {
    WarningCapture warnings;
    ASSERT_TRUE(locks[i]->acquire(koForever, TimeUnit::sSeconds()));
    const std::string file = at(*entries(dir_.path()).begin());
    korvel_test::failUnder(Fault::kRemove, file);
    EXPECT_TRUE(locks[i]->release(koForever, TimeUnit::sSeconds()));
    EXPECT_EQ(warnings.text(), "FS_LOCK: failed to remove " + file + callSites[i]);
    EXPECT_TRUE(koFileExists(file.c_str()));
    EXPECT_FALSE(locks[i]->isAcquired());
    korvel_test::clearHooks();
    ASSERT_EQ(unlink(file.c_str()), 0);
  }
  EXPECT_FALSE(loopRunning(rw));
}

// ---- Real processes ----

class RwProcessTest : public RwLockTest {
 protected:
  pid_t start(const std::vector<std::string>& args, const std::string& out = "") {
    return korvel_test::spawn(KORVEL_LOCK_CHILD, args, {}, out);
  }
  int tryLock(const std::string& dir, const std::string& kind, int ms) {
    return korvel_test::waitChild(start({"try", dir, kind, std::to_string(ms)}));
  }
  pid_t holder(const std::string& dir, const std::string& kind, const std::string& out) {
    pid_t pid = start({"hold", dir, kind}, out);
    EXPECT_TRUE(korvel_test::waitForFileText(out, "held\n", 20)) << kind << " lock not taken";
    return pid;
  }
};

// Readers are seen whatever the directory is called.
TEST_F(RwProcessTest, ReadersShareTheDirectoryAndKeepWritersOut) {
  const std::string dir = at("a*b?c");
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  std::vector<pid_t> readers;
  for (int i = 0; i < 3; ++i) readers.push_back(holder(dir, "read", at(std::to_string(i))));
  EXPECT_EQ(readLockFiles(dir).size(), 3u) << "three processes hold read locks at once";
  EXPECT_EQ(tryLock(dir, "write", 500), 1) << "a writer got in beside readers";
  EXPECT_EQ(tryLock(dir, "read", 500), 0) << "one more reader is welcome";
  for (size_t i = 0; i < readers.size(); ++i) {
    kill(readers[i], SIGTERM);
    EXPECT_EQ(korvel_test::waitChild(readers[i]), 0);
    EXPECT_EQ(korvel_test::withoutTimes(readFile(at(std::to_string(i)))), "held\nreleased 1\n");
  }
  EXPECT_TRUE(entries(dir).empty());

  // And a writer keeps readers and writers out.
  pid_t writer = holder(dir, "write", at("writer"));
  EXPECT_EQ(tryLock(dir, "read", 500), 1);
  EXPECT_EQ(tryLock(dir, "write", 500), 1);
  kill(writer, SIGTERM);
  EXPECT_EQ(korvel_test::waitChild(writer), 0);
  EXPECT_TRUE(entries(dir).empty());
}

// Finite waits keep trying until their deadline, stale test included.
TEST_F(RwProcessTest, FiniteWaitsRideOutContentionAndBreakStaleLocks) {
  std::vector<pid_t> writers;
  for (int i = 0; i < 6; ++i) writers.push_back(start({"try", dir_.path(), "write", "10000"}));
  for (pid_t pid : writers) EXPECT_EQ(korvel_test::waitChild(pid), 0) << "gave up early";

  // A dead writer's file: a single attempt breaks it and enters.
  korvel_test::writeFile(at(kWriteLock), "77");
  ASSERT_TRUE(korvel_test::setMtime(at(kWriteLock), time(nullptr) - 30));
  EXPECT_EQ(tryLock(dir_.path(), "write", 0), 0);

  // A directory lock left by a holder killed during its brief hold.
  korvel_test::writeFile(at(".deploy_lock.0"), "77");
  ASSERT_TRUE(korvel_test::setMtime(at(".deploy_lock.0"), time(nullptr) - 30));
  EXPECT_EQ(tryLock(dir_.path(), "write", 3000), 0);

  // A dead reader's file goes too, once stale, but not before.
  pid_t reader = holder(dir_.path(), "read", at("reader.out"));
  kill(reader, SIGKILL);
  korvel_test::waitChild(reader);
  koDirectoryReadWriteLock rw(dir_.path());
  WriteLock writing = rw.getWriteLock();
  EXPECT_FALSE(writing.acquire(500, TimeUnit::sMilliseconds())) << "a fresh file is not stale";
  ASSERT_TRUE(korvel_test::setMtime(at(readLockFiles()[0]), time(nullptr) - 30));
  ASSERT_TRUE(writing.acquire(5, TimeUnit::sSeconds()));
  EXPECT_TRUE(readLockFiles().empty());

  // A release with a sub-second time-out waits out a slow refresh.
  korvel_test::failUnder(Fault::kSlowWrite, at(kWriteLock));
  ASSERT_TRUE(korvel_test::eventually([&] { return korvel_test::writesTo(at(kWriteLock)); }, 7));
  EXPECT_TRUE(writing.release(900, TimeUnit::sMilliseconds()));
  EXPECT_FALSE(writeLockFileExists());
}

// The standard lock interfaces, against other processes.
TEST_F(RwProcessTest, StandardLockInterfacesWork) {
  koDirectoryReadWriteLock rw(dir_.path());
  koDirectoryExclusiveLock exclusive(at("x"), "x");
  ASSERT_EQ(mkdir(at("x").c_str(), 0755), 0);
  pid_t reader = holder(dir_.path(), "read", at("reader.out"));
  {
    std::shared_lock<koDirectoryReadWriteLock> reading(rw);  // readers share
    EXPECT_EQ(readLockFiles().size(), 2u);
  }
  {
    std::unique_lock<koDirectoryReadWriteLock> writing(rw, std::defer_lock);
    EXPECT_FALSE(writing.try_lock_for(std::chrono::milliseconds(300)));
  }
  kill(reader, SIGTERM);
  EXPECT_EQ(korvel_test::waitChild(reader), 0);
  {
    std::unique_lock<koDirectoryReadWriteLock> writing(rw, std::chrono::seconds(5));
    EXPECT_TRUE(writing.owns_lock());
    EXPECT_EQ(tryLock(dir_.path(), "read", 200), 1);
    std::scoped_lock both(exclusive);
    EXPECT_EQ(tryLock(at("x"), "excl", 200), 1);
  }
  EXPECT_TRUE(entries(dir_.path()).count(kWriteLock) == 0);
  // A refusal is an error, not a time-out; errors leave the lock usable.
  korvel_test::failUnder(Fault::kList, at(""), EACCES);
  EXPECT_THROW(std::unique_lock<koDirectoryReadWriteLock> refused(rw), std::system_error);
  korvel_test::clearHooks();
  koDirectoryExclusiveLock gone(at("gone"), "gone");
  EXPECT_THROW(gone.lock(), koNoSuchDirectory);
  ASSERT_EQ(mkdir(at("gone").c_str(), 0755), 0);
  {
    std::unique_lock<koDirectoryExclusiveLock> held(gone, std::chrono::seconds(5));
    ASSERT_TRUE(held.owns_lock());
    korvel_test::removeTree(at("gone"));
  }  // unlock finds the directory gone, and says so without throwing
  std::unique_lock<koDirectoryReadWriteLock> writing(rw, std::chrono::seconds(5));
  EXPECT_TRUE(writing.owns_lock());
}

}  // namespace
