#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "korvel/paths.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

// Counts the listing blocks released, to show that every listing the walker
// takes is freed; this definition replaces the library's default.
static std::atomic<int> freedBlocks{0};
extern "C" void hostFree(void* block) {
  if (block != nullptr) ++freedBlocks;
  free(block);
}

namespace {

using korvel_test::TempDirTest;
using korvel_test::writeFile;

struct Recorder : koStringProcedure {
  Recorder(std::vector<std::string>* calls, const char* tag) : calls(calls), tag(tag) {}
  void operator()(const char* path) const override { calls->push_back(std::string(tag) + path); }
  std::vector<std::string>* calls;
  const char* tag;
};

struct Thrower : koStringProcedure {
  void operator()(const char* path) const override { throw std::runtime_error(path); }
};

class WalkerTest : public TempDirTest {
 protected:
  int find(const std::string& pattern, int depth, bool stopAtFirst = false) {
    calls.clear();
    return koFindMatchingFilesAndDirs(pattern.c_str(), Recorder(&calls, "F:"),
                                      Recorder(&calls, "D:"), depth, stopAtFirst);
  }
  size_t indexOf(const std::string& call) const {
    return std::find(calls.begin(), calls.end(), call) - calls.begin();
  }
  std::vector<std::string> calls;
};

TEST_F(WalkerTest, ReportsFilesAndDirectoriesPreOrder) {
  writeFile(at("xx1"), "a");
  ASSERT_EQ(mkdir(at("xx2").c_str(), 0755), 0);
  writeFile(at("xx2/inner"), "b");
  ASSERT_EQ(mkdir(at("xx2/sub").c_str(), 0755), 0);
  writeFile(at("xx2/sub/deep"), "c");
  writeFile(at("yy"), "d");

  EXPECT_EQ(find(dir_ / "xx*", 0), 2);
  EXPECT_EQ(calls.size(), 2u);
  EXPECT_LT(indexOf("F:" + at("xx1")), 2u);
  EXPECT_LT(indexOf("D:" + at("xx2")), 2u);

  // depth 1: the contents of xx2 follow right after it, one level only.
  EXPECT_EQ(find(dir_ / "xx*", 1), 4);
  size_t dirAt = indexOf("D:" + at("xx2"));
  ASSERT_LT(dirAt, calls.size());
  std::vector<std::string> children(calls.begin() + dirAt + 1, calls.begin() + dirAt + 3);
  std::sort(children.begin(), children.end());
  EXPECT_EQ(children, (std::vector<std::string>{"D:" + at("xx2/sub"), "F:" + at("xx2/inner")}));
  EXPECT_EQ(indexOf("F:" + at("xx2/sub/deep")), calls.size());

  EXPECT_EQ(find(dir_ / "xx*", 5), 5);
  EXPECT_EQ(indexOf("F:" + at("xx2/sub/deep")), indexOf("D:" + at("xx2/sub")) + 1);
}

TEST_F(WalkerTest, StopAtFirstAndPatternForms) {
  writeFile(at("a1"), "");
  writeFile(at("a2"), "");
  writeFile(at(".hidden"), "");
  ASSERT_EQ(mkdir(at("d").c_str(), 0755), 0);

  EXPECT_EQ(find(dir_ / "a*", 3, true), 1);
  EXPECT_EQ(calls.size(), 1u);
  EXPECT_EQ(find(dir_ / "*", 0), 4) << "'*' also matches names with a leading dot";
  EXPECT_EQ(find(dir_ / "*2", 0), 1);
  EXPECT_EQ(find(dir_ / "a1", 0), 1) << "a name without wildcard names itself";
  EXPECT_EQ(find(dir_ / "d/", 0), 1);
  EXPECT_EQ(calls, std::vector<std::string>{"D:" + at("d")});
  EXPECT_EQ(find(dir_ / "missing*", 0), 0);
  EXPECT_EQ(find(dir_ / "missing/*", 0), 0);
  // Wildcards are honoured only in the last component: nothing is listed.
  int before = freedBlocks;
  EXPECT_EQ(find(dir_.path() + "*/a1", 0), 0);
  EXPECT_EQ(freedBlocks, before);

  EXPECT_TRUE(koMatchingFileOrDirExists(at("a*").c_str()));
  EXPECT_TRUE(koMatchingFileOrDirExists(at("d").c_str()));
  EXPECT_FALSE(koMatchingFileOrDirExists(at("zz*").c_str()));
  EXPECT_FALSE(koMatchingFileOrDirExists("/"));
  EXPECT_FALSE(koMatchingFileOrDirExists("."));
}

TEST_F(WalkerTest, CurrentDirectoryAndRoot) {
  writeFile(at("only"), "");
  char saved[4096];
  ASSERT_NE(getcwd(saved, sizeof saved), nullptr);
  ASSERT_EQ(chdir(dir_.path().c_str()), 0);
  EXPECT_EQ(find(".", 0), 0);
  EXPECT_EQ(find(".", 1), 1);
  EXPECT_EQ(calls, std::vector<std::string>{"F:only"});
  EXPECT_EQ(find("./", 1), 1);
  EXPECT_EQ(find("only", 0), 1);
  EXPECT_EQ(calls, std::vector<std::string>{"F:only"});
  ASSERT_EQ(chdir(saved), 0);

  EXPECT_EQ(find("/", 0), 0);
  EXPECT_GT(find("/", 1, true), 0);
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].substr(1, 2), ":/");
  EXPECT_EQ(calls[0].find('/', 3), std::string::npos) << "top-level entries are /name";
}

