// korvel-lock: runs a command while holding a directory's read-write lock,
// which any process on any host sharing the directory respects.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "korvel/fs_lock.h"

namespace {

using Zentha::System::TimeUnit;

// Exit statuses of the tool itself; otherwise it exits with the command's.
constexpr int kUsageError = 64;
constexpr int kNoDirectory = 66;
constexpr int kTimedOut = 75;
constexpr int kNotWritable = 77;
constexpr int kCannotExecute = 126;
constexpr int kCommandNotFound = 127;
constexpr int kSignalBase = 128;

constexpr double kStaleAfterSeconds = 15.0;

const char kHelp[] =
    "NAME\n"
    "    korvel-lock - run a command under a directory lock shared across hosts\n"
    "\n"
    "SYNOPSIS\n"
    "    korvel-lock [--shared | --exclusive] [--timeout SECONDS] [--no-refresh]\n"
    "                DIR -- COMMAND [ARGS...]\n"
    "    korvel-lock --status DIR\n"
    "    korvel-lock --help\n"
    "\n"
    "DESCRIPTION\n"
    "    Takes the read (shared) or write (exclusive) lock of DIR, runs COMMAND\n"
    "    while the lock is held, releases it and exits with COMMAND's status.\n"
    "    Like flock(1), but the lock lives in files inside DIR, so processes on\n"
    "    every host that mounts DIR (NFS and the like) take part. Many shared\n"
    "    holders or one exclusive holder may hold DIR at a time.\n"
    "\n"
    "    The lock files are rewritten every 5 seconds while the lock is held.\n"
    "    A lock file not rewritten for more than 15 seconds, by the file\n"
    "    server's clock, belongs to a dead holder and is removed by waiters.\n"
    "    SIGINT and SIGTERM are passed on to COMMAND; the lock is released when\n"
    "    COMMAND ends.\n"
    "\n"
    "OPTIONS\n"
    "    -s, --shared       take the read lock\n"
    "    -x, --exclusive    take the write lock (the default)\n"
    "    -t, --timeout SECONDS\n"
    "                       give up after SECONDS (a decimal number; 0 tries\n"
    "                       once); without it, wait as long as it takes\n"
    "    -n, --no-refresh   do not rewrite the lock file: others will treat\n"
    "                       the lock as stale after 15 seconds\n"
    "        --status       list DIR's lock files with their age by the file\n"
    "                       server's clock, and say which are stale\n"
    "    -h, --help         show this text\n"
    "\n"
    "EXIT STATUS\n"
    "    COMMAND's status; 128+N when COMMAND or the wait was ended by signal N\n"
    "    64   usage error            66   DIR missing or not a directory\n"
    "    75   timed out              77   DIR not writable\n"
    "    126  COMMAND not executable 127  COMMAND not found\n"
    "\n"
    "EXAMPLES\n"
    "    korvel-lock /shared/deploy -- ./deploy.sh\n"
    "    korvel-lock --shared --timeout 30 /shared/deploy -- cat /shared/deploy/manifest\n"
    "    korvel-lock --status /shared/deploy\n";

volatile sig_atomic_t pendingSignal = 0;
volatile pid_t commandPid = 0;

void onSignal(int signal) {
  pendingSignal = signal;
  const pid_t child = commandPid;
  if (child > 0) kill(child, signal);
}

[[noreturn]] void fail(int status, const std::string& message) {
  fprintf(stderr, "korvel-lock: %s\n", message.c_str());
  exit(status);
}

[[noreturn]] void usage(const std::string& message) {
  fail(kUsageError, message + " (see korvel-lock --help)");
}

struct Options {
  bool shared = false;
  bool status = false;
  bool noRefresh = false;
  bool timed = false;
  double timeoutSeconds = 0.0;
  std::string directory;
  std::vector<char*> command;  // null-terminated
};

double parseSeconds(const char* text) {
  char* end = nullptr;
  errno = 0;
  const double value = strtod(text, &end);
  if (*text == '\0' || *end != '\0' || errno != 0 || !std::isfinite(value) || value < 0) {
    usage(std::string("invalid time-out '") + text + "': expected a number of seconds");
  }
  return value;
}

Options parse(int argc, char** argv) {
  Options options;
  int i = 1;
  for (; i < argc && argv[i][0] == '-' && argv[i][1] != '\0'; ++i) {
    const std::string arg = argv[i];
    if (arg == "--") break;
    if (arg == "-h" || arg == "--help") {
      fputs(kHelp, stdout);
      exit(0);
    } else if (arg == "-s" || arg == "--shared") {
      options.shared = true;
    } else if (arg == "-x" || arg == "--exclusive") {
      options.shared = false;
    } else if (arg == "-n" || arg == "--no-refresh") {
      options.noRefresh = true;
    } else if (arg == "--status") {
      options.status = true;
    } else if (arg == "-t" || arg == "--timeout") {
      if (++i == argc) usage("option '" + arg + "' needs a number of seconds");
      options.timed = true;
      options.timeoutSeconds = parseSeconds(argv[i]);
    } else if (arg.rfind("--timeout=", 0) == 0) {
      options.timed = true;
      options.timeoutSeconds = parseSeconds(argv[i] + strlen("--timeout="));
    } else {
      usage("unknown option '" + arg + "'");
    }
  }
  if (i < argc && strcmp(argv[i], "--") == 0) usage("no directory given");
  if (i == argc) usage("no directory given");
  options.directory = argv[i++];
  if (options.status) {
    if (i != argc) usage("--status takes a directory only");
    return options;
  }
  if (i < argc && strcmp(argv[i], "--") == 0) ++i;
  if (i == argc) usage("no command given");
  for (; i < argc; ++i) options.command.push_back(argv[i]);
  options.command.push_back(nullptr);
  return options;
}

void checkDirectory(const std::string& directory, bool forWriting) {
  struct stat st;
  if (stat(directory.c_str(), &st) != 0) {
    fail(kNoDirectory, "cannot lock '" + directory + "': " + strerror(errno));
  }
  if (!S_ISDIR(st.st_mode)) fail(kNoDirectory, "cannot lock '" + directory + "': not a directory");
  if (forWriting && access(directory.c_str(), W_OK | X_OK) != 0) {
    fail(kNotWritable, "cannot lock '" + directory + "': the directory is not writable");
  }
}

void installSignalForwarding() {
  struct sigaction action = {};
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
}

double secondsNow() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Waits for the lock in slices, so that a signal or the deadline is noticed
// promptly. True when held.
bool acquire(koDirectoryReadWriteLock::AbstractLock& lock, const Options& options) {
  const double deadline = secondsNow() + options.timeoutSeconds;
  for (;;) {
    if (pendingSignal != 0) return false;
    unsigned long sliceMs = 250;
    if (options.timed) {
      const double left = deadline - secondsNow();
      sliceMs = left <= 0 ? 0 : std::min(sliceMs, static_cast<unsigned long>(left * 1000.0));
    }
    if (lock.acquire(sliceMs, TimeUnit::sMilliseconds(), options.noRefresh)) return true;
    if (options.timed && secondsNow() >= deadline) return false;
    // A slice also ends early when another process is busy in the
    // directory; try again shortly.
    usleep(10000);
  }
}

int runCommand(const Options& options) {
  sigset_t forwarded;
  sigemptyset(&forwarded);
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&forwarded, signal);
  sigset_t previous;
  pthread_sigmask(SIG_BLOCK, &forwarded, &previous);
  const pid_t child = fork();
  if (child == 0) {
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) ::signal(signal, SIG_DFL);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    execvp(options.command[0], options.command.data());
    const int error = errno;
    const std::string message = std::string("korvel-lock: cannot run '") + options.command[0] +
                                "': " + strerror(error) + "\n";
    if (write(2, message.data(), message.size()) < 0) {
      // nothing more to tell
    }
    _exit(error == ENOENT ? kCommandNotFound : kCannotExecute);
  }
  if (child < 0) {
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    fprintf(stderr, "korvel-lock: cannot start '%s': %s\n", options.command[0], strerror(errno));
    return kCannotExecute;
  }
  commandPid = child;
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  // A signal that came before the child was known is passed on now.
  if (pendingSignal != 0) kill(child, pendingSignal);

  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return kCannotExecute;
  }
  commandPid = 0;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return kSignalBase + WTERMSIG(status);
  return kCannotExecute;
}

