// A process that defines host operations itself: the library, loaded as a
// shared object, must call these definitions instead of its defaults.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "korvel/paths.h"
#include "korvel/version.h"

extern "C" char* hostGetDirList(const char* pathPattern, int /*flags*/) {
  if (strncmp(pathPattern, "/virtual/", 9) != 0) return nullptr;
  static const char entries[] = "alpha\0beta\0";
  return static_cast<char*>(memcpy(malloc(sizeof entries), entries, sizeof entries));
}

extern "C" char* hostGetcwd(char* buf, size_t size) {
  return size > 9 ? strcpy(buf, "/host/cwd") : nullptr;
}

namespace {

struct Collect : koStringProcedure {
  explicit Collect(std::vector<std::string>* out) : out(out) {}
  void operator()(const char* path) const override { out->push_back(path); }
  std::vector<std::string>* out;
};

TEST(HostOverride, LibraryCallsTheHostsDefinitions) {
  std::vector<std::string> seen;
  EXPECT_EQ(koFindMatchingFilesAndDirs("/virtual/*", Collect(&seen), Collect(&seen), 0, false), 2);
  EXPECT_EQ(seen, (std::vector<std::string>{"/virtual/alpha", "/virtual/beta"}));

  char out[8706];
  const char in[] = "no_such_relative_dir_k/x";
  EXPECT_STREQ(koCanonicalizePath(out, sizeof out - 1, in, strlen(in)),
               "/host/cwd/no_such_relative_dir_k/x");
  // The version data of the shared object: "major.minor.patch.tweak" and a
  // build date like "Nov 22 2026".
  const std::string version = libkorvel_version;
  EXPECT_EQ(std::count(version.begin(), version.end(), '.'), 3) << version;
  EXPECT_EQ(strlen(libkorvel_build_date), 11u) << libkorvel_build_date;
}

}  // namespace
