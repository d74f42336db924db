#pragma once
// The one request path. Every exchange of the library is described in full
// by an HttpPlan before anything is sent, run once by an HttpExchange, and
// judged by http_verdict. The checks that keep wrong bytes from passing for
// success live here and nowhere else:
//   - a URL that does not fit is refused, never cut ("The request URL is too
//     long", nothing sent);
//   - CR, LF (and so any attempt to add header lines) in a header name or
//     value, the bearer token, the session id or the content type is
//     refused before anything is sent, naming the text that carried it;
//   - a 2xx answer counts only when exactly `expect_length` bytes arrived,
//     and a 206 only when its Content-Range names exactly the range asked;
//   - in-memory answers (JSON, error bodies) stop at kHttpBodyCap bytes;
//   - at most kHttpMaxRedirects redirects, http and https only, and never to
//     another host while the request carries a token or the caller's lines;
//   - every exchange can be stopped from outside (http_stop_all).
//
// A minimal synchronous use, a fresh request that POSTs JSON and reads a
// JSON answer (what a service client needs):
//
//   HttpPlan plan;
//   plan.method = HttpMethod::post;
//   plan.url = url;                       // built by the caller
//   plan.settings = settings;             // low_speed_limit 0 etc.
//   plan.get_token = get_token;           // none: no Authorization line
//   plan.free_token = free_token;
//   plan.fields = fields;                 // the operation's own lines
//   plan.field_count = n;
//   plan.content_type = "application/json";
//   plan.body = json_text;                // in memory, sent as is
//   plan.body_size = strlen(json_text);
//   HttpExchange exchange;
//   exchange.run(plan);
//   static const int kOk[] = {200, 201};
//   HttpVerdict verdict(exchange, HttpVerdictRules{kOk, 2});
//   if (verdict.success()) parse(exchange.body()); else report(verdict.code(), verdict.message());
//
// Nothing here takes a lock across the exchange; one HttpExchange is used
// by one thread.
#include <zel/zel.h>

#include <cstddef>
#include <cstdint>

#include "http.h"

enum class HttpMethod { get, post, put, del };

// Longest URL sent: what the URL builders' 4096-byte buffers can hold.
constexpr long kHttpUrlMax = 4095;
constexpr const char* kHttpUrlTooLong = "The request URL is too long";
// Largest answer held in memory.
constexpr uint64_t kHttpBodyCap = 8ull * 1024 * 1024;
constexpr long kHttpMaxRedirects = 5;
// No byte count or offset above this is sent or accepted.
constexpr uint64_t kHttpMaxOffset = 1ull << 63;
constexpr uint64_t kHttpUnknownLength = UINT64_MAX;

// An operation's own header line, sent as "name:value".
struct HttpField {
  const char* name;
  const char* value;
};

// A byte range first..last, both included; `set` false means none.
struct HttpByteRange {
  bool set = false;
  uint64_t first = 0;
  uint64_t last = 0;
};

// Writes the body of an answer (whose HTTP status is `status`) somewhere
// other than memory. Returns the bytes it took; fewer than `size` aborts
// the transfer.
using HttpSinkFn = size_t (*)(const char* bytes, size_t size, int32_t status, void* data);
// Fills `buffer` with up to `size` bytes of a streamed request body; 0 at
// the end. CURL_READFUNC_ABORT aborts the transfer.
using HttpSourceFn = size_t (*)(char* buffer, size_t size, void* data);
// Puts a source back to `offset` bytes into its body, so that libcurl can
// send the body again (a redirect, a connection reset before the answer).
// False when it cannot.
using HttpSourceSeekFn = bool (*)(uint64_t offset, void* data);
// Progress of the running transfer; non-zero aborts it (libcurl code 42).
using HttpProgressFn = int (*)(void* data, uint64_t download_total, uint64_t downloaded,
                               uint64_t upload_total, uint64_t uploaded);

struct HttpPlan {
  HttpMethod method = HttpMethod::get;
  const char* url = nullptr;
  // What the URL builder returned: the full length even when its buffer
  // cut the text, -1 on its failure. Left at kUrlUnchecked, the length
  // of `url` itself is checked.
  long url_length = kUrlUnchecked;
  static constexpr long kUrlUnchecked = -2;

  HttpSettings settings{};
  // A request from the process-wide pool (transfers) or a fresh one that
  // is destroyed afterwards (single requests, service clients).
  bool pooled = false;
  // Large transport buffers for bulk data.
  bool bulk = false;

  // Header lines, sent in this order: token, session id, Content-Range,
  // Range, fields, the caller's lines, Content-Type.
  ZELGetTokenFn get_token = nullptr;  // none: no Authorization line
  ZELFreeTokenFn free_token = nullptr;
  const char* session_id = nullptr;  // "Session-Id:%s"
  HttpByteRange content_range;       // "Content-Range:bytes %llu-%llu/%llu"
  uint64_t content_range_total = 0;
  HttpByteRange range;  // "Range:bytes=%llu-%llu"
  const HttpField* fields = nullptr;
  size_t field_count = 0;
  const ZELHeaders* headers = nullptr;  // the caller's extra lines
  // POST: none sends no Content-Type line; PUT: none sends
  // application/octet-stream.
  const char* content_type = nullptr;

