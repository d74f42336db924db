#pragma once
// One byte counter per transfer, summed from every request of the transfer
// as they run in parallel, and the per-request record that feeds it.
#include <zel/zel.h>

#include <cstdint>

#include "thread.h"

struct ZELProgress {
  zel::mtx_t mutex;      // guards transferred and total
  uint64_t transferred;  // bytes reported so far by all requests
  uint64_t total;        // bytes expected
};

// Counter at 0 of `total`, or NULL (logged) when memory or the mutex fails.
ZELProgress* progress_init(uint64_t total);
// Destroys the mutex and frees the counter; NULL is ignored.
void progress_cleanup(ZELProgress* progress);
// Replaces total, for a download whose size only the transport learns.
void progress_set_total(ZELProgress* progress, uint64_t total);

// Attached to one HTTP request that reports progress and owned by it (plain
// mem_free releases it). The counter is shared and not owned.
struct ZELTransferProgress {
  ZELProgress* progress;
  uint64_t last;  // the request's own byte count at its last report
  void* user_data;
  int32_t retry;                // 1 on a retry: retries report nothing
  int32_t total_from_transfer;  // downloads of unknown size
  ZELProgressFn progress_callback;
};

ZELTransferProgress* transfer_progress_init(ZELProgress* progress, void* user_data, int32_t retry,
                                            int32_t total_from_transfer, ZELProgressFn progress_callback);

// What a report produced, read under the counter's mutex.
struct ProgressFigures {
  uint64_t transferred;
  uint64_t total;
};

// Moves the counter by the request's new byte count `count` against its
// last report and records `count` as the last report. Uploads pass
// may_shrink false: a smaller count adds nothing. Downloads pass true: a
// smaller count (a restarted transfer) subtracts, never below 0. True when
// transferred changed, with the figures to hand to progress_callback after
// the mutex has been released.
bool progress_report(ZELTransferProgress* data, uint64_t count, bool may_shrink, ProgressFigures* figures);
