// Threads: the thread object, the basic and pooled factories, the clean-up
// guard and the loop thread. The host's thread services below are real
// POSIX threads, counted, and the creation of detached threads can be made
// to fail. The clock's reads are counted (a spinning hand-off reads it), and
// the cgroup's CPU quota can be served from a file of the test's.
#include "korvel/threads.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <boost/thread/mutex.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "host/host.h"
#include "tests/support/process.h"

namespace hooks {

std::atomic<int> joinableCreated{0};
std::atomic<int> joined{0};
std::atomic<bool> failDetached{false};
std::atomic<void*> lastCreated{nullptr};
std::atomic<int> clockReads{0};
std::string cpuMaxFile;  // stands for /sys/fs/cgroup/cpu.max when not empty

}  // namespace hooks

extern "C" double hostMonotonic() {
  ++hooks::clockReads;
  return hostDefaultMonotonic();
}

extern "C" int hostOpen(const char* path, int flags, unsigned mode) {
  if (!hooks::cpuMaxFile.empty() && strcmp(path, "/sys/fs/cgroup/cpu.max") == 0) {
    path = hooks::cpuMaxFile.c_str();
  }
  return hostDefaultOpen(path, flags, mode);
}

extern "C" int host_create_thread(korvel_host_thread_t* handle, korvel_thread_entry entry,
                                  void* argument) {
  hooks::lastCreated = argument;
  ++hooks::joinableCreated;
  pthread_t thread;
  const int rc = pthread_create(&thread, nullptr, entry, argument);
  if (rc == 0) *handle = static_cast<korvel_host_thread_t>(thread);
  return rc;
}

extern "C" void* host_join_thread(korvel_host_thread_t handle) {
  void* result = nullptr;
  pthread_join(static_cast<pthread_t>(handle), &result);
  ++hooks::joined;
  return result;
}

// A destroyed pool ends and joins its threads on a detached clean-up thread,
// after its test has moved on: each test waits for the detached threads it
// started, so that their joins do not count in the next test.
namespace {

std::atomic<int> detachedRunning{0};

struct DetachedStart {
  korvel_thread_entry entry;
  void* argument;
};

void* runDetached(void* start) {
  const DetachedStart what = *static_cast<DetachedStart*>(start);
  delete static_cast<DetachedStart*>(start);
  void* result = what.entry(what.argument);
  --detachedRunning;
  return result;
}

struct WaitForDetachedThreads : testing::EmptyTestEventListener {
  void OnTestEnd(const testing::TestInfo&) override {
    korvel_test::eventually([] { return detachedRunning == 0; });
  }
};

const bool listening =
    (testing::UnitTest::GetInstance()->listeners().Append(new WaitForDetachedThreads), true);

}  // namespace

extern "C" int host_create_detached_thread(korvel_thread_entry entry, void* argument) {
  // A host whose thread service reports failure by the library's own error.
  if (hooks::failDetached) throw koThread::StartError();
  ++detachedRunning;
  auto* start = new DetachedStart{entry, argument};
  pthread_t thread;
  const int rc = pthread_create(&thread, nullptr, runDetached, start);
  if (rc == 0) {
    pthread_detach(thread);
  } else {
    delete start;
    --detachedRunning;
  }
  return rc;
}

