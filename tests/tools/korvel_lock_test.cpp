// The korvel-lock tool, run as a separate program: exclusion, conflict
// statuses, signals and job control (also from a terminal), waits that the
// library cannot end, hostile directories in --status, --clean and a run,
// lost locks, and its help against its manual page.
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace {

using korvel_test::eventually;
using korvel_test::readFile;
using korvel_test::secondsSince;
using korvel_test::TempDirTest;
using korvel_test::writeFile;
using Args = std::vector<std::string>;
using Names = std::set<std::string>;

const int kConflict = 75;
// Stale by the tool's rule and by any waiter's at once (over 10 minutes).
const int kOld = 700;
// A name the stale test makes: "." and 30 or more digits.
const std::string kStaleTestName = "." + std::string(34, '7');

struct Result {
  int status;
  std::string out;
  std::string err;
};

Args operator+(Args a, const Args& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

std::string shown(const Args& args) {
  std::string text;
  for (const std::string& a : args) text += "'" + a + "' ";
  return text;
}

bool exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

size_t count(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

// The state letter of a process (R, S, T, Z, ...), or 0 when it is gone.
char stateOf(pid_t pid) {
  const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t paren = stat.rfind(')');
  return paren == std::string::npos || paren + 2 >= stat.size() ? 0 : stat[paren + 2];
}

// Gone, or a zombie that nobody has reaped yet.
bool ended(pid_t pid) {
  return stateOf(pid) == 0 || stateOf(pid) == 'Z';
}

// Makes path as a regular file `age` seconds old, or as a foreign object:
// "fifo", "directory" or "symlink" (dangling).
void plant(const std::string& path, int age, const std::string& type = "file") {
  if (type == "fifo") {
    ASSERT_EQ(mkfifo(path.c_str(), 0644), 0) << path;
  } else if (type == "directory") {
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0) << path;
  } else if (type == "symlink") {
    ASSERT_EQ(symlink("/nowhere/at/all", path.c_str()), 0) << path;
  } else {
    writeFile(path, "1", age);
  }
}

class KorvelLockTest : public TempDirTest {
 protected:
  KorvelLockTest() {
    EXPECT_EQ(chmod(dir_.path().c_str(), 0755), 0);  // for the unprivileged runs
    EXPECT_EQ(mkdir(locked().c_str(), 0755), 0);
    EXPECT_EQ(mkdir(work().c_str(), 0777), 0);
  }
  std::string locked() const { return at("locked"); }
  std::string work(const std::string& name = "") const {
    return at("work") + (name.empty() ? "" : "/" + name);
  }

  // As an unprivileged user when the test runs as root (whom permissions
  // do not bind).
  pid_t start(const Args& args, const std::string& tag = "run", bool unprivileged = false) {
    if (!unprivileged || geteuid() != 0) {
      return korvel_test::spawn(KORVEL_LOCK_TOOL, args, {}, at(tag + ".out"), at(tag + ".err"));
    }
    const Args asNobody = {"--reuid=65534", "--regid=65534", "--clear-groups", KORVEL_LOCK_TOOL};
    return korvel_test::spawn("/usr/bin/setpriv", asNobody + args, {}, at(tag + ".out"),
                              at(tag + ".err"));
  }
  Result finish(pid_t pid, const std::string& tag = "run") {
    const int status = korvel_test::waitChild(pid);
    return {status, readFile(at(tag + ".out")), readFile(at(tag + ".err"))};
  }
  Result run(const Args& args, bool unprivileged = false) {
    return finish(start(args, "run", unprivileged));
  }

  // Everything in the locked directory.
  Names names() const { return korvel_test::entries(locked()); }
  void emptyLocked(mode_t mode = 0755) {
    korvel_test::removeTree(locked());
    ASSERT_EQ(mkdir(locked().c_str(), mode), 0);
    ASSERT_EQ(chmod(locked().c_str(), mode), 0);  // past the umask
  }

  // A korvel-lock that holds the lock (the write lock, or as options say)
  // until release().
  pid_t holdLock(const Args& options = {}) {
    const std::string hold = "touch '" + work("holding") + "'; while [ ! -e '" + work("done") +
                             "' ]; do sleep 0.05; done";
    const pid_t pid = start(options + Args{locked(), "-c", hold}, "holder");
    EXPECT_TRUE(eventually([&] { return exists(work("holding")); }));
    return pid;
  }
  void release(pid_t holder) {
    writeFile(work("done"), "");
    EXPECT_EQ(finish(holder, "holder").status, 0);
    unlink(work("holding").c_str());
    unlink(work("done").c_str());
  }

  // Starts the tool in a new session on a new pseudo-terminal, its
  // controlling terminal and standard streams; *master is the other side.
  pid_t startOnTerminal(const Args& args, int* master) {
    const std::string tool = KORVEL_LOCK_TOOL;
    std::vector<char*> argv{const_cast<char*>(tool.c_str())};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    fflush(nullptr);
    const pid_t pid = forkpty(master, nullptr, nullptr, nullptr);
    if (pid == 0) {
      // The tool keeps what it was started with; it starts here with
      // nothing blocked or ignored, however the tests were started.
      for (int signal : {SIGINT, SIGQUIT, SIGTERM, SIGHUP}) ::signal(signal, SIG_DFL);
      sigset_t none;
      sigemptyset(&none);
      sigprocmask(SIG_SETMASK, &none, nullptr);
      _exit(execv(argv[0], argv.data()) == 0 ? 0 : 96);
    }
    return pid;
  }

  // The pid a command line wrote to work/pid, once it has.
  pid_t commandPid() {
    EXPECT_TRUE(eventually([&] { return !readFile(work("pid")).empty(); }));
    const std::string pid = readFile(work("pid"));
    return pid.empty() ? -1 : std::stoi(pid);
  }
};

// What the terminal shows, read until it matches pattern (or 20 s pass).
std::string readTerminal(int master, const std::regex& pattern) {
  std::string text;
  const auto start = std::chrono::steady_clock::now();
  while (!std::regex_search(text, pattern) && secondsSince(start) < 20) {
    struct pollfd p = {master, POLLIN, 0};
    char buffer[256];
    ssize_t n = 0;
    if (poll(&p, 1, 100) == 1 && (n = read(master, buffer, sizeof buffer)) <= 0) break;
    text.append(buffer, n > 0 ? n : 0);
  }
  return text;
}

TEST_F(KorvelLockTest, ALockHeldEndsTheTryWithTheConflictStatus) {
  const pid_t holder = holdLock();
  struct Case {
    Args options;
    int status;
    bool saysSo;  // a wait that ran out says so; a single try is silent, and so is -q
  };
  const Case cases[] = {
      {{"-n"}, kConflict, false},    {{"-sn"}, kConflict, false},
      {{"-nE0"}, 0, false},          {{"--nonblock", "--conflict-exit-code=9"}, 9, false},
      {{"-w0.3"}, kConflict, true},  {{"-s", "--wait", "0.3", "-E", "1"}, 1, true},
      {{"-qw0.3", "-E1"}, 1, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(shown(c.options));
    const Result r = run(c.options + Args{locked(), "-c", "touch '" + work("ran") + "'"});
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, c.saysSo ? "korvel-lock: gave up after 0.3 s waiting for the " +
                                    std::string(c.options[0] == "-s" ? "shared" : "exclusive") +
                                    " lock on '" + locked() + "'\n"
                              : "");
  }
  EXPECT_FALSE(exists(work("ran")));
  EXPECT_EQ(names(), Names{".deploy_write_lock"});
  // A wait on a terminal says what it waits for, and clears its line once
  // it has the lock.
  int master = -1;
  const pid_t tool = startOnTerminal({"-s", locked(), "true"}, &master);
  const std::string line = "korvel-lock: waiting for the shared lock on '" + locked() +
                           "', held by a writer( for [0-9]+ s|; waited [0-9]+ s)";
  const std::string seen = readTerminal(master, std::regex(line));
  EXPECT_TRUE(std::regex_search(seen, std::regex("\r" + line + "\x1b\\[K"))) << seen;
  release(holder);
  const std::regex cleared("\r\x1b\\[K$");
  EXPECT_TRUE(std::regex_search(readTerminal(master, cleared), cleared)) << "the line is cleared";
  EXPECT_EQ(korvel_test::waitChild(tool), 0);
  close(master);
  EXPECT_EQ(names(), Names{});
}

TEST_F(KorvelLockTest, TheCommandsStatusPassesThrough) {
  writeFile(work("plain"), "");
  struct Case {
    Args args;
    int status;
    std::string err;
  };
  const Case cases[] = {
      {{locked(), "--", "/bin/sh", "-c", "exit 7"}, 7, ""},
      {{locked(), "/bin/sh", "-c", "kill -9 $$"}, 128 + 9, ""},
      {{"--command=exit 6", locked()}, 6, ""},
      {{locked(), "/no/such/command"},
       127,
       "korvel-lock: cannot run '/no/such/command': No such file or directory\n"},
      {{locked(), work("plain")},
       126,
       "korvel-lock: cannot run '" + work("plain") + "': Permission denied\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(shown(c.args));
    const Result r = run(c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.err, c.err);
  }
  EXPECT_EQ(names(), Names{});
}

// The command runs in a group of its own, handed the terminal: a signal
// reaches it once, however it was sent, and korvel-lock outlives it with it.
TEST_F(KorvelLockTest, SignalsReachTheCommandOnce) {
  struct Case {
    std::string how;  // "terminal": the interrupt character; "group", "alone": kill(2)
    int signal;
    std::string record;  // one byte per signal the command got: k terminal, u process
  };
  const Case cases[] = {
      {"terminal", SIGINT, "k"}, {"group", SIGINT, "u"},  {"group", SIGHUP, "u"},
      {"alone", SIGTERM, "u"},   {"alone", SIGQUIT, "u"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.how + " " + strsignal(c.signal));
    const std::string record = work("record" + c.how + std::to_string(c.signal));
    const std::string ready = record + ".ready";
    int master = -1;
    const pid_t tool =
        startOnTerminal({"--verbose", locked(), SIGNAL_RECORDER, record, ready}, &master);
    ASSERT_TRUE(eventually([&] { return exists(ready); }));
    if (c.how == "terminal") {
      ASSERT_EQ(write(master, "\003", 1), 1);
    } else {
      // A session leader leads its group.
      ASSERT_EQ(kill(c.how == "group" ? -tool : tool, c.signal), 0);
    }
    EXPECT_EQ(korvel_test::waitChild(tool), 0);
    const std::regex end("exited with status [0-9]+");
    EXPECT_EQ(readFile(record), c.record) << readTerminal(master, end);
    close(master);
  }
}

// Ctrl-Z stops the command and korvel-lock, which takes the terminal back;
// continued, it hands the terminal back and continues the command, which
// reads the terminal as it would without korvel-lock.
TEST_F(KorvelLockTest, JobControlKeepsWorking) {
  const std::string record = work("record");
  const std::string line = "echo $$ > '" + work("pid") + "'; read answer; echo \"got $answer\"; " +
                           "exec '" + SIGNAL_RECORDER + "' '" + record + "' '" + work("ready") +
                           "'";
  int master = -1;
  const pid_t tool = startOnTerminal({locked(), "-c", line}, &master);
  const pid_t command = commandPid();
  ASSERT_TRUE(eventually([&] { return tcgetpgrp(master) == command; })) << "handed the terminal";
  ASSERT_EQ(write(master, "hello\n", 6), 6);
  const std::regex got("got hello");
  EXPECT_TRUE(std::regex_search(readTerminal(master, got), got));
  ASSERT_TRUE(eventually([&] { return exists(work("ready")); }));
  ASSERT_EQ(write(master, "\032", 1), 1);  // the suspend character
  EXPECT_TRUE(eventually([&] { return stateOf(command) == 'T' && stateOf(tool) == 'T'; }));
  EXPECT_EQ(tcgetpgrp(master), tool) << "the terminal taken back";
  kill(tool, SIGCONT);
  EXPECT_TRUE(eventually([&] { return stateOf(command) != 'T' && tcgetpgrp(master) == command; }));
  ASSERT_EQ(write(master, "\003", 1), 1);
  EXPECT_EQ(korvel_test::waitChild(tool), 0);
  EXPECT_EQ(readFile(record), "k");
  close(master);
}

TEST_F(KorvelLockTest, IgnoredSignalsStayIgnored) {
  const std::string tool = KORVEL_LOCK_TOOL;
  struct Case {
    std::string program;
    Args before;
    const char* signal;
  };
  const Case cases[] = {
      {"/usr/bin/nohup", {tool}, "HUP"},
      {"/bin/sh", {"-c", "trap '' INT; exec \"$0\" \"$@\"", tool}, "INT"},  // a background job
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.signal);
    const std::string script = std::string("kill -") + c.signal + " $PPID; sleep 0.2; kill -" +
                               c.signal + " $$; echo alive";
    const pid_t pid = korvel_test::spawn(c.program, c.before + Args{locked(), "-c", script}, {},
                                         at("out"), at("err"));
    EXPECT_EQ(korvel_test::waitChild(pid), 0) << readFile(at("err"));
    EXPECT_EQ(readFile(at("out")), "alive\n");
  }
}

// A signal ends a wait at once, even one blocked in the library (a FIFO at
// the write lock's name, which the library may open); the command dies of
// what korvel-lock passes on, and of its death even when the command
// shrugs off SIGHUP and SIGTERM.
TEST_F(KorvelLockTest, EndingKorvelLockEndsItsWaitOrItsCommand) {
  for (const std::string in : {"holder", "fifo"}) {
    SCOPED_TRACE(in);
    const pid_t holder = in == "holder" ? holdLock() : -1;
    if (in == "fifo") plant(locked() + "/.deploy_write_lock", 0, "fifo");
    const pid_t waiter = start({locked(), "true"}, "waiter");
    usleep(600000);
    kill(waiter, SIGTERM);
    EXPECT_TRUE(eventually([&] { return ended(waiter); }, 5));
    EXPECT_EQ(finish(waiter, "waiter").status, 128 + SIGTERM);
    if (holder > 0) release(holder);
  }
  emptyLocked();
  const std::string setsid = "/usr/bin/setsid";  // korvel-lock then leads its own group
  for (int signal : {SIGTERM, SIGKILL}) {
    SCOPED_TRACE(strsignal(signal));
    unlink(work("pid").c_str());
    const std::string line = (signal == SIGKILL ? "trap '' HUP TERM; " : "") +
                             std::string("echo $$ > '") + work("pid") + "'; exec sleep 30";
    const pid_t tool = korvel_test::spawn(setsid, {KORVEL_LOCK_TOOL, locked(), "-c", line});
    const pid_t command = commandPid();
    kill(signal == SIGKILL ? -tool : tool, signal);
    EXPECT_EQ(korvel_test::waitChild(tool), 128 + signal);
    EXPECT_TRUE(eventually([&] { return ended(command); }, 10)) << "the command outlived the lock";
  }
  EXPECT_EQ(names(), Names{".deploy_write_lock"}) << "only the killed run's file stays";
  // Its holder has ended, on this host: known dead, cleaned at once.
  EXPECT_NE(run({"--status", locked()}).out.find("dead"), std::string::npos);
  EXPECT_EQ(run({"--clean", "-n", locked()}).status, 0);
  EXPECT_EQ(names(), Names{});

  // The command counts as the holder: while what it started runs on, a
  // korvel-lock killed alone is not taken for a dead holder.
  unlink(work("pid").c_str());
  const pid_t tool =
      start({locked(), "-c", "sleep 30 & echo $! > '" + work("pid") + "'; wait"}, "orphaned");
  const pid_t orphan = commandPid();
  kill(tool, SIGKILL);
  korvel_test::waitChild(tool);
  EXPECT_EQ(run({"-n", locked(), "true"}).status, 75) << "taken over while its command ran";
  kill(orphan, SIGKILL);
  EXPECT_TRUE(eventually([&] { return ended(orphan); }, 5));
  EXPECT_EQ(run({"-n", locked(), "true"}).status, 0) << "its last process ended";
}

// A holder that loses its lock exits with 76 whatever the cause, saying
// which; its command is ended, and a new holder's lock is left alone.
TEST_F(KorvelLockTest, ALostLockIsReportedAsLost) {
  // Stopped past the stale time, it finds its lock taken over.
  const pid_t tool = start({locked(), "-c", "echo $$ > '" + work("pid") + "'; exec sleep 30"});
  const pid_t command = commandPid();
  kill(tool, SIGSTOP);
  plant(locked() + "/.deploy_write_lock", kOld);
  const pid_t next = start({locked(), "-c", "touch '" + work("next") + "'; sleep 7"}, "next");
  ASSERT_TRUE(eventually([&] { return exists(work("next")); }));
  kill(tool, SIGCONT);
  Result lost = finish(tool);
  EXPECT_EQ(lost.status, 76);
  EXPECT_EQ(lost.err, "korvel-lock: lost the exclusive lock on '" + locked() +
                          "' while the command ran; the command was sent SIGTERM\n");
  EXPECT_TRUE(ended(command));
  EXPECT_EQ(names(), Names{".deploy_write_lock"}) << "the new holder's lock was touched";
  EXPECT_EQ(finish(next, "next").status, 0);
  EXPECT_EQ(names(), Names{});
  // The directory went while the command ran (a file system cut off looks
  // the same to the holder).
  lost = run({"--on-lost=ignore", locked(), "-c", "rm -r '" + locked() + "'; exit 3"});
  EXPECT_EQ(lost.status, 3);
  ASSERT_EQ(mkdir(locked().c_str(), 0755), 0);
  lost = run({"-s", locked(), "-c", "rm -r '" + locked() + "'"});
  EXPECT_EQ(lost.status, 76);
  const std::string said = "korvel-lock: lost the shared lock on '" + locked() + "' while the";
  EXPECT_EQ(lost.err.rfind(said + " command ran: ", 0), 0u) << lost.err;
}

TEST_F(KorvelLockTest, MisuseGivesOneLineAndLeavesNothing) {
  writeFile(at("file"), "");
  ASSERT_EQ(mkdir(at("closed").c_str(), 0555), 0);
  struct Case {
    Args args;
    int status;
    bool unprivileged = false;
    std::string err = "";  // when not empty: the whole of it
  };
  const Case cases[] = {
      {{}, 64},
      {{locked()}, 64},
      {{"--frobnicate", locked(), "true"}, 64},
      {{"-w", "-1", locked(), "true"}, 64},
      {{"-E", "256", locked(), "true"}, 64},
      {{locked(), "-c"}, 64},
      {{"-c", "true", locked(), "true"}, 64},
      {{"--json", locked(), "true"}, 64},
      {{"--force", "--status", locked()}, 64},
      {{"--status", locked(), "extra"}, 64},
      {{at("nowhere"), "true"}, 66},
      {{at("file"), "true"},
       66,
       false,
       "korvel-lock: cannot lock '" + at("file") + "': not a directory\n"},
      {{"--status", at("file")},
       66,
       false,
       "korvel-lock: cannot examine '" + at("file") + "': not a directory\n"},
      {{at("closed"), "true"},
       77,
       true,
       "korvel-lock: cannot lock '" + at("closed") + "': the directory is not writable\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(shown(c.args));
    const Result r = run(c.args, c.unprivileged);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.out, "");
    ASSERT_FALSE(r.err.empty());
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "exactly one line: " << r.err;
    EXPECT_EQ(r.err.rfind("korvel-lock: ", 0), 0u);
    if (!c.err.empty()) {
      EXPECT_EQ(r.err, c.err);
    }
  }
  EXPECT_EQ(names(), Names{});
  EXPECT_EQ(readFile(at("file")), "");
}

struct Planted {
  std::string name;
  int age;
  std::string kind;  // as --status --json names it
  std::string type = "file";
};

TEST_F(KorvelLockTest, StatusTellsLiveLocksDeadAndStaleFilesAndForeignObjects) {
  struct Case {
    std::vector<Planted> files;
    int status;  // 0 nothing live, 1 a live lock, 2 only stale files, 3 a foreign object
  };
  const Case cases[] = {
      {{}, 0},
      {{{".deploy_lock.2", 30, "queue"}, {".deploy_write_lock", kOld, "write"}}, 2},
      {{{".deploy_read_lock.77", kOld, "read"}, {kStaleTestName, kOld, "stale-test"}}, 2},
      {{{".korvel-lock-probe.a1B2c3", kOld, "probe"}, {".1234567", kOld, ""}}, 2},
      {{{".deploy_lock.0", 0, "directory"}}, 1},
      {{{".deploy_write_lock", 0, "write"}, {".deploy_read_lock.7", kOld, "read"}}, 1},
      {{{".deploy_write_lock", 0, "write"}, {".deploy_read_lock.3", 0, "read", "fifo"}}, 3},
      {{{".deploy_lock.0", 0, "directory", "directory"}}, 3},
      {{{".deploy_lock.1", 0, "queue", "symlink"}}, 3},
  };
  for (const Case& c : cases) {
    emptyLocked();
    Names made;
    std::map<std::string, std::string> lines;  // by name, as listed
    for (const Planted& f : c.files) {
      plant(locked() + "/" + f.name, f.age, f.type);
      made.insert(f.name);
      // Long dead by the lock's own rule; only stale-looking by the clock.
      const bool dead = f.age > 600 && f.kind != "stale-test" && f.kind != "probe";
      const std::string state = f.type != "file" ? "foreign"
                                : dead           ? "dead"
                                : f.age > 15     ? "stale"
                                                 : "live";
      if (!f.kind.empty()) {
        lines[f.name] = "{\"name\":\"" + f.name + "\",\"kind\":\"" + f.kind + "\",\"type\":\"" +
                        f.type + "\",\"age\":_,\"state\":\"" + state + "\"}\n";
      }
    }
    SCOPED_TRACE(shown(Args(made.begin(), made.end())));
    EXPECT_EQ(run({"--status", locked()}).status, c.status);
    const Result json = run({"--status", "--json", locked()});
    EXPECT_EQ(json.status, c.status);
    std::string expected;
    for (const auto& line : lines) expected += line.second;
    EXPECT_EQ(std::regex_replace(json.out, std::regex("\"age\":-?[0-9]+,"), "\"age\":_,"),
              expected);
    EXPECT_EQ(names(), made) << "--status only looks, and leaves no probe behind";
  }
  // Exactly 15 s old by the server's whole seconds is not more: live. (The
  // file and the tool's probe are stamped in the same second.)
  emptyLocked();
  timespec now;
  do {
    usleep(10000);
    clock_gettime(CLOCK_REALTIME, &now);
  } while (now.tv_nsec < 50000000 || now.tv_nsec > 500000000);
  plant(locked() + "/.deploy_write_lock", 15);
  EXPECT_EQ(run({"--status", locked()}).status, 1);
  // A directory this user cannot list is not free: it cannot be examined.
  emptyLocked(0711);
  plant(locked() + "/.deploy_write_lock", 0);
  const Result r = run({"--status", locked()}, true);
  if (geteuid() == 0) {
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "korvel-lock: cannot examine '" + locked() +
                         "': cannot list it: Permission denied\n");
  }
}

TEST_F(KorvelLockTest, CleanRemovesOnlyWhatIsStaleAndForeignObjectsOnlyWhenForced) {
  const Names stale = {".deploy_read_lock.5", ".deploy_lock.0", ".deploy_lock.3", kStaleTestName,
                       ".korvel-lock-probe.Xy12Z9"};
  const Names live = {".deploy_write_lock", ".deploy_read_lock.6", ".deploy_lock.2",
                      "." + std::string(31, '4')};
  // Not lock files, however old: names nobody's lock code makes.
  const Names others = {".hidden", "data", ".1", ".2024", ".deploy_lock.x"};
  const std::map<std::string, std::string> foreign = {{".deploy_read_lock.8", "fifo"},
                                                      {".deploy_lock.4", "directory"},
                                                      {".deploy_read_lock.9", "symlink"}};
  Names kept = live;
  Names keptWithForeign = live;
  for (const std::string& name : stale) plant(locked() + "/" + name, kOld);
  for (const std::string& name : live) plant(locked() + "/" + name, 0);
  for (const std::string& name : others) plant(locked() + "/" + name, kOld);
  kept.insert(others.begin(), others.end());
  keptWithForeign.insert(kept.begin(), kept.end());
  for (const auto& [name, type] : foreign) {
    plant(locked() + "/" + name, 0, type);
    keptWithForeign.insert(name);
  }
  Result r = run({"--clean", locked()});
  EXPECT_EQ(r.status, 3) << r.err;
  EXPECT_EQ(names(), keptWithForeign);
  for (const std::string& gone : stale) {
    EXPECT_EQ(count(r.out, "removed " + gone + " ("), 1u) << gone << ":\n" << r.out;
  }
  for (const auto& f : foreign) {
    EXPECT_EQ(count(r.out, "left " + f.first + " ("), 1u) << f.first << ":\n" << r.out;
  }
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 8) << r.out;

  r = run({"--clean", "--force", locked()});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(names(), kept);
  EXPECT_EQ(std::regex_replace(r.out, std::regex(", [0-9]+ s old"), ""),
            "removed .deploy_lock.4 (a directory in the place of the internal directory lock, "
            "queue place 4)\nremoved .deploy_read_lock.8 (a FIFO in the place of the read lock)\n"
            "removed .deploy_read_lock.9 (a symbolic link in the place of the read lock)\n");
  r = run({"--clean", locked()});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, locked() + ": nothing stale to remove\n");
  // Old by the server's clock alone is not dead: unwatched (-n), it stays.
  plant(locked() + "/.deploy_read_lock.7", 30);
  run({"--clean", "-n", locked()});
  EXPECT_TRUE(exists(locked() + "/.deploy_read_lock.7"));
}

