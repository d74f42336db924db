// zel_match_object: fetches the signature of a stored object and asks the
// delta library whether a local file is close enough to it for a delta
// exchange to pay off.
#include "match_object.h"

#include <zel/diff.h>
#include <zel/zel.h>

#include <cstdio>

#include "alloc.h"
#include "frame.h"
#include "log.h"
#include "util.h"

namespace {
constexpr const char* kLogTag = "src\\match_object";
constexpr const char* kEntryTag = "src\\object";
constexpr int kSignatureBlock = 2048;

using Opt = ZELMatchObjectOpt;
const OptField kFields[] = {
    OPT_FIELD(wide, Opt, bucket_key, "Cannot allocate memory for ZELMatchObjectOpt bucket key"),
    OPT_FIELD(wide, Opt, orig_key, "Cannot allocate memory for ZELMatchObjectOpt key"),
    OPT_FIELD(wide, Opt, sig_path, "Cannot allocate memory for ZELMatchObjectOpt sig"),
    OPT_FIELD(wide, Opt, dest, "Cannot allocate memory for ZELMatchObjectOpt dest"),
    OPT_FIELD(wide, Opt, temp_dir, "Cannot allocate memory for ZELMatchObjectOpt temp dir"),
    OPT_FIELD(headers, Opt, headers, "Cannot allocate memory for ZEL Headers"),
};
const OptTable kCopy = opt_table<Opt>(ZSITE, "Cannot allocate memory for clone ZELMatchObjectOpt", kFields);
const DecoratorRules kRules{ZSITE, "ZELMatchObjectDecorator", true, false};

void free_match_decorator(ZELMatchObjectDecorator* decorator) { decorator_free(kCopy, decorator); }

ZELMatchObjectDecorator* make_match_decorator(const ZEL* handle, const ZELMatchObjectOpt* opt,
                                              void* user_data) {
  auto* decorator = decorator_make<ZELMatchObjectDecorator>(kRules, kCopy, handle, opt, user_data);
  if (decorator == nullptr) return nullptr;
  // The signature request is the object's download with this header.
  char value[89];
  std::snprintf(value, sizeof value, "signature:@%d", kSignatureBlock);
  ZELHeaders* with = zel_headers_append(decorator->opt->headers, "x-pmw-delta-object", value);
  if (with == decorator->opt->headers) {
    free_match_decorator(decorator);
    return nullptr;
  }
  decorator->opt->headers = with;
  return decorator;
}

}  // namespace

bool match_decorator_check(const ZELMatchObjectDecorator* d) {
  if (d == nullptr) {
    ZLOG("ZELMatchObjectDecorator pointer is (null)");
    return false;
  }
  const ZELMatchObjectOpt* o = d->opt;
  if (o == nullptr) {
    ZLOG("ZELMatchObjectOpt pointer is (null)");
    return false;
  }
  const char* why = d->handle == nullptr                    ? "Cannot find the zel configuration"
                    : o->bucket_key == nullptr              ? "ZELMatchObjectOpt bucket key is (null)"
                    : o->orig_key == nullptr                ? "ZELMatchObjectOpt orig key is (null)"
                    : o->sig_path == nullptr                ? "ZELMatchObjectOpt sig path is (null)"
                    : o->dest == nullptr                    ? "ZELMatchObjectOpt dest is (null)"
                    : o->temp_dir == nullptr                ? "ZELMatchObjectOpt temp dir is (null)"
                    : !(o->ratio >= 0.0 && o->ratio <= 1.0) ? "ZELMatchObjectOpt ratio is invalid"
                                                            : nullptr;
  if (why == nullptr) return true;
  report(o->callback, 0, why, d->user_data);
  return false;
}

namespace {
// The signature download failed.
void on_download_failed(const ZELGetObjectResp* resp, void* user_data) {
  auto* d = static_cast<ZELMatchObjectDecorator*>(user_data);
  if (match_decorator_check(d)) report(d->opt->callback, resp->code, resp->message, d->user_data);
  if (d != nullptr && d->opt != nullptr) (void)file_remove(d->opt->sig_path);
  free_match_decorator(d);
}

// The signature arrived: compare.
void on_signature(void* user_data) {
  auto* d = static_cast<ZELMatchObjectDecorator*>(user_data);
  if (!match_decorator_check(d)) {
    free_match_decorator(d);
    return;
  }
  const ZELMatchObjectOpt* o = d->opt;
  int32_t result = diff_file_match(o->sig_path, o->dest, o->temp_dir, o->ratio);
  if (result < 0) {
    report(o->callback, 0, "Failed to find file match", d->user_data);
  } else if (o->match_callback != nullptr) {
    o->match_callback(result, d->user_data);
  }
  if (file_remove(o->sig_path) != 0) ZLOG("Cannot remove signature file");
  free_match_decorator(d);
}

}  // namespace

extern "C" ZEL_EXPORT void zel_match_object(ZEL* handle, const ZELMatchObjectOpt* opt, void* user_data) {
  if (handle == nullptr || handle->get_token == nullptr) {
    zel_log(nullptr, kEntryTag, __LINE__, "ZEL is not initialized");
    return;
  }
  if (opt == nullptr || opt->bucket_key == nullptr || opt->orig_key == nullptr || opt->dest == nullptr ||
      opt->temp_dir == nullptr || opt->sig_path == nullptr) {
    zel_log(nullptr, kEntryTag, __LINE__, "ZELMatchObjectOpt is not initialized");
    return;
  }
  ZELMatchObjectDecorator* d = make_match_decorator(handle, opt, user_data);
  ZELStream* stream = d != nullptr ? zel_stream_init(d->opt->sig_path) : nullptr;
  if (stream == nullptr) {
    free_match_decorator(d);
    report(opt->callback, 0, "Cannot initialize ZELMatchObjectDecorator", user_data);
    return;
  }
  ZELGetObjectOpt get{};
  get.bucket_key = d->opt->bucket_key;
  get.key = d->opt->orig_key;
  get.stream = stream;
  get.headers = d->opt->headers;
  get.size_unknown = 1;  // one request: a signature's size is not the object's
  get.callback = on_download_failed;
  get.done_callback = on_signature;
  // The download copies what it needs before it returns; from here on the
  // decorator belongs to whichever of the two handlers runs.
  zel_get_object(handle, &get, d);
  zel_stream_cleanup(stream);
}
