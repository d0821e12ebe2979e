#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "korvel/threads.h"
#include "tests/threads/host_hooks.h"

namespace {

TEST(Thread, JoinableThreadHandsBackItsResult) {
  koThread idle;
  EXPECT_EQ(idle.status(), 0);
  idle.start(false);
  EXPECT_EQ(idle.join(), nullptr);

  int marker = 0;
  koThread worker([&marker]() -> void* { return &marker; });
  worker.start(false);
  EXPECT_EQ(worker.status(), 0);
  EXPECT_EQ(worker.join(), &marker);
  EXPECT_EQ(worker.status(), 0);
}

TEST(Thread, DetachedThreadRunsAndCannotBeJoined) {
  std::atomic<bool> ran{false};
  auto* thread = new koThread([&ran]() -> void* {
    ran = true;
    return nullptr;
  });
  thread->start(true);
  try {
    thread->join();
    ADD_FAILURE() << "join of a detached thread must throw";
  } catch (const koThread::InvalidStateError& e) {
    EXPECT_STREQ(e.what(), "The thread is in an invalid state: Attempted join to detached thread");
  }
  for (int i = 0; i < 1000 && !ran; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_TRUE(ran);
  delete thread;  // the body has returned; the object is no longer used
}

TEST(Thread, ErrorTexts) {
  EXPECT_STREQ(koThread::StartError().what(), "An error occurred in koThread::start()");
  koThread::InvalidStateError original("detail");
  koThread::InvalidStateError copy(original);
  EXPECT_STREQ(copy.what(), "The thread is in an invalid state: detail");
  EXPECT_NE(copy.what(), original.what()) << "each error owns its message";
  EXPECT_STREQ(koSynchronizedLoopBreak().what(), "Loop broken");
}

TEST(Thread, BasicFactoryMakesFreshThreads) {
  koBasicThreadFactory factory;
  int marker = 0;
  koThread* thread = factory.createThread([&marker]() -> void* { return &marker; });
  thread->start(false);
  EXPECT_EQ(thread->join(), &marker);
  factory.recycle(thread);
  factory.recycle(nullptr);
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

}  // namespace
