// Process-wide start-up and shut-down: the bucket cache, libcurl, the HTTP
// pool and the worker pool, brought up in that order and taken down in the
// reverse one.
#include "global.h"

#include <locale.h>

#include <atomic>

#include "cache.h"
#include "http.h"
#include "httppool.h"
#include "frame.h"
#include "log.h"
#include "threadpool.h"
#include "transfer.h"

namespace {
constexpr const char* kLogTag = "src\\zel";
constexpr int kCacheCapacity = 128;
constexpr int kPoolSize = 8;

std::atomic<GlobalStepHook> g_hook{nullptr};
locale_t g_thread_locale = static_cast<locale_t>(0);
locale_t g_previous_locale = static_cast<locale_t>(0);

// Gives the calling thread its own copy of the locale it runs on, so that a
// later setlocale elsewhere in the application cannot change how the
// library's thread formats and parses numbers mid-way. The copy equals the
// current setting, so nothing visible changes.
bool locale_enter() {
  if (g_thread_locale != static_cast<locale_t>(0)) return true;
  locale_t current = uselocale(static_cast<locale_t>(0));
  locale_t copy = duplocale(current);
  if (copy == static_cast<locale_t>(0)) return false;
  g_previous_locale = uselocale(copy);
  if (g_previous_locale == static_cast<locale_t>(0)) {
    freelocale(copy);
    return false;
  }
  g_thread_locale = copy;
  return true;
}

void locale_leave() {
  if (g_thread_locale == static_cast<locale_t>(0)) return;
  // Only the thread that made the copy runs on it. Elsewhere it may still
  // be in use, and a small leak beats freeing a live locale.
  if (uselocale(static_cast<locale_t>(0)) == g_thread_locale) {
    uselocale(g_previous_locale);
    freelocale(g_thread_locale);
  }
  g_thread_locale = static_cast<locale_t>(0);
}

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

bool global_thread_locale_active() {
  return g_thread_locale != static_cast<locale_t>(0) &&
         uselocale(static_cast<locale_t>(0)) == g_thread_locale;
}

extern "C" ZEL_EXPORT int zel_global_init(void) {
  for (int i = 0; i < kStepCount; i++) {
    if (run_step(i)) continue;
    if (kSteps[i].failure != nullptr) ZLOG("%s", kSteps[i].failure);
    for (int j = i - 1; j >= 0; j--) kSteps[j].down();
    return -1;
  }
  return 0;
}

extern "C" ZEL_EXPORT void zel_global_cleanup(void) {
  // Single-request operations run on detached threads that still use
  // libcurl and the bucket cache until they have reported: let them finish
  // before either goes away.
  while (frame_running_workers() > 0) zel::thrd_yield();
  // The worker pool goes first: it waits for running workers, which may
  // still hold pooled requests and touch the cache.
  for (int i = kStepCount - 1; i >= 0; i--) kSteps[i].down();
  // Transfer tasks that the stopped pool dropped before they ran still own
  // their records; nothing can run them any more, so they are freed here.
  transfer_release_dropped();
}
