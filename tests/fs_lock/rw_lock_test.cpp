#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "fs_lock/fs_lock_internal.h"
#include "korvel/fs_lock.h"
#include "tests/fs_lock/lock_test_support.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace {

using korvel_test::entries;
using korvel_test::secondsSince;
using korvel_test::TempDirTest;
using Zentha::System::TimeUnit;
using ReadLock = koDirectoryReadWriteLock::ReadLock;
using WriteLock = koDirectoryReadWriteLock::WriteLock;

const unsigned long kForever = static_cast<unsigned long>(-1);
const char kWriteLock[] = ".deploy_write_lock";
const char kReadLockPrefix[] = ".deploy_read_lock.";

// Runs f on the shared state with its mutex held, as its accessors require.
template <class F>
auto underMutex(const koDirectoryReadWriteLock& rw, F f) {
  koDirectoryReadWriteLock::ScopedLock lock(rw.getImpl()->getMutex());
  return f(*rw.getImpl());
}

bool loopRunning(const koDirectoryReadWriteLock& rw) {
  return underMutex(rw,
                    [](koDirectoryReadWriteLock::Impl& impl) { return impl.refreshLoopRunning(); });
}

// Turns the warning channel on, into a file, for the life of the object.
// A file because the refresh loop writes while the test reads.
class WarningCapture {
 public:
  WarningCapture() : saved_(warningLog), stream_(dir_ / "warnings") {
    warningLog = {true, &stream_};
  }
  ~WarningCapture() { warningLog = saved_; }
  std::string text() const { return korvel_test::readFile(dir_ / "warnings"); }

 private:
  korvel_test::TempDir dir_;
  LogStream saved_;
  std::ofstream stream_;
};

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

TEST_F(RwLockTest, ReadLocksOfOneProcessCoexistAndKeepTheLoopUntilTheLast) {
  koDirectoryReadWriteLock rw(dir_.path());
  ReadLock first = rw.getReadLock();
  ReadLock second = rw.getReadLock();
  EXPECT_FALSE(loopRunning(rw));
  ASSERT_TRUE(first.acquire(kForever, TimeUnit::sSeconds()));
  ASSERT_TRUE(second.acquire(kForever, TimeUnit::sSeconds()));

  const std::vector<std::string> files = readLockFiles();
  ASSERT_EQ(files.size(), 2u);
  EXPECT_NE(files[0], files[1]);
  for (const std::string& file : files) {
    const std::string content = korvel_test::readFile(at(file));
    EXPECT_FALSE(content.empty());
    EXPECT_EQ(content.find_first_not_of("0123456789"), std::string::npos) << content;
  }
  EXPECT_TRUE(loopRunning(rw));
  EXPECT_FALSE(writeLockFileExists());

  EXPECT_TRUE(first.release(kForever, TimeUnit::sSeconds()));
  EXPECT_EQ(readLockFiles().size(), 1u);
  EXPECT_TRUE(loopRunning(rw)) << "the other read lock still needs refreshing";
  EXPECT_TRUE(second.release(kForever, TimeUnit::sSeconds()));
  EXPECT_FALSE(loopRunning(rw));
  EXPECT_TRUE(entries(dir_.path()).empty()) << "no lock file and no directory-lock file left";

  // Without refresh no loop is started at all.
  ASSERT_TRUE(first.acquire(kForever, TimeUnit::sSeconds(), true));
  EXPECT_FALSE(loopRunning(rw));
  EXPECT_EQ(readLockFiles().size(), 1u);
  EXPECT_TRUE(first.release(kForever, TimeUnit::sSeconds()));
}

TEST_F(RwLockTest, CopiesShareOneCountAndTheLastCopyFreesTheFile) {
  koDirectoryReadWriteLock rw(dir_.path());
  WriteLock lock = rw.getWriteLock();
  WriteLock copy = lock;
  EXPECT_FALSE(copy.release(kForever, TimeUnit::sSeconds())) << "nothing to release";

  ASSERT_TRUE(lock.acquire(kForever, TimeUnit::sSeconds()));
  EXPECT_TRUE(copy.isAcquired());
  ASSERT_TRUE(copy.acquire(0, TimeUnit::sSeconds())) << "nested: no file work, no waiting";
  EXPECT_TRUE(lock.release(kForever, TimeUnit::sSeconds()));
  EXPECT_TRUE(writeLockFileExists()) << "one acquisition is still counted";
  EXPECT_TRUE(copy.release(kForever, TimeUnit::sSeconds()));
  EXPECT_FALSE(writeLockFileExists());
  EXPECT_FALSE(lock.isAcquired());
  EXPECT_FALSE(lock.release(kForever, TimeUnit::sSeconds()));

  {
    ReadLock reading = rw.getReadLock();
    ASSERT_TRUE(reading.acquire(kForever, TimeUnit::sSeconds()));
    ReadLock other = reading;
    WriteLock writing = rw.getWriteLock();
    EXPECT_FALSE(writing.acquire(0, TimeUnit::sSeconds()));
    EXPECT_EQ(readLockFiles().size(), 1u);
  }
  EXPECT_TRUE(readLockFiles().empty()) << "destroying the held handle released its file";
  EXPECT_FALSE(loopRunning(rw));
  {
    WriteLock writing = rw.getWriteLock();
    ASSERT_TRUE(writing.acquire(kForever, TimeUnit::sSeconds()));
  }
  EXPECT_FALSE(writeLockFileExists());
  EXPECT_TRUE(underMutex(rw, [](koDirectoryReadWriteLock::Impl& impl) {
    return !impl.ownsWriteLock() && !impl.ownsReadLock();
  }));
}

