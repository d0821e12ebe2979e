// A tour of what libkorvel does: run it with a scratch directory or let it
// make one.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "korvel/fs_lock.h"
#include "korvel/ipc.h"
#include "korvel/paths.h"
#include "korvel/threads.h"
#include "korvel/version.h"

namespace {

struct Print : koStringProcedure {
  explicit Print(const char* kind) : kind(kind) {}
  void operator()(const char* path) const override { std::printf("    %-4s %s\n", kind, path); }
  const char* kind;
};

void writeFile(const std::string& path, size_t bytes) {
  FILE* f = std::fopen(path.c_str(), "w");
  if (f == nullptr) return;
  for (size_t i = 0; i < bytes; ++i) std::fputc('x', f);
  std::fclose(f);
}

void pathsTour(const std::string& dir) {
  std::printf("\n== Paths ==\n");
  const char* messy = "/usr/./local/../lib//x/../";
  char collapsed[64];
  std::printf("  collapse  %-28s -> %s\n", messy, koCollapsePath(collapsed, messy, strlen(messy)));

  std::string relative = dir + "/a/../missing/./file";
  char canonical[8707];
  koCanonicalizePath(canonical, 8706, relative.c_str(), relative.size());
  std::printf("  canonical %s\n         -> %s\n", relative.c_str(), canonical);

  char temp[8720];
  std::printf("  temp dir  %s, fresh name %s\n", koGetTempDir(), koGetTempName(temp));
  uint64_t bytes = 0;
  if (koGetFileSystemAvailableSpace(dir.c_str(), &bytes)) {
    std::printf("  free space on %s: %.1f GiB\n", dir.c_str(), bytes / 1073741824.0);
  }
}

void walkerTour(const std::string& dir) {
  std::printf("\n== Directory walker ==\n");
  mkdir((dir + "/a").c_str(), 0755);
  mkdir((dir + "/a/b").c_str(), 0755);
  writeFile(dir + "/a/one.log", 100);
  writeFile(dir + "/a/b/two.log", 250);
  writeFile(dir + "/a/.hidden", 7);
  std::printf("  %s/a/* with depth 1, pre-order:\n", dir.c_str());
  int n = koFindMatchingFilesAndDirs((dir + "/a/*").c_str(), Print("file"), Print("dir"), 1, false);
  std::printf("  %d entries; size of the tree: %lld bytes\n", n,
              static_cast<long long>(koGetDirectorySize((dir + "/a").c_str())));
  std::printf("  any *.log directly in a? %s\n",
              koMatchingFileOrDirExists((dir + "/a/*.log").c_str()) ? "yes" : "no");
}

void threadsTour() {
  std::printf("\n== Thread pool ==\n");
  koPooledThreadFactory pool(0, 16);
  koThread* previous = nullptr;
  for (int i = 0; i < 3; ++i) {
    koThread* t = pool.createThread([]() -> void* { return nullptr; });
    t->start(false);
    t->join();
    pool.recycle(t);
    std::printf("  round %d ran on pooled thread %p%s\n", i, static_cast<void*>(t),
                t == previous ? " (reused)" : "");
    previous = t;
  }
}

void lockTour(const std::string& dir) {
  using Zentha::System::TimeUnit;
  std::printf("\n== Exclusive directory lock ==\n");
  koDirectoryExclusiveLock first(dir, "first");
  koDirectoryExclusiveLock second(dir, "second");
  std::printf("  first.acquire:  %s\n",
              first.acquire(5, TimeUnit::sSeconds(), false) ? "held" : "no");
  std::printf("  lock file %s exists: %s\n", (dir + "/.deploy_lock.0").c_str(),
              koFileExists((dir + "/.deploy_lock.0").c_str()) ? "yes" : "no");
  std::printf("  second.acquire(0): %s\n",
              second.acquire(0, TimeUnit::sSeconds(), true) ? "held" : "busy, as expected");
  std::printf("  first.release: %s\n", first.release() ? "released" : "failed");
  std::printf("  after release, second.acquire(0): %s\n",
              second.acquire(0, TimeUnit::sSeconds(), true) ? "held" : "busy");
  std::printf("  second.release: %s\n", second.release() ? "released" : "failed");
}

void readWriteLockTour(const std::string& dir) {
  using Zentha::System::TimeUnit;
  std::printf("\n== Read-write directory lock ==\n");
  koDirectoryReadWriteLock rw(dir);
  koDirectoryReadWriteLock::ReadLock reader1 = rw.getReadLock();
  koDirectoryReadWriteLock::ReadLock reader2 = rw.getReadLock();
  koDirectoryReadWriteLock::WriteLock writer = rw.getWriteLock();
  const bool read1 = reader1.acquire(5, TimeUnit::sSeconds());
  const bool read2 = reader2.acquire(5, TimeUnit::sSeconds());
  if (!read1 || !read2) std::printf("  a reader could not take the lock\n");
  std::printf(
      "  two readers hold it; read-lock files: %s\n",
      koMatchingFileOrDirExists((dir + "/.deploy_read_lock.*").c_str()) ? "present" : "none");
  std::printf("  writer.acquire(200 ms) while they read: %s\n",
              writer.acquire(200, TimeUnit::sMilliseconds()) ? "held" : "refused, as expected");
  if (!reader1.release() || !reader2.release()) std::printf("  a reader lost its lock\n");
  std::printf("  after both let go, writer.acquire: %s\n",
              writer.acquire(5, TimeUnit::sSeconds()) ? "held" : "no");
  koDirectoryReadWriteLock::ReadLock downgraded = writer.downgrade(5, TimeUnit::sSeconds());
  std::printf("  downgraded: writer held %s, now a reader held %s\n",
              writer.isAcquired() ? "yes" : "no", downgraded.isAcquired() ? "yes" : "no");
  if (!downgraded.release()) std::printf("  the reader lost its lock\n");
}

void treeTour(const std::string& dir) {
  std::printf("\n== Recursive create and remove ==\n");
  const std::string deep = dir + "/tree/x/y/z";
  std::printf("  koMkdirP %s: %s\n", deep.c_str(), koMkdirP(deep.c_str()) ? "made" : "failed");
  writeFile(deep + "/read-only", 10);
  koDisableWritePermission((deep + "/read-only").c_str());
  koDisableWritePermission(deep.c_str());
  std::printf("  mode of z after koDisableWritePermission: %o\n",
              koGetFilePermissions(deep.c_str()) & 07777);
  koRemoveRF((dir + "/tree").c_str());
  std::printf("  koRemoveRF of the read-only tree: %s\n",
              koFileOrDirExists((dir + "/tree").c_str()) ? "still there" : "gone");
}

void semaphoreTour() {
  std::printf("\n== Named semaphore ==\n");
  const std::string name = "korvel_demo/" + std::to_string(getpid());
  koSemaphoreIPC holder(name, 0, false);
  koSemaphoreIPC other(name, 0, false);
  holder.Open();
  other.Open();
  std::printf("  '%s' is the system semaphore '%s'\n", name.c_str(), holder.Name().c_str());
  std::printf("  holder.TryAcquire: %s\n", holder.TryAcquire() ? "taken" : "busy");
  std::printf("  other.TryAcquire: %s\n", other.TryAcquire() ? "taken" : "busy, as expected");
  holder.Release();
  std::printf("  after release, other.TryAcquire: %s\n", other.TryAcquire() ? "taken" : "busy");
  other.Release();
}

}  // namespace

int main(int argc, char** argv) {
  std::printf("libkorvel %s, built %s\n", libkorvel_version, libkorvel_build_date);
  std::string dir;
  if (argc > 1) {
    dir = argv[1];
  } else {
    char tmpl[] = "/tmp/korvel_demo_XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return 1;
    dir = tmpl;
  }
  pathsTour(dir);
  walkerTour(dir);
  threadsTour();
  lockTour(dir);
  readWriteLockTour(dir);
  treeTour(dir);
  semaphoreTour();
  return 0;
}
