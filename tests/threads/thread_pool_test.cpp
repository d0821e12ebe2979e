#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "korvel/threads.h"
#include "tests/threads/host_hooks.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

void* nothing() {
  return nullptr;
}

// Takes a thread, runs body on it, waits for it and hands it back.
koThread* roundTrip(koThreadFactory& factory, const boost::function0<void*>& body = &nothing) {
  koThread* thread = factory.createThread(body);
  thread->start(false);
  thread->join();
  factory.recycle(thread);
  return thread;
}

bool eventually(const std::function<bool()>& condition) {
  const auto end = steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (steady_clock::now() > end) return false;
    std::this_thread::sleep_for(milliseconds(2));
  }
  return true;
}

TEST(PooledThreadFactory, ReusesTheLastRecycledThread) {
  koPooledThreadFactory pool(0, 16);
  const int created = hooks::joinableCreated;
  std::atomic<int> runs{0};
  koThread* first = roundTrip(pool, [&runs]() -> void* {
    ++runs;
    return nullptr;
  });
  EXPECT_EQ(hooks::joinableCreated - created, 1);
  koThread* second = roundTrip(pool, [&runs]() -> void* {
    ++runs;
    return nullptr;
  });
  EXPECT_EQ(second, first);
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(hooks::joinableCreated - created, 1) << "no new system thread for the reuse";

  // Two at once, recycled a then b: b is on top and comes back first.
  koThread* a = pool.createThread(&nothing);
  koThread* b = pool.createThread(&nothing);
  EXPECT_NE(a, b);
  for (koThread* t : {a, b}) t->start(false);
  for (koThread* t : {a, b}) t->join();
  pool.recycle(a);
  pool.recycle(b);
  koThread* again = pool.createThread(&nothing);
  EXPECT_EQ(again, b);
  again->start(false);
  again->join();
  pool.recycle(again);
}

TEST(PooledThreadFactory, SurplusThreadIsDestroyedDuringRecycle) {
  koPooledThreadFactory pool(0, 1);
  koThread* a = pool.createThread(&nothing);
  koThread* b = pool.createThread(&nothing);
  for (koThread* t : {a, b}) t->start(false);
  for (koThread* t : {a, b}) t->join();
  const int joinedBefore = hooks::joined;
  pool.recycle(a);
  EXPECT_EQ(hooks::joined, joinedBefore) << "the first fits on the idle stack";
  pool.recycle(b);
  EXPECT_EQ(hooks::joined, joinedBefore + 1) << "the second is ended and joined in recycle";
  EXPECT_EQ(roundTrip(pool), a);
}

TEST(PooledThreadFactory, UnboundedPoolKeepsEveryThread) {
  koPooledThreadFactory pool(0, static_cast<unsigned long>(-1));
  std::vector<koThread*> threads;
  for (int i = 0; i < 20; ++i) threads.push_back(pool.createThread(&nothing));
  for (koThread* t : threads) t->start(false);
  for (koThread* t : threads) t->join();
  const int joinedBefore = hooks::joined;
  for (koThread* t : threads) pool.recycle(t);
  EXPECT_EQ(hooks::joined, joinedBefore);
}

TEST(PooledThreadFactory, InitialThreadsAreMadeAheadAndTheLastComesFirst) {
  hooks::clearCreatedArguments();
  const int created = hooks::joinableCreated;
  koPooledThreadFactory pool(3, 16);
  EXPECT_EQ(hooks::joinableCreated - created, 3);
  std::vector<void*> made = hooks::createdArguments();
  ASSERT_EQ(made.size(), 3u);
  koThread* first = pool.createThread(&nothing);
  EXPECT_EQ(static_cast<void*>(first), made[2]);
  first->start(false);
  first->join();
  pool.recycle(first);
  EXPECT_EQ(hooks::joinableCreated - created, 3);
}

TEST(PooledThreadFactory, ThrowingBodyLeavesTheThreadReusable) {
  koPooledThreadFactory pool(0, 16);
  koThread* thread = roundTrip(pool, []() -> void* { throw std::runtime_error("body failed"); });
  std::atomic<bool> ran{false};
  EXPECT_EQ(roundTrip(pool,
                      [&ran]() -> void* {
                        ran = true;
                        return nullptr;
                      }),
            thread);
  EXPECT_TRUE(ran);
}

TEST(PooledThreadFactory, JoinWaitsForAStartThatComesLater) {
  koPooledThreadFactory pool(0, 16);
  std::atomic<bool> ran{false};
  koThread* thread = pool.createThread([&ran]() -> void* {
    ran = true;
    return nullptr;
  });
  std::atomic<bool> joined{false};
  std::thread joiner([&] {
    thread->join();
    joined = true;
  });
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_FALSE(joined) << "join returned before the thread was started";
  thread->start(false);
  joiner.join();
  EXPECT_TRUE(ran);
  pool.recycle(thread);
}

TEST(PooledThreadFactory, DetachedStartIsRefused) {
  koPooledThreadFactory pool(0, 16);
  koThread* thread = pool.createThread(&nothing);
  EXPECT_THROW(thread->start(true), koThread::StartError);
  thread->start(false);
  thread->join();
  pool.recycle(thread);
}

TEST(PooledThreadFactory, FailedPoolRefusesEveryRequest) {
  hooks::failDetached = true;
  koPooledThreadFactory pool(2, 16);
  hooks::failDetached = false;
  for (int attempt = 0; attempt < 2; ++attempt) {
    try {
      if (attempt == 0) {
        pool.createThread(&nothing);
      } else {
        pool.recycle(nullptr);
      }
      ADD_FAILURE() << "a failed pool must throw";
    } catch (const koThread::InvalidStateError& e) {
      EXPECT_STREQ(e.what(), "The thread is in an invalid state: Thread pool failed to initialize");
    }
  }
}

TEST(PooledThreadFactory, DestructionNeverWaitsAndEndsEveryThread) {
  const int joinedBefore = hooks::joined;
  std::atomic<bool> release{false};
  {
    auto* pool = new koPooledThreadFactory(4, 16);
    // A long body still running when the factory goes: only the clean-up
    // thread waits for it.
    koThread* busy = pool->createThread([&release]() -> void* {
      while (!release) std::this_thread::sleep_for(milliseconds(1));
      return nullptr;
    });
    busy->start(false);
    const auto before = steady_clock::now();
    delete pool;
    EXPECT_LT(steady_clock::now() - before, std::chrono::seconds(2));
  }
  std::this_thread::sleep_for(milliseconds(50));
  release = true;
  EXPECT_TRUE(eventually([&] { return hooks::joined - joinedBefore == 4; }))
      << "joined " << hooks::joined - joinedBefore << " of 4 pooled threads";
}

}  // namespace
