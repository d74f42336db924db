// zel-server: the Range header of a download and the Content-Range header
// of an upload. The first 8 bytes are the object's size.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  uint64_t object_size = 0;
  if (size >= 8) {
    std::memcpy(&object_size, data, 8);
    data += 8;
    size -= 8;
  }
  std::string value(reinterpret_cast<const char*>(data), size);
  zelsrv::ByteSpan span;
  if (zelsrv::parse_range(value, object_size, span) == zelsrv::RangeResult::kOk &&
      !(span.start <= span.end && span.end < object_size))
    __builtin_trap();
  uint64_t total = 0;
  if (zelsrv::parse_content_range(value, span, total) && total > 0) {
    if (!(span.start <= span.end && span.end < total)) __builtin_trap();
    if (zelsrv::format_ranges({span}).compare(0, 6, "bytes=") != 0) __builtin_trap();
  }
  return 0;
}
