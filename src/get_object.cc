// The download engine's requests: size queries and ranged GETs into the file.
#include "get_object.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "alloc.h"
#include "frame.h"
#include "httppool.h"
#include "json.h"
#include "log.h"
#include "progress.h"
#include "transfer.h"
#include "util.h"
#include "zel_internal.h"

namespace {
constexpr const char* kLogTag = "src\\get_object";

// Where a response body goes. Only the body of the expected answer reaches
// the file: an error page must never overwrite downloaded bytes, and a
// whole-object 200 to a ranged request would land at the wrong offset.
struct DownloadSink {
  FILE* file;
  ZELStreamWriteFn write;
  uint64_t count;  // bytes written
  CURL* curl;
  uint64_t limit;  // bytes the range holds; UINT64_MAX when unknown
  bool whole;      // a 200 carrying the whole object is what was asked for
  int mode;        // 0 undecided, 1 write, 2 discard
};

int sink_mode(DownloadSink* sink) {
  long code = 0;
  curl_easy_getinfo(sink->curl, CURLINFO_RESPONSE_CODE, &code);
  if (code == 206 || (code == 200 && sink->whole)) return 1;
  return code == 200 ? 0 : 2;
}

size_t download_write(char* bytes, size_t size, size_t count, void* raw) {
  auto* sink = reinterpret_cast<DownloadSink*>(static_cast<HttpBody*>(raw)->data);
  size_t n = size * count;
  if (sink->mode == 0 && (sink->mode = sink_mode(sink)) == 0) return 0;
  if (sink->mode == 2) return n;
  if (n > sink->limit - sink->count) return 0;
  size_t written = sink->write(bytes, size, count, sink->file);
  sink->count += written * size;
  return written * size;
}

// libcurl hands the body over in 16 KiB pieces. Written one by one, each
// piece takes the file's lock in the kernel, and the chunks of a download,
// all writing the same file, spend their time contending for it. Gathered
// into blocks of this size the lock is taken a few times per MiB; much
// larger blocks hold it so long that the other writers spin for the whole
// of each one.
constexpr size_t kWriteBlock = 128 * 1024;

// One block buffer per worker thread, reused by every chunk the thread
// fetches and freed when the thread ends.
struct WriteBlock {
  char* data = nullptr;
  ~WriteBlock() { mem_free(data); }
};

void use_write_block(FILE* file) {
  static thread_local WriteBlock block;
  if (block.data == nullptr) block.data = static_cast<char*>(mem_malloc(kWriteBlock));
  // Without it the file keeps the standard library's own small buffer.
  if (block.data != nullptr) setvbuf(file, block.data, _IOFBF, kWriteBlock);
}

int download_progress(void* raw, curl_off_t total, curl_off_t now, curl_off_t, curl_off_t) {
  auto* data = static_cast<ZELTransferProgress*>(raw);
  if (data != nullptr && data->total_from_transfer)
    progress_set_total(data->progress, static_cast<uint64_t>(total));
  return transfer_progress_step(data, static_cast<uint64_t>(now), true);
}

// One GET's state, released on every path.
struct Fetch {
  HttpRequest* request = nullptr;
  HttpResponse* response = nullptr;
  FILE* file = nullptr;
  ~Fetch() {
    if (file != nullptr) fclose(file);
    http_pool_release(request);
    http_response_cleanup(response);
  }
};

bool range_header_sent(const ZELDownloadDecorator* d) { return d->range_flag || !d->size_unknown; }

// Opens the output file at the chunk's place and attaches the sink.
const char* attach_sink(const ZELDownloadDecorator* d, const ZELByteRange* range, Fetch& f, int32_t* status) {
  const ZELStream* stream = d->opt->stream;
  uint64_t base = d->range_flag ? d->opt->range->start : 0;
  f.file = file_open(stream->filename, "rb+");
  if (f.file != nullptr) use_write_block(f.file);
  if (f.file == nullptr || stream->seek(f.file, static_cast<int64_t>(range->start - base), 0) < 0) {
    *status = errno;
    return transfer_error_text(errno);
  }
  HttpBody* body = http_body_init();
  if (body == nullptr) return "Cannot initialize http response body";
  f.response->body = body;
  auto* sink = static_cast<DownloadSink*>(mem_calloc(1, sizeof(DownloadSink)));
  if (sink == nullptr) return "Cannot initialize http response body stream";
  bool sent = range_header_sent(d);
  sink->file = f.file;
  sink->write = stream->write;
  sink->curl = f.request->curl;
  sink->limit = sent ? range->end - range->start + 1 : UINT64_MAX;
  sink->whole = !sent || (!d->range_flag && range->start == 0 && range->end + 1 == d->size);
  body->data = reinterpret_cast<char*>(sink);
  body->callback = download_write;
  return nullptr;
}

const char* prepare_fetch(const ZELDownloadDecorator* d, const ZELByteRange* range, uint32_t attempt,
                          Fetch& f, int32_t* status) {
  HttpSettings settings = http_settings_from(d->handle);
  http_request_configure(f.request, &settings);
  transfer_tune_download(f.request);
  if (d->authenticate) http_request_set_auth(f.request, d->handle->get_token, d->handle->free_token);
  if (range_header_sent(d)) http_request_add_range(f.request, range->start, range->end);
  for (const ZELHeaders* h = d->opt->headers; h != nullptr; h = h->next)
    http_request_add_header(f.request, h->line);
  if (const char* error = attach_sink(d, range, f, status)) return error;
  ZELTransferProgress* data = nullptr;
  if (d->progress != nullptr) {
    data = transfer_progress_init(d->progress, d->user_data, attempt >= 1 ? 1 : 0, d->opt->size_unknown,
                                  d->opt->progress_callback);
    if (data == nullptr) return "Cannot initialize http progress data";
  }
  // Always hooked, so that a shutting-down pool aborts the transfer.
  if (const char* error = transfer_attach_hook(f.request, download_progress, data)) return error;
  return http_request_get(f.request, d->url);
}

void report_stats(const ZELDownloadDecorator* d, const HttpResponse* r) {
  if (d->opt->stats_callback == nullptr) return;
  d->opt->stats_callback(r->total_time, r->namelookup_time, r->connect_time, r->speed_download,
                         r->size_download, d->user_data);
}
}  // namespace