// In a directory with the sticky bit another user's stale files cannot be
// removed: a run keeps waiting, having said whose file is in the way and who
// can remove it, and takes the lock once it is gone; --clean reports each
// failure with a status of its own.
TEST_F(KorvelLockTest, AnotherUsersStaleFileInAStickyDirectory) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to act as two users";
  emptyLocked(01777);
  const std::string level0 = locked() + "/.deploy_lock.0";
  plant(level0, kOld);
  const pid_t tool =
      start({"-w", "20", locked(), "-c", "touch '" + locked() + "/ran'"}, "run", true);
  const std::string says = "korvel-lock: '.deploy_lock.0' in '" + locked() +
                           "' (internal directory lock, N s old) was left by a process that "
                           "died, but it belongs to user root and this user may not remove it; "
                           "root can, with korvel-lock --clean '" +
                           locked() + "'\n";
  const auto said = [&] {  // the age as the second it was judged in had it
    return std::regex_replace(readFile(at("run.err")), std::regex("[0-9]+ s old"), "N s old");
  };
  EXPECT_TRUE(eventually([&] { return said() == says || ended(tool); }));
  ASSERT_EQ(unlink(level0.c_str()), 0);  // as its owner would
  Result r = finish(tool);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(said(), says);
  EXPECT_TRUE(exists(locked() + "/ran"));

  for (const std::string name : {".deploy_lock.0", ".deploy_read_lock.4"}) {
    SCOPED_TRACE(name);
    emptyLocked(01777);
    plant(locked() + "/" + name, kOld);
    r = run({"--clean", locked()}, true);
    EXPECT_EQ(r.status, 5);
    const bool level = name == ".deploy_lock.0";
    EXPECT_EQ(r.err, "korvel-lock: cannot remove " + name + " (" +
                         (level ? "internal directory lock" : "read lock") + ") from '" + locked() +
                         "': " + (level ? "" : "Operation not permitted; ") +
                         "it belongs to user root; root can remove it\n");
    EXPECT_TRUE(exists(locked() + "/" + name));
  }
}

