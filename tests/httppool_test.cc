// The HTTP request pool: waiting at capacity, last-in first-out reuse of
// reset requests, capacity changes while requests are out, and the cases
// where a returned request is destroyed instead of kept.
#include "httppool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "alloc.h"
#include "captured_log.h"

using zeltest::CapturedLog;

namespace {

using namespace std::chrono_literals;

class HttpPool : public ::testing::Test {
 protected:
  void TearDown() override {
    mem_fail_at(0);
    http_pool_cleanup();
  }
};

// Starts an acquire on another thread; the future becomes ready when it
// returns.
std::future<HttpRequest*> acquire_async() { return std::async(std::launch::async, http_pool_acquire); }

bool still_waiting(std::future<HttpRequest*>& pending) {
  return pending.wait_for(150ms) == std::future_status::timeout;
}

}  // namespace

TEST_F(HttpPool, WithoutPoolRequestsAreFreshAndUncounted) {
  CapturedLog log;
  EXPECT_EQ(http_pool_available(), -1);
  HttpRequest* request = http_pool_acquire();
  ASSERT_NE(request, nullptr);
  ASSERT_NE(request->curl, nullptr);
  http_pool_release(request);  // destroyed; the leak checker sees it otherwise
  http_pool_release(nullptr);
  EXPECT_EQ(http_pool_set_size(4), -1);
  EXPECT_EQ(http_pool_adjust(1), -1);
  EXPECT_EQ(http_pool_shrink(1), -1);
  EXPECT_EQ(log.count("HTTP pool is not initialized"), 3);
  EXPECT_EQ(log.tag_of("HTTP pool is not initialized"), "src\\httppool");
}

TEST_F(HttpPool, InitRulesAndCapacityChanges) {
  EXPECT_EQ(http_pool_init(0), -1);
  EXPECT_EQ(http_pool_available(), -1) << "a refused init creates nothing";
  ASSERT_EQ(http_pool_init(8), 8);
  EXPECT_EQ(http_pool_adjust(-1), 7);
  EXPECT_EQ(http_pool_shrink(1), 6);
  EXPECT_EQ(http_pool_adjust(3), 9);
  EXPECT_EQ(http_pool_available(), 9);
  EXPECT_EQ(http_pool_shrink(100), 1) << "the pool never shrinks to nothing";
  EXPECT_EQ(http_pool_set_size(0), -1);
  EXPECT_EQ(http_pool_available(), 1);

  HttpRequest* kept = http_pool_acquire();
  http_pool_release(kept);
  ASSERT_EQ(http_pool_idle_count(), 1);
  EXPECT_EQ(http_pool_init(3), 3) << "a second init only sets the size";
  EXPECT_EQ(http_pool_idle_count(), 1) << "and keeps the idle requests";
  EXPECT_EQ(http_pool_acquire(), kept);
  http_pool_release(kept);
}

TEST_F(HttpPool, AcquireAtCapacityWaitsForTheReleasedRequest) {
  ASSERT_EQ(http_pool_init(2), 2);
  HttpRequest* first = http_pool_acquire();
  HttpRequest* second = http_pool_acquire();
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(http_pool_available(), 0);
  EXPECT_EQ(http_pool_in_use(), 2);

  auto third = acquire_async();
  ASSERT_TRUE(still_waiting(third)) << "a third acquire must wait while two are out";
  http_request_add_header_kv(second, "X-Used", "1");
  second->body = http_body_init();
  http_pool_release(second);
  HttpRequest* got = third.get();
  EXPECT_EQ(got, second) << "the waiter gets the request that was just returned";
  EXPECT_EQ(got->headers, nullptr) << "returned requests are reset";
  EXPECT_EQ(got->body, nullptr);
  EXPECT_EQ(http_pool_available(), 0);
  http_pool_release(got);
  http_pool_release(first);
  EXPECT_EQ(http_pool_available(), 2);
  EXPECT_EQ(http_pool_in_use(), 0);
}

TEST_F(HttpPool, IdleRequestsAreReusedLastInFirstOut) {
  ASSERT_EQ(http_pool_init(4), 4);
  HttpRequest* a = http_pool_acquire();
  HttpRequest* b = http_pool_acquire();
  HttpRequest* c = http_pool_acquire();
  http_pool_release(a);
  http_pool_release(c);
  http_pool_release(b);
  EXPECT_EQ(http_pool_idle_count(), 3);
  EXPECT_EQ(http_pool_acquire(), b);
  EXPECT_EQ(http_pool_acquire(), c);
  EXPECT_EQ(http_pool_acquire(), a);
  HttpRequest* fresh = http_pool_acquire();
  EXPECT_TRUE(fresh != a && fresh != b && fresh != c);
  for (HttpRequest* request : {a, b, c, fresh}) http_pool_release(request);
}

