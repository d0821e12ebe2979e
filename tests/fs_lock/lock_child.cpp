// A separate process for the lock tests (exec'd, so the library is loaded
// afresh with the environment the test chose).
//
//   lock_child count DIR M   M times: take DIR's lock (no time-out), check
//                            that nobody else is inside, add one to
//                            DIR/counter, release. Exit status: the number
//                            of overlaps seen (0 expected).
//   lock_child hold DIR      take the lock with refresh, print "held", wait
//                            to be killed.
//   lock_child once DIR      take (time-out 0) and release once.
//   lock_child late DIR      set KORVEL_FSLOCK_VERBOSE, then as "once".
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "korvel/fs_lock.h"

using Zentha::System::TimeUnit;

namespace {

const unsigned long kForever = static_cast<unsigned long>(-1);

int countLoop(const std::string& dir, int rounds) {
  koDirectoryExclusiveLock lock(dir, "counter");
  const std::string inside = dir + "/inside";
  const std::string counter = dir + "/counter";
  int overlaps = 0;
  for (int i = 0; i < rounds; ++i) {
    if (!lock.acquire(kForever, TimeUnit::sSeconds(), false)) return 100;
    int fd = open(inside.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (fd < 0) {
      ++overlaps;
    } else {
      close(fd);
    }
    int value = 0;
    if (FILE* in = fopen(counter.c_str(), "r")) {
      if (fscanf(in, "%d", &value) != 1) value = 0;
      fclose(in);
    }
    usleep(200);  // widen the window a lost update would need
    if (FILE* out = fopen(counter.c_str(), "w")) {
      fprintf(out, "%d", value + 1);
      fclose(out);
    }
    if (fd >= 0) unlink(inside.c_str());
    if (!lock.release(kForever, TimeUnit::sSeconds())) return 101;
  }
  return overlaps > 99 ? 99 : overlaps;
}

int once(const std::string& dir) {
  koDirectoryExclusiveLock lock(dir, "once");
  if (!lock.acquire(0, TimeUnit::sSeconds(), true)) return 1;
  return lock.release(0, TimeUnit::sSeconds()) ? 0 : 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 64;
  const std::string mode = argv[1];
  const std::string dir = argv[2];
  if (mode == "count" && argc == 4) return countLoop(dir, atoi(argv[3]));
  if (mode == "once") return once(dir);
  if (mode == "late") {
    setenv("KORVEL_FSLOCK_VERBOSE", "1", 1);
    setenv("KORVEL_FSLOCK_WARNING", "1", 1);
    return once(dir);
  }
  if (mode == "hold") {
    koDirectoryExclusiveLock lock(dir, "holder");
    if (!lock.acquire(kForever, TimeUnit::sSeconds(), false)) return 1;
    printf("held\n");
    fflush(stdout);
    for (;;) pause();
  }
  return 64;
}
