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

// What each entry point names in the sequence all three share.
template <class Decorator>
struct EntryTexts {
  const char* opt_missing;   // logged only
  const char* no_stream;     // reported
  const char* no_decorator;  // reported
  const char* no_queue;      // reported
  bool handle_first;         // the handle is tested before the options
  ThreadTaskFn task;
  TransferDropFn drop;
  bool at_head;  // downloads are pushed at the head, uploads appended
  void (*cleanup)(Decorator*);
};

// Checks, copies (through `make`, which may report a failure of its own by
// setting *reported), fits the pools to the handle and queues the task.
// Argument errors found before anything is copied are only logged.
template <class Opt, class Decorator, class Make>
void entry_run(const EntryTexts<Decorator>& e, ZEL* handle, const Opt* opt, void* user_data,
               bool needs_handle, Make make) {
  if (e.handle_first && !handle_ready(handle)) return;
  if (opt == nullptr) {
    ZLOG("%s", e.opt_missing);
    return;
  }
  if (!e.handle_first && needs_handle && !handle_ready(handle)) return;
  if (opt->stream == nullptr) return report(opt->callback, 0, e.no_stream, user_data);
  bool reported = false;
  // Without a handle there is nothing to copy the settings from.
  Decorator* decorator = handle != nullptr ? make(&reported) : nullptr;
  if (decorator == nullptr) {
    if (!reported) report(opt->callback, 0, e.no_decorator, user_data);
    return;
  }
  fit_pools(handle);
  if (transfer_enqueue(e.task, decorator, e.drop, e.at_head) < 0) {
    report(opt->callback, 0, e.no_queue, user_data);
    e.cleanup(decorator);
  }
}

const EntryTexts<ZELPutObjectDecorator> kPut{"ZELPutObjectOpt is not initialized",
                                             "ZELPutObjectOpt stream is (null)",
                                             "Cannot allocate memory for ZELPutObjectDecorator",
                                             "Cannot enqueue a new task (put_object)",
                                             true,
                                             put_object_task,
                                             put_object_task_drop,
                                             false,
                                             put_object_decorator_cleanup};
const EntryTexts<ZELGetObjectDecorator> kGet{"ZELGetObjectOpt is not initialized",
                                             "ZELGetObjectOpt stream is (null)",
                                             "Cannot allocate memory for ZELGetObjectDecorator",
                                             "Cannot enqueue a new task (get_object)",
                                             true,
                                             get_object_task,
                                             get_object_task_drop,
                                             true,
                                             get_object_decorator_cleanup};
const EntryTexts<ZELGetObjectByURLDecorator> kGetByUrl{
    "ZELGetObjectByURLOpt is not initialized",
    "ZELGetObjectByURLOpt stream is (null)",
    "Cannot allocate memory for ZELGetObjectByURLDecorator",
    "Cannot enqueue a new task (get_object_by_url)",
    false,
    get_object_by_url_task,
    get_object_by_url_task_drop,
    true,
    get_object_by_url_decorator_cleanup};

// The upload's copy: the file's size first (its failure reported with the
// system's error), then a session id when the caller gave none.
ZELPutObjectDecorator* put_copy(ZEL* handle, const ZELPutObjectOpt* opt, void* user_data, bool* reported) {
  uint64_t size = 0;
  errno = 0;
  if (file_size(opt->stream->filename, &size) != 0) {
    int error = errno;
    report(opt->callback, error, transfer_error_text(error), user_data);
    *reported = true;
    return nullptr;
  }
  ZELPutObjectDecorator* decorator = put_object_decorator_init(handle, opt, size, user_data);
  if (decorator != nullptr && decorator->opt->session_id == nullptr) {
    // Chunks without a common id would be stored as unrelated uploads.
    decorator->opt->session_id = generate_session_id();
    if (decorator->opt->session_id == nullptr) {
      put_object_decorator_cleanup(decorator);
      return nullptr;
    }
  }
  return decorator;
}
}  // namespace

extern "C" ZEL_EXPORT void zel_put_object(ZEL* handle, const ZELPutObjectOpt* opt, void* user_data) {
  entry_run(kPut, handle, opt, user_data, true,
            [&](bool* reported) { return put_copy(handle, opt, user_data, reported); });
}

extern "C" ZEL_EXPORT void zel_get_object(ZEL* handle, const ZELGetObjectOpt* opt, void* user_data) {
  entry_run(kGet, handle, opt, user_data, true,
            [&](bool*) { return get_object_decorator_init(handle, opt, user_data); });
}

extern "C" ZEL_EXPORT void zel_get_object_by_url(ZEL* handle, const ZELGetObjectByURLOpt* opt,
                                                 void* user_data) {
  entry_run(kGetByUrl, handle, opt, user_data, opt != nullptr && opt->authenticate != 0,
            [&](bool*) { return get_object_by_url_decorator_init(handle, opt, user_data); });
}