namespace {

using korvel_test::secondsSince;
using std::chrono::milliseconds;
using Zentha::System::TimeUnit;
typedef koSynchronizedLoopThread<boost::timed_mutex> LoopThread;
typedef boost::timed_mutex::scoped_lock Lock;

TEST(Thread, JoinableThreadHandsBackItsResultAndDetachedOneCannotBeJoined) {
  int marker = 0;
  koBasicThreadFactory factory;
  koThread* worker = factory.createThread([&marker]() -> void* { return &marker; });
  worker->start(false);
  EXPECT_EQ(worker->join(), &marker);
  factory.recycle(worker);
  koThread idle;
  idle.start(false);
  EXPECT_EQ(idle.join(), nullptr) << "the default body";

  std::atomic<bool> ran{false};
  auto* detached = new koThread([&ran]() -> void* { return ran = true, nullptr; });
  detached->start(true);
  try {
    detached->join();
    ADD_FAILURE() << "join of a detached thread must throw";
  } catch (const koThread::InvalidStateError& e) {
    const koThread::InvalidStateError copy(e);
    EXPECT_STREQ(copy.what(),
                 "The thread is in an invalid state: Attempted join to detached thread");
    EXPECT_NE(copy.what(), e.what()) << "each error owns its message";
  }
  EXPECT_TRUE(korvel_test::eventually([&] { return ran.load(); }));
  delete detached;  // the body has returned; the object is no longer used
  EXPECT_STREQ(koThread::StartError().what(), "An error occurred in koThread::start()");
}

TEST(CleanupFunctionGuard, RunsOnceUnlessDisarmed) {
  int runs = 0;
  {
    koCleanupFunctionGuard guard([&runs] { ++runs; });
  }
  EXPECT_EQ(runs, 1);
  {
    koCleanupFunctionGuard guard([&runs] { ++runs; });
    guard.disarm();
    guard.disarm();
  }
  EXPECT_EQ(runs, 1);
}

void startAndJoin(const std::vector<koThread*>& threads) {
  for (koThread* t : threads) t->start(false);
  for (koThread* t : threads) t->join();
}

// Takes a thread, runs body on it, waits for it and hands it back.
koThread* roundTrip(koThreadFactory& factory, const boost::function0<void*>& body = &do_nothing) {
  koThread* thread = factory.createThread(body);
  startAndJoin({thread});
  factory.recycle(thread);
  return thread;
}

TEST(PooledThreadFactory, ReusesTheLastRecycledThreadFirst) {
  const int created = hooks::joinableCreated;
  koPooledThreadFactory pool(3, 16);
  koThread* first = roundTrip(pool);
  EXPECT_EQ(first, hooks::lastCreated) << "three made ahead; the last made comes first";
  std::atomic<int> runs{0};
  EXPECT_EQ(
      roundTrip(pool, [&runs]() -> void* { throw std::runtime_error(std::to_string(++runs)); }),
      first);
  EXPECT_EQ(roundTrip(pool, [&runs]() -> void* { return ++runs, nullptr; }), first)
      << "a failing body does not end the pooled thread";
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(hooks::joinableCreated - created, 3) << "no new system thread for a reuse";
  const auto bound = std::make_shared<int>(0);
  roundTrip(pool, [bound]() -> void* { return nullptr; });
  EXPECT_EQ(bound.use_count(), 1) << "a recycled thread lets go of its body";

  // Taken together, recycled a then b: b is on top and comes back first. A
  // join before the start waits for the run.
  koThread* a = pool.createThread(&do_nothing);
  koThread* b = pool.createThread(&do_nothing);
  EXPECT_THROW(a->start(true), koThread::StartError) << "pooled threads are joinable";
  std::atomic<bool> joined{false};
  std::thread joiner([&] {
    a->join();
    joined = true;
  });
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_FALSE(joined) << "join returned before the thread was started";
  startAndJoin({a, b});
  joiner.join();
  pool.recycle(a);
  pool.recycle(b);
  EXPECT_EQ(roundTrip(pool), b);
}

TEST(PooledThreadFactory, SurplusThreadsEndDuringRecycleUnlessTheLimitIsOff) {
  for (const unsigned long limit : {0ul, 1ul, static_cast<unsigned long>(-1)}) {
    const int joinedAtStart = hooks::joined;
    const int kept = limit > 5 ? 5 : static_cast<int>(limit);
    {
      koPooledThreadFactory pool(0, limit);
      std::vector<koThread*> threads;
      for (int i = 0; i < 5; ++i) threads.push_back(pool.createThread(&do_nothing));
      startAndJoin(threads);
      const int joinedBefore = hooks::joined;
      for (koThread* t : threads) pool.recycle(t);
      EXPECT_EQ(hooks::joined - joinedBefore, 5 - kept) << "limit " << limit;
      koThread* next = roundTrip(pool);
      if (kept > 0) {
        EXPECT_EQ(next, kept == 1 ? threads[0] : threads[4]);
      }
    }
    // The pool's clean-up thread joins the rest later; the next round must
    // not count those. With no idle thread kept, the round trip's went too.
    ASSERT_TRUE(korvel_test::eventually(
        [&] { return hooks::joined - joinedAtStart == (kept == 0 ? 6 : 5); }));
  }
}

TEST(PooledThreadFactory, CleanUpThreadStartsWithTheFirstThreadTakenAndItsFailureIsFinal) {
  const int joinedBefore = hooks::joined;
  {
    koPooledThreadFactory unused(2, 16);
    EXPECT_EQ(detachedRunning, 0) << "no clean-up thread before a thread is taken";
  }
  EXPECT_EQ(hooks::joined - joinedBefore, 2) << "an unused factory ends its idle threads itself";

  koPooledThreadFactory pool(2, 16);
  hooks::failDetached = true;
  try {
    pool.createThread(&do_nothing);
    ADD_FAILURE() << "a pool without its clean-up thread must throw";
  } catch (const koThread::InvalidStateError& e) {
    EXPECT_STREQ(e.what(), "The thread is in an invalid state: Thread pool failed to initialize");
  }
  hooks::failDetached = false;
  EXPECT_THROW(pool.createThread(&do_nothing), koThread::InvalidStateError) << "for good";
  EXPECT_THROW(pool.recycle(nullptr), koThread::InvalidStateError);
}

// A hand-off spins only when the process may run on more than one processor
// at once, by its affinity mask and its cgroup's CPU quota. The process
// bound to one is this test binary again (a thread started after a fork is
// beyond the thread sanitizer), told so by KORVEL_TEST_ONE_PROCESSOR.
TEST(PooledThreadFactory, NeverSpinsOnOneUsableProcessor) {
  if (getenv("KORVEL_TEST_ONE_PROCESSOR") != nullptr) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu(), &one);
    ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
    koPooledThreadFactory pool(1, 16);
    int spinning = 0;
    for (int i = 0; i < 200; ++i) {
      const int reads = hooks::clockReads;
      roundTrip(pool);
      if (hooks::clockReads != reads) ++spinning;
    }
    EXPECT_EQ(spinning, 0) << "round trips that spun (a spin reads the clock)";
    return;
  }
  cpu_set_t mask;
  ASSERT_EQ(sched_getaffinity(0, sizeof mask, &mask), 0);
  const int cpus = CPU_COUNT(&mask);
  const struct {
    const char* cpuMax;
    int usable;
  } cases[] = {{"max 100000\n", cpus},
               {"150000 100000\n", 1},
               {"50000 100000\n", 1},
               {"250000 100000\n", std::min(cpus, 2)},
               {nullptr, cpus}};  // no such file
  hooks::cpuMaxFile = testing::TempDir() + "cpu.max";
  for (const auto& c : cases) {
    std::remove(hooks::cpuMaxFile.c_str());
    if (c.cpuMax != nullptr) std::ofstream(hooks::cpuMaxFile) << c.cpuMax;
    EXPECT_EQ(hostUsableProcessors(), c.usable) << (c.cpuMax ? c.cpuMax : "no cpu.max");
  }
  std::remove(hooks::cpuMaxFile.c_str());
  hooks::cpuMaxFile.clear();

  const pid_t child = korvel_test::spawn(
      "/proc/self/exe", {"--gtest_filter=PooledThreadFactory.NeverSpinsOnOneUsableProcessor"},
      {"KORVEL_TEST_ONE_PROCESSOR=1"});
  EXPECT_EQ(korvel_test::waitChild(child), 0) << "the test bound to one processor failed";
}

