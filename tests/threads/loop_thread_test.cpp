#include <gtest/gtest.h>

#include <atomic>
#include <boost/thread/mutex.hpp>
#include <chrono>
#include <thread>
#include <vector>

#include "korvel/threads.h"
#include "tests/threads/host_hooks.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Zentha::System::TimeUnit;
typedef koSynchronizedLoopThread<boost::timed_mutex> LoopThread;
typedef boost::timed_mutex::scoped_lock Lock;

// A basic factory that counts what it hands out and takes back.
struct CountingFactory : koBasicThreadFactory {
  koThread* createThread(const boost::function0<void*>& body) override {
    ++created;
    return koBasicThreadFactory::createThread(body);
  }
  void recycle(koThread* thread) override {
    ++recycled;
    koBasicThreadFactory::recycle(thread);
  }
  std::atomic<int> created{0};
  std::atomic<int> recycled{0};
};

// Frees the loop's mutex for a while so the worker can iterate.
void letLoopRun(Lock& lock, milliseconds time) {
  lock.unlock();
  std::this_thread::sleep_for(time);
  lock.lock();
}

// All fields are guarded by the loop's mutex.
struct Probe {
  int iterations = 0;
  std::vector<bool> results;
};

TEST(LoopThread, StartsAndStopsAreCounted) {
  boost::timed_mutex mutex;
  CountingFactory factory;
  Probe probe;
  LoopThread loop(
      mutex,
      [&probe](koSynchronizedLoopContext& ctx) {
        ++probe.iterations;
        ctx.waitFor(5000, TimeUnit::sMilliseconds());
      },
      &factory);
  Lock lock(mutex);
  loop.stop(lock);  // idle: nothing happens
  EXPECT_EQ(factory.created, 0);

  loop.start(lock);
  // start returns only after the first iteration began and let the mutex go.
  EXPECT_GE(probe.iterations, 1);
  loop.start(lock);
  EXPECT_EQ(factory.created, 1);
  loop.stop(lock);
  EXPECT_EQ(factory.recycled, 0) << "one start is still unmatched";
  const auto before = steady_clock::now();
  loop.stop(lock);
  EXPECT_LT(steady_clock::now() - before, std::chrono::seconds(4))
      << "the stop must wake the 5 s wait";
  EXPECT_EQ(factory.recycled, 1);
  loop.stop(lock);
  EXPECT_EQ(factory.recycled, 1);

  // It can run again after a full stop.
  loop.start(lock);
  EXPECT_EQ(factory.created, 2);
  loop.stop(lock);
  EXPECT_EQ(factory.recycled, 2);
}

TEST(LoopThread, ShortWaitsReturnAtOnceAndReportAPendingStop) {
  boost::timed_mutex mutex;
  koPooledThreadFactory pool(0, 16);
  Probe probe;
  LoopThread loop(
      mutex,
      [&probe](koSynchronizedLoopContext& ctx) {
        // A 1 ms wait is cut to whole seconds: it returns at once, true only
        // once a stop is pending.
        for (;;) {
          bool woken = ctx.waitFor(1, TimeUnit::sMilliseconds());
          probe.results.push_back(woken);
          if (woken) return;
        }
      },
      &pool);
  Lock lock(mutex);
  loop.start(lock);
  letLoopRun(lock, milliseconds(300));
  loop.stop(lock);
  ASSERT_GE(probe.results.size(), 10u) << "1 ms waits must not block for a second";
  EXPECT_TRUE(probe.results.back());
  for (size_t i = 0; i + 1 < probe.results.size(); ++i) ASSERT_FALSE(probe.results[i]) << i;
}

TEST(LoopThread, LongWaitTimesOutOrIsWoken) {
  boost::timed_mutex mutex;
  koPooledThreadFactory pool(0, 16);
  Probe probe;
  LoopThread loop(
      mutex,
      [&probe](koSynchronizedLoopContext& ctx) {
        const auto before = steady_clock::now();
        bool woken = ctx.waitFor(2, TimeUnit::sSeconds());
        probe.results.push_back(woken);
        // A timed-out wait lasted about its time; record it as an iteration.
        if (!woken && steady_clock::now() - before >= milliseconds(900)) ++probe.iterations;
      },
      &pool);
  Lock lock(mutex);
  loop.start(lock);
  letLoopRun(lock, milliseconds(2500));
  loop.stop(lock);
  EXPECT_GE(probe.iterations, 1) << "the first wait should have run to its deadline";
  ASSERT_FALSE(probe.results.empty());
  EXPECT_TRUE(probe.results.back());
}

TEST(LoopThread, BrokenLoopStopsWithoutWaiting) {
  boost::timed_mutex mutex;
  CountingFactory factory;
  Probe probe;
  LoopThread loop(
      mutex,
      [&probe](koSynchronizedLoopContext& ctx) {
        ++probe.iterations;
        ctx.breakLoop();
      },
      &factory);
  Lock lock(mutex);
  loop.start(lock);
  letLoopRun(lock, milliseconds(100));
  EXPECT_EQ(probe.iterations, 1) << "breakLoop ends the loop";
  loop.stop(lock);
  EXPECT_EQ(factory.recycled, 1);
}

TEST(LoopThread, WaitForWakeUpEndsOnStop) {
  boost::timed_mutex mutex;
  koPooledThreadFactory pool(0, 16);
  Probe probe;
  LoopThread loop(
      mutex,
      [&probe](koSynchronizedLoopContext& ctx) { probe.results.push_back(ctx.waitForWakeUp()); },
      &pool);
  Lock lock(mutex);
  loop.start(lock);
  loop.stop(lock);
  ASSERT_EQ(probe.results.size(), 1u);
  EXPECT_TRUE(probe.results[0]);
}

TEST(LoopThread, DestructorStopsARunningLoop) {
  boost::timed_mutex mutex;
  CountingFactory factory;
  {
    LoopThread loop(
        mutex, [](koSynchronizedLoopContext& ctx) { ctx.waitFor(10, TimeUnit::sSeconds()); },
        &factory);
    Lock lock(mutex);
    loop.start(lock);
    loop.start(lock);
  }
  EXPECT_EQ(factory.recycled, 1);
}

TEST(LoopThread, FailedPoolGivesStartError) {
  hooks::failDetached = true;
  koPooledThreadFactory pool(0, 16);
  hooks::failDetached = false;
  boost::timed_mutex mutex;
  LoopThread loop(
      mutex, [](koSynchronizedLoopContext&) {}, &pool);
  Lock lock(mutex);
  EXPECT_THROW(loop.start(lock), koThread::StartError);
}

}  // namespace