TEST_F(RwLockTest, OwnLocksBlockConflictingAcquisitions) {
  koDirectoryReadWriteLock rw(dir_.path());
  ReadLock reading = rw.getReadLock();
  WriteLock writing = rw.getWriteLock();

  ASSERT_TRUE(reading.acquire(kForever, TimeUnit::sSeconds()));
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(writing.acquire(300, TimeUnit::sMilliseconds()));
  EXPECT_GE(secondsSince(start), 0.25) << "kept polling until the deadline";
  EXPECT_FALSE(writeLockFileExists());
  EXPECT_EQ(readLockFiles().size(), 1u) << "a live read lock is not stale";
  EXPECT_TRUE(reading.release(kForever, TimeUnit::sSeconds()));

  ASSERT_TRUE(writing.acquire(kForever, TimeUnit::sSeconds()));
  EXPECT_FALSE(reading.acquire(300, TimeUnit::sMilliseconds()));
  WriteLock secondWriter = rw.getWriteLock();
  EXPECT_FALSE(secondWriter.acquire(300, TimeUnit::sMilliseconds()))
      << "one write lock per directory and process, whatever the handle";
  EXPECT_TRUE(readLockFiles().empty());
  EXPECT_TRUE(writing.release(kForever, TimeUnit::sSeconds()));
  EXPECT_TRUE(entries(dir_.path()).empty());
}

TEST_F(RwLockTest, DowngradeHandsOverWithoutAGapAndKeepsRefreshing) {
  koDirectoryReadWriteLock rw(dir_.path());
  WriteLock writing = rw.getWriteLock();
  ASSERT_TRUE(writing.acquire(kForever, TimeUnit::sSeconds()));
  ASSERT_TRUE(writing.acquire(kForever, TimeUnit::sSeconds()));

  // When the write-lock file goes, a read-lock file must already be there.
  const std::string writeLockPath = at(kWriteLock);
  int writeLockRemovals = 0;
  bool readLockPresent = false;
  korvel_test::observeRemoves([&](const char* path) {
    if (writeLockPath != path) return;
    ++writeLockRemovals;
    readLockPresent = !readLockFiles().empty();
  });
  ReadLock reading = writing.downgrade(kForever, TimeUnit::sSeconds());
  korvel_test::observeRemoves(nullptr);

  EXPECT_EQ(writeLockRemovals, 1);
  EXPECT_TRUE(readLockPresent);
  EXPECT_FALSE(writing.isAcquired());
  EXPECT_TRUE(reading.isAcquired());
  EXPECT_FALSE(writeLockFileExists());
  const std::vector<std::string> files = readLockFiles();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_FALSE(loopRunning(rw)) << "the loop runs on, unrecorded, for the read lock";

  // The loop still rewrites the read-lock file (every 5 s).
  const std::string readLockPath = at(files[0]);
  const std::string before = korvel_test::readFile(readLockPath);
  const auto start = std::chrono::steady_clock::now();
  while (korvel_test::readFile(readLockPath) == before && secondsSince(start) < 15) usleep(50000);
  EXPECT_NE(korvel_test::readFile(readLockPath), before) << "not refreshed after a downgrade";

  EXPECT_TRUE(reading.release(kForever, TimeUnit::sSeconds()));
  EXPECT_EQ(readLockFiles().size(), 1u) << "acquired twice as a writer, so held twice";
  EXPECT_TRUE(reading.release(kForever, TimeUnit::sSeconds()));
  EXPECT_TRUE(entries(dir_.path()).empty());

  // A handle that is not held downgrades to a read lock that is not held.
  ReadLock nothing = writing.downgrade(kForever, TimeUnit::sSeconds());
  EXPECT_FALSE(nothing.isAcquired());
  EXPECT_TRUE(entries(dir_.path()).empty());
}

