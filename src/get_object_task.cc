// The download tasks: size, output file, one request or parallel chunks, and
// the single report at the end.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "alloc.h"
#include "chunk_ledger.h"
#include "chunk_writer.h"
#include "frame.h"
#include "get_object.h"
#include "http_plan.h"
#include "log.h"
#include "progress.h"
#include "transfer.h"
#include "util.h"
#include "zel_internal.h"

namespace {
constexpr const char* kLogTag = "src\\get_object";
constexpr const char* kDelta = "x-pmw-delta-object";

// What both tasks have learnt before the common steps.
struct Plan {
  ZEL** handle;           // taken by the download record
  ZELGetObjectOpt** opt;  // taken by the download record
  void (*url_callback)(const ZELGetObjectByURLResp*, void*);
  const char* url;
  uint64_t size;
  int32_t size_unknown;
  bool authenticate;
  void* user_data;
  const char* sha1;  // by key, when the size query learnt it
  const char* details_url;
  long details_url_length;
};

void plan_report(const Plan& p, int32_t code, const char* message) {
  if (p.url_callback != nullptr) {
    report(p.url_callback, code, message, p.user_data);
  } else {
    report((*p.opt)->callback, code, message, p.user_data);
  }
}

// Once every byte has arrived: the object must still be the one whose size
// and SHA-1 the size query learnt, or the file may mix two versions.
bool object_unchanged(ZELDownloadDecorator* d) {
  if (d->sha1 == nullptr) return true;
  ObjectFacts facts{0, nullptr};
  int32_t code = 0;
  char* message = nullptr;
  bool same = false;
  if (object_facts_query(d->handle, d->details_url, d->details_url_length, d->opt->headers, &facts, &code,
                         &message) != 0) {
    download_report(d, code, message);
  } else if (facts.size != d->size || facts.sha1 == nullptr || strcmp(facts.sha1, d->sha1) != 0) {
    download_report(d, 0, "The downloaded bytes do not match the object's SHA-1");
  } else {
    same = true;
  }
  mem_free(facts.sha1);
  mem_free(message);
  return same;
}

// The single report of a chunked download, by whoever finishes last.
void download_complete(void* raw, const ChunkTally& tally) {
  auto* d = static_cast<ZELDownloadDecorator*>(raw);
  // Space reserved for chunks that never came is given back.
  if (d->own_file && (tally.fatal != nullptr || tally.failed > 0 || d->last_status != 0))
    chunk_writer_release(d->opt->stream->filename);
  if (tally.fatal != nullptr) {
    download_report(d, 0, tally.fatal);
  } else if (tally.failed > 0 || d->last_status != 0) {
    download_report(d, d->last_status, d->message);
  } else if (object_unchanged(d) && d->opt->done_callback != nullptr) {
    d->opt->done_callback(d->user_data);
  }
}

void download_release(void* raw) { download_free(static_cast<ZELDownloadDecorator*>(raw)); }

// Tries one chunk with its retries; false when it failed for good.
bool fetch_chunk(ZELDownloadDecorator* d, const ZELByteRange* range, int32_t* status) {
  int32_t error_status = 0;
  const char* error_message = nullptr;
  auto attempt = [&](uint32_t n) { return download_request(d, range, n, &error_status, &error_message); };
  auto on_retry = [&](int status, uint32_t n) {
    ZLOG("Chunk (%llu-%llu/%llu) download failed (status: %d, error: %s) - retry #%d",
         static_cast<unsigned long long>(range->start), static_cast<unsigned long long>(range->end),
         static_cast<unsigned long long>(d->size), status,
         error_message != nullptr ? error_message : "(null)", static_cast<int>(n));
  };
  bool ok = transfer_run_chunk(d->handle->max_retries, attempt, on_retry).ok;
  *status = error_status;
  if (!ok) {
    zel::mtx_lock(&d->mutex);
    d->message = error_message;
    d->last_status = error_status;
    zel::mtx_unlock(&d->mutex);
  }
  return ok;
}

// After a chunk has failed for good the download is lost; later chunks are
// not tried.
constexpr ChunkEngine kDownloadEngine{download_chunk, download_complete, download_release,
                                      "Cannot enqueue a new task (get_object)", true};
}  // namespace

bool download_chunk(void* raw, const ZELByteRange* range, int32_t* status) {
  auto* d = static_cast<ZELDownloadDecorator*>(raw);
  return fetch_chunk(d, range, status);
}

int download_single(ZELDownloadDecorator* d) {
  ZELByteRange range{0, 0};
  if (d->size != 0) range = d->range_flag ? *d->opt->range : ZELByteRange{0, d->size - 1};
  int32_t error_status = 0;
  const char* error_message = nullptr;
  AttemptOutcome outcome{true, 200, false};
  // An object of no bytes is the empty file already made.
  if (d->size != 0 || d->size_unknown)
    outcome = download_request(d, &range, 0, &error_status, &error_message);
  if (outcome.ok) {
    if (object_unchanged(d) && d->opt->done_callback != nullptr) d->opt->done_callback(d->user_data);
  } else {
    download_report(d, error_status, error_message);
  }
  download_free(d);
  return outcome.status;
}

