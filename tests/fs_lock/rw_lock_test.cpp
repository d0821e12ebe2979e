// The read-write directory lock, in one process and between processes.
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "fs_lock/read_write_lock.h"
#include "korvel/fs_lock.h"
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
using ReadLock = koDirectoryReadWriteLock::ReadLock;
using WriteLock = koDirectoryReadWriteLock::WriteLock;

const char kWriteLock[] = ".deploy_write_lock";
const char kReadLockPrefix[] = ".deploy_read_lock.";

// A fresh handle's acquisition, its result; the handle (and its file) go
// with the call.
template <class Handle>
bool acquireOnce(Handle handle, unsigned long n, const TimeUnit& unit) {
  return handle.acquire(n, unit);
}

bool loopRunning(const koDirectoryReadWriteLock& rw) {
  koDirectoryReadWriteLock::Impl::ScopedLock lock(rw.getImpl()->getMutex());
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
  EXPECT_FALSE(acquireOnce(rw.getWriteLock(), 300, TimeUnit::sMilliseconds()))
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

  // A single attempt answers at once while a program holds the directory's
  // exclusive lock, rather than waiting for it as for a brief look.
  koDirectoryExclusiveLock program(dir_.path(), "program");
  ASSERT_TRUE(program.acquire(0, TimeUnit::sSeconds(), true));
  const auto tried = std::chrono::steady_clock::now();
  EXPECT_FALSE(acquireOnce(rw.getReadLock(), 0, TimeUnit::sSeconds()));
  EXPECT_LT(secondsSince(tried), 0.3);
  EXPECT_TRUE(program.release());
  EXPECT_FALSE(loopRunning(rw));
  // But one held for a moment is waited for. (The clock stops: however slow
  // this run, the holder's file is not watched long enough to be a program.)
  korvel_test::freezeClock(true);
  ASSERT_TRUE(program.acquire(0, TimeUnit::sSeconds(), true));
  std::thread brief([&] {
    usleep(50000);
    EXPECT_TRUE(program.release());
  });
  EXPECT_TRUE(acquireOnce(rw.getReadLock(), 0, TimeUnit::sSeconds()));
  brief.join();
  korvel_test::freezeClock(false);

  // A full file system: the write-lock file is tried again at least once a
  // second, and made soon after the space is back.
  korvel_test::failUnder(Fault::kCreate, at(kWriteLock), ENOSPC);
  std::thread cleared([] {
    usleep(2900000);
    korvel_test::failUnder(Fault::kCreate, "");
  });
  EXPECT_TRUE(acquireOnce(rw.getWriteLock(), 4200, TimeUnit::sMilliseconds()));
  cleared.join();

  // A child made by fork() uses none of its parent's locks: its copies
  // neither release the parent's file nor wait for the parent's threads.
  auto* forked = new koDirectoryReadWriteLock(dir_.path());
  auto* held = new ReadLock(forked->getReadLock());
  ASSERT_TRUE(held->acquire(koForever, TimeUnit::sSeconds()));
  EXPECT_EQ(korvel_test::runInChild([&] {
              alarm(5);
              const bool refused = !held->release(koForever, TimeUnit::sSeconds());
              delete held;
              delete forked;
              return refused ? 0 : 1;
            }),
            0);
  EXPECT_EQ(readLockFiles().size(), 1u);
  EXPECT_TRUE(held->release(koForever, TimeUnit::sSeconds()));
  delete held;
  delete forked;
  EXPECT_TRUE(entries(dir_.path()).empty());

  // A lock lost meanwhile (its lease ran out) is not acquired again nested.
  ReadLock lapsed = rw.getReadLock();
  ASSERT_TRUE(lapsed.acquire(0, TimeUnit::sSeconds(), true));
  korvel_test::advanceClock(15);
  EXPECT_FALSE(lapsed.acquire(0, TimeUnit::sSeconds()));
  EXPECT_EQ(errno, ENOLCK);
  EXPECT_FALSE(lapsed.release(koForever, TimeUnit::sSeconds()));
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
  // A program holds r's directory lock throughout: the refresh waits for
  // it a moment, then rewrites anyway (the lease matters more).
  koDirectoryExclusiveLock program(at("r"), "program");
  ASSERT_TRUE(program.acquire(koForever, TimeUnit::sSeconds(), false));
  // A writer of the same process waits.
  std::thread waiter([&] { EXPECT_FALSE(acquireOnce(r.getWriteLock(), 7, TimeUnit::sSeconds())); });
  // And a holder whose file is taken over finds out at its next refresh.
  ASSERT_EQ(mkdir(at("t").c_str(), 0755), 0);
  koDirectoryExclusiveLock overtaken(at("t"), "old");
  std::atomic<int> told{0};
  overtaken.onLost([&] { ++told; });
  ASSERT_TRUE(overtaken.acquire(koForever, TimeUnit::sSeconds(), false));
  ASSERT_TRUE(korvel_test::setMtime(at("t/.deploy_lock.0"), time(nullptr) - 700));
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
  EXPECT_TRUE(program.release());

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
      acquireOnce(rw.getReadLock(), koForever, TimeUnit::sSeconds());
      ADD_FAILURE() << "no exception";
    } catch (const koNoSuchDirectory& e) {
      EXPECT_STREQ(e.what(),
                   ("Tried to obtain a lock on a non-existent directory" + missing).c_str());
    }
  }
  // A writer that cannot list the directory is refused.
  WarningCapture warnings;
  korvel_test::failUnder(Fault::kList, at(""), EACCES);
  koDirectoryReadWriteLock unlistable(dir_.path());
  EXPECT_FALSE(acquireOnce(unlistable.getWriteLock(), koForever, TimeUnit::sSeconds()));
  EXPECT_EQ(errno, EACCES);
  // Nor does a reader enter when the write lock's file cannot be looked at.
  korvel_test::failUnder(Fault::kStat, at(kWriteLock), EIO);
  EXPECT_FALSE(acquireOnce(unlistable.getReadLock(), koForever, TimeUnit::sSeconds()));
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(warnings.count("FS_LOCK: cannot"), 2) << warnings.text();

  // The directory vanishes under a held write lock: release reports it.
  korvel_test::clearHooks();
  ASSERT_EQ(mkdir(missing.c_str(), 0755), 0);
  koDirectoryReadWriteLock rw(missing);
  WriteLock writing = rw.getWriteLock();
  ASSERT_TRUE(writing.acquire(koForever, TimeUnit::sSeconds()));
  korvel_test::removeTree(missing);
  EXPECT_THROW((void)writing.release(koForever, TimeUnit::sSeconds()), koNoSuchDirectory);
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

