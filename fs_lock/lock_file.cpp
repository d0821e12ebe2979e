// Lock-file primitives (see lock_file.h).
#include "fs_lock/lock_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <sstream>

#include "host/host.h"

namespace {

// Never a link at the name, never a wait on a FIFO, never a terminal.
constexpr int kSafeOpen = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

// Makes fresh names unique between threads of this process.
std::atomic<unsigned> freshNameCounter{0};

// The text of a number as written into a lock file, and its length.
struct NumberText {
  explicit NumberText(int value) : length(snprintf(text, sizeof text, "%d", value)) {}
  char text[16];
  int length;
};

void takeAttributes(const struct stat& st, FileState* state) {
  state->device = st.st_dev;
  state->inode = st.st_ino;
  state->size = st.st_size;
  state->mtimeSeconds = st.st_mtim.tv_sec;
  state->mtimeNanos = st.st_mtim.tv_nsec;
  state->owner = st.st_uid;
  state->mode = st.st_mode;
}

// Reads the number at the start of an open file into state.
void readNumber(int fd, FileState* state) {
  char text[64];
  const ssize_t n = hostPread(fd, text, sizeof text - 1, 0);
  state->hasNumber = false;
  if (n <= 0) return;
  text[n] = '\0';
  // NOLINTNEXTLINE(cert-err34-c): a number that does not parse is no number
  state->hasNumber = sscanf(text, "%d", &state->number) == 1;
}

Look lookOf(const struct stat& st) {
  return S_ISREG(st.st_mode) ? Look::kFile : Look::kForeign;
}

}  // namespace

namespace korvel_detail {

bool FileState::sameAs(const FileState& other) const {
  return device == other.device && inode == other.inode && size == other.size &&
         mtimeSeconds == other.mtimeSeconds && mtimeNanos == other.mtimeNanos &&
         hasNumber == other.hasNumber && (!hasNumber || number == other.number);
}

const char* foreignKind(mode_t mode) {
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISLNK(mode)) return "a symbolic link";
  if (S_ISSOCK(mode)) return "a socket";
  if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device";
  return "not a regular file";
}

OpenLockFile::OpenLockFile(const std::string& path, int flags, bool nameFirst) {
  if (nameFirst) {
    look_ = lookAtName(path, &state_);
    if (look_ != Look::kFile) return;
  }
  fd_ = hostOpen(path.c_str(), flags | kSafeOpen, 0);
  if (fd_ < 0) {
    const int error = errno;
    // A link at the name: say what it is, as a look at the name would.
    if (error == ELOOP || error == ENXIO) {
      look_ = lookAtName(path, &state_);
      if (look_ == Look::kFile) look_ = Look::kError;  // replaced meanwhile
    } else {
      look_ = error == ENOENT ? Look::kMissing : Look::kError;
    }
    errno = error;
    return;
  }
  struct stat st;
  if (hostFstat(fd_, &st) != 0) {
    look_ = Look::kError;
    return;
  }
  takeAttributes(st, &state_);
  look_ = lookOf(st);
  if (look_ == Look::kFile) readNumber(fd_, &state_);
}

OpenLockFile::~OpenLockFile() {
  if (fd_ >= 0) hostClose(fd_);
}

bool OpenLockFile::write(int value) {
  const NumberText number(value);
  struct stat st;
  if (hostPwrite(fd_, number.text, number.length, 0) != number.length ||
      (number.length < state_.size && hostFtruncate(fd_, number.length) != 0) ||
      hostFstat(fd_, &st) != 0) {
    return false;
  }
  takeAttributes(st, &state_);
  state_.hasNumber = true;
  state_.number = value;
  return true;
}

bool OpenLockFile::close() {
  const int fd = fd_;
  fd_ = -1;
  return fd < 0 || hostClose(fd) == 0;
}

Look lookAtName(const std::string& path, FileState* state) {
  struct stat st;
  if (hostLstat(path.c_str(), &st) != 0) return errno == ENOENT ? Look::kMissing : Look::kError;
  takeAttributes(st, state);
  state->hasNumber = false;
  return lookOf(st);
}

namespace {

// The common part of every act: the actor's right first, then the file.
// kDone means: open, and the one judged.
Act check(const OpenLockFile& file, const FileState& judged) {
  switch (file.look()) {
    case Look::kFile:
      return file.state().sameAs(judged) ? Act::kDone : Act::kChanged;
    case Look::kMissing:
    case Look::kForeign:
      return Act::kChanged;
    case Look::kError:
      break;
  }
  return Act::kError;
}

}  // namespace

