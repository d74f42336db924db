#pragma once
// What the upload and download engines share: queueing that survives a
// shutdown without leaking, the retries of one chunk with their backoff,
// the failure path of an attempt and the progress step of both hooks.
#include <zel/zel.h>

#include <cstdint>

#include "http.h"
#include "http_plan.h"
#include "progress.h"
#include "threadpool.h"

// Releases the argument of a task that was queued but dropped at shutdown.
using TransferDropFn = void (*)(void* argument);

// Queues `function(argument)` on the worker pool (at the head or at the
// tail) and remembers the argument until the task starts, so that a task
// dropped by thread_pool_cleanup can still be released by
// transfer_release_dropped. 0 when queued, -1 when refused (the argument is
// then untouched and still the caller's).
int transfer_enqueue(ThreadTaskFn function, void* argument, TransferDropFn drop, bool at_head);
// Releases the arguments of every task that was queued and never started.
// Only meaningful once the worker pool has stopped: called by the global
// shutdown right after thread_pool_cleanup.
void transfer_release_dropped();
// Tasks queued through transfer_enqueue that have not started yet.
int transfer_pending_count();

// libcurl's code for a transfer that a progress hook aborted: a cancelling
// progress_callback or a shutting-down worker pool.
constexpr int kStatusAborted = 42;

// What one attempt of a chunk (or of a size query) came to.
struct AttemptOutcome {
  bool ok;
  int32_t status;  // HTTP status, libcurl's code, or the local failure's code
  bool retryable;  // another attempt might succeed
};

// The engines' failure path for one attempt: a 504 asks for less
// parallelism, so the HTTP pool's capacity goes down by one.
void transfer_note_failure(int32_t status);

// Waits before retry number `retry` (1, 2, ...): exponential backoff with
// jitter, from the base delay doubling up to the cap. False, at once, when
// the library shuts down meanwhile.
bool transfer_backoff(uint32_t retry);
// Wakes every waiting retry (shutdown).
void transfer_wake_all();
// Test seam: base delay and cap in milliseconds (defaults 100 and 5000).
void transfer_set_backoff(uint32_t base_ms, uint32_t cap_ms);

// Runs one chunk: attempt(n) for n = 0, 1, ... until it succeeds, fails
// for good, or no attempts remain; before each retry on_retry(status,
// n + 1) logs it and the backoff waits.
template <class Attempt, class OnRetry>
AttemptOutcome transfer_run_chunk(uint32_t max_retries, Attempt attempt, OnRetry on_retry) {
  for (uint32_t n = 0;; ++n) {
    AttemptOutcome outcome = attempt(n);
    if (outcome.ok || !outcome.retryable || n >= max_retries || thread_pool_stopping()) return outcome;
    on_retry(outcome.status, n + 1);
    if (!transfer_backoff(n + 1)) return outcome;
  }
}

// The body of both progress hooks: moves the transfer's counter by the
// request's new byte count and asks the caller's progress_callback, outside
// the counter's lock, only when the count moved. Without a callback, on a
// retry or without data it only passes on the worker pool's stop flag, so a
// shutdown aborts every running request.
int transfer_progress_step(ZELTransferProgress* data, uint64_t count, bool may_shrink);

// The plan every transfer request starts from: a pooled request to `url`
// with the handle's settings and, when `authenticate`, its token.
HttpPlan transfer_plan(const ZEL* handle, const char* url, bool authenticate);

// The system's text for an error number, or nullptr when it has none.
const char* transfer_error_text(int error);
