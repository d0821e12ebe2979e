// The stale test (see stale_test.h).
#include "fs_lock/stale_test.h"

#include <sys/stat.h>

#include <atomic>

#include "host/host.h"
#include "korvel/threads.h"
#include "paths/path_string.h"

namespace {

// What the stale test writes into its fresh files: nobody reads it.
std::atomic<unsigned> freshFileNumbers{0};

}  // namespace

void koStaleLockRemover::update(const char* lockFile) {
  verboseLog << "koStaleLockRemover::update: Updating stale status for " << lockFile << std::endl;
  const koPathString tempPath(freshNameBeside(lockFile));
  verboseLog << "koStaleLockRemover::update: writing temp file " << tempPath << std::endl;

  const bool written = writeIntToFile(tempPath.c_str(), static_cast<int>(++freshFileNumbers));
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
  if (hostStat(lockFile, &lockStat) == 0 && hostStat(tempPath.c_str(), &tempStat) == 0) {
    const double difference = static_cast<double>(tempStat.st_mtime - lockStat.st_mtime);
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

void koStaleLockRemover::removeStaleFile(const std::string& name) {
  if (removeFileWithTenacity(name.c_str(), deadline.capped(0.02)) || errno == ENOENT) return;
  // Once per file, not once per poll.
  if (!warned->insert(name).second) return;
  warningLog << "FS_LOCK: cannot remove the stale lock file " << name << ": " << errorText(errno)
             << std::endl;
}
