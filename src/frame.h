#pragma once
// The frame every single-request operation follows: argument checks and
// copies on the caller's thread, one detached thread per call, one HTTP
// exchange on a fresh (unpooled) request, and one judgement of the status.
// An operation module is a table (an Operation) plus its success handler;
// the frame owns the one worker that runs any such table.
#include <zel/zel.h>

#include <cstddef>
#include <cstdint>

#include "alloc.h"
#include "http.h"
#include "http_plan.h"
#include "log.h"

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

// ---------------------------------------------------------------------------
// Options copies. Each options record has one table listing the fields it
// owns, in the order they are copied, with the message logged when a copy
// fails; one clone and one free read the same table, so they cannot
// disagree. The clone copies the whole record first (callbacks and scalars
// included), then makes owned copies of the listed fields.

enum class FieldKind : uint8_t { wide, text, headers, permissions, range, stream };

struct OptField {
  FieldKind kind;
  size_t offset;
  const char* failure;  // logged when this field's copy fails
};

struct OptTable {
  LogSite site;                // where copy failures are logged
  const char* record_failure;  // logged when the record itself cannot be allocated
  size_t size;
  const OptField* fields;
  size_t count;
};

#define OPT_FIELD(kind, Record, member, failure) \
  OptField { FieldKind::kind, offsetof(Record, member), failure }

template <class Record, size_t N>
constexpr OptTable opt_table(LogSite site, const char* record_failure, const OptField (&fields)[N]) {
  return OptTable{site, record_failure, sizeof(Record), fields, N};
}

// Deep copy of `source` (none gives none); none, logged, when memory ran
// out, with every partial copy freed.
void* opt_clone(const OptTable& table, const void* source);
// Frees a copy made by opt_clone (none accepted).
void opt_free(const OptTable& table, void* copy);

template <class Opt>
Opt* opt_clone_as(const OptTable& table, const Opt* source) {
  return static_cast<Opt*>(opt_clone(table, source));
}

// Copies outside a table. Absent stays absent; false when memory ran out.
bool copy_wide(const char16_t* source, const char16_t** target);
bool copy_text(const char* source, const char** target);
// A header list whose copy lost a line (the list copy skips lines it cannot
// allocate) is a failure: a request must never go out without a header
// line its caller asked for.
bool copy_headers(const ZELHeaders* source, ZELHeaders** target);

// ---------------------------------------------------------------------------
// Decorators: the handle and options copies a worker runs with. Any record
// with `handle`, `opt` and `user_data` members is built by decorator_make
// and released by decorator_free.

struct DecoratorRules {
  LogSite site;             // where the decorator's own failures are logged
  const char* record_name;  // logged "Cannot allocate memory for <name>"
  bool copies_required;     // a missing handle or options record is a failure
  bool log_clone_failures;  // log "Unable to clone zel" / "Unable to clone opt"
};

// Fills *handle and *opt with copies; false (nothing left allocated) when a
// copy failed.
bool decorator_copies(const DecoratorRules& rules, const OptTable& table, const ZEL* handle, const void* opt,
                      ZEL** handle_copy, void** opt_copy);
void decorator_release(const OptTable& table, ZEL* handle, void* opt);

template <class Decorator>
void decorator_free(const OptTable& table, Decorator* decorator) {
  if (decorator == nullptr) return;
  decorator_release(table, decorator->handle, decorator->opt);
  mem_free(decorator);
}

template <class Decorator>
Decorator* decorator_make(const DecoratorRules& rules, const OptTable& table, const ZEL* handle,
                          const void* opt, void* user_data) {
  auto* decorator = static_cast<Decorator*>(mem_calloc(1, sizeof(Decorator)));
  if (decorator == nullptr) {
    ZLOG_AT(rules.site, "Cannot allocate memory for %s", rules.record_name);
    return nullptr;
  }
  void* opt_copy = nullptr;
  if (!decorator_copies(rules, table, handle, opt, &decorator->handle, &opt_copy)) {
    mem_free(decorator);
    return nullptr;
  }
  decorator->opt = static_cast<decltype(decorator->opt)>(opt_copy);
  decorator->user_data = user_data;
  return decorator;
}

// ---------------------------------------------------------------------------
// Single-request operations.

struct Operation;

// What a handler sees: the operation, and the handle and options it runs
// with (the worker's copies, or a caller's records for frame_run).
struct OpCall {
  const Operation& op;
  const ZEL* handle;
  const void* opt;
  void* user_data;
  template <class Opt>
  const Opt* options() const {
    return static_cast<const Opt*>(opt);
  }
  // Reports through the options' status callback.
  void report(int32_t code, const char* message) const;
};

// A piece of the request path: an escaped wide name or a text taken as it
// stands (the missing-field check vouches for it).
struct PathArg {
  enum Kind : uint8_t { none, name, text } kind;
  size_t offset;
};
#define PATH_NAME(Record, member) \
  PathArg { PathArg::name, offsetof(Record, member) }
