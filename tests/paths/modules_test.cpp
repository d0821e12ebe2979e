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

std::string resolved(const std::string& path) {
  char buffer[PATH_MAX];
  return realpath(path.c_str(), buffer) != nullptr ? buffer : "";
}

int inThisProgram = 0;

TEST(ModulePath, AddressesLeadToTheirModulesAndNamesToLoadedModules) {
  char path[8706];
  koGetCurrentModulePath(reinterpret_cast<void*>(&koMkdirP), path, sizeof path);
  const std::string library = path;
  EXPECT_EQ(library.substr(library.rfind('/') + 1, 12), "libkorvel.so") << library;
  EXPECT_TRUE(koGetCurrentModulePath(&inThisProgram, path, sizeof path));
  EXPECT_EQ(resolved(path), resolved("/proc/self/exe"));
  int onTheStack = 0;
  EXPECT_TRUE(koGetCurrentModulePath(&onTheStack, path, sizeof path));
  EXPECT_STREQ(path, "") << "no module holds the stack";
  char small[6] = "xxxxx";
  koGetCurrentModulePath(reinterpret_cast<void*>(&koMkdirP), small, sizeof small);
  EXPECT_EQ(std::string(small), library.substr(0, 5)) << "cut to the buffer, terminated";

  char out[8706];
  const char* symbols[] = {"koMkdirP", "koNoSuchSymbolAnywhere"};
  EXPECT_EQ(koGetLoadedModuleFullPath(out, "libkorvel", nullptr, 0), out);
  EXPECT_EQ(out, resolved(library));
  EXPECT_EQ(koGetLoadedModuleFullPath(out, "libkorvel", symbols, 2), nullptr) << "one is missing";
  const char* reversed[] = {"koNoSuchSymbolAnywhere", "koMkdirP"};
  EXPECT_EQ(koGetLoadedModuleFullPath(out, "libkorvel", reversed, 2), nullptr) << "the first too";
  // Every library's file name begins with "lib"; only this one exports
  // koMkdirP, so the others are passed over whatever their order.
  ASSERT_NE(koGetLoadedModuleFullPath(out, "lib", symbols, 1), nullptr);
  EXPECT_EQ(out, resolved(library));
  ASSERT_NE(koGetLoadedModuleFullPath(out, nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(out, resolved("/proc/self/exe")) << "no name: the first module, the program";
  EXPECT_EQ(koGetLoadedModuleFullPath(out, "no-module-is-called-this", nullptr, 0), nullptr);
}

TEST(ModuleList, ExecutableMappingsInOrderAndTheBestNameMatch) {
  korvel_test::TempDir dir;
  const std::string maps = dir / "maps";
  korvel_test::writeFile(maps,
                         "00400000-00452000 r-xp 00000000 08:02 173521 /opt/foo/bin/prog\n"
                         "00651000-00652000 r--p 00051000 08:02 173521 /lib/readonly_foo.so\n"
                         "7f01-7f02 r-xp 00000000 08:02 2 /lib/libfoo.so\n"
                         "7f02-7f03 rw-p 00000000 00:00 0 [heap]\n"
                         "7f03-7f04 r-xp 00000000 08:02 3 /lib/foolish.so\n"
                         "7f04-7f05 r-xp 00000000 08:02 3 /lib/foolish.so\n");
  const koLoadedModuleListIterator end(maps.c_str(), koLoadedModuleListIterator::END, nullptr);
  std::vector<std::string> paths;
  for (koLoadedModuleListIterator it(maps.c_str(), 0, nullptr); it != end; ++it) {
    paths.push_back(*it);
  }
  EXPECT_EQ(paths, (std::vector<std::string>{"/opt/foo/bin/prog", "/lib/libfoo.so",
                                             "/lib/foolish.so", "/lib/foolish.so"}));
  EXPECT_STREQ(*koLoadedModuleListIterator(maps.c_str(), 2, nullptr), "/lib/foolish.so");
  EXPECT_TRUE(koLoadedModuleListIterator((dir / "missing").c_str(), 0, nullptr) == end);

  // Name only in a directory, then inside the file name, then at its start.
  char out[8706] = "";
  koLoadedModuleNameChecker checker("foo", out, nullptr, 0);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(checker(paths[i].c_str()), i == 2) << "stops at a file name starting with it";
    EXPECT_EQ(checker.result(), paths[i]) << "each better than the one before";
  }
  koLoadedModuleNameChecker firstOfEqual("o", out, nullptr, 0);
  EXPECT_FALSE(firstOfEqual("/lib/libfoo.so") || firstOfEqual("/lib/libboo.so"));
  EXPECT_STREQ(firstOfEqual.result(), "/lib/libfoo.so") << "ties go to the earlier module";
  const char* symbols[] = {"anything"};
  koLoadedModuleNameChecker absent("bar", out, nullptr, 0), unloadable("foo", out, symbols, 1);
  for (const std::string& path : paths)
    EXPECT_FALSE(absent(path.c_str()) || unloadable(path.c_str()));
  EXPECT_EQ(absent.result(), nullptr);
  EXPECT_EQ(unloadable.result(), nullptr) << "modules that cannot be loaded are passed over";
}

}  // namespace
