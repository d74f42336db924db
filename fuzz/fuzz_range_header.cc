// An upload session's Range header value.
#include "fuzz_support.h"
#include "object.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string value = fuzz::text(data, size);
  ZELByteRanges* ranges = zel_byte_ranges_init();
  byte_ranges_from_header(value.c_str(), ranges);
  uint64_t count = 0;
  for (ZELByteRangeItem* item = ranges->head; item != nullptr; item = item->next) ++count;
  if (count != ranges->count) __builtin_trap();
  zel_byte_ranges_cleanup(ranges);
  return 0;
}
