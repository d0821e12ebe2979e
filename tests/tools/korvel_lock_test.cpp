// The korvel-lock tool, run as a separate program: exclusion, conflict
// statuses, signals (also from a terminal), --status, --clean, and its help
// against its manual page.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <sstream>
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
  return access(path.c_str(), F_OK) == 0;
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

// Makes path with a modification time `age` seconds ago.
void makeAged(const std::string& path, int age) {
  writeFile(path, "1");
  ASSERT_TRUE(korvel_test::setMtime(path, time(nullptr) - age)) << path;
}

class KorvelLockTest : public TempDirTest {
 protected:
  KorvelLockTest() {
    EXPECT_EQ(mkdir(locked().c_str(), 0755), 0);
    EXPECT_EQ(mkdir(work().c_str(), 0755), 0);
  }
  std::string locked() const { return at("locked"); }
  std::string work(const std::string& name = "") const {
    return at("work") + (name.empty() ? "" : "/" + name);
  }

  pid_t start(const Args& args, const std::string& tag = "run") {
    return korvel_test::spawn(KORVEL_LOCK_TOOL, args, {}, at(tag + ".out"), at(tag + ".err"));
  }
  Result finish(pid_t pid, const std::string& tag = "run") {
    const int status = korvel_test::waitChild(pid);
    return {status, readFile(at(tag + ".out")), readFile(at(tag + ".err"))};
  }
  Result run(const Args& args) { return finish(start(args)); }

  // Everything in the locked directory.
  Names names() const {
    Names found;
    if (DIR* d = opendir(locked().c_str())) {
      while (const dirent* e = readdir(d)) found.insert(e->d_name);
      closedir(d);
    }
    found.erase(".");
    found.erase("..");
    return found;
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
    if (pid == 0) _exit(execv(argv[0], argv.data()) == 0 ? 0 : 96);
    return pid;
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
    bool saysSo;  // a wait that ran out says so; a single try is silent
  };
  const Case cases[] = {
      {{"-n"}, kConflict, false},   {{"-sn"}, kConflict, false},
      {{"-nE0"}, 0, false},         {{"--nonblock", "--conflict-exit-code=9"}, 9, false},
      {{"-w0.3"}, kConflict, true}, {{"-s", "--wait", "0.3", "-E", "1"}, 1, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(shown(c.options));
    const Result r = run(c.options + Args{locked(), "-c", "touch '" + work("ran") + "'"});
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.out, "");
    if (c.saysSo) {
      EXPECT_EQ(r.err.rfind("korvel-lock: gave up after 0.3 s waiting for the", 0), 0u) << r.err;
      EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "one line: " << r.err;
    } else {
      EXPECT_EQ(r.err, "");
    }
  }
  EXPECT_FALSE(exists(work("ran")));
  EXPECT_EQ(names(), Names{".deploy_write_lock"});
  release(holder);

