// The path functions on real files and trees: path strings and canonical
// forms, file queries, temporary names, the wildcard walker, sizes,
// permissions, koMkdirP and koRemoveRF. The listings the walker takes are
// released, and removals made, through the host operations below.
#include "korvel/paths.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/host.h"
#include "paths/canonical_path.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;

// Counts the listing blocks released: every listing taken must be freed.
static std::atomic<int> freedBlocks{0};
extern "C" void hostFree(void* block) {
  if (block != nullptr) ++freedBlocks;
  free(block);
}

// Temporary names are made from the clock, among others: here it stands still.
extern "C" double hostRealtime() {
  return 1.8e9;
}

// Under /reserve, a file system that keeps blocks for the superuser.
extern "C" int hostStatvfs(const char* path, struct statvfs* st) {
  if (strncmp(path, "/reserve", 8) != 0) return hostDefaultStatvfs(path, st);
  *st = {};
  st->f_bsize = 4096;
  st->f_bfree = 10;
  st->f_bavail = 4;
  return 0;
}

// Refuses the removal of chosen paths.
static std::set<std::string> refusedRemovals;
extern "C" int hostRemoveFile(const char* path) {
  if (refusedRemovals.count(path) == 0) return remove(path);
  errno = EBUSY;
  return -1;
}

