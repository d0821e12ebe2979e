// One process of the lock tests, on one host or on several (exec'd, so the
// library is loaded afresh with the environment the test chose). Times T are
// microseconds of CLOCK_MONOTONIC, which network namespaces share and faketime
// leaves alone, so that lines from different hosts compare. KIND is excl,
// read or write.
//
//   lock_child count DIR M   M holds of DIR's exclusive lock; inside, the
//                            marker DIR/inside must be free and DIR/counter
//                            gains one. Prints "X start end asked" per hold
//                            (asked: when it asked for the lock); exit
//                            status: the overlaps seen.
//   lock_child rw-mix DIR WORK M SEED [HOLD_US]
//                            M holds of DIR's read-write lock, about 40 %
//                            writes; markers in WORK detect overlaps, writers
//                            add one to WORK/counter, readers stay HOLD_US
//                            (200). Prints "W|R start end asked" per hold, then
//                            "writes W reads R"; exit status: overlaps.
//   lock_child inside WORK KIND ASKED
//                            one hold's work for a command that korvel-lock
//                            runs: KIND write or read, markers and counter as
//                            in rw-mix. Prints "W|R start end ASKED"; exit
//                            status: overlaps.
//   lock_child hold DIR KIND take the lock, print "held T REALTIME"; "lost T"
//                            when it is lost; on SIGTERM release it and print
//                            "released 1|0 T". SIGTSTP stops it as a paused
//                            virtual machine stops: its monotonic clock does
//                            not count the stop.
//   lock_child try DIR KIND MS
//                            exit 0 when the lock could be had within MS ms
//                            (and released), 1 when not.
//   lock_child watch FILE [stat]
//                            print "T CONTENT" whenever FILE's content
//                            changes ("-" when missing), every 10 ms; with
//                            "stat", "T CONTENT SIZE MTIME_NS INODE" whenever
//                            the content or these attributes change.
//   lock_child stamp         print T.
//   lock_child once DIR      take (time-out 0) and release the exclusive lock.
//   lock_child late DIR      set KORVEL_FSLOCK_VERBOSE, then as "once".
// The count and rw-mix modes keep their arguments and markers from release
// to release, so that builds of different versions can be run together.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>

#include "host/host.h"
#include "korvel/fs_lock.h"
#include "tests/support/any_lock.h"

using Zentha::System::TimeUnit;

// A test's stand-in for /dev/shm, so that the test process and its children
// know the same about this host.
extern "C" const char* hostLocalStateDirectory() {
  const char* dir = getenv("KORVEL_TEST_STATE_DIR");  // NOLINT(concurrency-mt-unsafe)
  return dir != nullptr ? dir : hostDefaultLocalStateDirectory();
}

// A test may make the library's timed waits pass faster
// (KORVEL_TEST_TIME_SCALE): its refresh then comes sooner.
extern "C" double hostRealSeconds(double seconds) {
  static const double scale = [] {
    const char* text = getenv("KORVEL_TEST_TIME_SCALE");  // NOLINT(concurrency-mt-unsafe)
    return text != nullptr ? atof(text) : 1.0;
  }();
  return seconds / scale;
}

// Seconds the process stood still after SIGTSTP, and while it stands still
// the clock reading it stopped at (0 when running).
static std::atomic<double> pausedFor{0.0};
static std::atomic<double> pausedAt{0.0};

// Lock numbers with ten digits in every worker (2^30 to 2^31 - 1), so that
// a file taken over by another worker keeps its size: a mount that keeps a
// file's pages until its size changes then reads the old holder's number.
extern "C" unsigned hostRandom() {
  return std::random_device()() | 0x40000000u;
}

// The library's monotonic clock, less the pauses.
extern "C" double hostMonotonic() {
  const double at = pausedAt.load();
  return (at != 0.0 ? at : hostDefaultMonotonic()) - pausedFor.load();
}

namespace {

// Stops the whole process; once it continues, the stop is taken off the
// clock. Until then the clock reads as at the stop, so that no thread that
// runs first sees the time that passed.
void pauseClock(int) {
  pausedAt.store(hostDefaultMonotonic());
  raise(SIGSTOP);
  pausedFor.store(pausedFor.load() + hostDefaultMonotonic() - pausedAt.load());
  pausedAt.store(0.0);
}

long long now() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec * 1000000LL + t.tv_nsec / 1000;
}

void say(const std::string& line) {
  printf("%s\n", line.c_str());
  fflush(stdout);
}

// A failed acquire or release: says why, returns status.
int failed(const char* what, int status) {
  say(std::string(what) + " failed: " + strerror(errno));
  return status;
}

std::string interval(const char* kind, long long start, long long asked) {
  return std::string(kind) + " " + std::to_string(start) + " " + std::to_string(now()) + " " +
         std::to_string(asked);
}

bool createExclusive(const std::string& path) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
  if (fd < 0) return false;
  close(fd);
  return true;
}

std::string readAll(const std::string& path) {
  FILE* in = fopen(path.c_str(), "r");
  if (in == nullptr) return "-";
  char text[64] = "";
  const size_t n = fread(text, 1, sizeof text - 1, in);
  fclose(in);
  text[n] = '\0';
  return text;
}

bool anyReaderMarker(const std::string& work) {
  bool found = false;
  if (DIR* d = opendir(work.c_str())) {
    while (dirent* e = readdir(d)) found = found || strncmp(e->d_name, "reader.", 7) == 0;
    closedir(d);
  }
  return found;
}

