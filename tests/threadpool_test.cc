// The worker pool: limit, order, refusals, shut-down and stranded tasks.
#include "threadpool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "alloc.h"
#include "thread.h"
#include "threads.h"

namespace {

using namespace std::chrono_literals;
using zeltest::eventually;

class ThreadPool : public ::testing::Test {
 protected:
  std::atomic<int> ran_{0};  // tasks of count_up run
  void TearDown() override {
    mem_fail_at(0);
    zel::thrd_set_create_hook(nullptr);
    thread_pool_cleanup();
  }
};

struct Latch {  // holds its worker until opened
  std::atomic<bool> open{false}, started{false}, finished{false}, push_when_done{false};
  std::atomic<int> late_push{0};  // what queueing from the task itself gave
};

void wait_for_latch(void* raw) {
  auto* latch = static_cast<Latch*>(raw);
  latch->started = true;
  while (!latch->open.load()) std::this_thread::sleep_for(1ms);
  if (latch->push_when_done) latch->late_push = thread_pool_push(wait_for_latch, latch);
  latch->finished = true;
}

std::string g_order;  // written by the only worker, read once it is held
void record_name(void* raw) { g_order += static_cast<const char*>(raw); }

void count_up(void* raw) { ++*static_cast<std::atomic<int>*>(raw); }

TEST_F(ThreadPool, LoweredLimitKeepsSlotsClosedUntilEnoughEnd) {
  ASSERT_EQ(thread_pool_init(3), 3);
  Latch latches[4];
  for (Latch& latch : latches) ASSERT_EQ(thread_pool_append(wait_for_latch, &latch), 0);
  ASSERT_TRUE(eventually([&] { return thread_pool_running() == 3; }));
  EXPECT_EQ(thread_pool_set_size(1), 1);
  for (int i = 0; i < 3; i++) latches[i].open = true;
  ASSERT_TRUE(eventually([&] { return thread_pool_running() == 1; }));
  EXPECT_EQ(thread_pool_free_slots(), 0) << "one worker runs under a limit of one";
  latches[3].open = true;
  ASSERT_TRUE(eventually([&] { return thread_pool_running() == 0; }));
  EXPECT_EQ(thread_pool_free_slots(), 1);
}

// Head tasks run before earlier tail tasks; cleanup waits for the running
// task, refuses what it queues, and drops the rest of the queue.
TEST_F(ThreadPool, HeadFirstAndCleanupWaitsForRunningWorkAndDropsTheQueue) {
  ASSERT_EQ(thread_pool_init(1), 1);
  Latch first, last;
  last.push_when_done = true;
  ASSERT_EQ(thread_pool_append(wait_for_latch, &first), 0);
  ASSERT_TRUE(eventually([&] { return first.started.load(); }));
  ASSERT_EQ(thread_pool_append(record_name, const_cast<char*>("t1 ")), 0);
  ASSERT_EQ(thread_pool_append(record_name, const_cast<char*>("t2 ")), 0);
  ASSERT_EQ(thread_pool_append(wait_for_latch, &last), 0);
  ASSERT_EQ(thread_pool_push(record_name, const_cast<char*>("h1 ")), 0);
  ASSERT_EQ(thread_pool_push(record_name, const_cast<char*>("h2 ")), 0);
  for (int i = 0; i < 3; i++) ASSERT_EQ(thread_pool_append(count_up, &ran_), 0);
  first.open = true;
  ASSERT_TRUE(eventually([&] { return last.started.load(); }));
  EXPECT_EQ(g_order, "h2 h1 t1 t2 ");
  std::thread opener([&] { std::this_thread::sleep_for(200ms), last.open = true; });
  thread_pool_cleanup();
  EXPECT_TRUE(last.finished.load()) << "cleanup returned while a worker still ran";
  EXPECT_EQ(last.late_push.load(), -1) << "work queued by a task during shut-down is refused";
  opener.join();
  EXPECT_EQ(ran_.load(), 0) << "queued tasks are dropped, never run";
}

void linger() { std::this_thread::sleep_for(20ms); }

// Each task is queued as the only worker leaves: one that gave its slot back only after
// finding the queue empty would strand it. The leave hook widens that window.
TEST_F(ThreadPool, NoTaskIsStrandedWhileTheLastWorkerLeaves) {
  ASSERT_EQ(thread_pool_init(1), 1);
  for (int i = 0; i < 2010; i++) {
    thread_pool_set_leave_hook(i < 10 ? linger : nullptr);
    ASSERT_EQ(thread_pool_append(count_up, &ran_), 0);
    auto limit = std::chrono::steady_clock::now() + 2s;
    while (ran_.load() != i + 1 && std::chrono::steady_clock::now() < limit) std::this_thread::yield();
    ASSERT_EQ(ran_.load(), i + 1) << "task " << i << " was stranded";
  }
}

TEST_F(ThreadPool, RefusalsAndStartFailures) {
  EXPECT_EQ(thread_pool_append(count_up, &ran_), -1);
  EXPECT_EQ(thread_pool_set_size(4), -1);
  ASSERT_EQ(thread_pool_init(2), 2);
  thread_pool_cleanup();
  ASSERT_EQ(thread_pool_init(2), 2);  // a new pool accepts work again (below)
  EXPECT_EQ(thread_pool_init(3), 3) << "init on a live pool only sets the limit";
  EXPECT_EQ(thread_pool_set_size(0), -1) << "a pool without workers would strand its queue";
  EXPECT_EQ(thread_pool_free_slots(), 3);
  mem_fail_at(1);
  EXPECT_EQ(thread_pool_append(count_up, &ran_), -1);
  zel::thrd_set_create_hook([] { return int(zel::thrd_nomem); });
  EXPECT_EQ(thread_pool_append(count_up, &ran_), 0) << "the task stays queued";
  zel::thrd_set_create_hook(nullptr);
  ASSERT_EQ(thread_pool_append(count_up, &ran_), 0);
  EXPECT_TRUE(eventually([&] { return ran_.load() == 2; })) << "the next worker runs both tasks";
}

}  // namespace
