// Module lookup, against the shared library as a client process loads it.
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>

#include <cstring>
#include <string>
#include <vector>

#include "korvel/paths.h"
#include "tests/support/temp_dir.h"

namespace {

using korvel_test::TempDirTest;

std::string resolved(const std::string& path) {
  char buffer[PATH_MAX];
  return realpath(path.c_str(), buffer) != nullptr ? buffer : "";
}

std::string libraryFile() {
  char path[8706];
  koGetCurrentModulePath(reinterpret_cast<void*>(&koMkdirP), path, sizeof path);
  return path;
}

std::string baseName(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

int inThisProgram() {
  return 1;
}

TEST(ModulePath, AddressesLeadToTheirModules) {
  const std::string library = libraryFile();
  EXPECT_EQ(baseName(library).rfind("libkorvel.so", 0), 0u) << library;

  char path[8706];
  EXPECT_TRUE(koGetCurrentModulePath(reinterpret_cast<void*>(&inThisProgram), path, sizeof path));
  EXPECT_EQ(resolved(path), resolved("/proc/self/exe"));

  int onTheStack = 0;
  EXPECT_TRUE(koGetCurrentModulePath(&onTheStack, path, sizeof path));
  EXPECT_STREQ(path, "") << "no module holds the stack";

  char small[6];
  memset(small, 'x', sizeof small);
  koGetCurrentModulePath(reinterpret_cast<void*>(&koMkdirP), small, sizeof small);
  EXPECT_EQ(std::string(small), library.substr(0, 5)) << "cut to the buffer, terminated";
}

TEST(ModulePath, LoadedModulesAreFoundByNameAndSymbols) {
  const std::string library = resolved(libraryFile());
  char out[8706];

  EXPECT_EQ(koGetLoadedModuleFullPath(out, "libkorvel", nullptr, 0), out);
  EXPECT_EQ(out, library);

  const char* present[] = {"koMkdirP", "koRemoveRF"};
  ASSERT_NE(koGetLoadedModuleFullPath(out, "libkorvel", present, 2), nullptr);
  EXPECT_EQ(out, library);

  const char* oneMissing[] = {"koMkdirP", "koNoSuchSymbolAnywhere"};
  EXPECT_EQ(koGetLoadedModuleFullPath(out, "libkorvel", oneMissing, 2), nullptr);

  // Every library's file name begins with "lib"; only this one exports
  // koMkdirP, so the others are passed over whatever their order.
  const char* ours[] = {"koMkdirP"};
  ASSERT_NE(koGetLoadedModuleFullPath(out, "lib", ours, 1), nullptr);
  EXPECT_EQ(out, library);

  EXPECT_NE(koGetLoadedModuleFullPath(out, nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(out, resolved("/proc/self/exe")) << "no name: the first module, the program";

  EXPECT_EQ(koGetLoadedModuleFullPath(out, "no-module-is-called-this", nullptr, 0), nullptr);
}

class ModuleListTest : public TempDirTest {
 protected:
  ModuleListTest() {
    korvel_test::writeFile(at("maps"),
                           "00400000-00452000 r-xp 00000000 08:02 173521 /opt/foo/bin/prog\n"
                           "00651000-00652000 r--p 00051000 08:02 173521 /lib/readonly_foo.so\n"
                           "7f01-7f02 r-xp 00000000 08:02 2 /lib/libfoo.so\n"
                           "7f02-7f03 rw-p 00000000 00:00 0 [heap]\n"
                           "7f03-7f04 r-xp 00000000 08:02 3 /lib/foolish.so\n"
                           "7f04-7f05 r-xp 00000000 08:02 3 /lib/foolish.so\n"
                           "7f05-7f06 r-xp 00000000 08:02 4 /lib/foo.so\n");
  }

  std::vector<std::string> modules() {
    std::vector<std::string> paths;
    const std::string maps = at("maps");
    const koLoadedModuleListIterator end(maps.c_str(), koLoadedModuleListIterator::END, nullptr);
    for (koLoadedModuleListIterator it(maps.c_str(), 0, nullptr); it != end; ++it) {
      paths.push_back(*it);
    }
    return paths;
  }
};

TEST_F(ModuleListTest, ExecutableMappingsAreListedInOrderWithRepeats) {
  EXPECT_EQ(modules(),
            (std::vector<std::string>{"/opt/foo/bin/prog", "/lib/libfoo.so", "/lib/foolish.so",
                                      "/lib/foolish.so", "/lib/foo.so"}));
  const std::string maps = at("maps");
  EXPECT_STREQ(*koLoadedModuleListIterator(maps.c_str(), 2, nullptr), "/lib/foolish.so");
  EXPECT_TRUE(koLoadedModuleListIterator(maps.c_str(), 5, nullptr) ==
              koLoadedModuleListIterator(maps.c_str(), koLoadedModuleListIterator::END, nullptr));
  EXPECT_TRUE(koLoadedModuleListIterator(at("missing").c_str(), 0, nullptr) ==
              koLoadedModuleListIterator(maps.c_str(), koLoadedModuleListIterator::END, nullptr));
}

TEST_F(ModuleListTest, NameInTheFileNameBeatsADirectoryAndAPrefixEndsTheSearch) {
  char out[8706] = "";
  koLoadedModuleNameChecker checker("foo", out, nullptr, 0);
  const std::vector<std::string> paths = modules();
  EXPECT_FALSE(checker(paths[0].c_str()));
  EXPECT_EQ(checker.bestScore(), 1) << "name only in a directory";
  EXPECT_STREQ(checker.result(), "/opt/foo/bin/prog");
  EXPECT_FALSE(checker(paths[1].c_str()));
  EXPECT_EQ(checker.bestScore(), 9) << "name inside the file name";
  EXPECT_STREQ(checker.result(), "/lib/libfoo.so");
  EXPECT_TRUE(checker(paths[2].c_str())) << "the file name begins with the name";
  EXPECT_EQ(checker.bestScore(), 17);
  EXPECT_STREQ(checker.result(), "/lib/foolish.so");

  koLoadedModuleNameChecker firstOfEqual("o", out, nullptr, 0);
  EXPECT_FALSE(firstOfEqual("/lib/libfoo.so"));
  EXPECT_FALSE(firstOfEqual("/lib/libboo.so"));
  EXPECT_STREQ(firstOfEqual.result(), "/lib/libfoo.so") << "ties go to the earlier module";

  koLoadedModuleNameChecker absent("bar", out, nullptr, 0);
  for (const std::string& path : paths) EXPECT_FALSE(absent(path.c_str()));
  EXPECT_EQ(absent.result(), nullptr);

  const char* symbols[] = {"anything"};
  koLoadedModuleNameChecker unloadable("foo", out, symbols, 1);
  for (const std::string& path : paths) EXPECT_FALSE(unloadable(path.c_str()));
  EXPECT_EQ(unloadable.result(), nullptr) << "modules that cannot be loaded are passed over";
}

}  // namespace
