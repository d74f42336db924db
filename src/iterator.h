#pragma once
// Cuts a byte range into chunk ranges of a fixed size and hands each out
// exactly once, to any number of threads.
#include <zel/zel.h>

#include <cstdint>

#include "thread.h"

struct ZELByteRangeIterator {
  zel::mtx_t mutex;   // guards position
  uint64_t position;  // start of the next chunk
  uint64_t step;      // chunk size
  uint64_t end;       // first offset after the last byte: start + length
};

// Chunks of `step` bytes covering start .. start + length - 1; any start is
// accepted, so a caller range such as bytes 20-24 is iterated as
// iterator_init(20, step, 5). NULL for a step of 0, for a range that would
// end beyond the last 64-bit offset, or when memory or the mutex fails.
ZELByteRangeIterator* iterator_init(uint64_t start, uint64_t step, uint64_t length);
// 1 while chunks remain, else 0 (also for NULL). Another thread may take the
// last chunk between this answer and the next iterator_next.
int iterator_has_next(ZELByteRangeIterator* iterator);
// The next chunk, inclusive and owned by the caller (byte_range_cleanup), or
// NULL when none remains or memory ran out (the chunk is then not lost).
ZELByteRange* iterator_next(ZELByteRangeIterator* iterator);
void iterator_cleanup(ZELByteRangeIterator* iterator);
