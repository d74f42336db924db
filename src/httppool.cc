// The HTTP handle pool. Acquirers wait on a condition variable over the
// state lock while nothing may be taken; set size, adjust and release wake
// them when a request may be taken again.
#include "httppool.h"

#include <atomic>

#include "alloc.h"
#include "log.h"
#include "thread.h"

namespace {
constexpr const char* kLogTag = "src\\httppool";

struct IdleEntry {
  HttpRequest* request;
  IdleEntry* next;
};

struct HttpPool {
  zel::cnd_t gate;
  zel::mtx_t state;
  IdleEntry* idle;  // last in, first out: the warmest connection goes next
  int capacity;
  int in_use;
  int available;
};

std::atomic<HttpPool*> g_pool{nullptr};

// Called with the state lock held after every change of the counts.
void apply_gate(HttpPool* pool) {
  if (pool->available >= 1) zel::cnd_broadcast(&pool->gate);
}

void recount(HttpPool* pool) {
  int available = pool->capacity - pool->in_use;
  pool->available = available > 0 ? available : 0;
  apply_gate(pool);
}

HttpPool* existing_pool() {
  HttpPool* pool = g_pool.load();
  if (pool == nullptr) ZLOG("HTTP pool is not initialized");
  return pool;
}

HttpPool* create_pool() {
  auto* pool = static_cast<HttpPool*>(mem_calloc(1, sizeof(HttpPool)));
  if (pool == nullptr) {
    ZLOG("Cannot initialize HTTP pool");
    return nullptr;
  }
  if (zel::cnd_init(&pool->gate) != zel::thrd_success) {
    ZLOG("%s", thread_result_message(zel::thrd_error));
    mem_free(pool);
    return nullptr;
  }
  if (zel::mtx_init(&pool->state, zel::mtx_plain) != zel::thrd_success) {
    ZLOG("%s", thread_result_message(zel::thrd_error));
    zel::cnd_destroy(&pool->gate);
    mem_free(pool);
    return nullptr;
  }
  return pool;
}

// Gives a counted slot back after a request could not be created for it.
void return_slot(HttpPool* pool) {
  zel::LockGuard lock(pool->state);
  pool->in_use--;
  recount(pool);
}
}  // namespace

int http_pool_init(int capacity) {
  if (capacity < 1) return -1;
  if (g_pool.load() != nullptr) return http_pool_set_size(capacity);
  HttpPool* pool = create_pool();
  if (pool == nullptr) return -1;
  g_pool.store(pool);
  return http_pool_set_size(capacity);
}

int http_pool_set_size(int capacity) {
  HttpPool* pool = existing_pool();
  if (pool == nullptr) return -1;
  if (capacity < 1) {
    ZLOG("HTTP pool size %d is below 1", capacity);
    return -1;
  }
  zel::LockGuard lock(pool->state);
  pool->capacity = capacity;
  recount(pool);
  return capacity;
}

int http_pool_adjust(int delta) {
  HttpPool* pool = existing_pool();
  if (pool == nullptr) return -1;
  zel::LockGuard lock(pool->state);
  int capacity = pool->capacity + delta;
  pool->capacity = capacity > 1 ? capacity : 1;
  recount(pool);
  capacity = pool->capacity;
  return capacity;
}

int http_pool_shrink(int n) { return http_pool_adjust(-n); }

HttpRequest* http_pool_acquire() {
  HttpPool* pool = g_pool.load();
  if (pool == nullptr) return http_request_init();
  IdleEntry* entry = nullptr;
  {
    zel::LockGuard lock(pool->state);
    while (pool->available < 1) lock.wait(pool->gate);
    pool->in_use++;
    pool->available--;
    entry = pool->idle;
    if (entry != nullptr) pool->idle = entry->next;
    apply_gate(pool);
  }
  if (entry != nullptr) {
    HttpRequest* request = entry->request;
    mem_free(entry);
    return request;
  }
  HttpRequest* request = http_request_init();
  if (request == nullptr) return_slot(pool);
  return request;
}

void http_pool_release(HttpRequest* request) {
  if (request == nullptr) return;
  HttpPool* pool = g_pool.load();
  IdleEntry* entry = nullptr;
  bool kept = false;
  if (pool != nullptr) {
    // Reset outside the lock: it only touches this request.
    http_request_reset(request);
    entry = static_cast<IdleEntry*>(mem_malloc(sizeof(IdleEntry)));
    zel::LockGuard lock(pool->state);
    // Every counted release gives its slot back, whatever the capacity did
    // meanwhile; only whether the request is kept for reuse depends on it.
    if (pool->in_use > 0) {
      kept = entry != nullptr && pool->available < pool->capacity;
      if (kept) {
        entry->request = request;
        entry->next = pool->idle;
        pool->idle = entry;
      }
      pool->in_use--;
      if (pool->available < pool->capacity) pool->available++;
      apply_gate(pool);
    }
  }
  if (!kept) {
    mem_free(entry);
    http_request_cleanup(request);
  }
}

int http_pool_available() {
  HttpPool* pool = g_pool.load();
  if (pool == nullptr) return -1;
  zel::LockGuard lock(pool->state);
  int available = pool->available;
  return available;
}

int http_pool_in_use() {
  HttpPool* pool = g_pool.load();
  if (pool == nullptr) return -1;
  zel::LockGuard lock(pool->state);
  int in_use = pool->in_use;
  return in_use;
}

int http_pool_idle_count() {
  HttpPool* pool = g_pool.load();
  if (pool == nullptr) return -1;
  int count = 0;
  zel::LockGuard lock(pool->state);
  for (IdleEntry* entry = pool->idle; entry != nullptr; entry = entry->next) count++;
  return count;
}

void http_pool_cleanup() {
  HttpPool* pool = g_pool.exchange(nullptr);
  if (pool == nullptr) return;
  while (pool->idle != nullptr) {
    IdleEntry* entry = pool->idle;
    pool->idle = entry->next;
    http_request_cleanup(entry->request);
    mem_free(entry);
  }
  zel::cnd_destroy(&pool->gate);
  zel::mtx_destroy(&pool->state);
  mem_free(pool);
}