// A full file system is waited out to the deadline, told of in one line,
// and the lock is taken once there is room and the holder has gone.
TEST_F(KorvelLockTest, AFullFileSystemIsWaitedOut) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to mount a small file system";
  const std::string tool = KORVEL_LOCK_TOOL;
  const std::string script =
      "mount -t tmpfs -o size=1m,nr_inodes=12 tmpfs \"$1\" || exit 90; cd \"$2\"\n"
      "'" +
      tool +
      "' \"$1\" -c 'touch holding; while [ ! -e done ]; do sleep 0.05; done' &\n"
      "until [ -e holding ]; do sleep 0.05; done; i=0\n"
      "while touch \"$1/fill$i\" 2>/dev/null; do i=$((i+1)); done\n"
      "'" +
      tool +
      "' -w 20 \"$1\" -c 'touch ran' 2>err & waiter=$!\n"
      "until grep -q 'No space left' err; do sleep 0.05; done; sleep 0.5\n"
      "touch done; rm \"$1\"/fill*; wait $waiter; echo $? >status; wait";
  const pid_t pid =
      korvel_test::spawn("/usr/bin/unshare", {"-m", "sh", "-c", script, "sh", locked(), work()});
  const int status = korvel_test::waitChild(pid);
  if (status == 90) GTEST_SKIP() << "no tmpfs can be mounted here";
  EXPECT_EQ(status, 0);
  EXPECT_EQ(readFile(work("status")), "0\n");
  EXPECT_EQ(readFile(work("err")), "korvel-lock: cannot make a lock file in '" + locked() +
                                       "' for now: No space left on device; trying again until "
                                       "the time-out\n");
  EXPECT_TRUE(exists(work("ran")));
}

