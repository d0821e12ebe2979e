#include "tests/fs_lock/lock_test_support.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace korvel_test {
namespace {

std::mutex hookMutex;
std::string failCreatesUnder;                        // guarded by hookMutex
std::string failRemovesUnder;                        // guarded by hookMutex
std::function<void(const char*, int)> openObserver;  // guarded by hookMutex
std::function<void(const char*)> removeObserver;     // guarded by hookMutex

bool under(const std::string& prefix, const char* path) {
  return !prefix.empty() && strncmp(path, prefix.c_str(), prefix.size()) == 0;
}

}  // namespace

std::atomic<int> removeCalls{0};

void failUnder(Fault which, const std::string& prefix) {
  std::lock_guard<std::mutex> lock(hookMutex);
  (which == Fault::kCreate ? failCreatesUnder : failRemovesUnder) = prefix;
}

void observeOpens(std::function<void(const char*, int)> observer) {
  std::lock_guard<std::mutex> lock(hookMutex);
  openObserver = std::move(observer);
}

void observeRemoves(std::function<void(const char*)> observer) {
  std::lock_guard<std::mutex> lock(hookMutex);
  removeObserver = std::move(observer);
}

void clearHooks() {
  std::lock_guard<std::mutex> lock(hookMutex);
  failCreatesUnder.clear();
  failRemovesUnder.clear();
  openObserver = nullptr;
  removeObserver = nullptr;
}

std::set<std::string> entries(const std::string& dir) {
  std::set<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.insert(e->d_name);
    }
    closedir(d);
  }
  return names;
}

bool setMtime(const std::string& path, time_t seconds) {
  struct timeval times[2] = {{seconds, 0}, {seconds, 0}};
  return utimes(path.c_str(), times) == 0;
}

bool waitForFileText(const std::string& path, const std::string& text, double seconds) {
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  for (;;) {
    std::string content;
    if (FILE* f = fopen(path.c_str(), "r")) {
      char buffer[256];
      size_t n;
      while ((n = fread(buffer, 1, sizeof buffer, f)) > 0) content.append(buffer, n);
      fclose(f);
    }
    if (content == text) return true;
    if (std::chrono::steady_clock::now() >= giveUp) return false;
    usleep(10000);
  }
}

}  // namespace korvel_test

using korvel_test::hookMutex;

extern "C" int hostOpenAndClose(const char* path, int flags, unsigned mode) {
  {
    std::lock_guard<std::mutex> lock(hookMutex);
    if (korvel_test::openObserver) korvel_test::openObserver(path, flags);
    if ((flags & O_CREAT) != 0 && korvel_test::under(korvel_test::failCreatesUnder, path)) {
      errno = EPERM;
      return -1;
    }
  }
  int fd = open(path, flags, mode);
  if (fd < 0) return -1;
  close(fd);
  return 0;
}

extern "C" int hostRemoveFile(const char* path) {
  ++korvel_test::removeCalls;
  {
    std::lock_guard<std::mutex> lock(hookMutex);
    if (korvel_test::removeObserver) korvel_test::removeObserver(path);
    if (korvel_test::under(korvel_test::failRemovesUnder, path)) {
      errno = EPERM;
      return -1;
    }
  }
  return remove(path);
}
