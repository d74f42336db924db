// The worker pool: the worker limit under load, head-before-tail order,
// refusal once stopped, cleanup that waits for running work and drops the
// rest, and an idle pool that holds no thread.
#include "threadpool.h"

#include <gtest/gtest.h>

#include "threads.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "alloc.h"
#include "captured_log.h"
#include "thread.h"

using zeltest::CapturedLog;

namespace {

using namespace std::chrono_literals;

class ThreadPool : public ::testing::Test {
 protected:
  void TearDown() override {
    mem_fail_at(0);
    zel::thrd_set_create_hook(nullptr);
    thread_pool_set_leave_hook(nullptr);
    thread_pool_cleanup();
  }
};

using zeltest::eventually;

using zeltest::thread_count;

// A task that runs until the test opens its latch.
struct Latch {
  std::atomic<bool> open{false};
  std::atomic<bool> started{false};
  std::atomic<bool> finished{false};
  std::atomic<int> saw_stopping{0};
  bool push_when_done = false;
  std::atomic<int> late_push{0};  // what queueing from the task itself gave
};

void wait_for_latch(void* raw) {
  auto* latch = static_cast<Latch*>(raw);
  latch->started = true;
  while (!latch->open.load()) std::this_thread::sleep_for(1ms);
  latch->saw_stopping = thread_pool_stopping();
  if (latch->push_when_done) latch->late_push = thread_pool_push(wait_for_latch, latch);
  latch->finished = true;
}

struct Load {
  std::atomic<int> now{0};
  std::atomic<int> most{0};
  std::atomic<int> done{0};
};

void busy_task(void* raw) {
  auto* load = static_cast<Load*>(raw);
  int now = ++load->now;
  int seen = load->most.load();
  while (now > seen && !load->most.compare_exchange_weak(seen, now)) {
  }
  std::this_thread::sleep_for(20ms);
  --load->now;
  ++load->done;
}

std::mutex g_order_mutex;
std::vector<std::string> g_order;
struct Named {
  const char* name;
};
void record_name(void* raw) {
  std::lock_guard<std::mutex> guard(g_order_mutex);
  g_order.push_back(static_cast<Named*>(raw)->name);
}

void count_up(void* raw) { ++*static_cast<std::atomic<int>*>(raw); }

int refuse_nomem() { return zel::thrd_nomem; }

}  // namespace

// Workers start only for work, never beyond the limit, and leave when the
// queue is empty.
TEST_F(ThreadPool, LimitHoldsAndAnIdlePoolHoldsNoThread) {
  int baseline = thread_count();
  ASSERT_EQ(thread_pool_init(8), 8);
  EXPECT_EQ(thread_count(), baseline) << "workers start only for work";
  Load load;
  for (int i = 0; i < 20; i++)
    ASSERT_EQ(i % 2 ? thread_pool_append(busy_task, &load) : thread_pool_push(busy_task, &load), 0);
  EXPECT_LE(thread_pool_running(), 8);
  ASSERT_TRUE(eventually([&] { return load.done.load() == 20; }));
  EXPECT_LE(load.most.load(), 8);
  EXPECT_GT(load.most.load(), 1) << "tasks should run side by side";
  ASSERT_TRUE(eventually([&] { return thread_pool_running() == 0; }));
  EXPECT_EQ(thread_pool_free_slots(), 8);
  EXPECT_TRUE(eventually([&] { return thread_count() == baseline; }))
      << thread_count() << " threads, " << baseline << " before";
}

TEST_F(ThreadPool, HeadRunsBeforeEarlierTailTasks) {
  ASSERT_EQ(thread_pool_init(1), 1);
  Latch latch;
  ASSERT_EQ(thread_pool_append(wait_for_latch, &latch), 0);
  ASSERT_TRUE(eventually([&] { return latch.started.load(); }));
  g_order.clear();
  Named tail1{"tail1"}, tail2{"tail2"}, head1{"head1"}, head2{"head2"};
  ASSERT_EQ(thread_pool_append(record_name, &tail1), 0);
  ASSERT_EQ(thread_pool_append(record_name, &tail2), 0);
  ASSERT_EQ(thread_pool_push(record_name, &head1), 0);
  ASSERT_EQ(thread_pool_push(record_name, &head2), 0);
  latch.open = true;
  ASSERT_TRUE(eventually([&] {
    std::lock_guard<std::mutex> guard(g_order_mutex);
    return g_order.size() == 4;
  }));
  std::vector<std::string> expected = {"head2", "head1", "tail1", "tail2"};
  EXPECT_EQ(g_order, expected);
}

TEST_F(ThreadPool, RefusedWithoutPoolAndAfterCleanup) {
  CapturedLog log;
  std::atomic<int> ran{0};
  EXPECT_EQ(thread_pool_append(count_up, &ran), -1);
  EXPECT_EQ(thread_pool_push(count_up, &ran), -1);
  EXPECT_EQ(thread_pool_set_size(4), -1);
  EXPECT_EQ(log.count("Thread pool is not initialized"), 1);
  EXPECT_EQ(thread_pool_init(0), -1);
  EXPECT_EQ(thread_pool_running(), -1) << "a refused init creates nothing";

  ASSERT_EQ(thread_pool_init(2), 2);
  EXPECT_EQ(thread_pool_stopping(), 0);
  thread_pool_cleanup();
  EXPECT_EQ(thread_pool_stopping(), 1);
  EXPECT_EQ(thread_pool_append(count_up, &ran), -1);
  EXPECT_EQ(thread_pool_push(count_up, &ran), -1);
  thread_pool_cleanup();  // a second cleanup does nothing

  ASSERT_EQ(thread_pool_init(2), 2);
  EXPECT_EQ(thread_pool_stopping(), 0) << "a new pool accepts work again";
  ASSERT_EQ(thread_pool_append(count_up, &ran), 0);
  ASSERT_TRUE(eventually([&] { return ran.load() == 1; }));
  EXPECT_EQ(thread_pool_init(3), 3) << "init on a live pool only sets the limit";
  EXPECT_EQ(thread_pool_set_size(0), -1) << "a pool without workers would strand its queue";
  EXPECT_TRUE(eventually([] { return thread_pool_free_slots() == 3; }));
}

