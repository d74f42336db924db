// Transport records, libcurl's process-wide state and URL escaping.
#include "http.h"

#include <atomic>
#include <cstring>

#include "alloc.h"
#include "http_internal.h"
#include "log.h"
#include "util.h"

namespace {
constexpr const char* kLogTag = "src\\http";
constexpr const char* kUserAgent = "zel-c-sdk/2.7.3";

std::atomic<bool> g_global_ready{false};

// The options every request starts with, fresh or reset. Failures are only
// logged: a request without them still works, just less politely.
void apply_defaults(CURL* curl) {
  http_setopt_logged(curl, CURLOPT_FOLLOWLOCATION, 1L);
  http_setopt_logged(curl, CURLOPT_NOSIGNAL, 1L);
  http_setopt_logged(curl, CURLOPT_USERAGENT, kUserAgent);
}

// Frees what a request owns besides its handle and leaves the fields empty.
void release_parts(HttpRequest* request) {
  curl_slist_free_all(request->headers);
  request->headers = nullptr;
  http_body_cleanup(request->body);
  request->body = nullptr;
  http_progress_cleanup(request->progress);
  request->progress = nullptr;
}
}  // namespace

void http_log_curl_error(CURLcode code) { ZLOG("%s", curl_easy_strerror(code)); }

HttpSettings http_settings_from(const ZEL* handle) {
  HttpSettings settings{};
  if (handle == nullptr) return settings;
  settings.timeout_ms = handle->timeout_ms;
  settings.low_speed_limit = handle->low_speed_limit;
  settings.low_speed_time = handle->low_speed_time;
  settings.ssl_verify_peer = handle->ssl_verify_peer;
  settings.max_send_speed = handle->max_send_speed;
  settings.max_recv_speed = handle->max_recv_speed;
  settings.proxy = handle->proxy;
  settings.proxy_username = handle->proxy_username;
  settings.proxy_password = handle->proxy_password;
  return settings;
}

int http_global_init() {
  CURLcode code = curl_global_init(CURL_GLOBAL_ALL);
  if (code != CURLE_OK) {
    ZLOG("curl_global_init: %s", curl_easy_strerror(code));
    return -1;
  }
  g_global_ready.store(true);
  return 0;
}

void http_global_cleanup() {
  // libcurl counts its start-ups; only undo the one this module made.
  if (g_global_ready.exchange(false)) curl_global_cleanup();
}

bool http_global_ready() { return g_global_ready.load(); }

HttpRequest* http_request_init() {
  auto* request = static_cast<HttpRequest*>(mem_calloc(1, sizeof(HttpRequest)));
  if (request == nullptr) return nullptr;
  request->curl = curl_easy_init();
  if (request->curl == nullptr) {
    ZLOG("Cannot initialize curl handler");
    mem_free(request);
    return nullptr;
  }
  apply_defaults(request->curl);
  return request;
}

void http_request_reset(HttpRequest* request) {
  if (request == nullptr) return;
  release_parts(request);
  if (request->curl == nullptr) return;
  curl_easy_reset(request->curl);
  apply_defaults(request->curl);
}

void http_request_cleanup(HttpRequest* request) {
  if (request == nullptr) return;
  if (request->curl != nullptr) curl_easy_cleanup(request->curl);
  release_parts(request);
  mem_free(request);
}

HttpResponse* http_response_init() { return static_cast<HttpResponse*>(mem_calloc(1, sizeof(HttpResponse))); }

void http_response_cleanup(HttpResponse* response) {
  if (response == nullptr) return;
  curl_slist_free_all(response->headers);
  http_body_cleanup(response->body);
  mem_free(response);
}

void http_release(HttpRequest* request, HttpResponse* response) {
  http_request_cleanup(request);
  http_response_cleanup(response);
}

HttpBody* http_body_init() { return static_cast<HttpBody*>(mem_calloc(1, sizeof(HttpBody))); }

void http_body_cleanup(HttpBody* body) {
  if (body == nullptr) return;
  mem_free(body->data);
  mem_free(body);
}

HttpProgress* http_progress_init() { return static_cast<HttpProgress*>(mem_calloc(1, sizeof(HttpProgress))); }

void http_progress_cleanup(HttpProgress* progress) {
  if (progress == nullptr) return;
  mem_free(progress->data);
  mem_free(progress);
}

size_t http_body_write(char* bytes, size_t size, size_t count, void* raw) {
  auto* body = static_cast<HttpBody*>(raw);
  size_t n = size * count;
  if (body == nullptr) return 0;
  auto* grown = static_cast<char*>(mem_realloc(body->data, body->size + n + 1));
  if (grown == nullptr) {
    ZLOG("Cannot reallocate http body content");
    return 0;
  }
  if (n > 0) std::memcpy(grown + body->size, bytes, n);
  grown[body->size + n] = '\0';
  body->data = grown;
  body->size += n;
  return n;
}

namespace {
// libcurl leaves "." unescaped, and a path segment of only dots is folded
// away by URL normalisation ("a/../b" is "b"): a key "." or ".." would then
// name another object. Such a name is sent fully percent-encoded.
char* escape_dot_segment(char* escaped) {
  size_t n = strlen(escaped);
  if (n == 0 || strspn(escaped, ".") != n) return escaped;
  // Built through libcurl so that the caller can still free it with
  // curl_free: "%252E" unescapes to "%2E".
  auto* twice = static_cast<char*>(mem_malloc(n * 5 + 1));
  curl_free(escaped);
  if (twice == nullptr) return nullptr;
  for (size_t i = 0; i < n; ++i) std::memcpy(twice + i * 5, "%252E", 5);
  twice[n * 5] = '\0';
  char* result = curl_easy_unescape(nullptr, twice, 0, nullptr);
  mem_free(twice);
  return result;
}
}  // namespace

char* http_url_escape(const char16_t* text) {
  char* utf8 = wide_to_utf8(text);
  if (utf8 == nullptr) return nullptr;
  // Since libcurl 7.82 escaping needs no transfer handle.
  char* escaped = curl_easy_escape(nullptr, utf8, 0);
  mem_free(utf8);
  return escaped != nullptr ? escape_dot_segment(escaped) : nullptr;
}

char* http_url_unescape(const char* text) {
  if (text == nullptr) return nullptr;
  return curl_easy_unescape(nullptr, text, 0, nullptr);
}

void http_text_free(char* text) { curl_free(text); }
