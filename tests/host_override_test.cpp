// A process that defines host operations itself: the library, loaded as a
// shared object, must call these definitions instead of its defaults.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "korvel/paths.h"
#include "korvel/version.h"

static int listingCalls = 0;
static int cwdCalls = 0;

extern "C" char* hostGetDirList(const char* pathPattern, int /*flags*/) {
  ++listingCalls;
  if (strncmp(pathPattern, "/virtual/", 9) != 0) return nullptr;
  static const char entries[] = "alpha\0beta\0";
  char* block = static_cast<char*>(malloc(sizeof entries));
  memcpy(block, entries, sizeof entries);
  return block;
}

extern "C" char* hostGetcwd(char* buf, size_t size) {
  ++cwdCalls;
  const char cwd[] = "/host/cwd";
  if (size < sizeof cwd) return nullptr;
  memcpy(buf, cwd, sizeof cwd);
  return buf;
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
  EXPECT_EQ(listingCalls, 1);

  char out[8706];
  const char in[] = "no_such_relative_dir_k/x";
  EXPECT_STREQ(koCanonicalizePath(out, sizeof out - 1, in, strlen(in)),
               "/host/cwd/no_such_relative_dir_k/x");
  EXPECT_EQ(cwdCalls, 1);
}

TEST(HostOverride, VersionData) {
  std::string version = libkorvel_version;
  EXPECT_EQ(std::count(version.begin(), version.end(), '.'), 3) << version;
  EXPECT_EQ(strlen(libkorvel_build_date), 11u) << libkorvel_build_date;
}

}  // namespace