  // A reader keeps writers out, not readers.
  const pid_t reader = holdLock({"--shared"});
  EXPECT_EQ(run({"-n", locked(), "true"}).status, kConflict);
  EXPECT_EQ(run({"-sn", locked(), "-c", "touch '" + work("ran") + "'"}).status, 0);
  EXPECT_TRUE(exists(work("ran")));
  release(reader);
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
      {{locked(), "-c", "exit 5"}, 5, ""},
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

TEST_F(KorvelLockTest, SignalsReachTheCommandOnce) {
  struct Case {
    bool fromTerminal;  // else sent to korvel-lock alone
    int signal;
    std::string record;  // one byte per signal the command got: k terminal, u process
  };
  const Case cases[] = {{true, SIGINT, "k"}, {false, SIGTERM, "u"}, {false, SIGHUP, "u"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(strsignal(c.signal));
    const std::string record = work("record" + std::to_string(c.signal));
    const std::string ready = work("ready" + std::to_string(c.signal));
    int master = -1;
    const pid_t tool = startOnTerminal({locked(), SIGNAL_RECORDER, record, ready}, &master);
    ASSERT_TRUE(eventually([&] { return exists(ready); }));
    if (c.fromTerminal) {
      // korvel-lock, stopped, gets the interrupt only after the command has
      // taken its own: a second one passed on could not merge with it.
      kill(tool, SIGSTOP);
      ASSERT_TRUE(eventually([&] { return stateOf(tool) == 'T'; }));
      ASSERT_EQ(write(master, "\003", 1), 1);  // the interrupt character
      ASSERT_TRUE(eventually([&] { return !readFile(record).empty(); }));
      kill(tool, SIGCONT);
    } else {
      kill(tool, c.signal);
    }
    EXPECT_EQ(korvel_test::waitChild(tool), 0) << "korvel-lock outlives it with the command";
    EXPECT_EQ(readFile(record), c.record);
    close(master);
  }
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

TEST_F(KorvelLockTest, EndingKorvelLockEndsItsWaitOrItsCommand) {
  // A run waiting behind another is ended by SIGTERM, having held nothing.
  const pid_t holder = holdLock();
  const pid_t waiter = start({locked(), "true"}, "waiter");
  usleep(300000);
  kill(waiter, SIGTERM);
  EXPECT_EQ(finish(waiter, "waiter").status, 128 + SIGTERM);
  release(holder);
  // A command dies of the SIGTERM passed on, and of korvel-lock's death.
  for (int signal : {SIGTERM, SIGKILL}) {
    SCOPED_TRACE(strsignal(signal));
    unlink(work("pid").c_str());
    const pid_t tool = start({locked(), "-c", "echo $$ > '" + work("pid") + "'; exec sleep 30"});
    ASSERT_TRUE(eventually([&] { return !readFile(work("pid")).empty(); }));
    const pid_t command = std::stoi(readFile(work("pid")));
    kill(tool, signal);
    EXPECT_EQ(finish(tool).status, 128 + signal);
    EXPECT_TRUE(eventually([&] { return ended(command); }, 10)) << "the command outlived the lock";
  }
  EXPECT_EQ(names(), Names{".deploy_write_lock"}) << "only the killed run's file stays";
}

// A holder stopped past the stale time finds its lock taken over when it
// resumes: its command is ended, its exit status says so, and the new
// holder's lock is left alone.
TEST_F(KorvelLockTest, ALostLockEndsTheCommand) {
  const pid_t tool = start({locked(), "-c", "echo $$ > '" + work("pid") + "'; exec sleep 30"});
  ASSERT_TRUE(eventually([&] { return !readFile(work("pid")).empty(); }));
  const pid_t command = std::stoi(readFile(work("pid")));
  kill(tool, SIGSTOP);
  makeAged(locked() + "/.deploy_write_lock", 30);
  const pid_t next = start({locked(), "-c", "touch '" + work("next") + "'; sleep 7"}, "next");
  ASSERT_TRUE(eventually([&] { return exists(work("next")); }));
  kill(tool, SIGCONT);
  const Result lost = finish(tool);
  EXPECT_EQ(lost.status, 76);
  EXPECT_EQ(lost.err, "korvel-lock: lost the exclusive lock on '" + locked() +
                          "' while the command ran; the command was sent SIGTERM\n");
  EXPECT_TRUE(ended(command));
  EXPECT_EQ(names(), Names{".deploy_write_lock"}) << "the new holder's lock was touched";
  EXPECT_EQ(finish(next, "next").status, 0);
  EXPECT_EQ(names(), Names{});
}

TEST_F(KorvelLockTest, AWaitOnATerminalSaysWhatItWaitsFor) {
  const pid_t holder = holdLock();
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
}

TEST_F(KorvelLockTest, MisuseGivesOneLineAndLeavesNothing) {
  writeFile(at("file"), "");
  struct Case {
    Args args;
    int status;
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
      {{"--status", locked(), "extra"}, 64},
      {{at("nowhere"), "true"}, 66},
      {{at("file"), "true"}, 66},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(shown(c.args));
    const Result r = run(c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.out, "");
    ASSERT_FALSE(r.err.empty());
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "exactly one line: " << r.err;
    EXPECT_EQ(r.err.rfind("korvel-lock: ", 0), 0u);
  }
  EXPECT_EQ(names(), Names{});
  EXPECT_EQ(readFile(at("file")), "");

  // Not writable: checked as an unprivileged user (root may write anywhere).
  ASSERT_EQ(chmod(locked().c_str(), 0555), 0);
  ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
  const Args asNobody = {"--reuid=65534", "--regid=65534", "--clear-groups", KORVEL_LOCK_TOOL};
  const Result r = finish(geteuid() != 0 ? start({locked(), "true"})
                                         : korvel_test::spawn("/usr/bin/setpriv",
                                                              asNobody + Args{locked(), "true"}, {},
                                                              at("run.out"), at("run.err")));
  EXPECT_EQ(r.status, 77);
  EXPECT_EQ(r.err, "korvel-lock: cannot lock '" + locked() + "': the directory is not writable\n");
}

struct AgedFile {
  std::string name;
  int age;
  std::string kind;  // as --status --json names it
};

TEST_F(KorvelLockTest, StatusTellsLiveLocksFromStaleFiles) {
  struct Case {
    std::vector<AgedFile> files;
    int status;  // 0 nothing live, 1 a live lock, 2 only stale files
  };
  const Case cases[] = {
      {{}, 0},
      {{{".deploy_lock.2", 0, "queue"}, {".deploy_write_lock", 60, "write"}}, 2},
      {{{".deploy_read_lock.77", 60, "read"}, {".1234567", 60, "stale-test"}}, 2},
      {{{".deploy_lock.0", 0, "directory"}}, 1},
      {{{".deploy_write_lock", 0, "write"}, {".deploy_read_lock.7", 60, "read"}}, 1},
  };
  const std::regex object(
      R"re(\{"name":"([^"]*)","kind":"([a-z-]*)","age":(-?[0-9]+),"state":"(live|stale)"\})re");
  for (const Case& c : cases) {
    korvel_test::removeTree(locked());
    ASSERT_EQ(mkdir(locked().c_str(), 0755), 0);
    Names made;
    for (const AgedFile& f : c.files) {
      makeAged(locked() + "/" + f.name, f.age);
      made.insert(f.name);
    }
    SCOPED_TRACE(shown(Args(made.begin(), made.end())));
    EXPECT_EQ(run({"--status", locked()}).status, c.status);
    const Result json = run({"--status", "--json", locked()});
    EXPECT_EQ(json.status, c.status);
    std::istringstream lines(json.out);
    std::map<std::string, std::vector<std::string>> objects;  // name: kind, age, state
    for (std::string line; std::getline(lines, line);) {
      std::smatch m;
      ASSERT_TRUE(std::regex_match(line, m, object)) << line;
      objects[m[1]] = {m[2], m[3], m[4]};
    }
    ASSERT_EQ(objects.size(), c.files.size()) << json.out;
    for (const AgedFile& f : c.files) {
      const std::vector<std::string>& o = objects[f.name];
      EXPECT_EQ(o[0], f.kind) << f.name;
      EXPECT_NEAR(std::stoi(o[1]), f.age, 2) << f.name;
      EXPECT_EQ(o[2], f.age > 15 ? "stale" : "live") << f.name;
    }
    EXPECT_EQ(names(), made) << "--status only looks, and leaves no probe behind";
  }
}

TEST_F(KorvelLockTest, CleanRemovesOnlyWhatIsStale) {
  const Names stale = {".deploy_read_lock.5", ".deploy_lock.0", ".deploy_lock.3", ".4242"};
  const Names live = {".deploy_write_lock", ".deploy_read_lock.6", ".deploy_lock.2", ".4343"};
  const Names others = {".hidden", "data"};  // not lock files, however old
  for (const std::string& name : stale) makeAged(locked() + "/" + name, 60);
  for (const std::string& name : live) makeAged(locked() + "/" + name, 0);
  for (const std::string& name : others) makeAged(locked() + "/" + name, 60);
  Names kept = live;
  kept.insert(others.begin(), others.end());
  Result r = run({"--clean", locked()});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(names(), kept);
  for (const std::string& gone : stale) {
    EXPECT_NE(r.out.find("removed " + gone + " ("), std::string::npos) << gone << ":\n" << r.out;
  }
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 4) << r.out;

  r = run({"--clean", locked()});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, locked() + ": nothing stale to remove\n");
  EXPECT_EQ(names(), kept);
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