int download_request(ZELDownloadDecorator* d, const ZELByteRange* range, uint32_t attempt,
                     int32_t* error_status, const char** error_message) {
  *error_status = 0;
  *error_message = nullptr;
  Fetch f;
  f.request = http_pool_acquire();
  f.response = f.request != nullptr ? http_response_init() : nullptr;
  if (f.response == nullptr) {
    *error_status = -1;
    *error_message =
        f.request == nullptr ? "Cannot initialize http request" : "Cannot initialize http response";
    return 0;
  }
  const char* error = prepare_fetch(d, range, attempt, f, error_status);
  if (error == nullptr) error = http_perform(f.request, f.response);
  // A write that only fails at close would otherwise pass for a download.
  int closed = f.file != nullptr ? fclose(f.file) : 0;
  int close_error = errno;
  f.file = nullptr;
  if (error != nullptr) {
    if (*error_status == 0) *error_status = f.response->status;
    *error_message = error;
    return f.response->status;
  }
  int status = f.response->status;
  if ((status == 200 || status == 206) && closed != 0) {
    *error_status = close_error;
    *error_message = transfer_error_text(close_error);
    return 0;
  }
  if (status == 200 || status == 206) {
    report_stats(d, f.response);
    return status;
  }
  *error_status = status;
  const char* text = transfer_status_text(status);
  *error_message = text != nullptr ? text : "Chunk Download Failed";
  return status;
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
  zel_cleanup(d->handle);
  get_object_opt_cleanup(d->opt);
  mem_free(d);
}

char* download_url_utf8(const char16_t* download_url) {
  char* escaped = http_url_escape(download_url);
  if (escaped == nullptr) return nullptr;
  char* url = http_url_unescape(escaped);
  curl_free(escaped);
  return url;
}

