// The fault explorer of the directory locks: runs schedules of contenders
// (contender.cpp) that take one directory's lock while faults chosen by a
// seed hit them, then checks what they recorded against the lock's promise.
//
//   explorer [--schedules N | --minutes M] [--first S] [--jobs J]
//            [--seed S [--repeat R]] [--scale X] [--calm] [--keep]
//
// A schedule follows from its seed alone (schedule.h). Each contender is
// this program again (--contend), with the host layer of contender.cpp. Host
// time runs `scale` times faster than real time: a schedule of 40 s takes
// 0.2 s at the default scale.
//
// The oracle, per schedule:
//   - overlap: two holds that exclude each other overlap, and the earlier
//     holder's lease (14 s from the start of its last write that reached
//     its file) had not ended when the later one acquired;
//   - late notice: a holder read lost() as false more than 0.5 s after its
//     lease, as it knew it (from the writes that had returned), ended;
//   - left: a lock file is left at the end, written neither by a killed
//     contender nor by one whose lease on it ran out before it ended or
//     that was told of a loss after it wrote it;
//   - hang: a contender had not ended 10 s of host time after the schedule;
//   - false loss (calm only): a holder was told of a loss more than 0.5 s
//     before its lease, as it knew it, ran out, and nobody took its file.
// An overlap counts as a known-window hit instead when, between the write
// of the earlier holder's file and the later acquisition, a contender acted
// on a lock file late after reading back its own number: the window between
// a read-back and its act that the notes in fs_lock name.
#include <dirent.h>
#include <ftw.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "explorer/schedule.h"

extern char** environ;

namespace explorer {
namespace {

constexpr double kLease = 14.0;
constexpr double kNoticeTolerance = 0.5;
constexpr double kForever = std::numeric_limits<double>::infinity();

struct Options {
  unsigned long long first = 1;
  long schedules = 100;
  double minutes = 0;
  int jobs = 2;
  bool single = false;
  int repeat = 1;
  double scale = 200;
  bool calm = false;
  bool keep = false;
} options;

// ---- Running one schedule ----

void removeTree(const std::string& path) {
  nftw(
      path.c_str(), [](const char* p, const struct stat*, int, FTW*) { return remove(p); }, 16,
      FTW_DEPTH | FTW_PHYS);
}

struct Event {
  std::string what;
  double t;
  std::string path;   // of "w", "rm" and "take"
  int number = -1;    // of "w", "rm" and "take"
  double opened = 0;  // of "w"
};

struct Hold {
  int p;
  char kind;  // X, W or R
  double acq;
  double end;
  std::string file;
  std::vector<double> checks;
  double told = kForever;  // of a loss
};

struct Outcome {
  std::vector<std::string> violations;
  int knownWindowHits = 0;
  int takeovers = 0;
  std::map<std::string, int> faults;  // injected, by kind
};

class Run {
 public:
  Run(const Schedule& schedule, const std::string& root)
      : s_(schedule), root_(root), dir_(root + "/lock") {}

  Outcome go() {
    mkdir(root_.c_str(), 0755);
    mkdir(dir_.c_str(), 0755);
    start();
    signal();
    wait();
    read();
    check();
    return out_;
  }

 private:
  long long realAt(double t) const {
    return epoch_ + static_cast<long long>(t / options.scale * 1e9);
  }

  void start() {
    epoch_ = monotonicNs() + 40000000;  // the contenders wait for it: 40 ms to start
    for (int p = 0; p < s_.processes; ++p) {
      std::vector<std::string> args = {"/proc/self/exe",
                                       "--contend",
                                       dir_,
                                       format("%s/p%d.log", root_.c_str(), p),
                                       format("%llu", s_.seed),
                                       options.calm ? "1" : "0",
                                       format("%d", p),
                                       format("%g", options.scale),
                                       format("%lld", epoch_)};
      std::vector<char*> argv;
      for (std::string& a : args) argv.push_back(&a[0]);
      argv.push_back(nullptr);
      pid_t pid = 0;
      if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) pid = 0;
      pids_.push_back(pid);
    }
    killed_.assign(s_.processes, false);
    killedAt_.assign(s_.processes, kForever);
  }

