// The error body's reason.
#include "alloc.h"
#include "fuzz_support.h"
#include "json.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string body = fuzz::text(data, size);
  char* reason = nullptr;
  int result = err_reason_fromjson(body.c_str(), &reason);
  if ((result == 0) != (reason != nullptr)) __builtin_trap();
  mem_free(reason);
  return 0;
}
