// The upload task: checks, automatic bucket creation, the choice between
// one request and a chunked session, and the completion of a session.
#include <cstring>

#include "alloc.h"
#include "chunk_ledger.h"
#include "create_bucket.h"
#include "frame.h"
#include "http_plan.h"
#include "json.h"
#include "log.h"
#include "progress.h"
#include "put_object.h"
#include "transfer.h"
#include "zel_internal.h"

namespace {
constexpr const char* kLogTag = "src\\put_object";
constexpr const char* kSessionFailed = "Resumable upload failed or was cancelled";

void upload_free(ZELUploadDecorator* upload) {
  zel::mtx_destroy(&upload->mutex);
  mem_free(upload->message);
  mem_free(upload->details);
  progress_cleanup(upload->progress);
  mem_free(upload->url);
  zel_cleanup(upload->handle);
  put_object_opt_cleanup(upload->opt);
  mem_free(upload);
}

// Details from the service's final answer, for details_callback.
void deliver_details(const ZELUploadDecorator* upload, const char* body) {
  const ZELPutObjectOpt* opt = upload->opt;
  ZELObjectDetails* details = zel_object_details_init();
  if (details == nullptr) {
    ZLOG("Cannot allocate enough memory for ZELObjectDetails");
    if (opt->details_callback != nullptr) opt->details_callback(nullptr, upload->user_data);
    return;
  }
  if (object_details_fromjson(body, details, upload->handle->api_version) < 0) {
    if (body != nullptr) ZLOG("%s", body);
    report(opt->callback, 0, "Cannot unmarshal json response", upload->user_data);
  } else if (opt->details_callback != nullptr) {
    opt->details_callback(details, upload->user_data);
  }
  zel_object_details_cleanup(details);
}

// Copy of the upload's current message, read under its lock; mem_free it.
char* message_copy(ZELUploadDecorator* upload) {
  zel::mtx_lock(&upload->mutex);
  char* copy = upload->message != nullptr ? mem_strdup(upload->message) : nullptr;
  zel::mtx_unlock(&upload->mutex);
  return copy;
}

void report_chunk_failed(ZELUploadDecorator* upload, const ZELPutObjectOpt* chunk_opt, int32_t status,
                         const char* text) {
  if (upload->opt->chunk_failed_callback == nullptr) return;
  ZELPutObjectResp resp{status, text != nullptr ? text : "(null)"};
  upload->opt->chunk_failed_callback(&resp, chunk_opt, upload->user_data);
}

// The one report of a chunked upload, made by whoever finishes last. A
// session reports success only when every chunk went up: an attempt that
// failed and was then retried successfully does not spoil it, and a chunk
// that failed for good (or never went out) always does.
void upload_complete(void* raw, const ChunkTally& tally) {
  auto* upload = static_cast<ZELUploadDecorator*>(raw);
  const ZELPutObjectOpt* opt = upload->opt;
  if (tally.fatal != nullptr) {
    report(opt->callback, 0, tally.fatal, upload->user_data);
  } else if (tally.failed > 0) {
    report(opt->callback, tally.failed_status, kSessionFailed, upload->user_data);
  } else if (upload->details != nullptr) {
    deliver_details(upload, upload->details);
  } else if (opt->details_callback != nullptr) {
    // Every chunk was accepted but the service has not assembled the
    // object: a ranged or resumed upload that still misses other ranges.
    opt->details_callback(nullptr, upload->user_data);
  }
}

void upload_release(void* raw) { upload_free(static_cast<ZELUploadDecorator*>(raw)); }

constexpr ChunkEngine kUploadEngine{upload_chunk, upload_complete, upload_release,
                                    "Cannot enqueue a new task (put_object)", false};
}  // namespace

bool upload_chunk(void* raw, const ZELByteRange* range, int32_t* status) {
  auto* upload = static_cast<ZELUploadDecorator*>(raw);
  ZELByteRange chunk_range = *range;
  ZELPutObjectOpt chunk_opt = *upload->opt;  // shares the upload's texts
  chunk_opt.range = &chunk_range;
  auto attempt = [&](uint32_t n) { return upload_request(upload, range, n, upload->url); };
  auto on_retry = [&](int status, uint32_t n) {
    char* text = message_copy(upload);
    ZLOG("Chunk (%llu-%llu/%llu) upload failed (status: %d, error: %s) - retry #%d",
         static_cast<unsigned long long>(range->start), static_cast<unsigned long long>(range->end),
         static_cast<unsigned long long>(upload->file_size), status, text != nullptr ? text : "(null)",
         static_cast<int>(n));
    mem_free(text);
  };
  AttemptOutcome outcome = transfer_run_chunk(upload->handle->max_retries, attempt, on_retry);
  *status = outcome.status;
  if (outcome.ok && outcome.status == 202 && upload->opt->chunk_done_callback != nullptr) {
    upload->opt->chunk_done_callback(&chunk_opt, upload->user_data);
  } else if (!outcome.ok) {
    char* text = message_copy(upload);
    report_chunk_failed(upload, &chunk_opt, outcome.status, text);
    mem_free(text);
  }
  return outcome.ok;
}

int upload_single(ZELUploadDecorator* upload) {
  const ZELPutObjectOpt* opt = upload->opt;
  ZELByteRange range{0, upload->file_size - 1};
  if (opt->range != nullptr) range = *opt->range;
  int status = upload_request(upload, &range, 0, upload->url).status;
  if (status == 200 || status == 201) {
    deliver_details(upload, upload->details);
  } else if (status == 202) {
    if (upload->range_flag && opt->chunk_done_callback != nullptr)
      opt->chunk_done_callback(opt, upload->user_data);
    if (opt->details_callback != nullptr) opt->details_callback(nullptr, upload->user_data);
  } else {
    if (upload->range_flag) report_chunk_failed(upload, opt, status, upload->message);
    report(opt->callback, status, upload->message, upload->user_data);
  }
  return status;
}