TEST_F(RwLockTest, MissingDirectoryIsReportedWhereItMatters) {
  const std::string missing = at("missing");
  {
    koDirectoryReadWriteLock rw(missing);
    ReadLock reading = rw.getReadLock();
    try {
      reading.acquire(kForever, TimeUnit::sSeconds());
      ADD_FAILURE() << "no exception";
    } catch (const koNoSuchDirectory& e) {
      EXPECT_STREQ(e.what(),
                   ("Tried to obtain a lock on a non-existent directory" + missing).c_str());
    }
    WriteLock writing = rw.getWriteLock();
    EXPECT_THROW(writing.acquire(1, TimeUnit::sSeconds()), koNoSuchDirectory);
  }

  // The directory vanishes under a held, refreshed write lock: the loop
  // logs and goes on, release reports it, the handle dies quietly.
  WarningCapture warnings;
  ASSERT_EQ(mkdir(missing.c_str(), 0755), 0);
  koDirectoryReadWriteLock rw(missing);
  {
    WriteLock writing = rw.getWriteLock();
    ASSERT_TRUE(writing.acquire(kForever, TimeUnit::sSeconds()));
    korvel_test::removeTree(missing);
    const char kLogged[] =
        "RefreshLoop thread: trying to touch lock file threw koNoSuchDirectory exception\n";
    const auto start = std::chrono::steady_clock::now();
    while (warnings.text().find(kLogged) == std::string::npos && secondsSince(start) < 15) {
      usleep(50000);
    }
    EXPECT_NE(warnings.text().find(kLogged), std::string::npos) << warnings.text();
    EXPECT_THROW(writing.release(kForever, TimeUnit::sSeconds()), koNoSuchDirectory);
  }
  EXPECT_FALSE(loopRunning(rw));
}

TEST_F(RwLockTest, UnremovableLockFileIsReportedAndLeftToGoStale) {
  koDirectoryReadWriteLock rw(dir_.path());
  WriteLock writing = rw.getWriteLock();
  ReadLock reading = rw.getReadLock();
  {
    WarningCapture warnings;
    korvel_test::failUnder(korvel_test::Fault::kRemove, at(kWriteLock));
    ASSERT_TRUE(writing.acquire(kForever, TimeUnit::sSeconds()));
    EXPECT_TRUE(writing.release(kForever, TimeUnit::sSeconds()));
    EXPECT_EQ(warnings.text(), "FS_LOCK: failed to remove " + at(kWriteLock) + "(1570)\n");
  }
  EXPECT_TRUE(writeLockFileExists());
  EXPECT_FALSE(writing.isAcquired());
  EXPECT_FALSE(loopRunning(rw));
  EXPECT_FALSE(
      underMutex(rw, [](koDirectoryReadWriteLock::Impl& impl) { return impl.ownsWriteLock(); }));
  korvel_test::clearHooks();
  ASSERT_EQ(unlink(at(kWriteLock).c_str()), 0);

  {
    WarningCapture warnings;
    korvel_test::failUnder(korvel_test::Fault::kRemove, at(kReadLockPrefix));
    ASSERT_TRUE(reading.acquire(kForever, TimeUnit::sSeconds()));
    const std::vector<std::string> files = readLockFiles();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_TRUE(reading.release(kForever, TimeUnit::sSeconds()));
    EXPECT_EQ(warnings.text(), "FS_LOCK: failed to remove " + at(files[0]) + "(1523)\n");
    EXPECT_EQ(readLockFiles(), files);
  }
  EXPECT_FALSE(
      underMutex(rw, [](koDirectoryReadWriteLock::Impl& impl) { return impl.ownsReadLock(); }));
}

// ---- Real processes ----

class RwProcessTest : public RwLockTest {
 protected:
  pid_t start(const std::vector<std::string>& args, const std::string& out = "") {
    return korvel_test::spawn(KORVEL_LOCK_CHILD, args, {}, out);
  }
  int tryLock(const std::string& kind, int ms) {
    return korvel_test::waitChild(start({"rw-try", dir_.path(), kind, std::to_string(ms)}));
  }
  pid_t holdUntilSignalled(const std::string& kind, const std::string& out) {
    pid_t pid = start({"rw-hold", dir_.path(), kind}, out);
    EXPECT_TRUE(korvel_test::waitForFileText(out, "held\n", 20)) << kind << " lock not taken";
    return pid;
  }
};

