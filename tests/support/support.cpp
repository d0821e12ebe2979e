// Test support: scratch directories, file helpers, child processes.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace korvel_test {
namespace {

// Makes fd write to the file at path (created or truncated); an empty path
// leaves fd as it is.
bool redirect(int fd, const std::string& path) {
  if (path.empty()) return true;
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (file < 0 || dup2(file, fd) < 0) return false;
  close(file);
  return true;
}

void removeAt(int parentFd, const char* name) {
  if (unlinkat(parentFd, name, 0) == 0) return;
  fchmodat(parentFd, name, 0700, 0);
  int fd = openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
  if (fd < 0) return;
  DIR* dir = fdopendir(fd);
  if (dir == nullptr) {
    close(fd);
    return;
  }
  while (struct dirent* entry = readdir(dir)) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    removeAt(dirfd(dir), entry->d_name);
  }
  closedir(dir);
  unlinkat(parentFd, name, AT_REMOVEDIR);
}

}  // namespace

// Buffered output is flushed before the fork and before the child exits, so
// that nothing is written twice or lost (std::cout and std::cerr write
// through to stdio while they are synchronised with it, the default).
pid_t forkChild(const std::function<int()>& body) {
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid != 0) return pid;
  int code = 99;
  try {
    code = body();
  } catch (...) {
  }
  fflush(nullptr);
  _exit(code);
}

int waitChild(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int runInChild(const std::function<int()>& body) {
  return waitChild(forkChild(body));
}

int runUnprivileged(const std::function<int()>& body, uid_t user) {
  return runInChild([&] {
    if (geteuid() == 0 && (setgid(user) != 0 || setuid(user) != 0)) return 90;
    return body();
  });
}

int runInChildCapturing(const std::function<int()>& body, std::string* out, std::string* err) {
  TempDir files;
  const int code = runInChild(
      [&] { return redirect(1, files / "out") && redirect(2, files / "err") ? body() : 98; });
  if (out != nullptr) *out = readFile(files / "out");
  if (err != nullptr) *err = readFile(files / "err");
  return code;
}

std::string captureStderr(const std::function<void()>& body) {
  TempDir files;
  fflush(stderr);
  const int saved = dup(2);
  EXPECT_TRUE(saved >= 0 && redirect(2, files / "err")) << "cannot redirect standard error";
  body();
  fflush(stderr);
  dup2(saved, 2);
  close(saved);
  return readFile(files / "err");
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

bool eventually(const std::function<bool()>& condition, double seconds) {
  const auto start = std::chrono::steady_clock::now();
  while (!condition()) {
    if (secondsSince(start) > seconds) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

pid_t spawn(const std::string& program, const std::vector<std::string>& args,
            const std::vector<std::string>& env, const std::string& outPath,
            const std::string& errPath) {
  std::vector<char*> argv{const_cast<char*>(program.c_str())}, envp;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  for (const auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
  for (char** e = environ; *e != nullptr; ++e) {
    if (strncmp(*e, "KORVEL_", 7) != 0) envp.push_back(*e);
  }
  argv.push_back(nullptr);
  envp.push_back(nullptr);
  return forkChild([&] {
    if (!redirect(1, outPath) || !redirect(2, errPath)) return 97;
    execve(program.c_str(), argv.data(), envp.data());
    return 96;
  });
}

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/korvel_test_XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  removeTree(path_);
}

void removeTree(const std::string& path) {
  removeAt(AT_FDCWD, path.c_str());
}

void writeFile(const std::string& path, const std::string& text, time_t age) {
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    ASSERT_TRUE(out.good()) << path;
    out << text;
  }  // closed before its times are set
  if (age != 0) {
    ASSERT_TRUE(setMtime(path, time(nullptr) - age)) << path;
  }
}

std::string readFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

std::set<std::string> entries(const std::string& dir) {
  std::set<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (const dirent* e = readdir(d)) names.insert(e->d_name);
    closedir(d);
  }
  names.erase(".");
  names.erase("..");
  return names;
}

bool setMtime(const std::string& path, time_t seconds) {
  struct timeval times[2] = {{seconds, 0}, {seconds, 0}};
  return utimes(path.c_str(), times) == 0;
}

}  // namespace korvel_test
