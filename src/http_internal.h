#pragma once
// Pieces shared by the files of the HTTP module only.
#include <curl/curl.h>

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