// Whatever sits under a lock-file name may have been planted there: it is
// never followed, opened, written or removed. It blocks the lock like a
// holder until the time-out, and is named once.
TEST_F(RwLockTest, ForeignObjectsBlockButAreNeverTouched) {
  const std::string precious = at("precious");
  korvel_test::writeFile(precious, "mine", 3600);
  struct Object {
    const char* kind;
    std::function<int(const std::string&)> make;
  };
  const Object objects[] = {
      {"a symbolic link",
       [&](const std::string& p) { return symlink(precious.c_str(), p.c_str()); }},
      {"a symbolic link", [](const std::string& p) { return symlink("/nonexistent", p.c_str()); }},
      {"a FIFO", [](const std::string& p) { return mkfifo(p.c_str(), 0666); }},
      {"a directory",
       [](const std::string& p) {
         return mkdir(p.c_str(), 0777) | mkdir((p + "/x").c_str(), 0777);
       }},
      {"a directory", [](const std::string& p) { return mkdir(p.c_str(), 0777); }}};
  int n = 0;
  for (const char* name : {".deploy_lock.0", kWriteLock}) {
    for (const Object& object : objects) {
      const std::string dir = at(std::to_string(n++));
      SCOPED_TRACE(dir + "/" + name + ": " + object.kind);
      ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
      ASSERT_EQ(object.make(dir + "/" + name), 0);
      struct stat before;
      ASSERT_EQ(lstat((dir + "/" + name).c_str(), &before), 0);
      WarningCapture warnings;
      const auto start = std::chrono::steady_clock::now();
      if (name == kWriteLock) {
        koDirectoryReadWriteLock rw(dir);
        EXPECT_FALSE(acquireOnce(rw.getWriteLock(), 300, TimeUnit::sMilliseconds()));
      } else {
        koDirectoryExclusiveLock lock(dir, "t");
        EXPECT_FALSE(lock.acquire(300, TimeUnit::sMilliseconds(), true));
      }
      EXPECT_EQ(errno, ETIMEDOUT);
      EXPECT_LT(secondsSince(start), 2.0);
      struct stat after;
      ASSERT_EQ(lstat((dir + "/" + name).c_str(), &after), 0);
      EXPECT_EQ(after.st_ino, before.st_ino);
      EXPECT_EQ(readFile(precious), "mine");
      EXPECT_EQ(warnings.count(dir + "/" + name + " is " + object.kind + ", not a lock file"), 1)
          << warnings.text();
    }
  }
  struct stat st;
  ASSERT_EQ(stat(precious.c_str(), &st), 0);
  EXPECT_LT(st.st_mtime, time(nullptr) - 3000) << "the planted link's target was written";
}

