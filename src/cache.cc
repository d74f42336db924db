// The bucket LRU cache. uthash keeps its entries in insertion order, which
// doubles as the recency order: the head is the least recently used entry,
// and deleting plus re-adding an entry moves it to the tail. Every operation
// is therefore a hash lookup plus constant-time list work.
#include "cache.h"

#include <atomic>
#include <cstring>

#include "alloc.h"
#include "log.h"
#include "thread.h"

// The table allocates through the library's allocator, and running out of
// memory while it grows leaves the entry out instead of ending the process.
#define uthash_malloc(size) mem_malloc(size)
#define uthash_free(ptr, size) mem_free(ptr)
#define HASH_NONFATAL_OOM 1
#include <uthash.h>

namespace {
constexpr const char* kLogTag = "src\\cache";

struct BucketCacheEntry {
  char* key;
  uint32_t environment;
  UT_hash_handle hh;
};

struct BucketCache {
  zel::mtx_t lock;
  BucketCacheEntry* entries;
  int32_t capacity;
};

std::atomic<BucketCache*> g_cache{nullptr};

void release(BucketCacheEntry* entry) {
  mem_free(entry->key);
  mem_free(entry);
}

BucketCacheEntry* make_entry(const char* key, uint32_t environment) {
  auto* entry = static_cast<BucketCacheEntry*>(mem_calloc(1, sizeof(BucketCacheEntry)));
  if (entry == nullptr) return nullptr;
  entry->key = mem_strdup(key);
  if (entry->key == nullptr) {
    mem_free(entry);
    return nullptr;
  }
  entry->environment = environment;
  return entry;
}

// With the lock held: adds the entry as the most recent one; false when the
// table could not make room for it (the entry is then not in the table).
bool add_entry(BucketCache* cache, BucketCacheEntry* entry) {
  HASH_ADD_KEYPTR(hh, cache->entries, entry->key, std::strlen(entry->key), entry);
  return entry->hh.tbl != nullptr;
}
}  // namespace

int cache_init(int32_t capacity) {
  if (g_cache.load() != nullptr) return 1;
  if (capacity < 0) {
    ZLOG("Cache capacity(%d) is < 0", capacity);
    return -1;
  }
  auto* cache = static_cast<BucketCache*>(mem_calloc(1, sizeof(BucketCache)));
  if (cache == nullptr) return -1;
  cache->capacity = capacity;
  int result = zel::mtx_init(&cache->lock, zel::mtx_plain);
  if (result != zel::thrd_success) {
    ZLOG("%s", thread_result_message(result));
    mem_free(cache);
    return -1;
  }
  g_cache.store(cache);
  return 0;
}

void cache_put(const char* bucket_key, uint32_t environment) {
  BucketCache* cache = g_cache.load();
  if (cache == nullptr) {
    ZLOG("Cache not initialized");
    return;
  }
  if (bucket_key == nullptr) return;
  BucketCacheEntry* entry = make_entry(bucket_key, environment);
  if (entry == nullptr) {
    ZLOG("Cannot allocate memory for a cache entry");
    return;
  }
  BucketCacheEntry* replaced = nullptr;
  BucketCacheEntry* evicted = nullptr;
  bool added = false;
  {
    zel::LockGuard lock(cache->lock);
    HASH_FIND_STR(cache->entries, bucket_key, replaced);
    if (replaced != nullptr) HASH_DEL(cache->entries, replaced);
    added = add_entry(cache, entry);
    if (cache->entries != nullptr && HASH_COUNT(cache->entries) > static_cast<unsigned>(cache->capacity)) {
      evicted = cache->entries;  // the head is the least recently used
      HASH_DEL(cache->entries, evicted);
    }
  }
  if (replaced != nullptr) release(replaced);
  if (evicted != nullptr && evicted != entry) release(evicted);
  if (!added || evicted == entry) release(entry);
}

uint32_t cache_get(const char* bucket_key) {
  uint32_t environment = kCacheMiss;
  return cache_lookup(bucket_key, &environment) ? environment : kCacheMiss;
}

bool cache_lookup(const char* bucket_key, uint32_t* found) {
  BucketCache* cache = g_cache.load();
  if (cache == nullptr) {
    ZLOG("Cache not initialized");
    return false;
  }
  if (bucket_key == nullptr) return false;
  BucketCacheEntry* entry = nullptr;
  bool hit = false;
  zel::LockGuard lock(cache->lock);
  if (cache->entries != nullptr) HASH_FIND_STR(cache->entries, bucket_key, entry);
  if (entry != nullptr) {
    *found = entry->environment;
    hit = true;
    HASH_DEL(cache->entries, entry);
    // Re-adding can allocate (the table is rebuilt when its only entry
    // left it); should that fail, the key is forgotten, which only costs
    // the shortcut.
    if (!add_entry(cache, entry)) release(entry);
  }
  return hit;
}

int cache_count() {
  BucketCache* cache = g_cache.load();
  if (cache == nullptr) return -1;
  zel::LockGuard lock(cache->lock);
  int count = static_cast<int>(HASH_COUNT(cache->entries));
  return count;
}

void cache_cleanup() {
  BucketCache* cache = g_cache.load();
  if (cache == nullptr) return;
  zel::mtx_destroy(&cache->lock);
  BucketCacheEntry* entry = nullptr;
  BucketCacheEntry* next = nullptr;
  HASH_ITER(hh, cache->entries, entry, next) {
    HASH_DEL(cache->entries, entry);
    release(entry);
  }
  mem_free(cache);
  g_cache.store(nullptr);
}
