#pragma once
// The bookkeeping both chunk engines share: how a range is cut into
// chunks, which chunk goes next, how many chunk tasks wait in the worker
// queue, and who reports and releases the transfer once every chunk is
// accounted for. An engine supplies only its attempt of one chunk, its
// report and its release.
//
// Chunks are handed out in file order when a chunk task starts, not when
// it is queued: the worker queue runs its newest task first, and a range
// fixed at queueing time would make a transfer go from its last chunk to
// its first. Only a window of a few times the worker pool's size waits in
// the queue, so a transfer of many small chunks costs memory in proportion
// to the pool, not to the number of chunks.
#include <zel/zel.h>

#include <cstdint>

// Chunk size when the handle names none.
constexpr uint64_t kDefaultChunkSize = 5242880;

// The handle's chunk size, or the default.
uint64_t chunk_step(const ZEL* handle);
// Chunks of `step` bytes that `amount` bytes make (the last may be short).
uint64_t chunk_count(uint64_t amount, uint64_t step);

// How a transfer ended, for its one report.
struct ChunkTally {
  uint32_t failed;        // chunks that failed for good or never went out
  int32_t failed_status;  // status of the most recent chunk that failed
  const char* fatal;      // why chunks could not be queued, when they could not
};

struct ChunkEngine {
  // Runs every attempt of one chunk, with the engine's own per-chunk
  // callbacks. True on success; otherwise *status is the failing status.
  bool (*attempt)(void* transfer, const ZELByteRange* range, int32_t* status);
  // The transfer's one report, made by whoever accounts for the last chunk.
  void (*complete)(void* transfer, const ChunkTally& tally);
  // Frees the transfer record; runs once, after complete (or without it,
  // when the transfer was dropped at shutdown).
  void (*release)(void* transfer);
  // Reported when a chunk task cannot be queued.
  const char* enqueue_failed;
  // Once a chunk has failed for good the rest are not tried.
  bool skip_after_failure;
};

// Cuts `amount` bytes from `start` into `count` chunks of `step` and queues
// the first window of chunk tasks (for `workers` workers) at the head of the
// worker queue. From
// here on the transfer belongs to the ledger: every path ends in exactly
// one engine->complete (unless shutdown drops the transfer) and exactly one
// engine->release. Without memory for the ledger itself, false: the caller
// still owns the transfer and reports `kChunkLedgerNoMemory`.
bool chunk_ledger_start(const ChunkEngine* engine, void* transfer, uint64_t start, uint64_t step,
                        uint64_t amount, uint32_t count, uint32_t workers);
constexpr const char* kChunkLedgerNoMemory = "Cannot allocate memory for ZELByteRangeIterator";

// Chunk tasks waiting in the worker queue per transfer: this many times the
// worker pool's size.
constexpr uint32_t kChunkWindowPerWorker = 4;

// Test seam: the largest number of chunk tasks one transfer has had waiting
// in the queue since the last reset.
uint32_t chunk_ledger_peak_queued();
void chunk_ledger_reset_peak();