TEST(PooledThreadFactory, DestructionNeverWaitsAndEndsEveryThread) {
  const int joinedBefore = hooks::joined;
  std::atomic<bool> release{false};
  auto* pool = new koPooledThreadFactory(4, 16);
  // A long body still running when the factory goes: only the clean-up
  // thread waits for it.
  koThread* busy = pool->createThread([&release]() -> void* {
    while (!release) std::this_thread::sleep_for(milliseconds(1));
    return nullptr;
  });
  busy->start(false);
  const auto before = std::chrono::steady_clock::now();
  delete pool;
  EXPECT_LT(korvel_test::secondsSince(before), 2.0);
  std::this_thread::sleep_for(milliseconds(50));
  release = true;
  EXPECT_TRUE(korvel_test::eventually([&] { return hooks::joined - joinedBefore == 4; }))
      << "joined " << hooks::joined - joinedBefore << " of 4 pooled threads";
}

// Worker threads made and joined since start; a basic factory makes a
// system thread for each worker, and the loop joins it before recycling.
struct Counts {
  const int made0 = hooks::joinableCreated, joined0 = hooks::joined;
  int made() const { return hooks::joinableCreated - made0; }
  int joined() const { return hooks::joined - joined0; }
};

TEST(LoopThread, StartsAndStopsAreCountedAndAStopWakesTheWait) {
  boost::timed_mutex mutex;
  koBasicThreadFactory factory;
  const Counts counts;
  int iterations = 0;  // guarded by mutex
  {
    LoopThread loop(
        mutex,
        [&iterations](koSynchronizedLoopContext& ctx) {
          ++iterations;
          ctx.waitFor(5000, TimeUnit::sMilliseconds());
        },
        &factory);
    Lock lock(mutex);
    loop.stop(lock);  // idle: nothing happens
    loop.start(lock);
    EXPECT_GE(iterations, 1) << "start returns once the first iteration has begun";
    loop.start(lock);
    loop.stop(lock);
    EXPECT_EQ(counts.made(), 1);
    EXPECT_EQ(counts.joined(), 0) << "one start is still unmatched";
    const auto before = std::chrono::steady_clock::now();
    loop.stop(lock);
    EXPECT_LT(secondsSince(before), 4.0) << "the stop must wake the 5 s wait";
    EXPECT_EQ(counts.joined(), 1);
    loop.stop(lock);
    loop.start(lock);  // it runs again after a full stop,
    loop.start(lock);  // and the destructor stops it whatever the count
  }
  EXPECT_EQ(counts.made(), 2);
  EXPECT_EQ(counts.joined(), 2);
}

