// zel_put_patch: a new version of an object stored by uploading only a
// patch. The signature, the match decision, the patch and the new file's
// SHA-1 are computed on the caller's thread (on two short-lived threads);
// the patch then travels through the upload engine, and the delta engine
// applies it on the service while the finishing worker polls its job.
#include <zel/diff.h>
#include <zel/zel.h>

#include <cstdio>
#include <cstdlib>

#include "alloc.h"
#include "delta_ops.h"
#include "frame.h"
#include "json.h"
#include "log.h"
#include "object.h"
#include "signature.h"
#include "thread.h"
#include "threadpool.h"
#include "util.h"

namespace {
constexpr const char* kLogTag = "src\\put_patch";
constexpr const char* kEntryTag = "src\\object";
constexpr uint32_t kSignatureBlock = 2048;

// Argument of each local thread: the caller's options and where the
// thread's SHA-1 result goes.
struct ThrdOpt {
  const ZELPutPatchOpt* opt;
  char** result;
};

struct ZELPutPatchDecorator {
  ZEL* handle;
  ZELPutPatchOpt* opt;
  char* sha1;  // of the new file
  void* user_data;
};

void log_diff_message(char** message) {
  ZLOG("%s", *message != nullptr ? *message : "(null)");
  free_err_msg(message);
}

// Signature of the origin, match against the new file, patch. 1 with the
// origin's SHA-1 stored, 0 when the files are too different, -1 on failure.
// The signature file never outlives the thread.
int make_patch(void* raw) {
  auto* t = static_cast<ThrdOpt*>(raw);
  if (t == nullptr || t->opt == nullptr || t->result == nullptr) {
    ZLOG("ThrdOpt is not initialized");
    return -1;
  }
  const ZELPutPatchOpt* o = t->opt;
  const char16_t* origin = o->origin_stream->filename;
  const char16_t* derv = o->derv_stream->filename;
  if (origin == nullptr || derv == nullptr || o->temp_dir == nullptr) {
    ZLOG("ZELPutPatchOpt file is not initialized");
    return -1;
  }
  char* message = nullptr;
  if (diff_create_signature(origin, o->signature_path, o->temp_dir, kSignatureBlock, 1, o->process_type,
                            &message) < 0) {
    log_diff_message(&message);
    return -1;
  }
  free_err_msg(&message);
  int32_t match = diff_file_match(o->signature_path, derv, o->temp_dir, o->ratio);
  if (match < 1) {
    (void)file_remove(o->signature_path);
    return match == 0 ? 0 : -1;
  }
  DiffFileList* list = file_list_init();
  DiffFileList* bases = list != nullptr ? file_list_append(list, o->signature_path) : nullptr;
  if (bases == nullptr) {
    ZLOG("Failed to initialize file list");
    file_list_cleanup(list);
    (void)file_remove(o->signature_path);
    return -1;
  }
  int32_t made = diff_create_patch(derv, bases, o->patch_path, o->temp_dir, 1, 0, 6, 1, &message);
  file_list_cleanup(bases);
  if (made < 0) {
    log_diff_message(&message);
    (void)file_remove(o->signature_path);
    return -1;
  }
  free_err_msg(&message);
  char* sha1 = signature_sha1(o->signature_path);
  if (sha1 == nullptr) {
    ZLOG("Cannot get SHA-1 for origin file");
    (void)file_remove(o->signature_path);
    return -1;
  }
  if (file_remove(o->signature_path) != 0) {
    ZLOG("Cannot remove the signature file");
    mem_free(sha1);
    return -1;
  }
  *t->result = sha1;
  return 1;
}

// SHA-1 of the new file (none when it cannot be read); 0, or -1.
int hash_new_file(void* raw) {
  auto* t = static_cast<ThrdOpt*>(raw);
  if (t == nullptr || t->opt == nullptr || t->result == nullptr) {
    ZLOG("ThrdOpt is not initialized");
    return -1;
  }
  if (t->opt->derv_stream == nullptr) {
    ZLOG("ZELPutPatchOpt is not initialized");
    return -1;
  }
  *t->result = file_sha1(t->opt->derv_stream->filename);
  return 0;
}

// ---------------------------------------------------------------------------
// The decorator that carries the upload and apply stages.

using Opt = ZELPutPatchOpt;
const OptField kFields[] = {
    OPT_FIELD(stream, Opt, origin_stream, "Cannot allocate memory for ZELPutPatchOpt origin stream"),
    OPT_FIELD(stream, Opt, derv_stream, "Cannot allocate memory for ZELPutPatchOpt derv stream"),
    OPT_FIELD(wide, Opt, bucket_key, "Cannot allocate memory for ZELPutPatchOpt bucket key"),
    OPT_FIELD(wide, Opt, origin_key, "Cannot allocate memory for ZELPutPatchOpt origin object key"),
    OPT_FIELD(wide, Opt, derv_key, "Cannot allocate memory for ZELPutPatchOpt derv object key"),
    OPT_FIELD(wide, Opt, signature_path, "Cannot allocate memory for ZELPutPatchOpt signature path"),
    OPT_FIELD(wide, Opt, patch_path, "Cannot allocate memory for ZELPutPatchOpt patch path"),
    OPT_FIELD(wide, Opt, temp_dir, "Cannot allocate memory for ZELPutPatchOpt temp dir"),
    OPT_FIELD(headers, Opt, headers, "Cannot allocate memory for ZEL Headers"),
};
const OptTable kCopy = opt_table<Opt>(ZSITE, "Cannot allocate memory for cloned ZELPutPatchOpt", kFields);
const DecoratorRules kRules{ZSITE, "ZELPutPatchDecorator", true, false};

void free_patch_decorator(ZELPutPatchDecorator* d) {
  if (d == nullptr) return;
  mem_free(d->sha1);
  decorator_free(kCopy, d);
}

// Adds "name:value" in front; false (list unchanged) when memory runs out.
bool prepend_header(ZELHeaders** list, const char* name, const char* value) {
  ZELHeaders* with = zel_headers_append(*list, name, value);
  if (with == *list) return false;
  *list = with;
  return true;
}

ZELPutPatchDecorator* make_patch_decorator(const ZEL* handle, const ZELPutPatchOpt* opt,
                                           const char* origin_sha1, const char* derv_sha1, void* user_data) {
  auto* d = decorator_make<ZELPutPatchDecorator>(kRules, kCopy, handle, opt, user_data);
  if (d == nullptr) return nullptr;
  char delta[90];
  char process[90];
  std::snprintf(delta, sizeof delta, "patch:%s->%s", origin_sha1, derv_sha1);
  std::snprintf(process, sizeof process, "%d", opt->process_type);
  bool ok = (d->sha1 = mem_strdup(derv_sha1)) != nullptr &&
            prepend_header(&d->opt->headers, "x-pmw-delta-object", delta) &&
            prepend_header(&d->opt->headers, "x-pmw-delta-processtype", process);
  if (ok) return d;
  free_patch_decorator(d);
  return nullptr;
}

// True when the decorator holds what the upload stages need; otherwise
// reports (code 0) the first thing missing.
bool check_decorator(const ZELPutPatchDecorator* d) {
  if (d == nullptr) {
    ZLOG("ZELPutPatchDecorator pointer is (null)");
    return false;
  }
  const ZELPutPatchOpt* o = d->opt;
  if (o == nullptr) {
    ZLOG("ZELPutPatchOpt pointer is (null)");
    return false;
  }
  const char* why = d->handle == nullptr           ? "Cannot find the zel configuration"
                    : o->bucket_key == nullptr     ? "ZELPutPatchOpt bucket key is (null)"
                    : o->origin_key == nullptr     ? "ZELPutPatchOpt object key is (null)"
                    : o->derv_key == nullptr       ? "ZELPutPatchOpt diff object key is (null)"
                    : o->signature_path == nullptr ? "ZELPutPatchOpt signature path is (null)"
                    : o->patch_path == nullptr     ? "ZELPutPatchOpt patch path is (null)"
                                                   : nullptr;
  if (why == nullptr) return true;
  report(o->callback, 0, why, d->user_data);
  return false;
}

// ---------------------------------------------------------------------------
// Upload and apply stages (worker threads).

int32_t abort_check(uint64_t, uint64_t, void* user_data) {
  auto* d = static_cast<ZELPutPatchDecorator*>(user_data);
  int stop = thread_pool_stopping();
  if (d == nullptr || d->opt == nullptr || d->opt->abort_callback == nullptr) return stop;
  return d->opt->abort_callback(d->user_data) != 0 || stop != 0 ? 1 : 0;
}

void on_upload_failed(const ZELPutObjectResp* resp, void* user_data) {
  auto* d = static_cast<ZELPutPatchDecorator*>(user_data);
  if (check_decorator(d)) report(d->opt->callback, resp->code, resp->message, d->user_data);
  if (d != nullptr && d->opt != nullptr && d->opt->patch_path != nullptr &&
      file_remove(d->opt->patch_path) != 0)
    ZLOG("Cannot remove patch file");
  free_patch_decorator(d);
}

struct PollResult {
  KRIStatusResp status{};
  const char* message = nullptr;  // of the status request that failed
  int empty = 0;                  // consecutive answers without a description
  bool aborted = false;
};

// Polls the apply job until it ends, the service keeps answering emptily,
// the caller aborts or the library shuts down.
void poll_apply_job(const KRI* kri, const KRIApplyPatchResp* job, int32_t attempts,
                    const ZELPutPatchDecorator* d, PollResult* r) {
  for (;;) {
    const char* message = kri_apply_patch_status(kri, job, &r->status);
    if (message != nullptr) {
      ZLOG("KRI apply patch error: %s", message);
      r->message = message;
    }
    if (r->status.code == KRI_JOB_FAILED || r->status.code == KRI_JOB_FINISHED) return;
    bool described = r->status.description != nullptr && r->status.description[0] != '\0';
    r->empty = described ? 0 : r->empty + 1;
    if (r->empty >= attempts || thread_pool_stopping()) {
      r->aborted = true;
      return;
    }
    kri_resp_clear(&r->status);
    if (d->opt->abort_callback != nullptr &&
        (d->opt->abort_callback(d->user_data) != 0 || thread_pool_stopping())) {
      r->aborted = true;
      return;
    }
    zel::thrd_yield();
    if (message != nullptr) return;
  }
}

void report_apply(const ZELPutPatchDecorator* d, const PollResult& r, int32_t attempts) {
  const ZELPutPatchOpt* o = d->opt;
  if (r.message != nullptr) return report(o->callback, r.status.code, r.message, d->user_data);
  if (r.aborted && r.empty >= attempts)
    return report(o->callback, -301, "An empty response was received from the KRI server", d->user_data);
  if (r.aborted)
    return report(o->callback, -302, "Operation was aborted by an application callback", d->user_data);
  if (r.status.code != KRI_JOB_FINISHED || r.status.description == nullptr)
    return report(o->callback, -103, "Failed to apply the patch", d->user_data);
  ZELObjectDetails* details = zel_object_details_init();
  if (details == nullptr)
    return report(o->callback, 0, "Cannot allocate enought memory for ZELObjectDetails", d->user_data);
  if (object_details_fromjson(r.status.description, details, d->handle->api_version) != 0) {
    report(o->callback, -301, "Cannot unmarshal json response", d->user_data);
  } else if (o->details_callback != nullptr) {
    o->details_callback(details, d->user_data);
  }
  zel_object_details_cleanup(details);
}

// The patch is stored as the content of derv_key: have it applied.
void on_uploaded(const ZELObjectDetails*, void* user_data) {
  auto* d = static_cast<ZELPutPatchDecorator*>(user_data);
  if (!check_decorator(d)) return free_patch_decorator(d);
  const ZELPutPatchOpt* o = d->opt;
  if (file_remove(o->patch_path) != 0) {
    report(o->callback, -104, "Cannot remove a patch file", d->user_data);
    return free_patch_decorator(d);
  }
  KRI* kri = kri_for_handle(d->handle);
  if (kri == nullptr) {
    report(o->callback, 0, "Cannot initialize kri", d->user_data);
    return free_patch_decorator(d);
  }
  KRIApplyPatchOpt apply{o->bucket_key,
                         o->origin_key,
                         o->derv_key,
                         d->sha1,
                         static_cast<int32_t>(d->handle->max_retries),
                         o->process_type,
                         zel_headers_find(o->headers, "x-pmw-acm-namespace"),
                         zel_headers_find(o->headers, "x-pmw-acm-groups"),
                         zel_headers_find(o->headers, "x-pmw-acm-check-groups")};
  KRIApplyPatchResp job{};
  PollResult r;
  const char* refused = kri_apply_patch(kri, &apply, &job);
  if (refused != nullptr) {
    report(o->callback, -103, refused, d->user_data);
  } else {
    poll_apply_job(kri, &job, apply.maximum_attempts, d, &r);
    report_apply(d, r, apply.maximum_attempts);
  }
  kri_resp_clear(&job);
  kri_resp_clear(&r.status);
  kri_cleanup(kri);
  free_patch_decorator(d);
}

void upload_patch(ZEL* handle, const ZELPutPatchOpt* opt, const char* origin_sha1, const char* derv_sha1,
                  void* user_data) {
  ZELPutPatchDecorator* d = make_patch_decorator(handle, opt, origin_sha1, derv_sha1, user_data);
  if (d == nullptr) {
    // The patch stays: the caller may still send it another way.
    report(opt->callback, 0, "Cannot initialize ZELPutPatchDecorator", user_data);
    return;
  }
  const ZELStream* derv = d->opt->derv_stream;
  ZELStream patch{const_cast<char16_t*>(d->opt->patch_path), derv->seek, derv->read, derv->write};
  ZELPutObjectOpt put{};
  put.bucket_key = d->opt->bucket_key;
  put.key = d->opt->derv_key;
  put.stream = &patch;
  put.headers = d->opt->headers;
  put.callback = on_upload_failed;
  put.details_callback = on_uploaded;
  put.progress_callback = abort_check;
  // The upload copies what it needs; from here on the decorator belongs to
  // whichever upload handler runs.
  zel_put_object(handle, &put, d);
}

void join(zel::thrd_t* thread, int* result) {
  if (zel::thrd_join(*thread, result) == zel::thrd_success) return;
  zel_log(nullptr, kEntryTag, __LINE__, "Failed to join the thread %p", static_cast<void*>(thread));
  *result = 0;
}

void remove_patch_logged(const char16_t* path) {
  if (file_remove(path) != 0) zel_log(nullptr, kEntryTag, __LINE__, "Cannot remove patch file");
}
}  // namespace

