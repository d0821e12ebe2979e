// Holdings, their leases and the telling of losses (see holding.h).
#include "fs_lock/holding.h"

#include <fcntl.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <set>
#include <thread>

#include "host/host.h"

namespace korvel_detail {

LockHolding::~LockHolding() = default;

void LockHolding::hold(const std::string& file, const FileState& written, double start) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    file_ = file;
    written_ = written;
    owner_ = hostProcessId();
    held_ = true;
    lost_ = false;
    leaseEnd_ = start + korvel_protocol::kLeaseSeconds;
  }
  watchLease(shared_from_this());
  std::lock_guard<std::mutex> io(io_);
  registration_.reset(new Registration(written));
}

void LockHolding::drop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    held_ = false;
    leaseEnd_ = 0.0;
  }
  registration_.reset();  // REQUIRES: io_ held, as by releaseHolding
}

bool LockHolding::held() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return held_ && owner_ == hostProcessId();
}

bool LockHolding::heldElsewhere() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return held_ && owner_ != hostProcessId();
}

std::string LockHolding::file() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return file_;
}

FileState LockHolding::written() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return written_;
}

bool LockHolding::mayWrite() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (lost_ || !held_ || owner_ != hostProcessId()) return false;
    if (hostMonotonic() < leaseEnd_) return true;
  }
  lose("not refreshed for 14 s");
  return false;
}

void LockHolding::wrote(const FileState& written, double start) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (lost_ || !held_) return;
    written_ = written;
    leaseEnd_ = start + korvel_protocol::kLeaseSeconds;
  }
  if (registration_) registration_->update(written);  // REQUIRES: io_ held
}

bool LockHolding::confirm() {
  if (!mayWrite()) return false;
  const OpenLockFile file(this->file(), O_RDONLY);
  if (file.look() == Look::kError) return true;  // cannot tell: the lease still stands
  if (file.look() == Look::kFile && file.state().sameAs(written())) return true;
  lose("the file was taken over");
  return false;
}

void LockHolding::lose(const char* why) {
  std::string file;
  bool notify = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (lost_ || !held_) return;
    lost_ = true;
    leaseEnd_ = 0.0;
    file = file_;
    notify = !closed_ && handler_ != nullptr;
  }
  warningLog << "FS_LOCK: lost the lock " << file << ": " << why << std::endl;
  if (notify) notifyLoss(shared_from_this());
}

bool LockHolding::lost() const {
  // A lease that ran out is a loss the moment it is asked about, whether or
  // not the lease timer has looked yet (a process just resumed).
  const_cast<LockHolding*>(this)->checkLease(hostMonotonic());
  std::lock_guard<std::mutex> lock(mutex_);
  return lost_;
}

void LockHolding::setHandler(std::unique_ptr<LostHandler> handler) {
  std::shared_ptr<LostHandler> replaced(std::move(handler));
  std::lock_guard<std::mutex> lock(mutex_);
  handler_.swap(replaced);
}

void LockHolding::close() {
  std::unique_lock<std::mutex> lock(mutex_);
  closed_ = true;
  // A handler queued but not begun will not run. One running now is waited
  // for, unless it runs on this very thread: a handler may destroy its own
  // lock or any other, and all handlers run on the one notifier thread.
  const std::thread::id self = std::this_thread::get_id();
  handlerDone_.wait(lock, [this, self] { return !handlerRunning_ || handlerThread_ == self; });
}

void LockHolding::runHandler() {
  std::shared_ptr<LostHandler> handler;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!closed_) {
      handler = handler_;
      handlerRunning_ = true;
      handlerThread_ = std::this_thread::get_id();
    }
  }
  if (handler) {
    try {
      (*handler)();
    } catch (...) {
      // A handler's failure is its own; the lock stays lost either way.
    }
  }
  std::lock_guard<std::mutex> lock(mutex_);
  handlerRunning_ = false;
  handlerDone_.notify_all();
}

double LockHolding::leaseEnd() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return held_ && !lost_ ? leaseEnd_ : 0.0;
}

double LockHolding::checkLease(double now) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!held_ || lost_ || leaseEnd_ == 0.0) return 0.0;
    if (now < leaseEnd_) return leaseEnd_;
  }
  lose("not refreshed for 14 s");
  return 0.0;
}

}  // namespace korvel_detail

