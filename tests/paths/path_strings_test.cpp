#include <limits.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "korvel/paths.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace {

using korvel_test::TempDirTest;

std::string collapse(const std::string& src, size_t n = std::string::npos) {
  std::vector<char> dst(src.size() + 1);
  return koCollapsePath(dst.data(), src.c_str(), n == std::string::npos ? src.size() : n);
}

std::string canonical(const std::string& in, size_t outSize = 8706) {
  std::vector<char> out(std::max<size_t>(outSize + 1, PATH_MAX));
  return koCanonicalizePath(out.data(), outSize, in.c_str(), in.size());
}

std::string realPath(const std::string& p) {
  char buf[PATH_MAX];
  return realpath(p.c_str(), buf) != nullptr ? buf : "";
}

// Restores the working directory when a test changed it.
class CwdGuard {
 public:
  CwdGuard() { saved_ = getcwd(buf_, sizeof buf_) != nullptr; }
  ~CwdGuard() {
    if (saved_) {
      EXPECT_EQ(chdir(buf_), 0);
    }
  }

 private:
  char buf_[PATH_MAX];
  bool saved_;
};

TEST(PathSeparators, AddAndInsert) {
  char buf[16] = "";
  EXPECT_TRUE(koAddPathSep(buf));
  EXPECT_STREQ(buf, "/");
  strcpy(buf, "/a/");
  EXPECT_TRUE(koAddPathSep(buf));
  EXPECT_STREQ(buf, "/a/");
  strcpy(buf, "/a");
  EXPECT_TRUE(koAddPathSep(buf));
  EXPECT_STREQ(buf, "/a/");
  EXPECT_FALSE(koAddPathSep(nullptr));

  strcpy(buf, "ab");
  EXPECT_EQ(koAddPathSepAt(buf, 1), 1u);
  EXPECT_STREQ(buf, "a/b");
  EXPECT_EQ(koAddPathSepAt(buf, 2), 0u);
  EXPECT_STREQ(buf, "a/b");
  strcpy(buf, "a");
  EXPECT_EQ(koAddPathSepAt(buf, 0), 1u);
  EXPECT_STREQ(buf, "/a");
  // The character at pos is not examined: inserting before a '/' doubles it.
  strcpy(buf, "a/b");
  EXPECT_EQ(koAddPathSepAt(buf, 1), 1u);
  EXPECT_STREQ(buf, "a//b");
  EXPECT_EQ(koAddPathSepAt(nullptr, 0), 0u);
}

TEST(PathSeparators, WashReplaceAndRoot) {
  char buf[16] = "a\\b/c\\";
  koWashPathSep(buf);
  EXPECT_STREQ(buf, "a/b/c/");
  strcpy(buf, "/a\\b/");
  koReplacePathSeps(buf, '\\');
  EXPECT_STREQ(buf, "\\a\\b\\");
  koReplacePathSeps(nullptr, 'x');
  koWashPathSep(nullptr);

  EXPECT_TRUE(koIsRootDir("/"));
  EXPECT_FALSE(koIsRootDir("//"));
  EXPECT_FALSE(koIsRootDir("/."));
  EXPECT_FALSE(koIsRootDir(""));
  EXPECT_TRUE(koIsPathSep('/'));
  EXPECT_FALSE(koIsPathSep('\\'));
}

TEST(CollapsePath, ResolvesSegmentsTextually) {
  EXPECT_EQ(collapse("/a/b/../c"), "/a/c");
  EXPECT_EQ(collapse("/a/./b"), "/a/b");
  EXPECT_EQ(collapse("a//b"), "a/b");
  EXPECT_EQ(collapse("/a///b//"), "/a/b/");
  EXPECT_EQ(collapse("//a"), "/a");
  EXPECT_EQ(collapse("a/b/"), "a/b/");
  EXPECT_EQ(collapse("a/."), "a/");
  EXPECT_EQ(collapse("/.../.x/"), "/.../.x/");
  EXPECT_EQ(collapse("/a/b//../c"), "/a/c");
}

TEST(CollapsePath, DotDotNeverClimbsAboveStart) {
  EXPECT_EQ(collapse("/.."), "/");
  EXPECT_EQ(collapse("/../x"), "/x");
  EXPECT_EQ(collapse("/a/../../b"), "/b");
  EXPECT_EQ(collapse("a/../.."), "");
  EXPECT_EQ(collapse("../a"), "a");
  EXPECT_EQ(collapse("a/b/../../../c"), "c");
}