namespace {
// The size query's exchange on a pooled request; false (reported) when no
// HTTP status came back.
template <class Resp>
bool size_exchange(const char* url, Fetch& f, void (*callback)(const Resp*, void*), void* user_data) {
  if (f.request == nullptr) return report(callback, 0, "Cannot initialize http request", user_data), false;
  if (const char* error = http_request_get(f.request, url))
    return report(callback, 0, error, user_data), false;
  f.response = http_response_init();
  if (f.response == nullptr) return report(callback, 0, "Cannot initialize http response", user_data), false;
  f.response->body = http_body_init();
  if (f.response->body == nullptr) {
    return report(callback, 0, "Cannot initialize http response body", user_data), false;
  }
  f.response->body->callback = http_body_write;
  if (const char* error = http_perform(f.request, f.response)) {
    return report(callback, f.response->status, error, user_data), false;
  }
  return true;
}

const char* body_of(const HttpResponse* r) {
  return r->body != nullptr && r->body->size > 0 ? r->body->data : nullptr;
}

// 401, 403 and 504 have texts of their own; true when `status` was one.
template <class Resp>
bool report_refusal(int status, void (*callback)(const Resp*, void*), void* user_data) {
  if (status != 401 && status != 403 && status != 504) return false;
  report(callback, status, transfer_status_text(status), user_data);
  return true;
}
}  // namespace

uint64_t query_object_size(const ZELGetObjectDecorator* d, int* found) {
  *found = 0;
  const ZELGetObjectOpt* opt = d->opt;
  ZELObjectDetails* details = zel_object_details_init();
  if (details == nullptr)
    return report(opt->callback, 0, "Cannot initialize ZELObjectDetails", d->user_data), 0;
  uint64_t size = 0;
  EscapedName bucket(opt->bucket_key), key(opt->key);
  char url[kUrlBuffer] = {0};
  zel_api_url(d->handle, url, "/buckets/%s/objects/%s/details", bucket.get(), key.get());
  Fetch f;
  f.request = http_pool_acquire();
  if (f.request != nullptr) {
    HttpSettings settings = http_settings_from(d->handle);
    http_request_configure(f.request, &settings);
    http_request_set_auth(f.request, d->handle->get_token, d->handle->free_token);
    for (const ZELHeaders* h = opt->headers; h != nullptr; h = h->next)
      http_request_add_header(f.request, h->line);
  }
  if (!bucket.ok() || !key.ok()) {
    report(opt->callback, 0, kCannotEscapeKeys, d->user_data);
  } else if (size_exchange(url, f, opt->callback, d->user_data)) {
    int status = f.response->status;
    const char* body = body_of(f.response);
    if (status == 200 && object_details_fromjson(body, details, d->handle->api_version) == 0) {
      size = details->size;
      *found = 1;
    } else if (status == 200) {
      ZLOG("Cannot unmarshall json response: %s", body != nullptr ? body : "(null)");
      report(opt->callback, 200, "Cannot unmarshall json response", d->user_data);
    } else if (!report_refusal(status, opt->callback, d->user_data)) {
      FailureText failure(status, body);
      report(opt->callback, status, failure.text(), d->user_data);
    }
  }
  zel_object_details_cleanup(details);
  return size;
}

uint64_t query_object_size_by_url(const ZELGetObjectByURLDecorator* d, int* found) {
  *found = 0;
  const ZELGetObjectByURLOpt* opt = d->opt;
  Fetch f;
  f.request = http_pool_acquire();
  if (f.request != nullptr) {
    HttpSettings settings = http_settings_from(d->handle);
    http_request_configure(f.request, &settings);
    // The first two bytes: a 206 names the object's size in Content-Range.
    http_request_add_range(f.request, 0, 1);
    if (opt->authenticate) http_request_set_auth(f.request, d->handle->get_token, d->handle->free_token);
  }
  char* url = download_url_utf8(opt->download_url);
  uint64_t size = 0;
  if (url == nullptr && f.request != nullptr) {
    report(opt->callback, 0, "Cannot encode the download URL", d->user_data);
  } else if (size_exchange(url, f, opt->callback, d->user_data)) {
    int status = f.response->status;
    char* total = status == 200 || status == 206 ? http_response_content_range_total(f.response) : nullptr;
    if (total != nullptr) {
      size = strtoull(total, nullptr, 10);
      *found = 1;
    }
    mem_free(total);
    report_refusal(status, opt->callback, d->user_data);
  }
  if (url != nullptr) curl_free(url);
  return size;
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