namespace {
ZELDownloadDecorator* download_make(const Plan& p) {
  auto* d = static_cast<ZELDownloadDecorator*>(mem_calloc(1, sizeof(ZELDownloadDecorator)));
  if (d == nullptr) return plan_report(p, 0, "Cannot allocate memory for ZELDownloadDecorator"), nullptr;
  int result = zel::mtx_init(&d->mutex, zel::mtx_plain);
  if (result != zel::thrd_success) {
    plan_report(p, result, thread_result_message(zel::thrd_error));
    mem_free(d);
    return nullptr;
  }
  d->url = mem_strdup(p.url);
  ZELProgressFn progress_callback = (*p.opt)->progress_callback;
  if (progress_callback != nullptr) d->progress = progress_init(p.size);
  if (d->url == nullptr || (progress_callback != nullptr && d->progress == nullptr)) {
    plan_report(p, 0, "Cannot allocate memory for ZELDownloadDecorator");
    download_free(d);
    return nullptr;
  }
  d->handle = *p.handle;
  d->opt = *p.opt;
  *p.handle = nullptr;
  *p.opt = nullptr;
  d->url_callback = p.url_callback;
  d->size = p.size;
  d->range_flag = d->opt->range != nullptr ? 1 : 0;
  d->size_unknown = p.size_unknown;
  d->user_data = p.user_data;
  d->authenticate = p.authenticate;
  return d;
}

// Creates or empties the output file before any byte arrives. Its size is
// not set to the size the service claims: the file only ever grows by bytes
// that arrived, so a failed download leaves nothing beyond them (disk blocks
// reserved for the chunks lie past the end and are given back).
bool create_output(const Plan& p) {
  FILE* file = file_open((*p.opt)->stream->filename, "wb+");
  if (file == nullptr) {
    int error = errno;
    plan_report(p, error, transfer_error_text(error));
    return false;
  }
  fclose(file);
  return true;
}

// The steps both tasks share once the size is known.
void download_run(const Plan& p) {
  const ZELGetObjectOpt* opt = *p.opt;
  uint64_t step = chunk_step(*p.handle);
  uint64_t chunks = chunk_count(p.size, step);
  if (chunks > UINT32_MAX) return plan_report(p, 0, kChunkLedgerNoMemory);
  bool chunked = !p.size_unknown && chunks >= 2;
  if (!create_output(p)) return;
  uint64_t start = opt->range != nullptr ? opt->range->start : 0;
  ZELDownloadDecorator* d = download_make(p);
  if (d == nullptr) return;
  if (p.sha1 != nullptr) {
    d->sha1 = mem_strdup(p.sha1);
    d->details_url = mem_strdup(p.details_url);
    d->details_url_length = p.details_url_length;
  }
  const ZELStream* stream = opt->stream;
  d->own_file = stream->write == std::fwrite && stream->seek == file_seek64;
  if (d->own_file && chunked) chunk_writer_reserve(stream->filename, p.size);
  if (!chunked) {
    download_single(d);
  } else if (!chunk_ledger_start(&kDownloadEngine, d, start, step, p.size, static_cast<uint32_t>(chunks),
                                 d->handle->thread_pool_size)) {
    if (d->own_file) chunk_writer_release(stream->filename);
    download_report(d, 0, kChunkLedgerNoMemory);
    download_free(d);
  }
}

bool has_delta_header(const ZELHeaders* headers) {
  for (; headers != nullptr; headers = headers->next) {
    if (headers->line != nullptr && std::strstr(headers->line, kDelta) != nullptr) return true;
  }
  return false;
}

// A caller range is its own size; one that ends before it starts, or that
// names bytes beyond what a file can hold, is refused.
bool range_size(const Plan& p, const ZELByteRange* range, uint64_t* size) {
  if (range->end < range->start) {
    plan_report(p, 0, "The range ends before it starts");
    return false;
  }
  if (!http_range_length(range->start, range->end, size)) {
    plan_report(p, 0, "The range is too large");
    return false;
  }
  return true;
}

// The download and details URLs; false (reported) when either would have
// to be cut or a header line would add lines of its own. Nothing is sent,
// and the output file is left alone, then.
bool build_urls(const ZELGetObjectDecorator* g, char* url, char* details, long* details_length) {
  const ZELGetObjectOpt* opt = g->opt;
  EscapedName bucket(opt->bucket_key), key(opt->key);
  if (!bucket.ok() || !key.ok()) return report(opt->callback, 0, kCannotEscapeKeys, g->user_data), false;
  long length = zel_download_url(g->handle, url, "/buckets/%s/objects/%s", bucket.get(), key.get());
  *details_length =
      zel_api_url(g->handle, details, "/buckets/%s/objects/%s/details", bucket.get(), key.get());
  if (!http_url_fits(length) || !http_url_fits(*details_length)) {
    ZLOG("%s", kHttpUrlTooLong);
    return report(opt->callback, 0, kHttpUrlTooLong, g->user_data), false;
  }
  HttpPlan texts;
  texts.headers = opt->headers;
  const char* refused = http_plan_refusal(texts);
  if (refused != nullptr) report(opt->callback, 0, refused, g->user_data);
  return refused == nullptr;
}

void get_object_run(ZELGetObjectDecorator* g) {
  const ZELGetObjectOpt* opt = g->opt;
  const char* missing = opt->bucket_key == nullptr ? "ZELGetObjectOpt bucket_key is (null)"
                        : opt->key == nullptr      ? "ZELGetObjectOpt key is (null)"
                                                   : nullptr;
  if (missing != nullptr) return report(opt->callback, 0, missing, g->user_data);
  Plan p{&g->handle, &g->opt, nullptr, nullptr, 0, 0, true, g->user_data, nullptr, nullptr, 0};
  p.size_unknown = opt->size_unknown != 0 || has_delta_header(opt->headers) ? 1 : 0;
  char url[kUrlBuffer] = {0};
  char details[kUrlBuffer] = {0};
  if (!build_urls(g, url, details, &p.details_url_length)) return;
  char* sha1 = nullptr;
  if (opt->range != nullptr) {
    if (!range_size(p, opt->range, &p.size)) return;
  } else if (!p.size_unknown) {
    int found = 0;
    p.size = query_object_size(g, &found, &sha1);
    // A size query stopped by shut-down has reported that already; the
    // second report is kept for the service's refusals.
    if (!found && http_stopping()) return;
    if (!found) return report(opt->callback, 0, "Cannot get object size", g->user_data);
    if (p.size > kHttpMaxOffset) {
      mem_free(sha1);
      return report(opt->callback, 0, "The object size is out of range", g->user_data);
    }
  }
  p.url = url;
  p.sha1 = sha1;
  p.details_url = details;
  download_run(p);
  mem_free(sha1);
}
}  // namespace

