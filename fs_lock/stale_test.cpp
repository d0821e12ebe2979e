// The stale test (see stale_test.h).
#include "fs_lock/stale_test.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "fs_lock/this_host.h"
#include "host/host.h"

using korvel_protocol::kLongDeadSeconds;
using korvel_protocol::kObservationSeconds;

namespace {

// A file older than this by the server's clock when first seen has stood
// still for longer than a refresh period: worth remembering.
constexpr double kStillSeconds = korvel_protocol::kRefreshPeriodMs / 1000.0;
// A name not looked at for this long is forgotten.
constexpr double kForgetSeconds = 60.0;

// What the stale test writes into its fresh files: nobody reads it.
std::atomic<unsigned> freshFileNumbers{0};

koStaleLockRemover::Verdict verdictOf(Look look) {
  switch (look) {
    case Look::kFile:
      return koStaleLockRemover::Verdict::kLive;
    case Look::kMissing:
      return koStaleLockRemover::Verdict::kMissing;
    case Look::kForeign:
      return koStaleLockRemover::Verdict::kForeign;
    case Look::kError:
      break;
  }
  return koStaleLockRemover::Verdict::kError;
}

}  // namespace

koStaleLockRemover::~koStaleLockRemover() = default;

void koStaleLockRemover::remember() {
  const int error = errno;  // what the attempt that ends here says
  const Sightings record;
  const double now = hostMonotonic();
  bool remembered = false;
  for (auto entry = sightings_.begin(); entry != sightings_.end();) {
    Sighting& seen = entry->second;
    // Only a file that stood still for a while may be a dead holder's: a
    // waiter's queue place changes at every poll, a holder's every 5 s.
    const double watched = now - seen.firstSeen;
    if (!seen.recorded && (watched >= 1.0 || seen.serverAge + watched >= kStillSeconds)) {
      record.remember(seen.state, seen.firstSeen);
      seen.recorded = remembered = true;
    }
    // A name not looked at for a while (a read lock that went) is let go.
    entry = now - seen.lastSeen > kForgetSeconds ? sightings_.erase(entry) : std::next(entry);
  }
  if (remembered) record.prune(now - kLongDeadSeconds);
  errno = error;
}

koStaleLockRemover::Verdict koStaleLockRemover::judge(const std::string& lockFile,
                                                      FileState* seen) {
  verboseLog << "koStaleLockRemover::update: Updating stale status for " << lockFile << std::endl;
  const OpenLockFile file(lockFile, O_RDONLY, true);
  *seen = file.state();
  const Verdict found = verdictOf(file.look());
  if (found == Verdict::kForeign) warnForeign(lockFile, *seen);
  if (found != Verdict::kLive) {
    if (found == Verdict::kError) {
      warningLog << "koStaleLockRemover::update: read from lock failed" << std::endl;
    }
    sightings_.erase(lockFile);
    return found;
  }
  Sighting& sighting = sight(lockFile, *seen);
  // A file that changes at every poll is a live waiter's: what the host
  // remembers and the server's time are asked only of one that stands
  // still, or looks old.
  if (!sighting.aged &&
      (hostMonotonic() - sighting.firstSeen >= 1.0 ||
       hostRealtime() - static_cast<double>(seen->mtimeSeconds) > kObservationSeconds)) {
    age(lockFile, &sighting);
  }
  // Watched from the first sighting to the look just made, not to now: a
  // look that took long (a hung fresh file) proves nothing about the time
  // after it.
  const double watched = sighting.lastSeen - sighting.firstSeen;
  // The holder's own host may know it ended: that stands in for the wait.
  const bool stale = watched > kObservationSeconds ||
                     sighting.serverAge + watched > kLongDeadSeconds ||
                     korvel_detail::holderEnded(*seen);
  verboseLog << "koStaleLockRemover::update: " << lockFile << " unchanged for " << watched << " s, "
             << sighting.serverAge + watched << " s old by the server" << (stale ? ": stale" : "")
             << std::endl;
  return stale ? Verdict::kStale : Verdict::kLive;
}

koStaleLockRemover::Sighting& koStaleLockRemover::sight(const std::string& lockFile,
                                                        const FileState& state) {
  Sighting& sighting = sightings_[lockFile];
  const double now = hostMonotonic();
  if (sighting.firstSeen == 0.0 || !sighting.state.sameAs(state)) {
    sighting = Sighting();
    sighting.state = state;
    sighting.firstSeen = now;
  }
  sighting.lastSeen = now;
  return sighting;
}

void koStaleLockRemover::age(const std::string& lockFile, Sighting* sighting) {
  const double now = hostMonotonic();
  const double earlier = Sightings().firstSeen(sighting->state);
  if (earlier != 0.0 && earlier < sighting->firstSeen) {
    sighting->firstSeen = earlier;
    sighting->recorded = true;
  }
  sighting->serverAge = serverAge(lockFile, sighting->state) - (now - sighting->firstSeen);
  sighting->aged = true;
}

double koStaleLockRemover::serverAge(const std::string& lockFile, const FileState& state) {
  const std::string fresh = freshNameBeside(lockFile);
  verboseLog << "koStaleLockRemover::update: writing temp file " << fresh << std::endl;
  FileState now;
  if (!writeFreshFile(fresh, static_cast<int>(++freshFileNumbers), &now)) {
    warningLog << "koStaleLockRemover::update: write to temp failed" << std::endl;
    return -1e300;  // unknown: never long dead
  }
  unlinkWithTenacity(fresh, Deadline::afterSeconds(0.02));
  return static_cast<double>(now.mtimeSeconds - state.mtimeSeconds) +
         static_cast<double>(now.mtimeNanos - state.mtimeNanos) / 1e9;
}

void koStaleLockRemover::update(const std::string& lockFile) {
  FileState seen;
  if (judge(lockFile, &seen) == Verdict::kStale) staleFiles.emplace_back(lockFile, seen);
}

Act koStaleLockRemover::removeStaleFile(const Judgement& stale, const Entitled& entitled) {
  const Deadline patience = deadline.capped(0.02);
  Act act;
  while ((act = stale.remove(entitled)) == Act::kError && !isRefusal(errno) && !patience.passed()) {
    sleepWithin(1, patience);
  }
  if (act == Act::kDone) forget(stale);
  if (act != Act::kError || !warned->insert(stale.path()).second) return act;
  const int error = errno;
  // Once per file, not once per poll: its owner can remove it, or root.
  warningLog << "FS_LOCK: cannot remove the stale lock file " << stale.path() << " of user "
             << stale.state().owner << ": " << errorText(error)
             << "; its owner or root can remove it with korvel-lock --clean" << std::endl;
  errno = error;
  return act;
}

void koStaleLockRemover::forget(const Judgement& acted) {
  sightings_.erase(acted.path());
  Sightings().forget(acted.state());
  korvel_detail::forgetEndedHolder(acted.state());
}

double koStaleLockRemover::watchedFor(const std::string& lockFile) const {
  const auto found = sightings_.find(lockFile);
  return found == sightings_.end() ? 0.0 : hostMonotonic() - found->second.firstSeen;
}

void koStaleLockRemover::warnForeign(const std::string& lockFile, const FileState& state) {
  if (!warned->insert(lockFile).second) return;
  warningLog << "FS_LOCK: " << lockFile << " is " << korvel_detail::foreignKind(state.mode)
             << ", not a lock file: it keeps the lock from being taken until it is removed"
             << std::endl;
}
