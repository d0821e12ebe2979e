// Default time and memory services.
#include <sys/time.h>

#include <cstdlib>

#include "host/host.h"

extern "C" {

__attribute__((weak)) double hostRealtime() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
}

__attribute__((weak)) void hostFree(void* block) {
  std::free(block);
}

}  // extern "C"
