// Building a request: transfer settings, header lines and the methods.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "alloc.h"
#include "http.h"
#include "http_internal.h"
#include "log.h"
#include "zel_internal.h"

namespace {
constexpr const char* kLogTag = "src\\http";
constexpr const char* kNoRequest = "HttpRequest is not initialized";
constexpr curl_off_t kLargeUpload = 0x80000000LL;

// Prints one header line, cut to kHeaderLineMax characters, and appends it
// when it is not empty. A line that cannot be stored is logged and dropped.
void append_line(HttpRequest* request, const char* format, ...) ZEL_PRINTF(2, 3);
void append_line(HttpRequest* request, const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  int full = vsnprintf(nullptr, 0, format, args);
  va_end(args);
  size_t length = full < 0 ? 0 : static_cast<size_t>(full);
  if (length > kHeaderLineMax) length = kHeaderLineMax;
  char* line = length > 0 ? static_cast<char*>(mem_calloc(length + 1, 1)) : nullptr;
  if (line != nullptr) vsnprintf(line, length + 1, format, again);
  va_end(again);
  if (length == 0) return;
  curl_slist* grown = line != nullptr ? curl_slist_append(request->headers, line) : nullptr;
  if (grown == nullptr) {
    ZLOG("Cannot allocate memory for header line");
  } else {
    request->headers = grown;
  }
  mem_free(line);
}

// Sets one option of a method; the first failure ends the method with
// libcurl's text for it.
template <typename T>
const char* set(CURL* curl, CURLoption option, T value) {
  CURLcode code = curl_easy_setopt(curl, option, value);
  return code == CURLE_OK ? nullptr : curl_easy_strerror(code);
}
}  // namespace

void http_request_configure(HttpRequest* request, const HttpSettings* settings) {
  if (request == nullptr || settings == nullptr) return;
  CURL* curl = request->curl;
  http_setopt_logged(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(settings->timeout_ms));
  http_setopt_logged(curl, CURLOPT_LOW_SPEED_LIMIT, static_cast<long>(settings->low_speed_limit));
  http_setopt_logged(curl, CURLOPT_LOW_SPEED_TIME, static_cast<long>(settings->low_speed_time));
  http_setopt_logged(curl, CURLOPT_SSL_VERIFYPEER, static_cast<long>(settings->ssl_verify_peer));
  // Without a bundle beside the executable, libcurl's own store stays in use.
  const char* bundle = http_ca_bundle();
  if (bundle != nullptr) http_setopt_logged(curl, CURLOPT_CAINFO, bundle);
  http_setopt_logged(curl, CURLOPT_MAX_SEND_SPEED_LARGE, static_cast<curl_off_t>(settings->max_send_speed));
  http_setopt_logged(curl, CURLOPT_MAX_RECV_SPEED_LARGE, static_cast<curl_off_t>(settings->max_recv_speed));
  // An empty proxy rather than none: with none, libcurl would pick one up
  // from the environment, and the handle's fields are the only settings.
  http_setopt_logged(curl, CURLOPT_PROXY, settings->proxy != nullptr ? settings->proxy : "");
  http_setopt_logged(curl, CURLOPT_PROXYUSERNAME, settings->proxy_username);
  http_setopt_logged(curl, CURLOPT_PROXYPASSWORD, settings->proxy_password);
}

void http_request_set_auth(HttpRequest* request, ZELGetTokenFn get_token, ZELFreeTokenFn free_token) {
  if (request == nullptr || get_token == nullptr) return;
  char* token = get_token();
  if (token == nullptr) return;
  http_request_add_bearer(request, token);
  if (free_token != nullptr) free_token(token);
}

void http_request_add_bearer(HttpRequest* request, const char* token) {
  if (request == nullptr || token == nullptr) return;
  append_line(request, "Authorization:Bearer %s", token);
}

void http_request_add_content_type(HttpRequest* request, const char* content_type) {
  if (request == nullptr || content_type == nullptr) return;
  append_line(request, "Content-Type: %s", content_type);
}

void http_request_add_header(HttpRequest* request, const char* line) {
  if (request == nullptr || line == nullptr || *line == '\0') return;
  append_line(request, "%s", line);
}

void http_request_add_header_kv(HttpRequest* request, const char* name, const char* value) {
  if (request == nullptr || name == nullptr || *name == '\0' || value == nullptr) return;
  append_line(request, "%s:%s", name, value);
}

void http_request_add_range(HttpRequest* request, uint64_t first, uint64_t last) {
  if (request == nullptr) return;
  append_line(request, "Range:bytes=%llu-%llu", static_cast<unsigned long long>(first),
              static_cast<unsigned long long>(last));
}

void http_request_add_content_range(HttpRequest* request, uint64_t first, uint64_t last, uint64_t total) {
  if (request == nullptr) return;
  append_line(request, "Content-Range:bytes %llu-%llu/%llu", static_cast<unsigned long long>(first),
              static_cast<unsigned long long>(last), static_cast<unsigned long long>(total));
}

void http_request_add_session_id(HttpRequest* request, const char* session_id) {
  if (request == nullptr || session_id == nullptr) return;
  append_line(request, "Session-Id:%s", session_id);
}

const char* http_request_get(HttpRequest* request, const char* url) {
  if (request == nullptr) return kNoRequest;
  return set(request->curl, CURLOPT_URL, url);
}

const char* http_request_delete(HttpRequest* request, const char* url) {
  if (request == nullptr) return kNoRequest;
  if (const char* error = set(request->curl, CURLOPT_CUSTOMREQUEST, "DELETE")) return error;
  return set(request->curl, CURLOPT_URL, url);
}

const char* http_request_post(HttpRequest* request, const char* url, const char* content_type,
                              const char* body) {
  if (request == nullptr) return kNoRequest;
  CURL* curl = request->curl;
  long length = body != nullptr ? static_cast<long>(std::strlen(body)) : 0L;
  if (const char* error = set(curl, CURLOPT_POSTFIELDSIZE, length)) return error;
  if (const char* error = set(curl, CURLOPT_POST, 1L)) return error;
  if (const char* error = set(curl, CURLOPT_URL, url)) return error;
  if (content_type != nullptr) {
    append_line(request, "Content-Type: %s", content_type);
  } else {
    // libcurl would otherwise announce a form body; an empty value removes
    // its line, so a POST without a type sends none.
    append_line(request, "Content-Type:");
  }
  if (body != nullptr) {
    if (const char* error = set(curl, CURLOPT_POSTFIELDS, body)) return error;
  }
  return set(curl, CURLOPT_POSTFIELDSIZE, length);
}

CURLoption http_upload_size_option(uint64_t size) {
  return size < static_cast<uint64_t>(kLargeUpload) ? CURLOPT_INFILESIZE : CURLOPT_INFILESIZE_LARGE;
}

const char* http_request_put(HttpRequest* request, const char* url, const char* content_type) {
  if (request == nullptr) return kNoRequest;
  CURL* curl = request->curl;
  if (const char* error = set(curl, CURLOPT_UPLOAD, 1L)) return error;
  if (const char* error = set(curl, CURLOPT_URL, url)) return error;
  append_line(request, "Content-Type: %s",
              content_type != nullptr ? content_type : "application/octet-stream");
  uint64_t size = request->body != nullptr ? request->body->size : 0;
  if (http_upload_size_option(size) == CURLOPT_INFILESIZE) {
    return set(curl, CURLOPT_INFILESIZE, static_cast<long>(size));
  }
  return set(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(size));
}
