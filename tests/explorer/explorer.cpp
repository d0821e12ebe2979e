// The fault explorer of the directory locks: runs schedules of contenders
// (tests/explorer/contender.cpp) that take one directory's lock while a
// seed injects faults, then checks what they recorded against the lock's
// promise.
//
//   explorer CONTENDER [--schedules N | --minutes M] [--first S] [--jobs J]
//            [--seed S [--repeat R]] [--scale X] [--keep] [--calm]
//
// A schedule is made from its seed alone: the lock (exclusive or
// read-write), 3 or 4 contenders, 32 s of host time, whether file times
// are stamped by the server's clock or by each client's, the faults. One
// contender is always killed early in its first hold, so every schedule
// has a dead holder's file to take over. Host time runs `scale` times
// faster than real time (see schedule.h), so a schedule takes about
// 32 / scale seconds.
//
// The oracle, per schedule:
//   - overlap: two holds that exclude each other overlap, and the earlier
//     holder's lease (14 s from the start of its last write that reached
//     its file) had not ended when the later one acquired;
//   - late notice: a holder whose lease had ended by more than a second
//     still read lost() as false;
//   - left: a lock file is left at the end that neither a killed contender
//     wrote nor one whose lease on it had run out before it ended;
//   - hang: a contender had not ended 10 s of host time after the schedule.
// An overlap is counted as a known-window hit instead when some contender
// acted on a lock file late after reading back its own number (the window
// between a read-back and its act, see fs_lock.cpp) during the earlier
// hold, before the later acquisition.
#include <dirent.h>
#include <fcntl.h>
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
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <map>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/explorer/schedule.h"

extern char** environ;

namespace explorer {
namespace {

constexpr double kLease = 14.0;
constexpr double kNoticeTolerance = 0.5;
constexpr double kForever = std::numeric_limits<double>::infinity();
constexpr int kErrors[] = {EIO, ENOSPC, ESTALE, EINTR};

struct Options {
  std::string contender;
  unsigned long long first = 1;
  long schedules = 100;
  double minutes = 0;
  int jobs = 2;
  bool single = false;
  int repeat = 1;
  double scale = 200;
  bool keep = false;
  bool calm = false;
};
Options options;

// ---- Schedules ----

struct Signal {
  double at;
  int who;
  int signal;  // SIGSTOP (SIGCONT follows after `length`) or SIGKILL
  double length;
};

struct Schedule {
  unsigned long long seed = 0;
  bool rw = false;
  int processes = 3;
  double end = 40.0;
  bool clientStamps = false;
  double dieAfter = 1.0;  // contender 0's first hold ends in SIGKILL
  std::vector<Step> server;
  std::vector<std::vector<Step>> clock;
  std::vector<std::vector<Fault>> faults;
  std::vector<Signal> signals;

