#include "tests/support/process.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "tests/support/temp_dir.h"

namespace korvel_test {

pid_t forkChild(const std::function<int()>& body) {
  fflush(nullptr);
  std::cout.flush();
  std::cerr.flush();
  pid_t pid = fork();
  if (pid != 0) return pid;
  int code = 99;
  try {
    code = body();
  } catch (...) {
  }
  fflush(nullptr);
  std::cout.flush();
  std::cerr.flush();
  _exit(code);
}

int waitChild(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

int runInChild(const std::function<int()>& body) {
  return waitChild(forkChild(body));
}

int runInChildCapturing(const std::function<int()>& body, std::string* out, std::string* err) {
  TempDir files;
  const std::string outPath = files / "stdout";
  const std::string errPath = files / "stderr";
  int code = runInChild([&] {
    int o = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int e = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (o < 0 || e < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0) return 98;
    return body();
  });
  if (out != nullptr) *out = readFile(outPath);
  if (err != nullptr) *err = readFile(errPath);
  return code;
}

std::string captureStderr(const std::function<void()>& body) {
  TempDir files;
  const std::string errPath = files / "stderr";
  fflush(stderr);
  const int saved = dup(2);
  const int file = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (saved < 0 || file < 0 || dup2(file, 2) < 0) {
    ADD_FAILURE() << "cannot redirect standard error";
    return "";
  }
  close(file);
  struct Restore {
    int saved;
    ~Restore() {
      fflush(stderr);
      dup2(saved, 2);
      close(saved);
    }
  };
  {
    Restore restore{saved};
    body();
  }
  return readFile(errPath);
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

pid_t spawn(const std::string& program, const std::vector<std::string>& args,
            const std::vector<std::string>& env, const std::string& outPath,
            const std::string& errPath) {
  std::vector<std::string> environment;
  for (char** e = environ; *e != nullptr; ++e) {
    if (strncmp(*e, "KORVEL_", 7) != 0) environment.push_back(*e);
  }
  environment.insert(environment.end(), env.begin(), env.end());
  std::vector<char*> argv{const_cast<char*>(program.c_str())};
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (auto& e : environment) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);

  fflush(nullptr);
  pid_t pid = fork();
  if (pid != 0) return pid;
  if (!outPath.empty()) {
    int fd = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0 || dup2(fd, 1) < 0) _exit(97);
  }
  if (!errPath.empty()) {
    int fd = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0 || dup2(fd, 2) < 0) _exit(97);
  }
  execve(program.c_str(), argv.data(), envp.data());
  _exit(96);
}

}  // namespace korvel_test
