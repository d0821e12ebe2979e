// The third room of the lock code: the stale test, which judges whether a
// lock file's holder is dead. Depends on lock_file.h and common.h.
#ifndef KORVEL_FS_LOCK_STALE_TEST_H_
#define KORVEL_FS_LOCK_STALE_TEST_H_

#include <set>
#include <string>
#include <vector>

#include "fs_lock/lock_file.h"

// Judges lock files by the file server's clock: a fresh temporary file is
// written beside the lock file and the two modification times compared. A
// lock file more than staleTimeout seconds older is stale. Used by one
// thread at a time.
class koStaleLockRemover {
 public:
  // Appends lockFile to staleFiles when it is stale. Never throws for
  // file-system failures; leaves no temporary file behind.
  void update(const char* lockFile);
  // Removes one stale file with tenacity (bounded by deadline). A file that
  // cannot be removed is named on the warning channel once per set of
  // warned names (the remover's own, unless given a longer-lived one).
  void removeStaleFile(const std::string& name);

  std::vector<std::string> staleFiles;
  double staleTimeout = korvel_protocol::kStaleSeconds;
  Deadline deadline = Deadline::afterSeconds(0.02);
  std::set<std::string>* warned = &ownWarned_;

 private:
  std::set<std::string> ownWarned_;
};

#endif  // KORVEL_FS_LOCK_STALE_TEST_H_