  explicit Schedule(unsigned long long s) : seed(s) {
    std::mt19937_64 random(s);
    auto uniform = [&random](double low, double high) {
      return std::uniform_real_distribution<double>(low, high)(random);
    };
    auto chance = [&uniform](double p) { return uniform(0, 1) < p; };
    auto pick = [&random](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    rw = chance(0.5);
    processes = 3 + pick(2);
    clientStamps = chance(0.2);
    dieAfter = uniform(0.5, 4.0);
    if (chance(0.3))
      server.push_back({uniform(2, end - 6), (chance(0.5) ? 1 : -1) * uniform(1, 40)});
    clock.resize(processes);
    faults.resize(processes);
    for (int p = 0; p < processes; ++p) {
      if (clientStamps && chance(0.5))
        clock[p].push_back({0, (chance(0.5) ? 1 : -1) * uniform(1, 200)});
      if (chance(0.15))
        clock[p].push_back({uniform(2, end - 6), (chance(0.5) ? 1 : -1) * uniform(1, 200)});
      for (int n = pick(4); n > 0; --n) {
        Fault f;
        const double kind = uniform(0, 1);
        f.kind = kind < 0.45 ? 's' : kind < 0.75 ? 'f' : 'p';
        f.call = chance(0.3) ? kStat : pick(kCalls);  // the stale test's own call
        // Half of them for one kind of file of this lock.
        static const int kExclusiveTargets[] = {kLevel0, kQueueLevel, kTempFile};
        static const int kReadWriteTargets[] = {kWriteLock, kReadLock, kLevel0, kTempFile};
        if (f.call != kList && chance(0.5)) {
          f.target = rw ? kReadWriteTargets[pick(4)] : kExclusiveTargets[pick(3)];
        }
        f.afterCall = chance(0.5);
        // Half of them around 16 s, when contender 0's file, written in its
        // first second, first looks stale: where the takeovers are.
        f.at = chance(0.5) ? uniform(15.5, 17) : uniform(0, end - 2);
        f.skip = pick(4);
        f.seconds = f.kind == 's' ? uniform(16, 21) : uniform(0.2, 20);
        f.error = kErrors[pick(4)];
        faults[p].push_back(f);
      }
    }
    if (chance(0.3)) {
      const double at = uniform(1, 20);
      signals.push_back(
          {at, 1 + pick(processes - 1), SIGSTOP, uniform(1, std::min(20.0, end - 1 - at))});
    }
    if (chance(0.15)) signals.push_back({uniform(1, end - 2), 1 + pick(processes - 1), SIGKILL, 0});
    // The calm profile keeps only what the lock survives by design: file
    // times from the server's steady clock, steps of the clients' wall
    // clocks, pauses of a thread shorter than the lease, and contenders
    // killed.
    if (options.calm) {
      clientStamps = false;
      server.clear();
      for (int p = 0; p < processes; ++p) {
        clock[p].erase(std::remove_if(clock[p].begin(), clock[p].end(),
                                      [](const Step& s) { return s.at == 0; }),
                       clock[p].end());
        faults[p].erase(
            std::remove_if(faults[p].begin(), faults[p].end(),
                           [](const Fault& f) { return f.kind != 'p' || f.seconds > 10; }),
            faults[p].end());
      }
      signals.erase(std::remove_if(signals.begin(), signals.end(),
                                   [](const Signal& s) { return s.signal != SIGKILL; }),
                    signals.end());
    }
  }

  std::string words() const {
    std::ostringstream out;
    char line[256];
    snprintf(line, sizeof line,
             "seed %llu: %s lock, %d contenders for %.0f s, file times from %s\n", seed,
             rw ? "read-write" : "exclusive", processes, end,
             clientStamps ? "each client's wall clock" : "the server's clock");
    out << line;
    snprintf(line, sizeof line, "  p0 takes the lock%s first and is killed %.1f s into that hold\n",
             rw ? " for writing" : "", dieAfter);
    out << line;
    for (const Step& s : server) {
      snprintf(line, sizeof line, "  the server's clock steps %+.1f s at %.1f s\n", s.delta, s.at);
      out << line;
    }
    for (int p = 0; p < processes; ++p) {
      for (const Step& s : clock[p]) {
        snprintf(line, sizeof line, "  p%d's wall clock steps %+.1f s at %.1f s\n", p, s.delta,
                 s.at);
        out << line;
      }
      for (const Fault& f : faults[p]) out << "  p" << p << ": " << f.words() << "\n";
    }
    for (const Signal& s : signals) {
      if (s.signal == SIGSTOP) {
        snprintf(line, sizeof line, "  p%d is stopped (SIGSTOP) at %.1f s for %.1f s\n", s.who,
                 s.at, s.length);
      } else {
        snprintf(line, sizeof line, "  p%d is killed (SIGKILL) at %.1f s\n", s.who, s.at);
      }
      out << line;
    }
    return out.str();
  }
};

// ---- Files ----

std::vector<std::string> namesIn(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) names.push_back(e->d_name);
    closedir(d);
  }
  return names;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void removeTree(const std::string& path) {
  nftw(
      path.c_str(), [](const char* p, const struct stat*, int, FTW*) { return remove(p); }, 16,
      FTW_DEPTH | FTW_PHYS);
}

// ---- Running one schedule ----

long long monotonicNs() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec * 1000000000LL + t.tv_nsec;
}

void sleepUntilNs(long long at) {
  timespec t = {static_cast<time_t>(at / 1000000000LL), static_cast<long>(at % 1000000000LL)};
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &t, nullptr) == EINTR) {
  }
}

struct Event {
  std::string what;
  double t;
  std::string rest;
};

struct Outcome {
  std::vector<std::string> violations;
  int knownWindowHits = 0;
  int takeovers = 0;
  std::map<std::string, int> faults;  // injected, by kind
};

