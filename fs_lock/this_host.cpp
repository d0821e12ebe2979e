// What this host knows of lock files (see this_host.h).
#include "fs_lock/this_host.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "host/host.h"

namespace korvel_detail {
namespace {

constexpr int kPrivate = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

std::atomic<bool> keepAcrossExec{false};

// Reads a small file of the host's place: its text, if it is a regular
// file owned by one of the trusted users.
bool readTrusted(const std::string& path, uid_t owner, char* text, size_t size) {
  const int fd = hostOpen(path.c_str(), O_RDONLY | kPrivate, 0);
  if (fd < 0) return false;
  struct stat st;
  const ssize_t n = hostPread(fd, text, size - 1, 0);
  const bool trusted = hostFstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
                       (st.st_uid == owner || st.st_uid == 0) && n > 0;
  hostClose(fd);
  text[n > 0 ? n : 0] = '\0';
  return trusted;
}

std::string identity(const FileState& state) {
  char text[48];
  snprintf(text, sizeof text, "%" PRIx64 "-%" PRIx64, static_cast<uint64_t>(state.device),
           static_cast<uint64_t>(state.inode));
  return text;
}

// The registry: shared by all users of the host, so sticky and open to
// all. Empty when there is no place for it. Looked for once per place.
std::string registry() {
  static std::mutex mutex;
  static std::string base;  // guarded by mutex, as is found
  static std::string found;
  const char* now = hostLocalStateDirectory();
  if (now == nullptr || *now == '\0') return std::string();
  std::lock_guard<std::mutex> lock(mutex);
  if (base == now && !found.empty()) return found;
  base = now;
  const std::string dir = base + "/korvel-holders";
  if (hostMkdir(dir.c_str(), 01777) == 0) hostChmod(dir.c_str(), 01777);  // past the umask
  struct stat st;
  const bool usable = hostLstat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
  found = usable ? dir : std::string();
  return found;
}

std::string registrationName(const std::string& dir, const FileState& state) {
  return dir + "/" + identity(state) + "-" + std::to_string(state.number);
}

std::string registrationText(const FileState& state) {
  return identity(state) + " " + std::to_string(state.number) + "\n";
}

}  // namespace

// ---- Sightings ----

Sightings::Sightings() {
  static std::mutex mutex;
  static std::string base;  // guarded by mutex, as is found
  static std::string found;
  const char* now = hostLocalStateDirectory();
  if (now == nullptr || *now == '\0') return;
  std::lock_guard<std::mutex> lock(mutex);
  if (base != now || found.empty()) {
    base = now;
    const uid_t uid = hostUserId();
    const std::string dir = base + "/korvel-" + std::to_string(uid);
    hostMkdir(dir.c_str(), 0700);
    struct stat st;
    // Not one planted by someone else, nor one opened to others.
    const bool own = hostLstat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == uid &&
                     (st.st_mode & 077) == 0;
    found = own ? dir : std::string();
  }
  dir_ = found;
}

std::string Sightings::nameOf(const FileState& state) const {
  return dir_ + "/seen-" + identity(state);
}

double Sightings::firstSeen(const FileState& state) const {
  char text[160];
  if (dir_.empty() || !readTrusted(nameOf(state), hostUserId(), text, sizeof text)) return 0.0;
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

void Sightings::remember(const FileState& state, double firstSeen) const {
  if (dir_.empty()) return;
  const std::string name = nameOf(state);
  const std::string temporary = name + "." + std::to_string(hostProcessId());
  char text[160];
  const int length = snprintf(text, sizeof text, "%lld %ld %lld %d %d %.6f\n",
                              static_cast<long long>(state.size), state.mtimeNanos,
                              state.mtimeSeconds, state.hasNumber ? 1 : 0, state.number, firstSeen);
  const int fd = hostOpen(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | kPrivate, 0600);
  if (fd < 0) return;
  const bool written = hostWrite(fd, text, length) == length;
  if (hostClose(fd) == 0 && written && hostRename(temporary.c_str(), name.c_str()) == 0) return;
  hostUnlink(temporary.c_str());
}

void Sightings::forget(const FileState& state) const {
  if (!dir_.empty()) hostUnlink(nameOf(state).c_str());
}

void Sightings::prune(double before) const {
  if (dir_.empty()) return;
  char* listing = hostGetDirList((dir_ + "/seen-*").c_str(), 0);
  if (listing == nullptr) return;
  for (const char* name = listing; *name != '\0'; name += strlen(name) + 1) {
    const std::string path = dir_ + "/" + name;
    char text[160];
    double firstSeen = 0.0;
    // A record that does not parse goes too.
    if (!readTrusted(path, hostUserId(), text, sizeof text) ||
        sscanf(text, "%*d %*d %*d %*d %*d %lf", &firstSeen) != 1 ||  // NOLINT(cert-err34-c)
        firstSeen < before) {
      hostUnlink(path.c_str());
    }
  }
  hostFree(listing);
}

// ---- Holders ----

Registration::Registration(const FileState& written) : owner_(hostProcessId()) {
  const std::string dir = registry();
  if (dir.empty()) return;
  // Made under a name of its own, locked, then given its name: never found
  // unlocked while its holder lives.
  const std::string name = registrationName(dir, written);
  const std::string fresh = name + "." + std::to_string(owner_) + ".new";
  const int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | (keepAcrossExec ? 0 : O_CLOEXEC);
  const int fd = hostOpen(fresh.c_str(), flags, 0644);
  if (fd < 0) return;
  const std::string text = registrationText(written);
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  if (hostWrite(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
      hostLockControl(fd, F_OFD_SETLK, &lock) != 0 ||
      hostRename(fresh.c_str(), name.c_str()) != 0) {
    hostUnlink(fresh.c_str());
    hostClose(fd);
    return;
  }
  fd_ = fd;
  path_ = name;
}

Registration::~Registration() {
  if (fd_ < 0 || owner_ != hostProcessId()) return;  // a forked child's copy
  hostUnlink(path_.c_str());
  hostClose(fd_);
}

void Registration::update(const FileState& written) {
  if (fd_ < 0 || owner_ != hostProcessId()) return;
  const std::string text = registrationText(written);
  const std::string name = registrationName(path_.substr(0, path_.rfind('/')), written);
  // The text first: until the rename, the old name speaks of a number that
  // the lock file no longer holds, and nobody trusts it.
  if (hostPwrite(fd_, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()) &&
      hostFtruncate(fd_, static_cast<off_t>(text.size())) == 0 &&
      hostRename(path_.c_str(), name.c_str()) == 0) {
    path_ = name;
  }
}

namespace {

// Opens state's registration, in *fd, when it is trusted and nobody keeps
// it locked: its holder has ended.
bool endedRegistration(const FileState& state, std::string* name, int* fd) {
  if (!state.hasNumber) return false;
  const std::string dir = registry();
  if (dir.empty()) return false;
  *name = registrationName(dir, state);
  *fd = hostOpen(name->c_str(), O_RDONLY | kPrivate, 0);
  if (*fd < 0) return false;
  struct stat st;
  char text[96];
  const ssize_t n = hostPread(*fd, text, sizeof text - 1, 0);
  text[n > 0 ? n : 0] = '\0';
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  // Only the lock file's owner, or root, speaks for its holder.
  const bool ended = hostFstat(*fd, &st) == 0 && S_ISREG(st.st_mode) &&
                     (st.st_uid == state.owner || st.st_uid == 0) &&
                     registrationText(state) == text &&
                     hostLockControl(*fd, F_OFD_GETLK, &lock) == 0 && lock.l_type == F_UNLCK;
  if (!ended) hostClose(*fd);
  return ended;
}

}  // namespace

bool holderEnded(const FileState& state) {
  std::string name;
  int fd = -1;
  if (!endedRegistration(state, &name, &fd)) return false;
  hostClose(fd);
  return true;
}

void forgetEndedHolder(const FileState& state) {
  std::string name;
  int fd = -1;
  if (!endedRegistration(state, &name, &fd)) return;
  hostUnlink(name.c_str());
  hostClose(fd);
}

void keepRegistrationsAcrossExec(bool keep) {
  keepAcrossExec = keep;
}

}  // namespace korvel_detail