void get_object_task(void* raw) {
  auto* g = static_cast<ZELGetObjectDecorator*>(raw);
  if (g == nullptr) {
    ZLOG("ZELGetObjectDecorator pointer is (null)");
  } else if (g->opt == nullptr || g->handle == nullptr) {
    ZLOG("ZELGetObjectOpt pointer is (null)");
  } else {
    get_object_run(g);
  }
  get_object_decorator_cleanup(g);
}

namespace {
// The size (learnt or given); false when the download ends here, reported.
bool by_url_size(ZELGetObjectByURLDecorator* u, const Plan& p, uint64_t* size) {
  const ZELGetObjectByURLOpt* opt = u->opt;
  if (opt->range != nullptr) return range_size(p, opt->range, size);
  if (p.size_unknown) return true;
  int found = 0;
  *size = query_object_size_by_url(u, &found);
  if (!found) report(opt->callback, 0, "Cannot get object size", u->user_data);
  return found != 0;
}

void get_object_by_url_run(ZELGetObjectByURLDecorator* u) {
  const ZELGetObjectByURLOpt* opt = u->opt;
  ZELGetObjectOpt* made = get_object_opt_from_url(opt);
  Plan p{&u->handle,        &made,        opt->callback, nullptr, 0, opt->size_unknown != 0 ? 1 : 0,
         opt->authenticate, u->user_data, nullptr,       nullptr, 0};
  if (made == nullptr)
    return report(opt->callback, 0, "Cannot allocate memory for ZELDownloadDecorator", u->user_data);
  char* url = download_url_utf8(opt->download_url);
  if (url == nullptr) {
    report(opt->callback, 0, "Cannot encode the download URL", u->user_data);
  } else if (!http_url_fits(static_cast<long>(strlen(url)))) {
    // Refused before the size query, so nothing at all is sent.
    ZLOG("%s", kHttpUrlTooLong);
    report(opt->callback, 0, kHttpUrlTooLong, u->user_data);
  } else if (by_url_size(u, p, &p.size)) {
    p.url = url;
    download_run(p);
  }
  if (url != nullptr) http_text_free(url);
  get_object_opt_cleanup(made);  // NULL once the download record took it
}
}  // namespace

void get_object_by_url_task(void* raw) {
  auto* u = static_cast<ZELGetObjectByURLDecorator*>(raw);
  if (u == nullptr) {
    ZLOG("ZELGetObjectByURLDecorator pointer is (null)");
  } else if (u->opt == nullptr) {
    ZLOG("ZELGetObjectByURLOpt pointer is (null)");
  } else if (u->opt->download_url == nullptr) {
    ZLOG("download url is (null)");
  } else if (u->handle != nullptr) {
    get_object_by_url_run(u);
  }
  get_object_by_url_decorator_cleanup(u);
}

void get_object_task_drop(void* raw) {
  get_object_decorator_cleanup(static_cast<ZELGetObjectDecorator*>(raw));
}

void get_object_by_url_task_drop(void* raw) {
  get_object_by_url_decorator_cleanup(static_cast<ZELGetObjectByURLDecorator*>(raw));
}
