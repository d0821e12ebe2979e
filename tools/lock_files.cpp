#include "tools/lock_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "fs_lock/protocol.h"
#include "fs_lock/stale_test.h"
#include "host/host.h"

namespace korvel_tool {
namespace {

// The protocol's names without their leading '/'.
const std::string kWriteName = korvel_protocol::kWriteLockName + 1;
const std::string kReadPrefix = korvel_protocol::kReadLockPrefix + 1;
const std::string kLevelPrefix = korvel_protocol::kLevelPrefix + 1;
const std::string kProbePrefix = ".korvel-lock-probe.";
// The stale test's fresh names are "." and a time, a process id, a count and
// an address in decimal: never fewer digits than this. Shorter ones belong
// to somebody else.
constexpr size_t kStaleTestDigits = 30;

bool allDigits(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

bool classify(const std::string& name, LockFile* file) {
  file->name = name;
  const auto numbered = [&](const std::string& prefix) {
    return name.rfind(prefix, 0) == 0 && allDigits(name.substr(prefix.size()));
  };
  if (name == kWriteName) {
    file->kind = Kind::kWrite;
  } else if (numbered(kReadPrefix)) {
    file->kind = Kind::kRead;
  } else if (numbered(kLevelPrefix)) {
    file->level = atoi(name.c_str() + kLevelPrefix.size());
    file->kind = file->level == 0 ? Kind::kDirectory : Kind::kQueue;
  } else if (name.size() > kStaleTestDigits && numbered(".")) {
    file->kind = Kind::kStaleTest;
  } else if (name.size() == kProbePrefix.size() + 6 && name.rfind(kProbePrefix, 0) == 0) {
    file->kind = Kind::kProbe;
  } else {
    return false;
  }
  return true;
}

// Never follows a link and never opens: a planted FIFO cannot block it.
bool statFile(const std::string& path, LockFile* file) {
  struct statx st;
  if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &st) !=
      0) {
    return false;
  }
  const mode_t type = st.stx_mode & S_IFMT;
  file->foreign = type == S_IFREG    ? nullptr
                  : type == S_IFIFO  ? "a FIFO"
                  : type == S_IFDIR  ? "a directory"
                  : type == S_IFLNK  ? "a symbolic link"
                  : type == S_IFSOCK ? "a socket"
                                     : "a device";
  file->type = type == S_IFREG    ? "file"
               : type == S_IFIFO  ? "fifo"
               : type == S_IFDIR  ? "directory"
               : type == S_IFLNK  ? "symlink"
               : type == S_IFSOCK ? "socket"
                                  : "device";
  file->owner = st.stx_uid;
  file->mtime = st.stx_mtime.tv_sec;
  file->mtimeNanos = st.stx_mtime.tv_nsec;
  file->birth = (st.stx_mask & STATX_BTIME) != 0 ? st.stx_btime.tv_sec : 0;
  file->inode = st.stx_ino;
  file->size = static_cast<off_t>(st.stx_size);
  return true;
}

std::string kindName(Kind kind) {
  switch (kind) {
    case Kind::kWrite:
      return "write lock";
    case Kind::kRead:
      return "read lock";
    case Kind::kDirectory:
      return "internal directory lock";
    case Kind::kQueue:
      return "internal directory lock, queue place";
    case Kind::kStaleTest:
      return "stale-test file";
    case Kind::kProbe:
      return "korvel-lock clock probe";
  }
  return "";
}

}  // namespace

bool listLockFiles(const std::string& directory, std::vector<LockFile>* files, std::string* what) {
  files->clear();
  DIR* dir = opendir(directory.c_str());
  if (dir == nullptr) {
    *what = "cannot list it";
    return false;
  }
  bool ok = true;
  for (;;) {
    errno = 0;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): a stream of this call's own
    const dirent* entry = readdir(dir);
    if (entry == nullptr) {
      ok = errno == 0;
      if (!ok) *what = "cannot list it";
      break;
    }
    LockFile file;
    if (!classify(entry->d_name, &file)) continue;
    if (statFile(directory + "/" + file.name, &file)) {
      files->push_back(file);
    } else if (errno != ENOENT) {  // gone since it was listed: not there
      *what = "cannot examine " + file.name;
      ok = false;
      break;
    }
  }
  const int error = errno;
  closedir(dir);
  errno = error;
  std::sort(files->begin(), files->end(),
            [](const LockFile& a, const LockFile& b) { return a.name < b.name; });
  return ok;
}

bool serverNow(const std::string& directory, time_t* now) {
  std::string probe = directory + "/" + kProbePrefix + "XXXXXX";
  const int fd = mkstemp(probe.data());
  if (fd < 0) {
    *now = time(nullptr);
    return false;
  }
  struct stat st;
  const bool ok = write(fd, "0", 1) == 1 && fstat(fd, &st) == 0;
  close(fd);
  unlink(probe.c_str());
  *now = ok ? st.st_mtime : time(nullptr);
  return ok;
}

double ageOf(const LockFile& file, time_t now) {
  return difftime(now, file.mtime);
}

// Whole seconds of the server's clock on both sides, as the library judges.
bool isStale(const LockFile& file, time_t now) {
  return file.foreign == nullptr && ageOf(file, now) > korvel_protocol::kStaleSeconds;
}

