// Wide names on their way into a URL: UTF-16 to UTF-8 and back, and
// percent-encoding, whose result must decode to the UTF-8 form and hold
// nothing a URL path could misread.
#include <curl/curl.h>

#include <cstring>
#include <string>

#include "alloc.h"
#include "fuzz_support.h"
#include "http.h"
#include "util.h"

namespace {
bool plain_url_char(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
         std::strchr("-._~%", c);
}

void check_wide(const std::u16string& wide) {
  char* utf8 = wide_to_utf8(wide.c_str());
  char* escaped = http_url_escape(wide.c_str());
  if ((utf8 == nullptr) != (escaped == nullptr)) __builtin_trap();
  if (utf8 != nullptr) {
    char16_t* back = utf8_to_wide(utf8);
    if (back == nullptr || std::u16string(back) != wide) __builtin_trap();
    mem_free(back);
    for (const char* c = escaped; *c != '\0'; c++) {
      if (!plain_url_char(*c)) __builtin_trap();
    }
    if (std::strspn(escaped, ".") == std::strlen(escaped) && *escaped != '\0') __builtin_trap();
    char* decoded = http_url_unescape(escaped);
    // A name of dots only is encoded twice so that no path folds it away.
    bool dots = wide.find_first_not_of(u'.') == std::u16string::npos;
    if (decoded == nullptr || (!dots && std::strcmp(decoded, utf8) != 0)) __builtin_trap();
    curl_free(decoded);
  }
  mem_free(utf8);
  if (escaped != nullptr) curl_free(escaped);
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The input read as UTF-16 units (up to the first zero unit).
  std::u16string wide;
  for (size_t i = 0; i + 1 < size; i += 2) {
    char16_t unit = static_cast<char16_t>(data[i] | (data[i + 1] << 8));
    if (unit == 0) break;
    wide.push_back(unit);
  }
  check_wide(wide);
  // The input read as UTF-8: whatever converts must come back unchanged.
  std::string text = fuzz::text(data, size);
  text = text.substr(0, std::strlen(text.c_str()));
  char16_t* as_wide = utf8_to_wide(text.c_str());
  if (as_wide != nullptr) {
    char* back = wide_to_utf8(as_wide);
    if (back == nullptr || text != back) __builtin_trap();
    mem_free(back);
    mem_free(as_wide);
  }
  return 0;
}
