// korvel-lock: runs a command while holding a directory's read-write lock,
// which any process on any host sharing the directory respects. The manual
// page (korvel-lock.1.in) describes what users see; --help is rendered from
// it.
//
// Signals and job control. The command runs in a process group of its own,
// as a shell runs a job, so that a signal reaches it once: what the
// terminal sends goes to the command's group alone when korvel-lock handed
// it the terminal, and what reaches korvel-lock (sent to it alone or to its
// group) is passed on. When the command stops at the terminal (Ctrl-Z),
// korvel-lock takes the terminal back and stops too, so that the shell sees
// the job stopped; continued, it hands the terminal back and continues the
// command. A signal ignored at start is left ignored for both. The command
// gets SIGKILL when korvel-lock dies: past that point nobody refreshes its
// lock.
//
// Threads. The lock is taken on a thread of its own while the main thread
// waits for signals, so that a signal ends a wait at once whatever the
// library is blocked in (a hung mount). Every other thread is the
// library's. The main thread alone forks, prints and exits.
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
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fs_lock/protocol.h"
#include "fs_lock/this_host.h"
#include "host/host.h"
#include "korvel/fs_lock.h"
#include "korvel/version.h"
#include "tools/korvel_lock_help.h"
#include "tools/lock_files.h"

namespace {

using korvel_tool::Kind;
using korvel_tool::LockFile;
using Zentha::System::TimeUnit;

// Exit statuses of the tool itself; otherwise it exits with the command's.
constexpr int kStatusFree = 0;        // --status: no live lock
constexpr int kStatusHeld = 1;        // --status: a live lock is held
constexpr int kStatusStale = 2;       // --status: only stale files
constexpr int kStatusForeign = 3;     // --status, --clean: a foreign object is in the way
constexpr int kStatusUnexamined = 4;  // --status, --clean: the directory cannot be examined
constexpr int kStatusNotRemoved = 5;  // --clean: a removal failed
constexpr int kUsageError = 64;
constexpr int kNoDirectory = 66;
constexpr int kInternalError = 70;
constexpr int kDefaultConflict = 75;
constexpr int kLockLost = 76;
constexpr int kNotWritable = 77;
constexpr int kCannotExecute = 126;
constexpr int kCommandNotFound = 127;
constexpr int kSignalBase = 128;

// The main thread looks at the wait this often, to keep the terminal line
// up to date.
constexpr double kTickSeconds = 0.25;
// A library call still busy this long after the deadline is not waited for.
constexpr double kOverrunSeconds = 1.0;
// When the first try has not returned by then, the main thread looks
// itself at what is in the way.
constexpr double kLookAfterSeconds = 0.5;
// How often a failure that only time can cure is told again.
constexpr double kWarnAgainSeconds = 60.0;

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
  bool force = false;  // --clean --force: foreign objects too
  bool quiet = false;  // no line when a wait runs out
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

enum LongOnly { kNoRefresh = 256, kOnLost, kVerbose, kStatus, kJson, kClean, kForce };

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
    {"force", no_argument, nullptr, kForce},
    {"quiet", no_argument, nullptr, 'q'},
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
  for (int c; (c = getopt_long(argc, argv, "+:sxenqw:E:c:Vh", kLongOptions, nullptr)) != -1;) {
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
      case kForce:
        o.force = true;
        break;
      case 'q':
        o.quiet = true;
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
  if (o.force && o.mode != Mode::kClean) usage("--force goes with --clean");
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

// doing: "lock", "examine", "clean"
void checkDirectory(const std::string& directory, const char* doing, bool forWriting) {
  const std::string cannot = std::string("cannot ") + doing + " '" + directory + "': ";
  struct stat st;
  if (stat(directory.c_str(), &st) != 0) fail(kNoDirectory, cannot + errorText(errno));
  if (!S_ISDIR(st.st_mode)) fail(kNoDirectory, cannot + "not a directory");
  if (forWriting && access(directory.c_str(), W_OK | X_OK) != 0) {
    fail(kNotWritable, cannot + "the directory is not writable");
  }
}

// ---- Signals ----
//
// No handler runs asynchronously: the signals korvel-lock passes on, and
// SIGCHLD, SIGCONT and the wake-up signal, are blocked in every thread and
// taken by the main thread with sigtimedwait while it waits for the lock
// and with sigwaitinfo while the command runs. SIGTTOU is blocked too, so
// that korvel-lock may hand the terminal over and take it back from the
// background.

const int kPassedOn[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
// The acquiring thread and the library's loss handler (on a thread of the
// library) wake the main thread with this signal. Sent by anyone else it
// changes nothing: the main thread then finds nothing new.
constexpr int kWakeSignal = SIGUSR2;
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
  for (int signal : {SIGCHLD, SIGCONT, SIGTTOU, kWakeSignal}) sigaddset(&blocked, signal);
  pthread_sigmask(SIG_BLOCK, &blocked, &original);
}

void wakeMainThread() {
  kill(getpid(), kWakeSignal);
}

// ---- Waiting ----

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

  // A line of its own, above the one rewritten in place.
  void tell(const std::string& text) {
    clear();
    fprintf(stderr, "korvel-lock: %s\n", text.c_str());
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

// Failures that only time can cure: the file system full, or out of reach
// for now.
bool isTransient(int error) {
  return error == ENOSPC || error == EDQUOT || error == EIO || error == ESTALE ||
         error == ENOTCONN || error == EAGAIN || error == EINTR;
}

// One wait for a lock, shared by the acquiring thread and the main thread.
// All members are guarded by mutex.
struct Attempt {
  std::mutex mutex;
  enum class State { kTrying, kHeld, kFailed } state = State::kTrying;
  int error = 0;           // kFailed: errno of the last try; ETIMEDOUT: held by others
  bool timedOut = false;   // kFailed: the deadline passed while waiting was worth it
  bool gone = false;       // kFailed: the directory has gone
  std::string internal;    // kFailed: no memory, no thread, ...
  bool triedOnce = false;  // a first try failed, or took long: obstacle was looked for
  int transient = 0;       // the error of the latest try when only time can cure it, else 0
  std::string obstacle;    // what no wait gets past, when one was found
};

using TryFor = std::function<bool(unsigned long milliseconds)>;

// The acquiring thread: one try at once (a free lock is taken without a
// poll), then a look at what is in the way, then a wait to the deadline
// (deadline < 0: none). Errors that time may cure are waited out with
// back-off, and so is a stale file this user cannot remove, which its
// owner may remove meanwhile.
void acquire(const Options& o, double deadline, const TryFor& tryFor, Attempt* a) {
  const auto finish = [a](Attempt::State state, int error) {
    {
      std::lock_guard<std::mutex> lock(a->mutex);
      a->state = state;
      a->error = error;
    }
    wakeMainThread();
  };
  bool diagnosed = false;
  bool unbreakable = false;
  unsigned backOffMs = 50;
  for (bool first = true;; first = false) {
    const double left = deadline < 0 ? 0 : deadline - hostMonotonic();
    // koForever for no deadline, or one too far to count in milliseconds.
    const unsigned long ms = first || (deadline >= 0 && left <= 0) ? 0
                             : deadline < 0 || left > 1e12
                                 ? koForever
                                 : static_cast<unsigned long>(std::ceil(left * 1e3));
    int error = 0;
    try {
      errno = 0;
      if (tryFor(ms)) return finish(Attempt::State::kHeld, 0);
      error = errno;
    } catch (const koNoSuchDirectory&) {
      std::lock_guard<std::mutex> lock(a->mutex);
      a->gone = true;
      error = ENOENT;
    } catch (const std::exception& e) {
      std::lock_guard<std::mutex> lock(a->mutex);
      a->internal = e.what();
    } catch (...) {
      std::lock_guard<std::mutex> lock(a->mutex);
      a->internal = "unexpected failure";
    }
    if (error == ENOENT || error == 0) return finish(Attempt::State::kFailed, error);
    if (!diagnosed) {
      diagnosed = true;
      std::string found = korvel_tool::obstacle(o.directory, &unbreakable);
      {
        std::lock_guard<std::mutex> lock(a->mutex);
        if (!a->triedOnce) a->obstacle = std::move(found);
        a->triedOnce = true;
      }
      wakeMainThread();
    }
    const bool held = error == ETIMEDOUT || error == EINTR;
    const bool curable = isTransient(error) || (unbreakable && (error == EACCES || error == EPERM));
    if (!held && !curable) return finish(Attempt::State::kFailed, error);
    if (deadline >= 0 && hostMonotonic() >= deadline) {
      {
        std::lock_guard<std::mutex> lock(a->mutex);
        a->timedOut = true;
      }
      return finish(Attempt::State::kFailed, held ? ETIMEDOUT : error);
    }
    bool told;
    {
      std::lock_guard<std::mutex> lock(a->mutex);
      told = a->transient != 0;
      a->transient = isTransient(error) ? error : 0;  // an obstacle was told of already
    }
    if (!curable) continue;
    if (!told) wakeMainThread();
    const double pause = std::min(backOffMs / 1e3, deadline < 0 ? 1.0 : deadline - hostMonotonic());
    if (pause > 0) hostSleepMilliseconds(static_cast<unsigned>(std::ceil(pause * 1e3)));
    backOffMs = std::min(backOffMs * 2, 1000u);
  }
}

enum class Outcome { kHeld, kConflict, kRefused, kGone };

struct Waited {
  Outcome outcome;
  int error = 0;   // kConflict, kRefused: why
  int signal = 0;  // kHeld: a signal that came as the lock was taken
};

// Takes the lock through tryFor on a thread of its own, while this thread
// takes signals, keeps the terminal line and tells what is in the way, once
// each. A signal ends a wait at once, with 128 + the signal, and without
// waiting for the library call; nothing is held then (a queue file left
// behind goes stale and is removed by later waiters).
Waited waitFor(const Options& o, WaitLine& line, const TryFor& tryFor) {
  const double start = hostMonotonic();
  const double deadline = o.timed ? start + o.waitSeconds : -1.0;
  Attempt a;
  std::thread thread([&] { acquire(o, deadline, tryFor, &a); });
  sigset_t taken = passedOn;
  sigaddset(&taken, kWakeSignal);
  bool obstacleShown = false;
  bool waitingSaid = false;
  double warnedAt = -1.0;  // when a transient failure was last told of
  int signal = 0;
  Attempt::State state;
  int error;
  bool gone;
  bool timedOut;
  std::string internal;
  for (;;) {
    const double tick = hostRealSeconds(kTickSeconds);
    const struct timespec wait = {0, static_cast<long>(tick * 1e9)};
    siginfo_t info;
    const int taken1 = sigtimedwait(&taken, &info, &wait);
    const double now = hostMonotonic();
    std::unique_lock<std::mutex> lock(a.mutex);
    if (taken1 > 0 && taken1 != kWakeSignal) {
      if (a.state != Attempt::State::kHeld) {
        // The mutex stays locked: the acquiring thread reports nothing more.
        line.clear();
        fflush(nullptr);
        _exit(kSignalBase + taken1);
      }
      signal = taken1;
    }
    if (!a.triedOnce && now - start >= kLookAfterSeconds) {
      // The first try does not return (a FIFO, a hung mount): look here.
      bool unbreakable;
      a.obstacle = korvel_tool::obstacle(o.directory, &unbreakable);
      a.triedOnce = true;
    }
    if (!a.obstacle.empty() && !obstacleShown) {
      line.tell(a.obstacle);
      obstacleShown = true;
    }
    if (a.transient != 0 && (warnedAt < 0 || now - warnedAt >= kWarnAgainSeconds)) {
      line.tell("cannot make a lock file in '" + o.directory + "' for now: " +
                errorText(a.transient) + "; trying again" + (o.timed ? " until the time-out" : ""));
      warnedAt = now;
    }
    if (a.state != Attempt::State::kTrying) {
      state = a.state;
      error = a.error;
      gone = a.gone;
      timedOut = a.timedOut;
      internal = a.internal;
      break;
    }
    if (a.triedOnce && !waitingSaid) {
      say(o, "waiting for %s", line.what());
      waitingSaid = true;
    }
    if (deadline >= 0 && now > deadline + kOverrunSeconds) {
      // The library call does not return: the file system does not answer.
      line.tell(std::string("gave up waiting for ") + line.what() +
                ": the file system did not answer in time");
      fflush(nullptr);
      _exit(o.conflictStatus);
    }
    lock.unlock();
    line.update(now - start);
  }
  thread.join();
  if (!internal.empty()) fail(kInternalError, internal);
  if (state == Attempt::State::kHeld) return {Outcome::kHeld, 0, signal};
  if (gone || error == ENOENT) return {Outcome::kGone, ENOENT};
  return {timedOut ? Outcome::kConflict : Outcome::kRefused, error};
}

// The exit status for a wait that did not end with the lock.
int notHeld(const Waited& w, const Options& o, WaitLine& line) {
  line.clear();
  const std::string cannot = "cannot lock '" + o.directory + "': ";
  switch (w.outcome) {
    case Outcome::kGone:
      fail(kNoDirectory, cannot + "the directory has gone");
    case Outcome::kRefused:
      fail(kNotWritable, cannot + errorText(w.error));
    case Outcome::kConflict: {
      time_t since;
      // A failure of the file system with nobody in the way is not a conflict.
      if (isTransient(w.error) && korvel_tool::blockers(o.directory, o.shared, &since).empty()) {
        fail(kNotWritable, cannot + errorText(w.error));
      }
      if (o.waitSeconds > 0 && !o.quiet) {
        fprintf(stderr, "korvel-lock: gave up after %g s waiting for %s\n", o.waitSeconds,
                line.what());
      } else {
        say(o, "%s is held; not waiting", line.what());
      }
      return o.conflictStatus;
    }
    case Outcome::kHeld:
      break;
  }
  return 0;
}

// ---- Running the command ----

// korvel-lock's controlling terminal among its standard streams, or -1.
int controllingTerminal() {
  for (int fd = 0; fd <= 2; ++fd) {
    if (tcgetpgrp(fd) >= 0) return fd;  // fails unless fd is the controlling terminal
  }
  return -1;
}

// The command stopped with signal. Stopped at the terminal, korvel-lock
// takes the terminal back and stops too, so that the shell sees the job
// stopped. A command that was in the background and wants the terminal
// while korvel-lock has it is handed it.
void commandStopped(int tty, pid_t group, int signal) {
  if (tty < 0 || (signal != SIGTSTP && signal != SIGTTIN && signal != SIGTTOU)) return;
  const pid_t foreground = tcgetpgrp(tty);
  if (foreground == getpgrp() && signal != SIGTSTP) {
    tcsetpgrp(tty, group);
    kill(-group, SIGCONT);
    return;
  }
  if (foreground == group) tcsetpgrp(tty, getpgrp());
  kill(getpid(), SIGSTOP);  // SIGCONT then waits, blocked, to be taken
}

// korvel-lock was continued (fg or bg): so is the command, with the
// terminal when korvel-lock has it.
void continued(int tty, pid_t group) {
  if (tty >= 0 && tcgetpgrp(tty) == getpgrp()) tcsetpgrp(tty, group);
  kill(-group, SIGCONT);
}

// Runs the command in a process group of its own and waits for it; its exit
// status, or 128 + the signal that ended it. When the lock is lost
// meanwhile, unless told to ignore it, sends the command SIGTERM.
int runCommand(const Options& o) {
  std::vector<char*> argv;
  for (const std::string& arg : o.command) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  const std::string cannotRun = "korvel-lock: cannot run '" + o.command[0] + "': ";

  const int tty = controllingTerminal();
  // Handed the terminal only by the job that has it.
  const bool foreground = tty >= 0 && tcgetpgrp(tty) == getpgrp();
  const pid_t parent = getpid();
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    // Only async-signal-safe calls until exec: the parent has threads.
    if (chldIgnored) signal(SIGCHLD, SIG_IGN);
    setpgid(0, 0);
    if (foreground) tcsetpgrp(tty, getpid());  // SIGTTOU is blocked
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // A parent that died before the request was made sends nothing.
    if (getppid() != parent) _exit(kSignalBase + SIGKILL);
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
  // Both sides set the group and the terminal: whichever comes first, the
  // command never runs outside its group or, in the foreground, without
  // the terminal.
  setpgid(child, child);
  if (foreground) tcsetpgrp(tty, child);

  sigset_t waited = passedOn;
  for (int signal : {SIGCHLD, SIGCONT, kWakeSignal}) sigaddset(&waited, signal);
  int status = 0;
  for (;;) {
    siginfo_t info;
    const int signal = sigwaitinfo(&waited, &info);
    if (signal == SIGCHLD) {
      // One SIGCHLD may stand for a stop and the end after it.
      pid_t changed;
      while ((changed = waitpid(child, &status, WNOHANG | WUNTRACED)) == child &&
             WIFSTOPPED(status)) {
        commandStopped(tty, child, WSTOPSIG(status));
      }
      if (changed == child) break;
      if (changed < 0 && errno != EINTR) return kCannotExecute;
    } else if (signal == SIGCONT) {
      continued(tty, child);
    } else if (signal == kWakeSignal) {
      if (lockLost && !o.ignoreLoss && !commandTerminated) {
        kill(-child, SIGTERM);
        commandTerminated = true;
      }
    } else if (signal > 0) {
      // Whoever sent it, and however: the command is not in korvel-lock's
      // group, so nothing else passes it on.
      const int passed = kill(-child, signal);
      say(o, "passed signal %d on to the command: %s", signal,
          passed == 0 ? "done" : errorText(errno).c_str());
    }
  }
  if (tty >= 0 && tcgetpgrp(tty) == child) tcsetpgrp(tty, getpgrp());
  if (WIFSIGNALED(status)) {
    say(o, "the command was ended by signal %d", WTERMSIG(status));
    return kSignalBase + WTERMSIG(status);
  }
  say(o, "the command exited with status %d", WEXITSTATUS(status));
  return WEXITSTATUS(status);
}

int lockAndRun(const Options& o) {
  checkDirectory(o.directory, "lock", true);
  std::string cause;  // why a lock that was held is not known to have been kept
  int status = 0;
  try {
    koDirectoryReadWriteLock rw(o.directory);
    koDirectoryReadWriteLock::ReadLock reading = rw.getReadLock();
    koDirectoryReadWriteLock::WriteLock writing = rw.getWriteLock();
    koDirectoryReadWriteLock::AbstractLock& lock =
        o.shared ? static_cast<koDirectoryReadWriteLock::AbstractLock&>(reading) : writing;
    WaitLine line(o, std::string("the ") + o.kind() + " lock", true);
    lock.onLost([] {
      lockLost = true;
      wakeMainThread();
    });
    const double start = hostMonotonic();
    const Waited w = waitFor(o, line, [&](unsigned long ms) {
      return lock.acquire(ms, TimeUnit::sMilliseconds(), o.noRefresh);
    });
    if (w.outcome != Outcome::kHeld) return notHeld(w, o, line);
    line.clear();
    if (w.signal != 0) {
      // A signal that came as the lock was taken ends the run before it began.
      status = kSignalBase + w.signal;
    } else {
      say(o, "took %s after %.1f s", line.what(), hostMonotonic() - start);
      status = runCommand(o);
    }
    // Held until here: whatever keeps it from being released cleanly is a
    // loss, whatever its cause.
    try {
      errno = 0;
      if (!lock.release(koForever, TimeUnit::sSeconds()) && !lock.lost()) cause = errorText(errno);
    } catch (const koNoSuchDirectory&) {
      cause = "the directory has gone";
    }
    if (!lock.lost() && cause.empty()) {
      say(o, "released the lock");
      return status;
    }
    fprintf(stderr, "korvel-lock: lost %s while the command ran%s%s%s\n", line.what(),
            cause.empty() ? "" : ": ", cause.c_str(),
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

// The objects at lock-file names; exits with kStatusUnexamined when the
// directory cannot be listed or one of them cannot be examined, as then
// nothing can be said of the lock.
std::vector<LockFile> examine(const Options& o) {
  std::vector<LockFile> files;
  std::string what;
  if (!korvel_tool::listLockFiles(o.directory, &files, &what)) {
    fail(kStatusUnexamined,
         "cannot examine '" + o.directory + "': " + what + ": " + errorText(errno));
  }
  return files;
}

int showStatus(const Options& o) {
  checkDirectory(o.directory, "examine", false);
  const std::vector<LockFile> files = examine(o);
  time_t now;
  const bool byServer = korvel_tool::serverNow(o.directory, &now);
  if (!o.json) {
    printf("%s: %zu lock file%s; ages by %s; stale after %g s\n", o.directory.c_str(), files.size(),
           files.size() == 1 ? "" : "s",
           byServer ? "the file server's clock" : "this host's clock (directory not writable)",
           korvel_protocol::kStaleSeconds);
  }
  bool live = false;
  bool stale = false;
  bool foreign = false;
  // Dead: its holder on this host is known to have ended, or it is long
  // dead; stale: it looks left by a dead process, by the server's clock.
  const std::vector<Judgement> dead = korvel_tool::confirmDead(o.directory, files, now, 0);
  for (const LockFile& file : files) {
    const bool isDead = korvel_tool::judgementOf(dead, o.directory, file) != nullptr;
    const bool isStale = isDead || korvel_tool::isStale(file, now);
    stale = stale || isStale;
    foreign = foreign || file.foreign != nullptr;
    live = live || (!isStale && file.foreign == nullptr && korvel_tool::isHolder(file.kind));
    const char* state = file.foreign != nullptr ? "foreign"
                        : isDead                ? "dead"
                        : isStale               ? "stale"
                                                : "live";
    if (o.json) {
      printf("{\"name\":%s,\"kind\":\"%s\",\"type\":\"%s\",\"age\":%.0f,\"state\":\"%s\"}\n",
             jsonString(file.name).c_str(), korvel_tool::jsonKind(file.kind), file.type,
             korvel_tool::ageOf(file, now), state);
    } else {
      printf("  %-28s %-40s age %4.0f s  %s\n", file.name.c_str(),
             korvel_tool::describe(file).c_str(), korvel_tool::ageOf(file, now),
             file.foreign != nullptr ? "foreign: not a lock file" : state);
    }
  }
  return foreign ? kStatusForeign : live ? kStatusHeld : stale ? kStatusStale : kStatusFree;
}

int clean(const Options& o) {
  checkDirectory(o.directory, "clean", true);
  const std::vector<LockFile> files = examine(o);
  time_t now;
  korvel_tool::serverNow(o.directory, &now);
  int removed = 0;
  bool failed = false;
  bool foreignLeft = false;
  const auto cannotRemove = [&](const LockFile& file, const std::string& why) {
    fprintf(stderr, "korvel-lock: cannot remove %s (%s) from '%s': %s\n", file.name.c_str(),
            korvel_tool::describe(file).c_str(), o.directory.c_str(), why.c_str());
    failed = true;
  };
  const auto notOurs = [&](const LockFile& file) {
    const std::string owner = korvel_tool::ownerName(file.owner);
    return "it belongs to user " + owner + "; " + (owner == "root" ? "" : owner + " or ") +
           "root can remove it";
  };
  std::vector<Judgement> dead;
  const auto remove = [&](const LockFile& file, time_t at) {
    if (korvel_tool::removeIfUnchanged(o.directory, file)) {
      const Judgement* judged = korvel_tool::judgementOf(dead, o.directory, file);
      if (judged != nullptr) korvel_tool::forgetRemoved(*judged);
      printf("removed %s (%s, %.0f s old)\n", file.name.c_str(),
             korvel_tool::describe(file).c_str(), korvel_tool::ageOf(file, at));
      ++removed;
    } else if (errno != 0) {  // 0: changed or gone since it was judged, so left alone
      const int error = errno;
      cannotRemove(file, errorText(error) + (error == EPERM || error == EACCES
                                                 ? std::string("; ") + notOurs(file)
                                                 : std::string()));
    }
  };
  // Only what the lock's own rule finds dead goes: a file that merely looks
  // stale by the server's clock is watched until it has stood still for a
  // lease (unless -n), since its times may come from a skewed clock.
  const bool watch = !(o.timed && o.waitSeconds == 0);
  if (watch && std::any_of(files.begin(), files.end(), [&](const LockFile& file) {
        return korvel_tool::isStale(file, now) && korvel_tool::isHolder(file.kind);
      })) {
    say(o, "watching the lock files that look stale for up to %g s",
        korvel_protocol::kObservationSeconds);
  }
  dead = korvel_tool::confirmDead(o.directory, files, now,
                                  watch ? korvel_protocol::kObservationSeconds + 0.5 : 0);
  const auto isDead = [&](const LockFile& file) {
    return file.kind == Kind::kStaleTest || file.kind == Kind::kProbe
               ? korvel_tool::isStale(file, now)
               : korvel_tool::judgementOf(dead, o.directory, file) != nullptr;
  };
  // Queue places, stale-test files and probes belong to nobody once dead;
  // foreign objects go only when asked for.
  std::vector<const LockFile*> locked;  // dead read and write lock files
  const LockFile* staleLevel0 = nullptr;
  bool level0Blocked = false;
  for (const LockFile& file : files) {
    if (file.foreign != nullptr) {
      if (o.force) {
        remove(file, now);
      } else {
        printf("left %s (%s): not a lock file; --clean --force removes it\n", file.name.c_str(),
               korvel_tool::describe(file).c_str());
        foreignLeft = true;
        level0Blocked = level0Blocked || file.kind == Kind::kDirectory;
      }
    } else if (!isDead(file)) {
      continue;
    } else if (file.kind == Kind::kQueue || file.kind == Kind::kStaleTest ||
               file.kind == Kind::kProbe) {
      remove(file, now);
    } else if (file.kind == Kind::kDirectory) {
      staleLevel0 = &file;
    } else {
      locked.push_back(&file);
    }
  }
  if (staleLevel0 != nullptr && !korvel_tool::mayRemove(o.directory, *staleLevel0)) {
    // Taking it over would wait for ever.
    cannotRemove(*staleLevel0, notOurs(*staleLevel0));
    level0Blocked = true;
  }
  if ((staleLevel0 != nullptr || !locked.empty()) && !level0Blocked) {
    // Read and write lock files change only under the directory lock; a
    // stale holder of the directory lock itself is taken over by acquiring.
    try {
      koDirectoryExclusiveLock directoryLock(o.directory, "korvel-lock");
      WaitLine line(o, "the internal directory lock", false);
      const Waited w = waitFor(o, line, [&](unsigned long ms) {
        return directoryLock.acquire(ms, TimeUnit::sMilliseconds(), false);
      });
      if (w.outcome != Outcome::kHeld) return notHeld(w, o, line);
      time_t at;
      korvel_tool::serverNow(o.directory, &at);
      for (const LockFile* file : locked) remove(*file, at);
      if (!directoryLock.release(koForever, TimeUnit::sSeconds())) {
        say(o, "the internal directory lock was lost while cleaning");
      }
      if (w.signal != 0) return kSignalBase + w.signal;
    } catch (const koNoSuchDirectory&) {
      fail(kNoDirectory, "cannot clean '" + o.directory + "': the directory has gone");
    }
    if (staleLevel0 != nullptr) {
      printf("removed %s (%s, %.0f s old): taken over and released\n", staleLevel0->name.c_str(),
             korvel_tool::describe(*staleLevel0).c_str(), korvel_tool::ageOf(*staleLevel0, now));
      ++removed;
    }
  }
  if (removed == 0 && !failed && !foreignLeft) {
    printf("%s: nothing stale to remove\n", o.directory.c_str());
  }
  return failed ? kStatusNotRemoved : foreignLeft ? kStatusForeign : 0;
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
    // The command counts as the holder: it keeps the lock's registration on
    // this host alive, so that a korvel-lock killed while its command runs
    // on is not taken for a dead holder.
    korvel_detail::keepRegistrationsAcrossExec(true);
    blockSignals();
    const int status = lockAndRun(o);
    // The lock is released; the library's idle threads and pools need no
    // orderly end, which would cost the run more than the lock did.
    fflush(nullptr);
    _exit(status);
  } catch (const std::exception& e) {
    // Out of memory or of threads: no string is built on the way out.
    fprintf(stderr, "korvel-lock: %s\n", e.what());
  } catch (...) {
    fputs("korvel-lock: unexpected failure\n", stderr);
  }
  fflush(nullptr);
  _exit(kInternalError);
}
