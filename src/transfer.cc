// Pieces both transfer engines share.
#include "transfer.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "alloc.h"
#include "http_plan.h"
#include "httppool.h"
#include "log.h"
#include "thread.h"

namespace {

// One queued task that has not started. The worker pool frees its own task
// records when it drops them at shutdown, but not their arguments; this
// list is how the arguments are found again.
struct Pending {
  ThreadTaskFn function;
  void* argument;
  TransferDropFn drop;
  Pending* prev;
  Pending* next;
};

zel::mtx_t g_pending_lock = ZEL_MTX_INIT;
Pending* g_pending = nullptr;
int g_pending_count = 0;

void pending_link(Pending* node) {
  zel::LockGuard lock(g_pending_lock);
  node->prev = nullptr;
  node->next = g_pending;
  if (g_pending != nullptr) g_pending->prev = node;
  g_pending = node;
  g_pending_count++;
}

void pending_unlink(Pending* node) {
  zel::LockGuard lock(g_pending_lock);
  if (node->prev != nullptr) node->prev->next = node->next;
  if (node->next != nullptr) node->next->prev = node->prev;
  if (g_pending == node) g_pending = node->next;
  g_pending_count--;
}

// The task the worker pool actually runs: once started, the argument is
// the function's to release, so it leaves the list first.
void pending_start(void* raw) {
  auto* node = static_cast<Pending*>(raw);
  pending_unlink(node);
  ThreadTaskFn function = node->function;
  void* argument = node->argument;
  mem_free(node);
  function(argument);
}
}  // namespace

int transfer_enqueue(ThreadTaskFn function, void* argument, TransferDropFn drop, bool at_head) {
  auto* node = static_cast<Pending*>(mem_malloc(sizeof(Pending)));
  if (node == nullptr) return -1;
  node->function = function;
  node->argument = argument;
  node->drop = drop;
  // Linked before it is queued: a worker may start it at once.
  pending_link(node);
  int queued = at_head ? thread_pool_push(pending_start, node) : thread_pool_append(pending_start, node);
  if (queued < 0) {
    pending_unlink(node);
    mem_free(node);
    return -1;
  }
  return 0;
}

void transfer_release_dropped() {
  Pending* node = nullptr;
  {
    zel::LockGuard lock(g_pending_lock);
    node = g_pending;
    g_pending = nullptr;
    g_pending_count = 0;
  }
  // Dropping one argument may finish a transfer whose other tasks are
  // further down the list; each release only touches its own argument and
  // the transfer it counts into.
  while (node != nullptr) {
    Pending* next = node->next;
    if (node->drop != nullptr) node->drop(node->argument);
    mem_free(node);
    node = next;
  }
}

int transfer_pending_count() {
  zel::LockGuard lock(g_pending_lock);
  return g_pending_count;
}

void transfer_note_failure(int32_t status) {
  if (status == 504) http_pool_shrink(1);
}

namespace {
zel::mtx_t g_wait_lock = ZEL_MTX_INIT;
zel::cnd_t g_wait_cond = ZEL_CND_INIT;
std::atomic<uint32_t> g_base_ms{100};
std::atomic<uint32_t> g_cap_ms{5000};

bool stopping() { return thread_pool_stopping() != 0 || http_stopping(); }

uint32_t backoff_ms(uint32_t retry) {
  uint64_t delay = g_base_ms.load();
  uint32_t cap = g_cap_ms.load();
  for (uint32_t i = 1; i < retry && delay < cap; i++) delay *= 2;
  if (delay > cap) delay = cap;
  // Full jitter in the upper half: parallel chunks that failed together do
  // not come back together.
  static thread_local uint64_t state = 0;
  if (state == 0) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    state = (static_cast<uint64_t>(now.tv_nsec) ^
             (static_cast<uint64_t>(reinterpret_cast<uintptr_t>(&state)) << 1)) |
            1;
  }
  state ^= state << 13;  // xorshift64
  state ^= state >> 7;
  state ^= state << 17;
  uint64_t half = delay / 2;
  return static_cast<uint32_t>(half + (half > 0 ? state % (half + 1) : 0));
}
}  // namespace

bool transfer_backoff(uint32_t retry) {
  uint32_t ms = backoff_ms(retry);
  timespec deadline{};
  clock_gettime(CLOCK_REALTIME, &deadline);
  uint64_t ns = static_cast<uint64_t>(deadline.tv_nsec) + static_cast<uint64_t>(ms) * 1000000u;
  deadline.tv_sec += static_cast<time_t>(ns / 1000000000u);
  deadline.tv_nsec = static_cast<long>(ns % 1000000000u);
  {
    zel::LockGuard lock(g_wait_lock);
    int waited = zel::thrd_success;
    while (!stopping() && waited == zel::thrd_success) waited = lock.wait_until(g_wait_cond, deadline);
  }
  return !stopping();
}

void transfer_wake_all() {
  zel::LockGuard lock(g_wait_lock);
  zel::cnd_broadcast(&g_wait_cond);
}

void transfer_set_backoff(uint32_t base_ms, uint32_t cap_ms) {
  g_base_ms.store(base_ms);
  g_cap_ms.store(cap_ms);
}

int transfer_progress_step(ZELTransferProgress* data, uint64_t count, bool may_shrink) {
  if (data == nullptr || data->progress_callback == nullptr || data->retry) return thread_pool_stopping();
  ProgressFigures figures{};
  if (!progress_report(data, count, may_shrink, &figures)) return thread_pool_stopping();
  return data->progress_callback(figures.transferred, figures.total, data->user_data);
}

HttpPlan transfer_plan(const ZEL* handle, const char* url, bool authenticate) {
  HttpPlan plan;
  plan.url = url;
  plan.settings = http_settings_from(handle);
  plan.pooled = true;
  if (authenticate) {
    plan.get_token = handle->get_token;
    plan.free_token = handle->free_token;
  }
  return plan;
}

const char* transfer_error_text(int error) { return error != 0 ? std::strerror(error) : nullptr; }
