#include "create_bucket.h"

#include "bucket.h"
#include "cache.h"
#include "frame.h"
#include "json.h"
#include "util.h"
#include "zel_internal.h"

namespace {
constexpr const char* kLogTag = "src\\create_bucket";
using Decorator = OpDecorator<ZELCreateBucketOpt>;

void free_opt(ZELCreateBucketOpt* opt) {
  if (opt == nullptr) return;
  free_wide(opt->key);
  zel_permissions_cleanup(opt->permissions);
  zel_headers_cleanup(opt->headers);
  mem_free(opt);
}

ZELCreateBucketOpt* clone_opt(const ZELCreateBucketOpt* source) {
  auto* copy = static_cast<ZELCreateBucketOpt*>(mem_calloc(1, sizeof(ZELCreateBucketOpt)));
  if (copy == nullptr) {
    ZLOG("Cannot allocate memory for the cloned ZELCreateBucketOpt");
    return nullptr;
  }
  *copy = *source;
  copy->key = nullptr;
  copy->permissions = nullptr;
  copy->headers = nullptr;
  const char* failure = nullptr;
  if (!copy_wide(source->key, &copy->key)) {
    failure = "Cannot allocate memory for ZELCreateBucketOpt key";
  } else if (source->permissions != nullptr &&
             (copy->permissions = permissions_clone(source->permissions)) == nullptr) {
    failure = "Cannot clone the ZELCreateBucketOpt permissions list";
  } else if (!copy_headers(source->headers, &copy->headers)) {
    failure = "Cannot clone the ZELCreateBucketOpt headers";
  }
  if (failure != nullptr) {
    ZLOG("%s", failure);
    free_opt(copy);
    return nullptr;
  }
  return copy;
}

void remember_bucket(const ZEL* handle, const char16_t* key) {
  if (handle->auto_create_bucket == 0) return;
  char* utf8 = wide_to_utf8(key);
  if (utf8 != nullptr) cache_put(utf8, handle->environment);
  mem_free(utf8);
}

void deliver_details(const ZEL* handle, const ZELCreateBucketOpt* opt, const char* body, void* user_data) {
  ZELBucketDetails* details = zel_bucket_details_init();
  if (details == nullptr || body == nullptr ||
      bucket_details_fromjson(body, details, handle->api_version) != 0) {
    report(opt->callback, 200, "Cannot unmarshal json response", user_data);
  } else if (opt->details_callback != nullptr) {
    opt->details_callback(details, user_data);
  }
  zel_bucket_details_cleanup(details);
}

int worker(void* raw) {
  WorkerScope scope;
  auto* decorator = static_cast<Decorator*>(raw);
  DecoratorGuard<ZELCreateBucketOpt, free_opt> guard{decorator};
  return create_bucket_run(decorator->handle, decorator->opt, decorator->user_data);
}
}  // namespace

int create_bucket_run(const ZEL* handle, const ZELCreateBucketOpt* opt, void* user_data) {
  char* body = create_bucket_tojson(opt, handle->api_version);
  if (body == nullptr) {
    report(opt->callback, 0, "Cannot marshal http request body to json", user_data);
    return -1;
  }
  char url[kUrlBuffer] = {0};
  const long url_length = zel_api_url(handle, url, "/buckets");
  Exchange exchange;
  ExchangePlan plan{handle, opt->headers, HttpMethod::post, url, "application/json", body, url_length};
  bool answered = exchange.run(plan);
  mem_free(body);
  if (!answered) {
    ZLOG("%s", exchange.error());
    report(opt->callback, exchange.setup_failed() ? -1 : exchange.code(), exchange.error(), user_data);
    return exchange.setup_failed() ? -1 : exchange.code();
  }
  int32_t status = exchange.status();
  if (status == 200) {
    remember_bucket(handle, opt->key);
    deliver_details(handle, opt, exchange.body(), user_data);
  } else {
    // The service's answer is passed on unchanged (409 included).
    HttpVerdictRules rules;
    rules.extract_reason = false;
    HttpVerdict verdict(exchange, rules);
    report(opt->callback, status, verdict.message(), user_data);
  }
  return status;
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
  static const EntryConfig cfg{"src\\bucket",
                               "ZELCreateBucketOpt",
                               "ZELCreateBucketDecorator",
                               "Cannot allocate memory for CreateBucketDecorator",
                               false,
                               false,
                               true};
  start_operation<ZELCreateBucketOpt, ZELCreateBucketResp, clone_opt, free_opt>(cfg, handle, opt, user_data,
                                                                                worker);
}
