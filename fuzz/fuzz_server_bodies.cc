// zel-server: the JSON request bodies of both API versions.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "bodies.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string body(reinterpret_cast<const char*>(data), size);
  for (int version = 1; version <= 2; ++version) {
    std::string why;
    zelsrv::Bucket bucket;
    if (zelsrv::parse_create_bucket(body, version, bucket, why)) {
      if (!zelsrv::valid_bucket_key(bucket.key) || !zelsrv::valid_policy(bucket.policy)) __builtin_trap();
      for (const auto& p : bucket.permissions)
        if (p.auth_id.empty() || !zelsrv::valid_access(p.access)) __builtin_trap();
    } else if (why.empty()) {
      __builtin_trap();  // a refusal always says why
    }
    std::vector<zelsrv::Permission> perms;
    why.clear();
    if (!zelsrv::parse_grant(body, version, perms, why) && why.empty()) __builtin_trap();
    std::vector<std::string> ids;
    why.clear();
    if (!zelsrv::parse_revoke(body, version, ids, why) && why.empty()) __builtin_trap();
  }
  return 0;
}