extern "C" ZEL_EXPORT void zel_put_patch(ZEL* handle, const ZELPutPatchOpt* opt, void* user_data) {
  if (handle == nullptr || handle->get_token == nullptr) {
    zel_log(nullptr, kEntryTag, __LINE__, "ZEL is not initialized");
    return;
  }
  if (opt == nullptr || opt->origin_stream == nullptr || opt->derv_stream == nullptr ||
      opt->signature_path == nullptr || opt->patch_path == nullptr) {
    zel_log(nullptr, kEntryTag, __LINE__, "ZELPutPatchOpt is not initialized");
    return;
  }
  char* origin_sha1 = nullptr;
  char* derv_sha1 = nullptr;
  ThrdOpt a{opt, &origin_sha1};
  ThrdOpt b{opt, &derv_sha1};
  zel::thrd_t thread_a{}, thread_b{};
  int started = zel::thrd_create(&thread_a, make_patch, &a);
  if (started != zel::thrd_success)
    return report(opt->callback, 0, thread_result_message(started), user_data);
  int result_a = 0, result_b = 0;
  started = zel::thrd_create(&thread_b, hash_new_file, &b);
  if (started != zel::thrd_success) report(opt->callback, 0, thread_result_message(started), user_data);
  // Thread A writes into this frame: it is joined on every path.
  join(&thread_a, &result_a);
  if (started != zel::thrd_success) {
    (void)file_remove(opt->patch_path);
  } else {
    join(&thread_b, &result_b);
    if (result_a < 1) {
      report(opt->callback, result_a < 0 ? -102 : -101,
             result_a < 0 ? "Failed to create signature and patch"
                          : "Difference between files is greater than ratio",
             user_data);
      (void)file_remove(opt->patch_path);
    } else if (result_b < 0) {
      report(opt->callback, -202, "Failed to get sha1 of new object", user_data);
      remove_patch_logged(opt->patch_path);
    } else if (origin_sha1 != nullptr && derv_sha1 != nullptr) {
      upload_patch(handle, opt, origin_sha1, derv_sha1, user_data);
    } else {
      report(opt->callback, -201, "Failed to put patch", user_data);
      remove_patch_logged(opt->patch_path);
    }
  }
  mem_free(origin_sha1);
  std::free(derv_sha1);
}
