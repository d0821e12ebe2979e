// Uses one piece of each family through the installed headers and library.
#include <korvel/fs_lock.h>
#include <korvel/ipc.h>
#include <korvel/paths.h>
#include <korvel/threads.h>
#include <korvel/version.h>
#include <unistd.h>

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::string dir = argv[1];
  if (!koMkdirP((dir + "/locks").c_str())) return 3;

  koDirectoryReadWriteLock rw(dir + "/locks");
  koDirectoryReadWriteLock::WriteLock writing = rw.getWriteLock();
  if (!writing.acquire(koForever, Zentha::System::TimeUnit::sSeconds())) {
    return 4;
  }
  if (!writing.release(koForever, Zentha::System::TimeUnit::sSeconds())) {
    return 5;
  }

  koThread idle(&do_nothing);
  idle.start(false);
  int runs = 0;
  koRecyclableThread worker([&runs]() -> void* { return runs += 1, nullptr; });
  worker.start(false);
  worker.join();
  worker.reset([&runs]() -> void* { return runs += 10, nullptr; });
  worker.start(false);
  worker.join();
  if (idle.join() != nullptr || runs != 11) return 8;

  koSemaphoreIPC sem("korvel_consumer_" + std::to_string(getpid()), 0, false);
  if (!sem.Open() || !sem.TryAcquire() || !sem.Release()) return 6;

  if (!koRemoveRF(dir.c_str()) || koFileOrDirExists(dir.c_str())) return 7;
  printf("consumer ok: libkorvel %s\n", libkorvel_version);
  return 0;
}