struct Hold {
  int p;
  char kind;
  double acq;
  double end = kForever;
  std::string file;
  std::vector<double> checks;
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
    epoch_ = monotonicNs() + 25000000;  // the contenders wait for it: 25 ms to start
    for (int p = 0; p < s_.processes; ++p) {
      std::vector<std::string> args = {options.contender, dir_,
                                       root_ + "/p" + std::to_string(p) + ".log"};
      auto add = [&args](const std::string& key, const std::string& value) {
        args.push_back(key + "=" + value);
      };
      char number[64];
      add("id", std::to_string(p));
      add("rw", s_.rw ? "1" : "0");
      snprintf(number, sizeof number, "%g", options.scale);
      add("scale", number);
      add("epoch", std::to_string(epoch_));
      add("end", std::to_string(s_.end));
      add("seed", std::to_string(s_.seed));
      add("client", s_.clientStamps ? "1" : "0");
      add("die", p == 0 ? std::to_string(s_.dieAfter) : "-1");
      for (const Step& step : s_.server)
        add("server", std::to_string(step.at) + ":" + std::to_string(step.delta));
      for (const Step& step : s_.clock[p])
        add("clock", std::to_string(step.at) + ":" + std::to_string(step.delta));
      for (const Fault& f : s_.faults[p]) add("fault", f.encode());
      std::vector<char*> argv;
      for (std::string& a : args) argv.push_back(&a[0]);
      argv.push_back(nullptr);
      pid_t pid = -1;
      if (posix_spawn(&pid, options.contender.c_str(), nullptr, nullptr, argv.data(), environ) != 0)
        pid = -1;
      pids_.push_back(pid);
      killed_.push_back(false);
    }
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
      sleepUntilNs(realAt(act.at));
      if (pids_[act.who] > 0) kill(pids_[act.who], act.signal);
      if (act.signal == SIGSTOP) ++out_.faults["stop"];
      if (act.signal == SIGKILL) ++out_.faults["kill"];
    }
  }

  void wait() {
    // Time enough for a loaded machine, where host time runs on while a
    // contender waits for a core.
    const long long giveUp = realAt(s_.end + 10) + 2000000000LL;
    for (size_t left = pids_.size(); left > 0;) {
      left = 0;
      for (size_t p = 0; p < pids_.size(); ++p) {
        if (pids_[p] <= 0) continue;
        int status = 0;
        if (waitpid(pids_[p], &status, WNOHANG) == pids_[p]) {
          killed_[p] = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
          pids_[p] = 0;
        } else if (monotonicNs() > giveUp) {
          out_.violations.push_back("hang: p" + std::to_string(p) +
                                    " had not ended 10 s after the schedule");
          kill(pids_[p], SIGKILL);
          waitpid(pids_[p], &status, 0);
          killed_[p] = true;
          pids_[p] = 0;
        } else {
          ++left;
        }
      }
      if (left > 0) usleep(1000);
    }
  }

  void read() {
    events_.resize(s_.processes);
    for (int p = 0; p < s_.processes; ++p) {
      std::ifstream in(root_ + "/p" + std::to_string(p) + ".log");
      for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        Event e;
        fields >> e.what >> e.t;
        std::getline(fields, e.rest);
        if (!e.rest.empty() && e.rest[0] == ' ') e.rest.erase(0, 1);
        events_[p].push_back(e);
        if (e.what == "w") {
          double opened;
          char path[4096];
          int number;
          if (sscanf(e.rest.c_str(), "%lf %4095s %d", &opened, path, &number) == 3) {
            owner_[number] = p;
            writes_[{p, path}].push_back(opened);
          }
        }
      }
    }
    for (const Step& step : s_.server) out_.faults["server clock step"] += step.at < s_.end;
    for (const std::vector<Step>& steps : s_.clock) {
      for (const Step& step : steps) out_.faults["client clock step"] += step.at < s_.end;
    }
  }

  // When p's lease on file ends, as it stood at t.
  double leaseEnd(const Hold& h, double t) const {
    auto found = writes_.find({h.p, h.file});
    double last = -kForever;
    if (found != writes_.end()) {
      for (double opened : found->second) {
        if (opened <= t) last = std::max(last, opened);
      }
    }
    return (last > -kForever ? last : h.acq) + kLease;
  }

  // Whether p's lease on the file holding number had run out before p
  // ended: the lock then leaves the file to go stale, by design.
  bool outlived(int p, int number) const {
    double written = -kForever;
    for (const Event& e : events_[p]) {
      double opened;
      int n;
      if (e.what == "w" && sscanf(e.rest.c_str(), "%lf %*s %d", &opened, &n) == 2 && n == number) {
        written = opened;
      }
    }
    return !events_[p].empty() && written + kLease < events_[p].back().t;
  }

  void check() {
    std::vector<Hold> holds;
    std::vector<double> late;
    for (int p = 0; p < s_.processes; ++p) {
      Hold* open = nullptr;  // the last hold, while not released
      std::string lastReadLock;
      for (const Event& e : events_[p]) {
        if (e.what == "w" && e.rest.find("/.deploy_read_lock.") != std::string::npos) {
          char path[4096];
          if (sscanf(e.rest.c_str(), "%*f %4095s", path) == 1) lastReadLock = path;
        } else if (e.what == "acq") {
          holds.emplace_back();
          Hold& h = holds.back();
          h.p = p;
          h.kind = e.rest[0];
          h.acq = e.t;
          h.file = h.kind == 'X'   ? dir_ + "/.deploy_lock.0"
                   : h.kind == 'W' ? dir_ + "/.deploy_write_lock"
                                   : lastReadLock;
          open = &h;
        } else if (open != nullptr && (e.what == "lost" || e.what == "told" || e.what == "rls")) {
          open->end = std::min(open->end, e.t);
          if (e.what == "rls") open = nullptr;
        } else if (open != nullptr && e.what == "chk") {
          open->checks.push_back(e.t);
        } else if (e.what == "late") {
          late.push_back(e.t);
        } else if (e.what == "fault") {
          ++out_.faults[e.rest[0] == 's' ? "hang" : e.rest[0] == 'f' ? "failure" : "pause"];
        } else if (e.what == "take") {
          ++out_.takeovers;
        } else if (e.what == "rm") {
          int number = -1;
          sscanf(e.rest.c_str(), "%*s %d", &number);
          auto found = owner_.find(number);
          out_.takeovers += found != owner_.end() && found->second != p;
        }
      }
    }
    char line[512];
    std::sort(holds.begin(), holds.end(),
              [](const Hold& a, const Hold& b) { return a.acq < b.acq; });
    for (size_t i = 0; i < holds.size(); ++i) {
      const Hold& a = holds[i];
      for (size_t j = i + 1; j < holds.size() && holds[j].acq < a.end; ++j) {
        const Hold& b = holds[j];
        if (a.p == b.p || (a.kind == 'R' && b.kind == 'R')) continue;
        const double lease = leaseEnd(a, b.acq);
        if (lease <= b.acq) continue;
        const bool known = std::any_of(late.begin(), late.end(),
                                       [&](double t) { return t >= a.acq && t <= b.acq; });
        if (known) {
          ++out_.knownWindowHits;
          continue;
        }
        snprintf(line, sizeof line,
                 "overlap: p%d (%c) held from %.2f s, its lease ran to %.2f s; p%d (%c) acquired "
                 "at %.2f s",
                 a.p, a.kind, a.acq, lease, b.p, b.kind, b.acq);
        out_.violations.push_back(line);
      }
      for (double t : a.checks) {
        const double lease = leaseEnd(a, t);
        if (t <= lease + kNoticeTolerance) continue;
        snprintf(line, sizeof line,
                 "late notice: p%d (%c) read lost() as false at %.2f s, its lease ended at %.2f s",
                 a.p, a.kind, t, lease);
        out_.violations.push_back(line);
        break;
      }
    }
    const bool anyKilled = std::find(killed_.begin(), killed_.end(), true) != killed_.end();
    for (const std::string& name : namesIn(dir_)) {
      if (name.compare(0, 8, ".deploy_") != 0) continue;
      const int number = atoi(readFile(dir_ + "/" + name).c_str());
      auto found = owner_.find(number);
      if (found == owner_.end() ? anyKilled
                                : killed_[found->second] || outlived(found->second, number)) {
        continue;
      }
      snprintf(
          line, sizeof line, "left: %s, written by %s", name.c_str(),
          found == owner_.end() ? "nobody known" : ("p" + std::to_string(found->second)).c_str());
      out_.violations.push_back(line);
    }
  }

  const Schedule& s_;
  const std::string root_;
  const std::string dir_;
  long long epoch_ = 0;
  std::vector<pid_t> pids_;
  std::vector<bool> killed_;
  std::vector<std::vector<Event>> events_;
  std::map<int, int> owner_;  // number -> the contender that wrote it
  std::map<std::pair<int, std::string>, std::vector<double>> writes_;  // opened-at times
  Outcome out_;
};

