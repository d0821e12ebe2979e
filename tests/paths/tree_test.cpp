// Permissions, koMkdirP and koRemoveRF on real trees. Removals pass through
// hostRemoveFile below, which can be told to refuse chosen paths.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>

#include "korvel/paths.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;

static std::set<std::string> refusedRemovals;

extern "C" int hostRemoveFile(const char* path) {
  if (refusedRemovals.count(path) != 0) {
    errno = EBUSY;
    return -1;
  }
  return remove(path);
}

namespace {

using korvel_test::TempDirTest;
using korvel_test::writeFile;

const uid_t kNobody = 65534;

unsigned modeOf(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

bool exists(const std::string& path) {
  return modeOf(path) != 0;
}

// Every path below root (relative), with its mode; links not followed.
std::map<std::string, unsigned> snapshot(const std::string& root) {
  std::map<std::string, unsigned> tree;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(root, ec); it != fs::end(it); it.increment(ec)) {
    tree[fs::relative(it->path(), root).string()] = modeOf(it->path().string());
  }
  return tree;
}

class TreeTest : public TempDirTest {
 protected:
  TreeTest() : savedUmask_(umask(022)) {}
  ~TreeTest() override {
    umask(savedUmask_);
    refusedRemovals.clear();
  }

  // When the test runs as root (whom permissions do not bind): hands the
  // test directory and everything in it to an unprivileged user.
  void giveTreeAway() {
    if (geteuid() != 0) return;
    std::error_code ec;
    for (auto& entry : fs::recursive_directory_iterator(dir_.path(), ec)) {
      ASSERT_EQ(lchown(entry.path().c_str(), kNobody, kNobody), 0);
    }
    ASSERT_EQ(chown(dir_.path().c_str(), kNobody, kNobody), 0);
  }

  // Runs body in a child, as that unprivileged user when running as root;
  // returns the child's exit status.
  static int unprivileged(const std::function<int()>& body) {
    return korvel_test::runInChild([&] {
      if (geteuid() == 0 && (setgid(kNobody) != 0 || setuid(kNobody) != 0)) return 91;
      return body();
    });
  }