namespace {

// Starts a detached thread for the life of the process. Without one, the
// refreshes still notice a lapsed lease, only later; so a failure is
// reported and tried again at the next use.
bool startThread(std::function<void()> body, const char* what) {
  try {
    std::thread(std::move(body)).detach();
    return true;
  } catch (const std::system_error& e) {
    warningLog << "FS_LOCK: cannot start the " << what << " thread: " << e.what() << std::endl;
    return false;
  }
}

// One thread for the process that ends leases on time. It waits on its own
// condition only and never touches the file system, so a hung mount cannot
// hold it up. Made on first use and never destroyed: it may still be
// waiting when the process exits.
class LeaseTimer {
 public:
  static LeaseTimer& instance() {
    static LeaseTimer* timer = new LeaseTimer;  // NOLINT: lives until exit, see above
    return *timer;
  }

  void watch(const std::shared_ptr<LockHolding>& holding) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!started_) started_ = startThread([this] { run(); }, "lease timer");
    // A holding taken again and again is listed once.
    const bool listed = !watched_.empty() && !watched_.back().owner_before(holding) &&
                        !holding.owner_before(watched_.back());
    if (!listed) watched_.push_back(holding);
    // A busy timer checks again within a second, long before this lease
    // can end: waking it would only cost each acquisition two futex calls.
    if (idle_) wake_.notify_one();
  }

 private:
  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      // Check every holding without the timer's mutex: a check may call a
      // loss handler.
      std::vector<std::weak_ptr<LockHolding>> watched;
      watched.swap(watched_);
      lock.unlock();
      const double now = hostMonotonic();
      double next = 0.0;
      std::vector<std::weak_ptr<LockHolding>> still;
      const auto keep = [&](const std::weak_ptr<LockHolding>& holding, double end) {
        still.push_back(holding);
        if (next == 0.0 || end < next) next = end;
      };
      std::vector<std::pair<double, std::shared_ptr<LockHolding>>> ended;
      std::set<const LockHolding*> seen;  // a holding held again is listed again
      for (const std::weak_ptr<LockHolding>& weak : watched) {
        const std::shared_ptr<LockHolding> holding = weak.lock();
        if (!holding || !seen.insert(holding.get()).second) continue;
        const double end = holding->leaseEnd();
        if (end == 0.0) continue;
        if (now >= end) {
          ended.emplace_back(end, holding);
        } else {
          keep(weak, end);
        }
      }
      // Losses are told in the order the leases ended, whatever order the
      // list is in: a holding listed during a pass goes ahead of those put
      // back. A lease renewed since it was read stays armed.
      std::stable_sort(ended.begin(), ended.end(),
                       [](const auto& x, const auto& y) { return x.first < y.first; });
      for (const auto& lapsed : ended) {
        const double end = lapsed.second->checkLease(now);
        if (end != 0.0) keep(lapsed.second, end);
      }
      lock.lock();
      watched_.insert(watched_.end(), still.begin(), still.end());
      if (next == 0.0) {
        idle_ = true;
        wake_.wait(lock, [this] { return !watched_.empty(); });
        idle_ = false;
      } else {
        // A renewed lease moves its end later, which the next check finds.
        // At least once a second: the wait runs
        // on a clock that stops while the system sleeps, the lease on one
        // that does not.
        const double wait = std::min(1.0, std::max(0.0, next - hostMonotonic()));
        wake_.wait_for(lock, std::chrono::duration<double>(hostRealSeconds(wait + 0.001)));
      }
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  bool started_ = false;
  bool idle_ = false;  // waiting with nothing to watch; guarded by mutex_
  std::vector<std::weak_ptr<LockHolding>> watched_;
};

// Runs loss handlers, one at a time, on a thread of their own: never on a
// thread that holds a lock's mutex (a handler may release its lock), and
// never on the lease timer (a slow handler must not delay other leases).
// Made on first use and never destroyed, like the timer.
class LossNotifier {
 public:
  static LossNotifier& instance() {
    static LossNotifier* notifier = new LossNotifier;  // NOLINT: lives until exit
    return *notifier;
  }

