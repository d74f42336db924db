// Process-wide start-up and shut-down: the bucket cache, libcurl, the HTTP
// pool and the worker pool, brought up in that order and taken down in the
// reverse one.
#include "global.h"

#include <locale.h>

#include <atomic>

#include "cache.h"
#include "frame.h"
#include "http.h"
#include "http_plan.h"
#include "httppool.h"
#include "log.h"
#include "thread.h"
#include "threadpool.h"
#include "transfer.h"

namespace {
constexpr const char* kLogTag = "src\\zel";
constexpr int kCacheCapacity = 128;
constexpr int kPoolSize = 8;

std::atomic<GlobalStepHook> g_hook{nullptr};
// The library's own threads format and parse in the "C" locale whatever
// the application chose; the caller's threads are never touched. The
// locale object is made once and kept for the life of the process, since a
// library thread may still be on its way out when shut-down ends.
bool locale_enter() {
  static locale_t c_locale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(0));
  if (c_locale == static_cast<locale_t>(0)) return false;
  zel::thrd_set_locale(c_locale);
  return true;
}

void locale_leave() { zel::thrd_set_locale(static_cast<locale_t>(0)); }

bool cache_up() { return cache_init(kCacheCapacity) >= 0; }
bool transport_up() { return http_global_init() == 0; }
bool http_pool_up() { return http_pool_init(kPoolSize) >= 0; }
bool thread_pool_up() { return thread_pool_init(kPoolSize) >= 0; }

struct Step {
  const char* failure;  // logged when the step fails; the locale step is silent
  bool (*up)();
  void (*down)();
};

// Index i holds GlobalStep i + 1.
constexpr Step kSteps[] = {
    {nullptr, locale_enter, locale_leave},
    {"Cannot initialize ZEL Bucket LRU Cache", cache_up, cache_cleanup},
    {"Cannot initialize CURL", transport_up, http_global_cleanup},
    {"Cannot initialize HTTP Pool", http_pool_up, http_pool_cleanup},
    {"Cannot initialize Thread Pool", thread_pool_up, thread_pool_cleanup},
};
constexpr int kStepCount = sizeof kSteps / sizeof kSteps[0];

bool run_step(int index) {
  GlobalStepHook hook = g_hook.load();
  if (hook != nullptr && hook(index + 1) != 0) return false;
  return kSteps[index].up();
}
}  // namespace

void global_set_step_hook(GlobalStepHook hook) { g_hook.store(hook); }

extern "C" ZEL_EXPORT int zel_global_init(void) {
  http_stop_all(false);
  for (int i = 0; i < kStepCount; i++) {
    if (run_step(i)) continue;
    if (kSteps[i].failure != nullptr) ZLOG("%s", kSteps[i].failure);
    for (int j = i - 1; j >= 0; j--) kSteps[j].down();
    return -1;
  }
  return 0;
}

extern "C" ZEL_EXPORT void zel_global_cleanup(void) {
  // Every exchange in flight is told to stop, and every retry waiting for
  // its next attempt is woken. Single-request operations run on detached
  // threads that still use libcurl and the bucket cache until they have
  // reported: they are waited for before either goes away.
  http_stop_all(true);
  transfer_wake_all();
  frame_wait_workers();
  // The worker pool goes first: it waits for running workers, which may
  // still hold pooled requests and touch the cache.
  for (int i = kStepCount - 1; i >= 0; i--) kSteps[i].down();
  // Transfer tasks that the stopped pool dropped before they ran still own
  // their records; nothing can run them any more, so they are freed here.
  transfer_release_dropped();
  http_stop_all(false);
}
