// The one request path: building a request from its plan, the checks made
// before anything is sent, the transfer, and the checks of what came back.
#include "http_plan.h"

#include <strings.h>

#include <atomic>
#include <cstring>
#include <initializer_list>

#include "alloc.h"
#include "http_internal.h"
#include "httppool.h"
#include "log.h"

namespace {
constexpr const char* kLogTag = "src\\http";
constexpr long kBulkBuffer = 512L * 1024;
// Bodies go out in pieces of this size: with half-megabyte pieces each
// connection alternated between a long read of the file and a long burst
// on the socket, and alternating chunked uploads were slower
// (medians of 14 runs 2.63 s against 2.27 s for 512 MiB).
constexpr long kUploadPiece = 64L * 1024;

std::atomic<bool> g_stop{false};

bool has_line_break(const char* text) { return text != nullptr && std::strpbrk(text, "\r\n") != nullptr; }

// Names the first text of the plan that would add lines of its own.
const char* refused_text_of(const HttpPlan& plan) {
  if (has_line_break(plan.session_id)) return "The session id contains CR or LF";
  if (has_line_break(plan.content_type)) return "The content type contains CR or LF";
  for (size_t i = 0; i < plan.field_count; i++) {
    if (has_line_break(plan.fields[i].name) || has_line_break(plan.fields[i].value))
      return "A header field contains CR or LF";
  }
  for (const ZELHeaders* h = plan.headers; h != nullptr; h = h->next) {
    if (has_line_break(h->line)) return "An extra header line contains CR or LF";
  }
  return nullptr;
}

bool url_fits(const HttpPlan& plan) {
  long length = plan.url_length;
  if (length == HttpPlan::kUrlUnchecked) length = static_cast<long>(std::strlen(plan.url));
  return http_url_fits(length);
}

bool is_status_line(const char* bytes, size_t n) { return n >= 5 && std::strncmp(bytes, "HTTP/", 5) == 0; }

// True when a Location resolves to another scheme, host or port than the
// URL it answers.
bool foreign_location(CURL* curl, const char* location) {
  char* current = nullptr;
  if (curl_easy_getinfo(curl, CURLINFO_EFFECTIVE_URL, &current) != CURLE_OK || current == nullptr)
    return true;
  CURLU* here = curl_url();
  CURLU* there = curl_url();
  bool foreign = true;
  if (here != nullptr && there != nullptr && curl_url_set(here, CURLUPART_URL, current, 0) == CURLUE_OK &&
      curl_url_set(there, CURLUPART_URL, current, 0) == CURLUE_OK &&
      curl_url_set(there, CURLUPART_URL, location, 0) == CURLUE_OK) {
    foreign = false;
    for (CURLUPart part : {CURLUPART_SCHEME, CURLUPART_HOST, CURLUPART_PORT}) {
      char* a = nullptr;
      char* b = nullptr;
      curl_url_get(here, part, &a, CURLU_DEFAULT_PORT);
      curl_url_get(there, part, &b, CURLU_DEFAULT_PORT);
      if (a == nullptr || b == nullptr || std::strcmp(a, b) != 0) foreign = true;
      curl_free(a);
      curl_free(b);
    }
  }
  curl_url_cleanup(here);
  curl_url_cleanup(there);
  return foreign;
}
}  // namespace

struct HttpExchange::State {
  const HttpPlan* plan;
  HttpResponse* response;
  CURL* curl;
  const char* memory;  // in-memory request body still to send
  uint64_t remaining;
  uint64_t delivered;
  bool over_cap;
  bool carries_private;  // a token or the caller's lines go with the request
  bool foreign_redirect;
};

