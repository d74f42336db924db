// The bucket LRU cache: recency, capacity, allocation failures, concurrent use.
#include "cache.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "alloc.h"
#include "captured_log.h"

namespace {

struct BucketCache : ::testing::Test {
  zeltest::CapturedLog log;
  ~BucketCache() override { cache_cleanup(); }
};

std::vector<uint32_t> gets(std::initializer_list<const char*> keys) {
  std::vector<uint32_t> out;
  for (const char* key : keys) out.push_back(cache_get(key));
  return out;
}

// A read or a put of a known key refreshes it, a miss changes nothing; keys
// compare by their exact bytes; 0xFFFFFFFF is an environment like any other.
TEST_F(BucketCache, LeastRecentlyUsedEntryIsEvictedFirst) {
  ASSERT_EQ(cache_init(4), 0);
  for (const char* k : {"a", "b", "c", "Bucket"}) cache_put(k, 1);
  EXPECT_EQ(gets({"a", "bucket", "Buck"}), (std::vector<uint32_t>{1, kCacheMiss, kCacheMiss}));
  cache_put("b", 3);  // order now c, Bucket, a, b
  cache_put(nullptr, 1);
  cache_put("d", 0xFFFFFFFFu);
  cache_put("e", 2);
  EXPECT_EQ(gets({"c", "Bucket", "a", "b", "e"}), (std::vector<uint32_t>{kCacheMiss, kCacheMiss, 1, 3, 2}));
  uint32_t found = 7;
  EXPECT_FALSE(cache_lookup("c", &found));
  EXPECT_EQ(found, 7u);
  EXPECT_TRUE(cache_lookup("d", &found) && found == 0xFFFFFFFFu);
}

// Without a cache nothing is kept; a failed allocation (the record, an
// entry, its key copy, the table made by the first insertion) skips only
// what it was for.
TEST_F(BucketCache, InitRulesCapacityZeroAndOutOfMemory) {
  EXPECT_EQ(cache_init(-5), -1);
  cache_put("late", 1);
  EXPECT_EQ(cache_get("late"), kCacheMiss);
  mem_fail_at(1);
  EXPECT_EQ(cache_init(4), -1);
  ASSERT_EQ(cache_init(0), 0);
  cache_put("a", 1);
  EXPECT_EQ(cache_count(), 0);
  cache_cleanup();

  ASSERT_EQ(cache_init(4), 0);
  EXPECT_EQ(cache_init(0), 1) << "a second init leaves the cache alone";
  for (long step : {1, 2, 3}) {
    mem_fail_at(step);
    cache_put("a", 1);
  }
  mem_fail_at(0);
  EXPECT_EQ(cache_count(), 0);
  cache_put("a", 7);
  EXPECT_EQ(cache_get("a"), 7u) << "the cache works again once memory is back";
}

TEST_F(BucketCache, ConcurrentPutsAndGetsStayBounded) {
  ASSERT_EQ(cache_init(16), 0);
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < 8; t++)
    threads.emplace_back([t] {
      for (uint32_t i = 0; i < 2000; i++) {
        std::string k = "bucket-" + std::to_string((i * 7 + t) % 40);
        if (i % 3 == 0) cache_put(k.c_str(), t);
        uint32_t got = cache_get(k.c_str());
        EXPECT_TRUE(got == kCacheMiss || got < 8u);
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_LE(cache_count(), 16);
}

}  // namespace
