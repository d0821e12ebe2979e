// Default file services: the system calls themselves.
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstdio>

#include "host/defaults.h"
#include "host/host.h"

extern "C" {

int hostDefaultRemoveFile(const char* path) {
  return remove(path);
}

int hostDefaultUnlink(const char* path) {
  return unlink(path);
}

int hostDefaultRename(const char* from, const char* to) {
  return rename(from, to);
}

int hostDefaultRenameExclusive(const char* from, const char* to) {
  return renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
}

const char* hostDefaultLocalStateDirectory() {
  return "/dev/shm";
}

int hostDefaultInotifyInit(int flags) {
  return inotify_init1(flags);
}

int hostDefaultInotifyAddWatch(int fd, const char* path, uint32_t mask) {
  return inotify_add_watch(fd, path, mask);
}

int hostDefaultInotifyRmWatch(int fd, int watch) {
  return inotify_rm_watch(fd, watch);
}

int hostDefaultWaitReadable(int fd, int ms) {
  struct pollfd wanted = {fd, POLLIN, 0};
  return poll(&wanted, 1, ms);
}

int hostDefaultLockControl(int fd, int command, struct flock* lock) {
  return fcntl(fd, command, lock);  // NOLINT(cppcoreguidelines-pro-type-vararg)
}

int hostDefaultOpenAndClose(const char* path, int flags, unsigned mode) {
  const int fd = hostOpen(path, flags, mode);
  if (fd < 0) return -1;
  hostClose(fd);
  return 0;
}

int hostDefaultOpen(const char* path, int flags, unsigned mode) {
  return open(path, flags, static_cast<mode_t>(mode));  // NOLINT(cppcoreguidelines-pro-type-vararg)
}

int hostDefaultClose(int fd) {
  return close(fd);
}

ssize_t hostDefaultRead(int fd, void* buffer, size_t size) {
  return read(fd, buffer, size);
}

ssize_t hostDefaultWrite(int fd, const void* buffer, size_t size) {
  return write(fd, buffer, size);
}

ssize_t hostDefaultPread(int fd, void* buffer, size_t size, off_t offset) {
  return pread(fd, buffer, size, offset);
}

ssize_t hostDefaultPwrite(int fd, const void* buffer, size_t size, off_t offset) {
  return pwrite(fd, buffer, size, offset);
}

int hostDefaultFtruncate(int fd, off_t length) {
  return ftruncate(fd, length);
}

int hostDefaultFstat(int fd, struct stat* st) {
  return fstat(fd, st);
}

int hostDefaultFutimens(int fd, const struct timespec times[2]) {
  return futimens(fd, times);
}

int hostDefaultStat(const char* path, struct stat* st) {
  return stat(path, st);
}

int hostDefaultLstat(const char* path, struct stat* st) {
  return lstat(path, st);
}

int hostDefaultStatAt(int dirfd, const char* name, struct stat* st) {
  return fstatat(dirfd, name, st, 0);
}

int hostDefaultStatfs(const char* path, struct statfs* st) {
  return statfs(path, st);
}

int hostDefaultStatvfs(const char* path, struct statvfs* st) {
  return statvfs(path, st);
}

char* hostDefaultRealpath(const char* path, char* resolved) {
  return realpath(path, resolved);
}

int hostDefaultMkdir(const char* path, unsigned mode) {
  return mkdir(path, static_cast<mode_t>(mode));
}

int hostDefaultChmod(const char* path, unsigned mode) {
  return chmod(path, static_cast<mode_t>(mode));
}

}  // extern "C"

KORVEL_WEAK_DEFAULT(hostRemoveFile, hostDefaultRemoveFile);
KORVEL_WEAK_DEFAULT(hostUnlink, hostDefaultUnlink);
KORVEL_WEAK_DEFAULT(hostRename, hostDefaultRename);
KORVEL_WEAK_DEFAULT(hostRenameExclusive, hostDefaultRenameExclusive);
KORVEL_WEAK_DEFAULT(hostLocalStateDirectory, hostDefaultLocalStateDirectory);
KORVEL_WEAK_DEFAULT(hostInotifyInit, hostDefaultInotifyInit);
KORVEL_WEAK_DEFAULT(hostInotifyAddWatch, hostDefaultInotifyAddWatch);
KORVEL_WEAK_DEFAULT(hostInotifyRmWatch, hostDefaultInotifyRmWatch);
KORVEL_WEAK_DEFAULT(hostWaitReadable, hostDefaultWaitReadable);
KORVEL_WEAK_DEFAULT(hostLockControl, hostDefaultLockControl);
KORVEL_WEAK_DEFAULT(hostOpenAndClose, hostDefaultOpenAndClose);
KORVEL_WEAK_DEFAULT(hostOpen, hostDefaultOpen);
KORVEL_WEAK_DEFAULT(hostClose, hostDefaultClose);
KORVEL_WEAK_DEFAULT(hostRead, hostDefaultRead);
KORVEL_WEAK_DEFAULT(hostWrite, hostDefaultWrite);
KORVEL_WEAK_DEFAULT(hostPread, hostDefaultPread);
KORVEL_WEAK_DEFAULT(hostPwrite, hostDefaultPwrite);
KORVEL_WEAK_DEFAULT(hostFtruncate, hostDefaultFtruncate);
KORVEL_WEAK_DEFAULT(hostFstat, hostDefaultFstat);
KORVEL_WEAK_DEFAULT(hostFutimens, hostDefaultFutimens);
KORVEL_WEAK_DEFAULT(hostStat, hostDefaultStat);
KORVEL_WEAK_DEFAULT(hostLstat, hostDefaultLstat);
KORVEL_WEAK_DEFAULT(hostStatAt, hostDefaultStatAt);
KORVEL_WEAK_DEFAULT(hostStatvfs, hostDefaultStatvfs);
KORVEL_WEAK_DEFAULT(hostStatfs, hostDefaultStatfs);
KORVEL_WEAK_DEFAULT(hostRealpath, hostDefaultRealpath);
KORVEL_WEAK_DEFAULT(hostMkdir, hostDefaultMkdir);
KORVEL_WEAK_DEFAULT(hostChmod, hostDefaultChmod);