Act Judgement::remove(const Entitled& entitled) const {
  if (!entitled()) return Act::kNotEntitled;
  OpenLockFile file(path_, O_RDONLY);
  const Act checked = check(file, state_);
  if (checked != Act::kDone) return checked;
  file.close();
  if (hostUnlink(path_.c_str()) == 0) return Act::kDone;
  return errno == ENOENT ? Act::kChanged : Act::kError;
}

Act Judgement::writeOver(int value, const Entitled& entitled, FileState* written) const {
  if (!entitled()) return Act::kNotEntitled;
  OpenLockFile file(path_, O_RDWR);
  const Act checked = check(file, state_);
  if (checked != Act::kDone) return checked;
  if (!file.write(value)) return Act::kError;
  *written = file.state();
  if (!file.close()) return Act::kError;
  // Replaced between the check and the write: the write went to a file
  // nobody sees any more.
  FileState now;
  if (lookAtName(path_, &now) != Look::kFile || now.device != written->device ||
      now.inode != written->inode) {
    return Act::kChanged;
  }
  return Act::kDone;
}

}  // namespace korvel_detail

namespace {

// A create failed with nothing of that name there: is it a refusal, or
// could a retry succeed? EACCES and EPERM are also what a network file
// system may answer the loser of a race whose winner has gone again: a
// fresh name tells the two apart.
Create examineFailedCreate(const std::string& path, int error) {
  if (!isRefusal(error)) {
    errno = error;
    return Create::kTransient;
  }
  if (error == EACCES || error == EPERM) {
    FileState probe;
    const std::string fresh = freshNameBeside(path);
    if (writeFreshFile(fresh, 0, &probe)) {
      hostUnlink(fresh.c_str());
      return Create::kTaken;
    }
  }
  errno = error;
  return Create::kRefused;
}

}  // namespace

Create createLockFile(const std::string& directory, const std::string& path, unsigned mode,
                      int value, FileState* made) {
  // O_EXCL never follows a link at the name: a link, dangling or not, is
  // something of that name.
  const int fd = hostOpen(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd >= 0) {
    const NumberText number(value);
    struct stat st;
    bool written =
        hostWrite(fd, number.text, number.length) == number.length && hostFstat(fd, &st) == 0;
    int error = errno;
    if (hostClose(fd) != 0 && written) {
      written = false;  // a network file system may report the write only here
      error = errno;
    }
    if (written) {
      if (made != nullptr) {
        takeAttributes(st, made);
        made->hasNumber = true;
        made->number = value;
      }
      return Create::kMade;
    }
    // An empty file would read as somebody else's: give it back.
    hostUnlink(path.c_str());
    errno = error;
    return Create::kTransient;
  }
  const int error = errno;
  if (error == EEXIST) return Create::kTaken;
  if (directoryGone(directory)) throwNoSuchDirectory(directory);
  FileState there;
  const Look look = lookAtName(path, &there);
  if (look == Look::kFile || look == Look::kForeign) return Create::kTaken;
  return examineFailedCreate(path, error);
}

bool writeFreshFile(const std::string& path, int value, FileState* made) {
  const int fd = hostOpen(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  const NumberText number(value);
  struct stat st;
  const bool written =
      hostWrite(fd, number.text, number.length) == number.length && hostFstat(fd, &st) == 0;
  if (hostClose(fd) != 0 || !written) {
    hostUnlink(path.c_str());
    return false;
  }
  takeAttributes(st, made);
  made->hasNumber = true;
  made->number = value;
  return true;
}

bool unlinkWithTenacity(const std::string& path, const Deadline& deadline) {
  for (;;) {
    if (hostUnlink(path.c_str()) == 0) return true;
    if (deadline.passed()) return false;
    sleepWithin(1, deadline);
  }
}

std::string freshNameBeside(const std::string& path) {
  const unsigned count = ++freshNameCounter;
  std::ostringstream name;
  name << "." << static_cast<unsigned long>(hostRealtime() * 100000.0) << hostProcessId() << count
       << reinterpret_cast<unsigned long>(&name);  // NOLINT: only a distinct number per thread
  const size_t slash = path.rfind('/');
  return (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) + name.str();
}
