#pragma once
// The HTTP transport: one libcurl easy handle per request, the records that
// carry bodies and results, and one helper per header kind and per method.
// Functions that can fail on the wire return nullptr on success and an error
// text otherwise (libcurl's text or one of this module's fixed messages);
// the texts are static and never freed. Records are allocated with mem_* and
// every _cleanup accepts nullptr.
#include <curl/curl.h>
#include <zel/zel.h>

#include <cstddef>
#include <cstdint>

// Shape of both body callbacks: libcurl's read function for a request body
// and its write function for a response body. libcurl is handed the HttpBody
// itself as the callback's data pointer.
using HttpBodyFn = size_t (*)(char* bytes, size_t size, size_t count, void* body);

struct HttpBody {
  char* data;     // owned (mem_*); a response body keeps one zero byte behind size
  uint64_t size;  // bytes held, or for a request body the bytes to upload
  HttpBodyFn callback;
};

struct HttpProgress {
  void* data;  // owned (mem_free); handed to libcurl as the transfer-info data
  curl_xferinfo_callback function;
};

struct HttpRequest {
  CURL* curl;
  curl_slist* headers;  // lines to send, in the order they were added
  HttpBody* body;       // upload source; must be set before http_request_put
  HttpProgress* progress;
};

struct HttpResponse {
  int32_t status;       // HTTP status, or libcurl's code after a failed transfer
  curl_slist* headers;  // the received lines, each without its line end
  HttpBody* body;       // owned; set it (with http_body_write) before performing
  double total_time;
  double namelookup_time;
  double connect_time;
  double speed_upload;
  double speed_download;
  double size_upload;
  double size_download;
};

// The transfer settings of a service handle. The texts are borrowed from the
// handle: libcurl copies them when they are applied, so the handle only has
// to outlive http_request_configure.
struct HttpSettings {
  uint32_t timeout_ms;
  uint32_t low_speed_limit;
  uint32_t low_speed_time;
  uint32_t ssl_verify_peer;
  int64_t max_send_speed;
  int64_t max_recv_speed;
  const char* proxy;
  const char* proxy_username;
  const char* proxy_password;
};

HttpSettings http_settings_from(const ZEL* handle);

// Process-wide libcurl state; 0 or -1.
int http_global_init();
void http_global_cleanup();
// True between a successful http_global_init and the matching cleanup.
bool http_global_ready();

HttpRequest* http_request_init();
// Makes a used request like new while keeping its handle and connections.
void http_request_reset(HttpRequest* request);
void http_request_cleanup(HttpRequest* request);
HttpResponse* http_response_init();
void http_response_cleanup(HttpResponse* response);
void http_release(HttpRequest* request, HttpResponse* response);
HttpBody* http_body_init();
void http_body_cleanup(HttpBody* body);
HttpProgress* http_progress_init();
void http_progress_cleanup(HttpProgress* progress);

// Write callback for response bodies: appends and keeps the data terminated.
size_t http_body_write(char* bytes, size_t size, size_t count, void* body);

// Each of these ignores a missing request.
void http_request_configure(HttpRequest* request, const HttpSettings* settings);
void http_request_set_auth(HttpRequest* request, ZELGetTokenFn get_token, ZELFreeTokenFn free_token);
void http_request_add_header(HttpRequest* request, const char* line);
void http_request_add_bearer(HttpRequest* request, const char* token);       // "Authorization:Bearer %s"
void http_request_add_content_type(HttpRequest* request, const char* type);  // "Content-Type: %s"
void http_request_add_header_kv(HttpRequest* request, const char* name, const char* value);
void http_request_add_range(HttpRequest* request, uint64_t first, uint64_t last);
void http_request_add_content_range(HttpRequest* request, uint64_t first, uint64_t last, uint64_t total);
void http_request_add_session_id(HttpRequest* request, const char* session_id);

// Methods. POST does not copy `body`: it must stay alive until the transfer
// is over. PUT announces the size of request->body, so attach it first.
const char* http_request_get(HttpRequest* request, const char* url);
const char* http_request_delete(HttpRequest* request, const char* url);
const char* http_request_post(HttpRequest* request, const char* url, const char* content_type,
                              const char* body);
const char* http_request_put(HttpRequest* request, const char* url, const char* content_type);
// The option a PUT uses to announce `size`: CURLOPT_INFILESIZE below 2^31,
// CURLOPT_INFILESIZE_LARGE from there on.
CURLoption http_upload_size_option(uint64_t size);

const char* http_perform(HttpRequest* request, HttpResponse* response);

// Received-header queries. Each returns a new text (mem_free) holding the
// value as received, leading blank included, line end removed.
char* http_response_header(const HttpResponse* response, const char* name);
char* http_response_range(const HttpResponse* response);
char* http_response_content_range_total(const HttpResponse* response);

// Percent-encoding of a wide name, and decoding; results freed with curl_free.
char* http_url_escape(const char16_t* text);
char* http_url_unescape(const char* text);
// Frees a text made by the two functions above (libcurl's own allocation).
void http_text_free(char* text);

// CA bundle beside the host executable.
constexpr size_t kCaPathMax = 260;
// Builds "<directory of exe_path>/Tumbleframe/cacert.pem" into `out`, which
// holds kCaPathMax + 1 bytes. 0, or -1 when the result would not fit.
int http_ca_bundle_path(const char* exe_path, char* out);
// The bundle to use, or nullptr for libcurl's default store. Resolved once
// per process; logged once when a bundle is there but cannot be used (or the
// executable's path cannot be read), never when there is none.
const char* http_ca_bundle();
// Test seam: resolve again, as if the executable were `exe_path` (nullptr:
// the real executable).
void http_ca_bundle_override(const char* exe_path);