// Shared directories with several users (the test runs as root): a link
// planted by one user never leads another's lock to write through it; a
// stale file another user left in a sticky directory, which this user
// cannot break, is waited out until the time-out and named once.
TEST_F(RwLockTest, OtherUsersFilesInSharedDirectories) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to act as several users";
  constexpr uid_t kDaemon = 1;
  const std::string shared = at("shared");
  const std::string precious = at("precious");
  ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
  ASSERT_EQ(mkdir(shared.c_str(), 0777), 0);
  ASSERT_EQ(chmod(shared.c_str(), 01777), 0);
  korvel_test::writeFile(precious, "daemon's own", 3600);
  ASSERT_EQ(chown(precious.c_str(), kDaemon, kDaemon), 0);
  EXPECT_EQ(korvel_test::runUnprivileged(
                [&] { return symlink(precious.c_str(), (shared + "/" + kWriteLock).c_str()); }),
            0);
  EXPECT_EQ(korvel_test::runUnprivileged(
                [&] {
                  koDirectoryReadWriteLock rw(shared);
                  return acquireOnce(rw.getWriteLock(), 1, TimeUnit::sSeconds()) ? 1 : 0;
                },
                kDaemon),
            0);
  EXPECT_EQ(readFile(precious), "daemon's own");

  const std::string level0 = shared + "/.deploy_lock.0";
  EXPECT_EQ(korvel_test::runUnprivileged([&] {
              const int fd = open(level0.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
              return fd >= 0 && write(fd, "5", 1) == 1 && close(fd) == 0 &&
                             korvel_test::setMtime(level0, time(nullptr) - 700)
                         ? 0
                         : 1;
            }),
            0);
  const std::string log = at("warnings");
  korvel_test::writeFile(log, "");
  ASSERT_EQ(chmod(log.c_str(), 0666), 0);
  EXPECT_EQ(korvel_test::runUnprivileged(
                [&] {
                  std::ofstream stream(log, std::ios::app);
                  warningLog = {true, &stream};
                  koDirectoryExclusiveLock lock(shared, "b");
                  const auto start = std::chrono::steady_clock::now();
                  if (lock.acquire(1, TimeUnit::sSeconds(), true)) return 1;
                  if (errno != ETIMEDOUT) return 2;
                  return secondsSince(start) > 0.9 ? 0 : 3;  // waited, not refused at once
                },
                kDaemon),
            0);
  EXPECT_EQ(readFile(level0), "5");
  const std::string text = readFile(log);
  EXPECT_NE(text.find("cannot remove the stale lock file " + level0 + " of user " +
                      std::to_string(korvel_test::kNobody)),
            std::string::npos)
      << text;
  EXPECT_EQ(text.find(".deploy_lock.1"), std::string::npos) << text;
}

