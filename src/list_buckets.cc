#include <cstdio>

#include "bucket.h"
#include "frame.h"
#include "json.h"
#include "zel_internal.h"

namespace {
constexpr const char* kLogTag = "src\\list_buckets";
using Decorator = OpDecorator<ZELListBucketsOpt>;
constexpr uint32_t kDefaultPageSize = 10;

void free_opt(ZELListBucketsOpt* opt) {
  if (opt == nullptr) return;
  free_wide(opt->region);
  free_wide(opt->start_at);
  zel_headers_cleanup(opt->headers);
  mem_free(opt);
}

ZELListBucketsOpt* clone_opt(const ZELListBucketsOpt* source) {
  auto* copy = static_cast<ZELListBucketsOpt*>(mem_calloc(1, sizeof(ZELListBucketsOpt)));
  if (copy == nullptr) {
    ZLOG("Cannot allocate memory for the cloned ZELListBucketsOpt");
    return nullptr;
  }
  *copy = *source;
  copy->region = copy->start_at = nullptr;
  copy->headers = nullptr;
  const char* failure = nullptr;
  if (!copy_headers(source->headers, &copy->headers)) {
    failure = "Cannot clone the ZELListBucketsOpt headers";
  } else if (!copy_wide(source->region, &copy->region)) {
    failure = "Cannot clone the ZELListBucketsOpt region";
  } else if (!copy_wide(source->start_at, &copy->start_at)) {
    failure = "Cannot clone the ZELListBucketsOpt start at";
  }
  if (failure != nullptr) {
    ZLOG("%s", failure);
    free_opt(copy);
    return nullptr;
  }
  return copy;
}

// "limit=%u[&region=%s][&startAt=%s]"; an empty value is left out.
void build_query(const ZELListBucketsOpt* opt, char* query, size_t size) {
  EscapedName region(opt->region), start_at(opt->start_at);
  bool has_region = region.ok() && *region.get() != '\0';
  bool has_start = start_at.ok() && *start_at.get() != '\0';
  uint32_t limit = opt->limit != 0 ? opt->limit : kDefaultPageSize;
  if (has_region && has_start) {
    snprintf(query, size, "limit=%u&region=%s&startAt=%s", limit, region.get(), start_at.get());
  } else if (has_region) {
    snprintf(query, size, "limit=%u&region=%s", limit, region.get());
  } else if (has_start) {
    snprintf(query, size, "limit=%u&startAt=%s", limit, start_at.get());
  } else {
    snprintf(query, size, "limit=%u", limit);
  }
}

void on_success(const Exchange& exchange, const Decorator& decorator) {
  const ZELListBucketsOpt* opt = decorator.opt;
  if (opt->list_callback == nullptr) return;
  ZELListBucketsDetails* page = list_buckets_details_init();
  const char* body = exchange.body();
  if (page != nullptr && body != nullptr &&
      list_buckets_fromjson(body, page, decorator.handle->api_version) >= 0) {
    opt->list_callback(page, decorator.user_data);
  } else {
    ZLOG("Cannot unmarshall json response: %s", body != nullptr ? body : "(null)");
    report(opt->callback, 200, "Cannot unmarshall json response", decorator.user_data);
  }
  list_buckets_details_cleanup(page);
}

int worker(void* raw) {
  WorkerScope scope;
  auto* decorator = static_cast<Decorator*>(raw);
  DecoratorGuard<ZELListBucketsOpt, free_opt> guard{decorator};
  const ZELListBucketsOpt* opt = decorator->opt;
  if (opt == nullptr) {
    ZLOG("ZELListBucketsOpt pointer is (null)");
    return -1;
  }
  if ((opt->region != nullptr && !EscapedName(opt->region).ok()) ||
      (opt->start_at != nullptr && !EscapedName(opt->start_at).ok())) {
    report(opt->callback, 0, kCannotEscapeKeys, decorator->user_data);
    return -1;
  }
  char query[kUrlBuffer] = {0};
  build_query(opt, query, ZEL_URL_SIZE);
  char url[kUrlBuffer] = {0};
  const long url_length = zel_api_url(decorator->handle, url, "/buckets?%s", query);
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

extern "C" ZEL_EXPORT void zel_list_buckets(ZEL* handle, const ZELListBucketsOpt* opt, void* user_data) {
  static const EntryConfig cfg{"src\\bucket",
                               "ZELListBucketsOpt",
                               "ZELListBucketsDecorator",
                               "Cannot allocate memory for ZELListBucketsDecorator",
                               false,
                               true,
                               true};
  start_operation<ZELListBucketsOpt, ZELListBucketsResp, clone_opt, free_opt>(cfg, handle, opt, user_data,
                                                                              worker);
}