TEST_F(HttpPool, SetSizeWhileAllAreOut) {
  ASSERT_EQ(http_pool_init(8), 8);
  std::vector<HttpRequest*> out;
  for (int i = 0; i < 8; i++) out.push_back(http_pool_acquire());
  EXPECT_EQ(http_pool_set_size(8), 8);
  EXPECT_EQ(http_pool_available(), 0);
  auto waiter = acquire_async();
  ASSERT_TRUE(still_waiting(waiter));
  EXPECT_EQ(http_pool_set_size(9), 9);  // raising the size lets the waiter through
  out.push_back(waiter.get());
  EXPECT_EQ(http_pool_in_use(), 9);

  // Lowering below what is out keeps acquirers waiting; each release then
  // gives back one.
  EXPECT_EQ(http_pool_set_size(7), 7);
  EXPECT_EQ(http_pool_available(), 0);
  http_pool_release(out.back());
  out.pop_back();
  EXPECT_EQ(http_pool_available(), 1);
  EXPECT_EQ(http_pool_in_use(), 8);
  http_pool_release(out.back());
  out.pop_back();
  EXPECT_EQ(http_pool_available(), 2);
  EXPECT_EQ(http_pool_in_use(), 7);
  for (HttpRequest* request : out) http_pool_release(request);
}

TEST_F(HttpPool, ShrinkWhileAllAreOutLosesNoSlot) {
  ASSERT_EQ(http_pool_init(4), 4);
  std::vector<HttpRequest*> out;
  for (int i = 0; i < 4; i++) out.push_back(http_pool_acquire());
  // Three 504s while every request is out: the capacity bottoms out at 1.
  for (int i = 0; i < 3; i++) http_pool_shrink(1);
  for (HttpRequest* request : out) http_pool_release(request);
  EXPECT_EQ(http_pool_in_use(), 0) << "every counted release lowers the in-use count";
  EXPECT_EQ(http_pool_idle_count(), 1) << "a shrunk pool keeps no more than its capacity";
  // Nothing is out, so an acquire must never wait; and a new size counts
  // from nothing out.
  auto first = acquire_async();
  ASSERT_EQ(first.wait_for(2s), std::future_status::ready);
  HttpRequest* taken = first.get();
  EXPECT_EQ(http_pool_set_size(4), 4);
  EXPECT_EQ(http_pool_available(), 3);
  http_pool_release(taken);
  EXPECT_EQ(http_pool_available(), 4);
}

TEST_F(HttpPool, AllocationFailuresKeepTheCountsRight) {
  CapturedLog log;
  mem_fail_at(1);
  EXPECT_EQ(http_pool_init(2), -1);
  EXPECT_EQ(log.count("Cannot initialize HTTP pool"), 1);
  ASSERT_EQ(http_pool_init(2), 2);

  mem_fail_at(1);  // the new request's record
  EXPECT_EQ(http_pool_acquire(), nullptr);
  EXPECT_EQ(http_pool_available(), 2) << "a failed acquire gives its slot back";
  EXPECT_EQ(http_pool_in_use(), 0);

  HttpRequest* request = http_pool_acquire();
  mem_fail_at(1);  // the idle-list entry
  http_pool_release(request);
  EXPECT_EQ(http_pool_idle_count(), 0) << "a request that cannot be listed is destroyed";
  EXPECT_EQ(http_pool_available(), 2) << "but its slot comes back";

  // Taken before the pool existed, so the pool has room for nothing more.
  HttpRequest* stranger = http_request_init();
  http_pool_release(stranger);
  EXPECT_EQ(http_pool_idle_count(), 0) << "a release beyond capacity destroys the request";
  EXPECT_EQ(http_pool_available(), 2);
  EXPECT_EQ(http_pool_in_use(), 0);
}

TEST_F(HttpPool, ConcurrentBorrowersNeverExceedCapacity) {
  constexpr int kCapacity = 3;
  ASSERT_EQ(http_pool_init(kCapacity), kCapacity);
  std::atomic<int> holding{0};
  std::atomic<int> most{0};
  std::atomic<int> arrived_reset{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; t++) {
    threads.emplace_back([&] {
      for (int i = 0; i < 100; i++) {
        HttpRequest* request = http_pool_acquire();
        if (request == nullptr) continue;
        int now = ++holding;
        int seen = most.load();
        while (now > seen && !most.compare_exchange_weak(seen, now)) {
        }
        if (request->headers == nullptr) arrived_reset++;
        http_request_add_header(request, "X-Mine:1");
        std::this_thread::yield();
        --holding;
        http_pool_release(request);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_LE(most.load(), kCapacity);
  EXPECT_EQ(arrived_reset.load(), 800) << "every borrowed request arrives reset";
  EXPECT_EQ(http_pool_in_use(), 0);
  EXPECT_EQ(http_pool_available(), kCapacity);
  EXPECT_LE(http_pool_idle_count(), kCapacity);
}
