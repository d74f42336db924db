// Running a request and reading what came back.
#include <cstring>

#include "alloc.h"
#include "http.h"
#include "http_internal.h"
#include "log.h"
#include "util.h"

namespace {
constexpr const char* kLogTag = "src\\http";

size_t header_callback(char* bytes, size_t size, size_t count, void* raw) {
  auto* list = static_cast<curl_slist**>(raw);
  size_t n = size * count;
  char* line = http_header_text(bytes, n);
  if (line == nullptr) return 0;
  bool kept = http_header_store(list, line);
  mem_free(line);
  return kept ? n : 0;
}

// Points libcurl at the request's lines and hooks and at the response's
// stores; libcurl's text for the first option it refuses.
const char* attach(HttpRequest* request, HttpResponse* response) {
  CURL* curl = request->curl;
  CURLcode code = curl_easy_setopt(curl, CURLOPT_HTTPHEADER, request->headers);
  if (code == CURLE_OK) code = curl_easy_setopt(curl, CURLOPT_HEADERDATA, &response->headers);
  if (code == CURLE_OK) code = curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, header_callback);
  if (code == CURLE_OK && request->body != nullptr) {
    code = curl_easy_setopt(curl, CURLOPT_READDATA, request->body);
    if (code == CURLE_OK) code = curl_easy_setopt(curl, CURLOPT_READFUNCTION, request->body->callback);
  }
  if (code == CURLE_OK && request->progress != nullptr) {
    code = curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    if (code == CURLE_OK) code = curl_easy_setopt(curl, CURLOPT_XFERINFODATA, request->progress->data);
    if (code == CURLE_OK)
      code = curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, request->progress->function);
  }
  if (code == CURLE_OK && response->body != nullptr) {
    code = curl_easy_setopt(curl, CURLOPT_WRITEDATA, response->body);
    if (code == CURLE_OK) code = curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, response->body->callback);
  }
  return code == CURLE_OK ? nullptr : curl_easy_strerror(code);
}

void read_time(CURL* curl, CURLINFO info, double* out, const char* message) {
  CURLcode code = curl_easy_getinfo(curl, info, out);
  if (code != CURLE_OK) ZLOG(message, static_cast<int>(code), curl_easy_strerror(code));
}

// The byte counts and rates are read through their integer forms, which
// libcurl keeps exact; the response stores them as doubles all the same.
void read_count(CURL* curl, CURLINFO info, double* out, const char* message) {
  curl_off_t value = 0;
  CURLcode code = curl_easy_getinfo(curl, info, &value);
  if (code != CURLE_OK) {
    ZLOG(message, static_cast<int>(code), curl_easy_strerror(code));
    return;
  }
  *out = static_cast<double>(value);
}

}  // namespace

void http_read_results(CURL* curl, HttpResponse* response) {
  long status = 0;
  CURLcode code = curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  if (code == CURLE_OK) {
    response->status = static_cast<int32_t>(status);
  } else {
    ZLOG("getinfo(CURLINFO_RESPONSE_CODE): %d (%s)", static_cast<int>(code), curl_easy_strerror(code));
  }
  read_time(curl, CURLINFO_TOTAL_TIME, &response->total_time, "getinfo(CURLINFO_TOTAL_TIME): %d (%s)");
  read_time(curl, CURLINFO_NAMELOOKUP_TIME, &response->namelookup_time,
            "getinfo(CURLINFO_NAMELOOKUP_TIME): %d (%s)");
  read_time(curl, CURLINFO_CONNECT_TIME, &response->connect_time, "getinfo(CURLINFO_CONNECT_TIME): %d (%s)");
  read_count(curl, CURLINFO_SPEED_UPLOAD_T, &response->speed_upload,
             "getinfo(CURLINFO_SPEED_UPLOAD): %d (%s)");
  read_count(curl, CURLINFO_SPEED_DOWNLOAD_T, &response->speed_download,
             "getinfo(CURLINFO_SPEED_DOWNLOAD): %d (%s)");
  read_count(curl, CURLINFO_SIZE_UPLOAD_T, &response->size_upload, "getinfo(CURLINFO_SIZE_UPLOAD): %d (%s)");
  read_count(curl, CURLINFO_SIZE_DOWNLOAD_T, &response->size_download,
             "getinfo(CURLINFO_SIZE_DOWNLOAD): %d (%s)");
}

namespace {

// Text after the first colon of the first line that holds `name` and a
// non-empty value; nullptr when no line qualifies.
const char* find_value(const HttpResponse* response, const char* name) {
  if (response == nullptr || name == nullptr) return nullptr;
  for (const curl_slist* node = response->headers; node != nullptr; node = node->next) {
    const char* line = node->data;
    if (line == nullptr || std::strstr(line, name) == nullptr) continue;
    const char* colon = std::strchr(line, ':');
    if (colon != nullptr && colon[1] != '\0') return colon + 1;
  }
  return nullptr;
}
}  // namespace

char* http_header_text(const char* bytes, size_t n) {
  // Values are kept without their line end: a value that is empty on the
  // wire must read as empty. A line holding a zero byte ends there.
  n = strnlen(bytes, n);
  while (n > 0 && (bytes[n - 1] == '\n' || bytes[n - 1] == '\r')) n--;
  char* line = strndup_bounded(bytes, n);
  if (line == nullptr) ZLOG("Cannot allocate memory for http header");
  return line;
}

bool http_header_store(curl_slist** list, const char* line) {
  if (*line == '\0') return true;
  curl_slist* grown = curl_slist_append(*list, line);
  if (grown == nullptr) {
    ZLOG("Cannot allocate memory for http header");
    return false;
  }
  *list = grown;
  return true;
}

const char* http_perform(HttpRequest* request, HttpResponse* response) {
  if (request == nullptr) return "HttpRequest is not initialized";
  if (response == nullptr) return "HttpResponse is not initialized";
  if (const char* error = attach(request, response)) return error;
  CURLcode code = curl_easy_perform(request->curl);
  if (code != CURLE_OK) {
    response->status = static_cast<int32_t>(code);
    return curl_easy_strerror(code);
  }
  http_read_results(request->curl, response);
  return nullptr;
}

char* http_response_header(const HttpResponse* response, const char* name) {
  const char* value = find_value(response, name);
  return value != nullptr ? mem_strdup(value) : nullptr;
}

char* http_response_range(const HttpResponse* response) { return http_response_header(response, "Range"); }

char* http_response_content_range_total(const HttpResponse* response) {
  const char* value = find_value(response, "Content-Range");
  const char* slash = value != nullptr ? std::strchr(value, '/') : nullptr;
  return slash != nullptr ? mem_strdup(slash + 1) : nullptr;
}