// Read, wait, write: a second holder inside would lose an update.
void addOne(const std::string& counter) {
  const int value = atoi(readAll(counter).c_str());
  usleep(200);
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
    const long long asked = now();
    if (!lock.acquire(koForever, TimeUnit::sSeconds(), false)) return failed("acquire", 100);
    const long long start = now();
    const bool alone = createExclusive(inside);
    overlaps += !alone;
    addOne(dir + "/counter");
    if (alone && unlink(inside.c_str()) != 0) failed("removing the marker", 0);
    say(interval("X", start, asked));
    if (!lock.release(koForever, TimeUnit::sSeconds())) return failed("release", 101);
  }
  return overlaps > 99 ? 99 : overlaps;
}

// One hold's work in DIR: a writer must find no marker and adds one to the
// counter, a reader must find no writer's marker. Prints the interval and
// returns the overlaps seen.
int holdWork(const std::string& dir, bool write, int holdUs, long long asked) {
  char host[64] = "";
  gethostname(host, sizeof host - 1);
  const std::string writer = dir + "/writer";
  const std::string reader = dir + "/reader." + host + "." + std::to_string(getpid());
  const long long start = now();
  int overlaps = 0;
  const bool marked = createExclusive(write ? writer : reader);
  if (write) {
    overlaps += !marked || anyReaderMarker(dir);
    addOne(dir + "/counter");
  } else {
    overlaps += access(writer.c_str(), F_OK) == 0;
    usleep(holdUs);
    overlaps += access(writer.c_str(), F_OK) == 0;
  }
  if (marked) unlink((write ? writer : reader).c_str());
  say(interval(write ? "W" : "R", start, asked));
  return overlaps;
}

int rwMix(const std::string& dir, const std::string& work, int rounds, unsigned seed, int holdUs) {
  koDirectoryReadWriteLock rw(dir);
  koDirectoryReadWriteLock::ReadLock reading = rw.getReadLock();
  koDirectoryReadWriteLock::WriteLock writing = rw.getWriteLock();
  int overlaps = 0;
  int writes = 0;
  for (int i = 0; i < rounds; ++i) {
    const bool write = rand_r(&seed) % 10 < 4;
    writes += write;
    koDirectoryReadWriteLock::AbstractLock& lock =
        write ? static_cast<koDirectoryReadWriteLock::AbstractLock&>(writing) : reading;
    const long long asked = now();
    if (!lock.acquire(koForever, TimeUnit::sSeconds())) return failed("acquire", 100);
    overlaps += holdWork(work, write, holdUs, asked);
    if (!lock.release(koForever, TimeUnit::sSeconds())) return failed("release", 101);
  }
  say("writes " + std::to_string(writes) + " reads " + std::to_string(rounds - writes));
  return overlaps > 99 ? 99 : overlaps;
}

int hold(const std::string& dir, const std::string& kind) {
  sigset_t terminate;
  sigemptyset(&terminate);
  sigaddset(&terminate, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &terminate, nullptr);  // taken by sigwait below
  signal(SIGTSTP, pauseClock);
  korvel_test::AnyLock lock(dir, kind == "excl", "child");
  lock.onLost([] { say("lost " + std::to_string(now())); });
  if (!lock.acquire(koForever, kind == "write")) return 1;
  say("held " + std::to_string(now()) + " " + std::to_string(time(nullptr)));
  int signal = 0;
  sigwait(&terminate, &signal);
  say(std::string("released ") + (lock.release() ? "1 " : "0 ") + std::to_string(now()));
  return 0;
}

int watch(const std::string& file, bool attributes) {
  for (std::string last;;) {
    std::string text = readAll(file);
    struct stat st = {};
    if (attributes && text != "-" && stat(file.c_str(), &st) == 0)
      text += " " + std::to_string(st.st_size) + " " +
              std::to_string(st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec) + " " +
              std::to_string(st.st_ino);
    if (text != last) say(std::to_string(now()) + " " + text);
    last = text;
    usleep(10000);
  }
}

int once(const std::string& dir) {
  koDirectoryExclusiveLock lock(dir, "once");
  if (!lock.acquire(0, TimeUnit::sSeconds(), true)) return 1;
  return lock.release(0, TimeUnit::sSeconds()) ? 0 : 2;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "stamp") return say(std::to_string(now())), 0;
  if (argc < 3) return 64;
  const std::string dir = argv[2];
  if (mode == "count" && argc == 4) return countLoop(dir, atoi(argv[3]));
  if (mode == "rw-mix" && (argc == 6 || argc == 7)) {
    return rwMix(dir, argv[3], atoi(argv[4]), static_cast<unsigned>(atoi(argv[5])),
                 argc == 7 ? atoi(argv[6]) : 200);
  }
  if (mode == "inside" && argc == 5) return holdWork(dir, argv[3][0] == 'w', 200, atoll(argv[4]));
  if (mode == "hold" && argc == 4) return hold(dir, argv[3]);
  if (mode == "try" && argc == 5) {
    const std::string kind = argv[3];
    korvel_test::AnyLock lock(dir, kind == "excl", "child");
    if (!lock.acquire(strtoul(argv[4], nullptr, 10), kind == "write")) return 1;
    return lock.release() ? 0 : 2;
  }
  if (mode == "watch" && (argc == 3 || argc == 4)) return watch(dir, argc == 4);
  if (mode == "once") return once(dir);
  if (mode == "late") {
    setenv("KORVEL_FSLOCK_VERBOSE", "1", 1);
    setenv("KORVEL_FSLOCK_WARNING", "1", 1);
    return once(dir);
  }
  return 64;
}
