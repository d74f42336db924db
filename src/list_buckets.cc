#include <cstdio>

#include "bucket.h"
#include "json.h"
#include "object_op.h"

namespace {
constexpr const char* kLogTag = "src\\list_buckets";
using Opt = ZELListBucketsOpt;
constexpr uint32_t kDefaultPageSize = 10;

const OptField kFields[] = {OPT_FIELD(headers, Opt, headers, "Cannot clone the ZELListBucketsOpt headers"),
                            OPT_FIELD(wide, Opt, region, "Cannot clone the ZELListBucketsOpt region"),
                            OPT_FIELD(wide, Opt, start_at, "Cannot clone the ZELListBucketsOpt start at")};
const OptTable kCopy =
    opt_table<Opt>(ZSITE, "Cannot allocate memory for the cloned ZELListBucketsOpt", kFields);

// "/buckets?limit=%u[&region=%s][&startAt=%s]"; an empty value is left out.
const char* build_url(const OpCall& call, char* url, long* url_length) {
  const Opt* opt = call.options<Opt>();
  EscapedName region(opt->region), start_at(opt->start_at);
  if ((opt->region != nullptr && !region.ok()) || (opt->start_at != nullptr && !start_at.ok())) {
    return kCannotEscapeKeys;
  }
  char query[kUrlBuffer] = {0};
  bool has_region = region.ok() && *region.get() != '\0';
  bool has_start = start_at.ok() && *start_at.get() != '\0';
  uint32_t limit = opt->limit != 0 ? opt->limit : kDefaultPageSize;
  if (has_region && has_start) {
    snprintf(query, ZEL_URL_SIZE, "limit=%u&region=%s&startAt=%s", limit, region.get(), start_at.get());
  } else if (has_region) {
    snprintf(query, ZEL_URL_SIZE, "limit=%u&region=%s", limit, region.get());
  } else if (has_start) {
    snprintf(query, ZEL_URL_SIZE, "limit=%u&startAt=%s", limit, start_at.get());
  } else {
    snprintf(query, ZEL_URL_SIZE, "limit=%u", limit);
  }
  *url_length = zel_api_url(call.handle, url, "/buckets?%s", query);
  return nullptr;
}

void on_success(const OpCall& call, const Exchange& exchange) {
  const Opt* opt = call.options<Opt>();
  if (opt->list_callback == nullptr) return;
  ZELListBucketsDetails* page = list_buckets_details_init();
  const char* body = exchange.body();
  if (page != nullptr && body != nullptr &&
      list_buckets_fromjson(body, page, call.handle->api_version) >= 0) {
    opt->list_callback(page, call.user_data);
  } else {
    ZLOG("Cannot unmarshall json response: %s", body != nullptr ? body : "(null)");
    call.report(200, "Cannot unmarshall json response");
  }
  list_buckets_details_cleanup(page);
}

const Operation kOperation = [] {
  Operation op;
  bucket_operation<Opt>(op, kCopy);
  OPERATION_NAMES(op, "ZELListBuckets");
  op.log_clone_failures = true;
  op.site = ZSITE;
  op.url = build_url;
  op.on_success = on_success;
  return op;
}();
}  // namespace

extern "C" ZEL_EXPORT void zel_list_buckets(ZEL* handle, const ZELListBucketsOpt* opt, void* user_data) {
  FRAME_START(kOperation, handle, opt, user_data);
}
