// Received header lines as the transport stores them, and every query made
// of them: by name, Range, the Content-Range total, the exact Content-Range
// reading and the session's range list.
#include <cstring>

#include "alloc.h"
#include "fuzz_support.h"
#include "http.h"
#include "http_internal.h"
#include "http_plan.h"
#include "object.h"

namespace {
void check_value(char* value) {
  // Stored lines carry no line end, so neither does any value.
  if (value != nullptr) {
    size_t n = std::strlen(value);
    if (n > 0 && (value[n - 1] == '\n' || value[n - 1] == '\r')) __builtin_trap();
  }
  mem_free(value);
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  HttpResponse* response = http_response_init();
  const char* bytes = reinterpret_cast<const char*>(data);
  // Each input line is one call of the header callback, line end included.
  for (size_t start = 0; start < size;) {
    const char* end = static_cast<const char*>(std::memchr(bytes + start, '\n', size - start));
    size_t n = end != nullptr ? static_cast<size_t>(end - (bytes + start)) + 1 : size - start;
    char* line = http_header_text(bytes + start, n);
    if (line != nullptr) http_header_store(&response->headers, line);
    mem_free(line);
    start += n;
  }
  for (const char* name : {"Content-Range", "Range", "Content-Length", "Location", ""})
    check_value(http_response_header(response, name));
  check_value(http_response_content_range_total(response));
  char* range = http_response_range(response);
  uint64_t first = 0, last = 0, total = 0;
  if (http_parse_content_range(range, &first, &last, &total) && !(first <= last && last < total))
    __builtin_trap();
  ZELByteRanges* ranges = zel_byte_ranges_init();
  byte_ranges_from_header(range, ranges);
  zel_byte_ranges_cleanup(ranges);
  check_value(range);
  http_response_cleanup(response);
  return 0;
}
