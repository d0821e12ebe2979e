// The korvel-lock tool, run as a separate program.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace {

using korvel_test::readFile;
using korvel_test::secondsSince;
using korvel_test::TempDirTest;

const int kTimedOut = 75;

struct Result {
  int status;
  std::string out;
  std::string err;
};

bool waitForFile(const std::string& path, double seconds) {
  const auto start = std::chrono::steady_clock::now();
  while (access(path.c_str(), F_OK) != 0) {
    if (secondsSince(start) > seconds) return false;
    usleep(10000);
  }
  return true;
}

class KorvelLockTest : public TempDirTest {
 protected:
  KorvelLockTest() {
    EXPECT_EQ(mkdir(locked().c_str(), 0755), 0);
    EXPECT_EQ(mkdir(work().c_str(), 0755), 0);
  }
  std::string locked() const { return at("locked"); }
  std::string work() const { return at("work"); }

  pid_t start(const std::vector<std::string>& args, const std::string& tag = "run") {
    return korvel_test::spawn(KORVEL_LOCK_TOOL, args, {}, at(tag + ".out"), at(tag + ".err"));
  }
  Result finish(pid_t pid, const std::string& tag = "run") {
    const int status = korvel_test::waitChild(pid);
    return {status, readFile(at(tag + ".out")), readFile(at(tag + ".err"))};
  }
  Result run(const std::vector<std::string>& args) { return finish(start(args)); }

  // The lock files left in the locked directory.
  std::set<std::string> lockFiles() const {
    std::set<std::string> names;
    if (DIR* d = opendir(locked().c_str())) {
      while (dirent* e = readdir(d)) {
        if (strncmp(e->d_name, ".deploy_", 8) == 0) names.insert(e->d_name);
      }
      closedir(d);
    }
    return names;
  }
};

// A shell command for the tool to run, with the work directory as $1.
std::vector<std::string> shell(const std::string& script, const std::string& work,
                               const std::vector<std::string>& more = {}) {
  std::vector<std::string> args = {"--", "/bin/sh", "-c", script, "sh", work};
  args.insert(args.end(), more.begin(), more.end());
  return args;
}

std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

TEST_F(KorvelLockTest, ExclusiveRunsNeverOverlapSharedRunsDo) {
  // Each exclusive run fails (status 3) if it finds another inside.
  const std::string exclusive =
      "set -C; : > \"$1/inside\" || exit 3; sleep 0.2; rm -f \"$1/inside\"";
  std::vector<pid_t> pids;
  for (int i = 0; i < 4; ++i) {
    pids.push_back(
        start(std::vector<std::string>{"--exclusive", locked()} + shell(exclusive, work()),
              "x" + std::to_string(i)));
  }
  for (int i = 0; i < 4; ++i) {
    const Result r = finish(pids[i], "x" + std::to_string(i));
    EXPECT_EQ(r.status, 0) << r.err;
  }

  // Each shared run waits (up to 10 s) to see the other inside.
  const std::string meet =
      "touch \"$1/$2\"; i=0; while [ ! -e \"$1/$3\" ]; do i=$((i+1)); [ $i -gt 200 ] && exit 4; "
      "sleep 0.05; done; sleep 0.2";
  pid_t a =
      start(std::vector<std::string>{"--shared", locked()} + shell(meet, work(), {"a", "b"}), "a");
  pid_t b = start(std::vector<std::string>{"-s", locked()} + shell(meet, work(), {"b", "a"}), "b");
  EXPECT_EQ(finish(a, "a").status, 0) << "shared holders never met";
  EXPECT_EQ(finish(b, "b").status, 0) << "shared holders never met";
  EXPECT_TRUE(lockFiles().empty());
}

TEST_F(KorvelLockTest, TimeOutOnAHeldLockFailsWithItsOwnStatus) {
  const std::string hold = "touch \"$1/holding\"; while [ ! -e \"$1/done\" ]; do sleep 0.05; done";
  pid_t holder = start(std::vector<std::string>{locked()} + shell(hold, work()), "holder");
  ASSERT_TRUE(waitForFile(work() + "/holding", 20));

  auto begin = std::chrono::steady_clock::now();
  Result r = run({"--timeout", "0", locked(), "--", "true"});
  EXPECT_EQ(r.status, kTimedOut);
  EXPECT_LT(secondsSince(begin), 5.0);
  EXPECT_EQ(r.err, "korvel-lock: timed out after 0 s waiting for the exclusive lock on '" +
                       locked() + "'\n");

  begin = std::chrono::steady_clock::now();
  r = run({"--shared", "--timeout=1.5", locked(), "--", "true"});
  EXPECT_EQ(r.status, kTimedOut);
  EXPECT_GE(secondsSince(begin), 1.4) << "waited for the time-out";
  EXPECT_NE(r.err.find("waiting for the shared lock"), std::string::npos) << r.err;

  korvel_test::writeFile(work() + "/done", "");
  EXPECT_EQ(finish(holder, "holder").status, 0);
  EXPECT_EQ(run({"--timeout", "0", locked(), "--", "true"}).status, 0);
  EXPECT_TRUE(lockFiles().empty());
}

