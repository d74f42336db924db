#include "bucket.h"
#include "cache.h"
#include "json.h"
#include "object_op.h"
#include "util.h"

namespace {
constexpr const char* kLogTag = "src\\get_bucket_details";
using Opt = ZELGetBucketDetailsOpt;

const OptField kFields[] = {
    OPT_FIELD(wide, Opt, key, "Cannot allocate memory for the ZELGetBucketDetailsOpt key"),
    OPT_FIELD(headers, Opt, headers, "Cannot clone the ZELGetBucketDetailsOpt headers")};
const OptTable kCopy = opt_table<Opt>(ZSITE, "Cannot clone the ZELGetBucketDetailsOpt", kFields);

const char* missing(const void* raw) {
  return static_cast<const Opt*>(raw)->key == nullptr ? "ZELGetBucketDetailsOpt key is (null)" : nullptr;
}

void on_success(const OpCall& call, const Exchange& exchange) {
  const ZEL* handle = call.handle;
  const Opt* opt = call.options<Opt>();
  if (handle->auto_create_bucket != 0) {
    char* key = wide_to_utf8(opt->key);
    if (key != nullptr) cache_put(key, handle->environment);
    mem_free(key);
  }
  if (opt->details_callback == nullptr) return;
  ZELBucketDetails* details = zel_bucket_details_init();
  const char* body = exchange.body();
  if (details != nullptr && body != nullptr &&
      bucket_details_fromjson(body, details, handle->api_version) == 0) {
    opt->details_callback(details, call.user_data);
  } else {
    ZLOG("Cannot unmarshal json response: %s", body != nullptr ? body : "(null)");
    call.report(200, "Cannot unmarshal json response");
  }
  zel_bucket_details_cleanup(details);
}

const Operation kOperation = [] {
  Operation op;
  bucket_operation<Opt>(op, kCopy);
  OPERATION_NAMES(op, "ZELGetBucketDetails");
  op.site = ZSITE;
  op.missing = missing;
  op.path = "/buckets/%s/details";
  op.args[0] = PATH_NAME(Opt, key);
  op.on_success = on_success;
  return op;
}();
}  // namespace

extern "C" ZEL_EXPORT void zel_get_bucket_details(ZEL* handle, const ZELGetBucketDetailsOpt* opt,
                                                  void* user_data) {
  FRAME_START(kOperation, handle, opt, user_data);
}