  void signal() {
    std::vector<Signal> acts;
    for (const Signal& sig : s_.signals) {
      acts.push_back(sig);
      if (sig.signal == SIGSTOP) acts.push_back({sig.at + sig.length, sig.who, SIGCONT, 0});
    }
    std::sort(acts.begin(), acts.end(),
              [](const Signal& a, const Signal& b) { return a.at < b.at; });
    for (const Signal& act : acts) {
      const long long at = realAt(act.at);
      const timespec t = {static_cast<time_t>(at / 1000000000), static_cast<long>(at % 1000000000)};
      while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &t, nullptr) == EINTR) {
      }
      if (pids_[act.who] > 0) kill(pids_[act.who], act.signal);
      if (act.signal == SIGKILL) killedAt_[act.who] = std::min(killedAt_[act.who], act.at);
      if (act.signal != SIGCONT) ++out_.faults[act.signal == SIGSTOP ? "stop" : "kill"];
    }
  }

  void wait() {
    // Time enough for a loaded machine, where host time runs on while a
    // contender waits for a core: seconds of it, as a real hang costs only
    // this wait.
    const long long giveUp = realAt(s_.end + 10) + 10000000000LL;
    for (bool running = true; running;) {
      running = false;
      for (int p = 0; p < s_.processes; ++p) {
        int status = 0;
        if (pids_[p] <= 0) continue;
        if (waitpid(pids_[p], &status, WNOHANG) == pids_[p]) {
          killed_[p] = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
          pids_[p] = 0;
        } else if (monotonicNs() > giveUp) {
          out_.violations.push_back(format("hang: p%d had not ended 10 s after the schedule", p));
          kill(pids_[p], SIGKILL);
          waitpid(pids_[p], &status, 0);
          killed_[p] = true;
          pids_[p] = 0;
        } else {
          running = true;
        }
      }
      if (running) usleep(1000);
    }
  }

  void read() {
    events_.resize(s_.processes);
    for (int p = 0; p < s_.processes; ++p) {
      std::ifstream in(format("%s/p%d.log", root_.c_str(), p));
      for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        Event e;
        fields >> e.what >> e.t;
        if (e.what == "w") fields >> e.opened;
        if (e.what == "w" || e.what == "rm" || e.what == "take") fields >> e.path >> e.number;
        if (e.what == "acq" || e.what == "fault") fields >> e.path;  // the kind
        if (e.what == "w") owner_[e.number] = p;
        events_[p].push_back(e);
      }
    }
    for (const Step& step : s_.server) out_.faults["server clock step"] += step.at < s_.end;
    for (const std::vector<Step>& steps : s_.clock) {
      for (const Step& step : steps) out_.faults["client clock step"] += step.at < s_.end;
    }
  }

  // When h's file was written for the acquisition: a late act may hit it
  // from then on, before the acquisition returns.
  double madeAt(const Hold& h) const {
    double made = h.acq;
    for (const Event& e : events_[h.p]) {
      if (e.what == "w" && e.path == h.file && e.opened <= h.acq) made = e.opened;
    }
    return made;
  }

  // The end of h's lease as it stood at t: 14 s after the start of the last
  // write of h's file by h's contender that began by t.
  // With known, only writes whose call had returned by t count: the lease
  // as the holder knew it.
  double leaseEnd(const Hold& h, double t, bool known = false) const {
    double last = -kForever;
    for (const Event& e : events_[h.p]) {
      if (e.what == "w" && e.path == h.file && e.opened <= t && (!known || e.t <= t)) {
        last = std::max(last, e.opened);
      }
    }
    return (last > -kForever ? last : h.acq) + kLease;
  }

  // The time by which h's holder knew of its writes: when it was told, or
  // just before its last write when a fault of its own came between that
  // write and the telling.
  double confirmedBy(const Hold& h) const {
    double lastWrite = -kForever;
    bool faulted = false;
    for (const Event& e : events_[h.p]) {
      if (e.t > h.told) break;
      if (e.what == "w" && e.path == h.file) {
        lastWrite = e.t;
        faulted = false;
      } else if (e.what == "fault" && lastWrite > -kForever) {
        faulted = true;
      }
    }
    return faulted ? lastWrite - 1e-6 : h.told;
  }

  // Whether another contender removed or wrote over h's file before h was
  // told of its loss.
  bool takenFrom(const Hold& h) const {
    for (int p = 0; p < s_.processes; ++p) {
      for (const Event& e : events_[p]) {
        if (p != h.p && (e.what == "rm" || e.what == "take") && e.path == h.file && e.t >= h.acq &&
            e.t <= h.told) {
          return true;
        }
      }
    }
    return false;
  }

  // Whether p gave up the file holding number by design, leaving it to go
  // stale: its lease on it ran out before p ended, or p was told of a loss
  // after it wrote the number.
  bool disowned(int p, int number) const {
    double written = kForever;
    for (const Event& e : events_[p]) {
      if (e.what == "w" && e.number == number) written = e.opened;
    }
    return written + kLease < events_[p].back().t ||
           std::any_of(events_[p].begin(), events_[p].end(), [written](const Event& e) {
             return (e.what == "told" || e.what == "lost") && e.t >= written;
           });
  }

  void check() {
    std::vector<Hold> holds;
    std::vector<double> late;
    for (int p = 0; p < s_.processes; ++p) {
      std::string readLock;
      bool holding = false;
      for (const Event& e : events_[p]) {
        if (e.what == "w" && e.path.find("/.deploy_read_lock.") != std::string::npos) {
          readLock = e.path;
        } else if (e.what == "acq") {
          const char kind = e.path[0];
          const std::string file = kind == 'X'   ? dir_ + "/.deploy_lock.0"
                                   : kind == 'W' ? dir_ + "/.deploy_write_lock"
                                                 : readLock;
          holds.push_back({p, kind, e.t, kForever, file, {}, kForever});
          holding = true;
        } else if (holding && e.what == "die") {
          holds.back().end = std::min(holds.back().end, e.t);  // a dead process holds nothing
          holding = false;
        } else if (holding && (e.what == "lost" || e.what == "told" || e.what == "rls")) {
          holds.back().end = std::min(holds.back().end, e.t);
          if (e.what != "rls") holds.back().told = std::min(holds.back().told, e.t);
          holding = e.what != "rls";
        } else if (holding && e.what == "chk") {
          holds.back().checks.push_back(e.t);
        } else if (e.what == "late") {
          late.push_back(e.t);
        } else if (e.what == "fault") {
          ++out_.faults[e.path == "s" ? "hang" : e.path == "f" ? "failure" : "pause"];
        } else if (e.what == "take" || e.what == "rm") {
          auto owner = owner_.find(e.number);
          out_.takeovers += owner != owner_.end() && owner->second != p;
        }
      }
    }
    for (Hold& h : holds) h.end = std::min(h.end, killedAt_[h.p]);
    std::sort(holds.begin(), holds.end(),
              [](const Hold& a, const Hold& b) { return a.acq < b.acq; });
    for (size_t i = 0; i < holds.size(); ++i) {
      const Hold& a = holds[i];
      for (size_t j = i + 1; j < holds.size() && holds[j].acq < a.end; ++j) {
        const Hold& b = holds[j];
        const double lease = leaseEnd(a, b.acq);
        if (a.p == b.p || (a.kind == 'R' && b.kind == 'R') || lease <= b.acq) continue;
        const double made = madeAt(a);
        if (std::any_of(late.begin(), late.end(),
                        [&](double t) { return t >= made && t <= b.acq; })) {
          ++out_.knownWindowHits;
          continue;
        }
        out_.violations.push_back(
            format("overlap: p%d (%c) held from %.2f s, its lease ran to %.2f s; p%d (%c) acquired "
                   "at %.2f s",
                   a.p, a.kind, a.acq, lease, b.p, b.kind, b.acq));
      }
      for (double t : a.checks) {
        if (t <= leaseEnd(a, t, true) + kNoticeTolerance) continue;
        out_.violations.push_back(format(
            "late notice: p%d (%c) read lost() as false at %.2f s, its lease ended at %.2f s", a.p,
            a.kind, t, leaseEnd(a, t, true)));
        break;
      }
    }
    // Calm: a loss told while the lease ran, of a file nobody took. The lease
    // is the one the holder could know of: a fault of its own after its last
    // write (a pause in the calls that confirm it) leaves it with the one
    // before.
    for (const Hold& h : holds) {
      const double lease = leaseEnd(h, confirmedBy(h), true);
      if (!options.calm || h.told >= lease - kNoticeTolerance || takenFrom(h)) continue;
      out_.violations.push_back(
          format("false loss: p%d (%c) was told at %.2f s, its lease ran to %.2f s, its file was "
                 "not taken",
                 h.p, h.kind, h.told, lease));
    }
    const bool anyKilled = std::find(killed_.begin(), killed_.end(), true) != killed_.end();
    if (DIR* d = opendir(dir_.c_str())) {
      while (dirent* entry = readdir(d)) {
        const std::string name = entry->d_name;
        if (name.compare(0, 8, ".deploy_") != 0) continue;
        std::ifstream in(dir_ + "/" + name);
        int number = -1;
        in >> number;
        auto owner = owner_.find(number);
        if (owner == owner_.end() ? anyKilled
                                  : killed_[owner->second] || disowned(owner->second, number)) {
          continue;
        }
        out_.violations.push_back(
            format("left: %s, written by %s", name.c_str(),
                   owner == owner_.end() ? "nobody known" : format("p%d", owner->second).c_str()));
      }
      closedir(d);
    }
  }

  const Schedule& s_;
  const std::string root_;
  const std::string dir_;
  long long epoch_ = 0;
  std::vector<pid_t> pids_;
  std::vector<bool> killed_;
  std::vector<double> killedAt_;  // host time of a SIGKILL sent
  std::vector<std::vector<Event>> events_;
  std::map<int, int> owner_;  // number -> the contender that wrote it
  Outcome out_;
};