  void post(std::shared_ptr<LockHolding> holding) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!started_) started_ = startThread([this] { run(); }, "loss notifier");
    pending_.push_back(std::move(holding));
    wake_.notify_one();
  }

 private:
  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      wake_.wait(lock, [this] { return !pending_.empty(); });
      std::shared_ptr<LockHolding> holding = std::move(pending_.front());
      pending_.pop_front();
      lock.unlock();
      holding->runHandler();
      holding.reset();
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  bool started_ = false;
  std::deque<std::shared_ptr<LockHolding>> pending_;
};

}  // namespace

void notifyLoss(const std::shared_ptr<LockHolding>& holding) {
  LossNotifier::instance().post(holding);
}

void watchLease(const std::shared_ptr<LockHolding>& holding) {
  LeaseTimer::instance().watch(holding);
}

bool refreshHolding(LockHolding& holding, LockNumbers& numbers) {
  std::lock_guard<std::mutex> io(holding.io());
  if (!holding.held()) return true;
  double start = 0.0;
  FileState written;
  const Act act =
      Judgement(holding.file(), holding.written())
          .writeOver(numbers.next(), Entitled([&holding] { return holding.mayWrite(); }), &written,
                     &start);
  switch (act) {
    case Act::kDone:
      holding.wrote(written, start);
      return true;
    case Act::kChanged:
      holding.lose("the file was taken over");
      return true;
    case Act::kNotEntitled:  // the loss is recorded
      return true;
    case Act::kError:
      break;
  }
  return false;
}

Released releaseHolding(LockHolding& holding, const std::string& directory,
                        const Deadline& deadline) {
  std::lock_guard<std::mutex> io(holding.io());
  const Judgement ours(holding.file(), holding.written());
  const Entitled entitled([&holding] { return holding.mayWrite(); });
  unsigned backOff = 1;
  Act act;
  // Retrying a refusal only delays the warning.
  while ((act = ours.remove(entitled)) == Act::kError && !isRefusal(errno) && !deadline.passed()) {
    const int error = errno;
    sleepWithin(backOff, deadline);
    backOff = std::min(2 * backOff, kMaxBackOffMs);
    errno = error;
  }
  const int error = errno;
  // A lost lock's file is somebody else's now, or soon will be.
  if (act == Act::kChanged && !directoryGone(directory)) holding.lose("the file was taken over");
  holding.drop();
  errno = error;
  switch (act) {
    case Act::kDone:
      return Released::kRemoved;
    case Act::kError:
      return Released::kError;
    case Act::kChanged:
    case Act::kNotEntitled:
      break;
  }
  return Released::kLost;
}

double LockHolding::refreshDue() const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!held_ || lost_ || leaseEnd_ == 0.0) return 0.0;
  return leaseEnd_ - korvel_protocol::kLeaseSeconds + korvel_protocol::kRefreshPeriodMs / 1000.0;
}

double untilRefresh(const Holdings& holdings) {
  const double period = korvel_protocol::kRefreshPeriodMs / 1000.0;
  const double now = hostMonotonic();
  double wait = period;
  for (const std::shared_ptr<LockHolding>& holding : holdings) {
    const double due = holding->refreshDue();
    if (due != 0.0) wait = std::min(wait, due - now);
  }
  return std::max(wait, korvel_protocol::kPollMs / 1000.0);
}

Holdings refreshOnce(const Holdings& holdings, LockNumbers& numbers) {
  Holdings failed;
  for (const std::shared_ptr<LockHolding>& holding : holdings) {
    if (!refreshHolding(*holding, numbers)) failed.push_back(holding);
  }
  return failed;
}

void retryRefresh(Holdings failed, LockNumbers& numbers, koSynchronizedLoopContext& context) {
  const Deadline giveUp = Deadline::afterSeconds(2.5);
  unsigned backOff = 10;
  while (!failed.empty()) {
    if (giveUp.passed()) {
      warningLog << "Failed to refresh lock!" << std::endl;
      return;
    }
    if (LoopWait::waitFor(context, backOff / 1000.0)) return;  // stopping
    backOff = std::min(2 * backOff, 500u);
    failed = refreshOnce(failed, numbers);
  }
}
