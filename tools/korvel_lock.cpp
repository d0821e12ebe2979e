// korvel-lock: runs a command while holding a directory's read-write lock,
// which any process on any host sharing the directory respects. The manual
// page (korvel-lock.1.in) describes what users see; --help is rendered from
// it.
//
// Signals. The command runs in korvel-lock's process group. What the
// terminal sends goes to that whole group, so korvel-lock passes on only
// what another process sent to it alone (si_code tells the two apart). A
// signal ignored at start is left ignored for both. The command gets
// SIGTERM when korvel-lock dies: past that point nobody refreshes its lock.
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "fs_lock/protocol.h"
#include "korvel/fs_lock.h"
#include "korvel/version.h"
#include "tools/korvel_lock_help.h"
#include "tools/lock_files.h"

namespace {

using korvel_tool::Kind;
using korvel_tool::LockFile;
using Zentha::System::TimeUnit;

// Exit statuses of the tool itself; otherwise it exits with the command's.
constexpr int kStatusFree = 0;   // --status: no live lock
constexpr int kStatusHeld = 1;   // --status: a live lock is held
constexpr int kStatusStale = 2;  // --status: only stale files
constexpr int kUsageError = 64;
constexpr int kNoDirectory = 66;
constexpr int kInternalError = 70;
constexpr int kDefaultConflict = 75;
constexpr int kLockLost = 76;
constexpr int kNotWritable = 77;
constexpr int kCannotExecute = 126;
constexpr int kCommandNotFound = 127;
constexpr int kSignalBase = 128;

// A wait is cut into slices, so that a signal or the deadline is noticed
// and the terminal line kept up to date.
constexpr unsigned long kSliceMs = 250;

enum class Mode { kRun, kStatus, kClean };

struct Options {
  Mode mode = Mode::kRun;
  bool shared = false;
  bool timed = false;  // -n or -w: give up after waitSeconds
  double waitSeconds = 0.0;
  int conflictStatus = kDefaultConflict;
  bool noRefresh = false;
  bool ignoreLoss = false;  // --on-lost=ignore
  bool verbose = false;
  bool json = false;
  std::string directory;
  std::vector<std::string> command;