// ---- Many schedules ----

struct Totals {
  std::mutex mutex;
  long schedules = 0;
  long knownWindowHits = 0;
  std::vector<unsigned long long> withoutTakeover;
  std::map<std::string, long> faults;
  std::vector<unsigned long long> failed;
};

// Runs one schedule in a fresh folder under root, adds it to the totals,
// and prints it when it failed (unless quiet). Its logs stay when it failed.
Outcome runOne(unsigned long long seed, const std::string& root, Totals& totals, bool quiet) {
  const Schedule schedule(seed, options.calm);
  std::string folder;
  Outcome out;
  // A run that saw no takeover (a loaded machine stretched its timing past
  // the schedule's end) tested less than its schedule: it runs again, up
  // to twice.
  for (int run = 0; run < 3; ++run) {
    if (!folder.empty()) removeTree(folder);
    folder = format("%s/s%llu-%lld", root.c_str(), seed, monotonicNs());
    out = Run(schedule, folder).go();
    if (out.takeovers > 0 || !out.violations.empty()) break;
  }
  std::lock_guard<std::mutex> lock(totals.mutex);
  ++totals.schedules;
  totals.knownWindowHits += out.knownWindowHits;
  if (out.takeovers == 0) totals.withoutTakeover.push_back(seed);
  for (const auto& f : out.faults) totals.faults[f.first] += f.second;
  if (out.violations.empty()) {
    if (!options.keep) removeTree(folder);
    return out;
  }
  totals.failed.push_back(seed);
  if (!quiet) {
    printf("VIOLATION %s", schedule.words().c_str());
    for (const std::string& v : out.violations) printf("  => %s\n", v.c_str());
    printf("  logs: %s\n", folder.c_str());
    fflush(stdout);
  }
  return out;
}