// An object at a lock-file name that is no lock file keeps the lock from
// being had: the wait ends at its time-out, the object is named in one
// line, and left alone.
TEST_F(KorvelLockTest, AForeignObjectIsNamedOnceAndLeftAlone) {
  const std::map<std::string, std::string> cases = {
      {"fifo", "a FIFO"}, {"directory", "a directory"}, {"symlink", "a symbolic link"}};
  for (const auto& [type, what] : cases) {
    SCOPED_TRACE(type);
    emptyLocked();
    plant(locked() + "/.deploy_write_lock", 0, type);
    const pid_t tool = start({"-w", "0.5", locked(), "true"});
    EXPECT_TRUE(eventually([&] { return ended(tool); }, 10));
    const Result r = finish(tool);
    EXPECT_EQ(r.status, kConflict);
    EXPECT_EQ(count(r.err, "korvel-lock: '.deploy_write_lock' in '" + locked() + "' is " + what +
                               ", not a lock file"),
              1u)
        << r.err;
    struct stat st;
    ASSERT_EQ(lstat((locked() + "/.deploy_write_lock").c_str(), &st), 0);
    EXPECT_EQ(S_ISREG(st.st_mode), false);
  }
}

// The options an OPTIONS section lists, each with whether it takes a value:
// from the tag lines of the roff source (after .TP) or of the rendered help
// (indented 7 columns).
std::map<std::string, bool> listedOptions(std::string text, bool roff) {
  if (roff)
    text = std::regex_replace(std::regex_replace(text, std::regex(R"(\\f[BIR])"), ""),
                              std::regex(R"(\\-)"), "-");
  const size_t from = text.find(roff ? ".SH OPTIONS" : "\nOPTIONS\n");
  const size_t to = text.find(roff ? "\n.SH " : "\nEXIT STATUS\n", from + 1);
  if (from == std::string::npos || to == std::string::npos) return {};
  const std::string section = text.substr(from, to - from);
  const std::regex tag(roff ? "\n\\.TP\n(-.*)" : "\n       (-.*)");
  const std::regex option("(^|[ ,])(--?[A-Za-z][-A-Za-z]*)");
  std::map<std::string, bool> options;
  for (std::sregex_iterator t(section.begin(), section.end(), tag), end; t != end; ++t) {
    const std::string line = (*t)[1];
    const bool takesValue = std::regex_search(line, std::regex(" [A-Z][-A-Z]*$"));
    for (std::sregex_iterator m(line.begin(), line.end(), option); m != end; ++m) {
      options[(*m)[2]] = takesValue;
    }
  }
  return options;
}

TEST_F(KorvelLockTest, HelpAgreesWithTheManualAndTheTool) {
  const Result help = run({"--help"});
  ASSERT_EQ(help.status, 0);
  const std::map<std::string, bool> options = listedOptions(help.out, false);
  EXPECT_EQ(options, listedOptions(readFile(KORVEL_LOCK_MANUAL), true));
  EXPECT_GE(options.size(), 20u) << help.out;
  for (const auto& [option, takesValue] : options) {
    SCOPED_TRACE(option);
    const std::string value = option == "--on-lost" ? "ignore" : "1";
    const Result r = run(takesValue ? Args{option, value, "--version"} : Args{option, "--version"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.out.rfind("korvel-lock ", 0) == 0 || r.out == help.out) << r.out;
  }
}

}  // namespace
