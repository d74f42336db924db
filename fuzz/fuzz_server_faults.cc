// zel-server: fault rules as the test API takes them, then matched.
#include <cstddef>
#include <cstdint>
#include <string>

#include "faults.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  zelsrv::Faults faults;
  std::string why;
  if (!faults.add_json(text, why)) {
    if (why.empty()) __builtin_trap();
    return 0;
  }
  zelsrv::HeaderLines headers = {{"Range", "bytes=0-9"}, {"Authorization", "Bearer t"}};
  zelsrv::FaultAction action;
  for (const char* path : {"/zel/v2/buckets", "/zel/v1/buckets/b/objects/k", "/"}) {
    if (faults.match("GET", path, headers, action) &&
        (action.delay_ms < 0 || action.delay_ms > zelsrv::Faults::kMaxDelayMs))
      __builtin_trap();
  }
  return 0;
}
