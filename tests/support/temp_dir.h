// Scratch directories and small file helpers for tests: a fresh temporary
// directory per test, removed with everything in it afterwards (also trees
// whose paths exceed PATH_MAX, whatever their modes).
#ifndef KORVEL_TESTS_SUPPORT_TEMP_DIR_H_
#define KORVEL_TESTS_SUPPORT_TEMP_DIR_H_

#include <gtest/gtest.h>
#include <time.h>

#include <set>
#include <string>

namespace korvel_test {

// Creates a directory below $TMPDIR (or /tmp) and removes its tree on
// destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + name
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Removes the tree at path without building full paths, so it works below
// PATH_MAX depth too. Adds owner permissions where needed.
void removeTree(const std::string& path);

// Writes text to the file at path (created or truncated), its times set
// `age` seconds back when age is not 0; fails the test on error.
void writeFile(const std::string& path, const std::string& text, time_t age = 0);
// Reads the whole file; empty when it cannot be read.
std::string readFile(const std::string& path);
// The names in dir, without "." and "..".
std::set<std::string> entries(const std::string& dir);
// Sets the modification (and access) time of path to whole second seconds;
// false on failure.
bool setMtime(const std::string& path, time_t seconds);

class TempDirTest : public ::testing::Test {
 protected:
  TempDir dir_;
  std::string at(const std::string& name) const { return dir_ / name; }
};

}  // namespace korvel_test

#endif  // KORVEL_TESTS_SUPPORT_TEMP_DIR_H_
