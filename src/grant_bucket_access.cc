#include "bucket.h"
#include "json.h"
#include "object_op.h"

namespace {
constexpr const char* kLogTag = "src\\grant_bucket_access";
using Opt = ZELGrantBucketAccessOpt;

const OptField kFields[] = {
    OPT_FIELD(wide, Opt, key, "Cannot allcate memory for ZELGrantBucketAccessOpt key"),
    OPT_FIELD(permissions, Opt, permissions, "Cannot clone the ZELGrantBucketAccessOpt permissions list"),
    OPT_FIELD(headers, Opt, headers, "Cannot clone the ZELGrantBucketAccessOpt headers")};
const OptTable kCopy =
    opt_table<Opt>(ZSITE, "Cannot allocate memory for the cloned ZELGrantBucketAccessOpt", kFields);

const char* missing(const void* raw) {
  return static_cast<const Opt*>(raw)->key == nullptr ? "ZELGrantBucketAccessOpt key is (null)" : nullptr;
}

char* to_json(const void* opt, uint32_t version) {
  return grant_bucket_access_tojson(static_cast<const Opt*>(opt), version);
}

void on_success(const OpCall& call, const Exchange& exchange) {
  const Opt* opt = call.options<Opt>();
  if (opt->permissions_callback == nullptr) return;
  ZELBucketPermissions* list = zel_permissions_init();
  const char* body = exchange.body();
  if (list != nullptr && body != nullptr &&
      bucket_permissions_fromjson(body, list, call.handle->api_version) == 0) {
    opt->permissions_callback(list, call.user_data);
  } else {
    ZLOG("%s", body != nullptr ? body : "(null)");
    call.report(200, "Cannot unmarshall json response");
  }
  zel_permissions_cleanup(list);
}

const Operation kOperation = [] {
  Operation op;
  bucket_operation<Opt>(op, kCopy);
  OPERATION_NAMES(op, "ZELGrantBucketAccess");
  op.site = ZSITE;
  op.missing = missing;
  op.path = "/buckets/%s/grant";
  op.args[0] = PATH_NAME(Opt, key);
  op.method = HttpMethod::post;
  op.content_type = "application/json";
  op.body = to_json;
  op.body_failure = "Cannot marshall http request body to json";
  op.on_success = on_success;
  return op;
}();
}  // namespace

extern "C" ZEL_EXPORT void zel_grant_bucket_access(ZEL* handle, const ZELGrantBucketAccessOpt* opt,
                                                   void* user_data) {
  FRAME_START(kOperation, handle, opt, user_data);
}
