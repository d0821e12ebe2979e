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
//
// The read-write lock (KIND is read or write):
//   lock_child rw-hold DIR KIND [norefresh]
//                            take the lock, print "held", hold it until
//                            SIGTERM, release, print "released".
//   lock_child rw-try DIR KIND MS
//                            try for MS ms to take the lock; exit 0 when it
//                            was held (and released), 1 when not. A finite
//                            acquire gives up when another process is busy
//                            in the directory lock, so it is repeated.
//   lock_child rw-mix DIR WORK M SEED
//                            M acquisitions, about 40 % writes, no time-out.
//                            Inside, markers in WORK detect overlaps and
//                            writers add one to WORK/counter. Prints
//                            "writes W reads R"; exit status: overlaps.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "korvel/fs_lock.h"

using Zentha::System::TimeUnit;

namespace {

const unsigned long kForever = static_cast<unsigned long>(-1);

bool createExclusive(const std::string& path) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
  if (fd < 0) return false;
  close(fd);
  return true;
}

bool anyReaderMarker(const std::string& work) {
  bool found = false;
  if (DIR* d = opendir(work.c_str())) {
    while (dirent* e = readdir(d)) found = found || strncmp(e->d_name, "reader.", 7) == 0;
    closedir(d);
  }
  return found;
}

void addOne(const std::string& counter) {
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
}

int countLoop(const std::string& dir, int rounds) {
  koDirectoryExclusiveLock lock(dir, "counter");
  const std::string inside = dir + "/inside";
  int overlaps = 0;
  for (int i = 0; i < rounds; ++i) {
    if (!lock.acquire(kForever, TimeUnit::sSeconds(), false)) return 100;
    const bool alone = createExclusive(inside);
    if (!alone) ++overlaps;
    addOne(dir + "/counter");
    if (alone) unlink(inside.c_str());
    if (!lock.release(kForever, TimeUnit::sSeconds())) return 101;
  }
  return overlaps > 99 ? 99 : overlaps;
}

int once(const std::string& dir) {
  koDirectoryExclusiveLock lock(dir, "once");
  if (!lock.acquire(0, TimeUnit::sSeconds(), true)) return 1;
  return lock.release(0, TimeUnit::sSeconds()) ? 0 : 2;
}

volatile sig_atomic_t terminated = 0;

void onTerminate(int) {
  terminated = 1;
}

int rwHold(const std::string& dir, bool write, bool noRefresh) {
  struct sigaction action = {};
  action.sa_handler = onTerminate;
  sigaction(SIGTERM, &action, nullptr);
  koDirectoryReadWriteLock rw(dir);
  koDirectoryReadWriteLock::ReadLock reading = rw.getReadLock();
  koDirectoryReadWriteLock::WriteLock writing = rw.getWriteLock();
  koDirectoryReadWriteLock::AbstractLock& lock =
      write ? static_cast<koDirectoryReadWriteLock::AbstractLock&>(writing) : reading;
  if (!lock.acquire(kForever, TimeUnit::sSeconds(), noRefresh)) return 1;
  printf("held\n");
  fflush(stdout);
  while (!terminated) usleep(10000);
  if (!lock.release(kForever, TimeUnit::sSeconds())) return 2;
  printf("released\n");
  return 0;
}

int rwTry(const std::string& dir, bool write, unsigned long ms) {
  koDirectoryReadWriteLock rw(dir);
  koDirectoryReadWriteLock::ReadLock reading = rw.getReadLock();
  koDirectoryReadWriteLock::WriteLock writing = rw.getWriteLock();
  koDirectoryReadWriteLock::AbstractLock& lock =
      write ? static_cast<koDirectoryReadWriteLock::AbstractLock&>(writing) : reading;
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (!lock.acquire(ms, TimeUnit::sMilliseconds(), true)) {
    if (std::chrono::steady_clock::now() >= giveUp) return 1;
    usleep(10000);
  }
  return lock.release(kForever, TimeUnit::sSeconds()) ? 0 : 2;
}

int rwMix(const std::string& dir, const std::string& work, int rounds, unsigned seed) {
  koDirectoryReadWriteLock rw(dir);
  koDirectoryReadWriteLock::ReadLock reading = rw.getReadLock();
  koDirectoryReadWriteLock::WriteLock writing = rw.getWriteLock();
  const std::string writerMarker = work + "/writer";
  const std::string readerMarker = work + "/reader." + std::to_string(getpid());
  int overlaps = 0;
  int writes = 0;
  for (int i = 0; i < rounds; ++i) {
    const bool write = rand_r(&seed) % 10 < 4;
    if (write) {
      if (!writing.acquire(kForever, TimeUnit::sSeconds())) return 100;
      const bool alone = createExclusive(writerMarker);
      if (!alone || anyReaderMarker(work)) ++overlaps;
      addOne(work + "/counter");
      ++writes;
      if (alone) unlink(writerMarker.c_str());
      if (!writing.release(kForever, TimeUnit::sSeconds())) return 101;
    } else {
      if (!reading.acquire(kForever, TimeUnit::sSeconds())) return 100;
      const bool marked = createExclusive(readerMarker);
      if (access(writerMarker.c_str(), F_OK) == 0) ++overlaps;
      usleep(200);
      if (access(writerMarker.c_str(), F_OK) == 0) ++overlaps;
      if (marked) unlink(readerMarker.c_str());
      if (!reading.release(kForever, TimeUnit::sSeconds())) return 101;
    }
  }
  printf("writes %d reads %d\n", writes, rounds - writes);
  return overlaps > 99 ? 99 : overlaps;
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
  if (mode == "rw-hold" && argc >= 4) {
    return rwHold(dir, strcmp(argv[3], "write") == 0,
                  argc == 5 && strcmp(argv[4], "norefresh") == 0);
  }
  if (mode == "rw-try" && argc == 5) {
    return rwTry(dir, strcmp(argv[3], "write") == 0, strtoul(argv[4], nullptr, 10));
  }
  if (mode == "rw-mix" && argc == 6) {
    return rwMix(dir, argv[3], atoi(argv[4]), static_cast<unsigned>(atoi(argv[5])));
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