// A full file system is waited out until the time-out, with one warning.
TEST_F(RwLockTest, AFullFileSystemIsWaitedOut) {
  const std::string full = at("full");
  ASSERT_EQ(mkdir(full.c_str(), 0700), 0);
  if (mount("korvel-test", full.c_str(), "tmpfs", 0, "size=64k") != 0) {
    GTEST_SKIP() << "cannot mount a tmpfs here; the host-layer case covers it";
  }
  std::shared_ptr<void> unmount(nullptr, [&](void*) { umount2(full.c_str(), MNT_DETACH); });
  koDirectoryExclusiveLock holder(full, "holder");
  ASSERT_TRUE(holder.acquire(0, TimeUnit::sSeconds(), true));
  const int fd = open((full + "/filler").c_str(), O_WRONLY | O_CREAT, 0600);
  const std::string block(4096, 'x');
  while (write(fd, block.data(), block.size()) > 0) {
  }
  close(fd);
  WarningCapture warnings;
  koDirectoryExclusiveLock waiter(full, "waiter");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(waiter.acquire(1500, TimeUnit::sMilliseconds(), true));
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_GT(secondsSince(start), 1.4);
  EXPECT_EQ(warnings.count(errorText(ENOSPC) + "; still trying"), 1) << warnings.text();
  EXPECT_TRUE(holder.release());
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

  // A long dead writer's file: a single attempt breaks it and enters.
  korvel_test::writeFile(at(kWriteLock), "77", 700);
  EXPECT_EQ(tryLock(dir_.path(), "write", 0), 0);

  // A directory lock left by a holder killed during its brief hold.
  korvel_test::writeFile(at(".deploy_lock.0"), "77", 700);
  EXPECT_EQ(tryLock(dir_.path(), "write", 3000), 0);

  // A dead reader's file goes too, once watched for 15 s, but not before.
  pid_t reader = holder(dir_.path(), "read", at("reader.out"));
  kill(reader, SIGKILL);
  korvel_test::waitChild(reader);
  koDirectoryReadWriteLock rw(dir_.path());
  WriteLock writing = rw.getWriteLock();
  EXPECT_FALSE(writing.acquire(1500, TimeUnit::sMilliseconds())) << "a fresh file is not stale";
  korvel_test::advanceClock(13);
  EXPECT_FALSE(writing.acquire(0, TimeUnit::sSeconds())) << "watched for 14.5 s, not more";
  korvel_test::advanceClock(1);
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
  // A missing directory, or a file given as one: the system error of the
  // standard interfaces, with the classic exception nested.
  korvel_test::writeFile(at("file"), "");
  for (const char* name : {"gone", "file"}) {
    koDirectoryExclusiveLock missing(at(name), "missing");
    koDirectoryReadWriteLock missingRw(at(name));
    const int expected = std::string(name) == "gone" ? ENOENT : ENOTDIR;
    for (int kind = 0; kind < 2; ++kind) {
      try {
        kind == 0 ? missing.lock() : missingRw.lock_shared();
        ADD_FAILURE() << name << ": no exception";
      } catch (const std::system_error& e) {
        EXPECT_EQ(e.code().value(), expected) << name;
        EXPECT_THROW(std::rethrow_if_nested(e), koNoSuchDirectory) << name;
      }
    }
  }
  koDirectoryExclusiveLock gone(at("gone"), "gone");
  ASSERT_EQ(mkdir(at("gone").c_str(), 0755), 0);
  {
    std::unique_lock<koDirectoryExclusiveLock> held(gone, std::chrono::seconds(5));
    ASSERT_TRUE(held.owns_lock());
    korvel_test::removeTree(at("gone"));
  }  // unlock finds the directory gone, and says so without throwing
  std::unique_lock<koDirectoryReadWriteLock> writing(rw, std::chrono::seconds(5));
  EXPECT_TRUE(writing.owns_lock());
}

