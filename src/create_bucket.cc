#include "create_bucket.h"

#include "bucket.h"
#include "cache.h"
#include "json.h"
#include "object_op.h"
#include "util.h"
#include "zel_internal.h"

namespace {
constexpr const char* kLogTag = "src\\create_bucket";
using Opt = ZELCreateBucketOpt;

const OptField kFields[] = {
    OPT_FIELD(wide, Opt, key, "Cannot allocate memory for ZELCreateBucketOpt key"),
    OPT_FIELD(permissions, Opt, permissions, "Cannot clone the ZELCreateBucketOpt permissions list"),
    OPT_FIELD(headers, Opt, headers, "Cannot clone the ZELCreateBucketOpt headers")};
const OptTable kCopy =
    opt_table<Opt>(ZSITE, "Cannot allocate memory for the cloned ZELCreateBucketOpt", kFields);

void remember_bucket(const ZEL* handle, const char16_t* key) {
  if (handle->auto_create_bucket == 0) return;
  char* utf8 = wide_to_utf8(key);
  if (utf8 != nullptr) cache_put(utf8, handle->environment);
  mem_free(utf8);
}

void on_success(const OpCall& call, const Exchange& exchange) {
  const Opt* opt = call.options<Opt>();
  remember_bucket(call.handle, opt->key);
  ZELBucketDetails* details = zel_bucket_details_init();
  const char* body = exchange.body();
  if (details == nullptr || body == nullptr ||
      bucket_details_fromjson(body, details, call.handle->api_version) != 0) {
    call.report(200, "Cannot unmarshal json response");
  } else if (opt->details_callback != nullptr) {
    opt->details_callback(details, call.user_data);
  }
  zel_bucket_details_cleanup(details);
}

// The service's answer is passed on unchanged (409 included); a failed
// exchange reports its own error.
void on_failure(const OpCall& call, const Exchange& exchange, bool answered) {
  if (!answered) {
    ZLOG("%s", exchange.error());
    call.report(exchange.setup_failed() ? -1 : exchange.code(), exchange.error());
    return;
  }
  HttpVerdictRules rules;
  rules.extract_reason = false;
  HttpVerdict verdict(exchange, rules);
  call.report(exchange.status(), verdict.message());
}

char* to_json(const void* opt, uint32_t version) {
  return create_bucket_tojson(static_cast<const Opt*>(opt), version);
}

const Operation kOperation = [] {
  Operation op;
  bucket_operation<Opt>(op, kCopy);
  OPERATION_NAMES(op, "ZELCreateBucket");
  op.decorator_failure = "Cannot allocate memory for CreateBucketDecorator";
  op.site = ZSITE;
  op.path = "/buckets";
  op.method = HttpMethod::post;
  op.content_type = "application/json";
  op.body = to_json;
  op.body_failure = "Cannot marshal http request body to json";
  op.on_success = on_success;
  op.on_failure = on_failure;
  return op;
}();
}  // namespace

int create_bucket_run(const ZEL* handle, const ZELCreateBucketOpt* opt, void* user_data) {
  return frame_run(kOperation, handle, opt, user_data);
}

int ensure_bucket_exists(const ZEL* handle, const ZELPutObjectOpt* opt, void* user_data) {
  if (handle->auto_create_bucket == 0) return 0;
  char* key = wide_to_utf8(opt->bucket_key);
  uint32_t cached = 0;
  if (key != nullptr && cache_lookup(key, &cached) && cached == handle->environment) {
    mem_free(key);
    return 1;
  }
  ZELCreateBucketOpt create{};
  create.key = opt->bucket_key;
  create.policy = ZEL_BUCKET_POLICY_TRANSIENT;
  create.headers = opt->headers;
  int status = create_bucket_run(handle, &create, user_data);
  if (status != 200 && status != 409) {
    report(opt->callback, status, "Invalid server response for auto_create_bucket request", user_data);
    mem_free(key);
    return -1;
  }
  if (key != nullptr) cache_put(key, handle->environment);
  mem_free(key);
  return 0;
}

extern "C" ZEL_EXPORT void zel_create_bucket(ZEL* handle, const ZELCreateBucketOpt* opt, void* user_data) {
  FRAME_START(kOperation, handle, opt, user_data);
}
