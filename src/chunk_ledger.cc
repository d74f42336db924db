// The chunk ledger shared by the upload and download engines.
#include "chunk_ledger.h"

#include <atomic>

#include "alloc.h"
#include "thread.h"
#include "threadpool.h"
#include "transfer.h"

namespace {

struct ChunkLedger {
  zel::mtx_t mutex;  // guards everything below but the constants
  const ChunkEngine* engine;
  void* transfer;
  uint64_t start, step, end;  // constants: the byte range and the chunk size
  uint32_t count;             // constant: chunks in all
  uint32_t window;            // constant: chunk tasks allowed to wait in the queue
  uint32_t next;              // index of the next chunk to hand out
  uint32_t done;              // chunks accounted for: finished, skipped or abandoned
  uint32_t queued;            // chunk tasks queued and not started
  // The starter is still queueing the first window. The record lives
  // while this is set, a task is queued or a chunk is unaccounted for.
  bool starting;
  ChunkTally tally;
  bool silent;  // shutdown dropped work: nobody is told
};

std::atomic<uint32_t> g_peak_queued{0};

void note_peak(uint32_t queued) {
  uint32_t seen = g_peak_queued.load(std::memory_order_relaxed);
  while (queued > seen && !g_peak_queued.compare_exchange_weak(seen, queued, std::memory_order_relaxed)) {
  }
}

// Under the lock: gives up the chunks not yet handed out, as failed.
void abandon_rest(ChunkLedger* l, const char* fatal) {
  uint32_t rest = l->count - l->next;
  l->next = l->count;
  l->done += rest;
  if (rest == 0) return;
  l->tally.failed += rest;
  if (fatal != nullptr) l->tally.fatal = fatal;
}

// Under the lock: whether nothing refers to the record any more.
bool finished(const ChunkLedger* l) { return l->done >= l->count && l->queued == 0 && !l->starting; }

// Called by whoever made `finished` true, once, outside the lock.
void finish(ChunkLedger* l) {
  if (!l->silent) l->engine->complete(l->transfer, l->tally);
  l->engine->release(l->transfer);
  zel::mtx_destroy(&l->mutex);
  mem_free(l);
}

void chunk_task(void* raw);
void chunk_drop(void* raw);

// Keeps the window of waiting chunk tasks full while chunks remain. The
// caller keeps the record alive (it is the starter or has a chunk running).
void refill(ChunkLedger* l) {
  for (;;) {
    zel::mtx_lock(&l->mutex);
    bool more = l->queued < l->window && l->next + l->queued < l->count;
    if (more) note_peak(++l->queued);
    zel::mtx_unlock(&l->mutex);
    if (!more) return;
    if (transfer_enqueue(chunk_task, l, chunk_drop, true) == 0) continue;
    zel::mtx_lock(&l->mutex);
    l->queued--;
    // A pool that is shutting down drops queued work without a word; any
    // other refusal ends the transfer with its own message.
    bool stopping = thread_pool_stopping() != 0;
    if (stopping) l->silent = true;
    abandon_rest(l, stopping ? nullptr : l->engine->enqueue_failed);
    zel::mtx_unlock(&l->mutex);
    return;
  }
}

// One queued chunk task: takes the next chunk in file order, tops the
// window up, runs the chunk and accounts for it.
void chunk_task(void* raw) {
  auto* l = static_cast<ChunkLedger*>(raw);
  zel::mtx_lock(&l->mutex);
  bool skip = l->engine->skip_after_failure && l->tally.failed > 0;
  if (skip) abandon_rest(l, nullptr);
  bool have = l->next < l->count;
  ZELByteRange range{0, 0};
  if (have) {
    range.start = l->start + static_cast<uint64_t>(l->next++) * l->step;
    uint64_t left = l->end - range.start;
    range.end = range.start + (left < l->step ? left : l->step) - 1;
  }
  // From here the task keeps the record alive through its chunk, not
  // through its place in the queue.
  l->queued--;
  bool last = !have && finished(l);
  zel::mtx_unlock(&l->mutex);
  if (!have) {
    if (last) finish(l);
    return;
  }
  refill(l);
  int32_t status = 0;
  bool ok = l->engine->attempt(l->transfer, &range, &status);
  zel::mtx_lock(&l->mutex);
  l->done++;
  if (!ok) {
    l->tally.failed++;
    l->tally.failed_status = status;
  }
  last = finished(l);
  zel::mtx_unlock(&l->mutex);
  if (last) finish(l);
}

// A chunk task dropped at shutdown: the chunks it stood for are lost and
// the caller has been promised silence for queued work.
void chunk_drop(void* raw) {
  auto* l = static_cast<ChunkLedger*>(raw);
  zel::mtx_lock(&l->mutex);
  l->silent = true;
  abandon_rest(l, nullptr);
  l->queued--;
  bool last = finished(l);
  zel::mtx_unlock(&l->mutex);
  if (last) finish(l);
}
}  // namespace

uint64_t chunk_step(const ZEL* handle) {
  return handle->chunk_size != 0 ? handle->chunk_size : kDefaultChunkSize;
}

uint64_t chunk_count(uint64_t amount, uint64_t step) { return amount / step + (amount % step != 0 ? 1 : 0); }

bool chunk_ledger_start(const ChunkEngine* engine, void* transfer, uint64_t start, uint64_t step,
                        uint64_t amount, uint32_t count, uint32_t workers) {
  auto* l = static_cast<ChunkLedger*>(mem_calloc(1, sizeof(ChunkLedger)));
  if (l == nullptr) return false;
  if (zel::mtx_init(&l->mutex, zel::mtx_plain) != zel::thrd_success) {
    mem_free(l);
    return false;
  }
  l->engine = engine;
  l->transfer = transfer;
  l->start = start;
  l->step = step;
  l->end = start + amount;
  l->count = count;
  l->window = (workers > 0 ? workers : 1) * kChunkWindowPerWorker;
  l->starting = true;
  refill(l);
  zel::mtx_lock(&l->mutex);
  l->starting = false;
  bool last = finished(l);
  zel::mtx_unlock(&l->mutex);
  if (last) finish(l);
  return true;
}

uint32_t chunk_ledger_peak_queued() { return g_peak_queued.load(); }

void chunk_ledger_reset_peak() { g_peak_queued.store(0); }
