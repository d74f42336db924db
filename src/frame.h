#pragma once
// The frame every single-request operation follows: argument checks and
// copies on the caller's thread, one detached thread per call, one HTTP
// exchange on a fresh (unpooled) request, and one judgement of the status.
// Operation modules only add their URL, method, body and success handling.
#include <zel/zel.h>

#include <cstdint>

#include "alloc.h"
#include "http.h"
#include "http_plan.h"
#include "log.h"

// The worker's own copies. The decorator owns both copies; whoever finishes
// last with it (the worker, or the entry point when dispatch fails) frees it.
template <class Opt>
struct OpDecorator {
  ZEL* handle;
  Opt* opt;
  void* user_data;
};

// Every status record starts with {code, message}; one template fills any.
template <class Resp>
void report(void (*callback)(const Resp*, void*), int32_t code, const char* message, void* user_data) {
  if (callback == nullptr) return;
  Resp resp{};
  resp.code = code;
  resp.message = message != nullptr ? message : "(null)";
  callback(&resp, user_data);
}

struct ExchangePlan {
  const ZEL* handle;
  const ZELHeaders* headers;  // caller's extra lines, sent in list order
  HttpMethod method;
  const char* url;
  const char* content_type;  // POST: none means no Content-Type line
  const char* body;          // POST only; none sends an empty body
  long url_length;           // what the URL builder returned
};

// One single request on a fresh (unpooled) request, through the library's
// one request path.
class Exchange : public HttpExchange {
 public:
  // True when an HTTP answer came back; otherwise error() names the failed
  // step and code() is 0 before the transfer or libcurl's code after it.
  bool run(const ExchangePlan& plan);
  // True when nothing went on the wire.
  bool setup_failed() const { return !sent(); }
};

// Reports a failed exchange or a non-success status through `callback`:
// "Unauthorized", "Forbidden", else the error body's reason, the raw body,
// or "(null)".
template <class Resp>
void report_failure(void (*callback)(const Resp*, void*), const HttpExchange& exchange, void* user_data) {
  if (callback == nullptr) return;
  HttpVerdict verdict(exchange, HttpVerdictRules{});
  report(callback, verdict.code(), verdict.message(), user_data);
}

// Reported when a key is not well-formed UTF-16 and so cannot be put into a
// URL unaltered.
constexpr const char* kCannotEscapeKeys = "Cannot encode the keys for the request URL";

// URL-escaped UTF-8 form of a wide name, released with http_text_free.
class EscapedName {
 public:
  explicit EscapedName(const char16_t* name);
  ~EscapedName();
  EscapedName(const EscapedName&) = delete;
  EscapedName& operator=(const EscapedName&) = delete;
  const char* get() const { return text_; }
  bool ok() const { return text_ != nullptr; }

 private:
  char* text_ = nullptr;
};

// Parses an object-details body and hands it to details_callback; on a
// parse failure logs "Cannot unmarshall json response: %s" and reports
// (200, "Cannot unmarshall json response"). Nothing happens without a
// details_callback.
// Returns false (after logging under `tag`) when the body did not parse.
bool parse_object_details(const char* tag, const char* body, uint32_t api_version,
                          void (*details_callback)(const ZELObjectDetails*, void*), void* user_data);

template <class Resp>
void deliver_object_details(const char* tag, const Exchange& exchange, uint32_t api_version,
                            void (*details_callback)(const ZELObjectDetails*, void*),
                            void (*callback)(const Resp*, void*), void* user_data) {
  if (details_callback == nullptr) return;
  if (!parse_object_details(tag, exchange.body(), api_version, details_callback, user_data)) {
    report(callback, 200, "Cannot unmarshall json response", user_data);
  }
}

// Thread start and detach of an entry point. Calls `callback` with `code`
// (0, or the thread result when `code_is_result`) and the thread result's
// message when the thread cannot be started (and then frees the decorator)
// or cannot be detached.
using FreeFn = void (*)(void*);
void dispatch_detached(int (*worker)(void*), void* decorator, FreeFn free_decorator,
                       void (*report_fn)(int32_t code, const char* message, void* callback, void* user_data),
                       void* callback, void* user_data, bool code_is_result);

// Adapter so dispatch_detached can report through any typed callback.
template <class Resp>
void report_erased(int32_t code, const char* message, void* callback, void* user_data) {
  report(reinterpret_cast<void (*)(const Resp*, void*)>(callback), code, message, user_data);
}

template <class Resp>
void dispatch(int (*worker)(void*), void* decorator, FreeFn free_decorator,
              void (*callback)(const Resp*, void*), void* user_data, bool code_is_result) {
  dispatch_detached(worker, decorator, free_decorator, report_erased<Resp>, reinterpret_cast<void*>(callback),
                    user_data, code_is_result);
}

// Copies for options clones. Absent stays absent; false when memory ran out.
bool copy_wide(const char16_t* source, const char16_t** target);
bool copy_text(const char* source, const char** target);
// A non-empty list whose copy comes back empty is a failure.
bool copy_headers(const ZELHeaders* source, ZELHeaders** target);
void free_wide(const char16_t* text);
void free_text(const char* text);

// Number of operation threads started and not yet finished. Lets tests
// (and a careful shutdown) wait until detached workers are gone.
int frame_running_workers();
// Blocks, without spinning, until no operation thread is running.
void frame_wait_workers();

// Held by every worker for its whole run.
class WorkerScope {
 public:
  WorkerScope() = default;
  ~WorkerScope();
  WorkerScope(const WorkerScope&) = delete;
  WorkerScope& operator=(const WorkerScope&) = delete;
};

// ---------------------------------------------------------------------------
// Entry points and decorators.