namespace {
using State = HttpExchange::State;

bool location_refused(State* s, char* line, size_t n) {
  if (!s->carries_private || n < 9 || strncasecmp(line, "Location:", 9) != 0) return false;
  long code = 0;
  curl_easy_getinfo(s->curl, CURLINFO_RESPONSE_CODE, &code);
  if (code < 300 || code > 399) return false;
  const char* target = line + 9;
  while (*target == ' ' || *target == '\t') target++;
  s->foreign_redirect = foreign_location(s->curl, target);
  return s->foreign_redirect;
}

// Keeps the lines of the last answer only (a redirect or an interim answer
// starts over), each without its line end.
size_t exchange_header(char* bytes, size_t size, size_t count, void* raw) {
  auto* s = static_cast<State*>(raw);
  size_t n = size * count;
  if (is_status_line(bytes, n)) {
    curl_slist_free_all(s->response->headers);
    s->response->headers = nullptr;
  }
  char* line = http_header_text(bytes, n);
  if (line == nullptr) return 0;
  bool refused = location_refused(s, line, std::strlen(line));
  bool kept = refused || http_header_store(&s->response->headers, line);
  mem_free(line);
  return kept && !refused ? n : 0;
}

size_t exchange_write(char* bytes, size_t size, size_t count, void* raw) {
  auto* s = static_cast<State*>(raw);
  size_t n = size * count;
  if (s->plan->sink != nullptr) {
    long status = 0;
    curl_easy_getinfo(s->curl, CURLINFO_RESPONSE_CODE, &status);
    size_t took = s->plan->sink(bytes, n, static_cast<int32_t>(status), s->plan->sink_data);
    s->delivered += took;
    return took;
  }
  if (s->delivered + n > kHttpBodyCap) {
    s->over_cap = true;
    return 0;
  }
  size_t took = http_body_write(bytes, 1, n, s->response->body);
  s->delivered += took;
  return took;
}

size_t exchange_read(char* buffer, size_t size, size_t count, void* raw) {
  auto* s = static_cast<State*>(raw);
  size_t n = size * count;
  if (s->plan->source != nullptr) return s->plan->source(buffer, n, s->plan->source_data);
  size_t take = s->remaining < n ? static_cast<size_t>(s->remaining) : n;
  if (take > 0) std::memcpy(buffer, s->memory, take);
  s->memory += take;
  s->remaining -= take;
  return take;
}

int exchange_seek(void* raw, curl_off_t offset, int origin) {
  auto* s = static_cast<State*>(raw);
  const HttpPlan* p = s->plan;
  if (origin != SEEK_SET || offset < 0 || static_cast<uint64_t>(offset) > p->body_size)
    return CURL_SEEKFUNC_CANTSEEK;
  auto at = static_cast<uint64_t>(offset);
  if (p->source != nullptr) {
    if (p->source_seek == nullptr) return CURL_SEEKFUNC_CANTSEEK;
    return p->source_seek(at, p->source_data) ? CURL_SEEKFUNC_OK : CURL_SEEKFUNC_FAIL;
  }
  s->memory = p->body + at;
  s->remaining = p->body_size - at;
  return CURL_SEEKFUNC_OK;
}

int exchange_progress(void* raw, curl_off_t dt, curl_off_t dn, curl_off_t ut, curl_off_t un) {
  auto* s = static_cast<State*>(raw);
  if (g_stop.load(std::memory_order_relaxed)) return 1;
  const HttpPlan* p = s->plan;
  if (p->progress == nullptr) return 0;
  return p->progress(p->progress_data, static_cast<uint64_t>(dt), static_cast<uint64_t>(dn),
                     static_cast<uint64_t>(ut), static_cast<uint64_t>(un));
}

void add_lines(HttpRequest* request, const HttpPlan& plan) {
  if (plan.session_id != nullptr) http_request_add_session_id(request, plan.session_id);
  if (plan.content_range.set)
    http_request_add_content_range(request, plan.content_range.first, plan.content_range.last,
                                   plan.content_range_total);
  if (plan.range.set) http_request_add_range(request, plan.range.first, plan.range.last);
  for (size_t i = 0; i < plan.field_count; i++)
    http_request_add_header_kv(request, plan.fields[i].name, plan.fields[i].value);
  for (const ZELHeaders* h = plan.headers; h != nullptr; h = h->next)
    http_request_add_header(request, h->line);
}

// The bearer token, refused when it would add lines of its own.
const char* add_token(HttpRequest* request, const HttpPlan& plan) {
  if (plan.get_token == nullptr) return nullptr;
  char* token = plan.get_token();
  if (token == nullptr) return nullptr;
  const char* refused = has_line_break(token) ? "The bearer token contains CR or LF" : nullptr;
  if (refused == nullptr) http_request_add_bearer(request, token);
  if (plan.free_token != nullptr) plan.free_token(token);
  return refused;
}

template <typename T>
CURLcode opt(CURL* curl, CURLoption option, T value) {
  return curl_easy_setopt(curl, option, value);
}

// The method, the body source and libcurl's limits on where it may go.
CURLcode set_method(CURL* curl, const HttpPlan& plan) {
  CURLcode c = opt(curl, CURLOPT_URL, plan.url);
  if (c == CURLE_OK) c = opt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  if (c == CURLE_OK) c = opt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  if (c == CURLE_OK) c = opt(curl, CURLOPT_MAXREDIRS, kHttpMaxRedirects);
  if (c != CURLE_OK) return c;
  auto size = static_cast<curl_off_t>(plan.body_size);
  switch (plan.method) {
    case HttpMethod::get:
      return CURLE_OK;
    case HttpMethod::del:
      return opt(curl, CURLOPT_CUSTOMREQUEST, "DELETE");
    case HttpMethod::post:
      c = opt(curl, CURLOPT_POST, 1L);
      if (c == CURLE_OK) c = opt(curl, CURLOPT_POSTFIELDSIZE_LARGE, size);
      if (c == CURLE_OK && plan.source == nullptr)
        c = opt(curl, CURLOPT_POSTFIELDS, plan.body != nullptr ? plan.body : "");
      return c;
    case HttpMethod::put:
      c = opt(curl, CURLOPT_UPLOAD, 1L);
      if (c == CURLE_OK) c = opt(curl, CURLOPT_INFILESIZE_LARGE, size);
      return c;
  }
  return CURLE_OK;
}

CURLcode set_callbacks(CURL* curl, State* s) {
  CURLcode c = opt(curl, CURLOPT_HEADERFUNCTION, exchange_header);
  if (c == CURLE_OK) c = opt(curl, CURLOPT_HEADERDATA, s);
  if (c == CURLE_OK) c = opt(curl, CURLOPT_WRITEFUNCTION, exchange_write);
  if (c == CURLE_OK) c = opt(curl, CURLOPT_WRITEDATA, s);
  if (c == CURLE_OK) c = opt(curl, CURLOPT_READFUNCTION, exchange_read);
  if (c == CURLE_OK) c = opt(curl, CURLOPT_READDATA, s);
  if (c == CURLE_OK) c = opt(curl, CURLOPT_SEEKFUNCTION, exchange_seek);
  if (c == CURLE_OK) c = opt(curl, CURLOPT_SEEKDATA, s);
  if (c == CURLE_OK) c = opt(curl, CURLOPT_NOPROGRESS, 0L);
  if (c == CURLE_OK) c = opt(curl, CURLOPT_XFERINFOFUNCTION, exchange_progress);
  if (c == CURLE_OK) c = opt(curl, CURLOPT_XFERINFODATA, s);
  return c;
}

void set_content_type(HttpRequest* request, const HttpPlan& plan) {
  if (plan.method == HttpMethod::put) {
    http_request_add_content_type(
        request, plan.content_type != nullptr ? plan.content_type : "application/octet-stream");
    // No "Expect: 100-continue" round trip before each body.
    http_request_add_header(request, "Expect:");
  } else if (plan.method == HttpMethod::post) {
    // An empty value removes libcurl's own form type.
    if (plan.content_type != nullptr) {
      http_request_add_content_type(request, plan.content_type);
    } else {
      http_request_add_header(request, "Content-Type:");
    }
  }
}

void tune_bulk(CURL* curl) {
  if (opt(curl, CURLOPT_BUFFERSIZE, kBulkBuffer) != CURLE_OK ||
      opt(curl, CURLOPT_UPLOAD_BUFFERSIZE, kUploadPiece) != CURLE_OK)
    ZLOG("Cannot enlarge the transfer buffers");
}
}  // namespace

