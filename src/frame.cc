#include "frame.h"

#include <cstring>

#include "alloc.h"
#include "bucket.h"
#include "httppool.h"
#include "json.h"
#include "object.h"
#include "thread.h"
#include "threadpool.h"
#include "transfer.h"
#include "util.h"
#include "zel_internal.h"

namespace {

// The count changes under the lock so that a waiter cannot miss the wake-up
// between its test and its wait.
zel::mtx_t g_workers_lock = ZEL_MTX_INIT;
zel::cnd_t g_workers_done = ZEL_CND_INIT;
int g_running_workers = 0;

void workers_add(int delta) {
  zel::LockGuard lock(g_workers_lock);
  g_running_workers += delta;
  if (g_running_workers == 0) zel::cnd_broadcast(&g_workers_done);
}

// ----- options copies -------------------------------------------------------

template <class T>
T*& field(void* record, size_t offset) {
  return *reinterpret_cast<T**>(static_cast<char*>(record) + offset);
}

template <class T>
const T* field(const void* record, size_t offset) {
  return *reinterpret_cast<T* const*>(static_cast<const char*>(record) + offset);
}

size_t header_count(const ZELHeaders* list) {
  size_t count = 0;
  for (; list != nullptr; list = list->next) ++count;
  return count;
}

bool copy_field(const OptField& f, const void* source, void* copy) {
  switch (f.kind) {
    case FieldKind::wide:
      return copy_wide(field<char16_t>(source, f.offset), &field<const char16_t>(copy, f.offset));
    case FieldKind::text:
      return copy_text(field<char>(source, f.offset), &field<const char>(copy, f.offset));
    case FieldKind::headers:
      return copy_headers(field<ZELHeaders>(source, f.offset), &field<ZELHeaders>(copy, f.offset));
    case FieldKind::permissions: {
      const ZELBucketPermissions* list = field<ZELBucketPermissions>(source, f.offset);
      if (list == nullptr) return true;
      return (field<ZELBucketPermissions>(copy, f.offset) = permissions_clone(list)) != nullptr;
    }
    case FieldKind::range: {
      const ZELByteRange* range = field<ZELByteRange>(source, f.offset);
      return range == nullptr || (field<ZELByteRange>(copy, f.offset) = byte_range_clone(range)) != nullptr;
    }
    case FieldKind::stream: {
      const ZELStream* stream = field<ZELStream>(source, f.offset);
      return stream == nullptr || (field<ZELStream>(copy, f.offset) = stream_clone(stream)) != nullptr;
    }
  }
  return false;
}

void free_field(const OptField& f, void* copy) {
  switch (f.kind) {
    case FieldKind::wide:
      mem_free(field<char16_t>(copy, f.offset));
      break;
    case FieldKind::text:
      mem_free(field<char>(copy, f.offset));
      break;
    case FieldKind::headers:
      zel_headers_cleanup(field<ZELHeaders>(copy, f.offset));
      break;
    case FieldKind::permissions:
      zel_permissions_cleanup(field<ZELBucketPermissions>(copy, f.offset));
      break;
    case FieldKind::range:
      byte_range_cleanup(field<ZELByteRange>(copy, f.offset));
      break;
    case FieldKind::stream:
      zel_stream_cleanup(field<ZELStream>(copy, f.offset));
      break;
  }
}

// ----- the worker -----------------------------------------------------------

struct OpDecorator {
  ZEL* handle;
  void* opt;
  void* user_data;
  const Operation* op;
};

void free_decorator(OpDecorator* decorator) {
  if (decorator != nullptr) decorator_free(*decorator->op->copy, decorator);
}

// Counted in by frame_start before the thread starts; counted out here on
// every path, after the decorator is gone.
class WorkerScope {
 public:
  explicit WorkerScope(OpDecorator* decorator) : decorator_(decorator) {}
  ~WorkerScope() {
    free_decorator(decorator_);
    workers_add(-1);
  }
  WorkerScope(const WorkerScope&) = delete;
  WorkerScope& operator=(const WorkerScope&) = delete;

