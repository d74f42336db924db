// The download engine's requests: size queries and ranged GETs into the file.
#include "get_object.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "alloc.h"
#include "chunk_writer.h"
#include "frame.h"
#include "http_plan.h"
#include "httppool.h"
#include "json.h"
#include "log.h"
#include "progress.h"
#include "transfer.h"
#include "util.h"
#include "zel_internal.h"

namespace {
constexpr const char* kLogTag = "src\\get_object";
constexpr int kRangedOk[] = {200, 206};
constexpr int kDetailsOk[] = {200};

// Where a response body goes. Only the body of the expected answer reaches
// the file: an error page must never overwrite downloaded bytes, and a
// whole-object 200 to a ranged request would land at the wrong offset.
struct DownloadSink {
  FILE* file;  // nullptr when `writer` takes the bytes
  ChunkWriter* writer;
  ZELStreamWriteFn write;
  uint64_t count;  // bytes written
  uint64_t limit;  // bytes the range holds; UINT64_MAX when unknown
  bool whole;      // a 200 carrying the whole object is what was asked for
};

size_t download_write(const char* bytes, size_t n, int32_t status, void* raw) {
  auto* sink = static_cast<DownloadSink*>(raw);
  if (status != 206 && !(status == 200 && sink->whole)) return status == 200 ? 0 : n;
  if (n > sink->limit - sink->count) return 0;
  size_t written = sink->writer != nullptr ? chunk_writer_append(sink->writer, bytes, n)
                                           : sink->write(const_cast<char*>(bytes), 1, n, sink->file);
  sink->count += written;
  return written;
}

// The caller's stream functions write through a stdio buffer of the
// writer's block size, for the same reasons (chunk_writer.h).
void use_write_block(FILE* file) {
  char* block = chunk_writer_block();
  // Without it the file keeps the standard library's own small buffer.
  if (block != nullptr) setvbuf(file, block, _IOFBF, kChunkWriteBlock);
}

int download_progress(void* raw, uint64_t total, uint64_t now, uint64_t, uint64_t) {
  auto* data = static_cast<ZELTransferProgress*>(raw);
  if (data->total_from_transfer && data->progress != nullptr) progress_set_total(data->progress, total);
  return transfer_progress_step(data, now, true);
}

bool range_header_sent(const ZELDownloadDecorator* d) { return d->range_flag || !d->size_unknown; }

// The request's way into the output file: the library's writer, or the
// caller's stream functions on a file positioned at the request's place.
struct Output {
  FILE* file = nullptr;
  ChunkWriter writer;
  bool own = false;
};

// Opens the output file at the chunk's place; false with the system's
// error number and text when it cannot.
bool open_output(const ZELDownloadDecorator* d, const ZELByteRange* range, Output* out, int32_t* status,
                 const char** message) {
  const ZELStream* stream = d->opt->stream;
  uint64_t base = d->range_flag ? d->opt->range->start : 0;
  uint64_t offset = range->start - base;
  bool ok = false;
  if (d->own_file) {
    out->own = true;
    ok = chunk_writer_open(&out->writer, stream->filename, offset);
  } else {
    out->file = file_open(stream->filename, "rb+");
    if (out->file != nullptr) use_write_block(out->file);
    ok = out->file != nullptr && stream->seek(out->file, static_cast<int64_t>(offset), 0) >= 0;
  }
  if (ok) return true;
  int error = errno;
  *status = error;
  *message = transfer_error_text(error);
  return false;
}

// Closes the chunk's way into the file: 0, or the errno value of a write
// that only failed now.
int close_output(Output* out) {
  if (out->own) return chunk_writer_close(&out->writer);
  if (out->file == nullptr) return 0;
  int closed = fclose(out->file);
  out->file = nullptr;
  return closed != 0 ? errno : 0;
}

HttpPlan fetch_plan(const ZELDownloadDecorator* d, const ZELByteRange* range, DownloadSink* sink,
                    ZELTransferProgress* data) {
  HttpPlan plan = transfer_plan(d->handle, d->url, d->authenticate);
  plan.bulk = true;
  bool sent = range_header_sent(d);
  plan.range = HttpByteRange{sent, range->start, range->end};
  plan.headers = d->opt->headers;
  plan.sink = download_write;
  plan.sink_data = sink;
  if (sent) plan.expect_length = range->end - range->start + 1;
  plan.progress = download_progress;
  plan.progress_data = data;
  return plan;
}

constexpr HttpVerdictRules kDownloadRules{kRangedOk, 2, true, true, "Chunk Download Failed", true};

void report_stats(const ZELDownloadDecorator* d, const HttpResponse* r) {
  if (d->opt->stats_callback == nullptr) return;
  d->opt->stats_callback(r->total_time, r->namelookup_time, r->connect_time, r->speed_download,
                         r->size_download, d->user_data);
}
}  // namespace