// waitFor counts whole seconds: a shorter wait only asks whether a stop is
// pending. With either factory.
TEST(LoopThread, WaitsCountWholeSecondsAndEndOnAStop) {
  struct Case {
    unsigned long amount;
    const TimeUnit& unit;
    double least, most;  // seconds the wait may take
  };
  const Case cases[] = {{1, TimeUnit::sMilliseconds(), 0, 0.2},
                        {999, TimeUnit::sMilliseconds(), 0, 0.2},
                        {1, TimeUnit::sSeconds(), 0.95, 1.8},
                        {1500, TimeUnit::sMilliseconds(), 0.95, 1.8}};
  koBasicThreadFactory basic;
  koPooledThreadFactory pooled(0, 16);
  for (koThreadFactory* factory :
       {static_cast<koThreadFactory*>(&basic), static_cast<koThreadFactory*>(&pooled)}) {
    SCOPED_TRACE(factory == &basic ? "basic factory" : "pooled factory");
    boost::timed_mutex mutex;
    std::vector<std::string> failures;  // guarded by mutex
    std::atomic<bool> waiting{false};
    bool last = false;  // guarded by mutex
    LoopThread loop(
        mutex,
        [&](koSynchronizedLoopContext& ctx) {
          for (const Case& c : cases) {
            const auto before = std::chrono::steady_clock::now();
            const bool woken = ctx.waitFor(c.amount, c.unit);
            const double took = secondsSince(before);
            if (woken || took < c.least || took > c.most) {
              failures.push_back(std::to_string(c.amount) +
                                 (&c.unit == &TimeUnit::sSeconds() ? " s" : " ms") + ": woken " +
                                 std::to_string(woken) + " after " + std::to_string(took) + " s");
            }
          }
          waiting = true;
          const auto before = std::chrono::steady_clock::now();
          last = ctx.waitFor(60, TimeUnit::sSeconds()) && secondsSince(before) < 5;
        },
        factory);
    Lock lock(mutex);
    loop.start(lock);
    lock.unlock();
    EXPECT_TRUE(korvel_test::eventually([&] { return waiting.load(); }, 10.0));
    lock.lock();
    const auto before = std::chrono::steady_clock::now();
    loop.stop(lock);
    EXPECT_LT(secondsSince(before), 2.0) << "the stop ends the 60 s wait at once";
    EXPECT_TRUE(last) << "a stop during the wait returns true";
    EXPECT_EQ(failures, std::vector<std::string>{});
  }
}

TEST(LoopThread, BrokenLoopEndsAndAFailedPoolGivesStartError) {
  boost::timed_mutex mutex;
  koPooledThreadFactory failed(0, 16);
  koBasicThreadFactory factory;
  std::atomic<int> iterations{0};
  auto once = [&iterations](koSynchronizedLoopContext& ctx) {
    ++iterations;
    ctx.breakLoop();
  };
  LoopThread loop(mutex, once, &factory), unstartable(mutex, once, &failed);
  Lock lock(mutex);
  loop.start(lock);
  lock.unlock();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  lock.lock();
  EXPECT_EQ(iterations, 1) << "breakLoop ends the loop";
  loop.stop(lock);
  hooks::failDetached = true;  // the pool's clean-up thread cannot start
  EXPECT_THROW(unstartable.start(lock), koThread::StartError);
  hooks::failDetached = false;
}

}  // namespace