bool parse(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--calm" || arg == "--keep") {
      (arg == "--calm" ? options.calm : options.keep) = true;
      continue;
    }
    if (++i == argc) return false;
    const char* value = argv[i];
    if (arg == "--schedules") {
      options.schedules = atol(value);
    } else if (arg == "--minutes") {
      options.minutes = atof(value);
    } else if (arg == "--first" || arg == "--seed") {
      options.first = strtoull(value, nullptr, 10);
      options.single = arg == "--seed";
    } else if (arg == "--jobs") {
      options.jobs = std::max(1, atoi(value));
    } else if (arg == "--repeat") {
      options.repeat = std::max(1, atoi(value));
    } else if (arg == "--scale") {
      options.scale = atof(value);
    } else {
      return false;
    }
  }
  return options.scale > 0;
}

// Replays one seed `repeat` times: its schedule, then each run's verdict.
int replay(const std::string& root) {
  Totals totals;
  printf("%s", Schedule(options.first, options.calm).words().c_str());
  for (int r = 1; r <= options.repeat; ++r) {
    const Outcome out = runOne(options.first, root, totals, true);
    printf("run %d: %s\n", r, out.violations.empty() ? "no violation" : "violated");
    for (const std::string& v : out.violations) printf("  => %s\n", v.c_str());
  }
  printf("violations in %zu of %ld runs\n", totals.failed.size(), totals.schedules);
  return totals.failed.empty() ? 0 : 1;
}

