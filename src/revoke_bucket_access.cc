#include "json.h"
#include "object_op.h"

namespace {
constexpr const char* kLogTag = "src\\revoke_bucket_access";
using Opt = ZELRevokeBucketAccessOpt;

const OptField kFields[] = {
    OPT_FIELD(wide, Opt, key, "Cannot allocate memory for ZELRevokeBucketAccessOpt key"),
    OPT_FIELD(permissions, Opt, permissions, "Cannot clone the ZELRevokeBucketAccessOpt permissions list"),
    OPT_FIELD(headers, Opt, headers, "Cannot clone the ZELRevokeBucketAccessOpt headers")};
const OptTable kCopy =
    opt_table<Opt>(ZSITE, "Cannot allocate memory for the cloned ZELRevokeBucketAccessOpt", kFields);

const char* missing(const void* raw) {
  return static_cast<const Opt*>(raw)->key == nullptr ? "ZELRevokeBucketAccessOpt key is (null)" : nullptr;
}

char* to_json(const void* opt, uint32_t version) {
  return revoke_bucket_access_tojson(static_cast<const Opt*>(opt), version);
}

// Whatever the body of a 200 holds, the revocation is done.
const Operation kOperation = [] {
  Operation op;
  bucket_operation<Opt>(op, kCopy);
  OPERATION_NAMES(op, "ZELRevokeBucketAccess");
  op.site = ZSITE;
  op.missing = missing;
  op.path = "/buckets/%s/revoke";
  op.args[0] = PATH_NAME(Opt, key);
  op.method = HttpMethod::post;
  op.content_type = "application/json";
  op.body = to_json;
  op.body_failure = "Cannot marshall http request body to json";
  op.on_success = call_done<Opt>;
  return op;
}();
}  // namespace

extern "C" ZEL_EXPORT void zel_revoke_bucket_access(ZEL* handle, const ZELRevokeBucketAccessOpt* opt,
                                                    void* user_data) {
  FRAME_START(kOperation, handle, opt, user_data);
}