 private:
  OpDecorator* decorator_;
};

int worker(void* raw) {
  auto* decorator = static_cast<OpDecorator*>(raw);
  WorkerScope scope(decorator);
  const Operation& op = *decorator->op;
  if (decorator->opt == nullptr) {
    ZLOG_AT(op.site, "%s pointer is (null)", op.opt_name);
    return -1;
  }
  return frame_run(op, decorator->handle, decorator->opt, decorator->user_data);
}

bool is_success(const Operation& op, int32_t status) {
  return status == op.success[0] || (op.success[1] != 0 && status == op.success[1]);
}

// The request URL from `path` and `args`; a failure message or none.
const char* build_url(const OpCall& call, char* url, long* url_length) {
  const Operation& op = call.op;
  if (op.url != nullptr) return op.url(call, url, url_length);
  const EscapedName names[3] = {
      EscapedName(op.args[0].kind == PathArg::name ? field<char16_t>(call.opt, op.args[0].offset) : nullptr),
      EscapedName(op.args[1].kind == PathArg::name ? field<char16_t>(call.opt, op.args[1].offset) : nullptr),
      EscapedName(op.args[2].kind == PathArg::name ? field<char16_t>(call.opt, op.args[2].offset) : nullptr)};
  const char* parts[3] = {"", "", ""};
  for (int i = 0; i < 3; ++i) {
    if (op.args[i].kind == PathArg::name) {
      // Ill-formed UTF-16 never reaches a URL in an altered form.
      if (!names[i].ok()) return kCannotEscapeKeys;
      parts[i] = names[i].get();
    } else if (op.args[i].kind == PathArg::text) {
      parts[i] = field<char>(call.opt, op.args[i].offset);
    }
  }
  *url_length = zel_api_url(call.handle, url, op.path, parts[0], parts[1], parts[2]);
  return nullptr;
}

// Copies through the transfer's own record, fits the process-wide pools
// to the handle and queues the task.
void transfer_start(const Operation& op, LogSite site, ZEL* handle, const void* opt, void* user_data) {
  const TransferOp& transfer = *op.transfer;
  const OpCall call{op, handle, opt, user_data};
  if (transfer.pre_dispatch != nullptr && !transfer.pre_dispatch(site, call)) return;
  bool reported = false;
  // Without a handle there is nothing to copy the settings from.
  void* record = handle != nullptr ? transfer.make(call, &reported) : nullptr;
  if (record == nullptr) {
    if (!reported) call.report(0, op.decorator_failure);
    return;
  }
  // Every call applies its own handle's limits to the process-wide pools.
  http_pool_set_size(static_cast<int>(handle->http_pool_size));
  thread_pool_set_size(static_cast<int>(handle->thread_pool_size));
  if (transfer_enqueue(transfer.task, record, transfer.drop, transfer.at_head) < 0) {
    call.report(0, transfer.queue_failure);
    transfer.drop(record);
  }
}

}  // namespace

bool Exchange::run(const ExchangePlan& p) {
  HttpPlan plan;
  plan.method = p.method;
  plan.url = p.url;
  plan.url_length = p.url_length;
  plan.settings = http_settings_from(p.handle);
  plan.get_token = p.handle->get_token;
  plan.free_token = p.handle->free_token;
  plan.headers = p.headers;
  plan.content_type = p.content_type;
  plan.body = p.body;
  plan.body_size = p.body != nullptr ? strlen(p.body) : 0;
  return HttpExchange::run(plan);
}

EscapedName::EscapedName(const char16_t* name) : text_(name != nullptr ? http_url_escape(name) : nullptr) {}

EscapedName::~EscapedName() {
  if (text_ != nullptr) http_text_free(text_);
}

void* opt_clone(const OptTable& table, const void* source) {
  if (source == nullptr) return nullptr;
  void* copy = mem_calloc(1, table.size);
  if (copy == nullptr) {
    ZLOG_AT(table.site, "%s", table.record_failure);
    return nullptr;
  }
  std::memcpy(copy, source, table.size);
  for (size_t i = 0; i < table.count; ++i) field<void>(copy, table.fields[i].offset) = nullptr;
  for (size_t i = 0; i < table.count; ++i) {
    if (!copy_field(table.fields[i], source, copy)) {
      ZLOG_AT(table.site, "%s", table.fields[i].failure);
      opt_free(table, copy);
      return nullptr;
    }
  }
  return copy;
}

void opt_free(const OptTable& table, void* copy) {
  if (copy == nullptr) return;
  for (size_t i = 0; i < table.count; ++i) free_field(table.fields[i], copy);
  mem_free(copy);
}

bool copy_wide(const char16_t* source, const char16_t** target) {
  *target = nullptr;
  if (source == nullptr) return true;
  *target = wide_dup(source);
  return *target != nullptr;
}

bool copy_text(const char* source, const char** target) {
  *target = nullptr;
  if (source == nullptr) return true;
  *target = mem_strdup(source);
  return *target != nullptr;
}

bool copy_headers(const ZELHeaders* source, ZELHeaders** target) {
  *target = zel_headers_clone(source);
  if (header_count(*target) == header_count(source)) return true;
  zel_headers_cleanup(*target);
  *target = nullptr;
  return false;
}

