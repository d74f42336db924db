#include "alloc.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace {
std::atomic<long> g_fail_countdown{0};
std::atomic<long> g_count{0};

// True when this allocation is the one a test asked to fail.
bool should_fail() {
  g_count.fetch_add(1, std::memory_order_relaxed);
  long left = g_fail_countdown.load(std::memory_order_relaxed);
  while (left > 0) {
    if (g_fail_countdown.compare_exchange_weak(left, left - 1, std::memory_order_relaxed)) {
      return left == 1;
    }
  }
  return false;
}
}  // namespace

void* mem_malloc(size_t size) { return should_fail() ? nullptr : std::malloc(size); }

void* mem_calloc(size_t count, size_t size) { return should_fail() ? nullptr : std::calloc(count, size); }

void* mem_realloc(void* ptr, size_t size) { return should_fail() ? nullptr : std::realloc(ptr, size); }

char* mem_strdup(const char* text) {
  if (text == nullptr) return nullptr;
  size_t n = std::strlen(text);
  char* copy = static_cast<char*>(mem_malloc(n + 1));
  if (copy != nullptr) std::memcpy(copy, text, n + 1);
  return copy;
}

void mem_free(void* ptr) { std::free(ptr); }

void mem_fail_at(long n) { g_fail_countdown.store(n < 0 ? 0 : n); }

long mem_allocation_count() { return g_count.load(); }
