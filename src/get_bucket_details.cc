#include "bucket.h"
#include "cache.h"
#include "frame.h"
#include "json.h"
#include "util.h"
#include "zel_internal.h"

namespace {
constexpr const char* kLogTag = "src\\get_bucket_details";
using Decorator = OpDecorator<ZELGetBucketDetailsOpt>;

void free_opt(ZELGetBucketDetailsOpt* opt) {
  if (opt == nullptr) return;
  free_wide(opt->key);
  zel_headers_cleanup(opt->headers);
  mem_free(opt);
}

ZELGetBucketDetailsOpt* clone_opt(const ZELGetBucketDetailsOpt* source) {
  auto* copy = static_cast<ZELGetBucketDetailsOpt*>(mem_calloc(1, sizeof(ZELGetBucketDetailsOpt)));
  if (copy == nullptr) {
    ZLOG("Cannot clone the ZELGetBucketDetailsOpt");
    return nullptr;
  }
  *copy = *source;
  copy->key = nullptr;
  copy->headers = nullptr;
  const char* failure = nullptr;
  if (!copy_wide(source->key, &copy->key)) {
    failure = "Cannot allocate memory for the ZELGetBucketDetailsOpt key";
  } else if (!copy_headers(source->headers, &copy->headers)) {
    failure = "Cannot clone the ZELGetBucketDetailsOpt headers";
  }
  if (failure != nullptr) {
    ZLOG("%s", failure);
    free_opt(copy);
    return nullptr;
  }
  return copy;
}

void on_success(const Exchange& exchange, const Decorator& decorator) {
  const ZEL* handle = decorator.handle;
  const ZELGetBucketDetailsOpt* opt = decorator.opt;
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
    opt->details_callback(details, decorator.user_data);
  } else {
    ZLOG("Cannot unmarshal json response: %s", body != nullptr ? body : "(null)");
    report(opt->callback, 200, "Cannot unmarshal json response", decorator.user_data);
  }
  zel_bucket_details_cleanup(details);
}

int worker(void* raw) {
  WorkerScope scope;
  auto* decorator = static_cast<Decorator*>(raw);
  DecoratorGuard<ZELGetBucketDetailsOpt, free_opt> guard{decorator};
  const ZELGetBucketDetailsOpt* opt = decorator->opt;
  if (opt->key == nullptr) {
    report(opt->callback, 0, "ZELGetBucketDetailsOpt key is (null)", decorator->user_data);
    return -1;
  }
  EscapedName key(opt->key);
  if (!key.ok()) {
    report(opt->callback, 0, kCannotEscapeKeys, decorator->user_data);
    return -1;
  }
  char url[kUrlBuffer] = {0};
  const long url_length = zel_api_url(decorator->handle, url, "/buckets/%s/details", key.get());
  Exchange exchange;
  ExchangePlan plan{decorator->handle, opt->headers, HttpMethod::get, url, nullptr, nullptr, url_length};
  bool answered = exchange.run(plan);
  if (answered && exchange.status() == 200) {
    on_success(exchange, *decorator);
  } else {
    report_failure(opt->callback, exchange, decorator->user_data);
  }
  return answered ? exchange.status() : -1;
}
}  // namespace

extern "C" ZEL_EXPORT void zel_get_bucket_details(ZEL* handle, const ZELGetBucketDetailsOpt* opt,
                                                  void* user_data) {
  static const EntryConfig cfg{"src\\bucket",
                               "ZELGetBucketDetailsOpt",
                               "ZELGetBucketDetailsDecorator",
                               "Cannot allocate memory for ZELGetBucketDetailsDecorator",
                               false,
                               false,
                               true};
  start_operation<ZELGetBucketDetailsOpt, ZELGetBucketDetailsResp, clone_opt, free_opt>(cfg, handle, opt,
                                                                                        user_data, worker);
}
