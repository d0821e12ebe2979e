// The third room of the lock code: the stale test, which judges whether a
// lock file's holder is dead. Depends on lock_file.h and common.h.
//
// File times alone never decide that a recently active holder is dead:
// they may be stamped by a client's clock, or by a server whose clock
// steps. A file is stale when
//   - this host has seen it unchanged (FileState::sameAs) for longer than
//     kObservationSeconds by its monotonic clock: this remover's own
//     sightings, and earlier ones of this user's processes on this host,
//     kept under hostLocalStateDirectory(); or
//   - its age by the file server's clock is beyond kLongDeadSeconds.
// The arithmetic and the windows left are in the notes of fs_lock.cpp.
#ifndef KORVEL_FS_LOCK_STALE_TEST_H_
#define KORVEL_FS_LOCK_STALE_TEST_H_

#include <map>
#include <set>
#include <string>
#include <vector>

#include "fs_lock/lock_file.h"

// Judges lock files. A lock object keeps one for all its acquisitions, so
// that what it saw in one goes on counting in the next. Used by one thread
// at a time.
class koStaleLockRemover {
 public:
  enum class Verdict {
    kLive,     // a regular file not (yet) known to be stale
    kStale,    // a regular file whose holder is dead
    kMissing,  // nothing there
    kForeign,  // not a regular file: named once on the warning channel
    kError,    // could not be looked at; errno says why
  };

  koStaleLockRemover() = default;
  ~koStaleLockRemover();
  koStaleLockRemover(const koStaleLockRemover&) = delete;
  koStaleLockRemover& operator=(const koStaleLockRemover&) = delete;

  // Looks at lockFile now and judges it; *seen is what was found. Never
  // throws for file-system failures; leaves no fresh file behind.
  Verdict judge(const std::string& lockFile, FileState* seen);
  // For the read-write lock: appends a judgement of lockFile to staleFiles
  // when it is stale.
  void update(const std::string& lockFile);
  // Removes one stale file through its judgement, for up to 20 ms (never
  // past deadline) while it fails. A file that cannot be removed is named
  // on the warning channel once per set of warned names (the remover's
  // own, unless given a longer-lived one).
  Act removeStaleFile(const Judgement& stale, const Entitled& entitled);
  // What was judged is acted on (removed or taken over): its sighting, this
  // host's record of it and its ended holder's registration are over.
  void forget(const Judgement& acted);
  // How long lockFile has been seen as it was at its last judgement.
  double watchedFor(const std::string& lockFile) const;
  // Leaves what was seen of files that stood still in this host's record,
  // for later attempts (a process's next one, another process's), and lets
  // go of names not looked at for a while. errno is kept.
  void remember();

  std::vector<Judgement> staleFiles;
  Deadline deadline = Deadline::afterSeconds(0.02);
  std::set<std::string>* warned = &ownWarned_;

 private:
  // One file as this process has seen it.
  struct Sighting {
    FileState state;
    double firstSeen = 0.0;     // hostMonotonic(), this host's earliest
    double lastSeen = 0.0;      // the last judgement
    double serverAge = -1e300;  // server seconds since its change, at firstSeen
    bool recorded = false;      // this host's record already says so
    bool aged = false;          // serverAge and the record were asked
  };

  // A sighting of state, new or continued.
  Sighting& sight(const std::string& lockFile, const FileState& state);
  // Asks the host's record and the file server how old the sighting is.
  void age(const std::string& lockFile, Sighting* sighting);
  // Asks the file server its time with a fresh file beside lockFile.
  double serverAge(const std::string& lockFile, const FileState& state);
  void warnForeign(const std::string& lockFile, const FileState& state);

  std::map<std::string, Sighting> sightings_;
  std::set<std::string> ownWarned_;
};

#endif  // KORVEL_FS_LOCK_STALE_TEST_H_
