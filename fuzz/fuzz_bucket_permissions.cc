// Permissions of a grant answer in both versions (first byte picks it).
#include "fuzz_support.h"
#include "json.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  uint32_t version = 1 + (data[0] & 1);
  std::string body = fuzz::text(data + 1, size - 1);
  ZELBucketPermissions* list = zel_permissions_init();
  bucket_permissions_fromjson(body.c_str(), list, version);
  uint32_t count = 0;
  for (ZELBucketPermissionItem* item = list->head; item != nullptr; item = item->next) ++count;
  if (count != list->count) __builtin_trap();
  zel_permissions_cleanup(list);
  return 0;
}