  // Request body (POST, PUT): `body_size` bytes from `body` in memory, or
  // from `source` when it is set. Neither: an empty body.
  const char* body = nullptr;
  uint64_t body_size = 0;
  HttpSourceFn source = nullptr;
  HttpSourceSeekFn source_seek = nullptr;  // none: the body cannot be sent again
  void* source_data = nullptr;

  // Answer body: into `sink` when set, else held in memory (at most
  // kHttpBodyCap bytes).
  HttpSinkFn sink = nullptr;
  void* sink_data = nullptr;
  // A 2xx answer must deliver exactly this many body bytes; with `range`
  // set, a 206 must also name exactly that range in its Content-Range.
  uint64_t expect_length = kHttpUnknownLength;

  HttpProgressFn progress = nullptr;
  void* progress_data = nullptr;
};

class HttpExchange {
 public:
  HttpExchange() = default;
  ~HttpExchange();  // returns or destroys the request, frees the answer
  HttpExchange(const HttpExchange&) = delete;
  HttpExchange& operator=(const HttpExchange&) = delete;

  // Runs the plan once. True when an HTTP answer came back and passed the
  // checks above; otherwise error() says why, code() is 0 when nothing was
  // sent or libcurl's code after a failed transfer (or the HTTP status of
  // an answer that failed a check), and retryable() tells whether the same
  // plan might succeed on another attempt.
  bool run(const HttpPlan& plan);

  int32_t status() const { return status_; }  // HTTP status; 0 without an answer
  int32_t code() const { return code_; }
  const char* error() const { return error_; }
  bool retryable() const { return retryable_; }
  bool sent() const { return sent_; }
  // Bytes of the answer's body taken by the sink or memory.
  uint64_t delivered() const { return delivered_; }
  // In-memory body as text (zero-terminated), or none when empty.
  const char* body() const;
  // Headers and statistics of the answer; none before run().
  const HttpResponse* response() const { return response_; }

  // Internal state reached from libcurl's callbacks.
  struct State;

 private:
  bool prepare(const HttpPlan& plan);
  bool finish(const HttpPlan& plan, int curl_code);
  bool fail(const char* error, int32_t code, bool retryable);

  HttpRequest* request_ = nullptr;
  HttpResponse* response_ = nullptr;
  State* state_ = nullptr;
  bool pooled_ = false;
  bool sent_ = false;
  bool retryable_ = false;
  int32_t status_ = 0;
  int32_t code_ = 0;
  const char* error_ = nullptr;
  uint64_t delivered_ = 0;
};

// What the operation counts as success, and how it words failures.
struct HttpVerdictRules {
  const int* success = nullptr;
  size_t success_count = 0;
  // Fixed texts "Not Found" for 404 and "Gateway Timeout" for 504.
  bool not_found_text = false;
  bool gateway_text = false;
  // Text for every other failed status; none: the error body's reason, the
  // raw body, or "(null)".
  const char* other_text = nullptr;
  // Read the error body's {"reason": ...}; false: the raw body.
  bool extract_reason = true;
};

// The judgement of one exchange: success, or the code and message to
// report and whether another attempt may help (transport failures and 5xx
// answers; never 4xx, an aborted transfer or a refused plan).
class HttpVerdict {
 public:
  HttpVerdict(const HttpExchange& exchange, const HttpVerdictRules& rules);
  ~HttpVerdict();
  HttpVerdict(const HttpVerdict&) = delete;
  HttpVerdict& operator=(const HttpVerdict&) = delete;

  bool success() const { return success_; }
  int32_t code() const { return code_; }
  const char* message() const { return message_; }  // never none
  bool retryable() const { return retryable_; }

 private:
  bool success_ = false;
  int32_t code_ = 0;
  const char* message_ = "(null)";
  bool retryable_ = false;
  char* reason_ = nullptr;
};

// True when a status may be worth another attempt: 5xx. A 4xx is the
// service refusing this very request, and asking again changes nothing.
bool http_status_retryable(int32_t status);

// The texts of `plan` that would add header lines of their own (the bearer
// token aside, which is only known when the request is built): the message
// naming the first one, or none. run() refuses such a plan; engines ask
// first so that nothing at all starts.
const char* http_plan_refusal(const HttpPlan& plan);

// True when a URL builder's result `length` is a URL that was not cut.
inline bool http_url_fits(long length) { return length >= 0 && length <= kHttpUrlMax; }

// Length of first..last, or false when it runs backwards or exceeds
// kHttpMaxOffset.
bool http_range_length(uint64_t first, uint64_t last, uint64_t* length);

// Asks every running exchange to stop (its transfer aborts with code 42 at
// its next progress tick) and lets new ones run again after `false`.
void http_stop_all(bool stop);
bool http_stopping();

// Parses "bytes first-last/total" (leading blanks and a line end allowed).
bool http_parse_content_range(const char* value, uint64_t* first, uint64_t* last, uint64_t* total);