TEST(CollapsePath, LengthLimitAndInPlace) {
  EXPECT_EQ(collapse("/abc/def", 4), "/abc");
  EXPECT_EQ(collapse("/a/b/../c", 6), "/a/b/");
  EXPECT_EQ(collapse("abc", 0), "");

  char buf[32] = "/x/./y//../z/";
  EXPECT_EQ(koCollapsePath(buf, buf, strlen(buf)), buf);
  EXPECT_STREQ(buf, "/x/z/");
}

TEST(CollapsePath, NeverReadsPastTheSourceNul) {
  // The source ends right before an inaccessible page; n claims far more.
  long page = sysconf(_SC_PAGESIZE);
  char* mem = static_cast<char*>(
      mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(mem, MAP_FAILED);
  ASSERT_EQ(mprotect(mem + page, page, PROT_NONE), 0);
  const char text[] = "/a/../bc";
  char* src = mem + page - sizeof text;
  memcpy(src, text, sizeof text);
  char dst[64];
  EXPECT_STREQ(koCollapsePath(dst, src, 1u << 20), "/bc");
  munmap(mem, 2 * page);
}

TEST_F(TempDirTest, CanonicalizeExistingAndMissingTails) {
  const std::string base = realPath(dir_.path());
  ASSERT_EQ(mkdir(at("sub").c_str(), 0755), 0);
  ASSERT_EQ(symlink(at("sub").c_str(), at("link").c_str()), 0);

  EXPECT_EQ(canonical(dir_ / "sub/./"), base + "/sub");
  // A link is resolved to its target, also in the existing prefix of a
  // longer, missing path.
  EXPECT_EQ(canonical(dir_ / "link"), base + "/sub");
  EXPECT_EQ(canonical(dir_ / "link/new/../x/"), base + "/sub/x/");
  EXPECT_EQ(canonical("   " + (dir_ / "sub/./new/../x/") + "  "), base + "/sub/x/");
  EXPECT_EQ(canonical(dir_ / "missing/deeper/file"), base + "/missing/deeper/file");
  // Nothing of it exists, up to the root.
  EXPECT_EQ(canonical("/no_such_root_dir_k/a/../b"), "/no_such_root_dir_k/b");
}

TEST_F(TempDirTest, CanonicalizeRelativeBlankAndTilde) {
  CwdGuard cwd;
  const std::string base = realPath(dir_.path());
  ASSERT_EQ(mkdir(at("sub").c_str(), 0755), 0);
  ASSERT_EQ(chdir(dir_.path().c_str()), 0);

  EXPECT_EQ(canonical(""), base);
  EXPECT_EQ(canonical(" \t "), base);
  EXPECT_EQ(canonical("sub"), base + "/sub");
  EXPECT_EQ(canonical("sub/missing/../x"), base + "/sub/x");
  EXPECT_EQ(canonical("missing/x"), base + "/missing/x");

  setenv("HOME", base.c_str(), 1);
  EXPECT_EQ(canonical("~/sub/missing"), base + "/sub/missing");
  EXPECT_EQ(canonical("~"), base);
}

TEST_F(TempDirTest, CanonicalizeUsesOnlyThePrefixGiven) {
  // inLen shorter than the string: only that much is used.
  ASSERT_EQ(mkdir(at("sub").c_str(), 0755), 0);
  const std::string base = realPath(dir_.path());
  const std::string text = (dir_ / "sub") + "/ignored";
  std::vector<char> out(PATH_MAX + 1);
  EXPECT_EQ(std::string(koCanonicalizePath(out.data(), 8706, text.c_str(), text.size() - 8)),
            base + "/sub");
}

TEST(CanonicalizePath, NeverWritesPastOutSize) {
  // A long input and small outputs: everything written must fit outSize + 1.
  std::string in = "/no_such_dir_k/" + std::string(9000, 'x');
  for (size_t outSize : {1u, 5u, 40u, 300u}) {
    std::vector<char> out(PATH_MAX + outSize + 64, '#');
    char* result = koCanonicalizePath(out.data(), outSize, in.c_str(), in.size());
    ASSERT_NE(result, nullptr);
    EXPECT_LE(strlen(result), outSize);
    for (size_t i = outSize + 1; i < out.size(); ++i) ASSERT_EQ(out[i], '#') << outSize;
  }
  // A relative input longer than the local buffers, into outputs smaller and
  // larger than them.
  std::string rel(20000, 'r');
  for (size_t outSize : {size_t{PATH_MAX}, size_t{12000}}) {
    std::vector<char> out(outSize + 1);
    char* result = koCanonicalizePath(out.data(), outSize, rel.c_str(), rel.size());
    EXPECT_LE(strlen(result), outSize);
    EXPECT_EQ(result[0], '/') << "made absolute";
  }
}

TEST_F(TempDirTest, QueriesFollowLinks) {
  korvel_test::writeFile(at("f"), "12345");
  ASSERT_EQ(mkdir(at("d").c_str(), 0755), 0);
  ASSERT_EQ(symlink(at("f").c_str(), at("lf").c_str()), 0);
  ASSERT_EQ(symlink(at("d").c_str(), at("ld").c_str()), 0);
  ASSERT_EQ(symlink(at("gone").c_str(), at("dangling").c_str()), 0);

  EXPECT_TRUE(koFileExists(at("f").c_str()));
  EXPECT_TRUE(koFileExists(at("lf").c_str()));
  EXPECT_FALSE(koFileExists(at("d").c_str()));
  EXPECT_TRUE(koFileOrDirExists(at("d").c_str()));
  EXPECT_TRUE(koIsDirectory(at("ld").c_str()));
  EXPECT_FALSE(koIsDirectory(at("f").c_str()));
  EXPECT_FALSE(koIsDirectory(nullptr));
  EXPECT_FALSE(koFileExists(at("dangling").c_str()));
  EXPECT_FALSE(koFileOrDirExists(at("dangling").c_str()));
  EXPECT_EQ(koGetFileSize(at("lf").c_str()), 5);
  EXPECT_EQ(koGetFileSize(at("gone").c_str()), 0);
}

TEST_F(TempDirTest, AvailableSpace) {
  uint64_t bytes = 0;
  EXPECT_TRUE(koGetFileSystemAvailableSpace(dir_.path().c_str(), &bytes));
  EXPECT_NE(bytes, ~uint64_t{0});
  EXPECT_FALSE(koGetFileSystemAvailableSpace(at("missing").c_str(), &bytes));
  EXPECT_EQ(bytes, ~uint64_t{0});
}

TEST_F(TempDirTest, TempNamesAreFreshAndDistinct) {
  // The temporary directory is read once per process: run in a child that
  // has not called koGetTempDir yet.
  const std::string dir = dir_.path();
  EXPECT_EQ(korvel_test::runInChild([&] {
              setenv("TMP", dir.c_str(), 1);
              const std::string tmp = koGetTempDir();
              if (tmp != dir + "/") return 1;
              unsetenv("TMP");
              if (koGetTempDir() != tmp) return 2;  // read only once

              // Same buffer, back to back: the counter keeps the names apart.
              char buf[PATH_MAX];
              std::string first = koGetTempName(buf);
              std::string second = koGetTempName(buf);
              if (first == second) return 3;
              if (first.rfind(tmp + "tp", 0) != 0 || first.size() != tmp.size() + 8) return 4;

              // Each name is free when returned; occupying it never makes a
              // later call return it.
              for (int i = 0; i < 300; ++i) {
                koGetTempName(buf);
                if (koFileOrDirExists(buf)) return 5;
                if (mkdir(buf, 0700) != 0) return 6;
              }
              return 0;
            }),
            0);
}

TEST(TempDir, DefaultsAndOverlongValues) {
  EXPECT_EQ(korvel_test::runInChild([] {
              unsetenv("TMP");
              return std::string(koGetTempDir()) == "/tmp/" ? 0 : 1;
            }),
            0);
  EXPECT_EQ(korvel_test::runInChild([] {
              setenv("TMP", "", 1);
              return std::string(koGetTempDir()) == "/" ? 0 : 1;
            }),
            0);
  // A value longer than the library's path buffer is cut to fit.
  EXPECT_EQ(korvel_test::runInChild([] {
              setenv("TMP", std::string(20000, 't').c_str(), 1);
              size_t n = strlen(koGetTempDir());
              return n <= 8705 && koGetTempDir()[n - 1] == '/' ? 0 : 1;
            }),
            0);
}

}  // namespace
