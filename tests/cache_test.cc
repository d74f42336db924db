// The bucket LRU cache: eviction order, recency on reads, replacement of an
// entry from another environment, capacity 0, and use without a cache.
#include "cache.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "alloc.h"
#include "captured_log.h"

using zeltest::CapturedLog;

namespace {

class BucketCache : public ::testing::Test {
 protected:
  void TearDown() override {
    mem_fail_at(0);
    cache_cleanup();
  }
};

std::string key(int i) { return "bucket-" + std::to_string(i); }

}  // namespace

// Least recently used goes first: a read or a put of a known key (which
// replaces its environment without growing the table) refreshes an entry,
// a miss changes nothing; keys compare by their exact bytes.
TEST_F(BucketCache, LeastRecentlyUsedEntryIsEvictedFirst) {
  ASSERT_EQ(cache_init(4), 0);
  EXPECT_EQ(cache_get("anything"), kCacheMiss) << "empty cache";
  for (const char* k : {"a", "b", "c", "Bucket"}) cache_put(k, 1);
  EXPECT_EQ(cache_get("a"), 1u);  // order now b, c, Bucket, a
  EXPECT_EQ(cache_get("zzz"), kCacheMiss);
  EXPECT_EQ(cache_get("bucket"), kCacheMiss);
  EXPECT_EQ(cache_get("Buck"), kCacheMiss);
  cache_put("b", 3);  // seen again in production: order c, Bucket, a, b
  EXPECT_EQ(cache_count(), 4);
  cache_put("d", 2);
  cache_put("e", 2);
  EXPECT_EQ(cache_get("c"), kCacheMiss);
  EXPECT_EQ(cache_get("Bucket"), kCacheMiss);
  EXPECT_EQ(cache_get("a"), 1u);
  EXPECT_EQ(cache_get("b"), 3u) << "the later environment wins";
  cache_put(nullptr, 1);
  EXPECT_EQ(cache_get(nullptr), kCacheMiss);
  EXPECT_EQ(cache_count(), 4);
}

TEST_F(BucketCache, CapacityZeroKeepsNothing) {
  ASSERT_EQ(cache_init(0), 0);
  for (int i = 0; i < 5; i++) cache_put(key(i).c_str(), 1);
  EXPECT_EQ(cache_count(), 0);
  EXPECT_EQ(cache_get(key(4).c_str()), kCacheMiss);
}

TEST_F(BucketCache, InitRulesAndUseWithoutACache) {
  CapturedLog log;
  EXPECT_EQ(cache_init(-5), -1);
  EXPECT_EQ(log.count("Cache capacity(-5) is < 0"), 1);
  EXPECT_EQ(log.tag_of("Cache capacity(-5) is < 0"), "src\\cache");
  EXPECT_EQ(cache_count(), -1);

  ASSERT_EQ(cache_init(128), 0);
  cache_put("kept", 1);
  EXPECT_EQ(cache_init(128), 1) << "a second init leaves the cache alone";
  EXPECT_EQ(cache_init(-5), 1);
  EXPECT_EQ(cache_get("kept"), 1u);

  cache_cleanup();
  log.clear();
  cache_put("late", 1);
  EXPECT_EQ(cache_get("late"), kCacheMiss);
  EXPECT_EQ(log.count("Cache not initialized"), 2);
  cache_cleanup();  // harmless without a cache
}

TEST_F(BucketCache, OutOfMemorySkipsTheEntry) {
  CapturedLog log;
  mem_fail_at(1);
  EXPECT_EQ(cache_init(4), -1) << "no record, no cache";
  ASSERT_EQ(cache_init(4), 0);

  mem_fail_at(1);  // the entry
  cache_put("a", 1);
  mem_fail_at(2);  // its key copy
  cache_put("a", 1);
  EXPECT_EQ(log.count("Cannot allocate memory for a cache entry"), 2);
  mem_fail_at(3);  // the table itself, made by the first insertion
  cache_put("a", 1);
  EXPECT_EQ(cache_count(), 0);
  EXPECT_EQ(cache_get("a"), kCacheMiss);
  cache_put("a", 7);
  EXPECT_EQ(cache_get("a"), 7u) << "the cache works again once memory is back";
}

TEST_F(BucketCache, ConcurrentPutsAndGetsStayBounded) {
  ASSERT_EQ(cache_init(16), 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; t++) {
    threads.emplace_back([t] {
      for (int i = 0; i < 2000; i++) {
        std::string k = key((i * 7 + t) % 40);
        if (i % 3 == 0) {
          cache_put(k.c_str(), static_cast<uint32_t>(t));
        } else {
          uint32_t got = cache_get(k.c_str());
          EXPECT_TRUE(got == kCacheMiss || got < 8u);
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_LE(cache_count(), 16);
  EXPECT_GT(cache_count(), 0);
}

// The environment 0xFFFFFFFF is a value like any other: a miss must not
// read as "known for it".
TEST_F(BucketCache, LookupTellsTheLastEnvironmentFromAMiss) {
  ASSERT_EQ(cache_init(4), 0);
  uint32_t found = 7;
  EXPECT_FALSE(cache_lookup("never-put", &found));
  EXPECT_EQ(found, 7u);
  cache_put("all-ones", 0xFFFFFFFFu);
  EXPECT_TRUE(cache_lookup("all-ones", &found));
  EXPECT_EQ(found, 0xFFFFFFFFu);
}