AttemptOutcome download_request(ZELDownloadDecorator* d, const ZELByteRange* range, uint32_t attempt,
                                int32_t* error_status, const char** error_message) {
  *error_status = 0;
  *error_message = nullptr;
  Output out;
  if (!open_output(d, range, &out, error_status, error_message)) {
    close_output(&out);
    return AttemptOutcome{false, *error_status, true};
  }
  bool sent = range_header_sent(d);
  DownloadSink sink{out.file,
                    out.own ? &out.writer : nullptr,
                    d->opt->stream->write,
                    0,
                    sent ? range->end - range->start + 1 : UINT64_MAX,
                    !sent || (!d->range_flag && range->start == 0 && range->end + 1 == d->size)};
  ZELTransferProgress data{
      d->progress, 0, d->user_data, attempt >= 1 ? 1 : 0, d->opt->size_unknown, d->opt->progress_callback};
  HttpPlan plan = fetch_plan(d, range, &sink, &data);
  HttpExchange exchange;
  exchange.run(plan);
  // A write that only fails at close would otherwise pass for a download.
  int close_error = close_output(&out);
  HttpVerdict verdict(exchange, kDownloadRules);
  if (verdict.success() && close_error != 0) {
    *error_status = close_error;
    *error_message = transfer_error_text(close_error);
    return AttemptOutcome{false, close_error, true};
  }
  if (verdict.success()) {
    report_stats(d, exchange.response());
    return AttemptOutcome{true, verdict.code(), false};
  }
  transfer_note_failure(verdict.code());
  *error_status = verdict.code();
  *error_message = verdict.message();
  return AttemptOutcome{false, verdict.code(), verdict.retryable()};
}

void download_report(const ZELDownloadDecorator* d, int32_t code, const char* message) {
  if (d->url_callback != nullptr) {
    report(d->url_callback, code, message, d->user_data);
  } else {
    report(d->opt->callback, code, message, d->user_data);
  }
}

void download_free(ZELDownloadDecorator* d) {
  zel::mtx_destroy(&d->mutex);
  progress_cleanup(d->progress);
  mem_free(d->url);
  mem_free(d->details_url);
  mem_free(d->sha1);
  zel_cleanup(d->handle);
  get_object_opt_cleanup(d->opt);
  mem_free(d);
}

char* download_url_utf8(const char16_t* download_url) {
  char* escaped = http_url_escape(download_url);
  if (escaped == nullptr) return nullptr;
  char* url = http_url_unescape(escaped);
  http_text_free(escaped);
  return url;
}

namespace {
// Runs a size query's plan with the chunk's retries and backoff; the
// verdict of the last attempt is judged by `judge`, which returns the
// attempt's outcome and reports nothing.
template <class Judge>
void query_with_retries(const HttpPlan& plan, uint32_t max_retries, Judge judge) {
  auto attempt = [&](uint32_t) {
    HttpExchange exchange;
    exchange.run(plan);
    return judge(exchange);
  };
  auto on_retry = [&](int status, uint32_t n) {
    ZLOG("Object size query failed (status: %d) - retry #%d", status, static_cast<int>(n));
  };
  transfer_run_chunk(max_retries, attempt, on_retry);
}

HttpPlan details_plan(const ZEL* handle, const char* url, long url_length, const ZELHeaders* headers) {
  HttpPlan plan = transfer_plan(handle, url, true);
  plan.url_length = url_length;
  plan.headers = headers;
  return plan;
}

constexpr HttpVerdictRules kDetailsRules{kDetailsOk, 1, false, true, nullptr, true};
}  // namespace

int object_facts_query(const ZEL* handle, const char* url, long url_length, const ZELHeaders* headers,
                       ObjectFacts* facts, int32_t* code, char** message) {
  HttpPlan plan = details_plan(handle, url, url_length, headers);
  int result = -1;
  *code = 0;
  *message = nullptr;
  query_with_retries(plan, handle->max_retries, [&](const HttpExchange& exchange) {
    HttpVerdict verdict(exchange, kDetailsRules);
    mem_free(*message);
    *message = nullptr;
    ZELObjectDetails* details = verdict.success() ? zel_object_details_init() : nullptr;
    if (details != nullptr && object_details_fromjson(exchange.body(), details, handle->api_version) == 0) {
      facts->size = details->size;
      facts->sha1 =
          details->sha1 != nullptr && details->sha1[0] != '\0' ? mem_strdup(details->sha1) : nullptr;
      result = 0;
    } else if (verdict.success()) {
      const char* body = exchange.body();
      ZLOG("Cannot unmarshall json response: %s", body != nullptr ? body : "(null)");
      *code = 200;
      *message = mem_strdup("Cannot unmarshall json response");
    } else {
      transfer_note_failure(verdict.code());
      *code = verdict.code();
      *message = mem_strdup(verdict.message());
    }
    zel_object_details_cleanup(details);
    // A 200 whose body does not read as details was most likely cut short
    // (an answer without Content-Length ends where the connection did).
    bool cut = verdict.success() && result != 0;
    return AttemptOutcome{result == 0, verdict.code(), cut || (!verdict.success() && verdict.retryable())};
  });
  return result;
}

