#include "frame.h"
#include "zel_internal.h"

namespace {
constexpr const char* kLogTag = "src\\copy_object";
using Decorator = OpDecorator<ZELCopyObjectOpt>;

void free_opt(ZELCopyObjectOpt* opt) {
  if (opt == nullptr) return;
  free_wide(opt->bucket_key);
  free_wide(opt->source_key);
  free_wide(opt->destination_key);
  zel_headers_cleanup(opt->headers);
  mem_free(opt);
}

ZELCopyObjectOpt* clone_opt(const ZELCopyObjectOpt* source) {
  auto* copy = static_cast<ZELCopyObjectOpt*>(mem_calloc(1, sizeof(ZELCopyObjectOpt)));
  if (copy == nullptr) {
    ZLOG("Cannot allocate memory for the cloned ZELCopyObjectOpt");
    return nullptr;
  }
  *copy = *source;
  copy->bucket_key = copy->source_key = copy->destination_key = nullptr;
  copy->headers = nullptr;
  const char* failure = nullptr;
  if (!copy_wide(source->source_key, &copy->source_key)) {
    failure = "Cannot allocate memory for ZELCopyObjectOpt source key";
  } else if (!copy_wide(source->destination_key, &copy->destination_key)) {
    failure = "Cannot allocate memory for ZELCopyObjectOpt destination key";
  } else if (!copy_wide(source->bucket_key, &copy->bucket_key)) {
    failure = "Cannot allocate memory for ZELCopyObjectOpt bucket key";
  } else if (!copy_headers(source->headers, &copy->headers)) {
    failure = "Cannot clone the ZELCopyObjectOpt headers";
  }
  if (failure != nullptr) {
    ZLOG("%s", failure);
    free_opt(copy);
    return nullptr;
  }
  return copy;
}

const char* missing_field(const ZELCopyObjectOpt* opt) {
  if (opt->bucket_key == nullptr) return "ZELCopyObjectOpt bucket_key is (null)";
  if (opt->source_key == nullptr) return "ZELCopyObjectOpt source_key is (null)";
  if (opt->destination_key == nullptr) return "ZELCopyObjectOpt destination_key is (null)";
  return nullptr;
}

int worker(void* raw) {
  WorkerScope scope;
  auto* decorator = static_cast<Decorator*>(raw);
  DecoratorGuard<ZELCopyObjectOpt, free_opt> guard{decorator};
  const ZELCopyObjectOpt* opt =
      worker_options(kLogTag, decorator, "ZELCopyObjectDecorator", "ZELCopyObjectOpt");
  if (opt == nullptr) return -1;
  if (const char* missing = missing_field(opt)) {
    report(opt->callback, 0, missing, decorator->user_data);
    return -1;
  }
  EscapedName bucket(opt->bucket_key), source(opt->source_key), destination(opt->destination_key);
  if (!bucket.ok() || !source.ok() || !destination.ok()) {
    report(opt->callback, 0, kCannotEscapeKeys, decorator->user_data);
    return -1;
  }
  char url[kUrlBuffer] = {0};
  const long url_length = zel_api_url(decorator->handle, url, "/buckets/%s/objects/%s/copyto/%s",
                                      bucket.get(), source.get(), destination.get());
  // A PUT without body: application/octet-stream and an upload size of 0.
  Exchange exchange;
  ExchangePlan plan{decorator->handle, opt->headers, HttpMethod::put, url, nullptr, nullptr, url_length};
  bool answered = exchange.run(plan);
  if (answered && exchange.status() == 200) {
    deliver_object_details(kLogTag, exchange, decorator->handle->api_version, opt->details_callback,
                           opt->callback, decorator->user_data);
  } else {
    report_failure(opt->callback, exchange, decorator->user_data);
  }
  return answered ? exchange.status() : -1;
}
}  // namespace

extern "C" ZEL_EXPORT void zel_copy_object(ZEL* handle, const ZELCopyObjectOpt* opt, void* user_data) {
  static const EntryConfig cfg{"src\\object",
                               "ZELCopyObjectOpt",
                               "ZELCopyObjectDecorator",
                               "Cannot allocate memory for ZELCopyObjectDecorator",
                               true,
                               true,
                               false};
  start_operation<ZELCopyObjectOpt, ZELCopyObjectResp, clone_opt, free_opt>(cfg, handle, opt, user_data,
                                                                            worker);
}