// A waiter's stale test stalls (a hung mount, a stopped process) while the
// world moves on. When it resumes it acts on nothing that changed: not on a
// file made afresh by a process that took the directory lock over, not on
// a file refreshed meanwhile, not on a file at all once the directory lock
// is no longer its own.
TEST_F(RwProcessTest, AStalledJudgementActsOnNothingThatChanged) {
  struct Case {
    const char* what;
    const char* other;  // the lock another process takes meanwhile
    bool refreshed;     // the judged file is rewritten meanwhile
  };
  const Case cases[] = {{"a writer takes over", "write", false},
                        {"its holder refreshes it", "", true},
                        {"the directory lock is taken", "excl", false}};
  int n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    korvel_test::clearHooks();
    const std::string dir = at(std::to_string(n++));
    const std::string judged = dir + "/" + kWriteLock;
    const std::string out = dir + ".out";
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    korvel_test::writeFile(judged, "77", 700);
    pid_t other = -1;
    bool stalled = false;
    // The stale test's fresh file: the write lock was looked at just before.
    korvel_test::observeOpens([&](const char* path, int flags) {
      const std::string p = path;
      if (stalled || (flags & O_EXCL) == 0 || p.size() <= dir.size() + 2 ||
          p.compare(0, dir.size() + 2, dir + "/.") != 0 || !isdigit(p[dir.size() + 2])) {
        return;
      }
      stalled = true;
      if (c.refreshed) korvel_test::writeFile(judged, "78");
      if (*c.other == '\0') return;
      // This process's directory lock looks long dead to the other one.
      korvel_test::setMtime(dir + "/.deploy_lock.0", time(nullptr) - 700);
      other = start({"hold", dir, c.other}, out);
      EXPECT_TRUE(korvel_test::waitForFileText(out, "held\n", 20));
      if (std::string(c.other) == "write") korvel_test::advanceClock(24);
    });
    koDirectoryReadWriteLock rw(dir);
    EXPECT_FALSE(acquireOnce(rw.getWriteLock(), 1, TimeUnit::sSeconds()));
    korvel_test::observeOpens(nullptr);
    EXPECT_TRUE(stalled);
    if (other < 0) {
      EXPECT_EQ(readFile(judged), "78");
      continue;
    }
    EXPECT_EQ(korvel_test::withoutTimes(readFile(out)), "held\n");
    if (std::string(c.other) == "excl") {
      EXPECT_EQ(readFile(judged), "77");
    }
    kill(other, SIGTERM);
    EXPECT_EQ(korvel_test::waitChild(other), 0);
    EXPECT_EQ(korvel_test::withoutTimes(readFile(out)), "held\nreleased 1\n")
        << "the other holder's file was touched";
  }
}

// File times that do not come from one steady server clock never decide
// alone. A live holder in another process keeps its lock when the server's
// clock steps forward (+20 s, +5 min) or when its client stamps its writes
// 3 minutes slow; a dead holder whose client stamped 3 minutes fast or
// slow is taken over by a present waiter after 15 s of watching.
TEST_F(RwProcessTest, FileTimesThatAreNotOneSteadyServerClockNeverDecideAlone) {
  struct Skew {
    const char* what;
    double seconds;
    bool holderOnly;
  };
  const Skew live[] = {{"server clock +20 s", 20, false},
                       {"server clock +5 min", 300, false},
                       {"holder's client 3 min slow", -180, true}};
  int n = 0;
  for (const Skew& skew : live) {
    SCOPED_TRACE(skew.what);
    const std::string dir = at(std::to_string(n++));
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    const pid_t held = holder(dir, "excl", dir + ".out");
    korvel_test::skewStamps(skew.holderOnly ? dir + "/.deploy_lock.0" : dir, skew.seconds,
                            skew.holderOnly ? 0.0 : static_cast<double>(time(nullptr) + 1));
    koDirectoryExclusiveLock waiter(dir, "waiter");
    EXPECT_FALSE(waiter.acquire(2, TimeUnit::sSeconds(), true));
    korvel_test::clearHooks();
    kill(held, SIGTERM);
    EXPECT_EQ(korvel_test::waitChild(held), 0);
    EXPECT_EQ(korvel_test::withoutTimes(readFile(dir + ".out")), "held\nreleased 1\n");
  }
  for (const double seconds : {180.0, -180.0}) {
    SCOPED_TRACE(seconds);
    const std::string dir = at(std::to_string(n++));
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    korvel_test::writeFile(dir + "/.deploy_lock.0", "4242");  // its holder is dead
    korvel_test::skewStamps(dir + "/.deploy_lock.0", seconds);
    std::atomic<bool> taken{false};
    koDirectoryExclusiveLock waiter(dir, "waiter");
    std::thread waiting([&] { taken = waiter.acquire(koForever, TimeUnit::sSeconds(), true); });
    // Time passes for the waiter as it would, a little at a time (a jump
    // would be a stop, which costs it its queue place).
    auto pass = [](double seconds) {
      for (double passed = 0; passed < seconds; passed += 0.25) {
        korvel_test::advanceClock(0.25);
        usleep(10000);
      }
    };
    pass(14.5);
    EXPECT_FALSE(taken) << "taken over before 15 s of watching";
    pass(1.5);
    EXPECT_TRUE(korvel_test::eventually([&] { return taken.load(); }, 1.0))
        << "not taken over within 17.5 s";
    waiting.join();
    EXPECT_TRUE(waiter.release());
    korvel_test::clearHooks();
  }
}

}  // namespace
