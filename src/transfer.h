#pragma once
// What the upload and download engines share: queueing that survives a
// shutdown without leaking, the judgement of one chunk attempt and its
// retries, the fixed texts of failed statuses, the progress step of both
// hooks and the tuning of pooled requests for bulk data.
#include <zel/zel.h>

#include <cstdint>

#include "http.h"
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

// Fixed text of a status that a transfer reports as such ("Unauthorized",
// "Forbidden", "Not Found", "Gateway Timeout"), or nullptr. A 504 also lowers
// the HTTP pool's capacity by one: the service asks for less parallelism.
const char* transfer_status_text(int status);

// True when an attempt that ended with `status` may be tried again: not for
// refusals (401, 403, 404) nor for a cancelled transfer (42), never while
// the library shuts down, and only while attempts remain.
bool transfer_may_retry(int status, uint32_t attempt, uint32_t max_retries);

// Runs one chunk: attempt(n) for n = 0, 1, ... until succeeded(status) or
// no retry is allowed; before each retry, on_retry(status, n + 1) logs it.
// The chunk's last status; *ok tells whether it succeeded.
template <class Attempt, class Succeeded, class OnRetry>
int transfer_run_chunk(uint32_t max_retries, Attempt attempt, Succeeded succeeded, OnRetry on_retry,
                       bool* ok) {
  for (uint32_t n = 0;; ++n) {
    int status = attempt(n);
    if (succeeded(status)) {
      *ok = true;
      return status;
    }
    if (!transfer_may_retry(status, n, max_retries)) {
      *ok = false;
      return status;
    }
    on_retry(status, n + 1);
  }
}

// The body of both progress hooks: moves the transfer's counter by the
// request's new byte count and asks the caller's progress_callback, outside
// the counter's lock, only when the count moved. Without a callback, on a
// retry or without data it only passes on the worker pool's stop flag, so a
// shutdown aborts every running request.
int transfer_progress_step(ZELTransferProgress* data, uint64_t count, bool may_shrink);

// Attaches `hook` with `data` (owned by the request from now on, even when
// this fails). nullptr, or the message of the failed step.
const char* transfer_attach_hook(HttpRequest* request, curl_xferinfo_callback hook,
                                 ZELTransferProgress* data);

// Settings of a pooled request that moves bulk data: large transport
// buffers, so the file sees few large reads and writes.
void transfer_tune_upload(HttpRequest* request);
void transfer_tune_download(HttpRequest* request);

// The system's text for an error number, or nullptr when it has none.
const char* transfer_error_text(int error);