HttpExchange::~HttpExchange() {
  if (pooled_) {
    http_pool_release(request_);
  } else {
    http_request_cleanup(request_);
  }
  http_response_cleanup(response_);
  mem_free(state_);
}

bool HttpExchange::fail(const char* error, int32_t code, bool retryable) {
  error_ = error;
  code_ = code;
  retryable_ = retryable;
  return false;
}

const char* HttpExchange::body() const {
  if (response_ == nullptr || response_->body == nullptr || response_->body->size == 0) return nullptr;
  return response_->body->data;
}

bool HttpExchange::prepare(const HttpPlan& plan) {
  if (plan.url == nullptr) return fail("The request URL is missing", 0, false);
  if (!url_fits(plan)) {
    ZLOG("%s", kHttpUrlTooLong);
    return fail(kHttpUrlTooLong, 0, false);
  }
  if (const char* refused = http_plan_refusal(plan)) return fail(refused, 0, false);
  pooled_ = plan.pooled;
  request_ = pooled_ ? http_pool_acquire() : http_request_init();
  if (request_ == nullptr) return fail("Cannot initialize http request", 0, true);
  http_request_configure(request_, &plan.settings);
  if (plan.bulk) tune_bulk(request_->curl);
  if (const char* refused = add_token(request_, plan)) return fail(refused, 0, false);
  add_lines(request_, plan);
  set_content_type(request_, plan);
  response_ = http_response_init();
  if (response_ == nullptr) return fail("Cannot initialize http response", 0, true);
  response_->body = http_body_init();
  state_ = static_cast<State*>(mem_calloc(1, sizeof(State)));
  if (response_->body == nullptr || state_ == nullptr)
    return fail("Cannot initialize http response body", 0, true);
  *state_ = State{&plan, response_, request_->curl, plan.body, plan.body_size, 0, false, false, false};
  state_->carries_private = plan.headers != nullptr || plan.get_token != nullptr;
  CURLcode c = set_method(request_->curl, plan);
  if (c == CURLE_OK) c = set_callbacks(request_->curl, state_);
  if (c == CURLE_OK) c = opt(request_->curl, CURLOPT_HTTPHEADER, request_->headers);
  if (c != CURLE_OK) return fail(curl_easy_strerror(c), 0, false);
  return true;
}