bool decorator_copies(const DecoratorRules& rules, const OptTable& table, const ZEL* handle, const void* opt,
                      ZEL** handle_copy, void** opt_copy) {
  *handle_copy = nullptr;
  *opt_copy = nullptr;
  if (handle != nullptr || rules.copies_required) {
    *handle_copy = zel_clone(handle);
    if (*handle_copy == nullptr) {
      if (rules.log_clone_failures) ZLOG_AT(rules.site, "Unable to clone zel");
      return false;
    }
  }
  if (opt != nullptr || rules.copies_required) {
    *opt_copy = opt_clone(table, opt);
    if (*opt_copy == nullptr) {
      if (rules.log_clone_failures) ZLOG_AT(rules.site, "Unable to clone opt");
      zel_cleanup(*handle_copy);
      *handle_copy = nullptr;
      return false;
    }
  }
  return true;
}

void decorator_release(const OptTable& table, ZEL* handle, void* opt) {
  zel_cleanup(handle);
  opt_free(table, opt);
}

void OpCall::report(int32_t code, const char* message) const { op.report(opt, code, message, user_data); }

void frame_start(const Operation& op, int32_t line, ZEL* handle, const void* opt, void* user_data) {
  const LogSite site{op.family_tag, line};
  if (op.check_handle && !frame_handle_ready(site, handle)) return;
  if (opt == nullptr) {
    ZLOG_AT(site, "%s is not initialized", op.opt_name);
    return;
  }
  if (op.transfer != nullptr) return transfer_start(op, site, handle, opt, user_data);
  const DecoratorRules rules{site, op.decorator_name, true, op.log_clone_failures};
  auto* decorator = decorator_make<OpDecorator>(rules, *op.copy, handle, opt, user_data);
  if (decorator == nullptr) {
    op.report(opt, 0, op.decorator_failure, user_data);
    return;
  }
  decorator->op = &op;
  // The worker may finish and free the decorator before thrd_create returns:
  // everything needed for a later report is taken from the caller's records.
  workers_add(1);
  zel::thrd_t thread;
  int result = zel::thrd_create(&thread, worker, decorator);
  if (result != zel::thrd_success) {
    workers_add(-1);
    op.report(opt, op.code_is_result ? result : 0, thread_result_message(result), user_data);
    free_decorator(decorator);
    return;
  }
  result = zel::thrd_detach(thread);
  if (result != zel::thrd_success) {
    op.report(opt, op.code_is_result ? result : 0, thread_result_message(result), user_data);
  }
}

bool frame_handle_ready(LogSite site, const ZEL* handle) {
  if (handle != nullptr && handle->get_token != nullptr) return true;
  ZLOG_AT(site, "ZEL is not initialized");
  return false;
}

int frame_run(const Operation& op, const ZEL* handle, const void* opt, void* user_data) {
  const OpCall call{op, handle, opt, user_data};
  if (const char* missing = op.missing != nullptr ? op.missing(opt) : nullptr) {
    call.report(0, missing);
    return -1;
  }
  char url[kUrlBuffer] = {0};
  long url_length = 0;
  if (const char* failure = build_url(call, url, &url_length)) {
    call.report(0, failure);
    return -1;
  }
  char* body = nullptr;
  if (op.body != nullptr && (body = op.body(opt, handle->api_version)) == nullptr) {
    call.report(0, op.body_failure);
    return -1;
  }
  Exchange exchange;
  const ExchangePlan plan{handle, op.headers(opt), op.method, url, op.content_type, body, url_length};
  const bool answered = exchange.run(plan);
  mem_free(body);
  if (answered && is_success(op, exchange.status())) {
    if (op.on_success != nullptr) op.on_success(call, exchange);
  } else if (op.on_failure != nullptr) {
    op.on_failure(call, exchange, answered);
  } else {
    HttpVerdict verdict(exchange, HttpVerdictRules{});
    call.report(verdict.code(), verdict.message());
  }
  if (answered) return exchange.status();
  return exchange.setup_failed() ? -1 : exchange.code();
}

void deliver_object_details(LogSite site, const OpCall& call, const Exchange& exchange,
                            void (*details_callback)(const ZELObjectDetails*, void*)) {
  if (details_callback == nullptr) return;
  ZELObjectDetails* details = zel_object_details_init();
  const char* body = exchange.body();
  if (details != nullptr && body != nullptr &&
      object_details_fromjson(body, details, call.handle->api_version) == 0) {
    details_callback(details, call.user_data);
  } else {
    if (details != nullptr)
      ZLOG_AT(site, "Cannot unmarshall json response: %s", body != nullptr ? body : "(null)");
    call.report(200, "Cannot unmarshall json response");
  }
  zel_object_details_cleanup(details);
}

int frame_running_workers() {
  zel::LockGuard lock(g_workers_lock);
  return g_running_workers;
}

void frame_wait_workers() {
  zel::LockGuard lock(g_workers_lock);
  while (g_running_workers > 0) zel::cnd_wait(&g_workers_done, &g_workers_lock);
}