int lockAndRun(const Options& options) {
  checkDirectory(options.directory, true);
  installSignalForwarding();
  const char* kind = options.shared ? "shared" : "exclusive";
  try {
    koDirectoryReadWriteLock rw(options.directory);
    koDirectoryReadWriteLock::ReadLock reading = rw.getReadLock();
    koDirectoryReadWriteLock::WriteLock writing = rw.getWriteLock();
    koDirectoryReadWriteLock::AbstractLock& lock =
        options.shared ? static_cast<koDirectoryReadWriteLock::AbstractLock&>(reading) : writing;
    if (!acquire(lock, options)) {
      if (pendingSignal != 0) return kSignalBase + pendingSignal;
      fprintf(stderr, "korvel-lock: timed out after %g s waiting for the %s lock on '%s'\n",
              options.timeoutSeconds, kind, options.directory.c_str());
      return kTimedOut;
    }
    const int status = runCommand(options);
    lock.release(static_cast<unsigned long>(-1), TimeUnit::sSeconds());
    return status;
  } catch (const koNoSuchDirectory&) {
    fail(kNoDirectory, "cannot lock '" + options.directory + "': the directory has gone");
  }
}

// ---- --status ----

struct LockFile {
  std::string name;
  std::string kind;
  time_t mtime;
};