namespace {

using korvel_test::runInChild;
using korvel_test::writeFile;
typedef std::vector<std::string> Calls;

struct Recorder : koStringProcedure {
  Recorder(Calls* calls, const char* tag) : calls(calls), tag(tag) {}
  void operator()(const char* path) const override {
    if (*tag == '!') throw std::runtime_error(path);
    calls->push_back(tag + std::string(path));
  }
  Calls* calls;
  const char* tag;  // "!" throws
};

// The longest path the library's own buffers hold.
constexpr size_t kLongestPath = 8705;

std::string canonical(const std::string& in, size_t inLen = std::string::npos) {
  std::vector<char> out(8707);
  return koCanonicalizePath(out.data(), 8706, in.c_str(), std::min(inLen, in.size()));
}

std::string realPath(const std::string& p) {
  char buf[PATH_MAX];
  return realpath(p.c_str(), buf) != nullptr ? buf : "";
}

unsigned modeOf(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 ? st.st_mode : 0;
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

class PathsTest : public korvel_test::TempDirTest {
 protected:
  PathsTest() : savedUmask_(umask(022)) {}
  ~PathsTest() override {
    umask(savedUmask_);
    refusedRemovals.clear();
  }
  int find(const std::string& pattern, int depth, bool stopAtFirst = false) {
    calls.clear();
    return koFindMatchingFilesAndDirs(pattern.c_str(), Recorder(&calls, "F:"),
                                      Recorder(&calls, "D:"), depth, stopAtFirst);
  }
  size_t indexOf(const std::string& call) const {
    return std::find(calls.begin(), calls.end(), call) - calls.begin();
  }
  Calls calls;

 private:
  mode_t savedUmask_;
};

TEST_F(PathsTest, SeparatorEdits) {
  char buf[16] = "a\\b/c\\";
  koWashPathSep(buf);
  EXPECT_STREQ(buf, "a/b/c/");
  koReplacePathSeps(buf, '\\');
  EXPECT_STREQ(buf, "a\\b\\c\\");
  EXPECT_FALSE(koIsRootDir("//") || koIsRootDir("") || koIsPathSep('\\') || koAddPathSep(nullptr));
  char joined[16] = "ab/c";
  EXPECT_EQ(koAddPathSepAt(joined, 3), 0u);
  EXPECT_STREQ(joined, "ab/c") << "a separator before the place is enough";
  char split[16] = "abc";
  EXPECT_EQ(koAddPathSepAt(split, 2), 1u);
  EXPECT_STREQ(split, "ab/c");
}

// Input, n and result: ".." never climbs above the start, nor takes the
// leading slash; only the first n characters count.
// clang-format off
const char* const kCollapsed[] = {
    "/a/b/../c", "99", "/a/c",   "/a/./b", "99", "/a/b",         "a//b", "99", "a/b",
    "/a///b//", "99", "/a/b/",   "//a", "99", "/a",              "a/.", "99", "a/",
    "/.../.x/", "99", "/.../.x/", "/a/b//../c", "99", "/a/c",    "/..", "99", "/",
    "/a/../../b", "99", "/b",    "a/../..", "99", "",            "../a", "99", "a",
    "a/b/../../../c", "99", "c", "/abc/def", "4", "/abc",        "/a/b/../c", "6", "/a/b/",
    "abc", "0", ""};
// clang-format on

TEST_F(PathsTest, CollapseResolvesSegmentsWithinTheFirstNCharacters) {
  for (size_t i = 0; i < std::size(kCollapsed); i += 3) {
    char dst[100];
    const char* const* c = kCollapsed + i;
    EXPECT_STREQ(koCollapsePath(dst, c[0], std::stoul(c[1])), c[2]) << c[0] << " " << c[1];
  }

  // A source right before an inaccessible page, with n claiming far more.
  const long page = sysconf(_SC_PAGESIZE);
  char* mem = static_cast<char*>(
      mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(mem, MAP_FAILED);
  ASSERT_EQ(mprotect(mem + page, page, PROT_NONE), 0);
  char* src = mem + page - sizeof "/a/../bc";
  strcpy(src, "/a/../bc");
  char dst[64];
  EXPECT_STREQ(koCollapsePath(dst, src, 1u << 20), "/bc");
  munmap(mem, 2 * page);
}

TEST_F(PathsTest, CanonicalFormsOfExistingMissingRelativeAndTildePaths) {
  ASSERT_TRUE(koMkdirP(at("sub/a/b").c_str()));
  ASSERT_EQ(symlink(at("sub/a/b").c_str(), at("sub/deep").c_str()), 0);
  const std::string base = realPath(dir_.path());
  // Past the system's length limit, yet resolving to a short path; a link
  // then ".." there is resolved by realpath, not cut away as text.
  std::string dots = dir_ / "sub";
  for (int i = 0; i < 2100; ++i) dots += "/.";
  const std::pair<std::string, std::string> absolute[] = {
      {dots + "/deep/../x", base + "/sub/a/x"},
      {dir_ / "sub/deep/new/../x/", base + "/sub/a/b/x/"},  // a link in the existing prefix
      {"   " + (dir_ / "sub/./new/../x/") + "  ", base + "/sub/x/"},
      {dir_ / "missing/deeper/file", base + "/missing/deeper/file"},
      {"/no_such_root_dir_k/a/../b", "/no_such_root_dir_k/b"}};
  for (const auto& c : absolute) EXPECT_EQ(canonical(c.first), c.second) << c.first;
  EXPECT_EQ(canonical(dir_ / "sub/ignored", dir_.path().size() + 4), base + "/sub")
      << "only inLen characters count";

  // Relative and tilde forms, in a child with its own directory and home;
  // then a home longer than the library's buffers, which the expansion of
  // a tilde must not overrun.
  std::string out;
  EXPECT_EQ(korvel_test::runInChildCapturing(
                [&] {
                  if (chdir(base.c_str()) != 0 || setenv("HOME", base.c_str(), 1) != 0) return 1;
                  for (const char* in :
                       {"", " \t ", "sub", "sub/missing/../x", "missing/x", "~/sub/missing", "~"}) {
                    printf("%s\n", canonical(in).c_str());
                  }
                  std::vector<char> home(KORVEL_PATH_BUFFER_SIZE + 64, '#');
                  setenv("HOME", std::string(9000, 'h').c_str(), 1);
                  hpTildeExpansion(home.data(), "~/x");
                  return std::count(home.end() - 64, home.end(), '#') == 64 ? 0 : 2;
                },
                &out, nullptr),
            0);
  EXPECT_EQ(out, base + "\n" + base + "\n" + base + "/sub\n" + base + "/sub/x\n" + base +
                     "/missing/x\n" + base + "/sub/missing\n" + base + "\n");
}

TEST_F(PathsTest, CanonicalNeverWritesPastOutSize) {
  const std::string base = realPath(dir_.path()), longRelative(20000, 'r');
  const std::string longMissing = "/no_such_dir_k/" + std::string(9000, 'x');
  // Small outputs and ones larger than the library's buffers; an existing
  // path one character longer than the output.
  const std::pair<std::string, size_t> cases[] = {
      {longMissing, 1},        {longMissing, 5},         {longMissing, 300},   {longMissing, 12000},
      {base, base.size() - 1}, {longRelative, PATH_MAX}, {longRelative, 12000}};
  for (const auto& [in, outSize] : cases) {
    std::vector<char> out(outSize + 64, '#');
    const std::string result = koCanonicalizePath(out.data(), outSize, in.c_str(), in.size());
    EXPECT_LE(result.size(), outSize);
    for (size_t i = outSize + 1; i < out.size(); ++i) ASSERT_EQ(out[i], '#') << outSize;
    if (outSize > kLongestPath) {
      EXPECT_EQ(result, in == longMissing ? in.substr(0, kLongestPath)
                                          : realPath(".") + "/" + in.substr(0, kLongestPath))
          << "cut to the library's buffers";
    }
  }
  // The copy of an input that ends before inLen holds a buffer full at most;
  // the steps after it cut the path again, so only a canary sees an overrun.
  std::vector<char> copy(KORVEL_PATH_BUFFER_SIZE + 1, '#');
  EXPECT_EQ(canonical::trimInput(longMissing.c_str(), 9500, copy.data()).length, kLongestPath);
  EXPECT_EQ(copy.back(), '#');
}

TEST_F(PathsTest, QueriesFollowLinks) {
  writeFile(at("f"), "12345");
  ASSERT_EQ(mkdir(at("d").c_str(), 0755), 0);
  for (std::string n : {"f", "d", "gone"})
    ASSERT_EQ(symlink(at(n).c_str(), at("l" + n).c_str()), 0);
  EXPECT_TRUE(koFileExists(at("lf").c_str()) && koFileOrDirExists(at("ld").c_str()) &&
              koIsDirectory(at("ld").c_str()));
  EXPECT_FALSE(koFileExists(at("d").c_str()) || koIsDirectory(at("lf").c_str()) ||
               koFileOrDirExists(at("lgone").c_str()) || koIsDirectory(nullptr));
  uint64_t bytes = 0;
  EXPECT_TRUE(koGetFileSystemAvailableSpace(dir_.path().c_str(), &bytes) && bytes != ~0ull);
  EXPECT_TRUE(!koGetFileSystemAvailableSpace(at("missing").c_str(), &bytes) && bytes == ~0ull);
  EXPECT_TRUE(koGetFileSystemAvailableSpace("/reserve", &bytes));
  EXPECT_EQ(bytes, 40960u) << "the superuser's reserve counts";
  EXPECT_TRUE(koMatchingFileOrDirExists(at("*").c_str())) << "five match: one is enough";
}

TEST_F(PathsTest, TempDirIsReadOnceAndTempNamesAreFresh) {
  // $TMP is read once per process: every case runs in a child that has not
  // asked for the temporary directory yet.
  const std::string dir = dir_.path(), overlong(20000, 't');
  const std::pair<const char*, std::string> dirs[] = {
      {nullptr, "/tmp/"}, {overlong.c_str(), overlong.substr(0, 8704) + "/"}};
  for (const auto& [tmp, expected] : dirs) {
    EXPECT_EQ(runInChild([&] {
                tmp != nullptr ? setenv("TMP", tmp, 1) : unsetenv("TMP");
                const std::string first = koGetTempDir();
                setenv("TMP", "/elsewhere", 1);
                return first == expected && koGetTempDir() == first ? 0 : 1;
              }),
              0)
        << expected;
  }
  // The clock stands still in this program (hostRealtime above): two fresh
  // processes start from the same name, and the second must pass over the
  // one the first took.
  for (int child = 0; child < 2; ++child) {
    EXPECT_EQ(runInChild([&] {
                setenv("TMP", dir.c_str(), 1);
                char buf[PATH_MAX];
                const std::string first = koGetTempName(buf);
                if (first == koGetTempName(buf)) return 1;  // back to back, same buffer
                if (first.rfind(dir + "/tp", 0) != 0 || first.size() != dir.size() + 9) return 2;
                return mkdir(first.c_str(), 0700) == 0 ? 0 : 3;
              }),
              0)
        << "child " << child;
  }
}

TEST_F(PathsTest, WalkerReportsPreOrderToTheRequestedDepth) {
  writeFile(at("xx1"), "a");
  ASSERT_TRUE(koMkdirP(at("xx2/sub").c_str()));
  writeFile(at("xx2/inner"), "b");
  writeFile(at("xx2/sub/deep"), "c");
  EXPECT_EQ(find(dir_ / "xx*", 0), 2);
  std::sort(calls.begin(), calls.end());
  EXPECT_EQ(calls, (Calls{"D:" + at("xx2"), "F:" + at("xx1")}));
  EXPECT_EQ(find(dir_ / "xx*", 1), 4) << "one level down";
  EXPECT_EQ(find(dir_ / "xx*", 5), 5);
  EXPECT_EQ(indexOf("F:" + at("xx2/sub/deep")), indexOf("D:" + at("xx2/sub")) + 1) << "pre-order";
  // A throwing procedure ends the walk and every open listing is freed.
  const int freed = freedBlocks;
  EXPECT_THROW(koFindMatchingFilesAndDirs((dir_ / "xx2").c_str(), Recorder(&calls, "!"),
                                          koIgnoreString(), 2, false),
               std::runtime_error);
  EXPECT_EQ(freedBlocks - freed, 2) << "the top level and xx2 were open";
}

TEST_F(PathsTest, WalkerPatternForms) {
  ASSERT_EQ(mkdir(at("d").c_str(), 0755), 0);
  for (const char* name : {"a1", "a2", ".hidden", "d/only"}) writeFile(at(name), "");
  const int underRoot = static_cast<int>(std::count_if(
      fs::directory_iterator("/"), fs::directory_iterator(), [](const fs::directory_entry& e) {
        return e.path().filename().string().rfind("proc", 0) == 0;
      }));
  // '*' matches a leading dot too; "/" and "." need depth 1; a wildcard in
  // the directory part is refused.
  // clang-format off
  const std::pair<std::string, int> counts[] = {
      {dir_ / "*", 4}, {dir_ / "*2", 1}, {dir_ / "a1", 1}, {dir_ / "missing*", 0},
      {dir_ / "missing/*", 0}, {"/" + std::string(4096, 'x'), 0}, {"", 0}, {"/", 0}, {".", 0},
      {dir_.path() + "*/a1", 0}, {"/proc*", underRoot}};
  // clang-format on
  for (const auto& [pattern, count] : counts) EXPECT_EQ(find(pattern, 0), count) << pattern;
  EXPECT_EQ(find(dir_ / "a*", 3, true), 1) << "stop at the first";
  EXPECT_EQ(find(dir_ / "d/", 0), 1);
  EXPECT_EQ(calls, Calls{"D:" + at("d")}) << "a trailing slash names the directory itself";
  EXPECT_EQ(korvel_test::runInChild([&] {
              return chdir(at("d").c_str()) == 0 && find("./", 1) == 1 && calls == Calls{"F:only"};
            }),
            1)
      << "entries of . are reported by bare names";
}

TEST_F(PathsTest, DirectorySizeCountsEveryFileBelow) {
  ASSERT_TRUE(koMkdirP(at("d/.e/f").c_str()));
  for (const char* file : {"a", ".h", "d/b", "d/.e/c", "d/.e/f/g"}) writeFile(at(file), file);
  const int64_t expected = 1 + 2 + 3 + 6 + 8;
  EXPECT_EQ(koGetDirectorySize(dir_.path().c_str()), expected);
  EXPECT_EQ(koGetDirectorySize(at("missing").c_str()), 0);
  // A directory that cannot be read contributes nothing, and stops nothing.
  ASSERT_EQ(mkdir(at("closed").c_str(), 0), 0);
  ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
  EXPECT_EQ(korvel_test::runUnprivileged(
                [&] { return koGetDirectorySize(dir_.path().c_str()) == expected ? 0 : 1; }),
            0);
}

TEST_F(PathsTest, TreeDeeperThanTheWalkersBuffersIsSizedAndRemovedSafely) {
  // 25 levels of 200-character names with a file on each: paths grow past
  // the walker's 4352-byte buffers and PATH_MAX. Built through descriptors.
  const std::string name(200, 'n');
  int fd = open(dir_.path().c_str(), O_RDONLY | O_DIRECTORY);
  int64_t reachable = 0;
  for (size_t level = 0, length = dir_.path().size(); level < 25; ++level, length += 201) {
    const int file = openat(fd, "f", O_WRONLY | O_CREAT, 0644);
    ASSERT_EQ(write(file, "abc", 3), 3);
    close(file);
    if (length + 2 < 4096) reachable += 3;
    ASSERT_EQ(mkdirat(fd, name.c_str(), 0755), 0);
    const int next = openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY);
    close(fd);
    fd = next;
    ASSERT_GE(fd, 0);
  }
  close(fd);
  const int64_t size = koGetDirectorySize(dir_.path().c_str());
  EXPECT_TRUE(size >= reachable && size < 25 * 3) << size << " of " << reachable << " reachable";
  // The remove takes what it can reach; the deep part keeps its ancestors.
  EXPECT_TRUE(koRemoveRF(at(name).c_str()));
  EXPECT_FALSE(koFileExists(at(name + "/f").c_str()));
  EXPECT_TRUE(koIsDirectory(at(name + "/" + name).c_str()));
}

TEST_F(PathsTest, WritePermissionAndMkdirPModes) {
  const std::string file = at("f"), missing = at("missing");
  writeFile(file, "x");
  ASSERT_EQ(koSetFilePermissions(file.c_str(), 0444), 0);
  EXPECT_EQ(koEnableWritePermission(file.c_str()), unsigned(S_IFREG | 0444)) << "the old mode";
  EXPECT_EQ(koDisableWritePermission(file.c_str()), unsigned(S_IFREG | 0666));
  EXPECT_EQ(modeOf(file), unsigned(S_IFREG | 0444));
  EXPECT_FALSE(koGetFilePermissions(missing.c_str()) || koEnableWritePermission(missing.c_str()) ||
               koDisableWritePermission(missing.c_str()) || koRemoveRF(missing.c_str()) ||
               koMkdirP("") || koMkdirP(nullptr) || koSetFilePermissions(missing.c_str(), 0) == 0);

  ASSERT_EQ(mkdir(at("a").c_str(), 0700), 0);
  EXPECT_TRUE(koMkdirP((at("a") + "//b///c/").c_str())) << "separators are normalised";
  EXPECT_EQ(modeOf(at("a")), unsigned(S_IFDIR | 0700)) << "existing directories are left alone";
  EXPECT_EQ(modeOf(at("a/b/c")), unsigned(S_IFDIR | 0755)) << "0775 less the umask";
  umask(0);
  EXPECT_TRUE(koMkdirP(at("a/b/d").c_str()) && modeOf(at("a/b/d")) == (S_IFDIR | 0775));
  EXPECT_FALSE(koMkdirP(file.c_str())) << "a plain file is no directory";
  EXPECT_TRUE(!koMkdirP(at("p/q/" + std::string(300, 'n') + "/r").c_str()) &&
              fs::is_directory(at("p/q")))
      << "what was made before the failure stays";
}

TEST_F(PathsTest, RemoveRFTakesReadOnlyTreesAndLeavesWhatCannotGo) {
  // Read-only everywhere and hidden entries, removed by an unprivileged user.
  ASSERT_TRUE(koMkdirP(at("t/ro/deeper").c_str()));
  for (const char* p : {"t/ro/deeper/file", "t/.hidden", "t/plain", "lonely"}) {
    writeFile(at(p), p);
    chmod(at(p).c_str(), 0444);
  }
  for (const char* p : {"t/ro/deeper", "t/ro", "t"}) chmod(at(p).c_str(), 0555);
  if (geteuid() == 0) {  // hand the tree to the remover
    for (auto& entry : fs::recursive_directory_iterator(dir_.path())) {
      ASSERT_EQ(lchown(entry.path().c_str(), korvel_test::kNobody, korvel_test::kNobody), 0);
    }
    ASSERT_EQ(chown(dir_.path().c_str(), korvel_test::kNobody, korvel_test::kNobody), 0);
  }
  EXPECT_EQ(korvel_test::runUnprivileged([&] {
              return koRemoveRF(at("t").c_str()) && koRemoveRF(at("lonely").c_str()) ? 0 : 1;
            }),
            0);
  EXPECT_TRUE(snapshot(dir_.path()).empty());

  // What cannot go stays, with its ancestors and their modes.
  ASSERT_TRUE(koMkdirP(at("d/sub/inner").c_str()) && koMkdirP(at("d/sibling").c_str()));
  for (const char* p : {"d/a", "d/sub/keep", "d/sub/other", "d/sibling/x"}) writeFile(at(p), "");
  chmod(at("d/sub/keep").c_str(), 0444);
  chmod(at("d/sub").c_str(), 0500);
  chmod(at("d").c_str(), 0550);
  refusedRemovals.insert(at("d/sub/keep"));
  EXPECT_TRUE(koRemoveRF(at("d").c_str())) << "the path existed";
  EXPECT_EQ(snapshot(at("d")), (std::map<std::string, unsigned>{{"sub", S_IFDIR | 0500},
                                                                {"sub/keep", S_IFREG | 0444}}));
  EXPECT_EQ(modeOf(at("d")), unsigned(S_IFDIR | 0550));
}

// A random tree of directories, files and links to directories within it;
// the same generator state builds the same tree.
void randomTree(std::mt19937& random, const std::string& root) {
  std::vector<std::string> dirs{""};
  for (int i = 0; i < 40; ++i) {
    const std::string name = dirs[random() % dirs.size()] + "/e" + std::to_string(i);
    const unsigned kind = random() % 4;
    if (kind < 2) {
      ASSERT_EQ(mkdir((root + name).c_str(), 0755), 0);
      dirs.push_back(name);
    } else if (kind == 2) {
      writeFile(root + name, name);
    } else {
      ASSERT_EQ(symlink((root + dirs[random() % dirs.size()]).c_str(), (root + name).c_str()), 0);
    }
  }
}

TEST_F(PathsTest, AgreesWithTheStandardLibraryOnRandomTrees) {
  std::mt19937 random(20261122);
  for (int round = 0; round < 25; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const std::string ours = at("ours" + std::to_string(round));
    const std::string theirs = at("theirs" + std::to_string(round));
    ASSERT_TRUE(koMkdirP(ours.c_str()) && koMkdirP(theirs.c_str()));
    std::mt19937 copy = random;
    randomTree(random, ours);
    randomTree(copy, theirs);
    // Create below random entries (some are files or links), then remove a
    // random subtree (links included).
    std::vector<std::string> all;
    for (const auto& entry : snapshot(ours)) all.push_back("/" + entry.first);
    std::error_code ec;
    for (int i = 0; i < 4; ++i) {
      const std::string below = all[random() % all.size()] + "/n" + std::to_string(i) + "/m";
      fs::create_directories(theirs + below, ec);
      EXPECT_EQ(koMkdirP((ours + below).c_str()), !ec) << below;
    }
    const std::string victim = all[random() % all.size()];
    const bool existed = modeOf(ours + victim) != 0;
    fs::remove_all(theirs + victim, ec);
    EXPECT_EQ(koRemoveRF((ours + victim).c_str()), existed) << victim;
    EXPECT_EQ(snapshot(ours), snapshot(theirs)) << "after removing " << victim;
  }
}

}  // namespace
