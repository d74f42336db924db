// The exported transfer entry points: check, copy, fit the pools to the
// handle, queue. Every later outcome reaches the caller through callbacks.
#include <cerrno>

#include "frame.h"
#include "get_object.h"
#include "httppool.h"
#include "log.h"
#include "object.h"
#include "put_object.h"
#include "threadpool.h"
#include "transfer.h"
#include "util.h"

namespace {
constexpr const char* kLogTag = "src\\object";

bool handle_ready(const ZEL* handle) {
  if (handle != nullptr && handle->get_token != nullptr) return true;
  ZLOG("ZEL is not initialized");
  return false;
}

// Every call applies its own handle's limits to the process-wide pools.
void fit_pools(const ZEL* handle) {
  http_pool_set_size(static_cast<int>(handle->http_pool_size));
  thread_pool_set_size(static_cast<int>(handle->thread_pool_size));
}

// The file's size, or false after reporting why it cannot be read.
bool measure_file(const ZELPutObjectOpt* opt, void* user_data, uint64_t* size) {
  if (opt->stream == nullptr) {
    report(opt->callback, 0, "ZELPutObjectOpt stream is (null)", user_data);
    return false;
  }
  errno = 0;
  if (file_size(opt->stream->filename, size) == 0) return true;
  int error = errno;
  report(opt->callback, error, transfer_error_text(error), user_data);
  return false;
}
}  // namespace

extern "C" ZEL_EXPORT void zel_put_object(ZEL* handle, const ZELPutObjectOpt* opt, void* user_data) {
  if (!handle_ready(handle)) return;
  if (opt == nullptr) {
    ZLOG("ZELPutObjectOpt is not initialized");
    return;
  }
  uint64_t size = 0;
  if (!measure_file(opt, user_data, &size)) return;
  ZELPutObjectDecorator* decorator = put_object_decorator_init(handle, opt, size, user_data);
  if (decorator == nullptr) {
    report(opt->callback, 0, "Cannot allocate memory for ZELPutObjectDecorator", user_data);
    return;
  }
  fit_pools(handle);
  if (decorator->opt->session_id == nullptr) {
    decorator->opt->session_id = generate_session_id();
    if (decorator->opt->session_id == nullptr) {
      // Chunks without a common id would be stored as unrelated uploads.
      report(opt->callback, 0, "Cannot allocate memory for ZELPutObjectDecorator", user_data);
      put_object_decorator_cleanup(decorator);
      return;
    }
  }
  if (transfer_enqueue(put_object_task, decorator, put_object_task_drop, false) < 0) {
    report(opt->callback, 0, "Cannot enqueue a new task (put_object)", user_data);
    put_object_decorator_cleanup(decorator);
  }
}

extern "C" ZEL_EXPORT void zel_get_object(ZEL* handle, const ZELGetObjectOpt* opt, void* user_data) {
  if (!handle_ready(handle)) return;
  if (opt == nullptr) {
    ZLOG("ZELGetObjectOpt is not initialized");
    return;
  }
  if (opt->stream == nullptr) return report(opt->callback, 0, "ZELGetObjectOpt stream is (null)", user_data);
  ZELGetObjectDecorator* decorator = get_object_decorator_init(handle, opt, user_data);
  if (decorator == nullptr) {
    report(opt->callback, 0, "Cannot allocate memory for ZELGetObjectDecorator", user_data);
    return;
  }
  fit_pools(handle);
  if (transfer_enqueue(get_object_task, decorator, get_object_task_drop, true) < 0) {
    report(opt->callback, 0, "Cannot enqueue a new task (get_object)", user_data);
    get_object_decorator_cleanup(decorator);
  }
}

extern "C" ZEL_EXPORT void zel_get_object_by_url(ZEL* handle, const ZELGetObjectByURLOpt* opt,
                                                 void* user_data) {
  if (opt == nullptr) {
    ZLOG("ZELGetObjectByURLOpt is not initialized");
    return;
  }
  if (opt->authenticate && !handle_ready(handle)) return;
  if (opt->stream == nullptr)
    return report(opt->callback, 0, "ZELGetObjectByURLOpt stream is (null)", user_data);
  // Without a handle there is nothing to copy the settings from.
  ZELGetObjectByURLDecorator* decorator =
      handle != nullptr ? get_object_by_url_decorator_init(handle, opt, user_data) : nullptr;
  if (decorator == nullptr) {
    report(opt->callback, 0, "Cannot allocate memory for ZELGetObjectByURLDecorator", user_data);
    return;
  }
  fit_pools(handle);
  if (transfer_enqueue(get_object_by_url_task, decorator, get_object_by_url_task_drop, true) < 0) {
    report(opt->callback, 0, "Cannot enqueue a new task (get_object_by_url)", user_data);
    get_object_by_url_decorator_cleanup(decorator);
  }
}