TEST_F(KorvelLockTest, CommandStatusPassesThrough) {
  EXPECT_EQ(run({locked(), "--", "/bin/sh", "-c", "exit 7"}).status, 7);
  EXPECT_EQ(run({locked(), "/bin/sh", "-c", "kill -9 $$"}).status, 128 + 9);
  const Result missing = run({locked(), "--", "/no/such/command"});
  EXPECT_EQ(missing.status, 127);
  EXPECT_EQ(missing.err, "korvel-lock: cannot run '/no/such/command': No such file or directory\n");
  EXPECT_TRUE(lockFiles().empty());
}

TEST_F(KorvelLockTest, SigtermEndsTheCommandAndReleasesTheLock) {
  pid_t tool = start(std::vector<std::string>{locked()} +
                     shell("echo $$ > \"$1/child.pid\"; exec sleep 30", work()));
  ASSERT_TRUE(waitForFile(work() + "/child.pid", 20));
  EXPECT_EQ(lockFiles(), std::set<std::string>{".deploy_write_lock"});

  // A second run waiting behind it is ended by SIGTERM too, having held nothing.
  pid_t waiter = start({locked(), "--", "true"}, "waiter");
  usleep(300000);
  kill(waiter, SIGTERM);
  EXPECT_EQ(finish(waiter, "waiter").status, 128 + SIGTERM);

  const pid_t child = std::stoi(readFile(work() + "/child.pid"));
  kill(tool, SIGTERM);
  const Result r = finish(tool);
  EXPECT_EQ(r.status, 128 + SIGTERM) << "the command died of the forwarded signal";
  EXPECT_NE(kill(child, 0), 0) << "the command is gone";
  EXPECT_TRUE(lockFiles().empty());
}

TEST_F(KorvelLockTest, MisuseGivesOneLineAndLeavesNothing) {
  korvel_test::writeFile(at("file"), "");
  struct Case {
    std::vector<std::string> args;
    int status;
  };
  const Case cases[] = {
      {{}, 64},
      {{"--", "true"}, 64},
      {{locked()}, 64},
      {{locked(), "--"}, 64},
      {{"--frobnicate", locked(), "--", "true"}, 64},
      {{"--timeout", "soon", locked(), "--", "true"}, 64},
      {{"--timeout", "-1", locked(), "--", "true"}, 64},
      {{"--timeout"}, 64},
      {{"--status", locked(), "extra"}, 64},
      {{at("nowhere"), "--", "true"}, 66},
      {{at("file"), "--", "true"}, 66},
      {{"--status", at("nowhere")}, 66},
  };
  for (const Case& c : cases) {
    std::string shown;
    for (const auto& a : c.args) shown += "'" + a + "' ";
    SCOPED_TRACE(shown);
    const Result r = run(c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.out, "");
    ASSERT_FALSE(r.err.empty());
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "exactly one line: " << r.err;
    EXPECT_EQ(r.err.rfind("korvel-lock: ", 0), 0u);
  }
  EXPECT_TRUE(lockFiles().empty());
  EXPECT_EQ(readFile(at("file")), "");

  // Not writable: checked as an unprivileged user (root may write anywhere).
  ASSERT_EQ(chmod(locked().c_str(), 0555), 0);
  ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
  const std::string tool = KORVEL_LOCK_TOOL;
  const std::string dir = locked();
  std::string err;
  const int status = korvel_test::runInChildCapturing(
      [&] {
        if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) return 90;
        execl(tool.c_str(), tool.c_str(), dir.c_str(), "--", "true", static_cast<char*>(nullptr));
        return 91;
      },
      nullptr, &err);
  EXPECT_EQ(status, 77);
  EXPECT_EQ(err, "korvel-lock: cannot lock '" + dir + "': the directory is not writable\n");
}

TEST_F(KorvelLockTest, StatusJudgesAgesByTheDirectorysClock) {
  Result r = run({"--status", locked()});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            locked() + ": 0 lock files; ages by the file server's clock; stale after 15 s\n");

  korvel_test::writeFile(locked() + "/.deploy_write_lock", "1");
  korvel_test::writeFile(locked() + "/.deploy_read_lock.77", "2");
  struct timeval old[2] = {{time(nullptr) - 60, 0}, {time(nullptr) - 60, 0}};
  ASSERT_EQ(utimes((locked() + "/.deploy_read_lock.77").c_str(), old), 0);
  r = run({"--status", locked()});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find(": 2 lock files"), std::string::npos) << r.out;
  const size_t read = r.out.find(".deploy_read_lock.77");
  const size_t write = r.out.find(".deploy_write_lock");
  ASSERT_NE(read, std::string::npos) << r.out;
  ASSERT_NE(write, std::string::npos) << r.out;
  const std::string readLine = r.out.substr(read, r.out.find('\n', read) - read);
  const std::string writeLine = r.out.substr(write, r.out.find('\n', write) - write);
  EXPECT_NE(readLine.find("read lock"), std::string::npos) << readLine;
  EXPECT_NE(readLine.find("STALE"), std::string::npos) << readLine;
  EXPECT_NE(writeLine.find("write lock"), std::string::npos) << writeLine;
  EXPECT_NE(writeLine.find("live"), std::string::npos) << writeLine;
  EXPECT_EQ(lockFiles(), (std::set<std::string>{".deploy_write_lock", ".deploy_read_lock.77"}))
      << "--status only looks";

  r = run({"--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("SYNOPSIS"), std::string::npos);
}

}  // namespace
