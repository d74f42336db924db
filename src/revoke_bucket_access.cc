#include "bucket_access.h"
#include "json.h"

namespace {
constexpr const char* kLogTag = "src\\revoke_bucket_access";
using Decorator = OpDecorator<ZELRevokeBucketAccessOpt>;

const AccessNames kNames{kLogTag,
                         "Cannot allocate memory for the cloned ZELRevokeBucketAccessOpt",
                         "Cannot allocate memory for ZELRevokeBucketAccessOpt key",
                         "Cannot clone the ZELRevokeBucketAccessOpt permissions list",
                         "Cannot clone the ZELRevokeBucketAccessOpt headers",
                         "ZELRevokeBucketAccessDecorator",
                         "ZELRevokeBucketAccessOpt",
                         "ZELRevokeBucketAccessOpt key is (null)",
                         "/buckets/%s/revoke"};

void free_opt(ZELRevokeBucketAccessOpt* opt) { free_access_opt(opt); }

ZELRevokeBucketAccessOpt* clone_opt(const ZELRevokeBucketAccessOpt* source) {
  return clone_access_opt(kNames, source);
}

char* to_json(const ZELRevokeBucketAccessOpt* opt, uint32_t version) {
  return revoke_bucket_access_tojson(opt, version);
}

// Whatever the body of a 200 holds, the revocation is done.
void on_success(const Exchange&, const Decorator& decorator) {
  if (decorator.opt->done_callback != nullptr) decorator.opt->done_callback(decorator.user_data);
}

int worker(void* raw) {
  return run_access_worker<ZELRevokeBucketAccessOpt, ZELRevokeBucketAccessResp, free_opt>(raw, kNames, to_json,
                                                                                         on_success);
}
}  // namespace

extern "C" ZEL_EXPORT void zel_revoke_bucket_access(ZEL* handle, const ZELRevokeBucketAccessOpt* opt,
                                                    void* user_data) {
  static const EntryConfig cfg{"src\\bucket",
                               "ZELRevokeBucketAccessOpt",
                               "ZELRevokeBucketAccessDecorator",
                               "Cannot allocate memory for ZELRevokeBucketAccessDecorator",
                               false,
                               false,
                               true};
  start_operation<ZELRevokeBucketAccessOpt, ZELRevokeBucketAccessResp, clone_opt, free_opt>(
      cfg, handle, opt, user_data, worker);
}
