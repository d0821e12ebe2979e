// Default file services, on POSIX.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "host/host.h"

extern "C" {

__attribute__((weak)) int hostRemoveFile(const char* path) {
  return remove(path);
}

__attribute__((weak)) int hostOpenAndClose(const char* path, int flags, unsigned mode) {
  int fd = open(path, flags, mode);
  if (fd < 0) return -1;
  close(fd);
  return 0;
}

}  // extern "C"
