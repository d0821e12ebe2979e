#include "tests/support/temp_dir.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace korvel_test {
namespace {

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

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  ASSERT_TRUE(out.good()) << path;
  out << text;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace korvel_test
