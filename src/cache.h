#pragma once
// Process-wide LRU cache of buckets known to exist, per environment, so an
// upload that creates missing buckets skips the create request for buckets
// already created or seen.
#include <cstdint>

// What cache_get returns for an absent cache or an unknown key.
constexpr uint32_t kCacheMiss = UINT32_MAX;

// 0 when created, 1 when the cache already exists (left untouched), -1 on
// failure (negative capacity, no memory, no lock).
int cache_init(int32_t capacity);
// Remembers `bucket_key` (UTF-8) for `environment` as the most recently
// used entry, replacing an entry with the same key. Drops the least recently
// used entry when the cache grows beyond its capacity. When memory runs out
// the key is simply not remembered.
void cache_put(const char* bucket_key, uint32_t environment);
// The environment stored for the key, which becomes the most recently used,
// or kCacheMiss.
uint32_t cache_get(const char* bucket_key);
// The same, able to tell a stored 0xFFFFFFFF from a miss: true with
// *environment set when the key is known.
bool cache_lookup(const char* bucket_key, uint32_t* environment);
// Entries held; -1 without a cache.
int cache_count();
void cache_cleanup();
