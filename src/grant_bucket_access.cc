#include "bucket_access.h"
#include "json.h"

namespace {
constexpr const char* kLogTag = "src\\grant_bucket_access";
using Decorator = OpDecorator<ZELGrantBucketAccessOpt>;

const AccessNames kNames{kLogTag,
                         "Cannot allocate memory for the cloned ZELGrantBucketAccessOpt",
                         "Cannot allcate memory for ZELGrantBucketAccessOpt key",
                         "Cannot clone the ZELGrantBucketAccessOpt permissions list",
                         "Cannot clone the ZELGrantBucketAccessOpt headers",
                         "ZELGrantBucketAccessDecorator",
                         "ZELGrantBucketAccessOpt",
                         "ZELGrantBucketAccessOpt key is (null)",
                         "/buckets/%s/grant"};

void free_opt(ZELGrantBucketAccessOpt* opt) { free_access_opt(opt); }

ZELGrantBucketAccessOpt* clone_opt(const ZELGrantBucketAccessOpt* source) {
  return clone_access_opt(kNames, source);
}

char* to_json(const ZELGrantBucketAccessOpt* opt, uint32_t version) {
  return grant_bucket_access_tojson(opt, version);
}

void on_success(const Exchange& exchange, const Decorator& decorator) {
  const ZELGrantBucketAccessOpt* opt = decorator.opt;
  if (opt->permissions_callback == nullptr) return;
  ZELBucketPermissions* list = zel_permissions_init();
  const char* body = exchange.body();
  if (list != nullptr && body != nullptr &&
      bucket_permissions_fromjson(body, list, decorator.handle->api_version) == 0) {
    opt->permissions_callback(list, decorator.user_data);
  } else {
    ZLOG("%s", body != nullptr ? body : "(null)");
    report(opt->callback, 200, "Cannot unmarshall json response", decorator.user_data);
  }
  zel_permissions_cleanup(list);
}

int worker(void* raw) {
  return run_access_worker<ZELGrantBucketAccessOpt, ZELGrantBucketAccessResp, free_opt>(raw, kNames, to_json,
                                                                                       on_success);
}
}  // namespace

extern "C" ZEL_EXPORT void zel_grant_bucket_access(ZEL* handle, const ZELGrantBucketAccessOpt* opt,
                                                   void* user_data) {
  static const EntryConfig cfg{"src\\bucket",
                               "ZELGrantBucketAccessOpt",
                               "ZELGrantBucketAccessDecorator",
                               "Cannot allocate memory for ZELGrantBucketAccessDecorator",
                               false,
                               false,
                               true};
  start_operation<ZELGrantBucketAccessOpt, ZELGrantBucketAccessResp, clone_opt, free_opt>(cfg, handle, opt,
                                                                                          user_data, worker);
}