  const char* kind() const { return shared ? "shared" : "exclusive"; }
};

// The text of an errno value; safe from any thread.
std::string errorText(int error) {
  char buffer[256];
  return strerror_r(error, buffer, sizeof buffer);  // the GNU one returns the text
}

// Nothing is held when this is called: no destructor needs to run, and
// none should while the library's threads may still be about.
[[noreturn]] void fail(int status, const std::string& message) {
  fprintf(stderr, "korvel-lock: %s\n", message.c_str());
  fflush(nullptr);
  _exit(status);
}

[[noreturn]] void usage(const std::string& message) {
  fail(kUsageError, message + " (see korvel-lock --help)");
}

// ---- Options ----

enum LongOnly { kNoRefresh = 256, kOnLost, kVerbose, kStatus, kJson, kClean };

const option kLongOptions[] = {
    {"shared", no_argument, nullptr, 's'},
    {"exclusive", no_argument, nullptr, 'x'},
    {"nonblock", no_argument, nullptr, 'n'},
    {"wait", required_argument, nullptr, 'w'},
    {"timeout", required_argument, nullptr, 'w'},
    {"conflict-exit-code", required_argument, nullptr, 'E'},
    {"command", required_argument, nullptr, 'c'},
    {"no-refresh", no_argument, nullptr, kNoRefresh},
    {"on-lost", required_argument, nullptr, kOnLost},
    {"verbose", no_argument, nullptr, kVerbose},
    {"status", no_argument, nullptr, kStatus},
    {"json", no_argument, nullptr, kJson},
    {"clean", no_argument, nullptr, kClean},
    {"version", no_argument, nullptr, 'V'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
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

int parseStatus(const char* text) {
  char* end = nullptr;
  errno = 0;
  const long value = strtol(text, &end, 10);
  if (*text == '\0' || *end != '\0' || errno != 0 || value < 0 || value > 255) {
    usage(std::string("invalid exit status '") + text + "': expected 0 to 255");
  }
  return static_cast<int>(value);
}

// The option just parsed, as the user wrote it.
std::string lastOption(char** argv) {
  const char* arg = argv[optind - 1];
  if (strncmp(arg, "--", 2) == 0) return std::string(arg).substr(0, std::string(arg).find('='));
  return std::string("-") + static_cast<char>(optopt);
}

Options parse(int argc, char** argv) {
  Options o;
  bool hasCommandLine = false;
  std::string commandLine;
  opterr = 0;
  // '+': options end at DIR, so COMMAND keeps its own.
  // NOLINTNEXTLINE(concurrency-mt-unsafe): parsed before any thread exists
  for (int c; (c = getopt_long(argc, argv, "+:sxenw:E:c:Vh", kLongOptions, nullptr)) != -1;) {
    switch (c) {
      case 's':
        o.shared = true;
        break;
      case 'x':
      case 'e':
        o.shared = false;
        break;
      case 'n':
        o.timed = true;
        o.waitSeconds = 0.0;
        break;
      case 'w':
        o.timed = true;
        o.waitSeconds = parseSeconds(optarg);
        break;
      case 'E':
        o.conflictStatus = parseStatus(optarg);
        break;
      case 'c':
        hasCommandLine = true;
        commandLine = optarg;
        break;
      case kNoRefresh:
        o.noRefresh = true;
        break;
      case kOnLost:
        if (strcmp(optarg, "term") != 0 && strcmp(optarg, "ignore") != 0) {
          usage(std::string("invalid --on-lost action '") + optarg + "': expected term or ignore");
        }
        o.ignoreLoss = strcmp(optarg, "ignore") == 0;
        break;
      case kVerbose:
        o.verbose = true;
        break;
      case kStatus:
        o.mode = Mode::kStatus;
        break;
      case kClean:
        o.mode = Mode::kClean;
        break;
      case kJson:
        o.json = true;
        break;
      case 'V':
        printf("korvel-lock %s (libkorvel %s)\n", KORVEL_TOOL_VERSION, libkorvel_version);
        exit(0);  // NOLINT(concurrency-mt-unsafe): before any thread exists
      case 'h':
        fputs(kHelpText, stdout);
        exit(0);  // NOLINT(concurrency-mt-unsafe): before any thread exists
      case ':':
        usage("option '" + lastOption(argv) + "' needs a value");
      default:
        usage("unknown option '" +
              (optopt != 0 ? std::string("-") + static_cast<char>(optopt) : argv[optind - 1]) +
              "'");
    }
  }
  int i = optind;
  if (i == argc) usage("no directory given");
  o.directory = argv[i++];
  if (o.json && o.mode != Mode::kStatus) usage("--json goes with --status");
  if (o.mode != Mode::kRun) {
    if (i != argc) usage("--status and --clean take a directory only");
    return o;
  }
  if (i < argc && strcmp(argv[i], "--") == 0) {
    ++i;
  } else if (i < argc && (strcmp(argv[i], "-c") == 0 || strcmp(argv[i], "--command") == 0)) {
    if (++i == argc) usage("option '-c' needs a value");
    hasCommandLine = true;
    commandLine = argv[i++];
    if (i != argc) usage("-c takes one command line: quote it");
  }
  if (hasCommandLine) {
    if (i != argc) usage("give either -c COMMAND-LINE or a COMMAND, not both");
    o.command = {"/bin/sh", "-c", commandLine};
  } else {
    if (i == argc) usage("no command given");
    o.command.assign(argv + i, argv + argc);
  }
  return o;
}

void checkDirectory(const std::string& directory, bool forWriting) {
  struct stat st;
  if (stat(directory.c_str(), &st) != 0) {
    fail(kNoDirectory, "cannot lock '" + directory + "': " + errorText(errno));
  }
  if (!S_ISDIR(st.st_mode)) fail(kNoDirectory, "cannot lock '" + directory + "': not a directory");
  if (forWriting && access(directory.c_str(), W_OK | X_OK) != 0) {
    fail(kNotWritable, "cannot lock '" + directory + "': the directory is not writable");
  }
}

// ---- Signals ----
//
// No handler runs asynchronously: the signals korvel-lock passes on, and
// SIGCHLD, are blocked in every thread and taken with sigtimedwait between
// the steps of a wait, and with sigwaitinfo while the command runs.

const int kPassedOn[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
// The library's loss handler runs on a thread of its own; it tells the main
// thread through this signal, which is blocked everywhere and taken with
// sigwaitinfo like the others. Sent by anyone else it changes nothing.
constexpr int kLossSignal = SIGUSR2;
std::atomic<bool> lockLost{false};
bool commandTerminated = false;  // the command was sent SIGTERM for a loss

sigset_t passedOn;         // those of kPassedOn that were not ignored at start
sigset_t original;         // the signal mask korvel-lock started with
bool chldIgnored = false;  // SIGCHLD was ignored at start: so it is for the command

// REQUIRES: no other thread yet, so that every thread made later (the
// library's) inherits the mask.
void blockSignals() {
  sigemptyset(&passedOn);
  for (int signal : kPassedOn) {
    struct sigaction before;
    if (sigaction(signal, nullptr, &before) == 0 && before.sa_handler == SIG_IGN) continue;
    sigaddset(&passedOn, signal);
  }
  struct sigaction chld;
  sigaction(SIGCHLD, nullptr, &chld);
  chldIgnored = chld.sa_handler == SIG_IGN;
  if (chldIgnored) {
    chld.sa_handler = SIG_DFL;  // or the command would be reaped unseen
    sigaction(SIGCHLD, &chld, nullptr);
  }
  sigset_t blocked = passedOn;
  sigaddset(&blocked, SIGCHLD);
  sigaddset(&blocked, kLossSignal);
  pthread_sigmask(SIG_BLOCK, &blocked, &original);
}

// A signal to pass on that is pending, or 0; taken.
int takePendingSignal() {
  const struct timespec now = {0, 0};
  const int signal = sigtimedwait(&passedOn, nullptr, &now);
  return signal > 0 ? signal : 0;
}

// ---- Waiting ----

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void say(const Options& o, const char* format, ...) __attribute__((format(printf, 2, 3)));
void say(const Options& o, const char* format, ...) {
  if (!o.verbose) return;
  va_list args;
  va_start(args, format);
  fputs("korvel-lock: ", stderr);
  vfprintf(stderr, format, args);
  fputc('\n', stderr);
  va_end(args);
}

// The line that tells a user at a terminal what a wait of more than a
// second waits for, rewritten in place.
class WaitLine {
 public:
  // what: "the shared lock" and the like; holders: whether to say who holds
  // the read-write lock.
  WaitLine(const Options& o, const std::string& what, bool holders)
      : o_(o), what_(what + " on '" + o.directory + "'"), holders_(holders), enabled_(isatty(2)) {}
  ~WaitLine() { clear(); }

  const char* what() const { return what_.c_str(); }

  void update(double waited) {
    if (!enabled_ || waited < 1.0) return;
    if (!offsetKnown_) {
      time_t server;
      if (korvel_tool::serverNow(o_.directory, &server)) offset_ = server - time(nullptr);
      offsetKnown_ = true;
    }
    time_t since = 0;
    const std::string who =
        holders_ ? korvel_tool::blockers(o_.directory, o_.shared, &since) : std::string();
    char text[512];
    if (who.empty()) {
      snprintf(text, sizeof text, "waiting for %s; waited %.0f s", what(), std::floor(waited));
    } else if (since == 0) {
      snprintf(text, sizeof text, "waiting for %s, held by %s; waited %.0f s", what(), who.c_str(),
               std::floor(waited));
    } else {
      const double held = std::max(0.0, difftime(time(nullptr) + offset_, since));
      snprintf(text, sizeof text, "waiting for %s, held by %s for %.0f s", what(), who.c_str(),
               held);
    }
    if (shown_ == text) return;
    shown_ = text;
    fprintf(stderr, "\rkorvel-lock: %s\033[K", text);
    fflush(stderr);
  }

  void clear() {
    if (shown_.empty()) return;
    fputs("\r\033[K", stderr);
    fflush(stderr);
    shown_.clear();
  }

 private:
  const Options& o_;
  const std::string what_;
  const bool holders_;
  const bool enabled_;
  bool offsetKnown_ = false;
  time_t offset_ = 0;  // the file server's clock minus this host's
  std::string shown_;
};

enum class Outcome { kHeld, kConflict, kSignal, kRefused };

// Tries tryFor(milliseconds) until it succeeds, the options' time runs out
// or a signal comes (kSignal, the signal in *signal). kRefused leaves errno
// saying why.
template <class TryFor>
Outcome waitFor(const Options& o, WaitLine& line, int* signal, TryFor tryFor) {
  const auto start = std::chrono::steady_clock::now();
  for (bool first = true;; first = false) {
    if ((*signal = takePendingSignal()) != 0) return Outcome::kSignal;
    // One attempt at once first: a free lock is taken without a poll.
    unsigned long sliceMs = first ? 0 : kSliceMs;
    if (o.timed) {
      const double left = o.waitSeconds - secondsSince(start);
      sliceMs =
          left <= 0 ? 0 : std::min(sliceMs, static_cast<unsigned long>(std::ceil(left * 1e3)));
    }
    errno = 0;
    if (tryFor(sliceMs)) return Outcome::kHeld;
    if (errno != ETIMEDOUT && errno != EINTR) return Outcome::kRefused;
    if (o.timed && secondsSince(start) >= o.waitSeconds) return Outcome::kConflict;
    if (first) say(o, "waiting for %s", line.what());
    line.update(secondsSince(start));
  }
}

// The exit status for a wait that did not end with the lock.
int notHeld(Outcome outcome, int signal, const Options& o, WaitLine& line) {
  line.clear();
  switch (outcome) {
    case Outcome::kSignal:
      return kSignalBase + signal;
    case Outcome::kRefused:
      fail(kNotWritable, "cannot lock '" + o.directory + "': " + errorText(errno));
    case Outcome::kConflict:
      if (o.waitSeconds > 0) {
        fprintf(stderr, "korvel-lock: gave up after %g s waiting for %s\n", o.waitSeconds,
                line.what());
      } else {
        say(o, "%s is held; not waiting", line.what());
      }
      return o.conflictStatus;
    case Outcome::kHeld:
      break;
  }
  return 0;
}

// ---- Running the command ----

// Runs the command and waits for it; its exit status, or 128 + the signal
// that ended it. When the lock is lost meanwhile, says so, and unless told
// to ignore it sends the command SIGTERM.
int runCommand(const Options& o) {
  std::vector<char*> argv;
  for (const std::string& arg : o.command) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  const std::string cannotRun = "korvel-lock: cannot run '" + o.command[0] + "': ";

  // A signal that came after the lock was taken ends the run before it began.
  if (const int signal = takePendingSignal()) return kSignalBase + signal;
  const pid_t parent = getpid();
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    // Only async-signal-safe calls until exec: the parent has threads.
    if (chldIgnored) signal(SIGCHLD, SIG_IGN);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    // A parent that died before the request was made sends nothing.
    if (getppid() != parent) _exit(kSignalBase + SIGTERM);
    pthread_sigmask(SIG_SETMASK, &original, nullptr);
    execvp(argv[0], argv.data());
    const int error = errno;
    const char* text = strerrordesc_np(error);  // no locale, no buffer: fine after fork
    if (write(2, cannotRun.data(), cannotRun.size()) > 0 && write(2, text, strlen(text)) > 0 &&
        write(2, "\n", 1) > 0) {
      // told
    }
    _exit(error == ENOENT ? kCommandNotFound : kCannotExecute);
  }
  if (child < 0) {
    fprintf(stderr, "%s%s\n", cannotRun.c_str(), errorText(errno).c_str());
    return kCannotExecute;
  }

  sigset_t waited = passedOn;
  sigaddset(&waited, SIGCHLD);
  sigaddset(&waited, kLossSignal);
  int status = 0;
  for (;;) {
    siginfo_t info;
    const int signal = sigwaitinfo(&waited, &info);
    if (signal == SIGCHLD) {
      const pid_t ended = waitpid(child, &status, WNOHANG);
      if (ended == child) break;
      if (ended < 0 && errno != EINTR) return kCannotExecute;
    } else if (signal == kLossSignal) {
      if (lockLost && !o.ignoreLoss && !commandTerminated) {
        kill(child, SIGTERM);
        commandTerminated = true;
      }
    } else if (signal > 0 && info.si_code != SI_KERNEL) {
      // What the terminal sends (SI_KERNEL) reached the command already, in
      // the same foreground process group.
      kill(child, signal);
    }
  }
  if (WIFSIGNALED(status)) {
    say(o, "the command was ended by signal %d", WTERMSIG(status));
    return kSignalBase + WTERMSIG(status);
  }
  say(o, "the command exited with status %d", WEXITSTATUS(status));
  return WEXITSTATUS(status);
}

int lockAndRun(const Options& o) {
  checkDirectory(o.directory, true);
  try {
    koDirectoryReadWriteLock rw(o.directory);
    koDirectoryReadWriteLock::ReadLock reading = rw.getReadLock();
    koDirectoryReadWriteLock::WriteLock writing = rw.getWriteLock();
    koDirectoryReadWriteLock::AbstractLock& lock =
        o.shared ? static_cast<koDirectoryReadWriteLock::AbstractLock&>(reading) : writing;
    WaitLine line(o, std::string("the ") + o.kind() + " lock", true);
    lock.onLost([] {
      lockLost = true;
      kill(getpid(), kLossSignal);
    });
    const auto start = std::chrono::steady_clock::now();
    int signal = 0;
    const Outcome outcome = waitFor(o, line, &signal, [&](unsigned long ms) {
      return lock.acquire(ms, TimeUnit::sMilliseconds(), o.noRefresh);
    });
    if (outcome != Outcome::kHeld) return notHeld(outcome, signal, o, line);
    line.clear();
    say(o, "took %s after %.1f s", line.what(), secondsSince(start));
    const int status = runCommand(o);
    const bool released = lock.release(koForever, TimeUnit::sSeconds());
    say(o, released ? "released the lock" : "the lock was no longer ours to release");
    if (!lock.lost()) return status;
    fprintf(stderr, "korvel-lock: lost %s while the command ran%s\n", line.what(),
            commandTerminated ? "; the command was sent SIGTERM" : "");
    return o.ignoreLoss ? status : kLockLost;
  } catch (const koNoSuchDirectory&) {
    fail(kNoDirectory, "cannot lock '" + o.directory + "': the directory has gone");
  }
}

// ---- --status and --clean ----

std::string jsonString(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char escaped[8];
      snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

int showStatus(const Options& o) {
  checkDirectory(o.directory, false);
  time_t now;
  const bool byServer = korvel_tool::serverNow(o.directory, &now);
  const std::vector<LockFile> files = korvel_tool::listLockFiles(o.directory);
  if (!o.json) {
    printf("%s: %zu lock file%s; ages by %s; stale after %g s\n", o.directory.c_str(), files.size(),
           files.size() == 1 ? "" : "s",
           byServer ? "the file server's clock" : "this host's clock (directory not writable)",
           korvel_protocol::kStaleSeconds);
  }
  bool live = false;
  bool stale = false;
  for (const LockFile& file : files) {
    const bool isStale = korvel_tool::isStale(file, now);
    stale = stale || isStale;
    live = live || (!isStale && korvel_tool::isHolder(file.kind));
    const char* state = isStale ? "stale" : "live";
    if (o.json) {
      printf("{\"name\":%s,\"kind\":\"%s\",\"age\":%.0f,\"state\":\"%s\"}\n",
             jsonString(file.name).c_str(), korvel_tool::jsonKind(file.kind),
             korvel_tool::ageOf(file, now), state);
    } else {
      printf("  %-28s %-40s age %4.0f s  %s\n", file.name.c_str(),
             korvel_tool::describe(file).c_str(), korvel_tool::ageOf(file, now), state);
    }
  }
  return live ? kStatusHeld : stale ? kStatusStale : kStatusFree;
}

int clean(const Options& o) {
  checkDirectory(o.directory, true);
  time_t now;
  korvel_tool::serverNow(o.directory, &now);
  int removed = 0;
  auto remove = [&](const LockFile& file, time_t at) {
    if (!korvel_tool::removeIfUnchanged(o.directory, file)) return;
    printf("removed %s (%s, %.0f s old)\n", file.name.c_str(), korvel_tool::describe(file).c_str(),
           korvel_tool::ageOf(file, at));
    ++removed;
  };
  // Queue places and stale-test files belong to nobody once stale.
  bool lockFilesStale = false;
  const LockFile* staleLevel0 = nullptr;
  const std::vector<LockFile> files = korvel_tool::listLockFiles(o.directory);
  for (const LockFile& file : files) {
    if (!korvel_tool::isStale(file, now)) continue;
    if (file.kind == Kind::kQueue || file.kind == Kind::kStaleTest) {
      remove(file, now);
    } else {
      lockFilesStale = true;
      if (file.kind == Kind::kDirectory) staleLevel0 = &file;
    }
  }
  if (lockFilesStale) {
    // Read and write lock files change only under the directory lock; a
    // stale holder of the directory lock itself is taken over by acquiring.
    try {
      koDirectoryExclusiveLock directoryLock(o.directory, "korvel-lock");
      WaitLine line(o, "the internal directory lock", false);
      int signal = 0;
      const Outcome outcome = waitFor(o, line, &signal, [&](unsigned long ms) {
        return directoryLock.acquire(ms, TimeUnit::sMilliseconds(), false);
      });
      if (outcome != Outcome::kHeld) return notHeld(outcome, signal, o, line);
      time_t locked;
      korvel_tool::serverNow(o.directory, &locked);
      for (const LockFile& file : korvel_tool::listLockFiles(o.directory)) {
        if ((file.kind == Kind::kWrite || file.kind == Kind::kRead) &&
            korvel_tool::isStale(file, locked)) {
          remove(file, locked);
        }
      }
      if (!directoryLock.release(koForever, TimeUnit::sSeconds())) {
        say(o, "the internal directory lock was lost while cleaning");
      }
    } catch (const koNoSuchDirectory&) {
      fail(kNoDirectory, "cannot lock '" + o.directory + "': the directory has gone");
    }
    if (staleLevel0 != nullptr) {
      printf("removed %s (%s, %.0f s old): taken over and released\n", staleLevel0->name.c_str(),
             korvel_tool::describe(*staleLevel0).c_str(), korvel_tool::ageOf(*staleLevel0, now));
      ++removed;
    }
  }
  if (removed == 0) printf("%s: nothing stale to remove\n", o.directory.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Options o = parse(argc, argv);
    switch (o.mode) {
      case Mode::kStatus:
        return showStatus(o);
      case Mode::kClean:
        blockSignals();
        return clean(o);
      case Mode::kRun:
        break;
    }
    blockSignals();
    return lockAndRun(o);
  } catch (const std::exception& e) {
    // Out of memory or of threads: no string is built on the way out.
    fprintf(stderr, "korvel-lock: %s\n", e.what());
  } catch (...) {
    fputs("korvel-lock: unexpected failure\n", stderr);
  }
  fflush(nullptr);
  _exit(kInternalError);
}