// ---- The runs ----

std::mutex reportMutex;

struct Totals {
  long schedules = 0;
  long failed = 0;
  long knownWindowHits = 0;
  long withoutTakeover = 0;
  std::map<std::string, long> faults;
  std::vector<unsigned long long> failedSeeds;
};

// Runs one schedule in a fresh folder under root; prints it when it fails.
Outcome runOne(unsigned long long seed, const std::string& root, Totals& totals, bool quiet) {
  const Schedule schedule(seed);
  const std::string folder =
      root + "/s" + std::to_string(seed) + "-" + std::to_string(monotonicNs());
  const Outcome out = Run(schedule, folder).go();
  std::lock_guard<std::mutex> lock(reportMutex);
  ++totals.schedules;
  totals.knownWindowHits += out.knownWindowHits;
  totals.withoutTakeover += out.takeovers == 0;
  for (const auto& f : out.faults) totals.faults[f.first] += f.second;
  if (!out.violations.empty()) {
    ++totals.failed;
    totals.failedSeeds.push_back(seed);
    if (!quiet) {
      printf("VIOLATION %s", schedule.words().c_str());
      for (const std::string& v : out.violations) printf("  => %s\n", v.c_str());
      printf("  logs: %s\n", folder.c_str());
      fflush(stdout);
    }
  }
  if (out.violations.empty() && !options.keep) removeTree(folder);
  return out;
}