std::vector<Judgement> confirmDead(const std::string& directory, const std::vector<LockFile>& files,
                                   time_t now, double watch) {
  koStaleLockRemover judge;
  std::vector<Judgement> dead;
  std::vector<const LockFile*> pending;
  for (const LockFile& file : files) {
    if (file.foreign == nullptr && file.kind != Kind::kStaleTest && file.kind != Kind::kProbe) {
      pending.push_back(&file);
    }
  }
  const double until = hostMonotonic() + watch;
  for (bool first = true; !pending.empty(); first = false) {
    std::vector<const LockFile*> still;
    for (const LockFile* file : pending) {
      FileState seen;
      const std::string path = directory + "/" + file->name;
      switch (judge.judge(path, &seen)) {
        case koStaleLockRemover::Verdict::kStale:
          dead.emplace_back(path, seen);
          break;
        case koStaleLockRemover::Verdict::kLive:
          // Only a file that looks stale is worth watching.
          if (isStale(*file, now) && (first || seen.inode == file->inode)) still.push_back(file);
          break;
        default:
          break;
      }
    }
    pending.swap(still);
    if (pending.empty() || hostMonotonic() >= until) break;
    hostSleepMilliseconds(100);
  }
  judge.remember();
  return dead;
}

const Judgement* judgementOf(const std::vector<Judgement>& judged, const std::string& directory,
                             const LockFile& file) {
  for (const Judgement& j : judged) {
    if (j.path() == directory + "/" + file.name) return &j;
  }
  return nullptr;
}

void forgetRemoved(const Judgement& dead) {
  koStaleLockRemover().forget(dead);
}

bool isHolder(Kind kind) {
  return kind == Kind::kWrite || kind == Kind::kRead || kind == Kind::kDirectory;
}

std::string describe(const LockFile& file) {
  std::string kind = kindName(file.kind);
  if (file.kind == Kind::kQueue) kind += " " + std::to_string(file.level);
  if (file.foreign != nullptr) return std::string(file.foreign) + " in the place of the " + kind;
  return kind;
}

const char* jsonKind(Kind kind) {
  switch (kind) {
    case Kind::kWrite:
      return "write";
    case Kind::kRead:
      return "read";
    case Kind::kDirectory:
      return "directory";
    case Kind::kQueue:
      return "queue";
    case Kind::kStaleTest:
      return "stale-test";
    case Kind::kProbe:
      return "probe";
  }
  return "";
}

std::string ownerName(uid_t owner) {
  struct passwd entry;
  struct passwd* found = nullptr;
  char buffer[1024];
  if (getpwuid_r(owner, &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr) {
    return found->pw_name;
  }
  return std::to_string(owner);
}

bool mayRemove(const std::string& directory, const LockFile& file) {
  if (geteuid() == 0) return true;
  struct stat st;
  if (access(directory.c_str(), W_OK | X_OK) != 0 || stat(directory.c_str(), &st) != 0) {
    return false;
  }
  return (st.st_mode & S_ISVTX) == 0 || file.owner == geteuid() || st.st_uid == geteuid();
}

bool removeIfUnchanged(const std::string& directory, const LockFile& file) {
  const std::string path = directory + "/" + file.name;
  LockFile now;
  if (!statFile(path, &now) || now.inode != file.inode || now.type != file.type ||
      now.mtime != file.mtime || now.mtimeNanos != file.mtimeNanos || now.size != file.size) {
    errno = 0;
    return false;
  }
  // A holder that takes the file over between this check and the unlink
  // loses it: the same microseconds-wide window as the library's own
  // read-then-remove.
  return (strcmp(file.type, "directory") == 0 ? rmdir(path.c_str()) : unlink(path.c_str())) == 0;
}

std::string blockers(const std::string& directory, bool shared, time_t* since) {
  int writers = 0;
  int readers = 0;
  bool directoryLock = false;
  time_t oldest = 0;
  time_t directoryBirth = 0;
  std::vector<LockFile> files;
  std::string what;
  listLockFiles(directory, &files, &what);
  for (const LockFile& file : files) {
    if (file.foreign != nullptr) continue;  // obstacle() tells of those
    if (file.kind == Kind::kDirectory) {
      directoryLock = true;
      directoryBirth = file.birth;
    } else if (file.kind == Kind::kWrite || (file.kind == Kind::kRead && !shared)) {
      ++(file.kind == Kind::kWrite ? writers : readers);
      if (file.birth != 0 && (oldest == 0 || file.birth < oldest)) oldest = file.birth;
    }
  }
  std::string who;
  if (writers > 0) {
    who = "a writer";
  } else if (readers > 0) {
    who = readers == 1 ? "a reader" : std::to_string(readers) + " readers";
  } else if (directoryLock) {
    // Held for more than moments only by a user of the exclusive directory
    // lock on the same directory.
    who = "the internal directory lock";
    oldest = directoryBirth;
  }
  *since = oldest;
  return who;
}

std::string obstacle(const std::string& directory, bool* unbreakable) {
  *unbreakable = false;
  std::vector<LockFile> files;
  std::string what;
  listLockFiles(directory, &files, &what);
  time_t now = 0;
  bool nowKnown = false;
  for (const LockFile& file : files) {
    const std::string at = "'" + file.name + "' in '" + directory + "'";
    if (file.foreign != nullptr) {
      return at + " is " + file.foreign +
             ", not a lock file: the lock cannot be had while it is there; remove it, or run "
             "korvel-lock --clean --force '" +
             directory + "'";
    }
    if (file.kind == Kind::kStaleTest || file.kind == Kind::kProbe) continue;
    if (!nowKnown) nowKnown = (serverNow(directory, &now), true);
    if (!isStale(file, now) || mayRemove(directory, file)) continue;
    *unbreakable = true;
    const std::string owner = ownerName(file.owner);
    char age[32];
    snprintf(age, sizeof age, "%.0f", ageOf(file, now));
    return at + " (" + describe(file) + ", " + age + " s old) was left by a process that died, " +
           "but it belongs to user " + owner + " and this user may not remove it; " +
           (owner == "root" ? "" : owner + " or ") + "root can, with korvel-lock --clean '" +
           directory + "'";
  }
  return "";
}

}  // namespace korvel_tool