uint64_t query_object_size(const ZELGetObjectDecorator* d, int* found, char** sha1) {
  *found = 0;
  *sha1 = nullptr;
  const ZELGetObjectOpt* opt = d->opt;
  EscapedName bucket(opt->bucket_key), key(opt->key);
  if (!bucket.ok() || !key.ok()) return report(opt->callback, 0, kCannotEscapeKeys, d->user_data), 0;
  char url[kUrlBuffer] = {0};
  long length = zel_api_url(d->handle, url, "/buckets/%s/objects/%s/details", bucket.get(), key.get());
  ObjectFacts facts{0, nullptr};
  int32_t code = 0;
  char* message = nullptr;
  if (object_facts_query(d->handle, url, length, opt->headers, &facts, &code, &message) == 0) {
    *found = 1;
    *sha1 = facts.sha1;
  } else {
    report(opt->callback, code, message != nullptr ? message : "(null)", d->user_data);
  }
  mem_free(message);
  return facts.size;
}

uint64_t query_object_size_by_url(const ZELGetObjectByURLDecorator* d, int* found) {
  *found = 0;
  const ZELGetObjectByURLOpt* opt = d->opt;
  char* url = download_url_utf8(opt->download_url);
  if (url == nullptr) return report(opt->callback, 0, "Cannot encode the download URL", d->user_data), 0;
  HttpPlan plan = transfer_plan(d->handle, url, opt->authenticate);
  // The first two bytes: a 206 names the object's size in Content-Range.
  plan.range = HttpByteRange{true, 0, 1};
  uint64_t size = 0;
  int32_t code = 0;
  const char* message = nullptr;  // static: only the fixed texts are reported
  query_with_retries(plan, d->handle->max_retries, [&](const HttpExchange& exchange) {
    HttpVerdict verdict(exchange, kDownloadRules);
    char* total = verdict.success() ? http_response_content_range_total(exchange.response()) : nullptr;
    char* end = nullptr;
    if (total != nullptr && total[0] >= '0' && total[0] <= '9') size = strtoull(total, &end, 10);
    if (end != nullptr && *end == '\0' && size <= kHttpMaxOffset) *found = 1;
    mem_free(total);
    if (!verdict.success()) transfer_note_failure(verdict.code());
    code = verdict.code();
    message = verdict.message();
    if (code != 401 && code != 403 && code != 504) message = nullptr;
    return AttemptOutcome{verdict.success(), code, !verdict.success() && verdict.retryable()};
  });
  if (message != nullptr) report(opt->callback, code, message, d->user_data);
  http_text_free(url);
  return *found ? size : 0;
}

ZELGetObjectOpt* get_object_opt_from_url(const ZELGetObjectByURLOpt* opt) {
  auto* made = static_cast<ZELGetObjectOpt*>(mem_calloc(1, sizeof(ZELGetObjectOpt)));
  if (made == nullptr) {
    ZLOG("Cannot allocate memory for the ZELGetObjectOpt");
    return nullptr;
  }
  made->size_unknown = opt->size_unknown;
  made->done_callback = opt->done_callback;
  made->progress_callback = opt->progress_callback;
  made->stats_callback = opt->stats_callback;
  const char* failure = nullptr;
  if (opt->range != nullptr && (made->range = byte_range_clone(opt->range)) == nullptr) {
    failure = "Cannot allocate memory for ZELGetObjectOpt range";
  } else if (opt->stream != nullptr && (made->stream = stream_clone(opt->stream)) == nullptr) {
    failure = "Cannot allocate for the ZELGetObjectOpt stream";
  } else if (opt->headers != nullptr && !copy_headers(opt->headers, &made->headers)) {
    failure = "Cannot allocate memory for the ZELGetObjectOpt headers";
  }
  if (failure == nullptr) return made;
  ZLOG("%s", failure);
  get_object_opt_cleanup(made);
  return nullptr;
}
