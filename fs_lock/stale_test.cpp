// The stale test (see stale_test.h).
#include "fs_lock/stale_test.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "host/host.h"

using korvel_protocol::kLongDeadSeconds;
using korvel_protocol::kObservationSeconds;

namespace {

// A file older than this by the server's clock when first seen has stood
// still for longer than a refresh period: worth remembering.
constexpr double kStillSeconds = korvel_protocol::kRefreshPeriodMs / 1000.0;

// What the stale test writes into its fresh files: nobody reads it.
std::atomic<unsigned> freshFileNumbers{0};

// What this user's processes on this host have seen of lock files: one
// small file per lock file (by device and inode) in a directory of the
// user's own under hostLocalStateDirectory(), holding the state seen and
// when it was first seen on hostMonotonic(), which all processes of the
// host share. Only a directory and files owned by this user, and closed to
// others, are trusted: anyone may write under /dev/shm.
class HostRecord {
 public:
  HostRecord() {
    const char* base = hostLocalStateDirectory();
    if (base == nullptr || *base == '\0') return;
    const uid_t uid = hostUserId();
    const std::string dir = std::string(base) + "/korvel-" + std::to_string(uid);
    hostMkdir(dir.c_str(), 0700);
    struct stat st;
    if (hostLstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != uid ||
        (st.st_mode & 077) != 0) {
      return;
    }
    dir_ = dir;
  }

  // When this host first saw the file in this state, or 0.
  double firstSeen(const FileState& state) const {
    if (dir_.empty()) return 0.0;
    const int fd =
        hostOpen(nameOf(state).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0);
    if (fd < 0) return 0.0;
    char text[160];
    struct stat st;
    const ssize_t n = hostPread(fd, text, sizeof text - 1, 0);
    const bool trusted =
        hostFstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == hostUserId();
    hostClose(fd);
    if (!trusted || n <= 0) return 0.0;
    text[n] = '\0';
    return parse(text, state);
  }

  void remember(const FileState& state, double firstSeen) const {
    if (dir_.empty()) return;
    const std::string name = nameOf(state);
    const std::string temporary = name + "." + std::to_string(hostProcessId());
    char text[160];
    const int length = snprintf(
        text, sizeof text, "%lld %ld %lld %d %d %.6f\n", static_cast<long long>(state.size),
        state.mtimeNanos, state.mtimeSeconds, state.hasNumber ? 1 : 0, state.number, firstSeen);
    const int fd =
        hostOpen(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return;
    const bool written = hostWrite(fd, text, length) == length;
    if (hostClose(fd) == 0 && written && hostRename(temporary.c_str(), name.c_str()) == 0) return;
    hostUnlink(temporary.c_str());
  }

  void forget(const FileState& state) const {
    if (!dir_.empty()) hostUnlink(nameOf(state).c_str());
  }

  // Drops the records of files first seen before `before`: a file as old
  // as that is long dead by the server's clock too, or was changed since.
  void prune(double before) const {
    if (dir_.empty()) return;
    char* listing = hostGetDirList((dir_ + "/seen-*").c_str(), 0);
    if (listing == nullptr) return;
    for (const char* name = listing; *name != '\0'; name += strlen(name) + 1) {
      const std::string path = dir_ + "/" + name;
      const int fd = hostOpen(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0);
      if (fd < 0) continue;
      char text[160];
      const ssize_t n = hostPread(fd, text, sizeof text - 1, 0);
      hostClose(fd);
      double firstSeen = 0.0;
      text[n > 0 ? n : 0] = '\0';
      // NOLINTNEXTLINE(cert-err34-c): a record that does not parse goes too
      if (sscanf(text, "%*d %*d %*d %*d %*d %lf", &firstSeen) != 1 || firstSeen < before) {
        hostUnlink(path.c_str());
      }
    }
    hostFree(listing);
  }

 private:
  std::string nameOf(const FileState& state) const {
    char name[64];
    snprintf(name, sizeof name, "/seen-%" PRIx64 "-%" PRIx64, static_cast<uint64_t>(state.device),
             static_cast<uint64_t>(state.inode));
    return dir_ + name;
  }

  static double parse(const char* text, const FileState& state) {
    long long size = 0;
    long nanos = 0;
    long long seconds = 0;
    int hasNumber = 0;
    int number = 0;
    double firstSeen = 0.0;
    // NOLINTNEXTLINE(cert-err34-c): a record that does not parse is no record
    if (sscanf(text, "%lld %ld %lld %d %d %lf", &size, &nanos, &seconds, &hasNumber, &number,
               &firstSeen) != 6) {
      return 0.0;
    }
    FileState recorded = state;
    recorded.size = size;
    recorded.mtimeNanos = nanos;
    recorded.mtimeSeconds = seconds;
    recorded.hasNumber = hasNumber != 0;
    recorded.number = number;
    return recorded.sameAs(state) ? firstSeen : 0.0;
  }

  std::string dir_;  // empty: no record on this host
};

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

koStaleLockRemover::~koStaleLockRemover() {
  const int error = errno;  // what the attempt that ends here says
  try {
    const HostRecord record;
    const double now = hostMonotonic();
    bool remembered = false;
    for (const auto& entry : sightings_) {
      const Sighting& seen = entry.second;
      // Only a file that stood still for a while may be a dead holder's: a
      // waiter's queue place changes at every poll, a holder's every 5 s.
      const double watched = now - seen.firstSeen;
      if (seen.recorded || (watched < 1.0 && seen.serverAge + watched < kStillSeconds)) continue;
      record.remember(seen.state, seen.firstSeen);
      remembered = true;
    }
    if (remembered) record.prune(now - kLongDeadSeconds);
  } catch (...) {
    // Only a later attempt's patience depends on it.
  }
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
  const Sighting& sighting = sight(lockFile, *seen);
  const double watched = hostMonotonic() - sighting.firstSeen;
  const bool stale =
      watched > kObservationSeconds || sighting.serverAge + watched > kLongDeadSeconds;
  verboseLog << "koStaleLockRemover::update: " << lockFile << " unchanged for " << watched << " s, "
             << sighting.serverAge + watched << " s old by the server" << (stale ? ": stale" : "")
             << std::endl;
  return stale ? Verdict::kStale : Verdict::kLive;
}

koStaleLockRemover::Sighting& koStaleLockRemover::sight(const std::string& lockFile,
                                                        const FileState& state) {
  Sighting& sighting = sightings_[lockFile];
  if (sighting.firstSeen != 0.0 && sighting.state.sameAs(state)) return sighting;
  const double now = hostMonotonic();
  const double earlier = HostRecord().firstSeen(state);
  sighting.state = state;
  sighting.recorded = earlier != 0.0;
  sighting.firstSeen = earlier != 0.0 && earlier < now ? earlier : now;
  sighting.serverAge = serverAge(lockFile, state) - (now - sighting.firstSeen);
  return sighting;
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
  if (act == Act::kDone) {
    HostRecord().forget(stale.state());
    forget(stale.path());
  }
  if (act != Act::kError || !warned->insert(stale.path()).second) return act;
  const int error = errno;
  // Once per file, not once per poll: its owner can remove it, or root.
  warningLog << "FS_LOCK: cannot remove the stale lock file " << stale.path() << " of user "
             << stale.state().owner << ": " << errorText(error)
             << "; its owner or root can remove it with korvel-lock --clean" << std::endl;
  errno = error;
  return act;
}

void koStaleLockRemover::forget(const std::string& lockFile) {
  sightings_.erase(lockFile);
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
