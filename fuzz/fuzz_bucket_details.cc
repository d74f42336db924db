// Bucket details in both versions; the first input byte picks the version
// so that one corpus covers both key sets.
#include "fuzz_support.h"
#include "json.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  uint32_t version = 1 + (data[0] & 1);
  std::string body = fuzz::text(data + 1, size - 1);
  ZELBucketDetails* details = zel_bucket_details_init();
  if (bucket_details_fromjson(body.c_str(), details, version) == 0) {
    // A successful parse leaves a complete list: walk it to prove it.
    uint32_t count = 0;
    for (ZELBucketPermissionItem* item = details->permissions->head; item != nullptr; item = item->next) {
      if (item->auth_id == nullptr) __builtin_trap();
      ++count;
    }
    if (count != details->permissions->count) __builtin_trap();
  }
  zel_bucket_details_cleanup(details);
  return 0;
}
