// The upload task: checks, automatic bucket creation, the choice between
// one request and a chunked session, and the completion of a session.
#include <cstring>

#include "alloc.h"
#include "create_bucket.h"
#include "frame.h"
#include "http_plan.h"
#include "iterator.h"
#include "json.h"
#include "log.h"
#include "progress.h"
#include "put_object.h"
#include "transfer.h"
#include "zel_internal.h"

namespace {
constexpr const char* kLogTag = "src\\put_object";
constexpr uint64_t kDefaultChunkSize = 5242880;
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
void upload_complete(ZELUploadDecorator* upload) {
  const ZELPutObjectOpt* opt = upload->opt;
  if (upload->fatal != nullptr) {
    report(opt->callback, 0, upload->fatal, upload->user_data);
  } else if (upload->failed_count > 0) {
    report(opt->callback, upload->failed_status, kSessionFailed, upload->user_data);
  } else if (upload->details != nullptr) {
    deliver_details(upload, upload->details);
  } else if (opt->details_callback != nullptr) {
    // Every chunk was accepted but the service has not assembled the
    // object: a ranged or resumed upload that still misses other ranges.
    opt->details_callback(nullptr, upload->user_data);
  }
}

// Counts `count` chunks as finished (failed with `status` when `failed`);
// the caller that finishes the last one reports, unless `silent`, and frees
// the record. A `fatal` text (why queuing stopped) replaces the report of
// the session, whoever finishes last.
void chunks_finished(ZELUploadDecorator* upload, uint32_t count, bool failed, int32_t status,
                     const char* fatal, bool silent) {
  zel::mtx_lock(&upload->mutex);
  upload->done_count += count;
  if (failed) {
    upload->failed_count += count;
    upload->failed_status = status;
  }
  if (fatal != nullptr) upload->fatal = fatal;
  bool last = upload->done_count >= upload->chunk_count;
  zel::mtx_unlock(&upload->mutex);
  if (!last) return;
  if (!silent) upload_complete(upload);
  upload_free(upload);
}

void chunk_free(ZELChunkUploadDecorator* chunk) {
  byte_range_cleanup(chunk->range);
  mem_free(chunk);
}

// A chunk dropped at shutdown: it counts as failed and nobody is told,
// since the caller has already been promised silence for queued work.
void upload_chunk_drop(void* raw) {
  auto* chunk = static_cast<ZELChunkUploadDecorator*>(raw);
  ZELUploadDecorator* upload = chunk->upload;
  chunk_free(chunk);
  chunks_finished(upload, 1, true, kStatusAborted, nullptr, true);
}
}  // namespace

void upload_chunk_task(void* raw) {
  auto* chunk = static_cast<ZELChunkUploadDecorator*>(raw);
  ZELUploadDecorator* upload = chunk->upload;
  const ZELByteRange* range = chunk->range;
  ZELPutObjectOpt chunk_opt = *upload->opt;  // shares the upload's texts
  chunk_opt.range = chunk->range;
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
  bool ok = outcome.ok;
  int32_t status = outcome.status;
  if (ok && status == 202 && upload->opt->chunk_done_callback != nullptr) {
    upload->opt->chunk_done_callback(&chunk_opt, upload->user_data);
  } else if (!ok) {
    char* text = message_copy(upload);
    report_chunk_failed(upload, &chunk_opt, status, text);
    mem_free(text);
  }
  chunk_free(chunk);
  chunks_finished(upload, 1, !ok, status, nullptr, false);
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
  *chunks = *amount / step + (*amount % step != 0 ? 1 : 0);
  return true;
}

// Builds the upload record; takes the decorator's copies when it succeeds.
ZELUploadDecorator* upload_make(ZELPutObjectDecorator* d, const char* url, uint64_t amount, uint64_t chunks) {
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
  upload->chunk_count = static_cast<uint32_t>(chunks);
  upload->range_flag = upload->opt->range != nullptr ? 1 : 0;
  upload->user_data = d->user_data;
  return upload;
}

// Queues one task per chunk. Whatever cannot be queued counts as failed, so
// the session still completes, reports once and is freed.
void queue_chunks(ZELUploadDecorator* upload, ZELByteRangeIterator* iterator) {
  // Once the last chunk is queued the record may be gone at any moment, so
  // the loop never reads it after a push.
  const uint32_t count = upload->chunk_count;
  uint32_t queued = 0;
  const char* fatal = nullptr;
  while (queued < count) {
    auto* chunk = static_cast<ZELChunkUploadDecorator*>(mem_calloc(1, sizeof(ZELChunkUploadDecorator)));
    ZELByteRange* range = chunk != nullptr ? iterator_next(iterator) : nullptr;
    if (range == nullptr) {
      mem_free(chunk);
      fatal = "Cannot allocate memory for ZELChunkUploadDecorator";
      break;
    }
    *chunk = {upload, range};
    if (transfer_enqueue(upload_chunk_task, chunk, upload_chunk_drop, true) < 0) {
      chunk_free(chunk);
      fatal = "Cannot enqueue a new task (put_object)";
      break;
    }
    queued++;
  }
  if (queued < count) chunks_finished(upload, count - queued, true, 0, fatal, false);
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
  uint64_t step = d->handle->chunk_size != 0 ? d->handle->chunk_size : kDefaultChunkSize;
  uint64_t amount = 0, chunks = 0;
  if (!measure(d, step, &amount, &chunks)) return;
  if (chunks > UINT32_MAX) {
    report(d->opt->callback, 0, "Cannot allocate memory for ZELByteRangeIterator", d->user_data);
    return;
  }
  char url[kUrlBuffer] = {0};
  if (!build_url(d, d->opt->range != nullptr || chunks > 1, url)) return;
  if (ensure_bucket_exists(d->handle, d->opt, d->user_data) < 0) return;
  ZELByteRangeIterator* iterator = nullptr;
  if (chunks > 1) {
    iterator = iterator_init(d->opt->range != nullptr ? d->opt->range->start : 0, step, amount);
    if (iterator == nullptr) {
      report(d->opt->callback, 0, "Cannot allocate memory for ZELByteRangeIterator", d->user_data);
      return;
    }
  }
  ZELUploadDecorator* upload = upload_make(d, url, amount, chunks);
  if (upload != nullptr && iterator == nullptr) {
    upload_single(upload);
    upload_free(upload);
  } else if (upload != nullptr) {
    queue_chunks(upload, iterator);
  }
  iterator_cleanup(iterator);
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
