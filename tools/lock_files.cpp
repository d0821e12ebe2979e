#include "tools/lock_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "fs_lock/protocol.h"

namespace korvel_tool {
namespace {

// The protocol's names without their leading '/'.
const std::string kWriteName = korvel_protocol::kWriteLockName + 1;
const std::string kReadPrefix = korvel_protocol::kReadLockPrefix + 1;
const std::string kLevelPrefix = korvel_protocol::kLevelPrefix + 1;

bool allDigits(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

bool classify(const std::string& name, LockFile* file) {
  file->name = name;
  if (name == kWriteName) {
    file->kind = Kind::kWrite;
  } else if (name.rfind(kReadPrefix, 0) == 0) {
    file->kind = Kind::kRead;
  } else if (name.rfind(kLevelPrefix, 0) == 0 && allDigits(name.substr(kLevelPrefix.size()))) {
    file->level = atoi(name.c_str() + kLevelPrefix.size());
    file->kind = file->level == 0 ? Kind::kDirectory : Kind::kQueue;
  } else if (name.size() > 1 && name[0] == '.' && allDigits(name.substr(1))) {
    file->kind = Kind::kStaleTest;
  } else {
    return false;
  }
  return true;
}

bool statFile(const std::string& path, LockFile* file) {
  struct statx st;
  if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &st) !=
          0 ||
      !S_ISREG(st.stx_mode)) {
    return false;
  }
  file->mtime = st.stx_mtime.tv_sec;
  file->mtimeNanos = st.stx_mtime.tv_nsec;
  file->birth = (st.stx_mask & STATX_BTIME) != 0 ? st.stx_btime.tv_sec : 0;
  file->inode = st.stx_ino;
  file->size = static_cast<off_t>(st.stx_size);
  return true;
}

}  // namespace

std::vector<LockFile> listLockFiles(const std::string& directory) {
  std::vector<LockFile> files;
  DIR* dir = opendir(directory.c_str());
  if (dir == nullptr) return files;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): a stream of this call's own
  while (const dirent* entry = readdir(dir)) {
    LockFile file;
    if (classify(entry->d_name, &file) && statFile(directory + "/" + file.name, &file)) {
      files.push_back(file);
    }
  }
  closedir(dir);
  std::sort(files.begin(), files.end(),
            [](const LockFile& a, const LockFile& b) { return a.name < b.name; });
  return files;
}

bool serverNow(const std::string& directory, time_t* now) {
  std::string probe = directory + "/.korvel-lock-probe.XXXXXX";
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
  return ageOf(file, now) > korvel_protocol::kStaleSeconds;
}

bool isHolder(Kind kind) {
  return kind == Kind::kWrite || kind == Kind::kRead || kind == Kind::kDirectory;
}

std::string describe(const LockFile& file) {
  switch (file.kind) {
    case Kind::kWrite:
      return "write lock";
    case Kind::kRead:
      return "read lock";
    case Kind::kDirectory:
      return "internal directory lock";
    case Kind::kQueue:
      return "internal directory lock, queue place " + std::to_string(file.level);
    case Kind::kStaleTest:
      return "stale-test file";
  }
  return "";
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
  }
  return "";
}

bool removeIfUnchanged(const std::string& directory, const LockFile& file) {
  const std::string path = directory + "/" + file.name;
  LockFile now;
  if (!statFile(path, &now) || now.inode != file.inode || now.mtime != file.mtime ||
      now.mtimeNanos != file.mtimeNanos || now.size != file.size) {
    return false;
  }
  // A holder that takes the file over between this check and the unlink
  // loses it: the same microseconds-wide window as the library's own
  // read-then-remove.
  return unlink(path.c_str()) == 0;
}

std::string blockers(const std::string& directory, bool shared, time_t* since) {
  int writers = 0;
  int readers = 0;
  bool directoryLock = false;
  time_t oldest = 0;
  time_t directoryBirth = 0;
  for (const LockFile& file : listLockFiles(directory)) {
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

}  // namespace korvel_tool