 private:
  mode_t savedUmask_;
};

TEST_F(TreeTest, WritePermissionComesAndGoesAndMissingPathsGiveZero) {
  const std::string file = at("f");
  writeFile(file, "x");
  ASSERT_EQ(koSetFilePermissions(file.c_str(), 0444), 0);
  EXPECT_EQ(koGetFilePermissions(file.c_str()), unsigned(S_IFREG | 0444));
  EXPECT_EQ(koEnableWritePermission(file.c_str()), unsigned(S_IFREG | 0444)) << "the old mode";
  EXPECT_EQ(modeOf(file), unsigned(S_IFREG | 0666));
  EXPECT_EQ(koDisableWritePermission(file.c_str()), unsigned(S_IFREG | 0666));
  EXPECT_EQ(modeOf(file), unsigned(S_IFREG | 0444));
  EXPECT_EQ(koDisableWritePermission(file.c_str()), unsigned(S_IFREG | 0444));
  EXPECT_EQ(modeOf(file), unsigned(S_IFREG | 0444)) << "nothing left to take";

  ASSERT_EQ(mkdir(at("d").c_str(), 0500), 0);
  EXPECT_EQ(koEnableWritePermission(at("d").c_str()), unsigned(S_IFDIR | 0500));
  EXPECT_EQ(modeOf(at("d")), unsigned(S_IFDIR | 0722));

  const std::string missing = at("missing");
  EXPECT_EQ(koGetFilePermissions(missing.c_str()), 0u);
  EXPECT_EQ(koEnableWritePermission(missing.c_str()), 0u);
  EXPECT_EQ(koDisableWritePermission(missing.c_str()), 0u);
  EXPECT_EQ(koSetFilePermissions(missing.c_str(), 0644), -1);
  EXPECT_FALSE(koRemoveRF(missing.c_str()));
  EXPECT_FALSE(exists(missing));
}

TEST_F(TreeTest, MkdirPCreatesMissingParentsAndStopsAtTheFirstFailure) {
  ASSERT_EQ(mkdir(at("a").c_str(), 0700), 0);
  EXPECT_TRUE(koMkdirP(at("a/b/c").c_str()));
  EXPECT_EQ(modeOf(at("a")), unsigned(S_IFDIR | 0700)) << "existing directories are left alone";
  EXPECT_EQ(modeOf(at("a/b")), unsigned(S_IFDIR | 0755)) << "0775 less the umask";
  EXPECT_EQ(modeOf(at("a/b/c")), unsigned(S_IFDIR | 0755));
  EXPECT_TRUE(koMkdirP(at("a/b/c").c_str()));
  EXPECT_TRUE(koMkdirP((at("a") + "//b///d/").c_str())) << "separators are normalised";
  EXPECT_TRUE(fs::is_directory(at("a/b/d")));

  umask(0);
  EXPECT_TRUE(koMkdirP(at("open/x").c_str()));
  EXPECT_EQ(modeOf(at("open/x")), unsigned(S_IFDIR | 0775));

  writeFile(at("a/file"), "");
  EXPECT_FALSE(koMkdirP(at("a/file/x/y").c_str()));
  EXPECT_FALSE(exists(at("a/file/x")));
  EXPECT_TRUE(fs::is_regular_file(at("a/file")));

  // Failure half-way: what was made stays.
  const std::string tooLong(300, 'n');
  EXPECT_FALSE(koMkdirP(at("p/q/" + tooLong + "/r").c_str()));
  EXPECT_TRUE(fs::is_directory(at("p/q")));

  EXPECT_FALSE(koMkdirP(""));
  EXPECT_FALSE(koMkdirP(nullptr));
}

TEST_F(TreeTest, RemoveRFTakesReadOnlyFilesAndDirectoriesAndDoesNotFollowLinks) {
  // Read-only everywhere, hidden entries, and a link to a directory
  // outside that must survive with its content and mode.
  ASSERT_TRUE(koMkdirP(at("t/ro/deeper").c_str()));
  writeFile(at("t/ro/deeper/file"), "1");
  writeFile(at("t/.hidden"), "2");
  writeFile(at("t/plain"), "3");
  ASSERT_TRUE(koMkdirP(at("outside").c_str()));
  writeFile(at("outside/keep"), "4");
  ASSERT_EQ(chmod(at("outside").c_str(), 0555), 0);
  ASSERT_EQ(symlink(at("outside").c_str(), at("t/link").c_str()), 0);
  for (const char* p : {"t/ro/deeper/file", "t/.hidden", "t/plain"}) chmod(at(p).c_str(), 0444);
  for (const char* p : {"t/ro/deeper", "t/ro", "t"}) chmod(at(p).c_str(), 0555);
  writeFile(at("lonely"), "5");
  chmod(at("lonely").c_str(), 0400);

  const std::string t = at("t");
  const std::string lonely = at("lonely");
  giveTreeAway();
  EXPECT_EQ(
      unprivileged([&] { return koRemoveRF(t.c_str()) && koRemoveRF(lonely.c_str()) ? 0 : 1; }), 0);
  EXPECT_FALSE(exists(at("t")));
  EXPECT_FALSE(exists(at("lonely")));
  EXPECT_EQ(korvel_test::readFile(at("outside/keep")), "4");
  EXPECT_EQ(modeOf(at("outside")), unsigned(S_IFDIR | 0555));
}

TEST_F(TreeTest, UnremovableEntryStaysWithItsAncestorsAndTheirModes) {
  ASSERT_TRUE(koMkdirP(at("d/sub/inner").c_str()));
  ASSERT_TRUE(koMkdirP(at("d/sibling").c_str()));
  writeFile(at("d/a"), "");
  writeFile(at("d/sub/keep"), "");
  writeFile(at("d/sub/other"), "");
  writeFile(at("d/sibling/x"), "");
  chmod(at("d/sub/keep").c_str(), 0444);
  chmod(at("d/sub").c_str(), 0500);
  chmod(at("d").c_str(), 0550);

  refusedRemovals.insert(at("d/sub/keep"));
  EXPECT_TRUE(koRemoveRF(at("d").c_str())) << "the path existed";
  refusedRemovals.clear();

  EXPECT_EQ(snapshot(at("d")), (std::map<std::string, unsigned>{
                                   {"sub", S_IFDIR | 0500},
                                   {"sub/keep", S_IFREG | 0444},
                               }));
  EXPECT_EQ(modeOf(at("d")), unsigned(S_IFDIR | 0550));
}

TEST_F(TreeTest, EntryInAnotherUsersUnwritableDirectoryStays) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to own a directory the remover cannot change";
  ASSERT_TRUE(koMkdirP(at("mine/theirs").c_str()));
  ASSERT_TRUE(koMkdirP(at("mine/gone").c_str()));
  writeFile(at("mine/theirs/file"), "");
  writeFile(at("mine/gone/file"), "");
  chmod(at("mine").c_str(), 0555);
  const std::string mine = at("mine");
  const std::string theirs = at("mine/theirs");
  giveTreeAway();
  // Back to root, unwritable for the remover, who cannot add write bits.
  ASSERT_EQ(lchown(theirs.c_str(), 0, 0), 0);
  ASSERT_EQ(lchown((theirs + "/file").c_str(), 0, 0), 0);
  ASSERT_EQ(chmod(theirs.c_str(), 0755), 0);