bool HttpExchange::run(const HttpPlan& plan) {
  if (!prepare(plan)) return false;
  sent_ = true;
  CURLcode code = curl_easy_perform(request_->curl);
  delivered_ = state_->delivered;
  return finish(plan, code);
}

bool HttpExchange::finish(const HttpPlan& plan, int curl_code) {
  if (state_->over_cap) return fail("The answer is larger than the 8 MiB held in memory", curl_code, false);
  if (state_->foreign_redirect)
    return fail("The answer redirects to another host, where the request's headers must not go", curl_code,
                false);
  if (curl_code != CURLE_OK) {
    response_->status = curl_code;
    bool retry = curl_code != CURLE_ABORTED_BY_CALLBACK && curl_code != CURLE_TOO_MANY_REDIRECTS &&
                 curl_code != CURLE_UNSUPPORTED_PROTOCOL;
    return fail(curl_easy_strerror(static_cast<CURLcode>(curl_code)), curl_code, retry);
  }
  http_read_results(request_->curl, response_);
  status_ = response_->status;
  if (status_ < 200 || status_ > 299) return true;
  if (plan.expect_length != kHttpUnknownLength && delivered_ != plan.expect_length) {
    return fail(delivered_ < plan.expect_length ? "The answer ended before every requested byte arrived"
                                                : "The answer holds more bytes than were requested",
                status_, true);
  }
  if (status_ == 206 && plan.range.set) {
    uint64_t first = 0, last = 0, total = 0;
    char* value = http_response_header(response_, "Content-Range");
    bool named = http_parse_content_range(value, &first, &last, &total);
    mem_free(value);
    if (!named || first != plan.range.first || last != plan.range.last)
      return fail("The answer's Content-Range does not name the requested range", status_, true);
  }
  return true;
}

const char* http_plan_refusal(const HttpPlan& plan) { return refused_text_of(plan); }

bool http_status_retryable(int32_t status) { return status >= 500 && status <= 599; }

bool http_range_length(uint64_t first, uint64_t last, uint64_t* length) {
  if (last < first || last - first >= kHttpMaxOffset || last >= kHttpMaxOffset) return false;
  *length = last - first + 1;
  return true;
}

void http_stop_all(bool stop) { g_stop.store(stop); }

bool http_stopping() { return g_stop.load(); }

bool http_parse_content_range(const char* value, uint64_t* first, uint64_t* last, uint64_t* total) {
  if (value == nullptr) return false;
  while (*value == ' ' || *value == '\t') value++;
  if (std::strncmp(value, "bytes ", 6) != 0) return false;
  value += 6;
  uint64_t* out[3] = {first, last, total};
  const char separators[3] = {'-', '/', '\0'};
  for (int i = 0; i < 3; i++) {
    if (*value < '0' || *value > '9') return false;
    uint64_t n = 0;
    for (; *value >= '0' && *value <= '9'; value++) {
      if (n > (kHttpMaxOffset - 9) / 10) return false;
      n = n * 10 + static_cast<uint64_t>(*value - '0');
    }
    *out[i] = n;
    if (*value != separators[i]) return false;
    if (i < 2) value++;
  }
  return *first <= *last && *last < *total;
}