TEST_F(ThreadPool, CleanupWaitsForRunningWorkAndDropsTheQueue) {
  ASSERT_EQ(thread_pool_init(1), 1);
  Latch latch;
  latch.push_when_done = true;
  std::atomic<int> ran{0};
  ASSERT_EQ(thread_pool_append(wait_for_latch, &latch), 0);
  ASSERT_TRUE(eventually([&] { return latch.started.load(); }));
  for (int i = 0; i < 5; i++) ASSERT_EQ(thread_pool_append(count_up, &ran), 0);
  std::thread opener([&] {
    std::this_thread::sleep_for(200ms);
    latch.open = true;
  });
  thread_pool_cleanup();
  EXPECT_TRUE(latch.finished.load()) << "cleanup returned while a worker still ran";
  EXPECT_EQ(latch.saw_stopping.load(), 1) << "running work sees the stop flag";
  EXPECT_EQ(latch.late_push.load(), -1) << "work queued by a task during shut-down is refused";
  EXPECT_EQ(thread_pool_running(), -1);
  opener.join();
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(ran.load(), 0) << "queued tasks are dropped, never run";
}

TEST_F(ThreadPool, LoweredLimitKeepsSlotsClosedUntilEnoughEnd) {
  ASSERT_EQ(thread_pool_init(5), 5);
  Latch latches[5];
  for (Latch& latch : latches) ASSERT_EQ(thread_pool_append(wait_for_latch, &latch), 0);
  ASSERT_TRUE(eventually([&] { return thread_pool_running() == 5; }));
  EXPECT_EQ(thread_pool_set_size(2), 2);
  EXPECT_EQ(thread_pool_free_slots(), 0);
  for (int ended = 1; ended <= 3; ended++) {
    latches[ended - 1].open = true;
    ASSERT_TRUE(eventually([&] { return thread_pool_running() == 5 - ended; }));
    EXPECT_EQ(thread_pool_free_slots(), 0) << "after " << ended << " ended";
  }
  std::atomic<int> ran{0};
  ASSERT_EQ(thread_pool_append(count_up, &ran), 0);
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(ran.load(), 0) << "two workers run under a limit of two: no new one may start";
  EXPECT_EQ(thread_pool_running(), 2);
  latches[3].open = true;
  ASSERT_TRUE(eventually([&] { return ran.load() == 1; })) << "the next free worker takes the queued task";
  ASSERT_TRUE(eventually([&] { return thread_pool_running() == 1; }));
  EXPECT_EQ(thread_pool_free_slots(), 1);
  latches[4].open = true;
  ASSERT_TRUE(eventually([&] { return thread_pool_running() == 0; }));
  EXPECT_EQ(thread_pool_free_slots(), 2);
}

void linger() { std::this_thread::sleep_for(20ms); }

// Each task is queued the moment the previous one has run, which is when
// the only worker is on its way out. A worker that handed its slot back
// only after it had found the queue empty would leave such a task waiting
// for a worker that never comes. The leave hook holds the worker on its way
// out to make that window wide; the loop without it hits the narrow window
// of real timing.
TEST_F(ThreadPool, NoTaskIsStrandedWhileTheLastWorkerLeaves) {
  ASSERT_EQ(thread_pool_init(1), 1);
  std::atomic<int> ran{0};
  auto run_rounds = [&](int rounds) {
    for (int i = 0; i < rounds; i++) {
      int want = ran.load() + 1;
      ASSERT_EQ(thread_pool_append(count_up, &ran), 0);
      auto limit = std::chrono::steady_clock::now() + 2s;
      while (ran.load() != want && std::chrono::steady_clock::now() < limit) std::this_thread::yield();
      ASSERT_EQ(ran.load(), want) << "task " << want << " was stranded";
    }
  };
  thread_pool_set_leave_hook(linger);
  run_rounds(10);
  thread_pool_set_leave_hook(nullptr);
  run_rounds(2000);
}

TEST_F(ThreadPool, StartAndAllocationFailures) {
  CapturedLog log;
  mem_fail_at(1);
  EXPECT_EQ(thread_pool_init(2), -1);
  EXPECT_EQ(log.count("Cannot initialize thread pool"), 1);
  EXPECT_EQ(log.tag_of("Cannot initialize thread pool"), "src\\threadpool");
  ASSERT_EQ(thread_pool_init(2), 2);

  std::atomic<int> ran{0};
  mem_fail_at(1);
  EXPECT_EQ(thread_pool_append(count_up, &ran), -1);
  EXPECT_EQ(log.count("Cannot allocate memory for thread task"), 1);

  zel::thrd_set_create_hook(refuse_nomem);
  EXPECT_EQ(thread_pool_append(count_up, &ran), 0) << "the task stays queued";
  EXPECT_EQ(log.count("Cannot create a new thread: The requested operation failed because it was unable "
                      "to allocate memory"),
            1);
  EXPECT_EQ(thread_pool_running(), 0);
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(ran.load(), 0);
  zel::thrd_set_create_hook(nullptr);
  ASSERT_EQ(thread_pool_append(count_up, &ran), 0);
  EXPECT_TRUE(eventually([&] { return ran.load() == 2; })) << "the next worker runs both tasks";
}