  EXPECT_EQ(unprivileged([&] { return koRemoveRF(mine.c_str()) ? 0 : 1; }), 0);
  EXPECT_EQ(snapshot(mine), (std::map<std::string, unsigned>{
                                {"theirs", S_IFDIR | 0755},
                                {"theirs/file", S_IFREG | 0644},
                            }));
  EXPECT_EQ(modeOf(mine), unsigned(S_IFDIR | 0555)) << "restored after its removal failed";
}

TEST_F(TreeTest, PathsBeyondTheWalkersBuffersDoNotCrashTheRecursion) {
  // A chain deeper than any buffer: built and inspected relative to a
  // directory descriptor.
  ASSERT_TRUE(koMkdirP(at("deep").c_str()));
  writeFile(at("deep/shallow"), "");
  int fd = open(at("deep").c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_GE(fd, 0);
  for (int i = 0; i < 2500; ++i) {
    ASSERT_EQ(mkdirat(fd, "d", 0755), 0);
    int next = openat(fd, "d", O_RDONLY | O_DIRECTORY);
    close(fd);
    ASSERT_GE(next, 0);
    fd = next;
  }
  close(fd);
  EXPECT_TRUE(koRemoveRF(at("deep").c_str()));
  EXPECT_FALSE(exists(at("deep/shallow")));
  EXPECT_TRUE(exists(at("deep/d"))) << "the unreachable depths keep their ancestors";
}

// Builds the same random tree under two roots: directories, files, links to
// directories within the tree.
void randomTree(std::mt19937& random, const std::string& root, std::vector<std::string>* dirs) {
  dirs->assign({""});
  std::vector<std::string> names;
  for (int i = 0; i < 40; ++i) {
    const std::string parent = (*dirs)[random() % dirs->size()];
    const std::string name = parent + (parent.empty() ? "" : "/") + "e" + std::to_string(i);
    switch (random() % 4) {
      case 0:
      case 1:
        ASSERT_EQ(mkdir((root + "/" + name).c_str(), 0755), 0);
        dirs->push_back(name);
        break;
      case 2:
        writeFile(root + "/" + name, name);
        break;
      case 3: {
        const std::string target = (*dirs)[random() % dirs->size()];
        ASSERT_EQ(symlink((root + "/" + target).c_str(), (root + "/" + name).c_str()), 0);
        break;
      }
    }
  }
}

TEST_F(TreeTest, AgreesWithTheStandardLibraryOnRandomTrees) {
  std::mt19937 random(20261122);
  for (int round = 0; round < 25; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const std::string ours = at("ours" + std::to_string(round));
    const std::string theirs = at("theirs" + std::to_string(round));
    ASSERT_EQ(mkdir(ours.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(theirs.c_str(), 0755), 0);
    std::vector<std::string> dirs;
    std::mt19937 copy = random;
    randomTree(random, ours, &dirs);
    randomTree(copy, theirs, &dirs);

    // Create below random entries (some are files or links), then remove a
    // random subtree (links included).
    std::vector<std::string> all;
    for (const auto& entry : snapshot(ours)) all.push_back(entry.first);
    for (int i = 0; i < 4; ++i) {
      const std::string below = all[random() % all.size()] + "/n" + std::to_string(i) + "/m";
      std::error_code ec;
      fs::create_directories(theirs + "/" + below, ec);
      EXPECT_EQ(koMkdirP((ours + "/" + below).c_str()), !ec) << below;
    }
    const std::string victim = all[random() % all.size()];
    const bool existed = exists(ours + "/" + victim);
    std::error_code ec;
    fs::remove_all(theirs + "/" + victim, ec);
    EXPECT_EQ(koRemoveRF((ours + "/" + victim).c_str()), existed) << victim;
    EXPECT_EQ(snapshot(ours), snapshot(theirs)) << "after removing " << victim;
  }
}

}  // namespace
