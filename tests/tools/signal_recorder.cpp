// A command for korvel-lock's signal tests.
//
//   signal_recorder RECORD READY
//
// Appends one byte to RECORD per SIGINT, SIGTERM, SIGHUP or SIGQUIT it gets:
// 'k' when the kernel sent it (the terminal), 'u' when a process did.
// Creates READY once its handlers are in place. Exits 0 half a second
// after the first signal, so that a second one has time to arrive, or
// after 20 s without any.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <initializer_list>

namespace {

int recordFd = -1;
volatile sig_atomic_t received = 0;

void record(int, siginfo_t* info, void*) {
  const char kind = info->si_code == SI_KERNEL ? 'k' : 'u';
  if (write(recordFd, &kind, 1) == 1) received = 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  recordFd = open(argv[1], O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (recordFd < 0) return 3;
  struct sigaction action = {};
  action.sa_sigaction = record;
  action.sa_flags = SA_SIGINFO;
  for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaction(signal, &action, nullptr);
  close(open(argv[2], O_WRONLY | O_CREAT, 0644));
  for (int i = 0; i < 2000 && received == 0; ++i) usleep(10000);
  for (int i = 0; i < 50; ++i) usleep(10000);
  return 0;
}