int usage() {
  fprintf(stderr,
          "usage: explorer CONTENDER [--schedules N | --minutes M] [--first S] [--jobs J]\n"
          "                [--seed S [--repeat R]] [--scale X] [--keep] [--calm]\n");
  return 64;
}

}  // namespace
}  // namespace explorer

int main(int argc, char** argv) {
  using namespace explorer;
  if (argc < 2) return usage();
  options.contender = argv[1];
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    if (value == nullptr && arg != "--keep" && arg != "--calm") return usage();
    if (arg == "--schedules")
      options.schedules = atol(value);
    else if (arg == "--minutes")
      options.minutes = atof(value);
    else if (arg == "--first")
      options.first = strtoull(value, nullptr, 10);
    else if (arg == "--jobs")
      options.jobs = std::max(1, atoi(value));
    else if (arg == "--seed")
      options.first = strtoull(value, nullptr, 10), options.single = true;
    else if (arg == "--repeat")
      options.repeat = std::max(1, atoi(value));
    else if (arg == "--scale")
      options.scale = atof(value);
    else if (arg == "--calm")
      options.calm = true, --i;
    else if (arg == "--keep")
      options.keep = true, --i;
    else
      return usage();
    ++i;
  }
  const char* tmp = getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe): before any thread
  std::string root = std::string(tmp != nullptr ? tmp : "/tmp") + "/korvel-explorer.XXXXXX";
  if (mkdtemp(&root[0]) == nullptr) return 2;
  Totals totals;
  const long long started = monotonicNs();
  if (options.single) {
    printf("%s", Schedule(options.first).words().c_str());
    for (int r = 0; r < options.repeat; ++r) {
      const Outcome out = runOne(options.first, root, totals, true);
      printf("run %d: %s\n", r + 1,
             out.violations.empty() ? "no violation" : out.violations[0].c_str());
      for (size_t v = 1; v < out.violations.size(); ++v)
        printf("       %s\n", out.violations[v].c_str());
    }
    printf("violations in %ld of %ld runs\n", totals.failed, totals.schedules);
    if (totals.failed == 0 && !options.keep) removeTree(root);
    return totals.failed > 0 ? 1 : 0;
  }
  std::atomic<unsigned long long> next{options.first};
  const unsigned long long last = options.minutes > 0 ? ~0ULL : options.first + options.schedules;
  const long long stopAt =
      options.minutes > 0 ? started + static_cast<long long>(options.minutes * 60e9) : 0;
  std::vector<std::thread> workers;
  for (int j = 0; j < options.jobs; ++j) {
    workers.emplace_back([&] {
      for (;;) {
        if (stopAt != 0 && monotonicNs() >= stopAt) return;
        const unsigned long long seed = next++;
        if (seed >= last) return;
        runOne(seed, root, totals, false);
      }
    });
  }
  for (std::thread& w : workers) w.join();
  const double minutes = static_cast<double>(monotonicNs() - started) / 60e9;
  printf("explorer: %ld schedules in %.1f s at scale %g: %.0f schedules per minute\n",
         totals.schedules, minutes * 60, options.scale, totals.schedules / minutes);
  printf("explorer: faults injected:");
  for (const auto& f : totals.faults) printf(" %s %ld,", f.first.c_str(), f.second);
  printf(" known-window hits %ld, schedules without a takeover %ld\n", totals.knownWindowHits,
         totals.withoutTakeover);
  std::sort(totals.failedSeeds.begin(), totals.failedSeeds.end());
  printf("explorer: failing seeds:");
  for (unsigned long long seed : totals.failedSeeds) printf(" %llu", seed);
  printf("%s\n", totals.failedSeeds.empty() ? " none" : "");
  if (totals.failed == 0 && !options.keep) removeTree(root);
  printf("%ld passed, %ld failed\n", totals.schedules - totals.failed, totals.failed);
  return totals.failed > 0 ? 1 : 0;
}