#define PATH_TEXT(Record, member) \
  PathArg { PathArg::text, offsetof(Record, member) }

using ReportFn = void (*)(const void* opt, int32_t code, const char* message, void* user_data);

template <class Opt>
void report_to_options(const void* opt, int32_t code, const char* message, void* user_data) {
  report(static_cast<const Opt*>(opt)->callback, code, message, user_data);
}

template <class Opt>
const ZELHeaders* headers_of(const void* opt) {
  return static_cast<const Opt*>(opt)->headers;
}

// A transfer: queued on the worker pool (transfer_enqueue) instead of run
// as one exchange on a thread of its own. The task owns its record from the
// moment it is queued.
struct TransferOp {
  // What the transfer checks before anything is copied; false when the
  // call ends here, having logged at `site` or reported.
  bool (*pre_dispatch)(LogSite site, const OpCall& call) = nullptr;
  // The task's record (its own copies of handle and options); none when a
  // copy failed, with *reported set when that failure was reported already
  // (otherwise the operation's decorator_failure is reported).
  void* (*make)(const OpCall& call, bool* reported) = nullptr;
  void (*task)(void* record) = nullptr;
  void (*drop)(void* record) = nullptr;  // frees a record that never ran
  bool at_head = false;                  // downloads go first, uploads queue behind
  const char* queue_failure = nullptr;   // reported with code 0 when queueing fails
};

struct Operation {
  // Entry point (caller's thread).
  const char* family_tag = nullptr;         // tag of the entry point's checks
  const char* opt_name = nullptr;           // "ZELDeleteObjectOpt"
  const char* decorator_name = nullptr;     // "ZELDeleteObjectDecorator"
  const char* decorator_failure = nullptr;  // reported with code 0 when no decorator results
  bool check_handle = false;                // refuse a missing handle or token function
  bool log_clone_failures = false;          // log "Unable to clone zel" / "Unable to clone opt"
  bool code_is_result = false;              // report thread results as the code
  const OptTable* copy = nullptr;           // the options record's copy
  ReportFn report = nullptr;                // report_to_options<Opt>
  const ZELHeaders* (*headers)(const void* opt) = nullptr;  // headers_of<Opt>
  const TransferOp* transfer = nullptr;                     // set: queued as a transfer, no worker

  // Worker.
  LogSite site{nullptr, 0};                           // the module's own log lines
  const char* (*missing)(const void* opt) = nullptr;  // message of a missing field, or none
  const char* path = nullptr;                         // "/buckets/%s/objects/%s": args fill the %s in order
  PathArg args[3] = {};
  // Writes the URL itself instead of `path`; returns a failure message or none.
  const char* (*url)(const OpCall& call, char* url, long* url_length) = nullptr;
  HttpMethod method = HttpMethod::get;
  const char* content_type = nullptr;
  char* (*body)(const void* opt, uint32_t api_version) = nullptr;  // mem_free'd after the exchange
  const char* body_failure = nullptr;  // reported with code 0 when `body` gives none
  int32_t success[2] = {200, 0};       // statuses handled by on_success (0: unused)
  void (*on_success)(const OpCall& call, const Exchange& exchange) = nullptr;
  // Replaces the standard failure report (report_failure) when set.
  // `answered`: an HTTP answer came back (else the exchange itself failed).
  void (*on_failure)(const OpCall& call, const Exchange& exchange, bool answered) = nullptr;
};

// Binds an operation to its options record's type.
template <class Opt>
void operation_for(Operation& op, const OptTable& copy) {
  op.copy = &copy;
  op.report = report_to_options<Opt>;
  op.headers = headers_of<Opt>;
}

// Checks, copies and hands the call to a detached worker thread that runs
// `op`, or queues it when `op` is a transfer; entry-point log lines carry
// the caller's `line`.
void frame_start(const Operation& op, int32_t line, ZEL* handle, const void* opt, void* user_data);
#define FRAME_START(op, handle, opt, user_data) frame_start(op, __LINE__, handle, opt, user_data)

// False, with "ZEL is not initialized" logged at `site`, for a missing
// handle or one without a token function.
bool frame_handle_ready(LogSite site, const ZEL* handle);

// One exchange of `op` on the current thread with the caller's records:
// reports through the options' callbacks and returns the HTTP status, -1
// when nothing went on the wire, or libcurl's code when the transfer failed.
int frame_run(const Operation& op, const ZEL* handle, const void* opt, void* user_data);

// Parses an object-details body and hands it to details_callback; on a
// parse failure logs "Cannot unmarshall json response: %s" at `site` and
// reports (200, "Cannot unmarshall json response"). Nothing happens
// without a details_callback.
void deliver_object_details(LogSite site, const OpCall& call, const Exchange& exchange,
                            void (*details_callback)(const ZELObjectDetails*, void*));

// Number of operation threads started and not yet finished. Lets tests
// (and a careful shutdown) wait until detached workers are gone.
int frame_running_workers();
// Blocks, without spinning, until no operation thread is running.
void frame_wait_workers();
