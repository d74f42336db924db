// The transfer progress counter.
#include "progress.h"

#include "alloc.h"
#include "log.h"

namespace {
constexpr const char* kLogTag = "src\\progress";
}  // namespace

ZELProgress* progress_init(uint64_t total) {
  auto* progress = static_cast<ZELProgress*>(mem_calloc(1, sizeof(ZELProgress)));
  if (progress == nullptr) {
    ZLOG("Cannot allocate memory for ZELProgress");
    return nullptr;
  }
  if (zel::mtx_init(&progress->mutex, zel::mtx_plain) != zel::thrd_success) {
    ZLOG("Cannot initialize progress mutex");
    mem_free(progress);
    return nullptr;
  }
  progress->transferred = 0;
  progress->total = total;
  return progress;
}

void progress_cleanup(ZELProgress* progress) {
  if (progress == nullptr) return;
  zel::mtx_destroy(&progress->mutex);
  mem_free(progress);
}

void progress_set_total(ZELProgress* progress, uint64_t total) {
  if (progress == nullptr) return;
  zel::LockGuard lock(progress->mutex);
  progress->total = total;
}

ZELTransferProgress* transfer_progress_init(ZELProgress* progress, void* user_data, int32_t retry,
                                            int32_t total_from_transfer, ZELProgressFn progress_callback) {
  auto* data = static_cast<ZELTransferProgress*>(mem_calloc(1, sizeof(ZELTransferProgress)));
  if (data == nullptr) return nullptr;
  data->progress = progress;
  data->user_data = user_data;
  data->retry = retry;
  data->total_from_transfer = total_from_transfer;
  data->progress_callback = progress_callback;
  return data;
}

bool progress_report(ZELTransferProgress* data, uint64_t count, bool may_shrink, ProgressFigures* figures) {
  if (data == nullptr || data->progress == nullptr) return false;
  ZELProgress* progress = data->progress;
  bool changed = false;
  // `last` belongs to one request, but it is updated under the counter's
  // mutex with transferred so the two never disagree.
  zel::LockGuard lock(progress->mutex);
  if (count > data->last) {
    progress->transferred += count - data->last;
    changed = true;
  } else if (count < data->last && may_shrink) {
    uint64_t back = data->last - count;
    progress->transferred = progress->transferred > back ? progress->transferred - back : 0;
    changed = true;
  }
  if (changed) data->last = count;
  if (figures != nullptr) *figures = {progress->transferred, progress->total};
  return changed;
}