TEST_F(RwProcessTest, ReadersShareTheDirectoryAndKeepWritersOut) {
  const std::string outDir = at("out");
  ASSERT_EQ(mkdir(outDir.c_str(), 0755), 0);
  std::vector<pid_t> readers;
  for (int i = 0; i < 3; ++i) {
    readers.push_back(holdUntilSignalled("read", outDir + "/" + std::to_string(i)));
  }
  EXPECT_EQ(readLockFiles().size(), 3u) << "three processes hold read locks at once";
  EXPECT_FALSE(writeLockFileExists());
  EXPECT_EQ(tryLock("write", 500), 1) << "a writer got in beside readers";
  EXPECT_EQ(tryLock("read", 500), 0) << "one more reader is welcome";
  EXPECT_FALSE(writeLockFileExists());

  for (pid_t pid : readers) kill(pid, SIGTERM);
  for (size_t i = 0; i < readers.size(); ++i) {
    EXPECT_EQ(korvel_test::waitChild(readers[i]), 0);
    EXPECT_EQ(korvel_test::readFile(outDir + "/" + std::to_string(i)), "held\nreleased\n");
  }
  EXPECT_TRUE(readLockFiles().empty());
  EXPECT_EQ(tryLock("write", 500), 0);

  // And a writer keeps readers out.
  pid_t writer = holdUntilSignalled("write", outDir + "/writer");
  EXPECT_EQ(tryLock("read", 500), 1);
  EXPECT_EQ(tryLock("write", 500), 1);
  kill(writer, SIGTERM);
  EXPECT_EQ(korvel_test::waitChild(writer), 0);
  EXPECT_EQ(entries(dir_.path()), std::set<std::string>{"out"});
}

TEST_F(RwProcessTest, WritersNeverOverlapAnyoneAndNoUpdateIsLost) {
  const std::string locks = at("locks");
  const std::string work = at("work");
  ASSERT_EQ(mkdir(locks.c_str(), 0755), 0);
  ASSERT_EQ(mkdir(work.c_str(), 0755), 0);
  const int processes = 4;
  const int rounds = 220;
  std::vector<pid_t> pids;
  for (int i = 0; i < processes; ++i) {
    pids.push_back(start({"rw-mix", locks, work, std::to_string(rounds), std::to_string(i + 1)},
                         at("mix." + std::to_string(i))));
    ASSERT_GT(pids.back(), 0);
  }
  int writes = 0;
  int acquisitions = 0;
  for (int i = 0; i < processes; ++i) {
    EXPECT_EQ(korvel_test::waitChild(pids[i]), 0) << "overlaps seen, or a lock call failed";
    int w = 0;
    int r = 0;
    const std::string report = korvel_test::readFile(at("mix." + std::to_string(i)));
    ASSERT_EQ(sscanf(report.c_str(), "writes %d reads %d", &w, &r), 2) << report;
    writes += w;
    acquisitions += w + r;
  }
  EXPECT_EQ(acquisitions, processes * rounds);
  EXPECT_GT(writes, 0);
  EXPECT_EQ(korvel_test::readFile(work + "/counter"), std::to_string(writes));
  EXPECT_TRUE(entries(locks).empty()) << "every lock file removed";
}

TEST_F(RwProcessTest, BlockedWriterRemovesADeadReadersStaleFile) {
  pid_t reader = holdUntilSignalled("read", at("reader.out"));
  kill(reader, SIGKILL);
  korvel_test::waitChild(reader);
  std::vector<std::string> files = readLockFiles();
  ASSERT_EQ(files.size(), 1u);

  koDirectoryReadWriteLock rw(dir_.path());
  WriteLock writing = rw.getWriteLock();
  EXPECT_FALSE(writing.acquire(500, TimeUnit::sMilliseconds())) << "a fresh file is not stale";
  EXPECT_EQ(readLockFiles(), files);

  ASSERT_TRUE(korvel_test::setMtime(at(files[0]), time(nullptr) - 30));
  ASSERT_TRUE(writing.acquire(20, TimeUnit::sSeconds()));
  EXPECT_TRUE(readLockFiles().empty());
  EXPECT_TRUE(writeLockFileExists());
  EXPECT_TRUE(writing.release(kForever, TimeUnit::sSeconds()));
}

TEST_F(RwProcessTest, FiniteTimeOutMakesOneAttemptAtABusyDirectoryLock) {
  pid_t holder = start({"hold", dir_.path()}, at("holder.out"));
  ASSERT_TRUE(korvel_test::waitForFileText(at("holder.out"), "held\n", 20));

  int queueCreates = 0;
  korvel_test::observeOpens([&](const char* path, int flags) {
    if ((flags & O_EXCL) != 0 && strstr(path, "/.deploy_lock.") != nullptr) ++queueCreates;
  });
  koDirectoryReadWriteLock rw(dir_.path());
  WriteLock writing = rw.getWriteLock();
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(writing.acquire(30, TimeUnit::sSeconds()));
  EXPECT_LT(secondsSince(begin), 10.0) << "waited although the wait is below 1000 s";
  korvel_test::observeOpens(nullptr);
  EXPECT_EQ(queueCreates, 1);

  kill(holder, SIGKILL);
  korvel_test::waitChild(holder);
  EXPECT_EQ(entries(dir_.path()), (std::set<std::string>{".deploy_lock.0", "holder.out"}))
      << "no write-lock file and no queue file left behind";
}

}  // namespace