struct EntryConfig {
  const char* tag;              // log tag of the entry point's module
  const char* opt_name;         // "ZELDeleteObjectOpt": logged "<name> is not initialized"
  const char* decorator_name;   // logged "Cannot allocate memory for <name>"
  const char* failure_message;  // reported with code 0 when no decorator results
  bool check_handle;            // refuse a missing handle or token function
  bool log_clone_failures;      // log "Unable to clone zel" / "Unable to clone opt"
  bool code_is_result;          // report thread results as the code (bucket operations)
};

template <class Opt, void (*FreeOpt)(Opt*)>
void free_decorator(void* raw) {
  auto* decorator = static_cast<OpDecorator<Opt>*>(raw);
  if (decorator == nullptr) return;
  zel_cleanup(decorator->handle);
  FreeOpt(decorator->opt);
  mem_free(decorator);
}

// Frees the decorator when the worker ends, whatever the path.
template <class Opt, void (*FreeOpt)(Opt*)>
struct DecoratorGuard {
  OpDecorator<Opt>* decorator;
  ~DecoratorGuard() { free_decorator<Opt, FreeOpt>(decorator); }
};

// The options a worker runs with; none (logged under `tag`) when the
// decorator or its options copy is missing.
template <class Opt>
const Opt* worker_options(const char* tag, const OpDecorator<Opt>* decorator, const char* decorator_name,
                          const char* opt_name) {
  if (decorator == nullptr) {
    zel_log(nullptr, tag, __LINE__, "%s pointer is (null)", decorator_name);
    return nullptr;
  }
  if (decorator->opt == nullptr) zel_log(nullptr, tag, __LINE__, "%s pointer is (null)", opt_name);
  return decorator->opt;
}

template <class Opt, Opt* (*Clone)(const Opt*), void (*FreeOpt)(Opt*)>
OpDecorator<Opt>* make_decorator(const EntryConfig& cfg, const ZEL* handle, const Opt* opt, void* user_data) {
  auto* decorator = static_cast<OpDecorator<Opt>*>(mem_calloc(1, sizeof(OpDecorator<Opt>)));
  if (decorator == nullptr) {
    zel_log(nullptr, cfg.tag, __LINE__, "Cannot allocate memory for %s", cfg.decorator_name);
    return nullptr;
  }
  decorator->handle = zel_clone(handle);
  if (decorator->handle == nullptr) {
    if (cfg.log_clone_failures) zel_log(nullptr, cfg.tag, __LINE__, "Unable to clone zel");
    mem_free(decorator);
    return nullptr;
  }
  decorator->opt = Clone(opt);
  if (decorator->opt == nullptr) {
    if (cfg.log_clone_failures) zel_log(nullptr, cfg.tag, __LINE__, "Unable to clone opt");
    zel_cleanup(decorator->handle);
    mem_free(decorator);
    return nullptr;
  }
  decorator->user_data = user_data;
  return decorator;
}

// Checks, copies and hands the call to a detached worker thread.
template <class Opt, class Resp, Opt* (*Clone)(const Opt*), void (*FreeOpt)(Opt*)>
void start_operation(const EntryConfig& cfg, ZEL* handle, const Opt* opt, void* user_data,
                     int (*worker)(void*)) {
  if (cfg.check_handle && (handle == nullptr || handle->get_token == nullptr)) {
    zel_log(nullptr, cfg.tag, __LINE__, "ZEL is not initialized");
    return;
  }
  if (opt == nullptr) {
    zel_log(nullptr, cfg.tag, __LINE__, "%s is not initialized", cfg.opt_name);
    return;
  }
  auto* decorator = make_decorator<Opt, Clone, FreeOpt>(cfg, handle, opt, user_data);
  if (decorator == nullptr) {
    report(opt->callback, 0, cfg.failure_message, user_data);
    return;
  }
  dispatch<Resp>(worker, decorator, free_decorator<Opt, FreeOpt>, opt->callback, user_data,
                 cfg.code_is_result);
}

// Options made of a bucket key, an object key, headers and callbacks share
// one copy: the whole record first (callbacks included), then owned copies
// of the texts in the order the operation's messages give.
struct KeyPairMessages {
  const char* record;
  const char* first;   // message when the first key copy fails
  const char* second;  // message when the second key copy fails
  const char* headers;
  bool key_first;  // copy the object key before the bucket key
};

template <class Opt>
void free_key_pair_opt(Opt* opt) {
  if (opt == nullptr) return;
  free_wide(opt->bucket_key);
  free_wide(opt->key);
  zel_headers_cleanup(opt->headers);
  mem_free(opt);
}

template <class Opt>
Opt* clone_key_pair_opt(const char* tag, const Opt* source, const KeyPairMessages& m) {
  auto* copy = static_cast<Opt*>(mem_calloc(1, sizeof(Opt)));
  if (copy == nullptr) {
    zel_log(nullptr, tag, __LINE__, "%s", m.record);
    return nullptr;
  }
  *copy = *source;
  copy->bucket_key = copy->key = nullptr;
  copy->headers = nullptr;
  const char16_t* first = m.key_first ? source->key : source->bucket_key;
  const char16_t* second = m.key_first ? source->bucket_key : source->key;
  const char16_t** first_target = m.key_first ? &copy->key : &copy->bucket_key;
  const char16_t** second_target = m.key_first ? &copy->bucket_key : &copy->key;
  const char* failure = nullptr;
  if (!copy_wide(first, first_target)) {
    failure = m.first;
  } else if (!copy_wide(second, second_target)) {
    failure = m.second;
  } else if (!copy_headers(source->headers, &copy->headers)) {
    failure = m.headers;
  }
  if (failure != nullptr) {
    zel_log(nullptr, tag, __LINE__, "%s", failure);
    free_key_pair_opt(copy);
    return nullptr;
  }
  return copy;
}
