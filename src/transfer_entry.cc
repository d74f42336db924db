// The exported transfer entry points: tables for the frame, which checks,
// copies, fits the pools to the handle and queues the task. Every later
// outcome reaches the caller through callbacks.
#include <cerrno>
#include <cstdio>

#include "get_object.h"
#include "object.h"
#include "object_op.h"
#include "put_object.h"
#include "util.h"

namespace {
// Nothing can be written or read without a stream; reported, not only
// logged, because the caller's callback is known by now.
template <class Opt>
bool has_stream(LogSite, const OpCall& call) {
  if (call.options<Opt>()->stream != nullptr) return true;
  char message[80];
  std::snprintf(message, sizeof message, "%s stream is (null)", call.op.opt_name);
  call.report(0, message);
  return false;
}

// A download by URL needs a usable handle only when it authenticates, so
// the handle is tested after the options.
bool by_url_checks(LogSite site, const OpCall& call) {
  if (call.options<ZELGetObjectByURLOpt>()->authenticate != 0 && !frame_handle_ready(site, call.handle))
    return false;
  return has_stream<ZELGetObjectByURLOpt>(site, call);
}

// The upload's copy: the file's size first (its failure reported with the
// system's error), then a session id when the caller gave none.
void* put_copy(const OpCall& call, bool* reported) {
  const auto* opt = call.options<ZELPutObjectOpt>();
  uint64_t size = 0;
  errno = 0;
  if (file_size(opt->stream->filename, &size) != 0) {
    int error = errno;
    call.report(error, transfer_error_text(error));
    *reported = true;
    return nullptr;
  }
  ZELPutObjectDecorator* decorator = put_object_decorator_init(call.handle, opt, size, call.user_data);
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

void* get_copy(const OpCall& call, bool*) {
  return get_object_decorator_init(call.handle, call.options<ZELGetObjectOpt>(), call.user_data);
}

void* by_url_copy(const OpCall& call, bool*) {
  return get_object_by_url_decorator_init(call.handle, call.options<ZELGetObjectByURLOpt>(), call.user_data);
}

const TransferOp kPutTransfer{
    has_stream<ZELPutObjectOpt>, put_copy, put_object_task,
    put_object_task_drop,        false,    "Cannot enqueue a new task (put_object)"};
const TransferOp kGetTransfer{
    has_stream<ZELGetObjectOpt>, get_copy, get_object_task,
    get_object_task_drop,        true,     "Cannot enqueue a new task (get_object)"};
const TransferOp kByUrlTransfer{by_url_checks,
                                by_url_copy,
                                get_object_by_url_task,
                                get_object_by_url_task_drop,
                                true,
                                "Cannot enqueue a new task (get_object_by_url)"};

const Operation kPut = [] {
  Operation op = transfer_operation<ZELPutObjectOpt>(kPutTransfer, true);
  OPERATION_NAMES(op, "ZELPutObject");
  return op;
}();
const Operation kGet = [] {
  Operation op = transfer_operation<ZELGetObjectOpt>(kGetTransfer, true);
  OPERATION_NAMES(op, "ZELGetObject");
  return op;
}();
const Operation kGetByUrl = [] {
  Operation op = transfer_operation<ZELGetObjectByURLOpt>(kByUrlTransfer, false);
  OPERATION_NAMES(op, "ZELGetObjectByURL");
  return op;
}();
}  // namespace

extern "C" ZEL_EXPORT void zel_put_object(ZEL* handle, const ZELPutObjectOpt* opt, void* user_data) {
  FRAME_START(kPut, handle, opt, user_data);
}

extern "C" ZEL_EXPORT void zel_get_object(ZEL* handle, const ZELGetObjectOpt* opt, void* user_data) {
  FRAME_START(kGet, handle, opt, user_data);
}

extern "C" ZEL_EXPORT void zel_get_object_by_url(ZEL* handle, const ZELGetObjectByURLOpt* opt,
                                                 void* user_data) {
  FRAME_START(kGetByUrl, handle, opt, user_data);
}
