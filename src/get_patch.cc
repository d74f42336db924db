// zel_get_patch: a local file brought up to date with a newer stored object
// by downloading only the service's patch between the two objects and
// applying it locally. When the service has no such patch yet, the delta
// engine is asked to make one (not awaited) and the call fails.
#include <zel/diff.h>
#include <zel/zel.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "alloc.h"
#include "delta_ops.h"
#include "frame.h"
#include "http.h"
#include "http_plan.h"
#include "json.h"
#include "log.h"
#include "object_op.h"
#include "util.h"

namespace {
constexpr const char* kLogTag = "src\\get_patch";
constexpr size_t kHeaderLine = 102400;
constexpr uint64_t kDeltaBlock = 2048;

struct ZELGetPatchDecorator {
  ZEL* handle;
  ZELGetPatchOpt* opt;
  void* user_data;
};

using Opt = ZELGetPatchOpt;
const OptField kFields[] = {
    OPT_FIELD(wide, Opt, bucket_key, "Cannot allocate memory for the ZELGetPatchOpt bucket_key"),
    OPT_FIELD(wide, Opt, orig_key, "Cannot allocate memory for the ZELGetPatchOpt orig_key"),
    OPT_FIELD(wide, Opt, dest_key, "Cannot allocate memory for the ZELGetPatchOpt dest_key"),
    OPT_FIELD(wide, Opt, orig, "Cannot allocate for the ZELGetPatchOpt orig"),
    OPT_FIELD(wide, Opt, patch, "Cannot allocate for the ZELGetPatchOpt patch"),
    OPT_FIELD(wide, Opt, dest, "Cannot allocate for the ZELGetPatchOpt dest"),
    OPT_FIELD(headers, Opt, headers, "Cannot allocate memory for the ZELGetPatchOpt headers"),
    OPT_FIELD(wide, Opt, temp_dir, "Cannot allocate memory for the ZELGetPatchOpt temp_dir"),
};
const OptTable kCopy = opt_table<Opt>(ZSITE, "Cannot allocate memory for the cloned ZELGetPatchOpt", kFields);
const DecoratorRules kRules{ZSITE, "ZELGetPatchDecorator", true, false};

void free_get_patch_decorator(void* raw) { decorator_free(kCopy, static_cast<ZELGetPatchDecorator*>(raw)); }

ZELGetPatchDecorator* make_get_patch_decorator(const ZEL* handle, const ZELGetPatchOpt* opt,
                                               void* user_data) {
  return decorator_make<ZELGetPatchDecorator>(kRules, kCopy, handle, opt, user_data);
}

// The first option that makes the task impossible, or none.
const char* option_problem(const ZELGetPatchOpt* o) {
  if (o->bucket_key == nullptr) return "ZELGetPatchOpt bucket_key is (null)";
  if (o->orig_key == nullptr) return "ZELGetPatchOpt orig_key is (null)";
  if (o->dest_key == nullptr) return "ZELGetPatchOpt dest_key is (null)";
  if (o->orig == nullptr) return "ZELGetPatchOpt original stream is (null)";
  if (o->patch == nullptr) return "ZELGetPatchOpt patch stream is (null)";
  if (o->dest == nullptr) return "ZELGetPatchOpt resulting stream is (null)";
  if (o->temp_dir == nullptr) return "ZELGetPatchOpt temp_dir is (null)";
  if (!(o->ratio >= 0.0 && o->ratio <= 1.0)) return "ZELGetPatchOpt ratio is invalid";
  if (o->preprocess < 0) return "ZELGetPatchOpt preprocess is invalid";
  return nullptr;
}

HttpPlan plan_for(const ZEL* handle, const char* url, long url_length) {
  HttpPlan plan;
  plan.method = HttpMethod::get;
  plan.url = url;
  plan.url_length = url_length;
  plan.settings = http_settings_from(handle);
  plan.pooled = true;
  plan.get_token = handle->get_token;
  plan.free_token = handle->free_token;
  return plan;
}

// The details of an object, asked with `lines` (a patch's details when they
// name one). None (logged) unless they parse and carry a SHA-1.
ZELObjectDetails* details_with(const ZEL* handle, const char16_t* bucket, const char16_t* key,
                               const ZELHeaders* lines) {
  EscapedName b(bucket), k(key);
  if (!b.ok() || !k.ok()) {
    ZLOG("%s", kCannotEscapeKeys);
    return nullptr;
  }
  char url[ZEL_URL_SIZE] = {0};
  long length = zel_api_url(handle, url, "/buckets/%s/objects/%s/details", b.get(), k.get());
  HttpPlan plan = plan_for(handle, url, length);
  plan.headers = lines;
  HttpExchange exchange;
  if (!exchange.run(plan)) {
    ZLOG("%s", exchange.error() != nullptr ? exchange.error() : "(null)");
    return nullptr;
  }
  if (exchange.status() != 200) {
    ZLOG("[%d]: %s", exchange.status(), exchange.body() != nullptr ? exchange.body() : "(null)");
    return nullptr;
  }
  ZELObjectDetails* details = zel_object_details_init();
  if (details == nullptr) {
    ZLOG("Cannot initialize original object details");
    return nullptr;
  }
  if (object_details_fromjson(exchange.body(), details, handle->api_version) != 0) {
    ZLOG("Cannot unmarshall json response: %s", exchange.body() != nullptr ? exchange.body() : "(null)");
    zel_object_details_cleanup(details);
    return nullptr;
  }
  if (details->sha1 == nullptr || details->sha1[0] == '\0') {
    ZLOG("No sha-1 found in get object details");
    zel_object_details_cleanup(details);
    return nullptr;
  }
  return details;
}

size_t write_patch(const char* bytes, size_t size, int32_t, void* data) {
  return std::fwrite(bytes, 1, size, static_cast<FILE*>(data));
}

// Downloads dest_key as a patch from the base `sha1` into the file `patch`.
// The HTTP status, or 0 when no answer came (or a 200 did not deliver the
// `expected` size the patch's details announced).
int32_t download_patch(const ZEL* handle, const ZELGetPatchOpt* o, const char* sha1, uint64_t expected) {
  EscapedName b(o->bucket_key), k(o->dest_key);
  if (!b.ok() || !k.ok()) {
    ZLOG("%s", kCannotEscapeKeys);
    return 0;
  }
  char url[ZEL_URL_SIZE] = {0};
  long length = zel_download_url(handle, url, "/buckets/%s/objects/%s", b.get(), k.get());
  FILE* file = file_open(o->patch, "wb");
  if (file == nullptr) {
    ZLOG("%s", std::strerror(errno));
    return 0;
  }
  auto* object = static_cast<char*>(mem_malloc(kHeaderLine));
  if (object == nullptr) {
    std::fclose(file);
    ZLOG("Cannot initialize http request");
    return 0;
  }
  char process[32];
  std::snprintf(object, kHeaderLine, " patch:%s", sha1);
  std::snprintf(process, sizeof process, "%d", o->preprocess);
  const HttpField fields[] = {{"x-pmw-delta-object", object}, {"x-pmw-delta-processtype", process}};
  HttpPlan plan = plan_for(handle, url, length);
  plan.bulk = true;
  plan.fields = fields;
  plan.field_count = 2;
  plan.headers = o->headers;
  plan.sink = write_patch;
  plan.sink_data = file;
  plan.expect_length = expected;
  HttpExchange exchange;
  bool answered = exchange.run(plan);
  bool written = std::fclose(file) == 0;
  mem_free(object);
  if (!answered) {
    ZLOG("%s", exchange.error() != nullptr ? exchange.error() : "(null)");
    return 0;
  }
  if (!written) {
    ZLOG("%s", std::strerror(errno));
    return 0;
  }
  return exchange.status();
}

int32_t apply_patch(const ZELGetPatchOpt* o, char* base_sha1) {
  DiffFileEntry base{const_cast<char16_t*>(o->orig), base_sha1, nullptr};
  DiffFileEntry* head = &base;
  char* message = nullptr;
  int32_t result = diff_apply_patch(o->dest, o->patch, &head, o->temp_dir, o->apply_mode, &message);
  if (message != nullptr) {
    ZLOG("diff_apply_patch: %d\t%s", result, message);
    free_err_msg(&message);
  }
  return result;
}

// Registers the job that makes the patch on the service; not awaited.
int request_delta(const ZELGetPatchDecorator* d) {
  KRI* kri = kri_for_handle(d->handle);
  if (kri == nullptr) {
    ZLOG("Cannot initialize KRI");
    return -1;
  }
  const ZELGetPatchOpt* o = d->opt;
  KRICreateDeltaOpt opt{o->bucket_key,
                        o->orig_key,
                        o->dest_key,
                        kDeltaBlock,
                        static_cast<int32_t>(d->handle->max_retries),
                        o->preprocess,
                        zel_headers_find(o->headers, "x-pmw-acm-namespace"),
                        zel_headers_find(o->headers, "x-pmw-acm-groups"),
                        zel_headers_find(o->headers, "x-pmw-acm-check-groups")};
  KRICreateDeltaResp job{};
  const char* message = kri_create_delta(kri, &opt, &job);
  if (message != nullptr) ZLOG("%s", message);
  kri_resp_clear(&job);
  kri_cleanup(kri);
  return message != nullptr ? -1 : 0;
}

void request_delta_logged(const ZELGetPatchDecorator* d) {
  if (request_delta(d) != 0) ZLOG("Cannot enqueue 'create delta event'");
}

// Both objects' details, the patch's details and the ratio rule passed:
// download and apply.
void fetch_and_apply(const ZELGetPatchDecorator* d, ZELObjectDetails* orig, const ZELObjectDetails* patch) {
  const ZELGetPatchOpt* o = d->opt;
  int32_t status = download_patch(d->handle, o, orig->sha1, patch->size);
  if (status == 200) {
    if (apply_patch(o, orig->sha1) < 0) {
      report(o->callback, -103, "Cannot apply a patch", d->user_data);
    } else if (o->done_callback != nullptr) {
      o->done_callback(d->user_data);
    }
  } else if (status == 404) {
    report(o->callback, -404, "Patch not found", d->user_data);
    request_delta_logged(d);
  } else {
    report(o->callback, -401, "Cannot download a patch", d->user_data);
  }
  (void)file_remove(o->patch);
}

void run_get_patch(const ZELGetPatchDecorator* d) {
  const ZELGetPatchOpt* o = d->opt;
  ZELObjectDetails* orig = details_with(d->handle, o->bucket_key, o->orig_key, nullptr);
  if (orig == nullptr) return report(o->callback, -203, "Cannot get original object details", d->user_data);
  ZELObjectDetails* dest = details_with(d->handle, o->bucket_key, o->dest_key, nullptr);
  ZELObjectDetails* patch = nullptr;
  ZELHeaders* lines = nullptr;
  auto* value = static_cast<char*>(mem_malloc(kHeaderLine));
  if (dest == nullptr) {
    report(o->callback, -203, "Cannot get dest object details", d->user_data);
  } else if (value == nullptr) {
    // Without the lines there is no way to ask for the patch.
    report(o->callback, -203, "Cannot get patch object details", d->user_data);
  } else {
    std::snprintf(value, kHeaderLine, " %d", o->preprocess);
    lines = zel_headers_append(nullptr, "x-pmw-delta-processtype", value);
    std::snprintf(value, kHeaderLine, " patch:%s->%s", orig->sha1, dest->sha1);
    lines = zel_headers_append(lines, "x-pmw-delta-object", value);
    patch = lines != nullptr && lines->next != nullptr
                ? details_with(d->handle, o->bucket_key, o->orig_key, lines)
                : nullptr;
    if (patch == nullptr) {
      request_delta_logged(d);
      report(o->callback, -203, "Cannot get patch object details", d->user_data);
    } else if (dest->size != 0 &&
               static_cast<double>(patch->size) / static_cast<double>(dest->size) >= o->ratio) {
      report(o->callback, -101, "The difference between two objects is greater or equal the ratio",
             d->user_data);
    } else {
      fetch_and_apply(d, orig, patch);
    }
  }
  mem_free(value);
  zel_headers_cleanup(lines);
  zel_object_details_cleanup(patch);
  zel_object_details_cleanup(dest);
  zel_object_details_cleanup(orig);
}

void get_patch_task(void* raw) {
  auto* d = static_cast<ZELGetPatchDecorator*>(raw);
  if (d == nullptr) {
    ZLOG("ZELGetPatchDecorator pointer is (null)");
    return;
  }
  if (d->opt == nullptr) {
    ZLOG("ZELGetPatchOpt pointer is (null)");
  } else if (const char* problem = option_problem(d->opt)) {
    report(d->opt->callback, 0, problem, d->user_data);
  } else {
    run_get_patch(d);
  }
  free_get_patch_decorator(d);
}

void* get_patch_copy(const OpCall& call, bool*) {
  return make_get_patch_decorator(call.handle, call.options<ZELGetPatchOpt>(), call.user_data);
}

// Queued at the head like the other downloads; its options are checked by
// the task, where a failure can be reported.
const TransferOp kTransfer{nullptr,        get_patch_copy,
                           get_patch_task, free_get_patch_decorator,
                           true,           "Cannot enqueue a new task (get_patch)"};
const Operation kGetPatch = [] {
  Operation op = transfer_operation<ZELGetPatchOpt>(kTransfer, true);
  OPERATION_NAMES(op, "ZELGetPatch");
  return op;
}();
}  // namespace

extern "C" ZEL_EXPORT void zel_get_patch(ZEL* handle, const ZELGetPatchOpt* opt, void* user_data) {
  FRAME_START(kGetPatch, handle, opt, user_data);
}