TEST_F(WalkerTest, RefusesBadPatterns) {
  EXPECT_EQ(koFindMatchingFilesAndDirs(nullptr, koIgnoreString(), koIgnoreString(), 1, false), 0);
  EXPECT_EQ(find("", 1), 0);
  EXPECT_EQ(find("/" + std::string(4096, 'x'), 0), 0);
  EXPECT_EQ(find(std::string(4096, '/'), 0), 0);
}

TEST_F(WalkerTest, ThrowingProcedureFreesTheListingAndPropagates) {
  ASSERT_EQ(mkdir(at("d").c_str(), 0755), 0);
  writeFile(at("d/f"), "");
  const int before = freedBlocks;
  EXPECT_THROW(
      koFindMatchingFilesAndDirs((dir_ / "*").c_str(), Thrower(), koIgnoreString(), 2, false),
      std::runtime_error);
  // Two listings were open when the exception passed: the top level and d.
  EXPECT_EQ(freedBlocks - before, 2);
}

TEST_F(WalkerTest, UnreadableDirectoriesContributeNothing) {
  if (geteuid() == 0) GTEST_SKIP() << "root reads every directory";
  ASSERT_EQ(mkdir(at("closed").c_str(), 0755), 0);
  writeFile(at("closed/f"), "12345");
  writeFile(at("open"), "12");
  ASSERT_EQ(chmod(at("closed").c_str(), 0), 0);
  EXPECT_EQ(koGetDirectorySize(dir_.path().c_str()), 2);
  chmod(at("closed").c_str(), 0755);
}

TEST_F(WalkerTest, DirectorySizeMatchesAnIndependentSum) {
  srand(7);
  std::vector<std::string> dirs{dir_.path()};
  for (int i = 0; i < 60; ++i) {
    const std::string parent = dirs[rand() % dirs.size()];
    const std::string name = parent + (i % 5 == 0 ? "/.h" : "/n") + std::to_string(i);
    if (rand() % 3 == 0) {
      ASSERT_EQ(mkdir(name.c_str(), 0755), 0);
      dirs.push_back(name);
    } else {
      writeFile(name, std::string(rand() % 5000, 'z'));
    }
  }
  int64_t expected = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir_.path())) {
    if (!entry.is_directory()) expected += static_cast<int64_t>(entry.file_size());
  }
  EXPECT_GT(expected, 0);
  EXPECT_EQ(koGetDirectorySize(dir_.path().c_str()), expected);
  EXPECT_EQ(koGetDirectorySize((dir_.path() + "/").c_str()), expected);
  EXPECT_EQ(koGetDirectorySize(at("missing").c_str()), 0);
  ASSERT_EQ(mkdir(at("empty").c_str(), 0755), 0);
  EXPECT_EQ(koGetDirectorySize(at("empty").c_str()), 0);
}

TEST_F(WalkerTest, TreeDeeperThanTheBuffersIsWalkedSafely) {
  // 30 levels of 200-character names: paths grow far past the walker's
  // 4352-byte buffers and PATH_MAX. Built relative to directory descriptors.
  const std::string name(200, 'n');
  int fd = open(dir_.path().c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_GE(fd, 0);
  int64_t reachable = 0;
  size_t pathLength = dir_.path().size();
  for (int level = 0; level < 30; ++level) {
    int file = openat(fd, "f", O_WRONLY | O_CREAT, 0644);
    ASSERT_GE(file, 0);
    ASSERT_EQ(write(file, "abc", 3), 3);
    close(file);
    if (pathLength + 2 < 4096) reachable += 3;
    ASSERT_EQ(mkdirat(fd, name.c_str(), 0755), 0);
    int next = openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY);
    close(fd);
    ASSERT_GE(next, 0);
    fd = next;
    pathLength += 1 + name.size();
  }
  close(fd);
  const int64_t size = koGetDirectorySize(dir_.path().c_str());
  EXPECT_GE(size, reachable);
  EXPECT_LT(size, 30 * 3);
}

}  // namespace
