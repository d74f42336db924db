// A bucket listing page.
#include "bucket.h"
#include "fuzz_support.h"
#include "json.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string body = fuzz::text(data, size);
  ZELListBucketsDetails* page = list_buckets_details_init();
  int added = list_buckets_v2_fromjson(body.c_str(), page);
  if (added >= 0 && (page->next_page == nullptr || page->count != static_cast<uint32_t>(added))) {
    __builtin_trap();
  }
  list_buckets_details_cleanup(page);
  return 0;
}
