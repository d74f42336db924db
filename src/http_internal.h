#pragma once
// Pieces shared by the files of the HTTP module only.
#include <curl/curl.h>

#include <cstddef>

#include "http.h"

// Logs libcurl's text for `code` under the module's tag.
void http_log_curl_error(CURLcode code);

// Sets an option whose failure must not stop the caller: it is logged and
// the next option is still set.
template <typename T>
CURLcode http_setopt_logged(CURL* curl, CURLoption option, T value) {
  CURLcode code = curl_easy_setopt(curl, option, value);
  if (code != CURLE_OK) http_log_curl_error(code);
  return code;
}

// A received header line as text, without its line end; nullptr (logged)
// when memory runs out.
char* http_header_text(const char* bytes, size_t n);
// Appends a non-empty line to `list`; false (logged) when memory runs out.
bool http_header_store(curl_slist** list, const char* line);
// Reads the status and statistics of a finished transfer into `response`.
void http_read_results(CURL* curl, HttpResponse* response);