int explore(const std::string& root) {
  Totals totals;
  const long long started = monotonicNs();
  const long long stopAt = started + static_cast<long long>(options.minutes * 60e9);
  const unsigned long long last = options.minutes > 0 ? ~0ULL : options.first + options.schedules;
  std::atomic<unsigned long long> next{options.first};
  std::vector<std::thread> workers;
  for (int j = 0; j < options.jobs; ++j) {
    workers.emplace_back([&] {
      for (unsigned long long seed; (seed = next++) < last;) {
        if (options.minutes > 0 && monotonicNs() >= stopAt) return;
        runOne(seed, root, totals, false);
      }
    });
  }
  for (std::thread& w : workers) w.join();
  const double seconds = static_cast<double>(monotonicNs() - started) / 1e9;
  printf("explorer: %ld schedules in %.1f s at scale %g: %.0f schedules per minute\n",
         totals.schedules, seconds, options.scale, totals.schedules * 60 / seconds);
  printf("explorer: faults injected:");
  for (const auto& f : totals.faults) printf(" %s %ld,", f.first.c_str(), f.second);
  printf(" known-window hits %ld, schedules without a takeover %zu", totals.knownWindowHits,
         totals.withoutTakeover.size());
  std::sort(totals.withoutTakeover.begin(), totals.withoutTakeover.end());
  for (size_t i = 0; i < totals.withoutTakeover.size() && i < 20; ++i) {
    printf("%s%llu", i == 0 ? " (seeds " : " ", totals.withoutTakeover[i]);
  }
  printf("%s\n", totals.withoutTakeover.empty() ? "" : ")");
  std::sort(totals.failed.begin(), totals.failed.end());
  printf("explorer: failing seeds:%s", totals.failed.empty() ? " none" : "");
  for (unsigned long long seed : totals.failed) printf(" %llu", seed);
  const long failed = static_cast<long>(totals.failed.size());
  printf("\n%ld passed, %ld failed\n", totals.schedules - failed, failed);
  return failed > 0 ? 1 : 0;
}

}  // namespace
}  // namespace explorer

int main(int argc, char** argv) {
  using explorer::options;
  if (argc > 1 && strcmp(argv[1], "--contend") == 0) return contenderMain(argc, argv);
  if (!explorer::parse(argc, argv)) {
    fprintf(stderr,
            "usage: explorer [--schedules N | --minutes M] [--first S] [--jobs J]\n"
            "                [--seed S [--repeat R]] [--scale X] [--calm] [--keep]\n");
    return 64;
  }
  const char* tmp = getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe): before any thread
  std::string root = std::string(tmp != nullptr ? tmp : "/tmp") + "/korvel-explorer.XXXXXX";
  if (mkdtemp(&root[0]) == nullptr) return 2;
  const int status = options.single ? explorer::replay(root) : explorer::explore(root);
  if (status == 0 && !options.keep) explorer::removeTree(root);
  return status;
}
