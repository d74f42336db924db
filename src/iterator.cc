// The chunk iterator shared by the upload and download engines.
#include "iterator.h"

#include "alloc.h"
#include "log.h"

namespace {
constexpr const char* kLogTag = "src\\iterator";
}  // namespace

ZELByteRangeIterator* iterator_init(uint64_t start, uint64_t step, uint64_t length) {
  if (length > UINT64_MAX - start) {
    ZLOG("Cannot initialize iterator with a range beyond the largest offset");
    return nullptr;
  }
  if (step == 0) {
    ZLOG("Cannot initialize iterator with step equal 0");
    return nullptr;
  }
  auto* iterator = static_cast<ZELByteRangeIterator*>(mem_calloc(1, sizeof(ZELByteRangeIterator)));
  if (iterator == nullptr) return nullptr;
  int result = zel::mtx_init(&iterator->mutex, zel::mtx_plain);
  if (result != zel::thrd_success) {
    ZLOG("%s", thread_result_message(result));
    mem_free(iterator);
    return nullptr;
  }
  iterator->position = start;
  iterator->step = step;
  iterator->end = start + length;
  return iterator;
}

int iterator_has_next(ZELByteRangeIterator* iterator) {
  if (iterator == nullptr) return 0;
  zel::LockGuard lock(iterator->mutex);
  int more = iterator->position < iterator->end ? 1 : 0;
  return more;
}

ZELByteRange* iterator_next(ZELByteRangeIterator* iterator) {
  if (iterator == nullptr) return nullptr;
  ZELByteRange* range = nullptr;
  zel::LockGuard lock(iterator->mutex);
  if (iterator->position < iterator->end) {
    range = static_cast<ZELByteRange*>(mem_malloc(sizeof(ZELByteRange)));
    if (range != nullptr) {
      // Compared as distances so that a step near the 64-bit limit cannot
      // wrap around past end.
      uint64_t left = iterator->end - iterator->position;
      uint64_t size = left < iterator->step ? left : iterator->step;
      range->start = iterator->position;
      range->end = iterator->position + size - 1;
      iterator->position += size;
    }
  }
  return range;
}

void iterator_cleanup(ZELByteRangeIterator* iterator) {
  if (iterator == nullptr) return;
  zel::mtx_destroy(&iterator->mutex);
  mem_free(iterator);
}
