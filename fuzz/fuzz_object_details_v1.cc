// Object details, version 1: a failed parse may leave fields set, and the
// record must still free cleanly.
#include "fuzz_support.h"
#include "json.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string body = fuzz::text(data, size);
  ZELObjectDetails* details = zel_object_details_init();
  object_details_v1_fromjson(body.c_str(), details);
  zel_object_details_cleanup(details);
  return 0;
}
