// The HTTP request pool: waiting at capacity, last-in first-out reuse of
// reset requests, capacity changes while requests are out, and the cases
// where a returned request is destroyed instead of kept.
#include "httppool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "alloc.h"
#include "captured_log.h"

namespace {

using namespace std::chrono_literals;

class HttpPool : public ::testing::Test {
 protected:
  void TearDown() override {
    mem_fail_at(0);
    http_pool_cleanup();
  }
  // "available/in use/idle".
  static std::string counts() {
    return std::to_string(http_pool_available()) + "/" + std::to_string(http_pool_in_use()) + "/" +
           std::to_string(http_pool_idle_count());
  }
  static std::vector<HttpRequest*> acquire(int n) {
    std::vector<HttpRequest*> out;
    for (int i = 0; i < n; i++) out.push_back(http_pool_acquire());
    return out;
  }
  static void release(const std::vector<HttpRequest*>& requests) {
    for (HttpRequest* request : requests) http_pool_release(request);
  }
  zeltest::CapturedLog log_;
};

// Starts an acquire on another thread; true while it has not returned.
std::future<HttpRequest*> acquire_async() { return std::async(std::launch::async, http_pool_acquire); }
bool still_waiting(std::future<HttpRequest*>& pending) {
  return pending.wait_for(150ms) != std::future_status::ready;
}

TEST_F(HttpPool, WithoutPoolRequestsAreFreshThenCapacityRulesAndReuse) {
  HttpRequest* request = http_pool_acquire();
  ASSERT_NE(request->curl, nullptr);
  http_pool_release(request);  // destroyed; the leak checker sees it otherwise
  EXPECT_EQ(http_pool_set_size(4) + http_pool_adjust(1) + http_pool_shrink(1), -3);
  EXPECT_EQ(http_pool_init(0), -1);
  EXPECT_EQ(http_pool_available(), -1) << "a refused init creates nothing";

  ASSERT_EQ(http_pool_init(8), 8);
  EXPECT_EQ(http_pool_adjust(3), 11);
  EXPECT_EQ(http_pool_shrink(100), 1) << "the pool never shrinks to nothing";
  EXPECT_EQ(http_pool_set_size(0), -1);
  EXPECT_EQ(http_pool_set_size(4), 4);
  // Idle requests are reused last in, first out, and a second init only
  // sets the size and keeps them.
  std::vector<HttpRequest*> abc = acquire(3);
  release({abc[0], abc[2], abc[1]});
  EXPECT_EQ(http_pool_init(3), 3);
  EXPECT_EQ(counts(), "3/0/3");
  EXPECT_EQ(acquire(3), (std::vector<HttpRequest*>{abc[1], abc[2], abc[0]}));
  release(abc);
}

TEST_F(HttpPool, AcquireAtCapacityWaitsForTheReleasedResetRequest) {
  ASSERT_EQ(http_pool_init(2), 2);
  std::vector<HttpRequest*> out = acquire(2);
  EXPECT_EQ(counts(), "0/2/0");
  auto third = acquire_async();
  ASSERT_TRUE(still_waiting(third)) << "a third acquire must wait while two are out";
  http_request_add_header_kv(out[1], "X-Used", "1");
  out[1]->body = http_body_init();
  http_pool_release(out[1]);
  HttpRequest* got = third.get();
  EXPECT_EQ(got, out[1]) << "the waiter gets the request that was just returned";
  EXPECT_TRUE(got->headers == nullptr && got->body == nullptr) << "returned requests are reset";
  EXPECT_EQ(counts(), "0/2/0");
  release({got, out[0]});
  EXPECT_EQ(counts(), "2/0/2");
}

// Raising the size lets a waiter through; lowering it below what is out
// keeps acquirers waiting, and each release then gives back one slot.
TEST_F(HttpPool, SetSizeWhileAllAreOut) {
  ASSERT_EQ(http_pool_init(8), 8);
  std::vector<HttpRequest*> out = acquire(8);
  auto waiter = acquire_async();
  ASSERT_TRUE(still_waiting(waiter));
  EXPECT_EQ(http_pool_set_size(9), 9);
  out.push_back(waiter.get());
  EXPECT_EQ(counts(), "0/9/0");
  EXPECT_EQ(http_pool_set_size(7), 7);
  EXPECT_EQ(http_pool_available(), 0);
  for (const char* expected : {"1/8/1", "2/7/2"}) {
    http_pool_release(out.back());
    out.pop_back();
    EXPECT_EQ(counts(), expected);
  }
  release(out);
}

// Three shrinks while every request is out bottom the capacity out at 1;
// every release still lowers the in-use count, and a new size counts from
// nothing out, so an acquire must never wait.
TEST_F(HttpPool, ShrinkWhileAllAreOutLosesNoSlot) {
  ASSERT_EQ(http_pool_init(4), 4);
  std::vector<HttpRequest*> out = acquire(4);
  for (int i = 0; i < 3; i++) http_pool_shrink(1);
  release(out);
  EXPECT_EQ(counts(), "1/0/1") << "a shrunk pool keeps no more than its capacity";
  auto first = acquire_async();
  ASSERT_EQ(first.wait_for(2s), std::future_status::ready);
  HttpRequest* taken = first.get();
  EXPECT_EQ(http_pool_set_size(4), 4);
  EXPECT_EQ(http_pool_available(), 3);
  http_pool_release(taken);
  EXPECT_EQ(http_pool_available(), 4);
}

// A failed acquire gives its slot back; a request that cannot be listed,
// or is returned beyond capacity, is destroyed but its slot comes back.
TEST_F(HttpPool, AllocationFailuresKeepTheCountsRight) {
  mem_fail_at(1);
  EXPECT_EQ(http_pool_init(2), -1);
  ASSERT_EQ(http_pool_init(2), 2);
  mem_fail_at(1);  // the new request's record
  EXPECT_EQ(http_pool_acquire(), nullptr);
  EXPECT_EQ(counts(), "2/0/0");
  HttpRequest* request = http_pool_acquire();
  mem_fail_at(1);  // the idle-list entry
  http_pool_release(request);
  EXPECT_EQ(counts(), "2/0/0");
  http_pool_release(http_request_init());  // taken before the pool existed: no room for it
  EXPECT_EQ(counts(), "2/0/0");
}

TEST_F(HttpPool, ConcurrentBorrowersNeverExceedCapacityAndGetResetRequests) {
  ASSERT_EQ(http_pool_init(3), 3);
  std::atomic<int> holding{0}, most{0}, arrived_reset{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; t++)
    threads.emplace_back([&] {
      for (int i = 0; i < 100; i++) {
        HttpRequest* request = http_pool_acquire();
        int now = ++holding, seen = most.load();
        while (now > seen && !most.compare_exchange_weak(seen, now)) {
        }
        if (request->headers == nullptr) arrived_reset++;
        http_request_add_header(request, "X-Mine:1");
        std::this_thread::yield();
        --holding;
        http_pool_release(request);
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_LE(most.load(), 3);
  EXPECT_EQ(arrived_reset.load(), 800);
  EXPECT_EQ(http_pool_available(), 3);
  EXPECT_EQ(http_pool_in_use(), 0);
}

}  // namespace
