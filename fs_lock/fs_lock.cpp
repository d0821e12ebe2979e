// Lock files, refresh and stale-lock detection: what the directory locks
// share.
//
// The protocol. A directory lock is a set of small files in the locked
// directory, which may be shared by several hosts over a network file
// system. No operating-system lock is used. A process owns a lock file when
// it created it with an exclusive create (O_CREAT|O_EXCL), the one atomic
// step a network file system reliably offers; it keeps ownership by
// rewriting the file (a decimal number, never interpreted) every 5 seconds,
// which refreshes its modification time.
//
// Age is judged only by the file server's clock. To learn it, the tester
// writes a fresh temporary file beside the lock file and compares the two
// modification times, both set by the same server; so clock skew between the
// client hosts never matters. A lock file more than 15 s (STALE_TIMEOUT_SEC)
// behind the fresh file belongs to a dead holder and may be taken over or
// removed. An application crash can leave stale lock files behind; they are
// recognised this way.
//
// Known weaknesses: modification times have whole-second resolution, so a
// dead holder's lock is broken 15 to 17 s after its last refresh; a live
// holder that cannot refresh for more than 15 s (a stopped process, a
// partitioned host) loses its lock to a waiter without noticing; a failed
// exclusive create is read as "taken" whatever the error, since some network
// file systems answer other errors than EEXIST to the loser.
#include "korvel/fs_lock.h"

#include <sys/stat.h>
#include <unistd.h>

#include <boost/thread/mutex.hpp>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "fs_lock/fs_lock_internal.h"
#include "host/host.h"
#include "paths/path_string.h"

namespace {

bool environmentHas(const char* name) {
  return getenv(name) != nullptr;  // NOLINT(concurrency-mt-unsafe): load time only
}

// Incremented twice by every stale test, without a lock: uniqueness of the
// temporary names rests on the time, process and address terms too.
int tempFileCounter = 0;

// The process-wide lock thread pool, made on first use.
boost::mutex poolMutex;
boost::shared_ptr<koThreadFactory> pool;

}  // namespace

// Decided once, while the library is loaded.
LogStream verboseLog = {environmentHas("KORVEL_FSLOCK_VERBOSE"), &std::cout};
LogStream warningLog = {
    environmentHas("KORVEL_FSLOCK_VERBOSE") || environmentHas("KORVEL_FSLOCK_WARNING"), &std::cerr};

const LogStream& operator<<(const LogStream& log, std::ostream& (*manipulator)(std::ostream&)) {
  if (log.enabled) *log.stream << manipulator;
  return log;
}

bool readIntFromFile(const char* path, int& value) {
  FILE* file = fopen(path, "r");
  if (file == nullptr) return false;
  int read = 0;
  int converted = fscanf(file, "%d", &read);
  fclose(file);
  if (converted != 1) return false;
  value = read;
  return true;
}

bool writeIntToFile(const char* path, int value) {
  FILE* file = fopen(path, "w+");
  if (file == nullptr) return false;
  fprintf(file, "%d", value);
  fclose(file);
  return true;
}

void sleepMilliseconds(unsigned int ms) {
  usleep(ms * 1000);
}

bool removeFileWithTenacity(const char* path, unsigned long timeout, double deadline) {
  for (;;) {
    if (hostRemoveFile(path) >= 0) return true;
    if (timeout != kInfiniteTimeout && hostRealtime() >= deadline) return false;
    sleepMilliseconds(1);
  }
}

bool removeFileWithTenacity(const char* path) {
  return removeFileWithTenacity(path, 0, hostRealtime() + 0.02);
}

double realtimeDeadline(unsigned long n, const Zentha::System::TimeUnit& unit) {
  return hostRealtime() + static_cast<double>(unit.toMillis(n)) / 1000.0;
}

boost::xtime xtimeDeadline(unsigned long n, const Zentha::System::TimeUnit& unit) {
  boost::xtime deadline;
  boost::xtime_get(&deadline, boost::TIME_UTC_);
  deadline.sec += unit.toSeconds(n);
  return deadline;
}

void koStaleLockRemover::update(const char* lockFile) {
  verboseLog << "koStaleLockRemover::update: Updating stale status for " << lockFile << std::endl;

  ++tempFileCounter;
  std::ostringstream tempName;
  tempName << "." << static_cast<unsigned long>(hostRealtime() * 100000.0) << getpid()
           << tempFileCounter << reinterpret_cast<unsigned long>(lockFile);

  // The temporary file lives beside the lock file, on the same file server.
  std::string directoryPart = lockFile;
  size_t end = directoryPart.size();
  while (end > 0 && !koIsPathSep(static_cast<unsigned char>(directoryPart[end - 1]))) --end;
  directoryPart.resize(end);
  const koPathString tempPath(directoryPart + tempName.str());
  verboseLog << "koStaleLockRemover::update: writing temp file " << tempPath << std::endl;

  ++tempFileCounter;
  const bool written = writeIntToFile(tempPath.c_str(), tempFileCounter);
  koCleanupFunctionGuard removeTemp([&tempPath] { removeFileWithTenacity(tempPath.c_str()); });
  if (!written) warningLog << "koStaleLockRemover::update: write to temp failed" << std::endl;

  int ignored;
  if (!readIntFromFile(lockFile, ignored)) {
    warningLog << "koStaleLockRemover::update: read from lock failed" << std::endl;
  }
  if (!written) return;

  verboseLog << "koStaleLockRemover::update: stat-ing temp file and lock file... " << std::endl;
  struct stat lockStat = {};
  struct stat tempStat = {};
  if (stat(lockFile, &lockStat) == 0 && stat(tempPath.c_str(), &tempStat) == 0) {
    double difference = static_cast<double>(tempStat.st_mtime - lockStat.st_mtime);
    if (difference > staleTimeout) {
      verboseLog << "koStaleLockRemover::update: adding " << lockFile << " to stale list."
                 << std::endl;
      staleFiles.push_back(lockFile);
    }
  }
  verboseLog << "koStaleLockRemover::update: temp file time: "
             << static_cast<long>(tempStat.st_mtime) << std::endl;
  verboseLog << "koStaleLockRemover::update: lock file time: "
             << static_cast<long>(lockStat.st_mtime) << std::endl;
}

void koStaleLockRemover::removeStaleFile(const std::string& name) const {
  if (useDeadline) {
    if (!removeFileWithTenacity(name.c_str(), 0, deadline)) {
      warningLog << "FS_LOCK: failed to remove " << name << "(" << 473 << ")" << std::endl;
    }
  } else if (!removeFileWithTenacity(name.c_str())) {
    warningLog << "FS_LOCK: failed to remove " << name << "(" << 477 << ")" << std::endl;
  }
}

koNoSuchDirectory::~koNoSuchDirectory() = default;

void throwNoSuchDirectory(const std::string& directory) {
  throw koNoSuchDirectory("Tried to obtain a lock on a non-existent directory" + directory);
}

const char* koNoSuchDirectory::what() const noexcept {
  return message_.c_str();
}

boost::shared_ptr<koThreadFactory> koDirectoryLockThreadPool() {
  boost::mutex::scoped_lock lock(poolMutex);
  if (!pool) pool.reset(new koPooledThreadFactory(0, 16));
  return pool;
}
