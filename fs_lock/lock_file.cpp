// Lock-file primitives (see lock_file.h).
#include "fs_lock/lock_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <sstream>

#include "host/host.h"

namespace {

// Makes fresh names unique between threads of this process.
std::atomic<unsigned> freshNameCounter{0};

// The text of a number as written into a lock file, and its length.
struct NumberText {
  explicit NumberText(int value) : length(snprintf(text, sizeof text, "%d", value)) {}
  char text[16];
  int length;
};

// Reads the number at the start of an open file; false when there is none.
bool readNumber(int fd, int& value, off_t* size) {
  char text[64];
  const ssize_t n = hostPread(fd, text, sizeof text - 1, 0);
  if (n <= 0) return false;
  text[n] = '\0';
  if (size != nullptr) *size = n;
  return sscanf(text, "%d", &value) == 1;  // NOLINT(cert-err34-c): content is checked by value
}

}  // namespace

bool readIntFromFile(const char* path, int& value) {
  const int fd = hostOpen(path, O_RDONLY, 0);
  if (fd < 0) return false;
  const bool read = readNumber(fd, value, nullptr);
  hostClose(fd);
  return read;
}

bool writeIntToFile(const char* path, int value) {
  const int fd = hostOpen(path, O_RDWR | O_CREAT | O_TRUNC, 0666);
  if (fd < 0) return false;
  const NumberText number(value);
  const bool written = hostWrite(fd, number.text, number.length) == number.length;
  hostClose(fd);
  return written;
}

bool removeFileWithTenacity(const char* path, const Deadline& deadline) {
  for (;;) {
    if (hostRemoveFile(path) == 0) return true;
    if (deadline.passed()) return false;
    sleepWithin(1, deadline);
  }
}

bool removeFileWithTenacity(const char* path) {
  return removeFileWithTenacity(path, Deadline::afterSeconds(0.02));
}

std::string freshNameBeside(const std::string& path) {
  const unsigned count = ++freshNameCounter;
  std::ostringstream name;
  name << "." << static_cast<unsigned long>(hostRealtime() * 100000.0) << hostProcessId() << count
       << reinterpret_cast<unsigned long>(&name);  // NOLINT: only a distinct number per thread
  const size_t slash = path.rfind('/');
  return (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) + name.str();
}

Create createLockFile(const std::string& directory, const std::string& path, unsigned mode,
                      int value) {
  const int fd = hostOpen(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, mode);
  if (fd >= 0) {
    const NumberText number(value);
    bool written = hostWrite(fd, number.text, number.length) == number.length;
    int error = errno;
    if (hostClose(fd) != 0 && written) {
      written = false;  // a network file system may report the write only here
      error = errno;
    }
    if (written) return Create::kMade;
    // An empty file would read as somebody else's: give it back.
    hostRemoveFile(path.c_str());
    errno = error;
    return Create::kTransient;
  }
  const int error = errno;
  if (error == EEXIST) return Create::kTaken;
  if (directoryGone(directory)) throwNoSuchDirectory(directory);
  struct stat st;
  if (hostStat(path.c_str(), &st) == 0) return Create::kTaken;
  if (!isRefusal(error)) {
    errno = error;
    return Create::kTransient;
  }
  if (error == EACCES || error == EPERM) {
    // Also what a network file system may answer the loser of a race whose
    // winner has already gone again. A fresh name tells the two apart.
    const std::string probe = freshNameBeside(path);
    const int probeFd = hostOpen(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0666);
    if (probeFd >= 0) {
      hostClose(probeFd);
      hostRemoveFile(probe.c_str());
      return Create::kTaken;
    }
  }
  errno = error;
  return Create::kRefused;
}

Owned rewriteIfOurs(const std::string& path, int expected, int value) {
  const int fd = hostOpen(path.c_str(), O_RDWR, 0);
  if (fd < 0) return errno == ENOENT ? Owned::kLost : Owned::kError;
  int found = 0;
  off_t size = 0;
  Owned result = Owned::kLost;
  if (readNumber(fd, found, &size) && found == expected) {
    const NumberText number(value);
    result = hostPwrite(fd, number.text, number.length, 0) == number.length &&
                     (number.length >= size || hostFtruncate(fd, number.length) == 0)
                 ? Owned::kYes
                 : Owned::kError;
  }
  const int error = errno;
  // A network file system may report a failed write only here.
  if (hostClose(fd) != 0 && result == Owned::kYes) return Owned::kError;
  errno = error;
  return result;
}

Owned removeIfOurs(const std::string& path, int expected) {
  const int fd = hostOpen(path.c_str(), O_RDONLY, 0);
  if (fd < 0) return errno == ENOENT ? Owned::kLost : Owned::kError;
  int found = 0;
  const bool read = readNumber(fd, found, nullptr);
  hostClose(fd);
  if (!read || found != expected) return Owned::kLost;
  if (hostRemoveFile(path.c_str()) == 0) return Owned::kYes;
  return errno == ENOENT ? Owned::kLost : Owned::kError;
}

Owned removeIfOursWithin(const std::string& path, int expected, const Deadline& deadline) {
  unsigned backOff = 1;
  for (;;) {
    const Owned result = removeIfOurs(path, expected);
    // Retrying a refusal only delays the warning.
    if (result != Owned::kError || isRefusal(errno) || deadline.passed()) return result;
    const int error = errno;
    sleepWithin(backOff, deadline);
    backOff = std::min(2 * backOff, kMaxBackOffMs);
    errno = error;
  }
}

bool overwrite(const std::string& path, int value) {
  const int fd = hostOpen(path.c_str(), O_WRONLY, 0);
  if (fd < 0) return false;
  const NumberText number(value);
  const bool written = hostPwrite(fd, number.text, number.length, 0) == number.length &&
                       hostFtruncate(fd, number.length) == 0;
  hostClose(fd);
  return written;
}