std::vector<LockFile> lockFiles(const std::string& directory) {
  std::vector<LockFile> files;
  DIR* dir = opendir(directory.c_str());
  if (dir == nullptr) return files;
  while (dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    std::string kind;
    if (name == ".deploy_write_lock") {
      kind = "write lock";
    } else if (name.rfind(".deploy_read_lock.", 0) == 0) {
      kind = "read lock";
    } else if (name.rfind(".deploy_lock.", 0) == 0) {
      const std::string level = name.substr(strlen(".deploy_lock."));
      kind = level == "0" ? "directory lock (holder)" : "directory lock (waiter " + level + ")";
    } else {
      continue;
    }
    struct stat st;
    if (stat((directory + "/" + name).c_str(), &st) == 0)
      files.push_back({name, kind, st.st_mtime});
  }
  closedir(dir);
  std::sort(files.begin(), files.end(),
            [](const LockFile& a, const LockFile& b) { return a.name < b.name; });
  return files;
}

// The file server's idea of now: the modification time of a file written
// there this moment. Falls back to this host's clock when DIR is not
// writable.
bool serverNow(const std::string& directory, time_t* now) {
  const std::string probe =
      directory + "/.korvel-lock-status." + std::to_string(getpid()) + "." + std::to_string(rand());
  const int fd = open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
  if (fd < 0) {
    *now = time(nullptr);
    return false;
  }
  struct stat st;
  const bool ok = write(fd, "0", 1) == 1 && fstat(fd, &st) == 0;
  close(fd);
  unlink(probe.c_str());
  *now = ok ? st.st_mtime : time(nullptr);
  return ok;
}

int showStatus(const Options& options) {
  checkDirectory(options.directory, false);
  time_t now;
  const bool byServer = serverNow(options.directory, &now);
  const std::vector<LockFile> files = lockFiles(options.directory);
  printf("%s: %zu lock file%s; ages by %s; stale after %g s\n", options.directory.c_str(),
         files.size(), files.size() == 1 ? "" : "s",
         byServer ? "the file server's clock" : "this host's clock (directory not writable)",
         kStaleAfterSeconds);
  for (const LockFile& file : files) {
    const double age = difftime(now, file.mtime);
    printf("  %-28s %-26s age %4.0f s  %s\n", file.name.c_str(), file.kind.c_str(), age,
           age > kStaleAfterSeconds ? "STALE" : "live");
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  return options.status ? showStatus(options) : lockAndRun(options);
}