namespace {
// The amount to send and the number of chunks; false (reported) for a
// range the file cannot serve.
bool measure(ZELPutObjectDecorator* d, uint64_t step, uint64_t* amount, uint64_t* chunks) {
  const ZELByteRange* range = d->opt->range;
  if (range != nullptr && (range->end < range->start || range->end >= d->size)) {
    report(d->opt->callback, 0, "ZELPutObjectOpt range is outside the file", d->user_data);
    return false;
  }
  *amount = range != nullptr ? range->end - range->start + 1 : d->size;
  *chunks = chunk_count(*amount, step);
  return true;
}

// Builds the upload record; takes the decorator's copies when it succeeds.
ZELUploadDecorator* upload_make(ZELPutObjectDecorator* d, const char* url, uint64_t amount) {
  auto* upload = static_cast<ZELUploadDecorator*>(mem_calloc(1, sizeof(ZELUploadDecorator)));
  if (upload == nullptr) {
    report(d->opt->callback, 0, "Cannot allocate memory for ZELUploadDecorator", d->user_data);
    return nullptr;
  }
  int result = zel::mtx_init(&upload->mutex, zel::mtx_plain);
  if (result != zel::thrd_success) {
    report(d->opt->callback, result, thread_result_message(result), d->user_data);
    mem_free(upload);
    return nullptr;
  }
  upload->url = mem_strdup(url);
  if (d->opt->progress_callback != nullptr) upload->progress = progress_init(amount);
  if (upload->url == nullptr || (d->opt->progress_callback != nullptr && upload->progress == nullptr)) {
    report(d->opt->callback, 0, "Cannot allocate memory for ZELUploadDecorator", d->user_data);
    upload_free(upload);
    return nullptr;
  }
  upload->handle = d->handle;
  upload->opt = d->opt;
  d->handle = nullptr;
  d->opt = nullptr;
  upload->file_size = d->size;
  upload->range_flag = upload->opt->range != nullptr ? 1 : 0;
  upload->user_data = d->user_data;
  return upload;
}

bool task_checks(ZELPutObjectDecorator* d) {
  if (d == nullptr) {
    ZLOG("ZELPutObjectDecorator pointer is (null)");
    return false;
  }
  if (d->opt == nullptr || d->handle == nullptr) {
    ZLOG("ZELPutObjectOpt pointer is (null)");
    return false;
  }
  const char* missing = d->opt->bucket_key == nullptr ? "ZELPutObjectOpt bucket_key is (null)"
                        : d->opt->key == nullptr      ? "ZELPutObjectOpt key is (null)"
                                                      : nullptr;
  if (missing != nullptr) report(d->opt->callback, 0, missing, d->user_data);
  return missing == nullptr;
}

// The upload's URL; false (reported) when it cannot be sent faithfully, or
// when a text of the options would add header lines of its own. Both are
// refused before anything is sent, the bucket creation included.
bool build_url(const ZELPutObjectDecorator* d, bool resumable, char* url) {
  EscapedName bucket(d->opt->bucket_key), key(d->opt->key);
  if (!bucket.ok() || !key.ok()) {
    report(d->opt->callback, 0, kCannotEscapeKeys, d->user_data);
    return false;
  }
  long length = zel_upload_url(d->handle, url,
                               resumable ? "/buckets/%s/objects/%s/resumable" : "/buckets/%s/objects/%s",
                               bucket.get(), key.get());
  if (!http_url_fits(length)) {
    ZLOG("%s", kHttpUrlTooLong);
    report(d->opt->callback, 0, kHttpUrlTooLong, d->user_data);
    return false;
  }
  HttpPlan texts;
  texts.session_id = d->opt->session_id;
  texts.content_type = d->opt->content_type;
  texts.headers = d->opt->headers;
  const char* refused = http_plan_refusal(texts);
  if (refused != nullptr) report(d->opt->callback, 0, refused, d->user_data);
  return refused == nullptr;
}

// Runs the upload described by the decorator, whose copies it may take.
void put_object_run(ZELPutObjectDecorator* d) {
  if (!task_checks(d)) return;
  uint64_t step = chunk_step(d->handle);
  uint64_t amount = 0, chunks = 0;
  if (!measure(d, step, &amount, &chunks)) return;
  if (chunks > UINT32_MAX) {
    report(d->opt->callback, 0, "Cannot allocate memory for ZELByteRangeIterator", d->user_data);
    return;
  }
  char url[kUrlBuffer] = {0};
  if (!build_url(d, d->opt->range != nullptr || chunks > 1, url)) return;
  if (ensure_bucket_exists(d->handle, d->opt, d->user_data) < 0) return;
  uint64_t start = d->opt->range != nullptr ? d->opt->range->start : 0;
  ZELUploadDecorator* upload = upload_make(d, url, amount);
  if (upload == nullptr) return;
  if (chunks < 2) {
    upload_single(upload);
    upload_free(upload);
  } else if (!chunk_ledger_start(&kUploadEngine, upload, start, step, amount, static_cast<uint32_t>(chunks),
                                 upload->handle->thread_pool_size)) {
    report(upload->opt->callback, 0, kChunkLedgerNoMemory, upload->user_data);
    upload_free(upload);
  }
}
}  // namespace

void put_object_task(void* raw) {
  auto* decorator = static_cast<ZELPutObjectDecorator*>(raw);
  put_object_run(decorator);
  put_object_decorator_cleanup(decorator);
}

void put_object_task_drop(void* raw) {
  put_object_decorator_cleanup(static_cast<ZELPutObjectDecorator*>(raw));
}
