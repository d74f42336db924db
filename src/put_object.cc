// The upload engine.
#include "put_object.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

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
constexpr const char* kLogTag = "src\\put_object";

// What libcurl reads the body from: the open file through the caller's read
// function, never more than the range holds.
struct UploadSource {
  FILE* file;
  ZELStreamReadFn read;
  uint64_t remaining;
};

size_t upload_read(char* buffer, size_t size, size_t count, void* raw) {
  auto* source = reinterpret_cast<UploadSource*>(static_cast<HttpBody*>(raw)->data);
  if (source->remaining == 0) return 0;
  size_t got = source->remaining < static_cast<uint64_t>(size) * count
                   ? source->read(buffer, 1, static_cast<size_t>(source->remaining), source->file)
                   : source->read(buffer, size, count, source->file);
  source->remaining -= got < source->remaining ? got : source->remaining;
  return got;
}

int upload_progress(void* data, curl_off_t, curl_off_t, curl_off_t, curl_off_t uploaded) {
  return transfer_progress_step(static_cast<ZELTransferProgress*>(data), static_cast<uint64_t>(uploaded),
                                false);
}

// One attempt's state, released by the destructor on every path.
struct Attempt {
  ZELUploadDecorator* upload;
  const ZELByteRange* range;
  uint32_t number;
  const char* url;
  HttpRequest* request = nullptr;
  HttpResponse* response = nullptr;
  FILE* file = nullptr;
  int status = -1;
  const char* text = nullptr;  // fixed or system text
  char* owned = nullptr;       // text this attempt allocated

  Attempt(ZELUploadDecorator* u, const ZELByteRange* r, uint32_t n, const char* target)
      : upload(u), range(r), number(n), url(target) {}
  ~Attempt() {
    if (file != nullptr) fclose(file);
    http_pool_release(request);
    http_response_cleanup(response);
    mem_free(owned);
  }
  Attempt(const Attempt&) = delete;
  Attempt& operator=(const Attempt&) = delete;
  const char* message() const { return owned != nullptr ? owned : text; }
};

uint64_t range_length(const ZELByteRange* range, uint64_t file_size) {
  // An empty file has no byte to name; its single request sends nothing.
  return file_size == 0 ? 0 : range->end - range->start + 1;
}

void add_headers(Attempt& a) {
  const ZELUploadDecorator* u = a.upload;
  http_request_set_auth(a.request, u->handle->get_token, u->handle->free_token);
  http_request_add_session_id(a.request, u->opt->session_id);
  // An empty file has no first and last byte to name; its whole-object PUT
  // goes without a Content-Range rather than with a wrapped-around one.
  if (u->file_size != 0)
    http_request_add_content_range(a.request, a.range->start, a.range->end, u->file_size);
  for (const ZELHeaders* h = u->opt->headers; h != nullptr; h = h->next)
    http_request_add_header(a.request, h->line);
  // No "Expect: 100-continue" wait before each chunk's body: the round trip
  // it costs buys nothing when the body is a few MiB read from a file.
  http_request_add_header(a.request, "Expect:");
}

// Opens the file at the range and attaches body and hook; false with the
// attempt's text set when a step fails.
bool attach_body(Attempt& a) {
  const ZELStream* stream = a.upload->opt->stream;
  a.file = file_open(stream->filename, "rb");
  if (a.file == nullptr || stream->seek(a.file, static_cast<int64_t>(a.range->start), 0) < 0) {
    a.text = transfer_error_text(errno);
    return false;
  }
  HttpBody* body = http_body_init();
  if (body == nullptr) return (a.text = "Cannot initialize http request body"), false;
  a.request->body = body;
  auto* source = static_cast<UploadSource*>(mem_malloc(sizeof(UploadSource)));
  if (source == nullptr) return (a.text = "Cannot initialize http request body stream"), false;
  *source = {a.file, stream->read, range_length(a.range, a.upload->file_size)};
  body->data = reinterpret_cast<char*>(source);
  body->size = source->remaining;
  body->callback = upload_read;
  ZELTransferProgress* data = nullptr;
  if (a.upload->progress != nullptr) {
    data = transfer_progress_init(a.upload->progress, a.upload->user_data, a.number > 0 ? 1 : 0, 0,
                                  a.upload->opt->progress_callback);
    if (data == nullptr) return (a.text = "Cannot initialize http progress data"), false;
  }
  // Always hooked, so that a shutting-down pool aborts the transfer.
  a.text = transfer_attach_hook(a.request, upload_progress, data);
  return a.text == nullptr;
}

bool prepare(Attempt& a) {
  a.request = http_pool_acquire();
  if (a.request == nullptr) return (a.text = "Cannot initialize http request"), false;
  HttpSettings settings = http_settings_from(a.upload->handle);
  http_request_configure(a.request, &settings);
  transfer_tune_upload(a.request);
  add_headers(a);
  if (!attach_body(a)) return false;
  a.text = http_request_put(a.request, a.url, a.upload->opt->content_type);
  if (a.text != nullptr) return false;
  a.response = http_response_init();
  if (a.response == nullptr) return (a.text = "Cannot initialize http response"), false;
  a.response->body = http_body_init();
  if (a.response->body == nullptr) return (a.text = "Cannot initialize http response body"), false;
  a.response->body->callback = http_body_write;
  return true;
}

const char* body_text(const HttpResponse* response) {
  const HttpBody* body = response->body;
  return body != nullptr && body->data != nullptr && body->size > 0 ? body->data : nullptr;
}

void report_stats(const ZELUploadDecorator* u, const HttpResponse* r) {
  if (u->opt->stats_callback == nullptr) return;
  u->opt->stats_callback(r->total_time, r->namelookup_time, r->connect_time, r->speed_upload, r->size_upload,
                         u->user_data);
}

// Turns a completed exchange into the attempt's status and text.
void judge(Attempt& a) {
  a.status = a.response->status;
  const char* body = body_text(a.response);
  if (a.status == 200 || a.status == 201 || a.status == 202) {
    report_stats(a.upload, a.response);
    if (a.status != 202 && body != nullptr) a.owned = mem_strdup(body);
    return;
  }
  if ((a.text = transfer_status_text(a.status)) != nullptr) return;
  if (err_reason_fromjson(body, &a.owned) == 0) return;
  a.owned = body != nullptr ? mem_strdup(body) : nullptr;
}

// A 202 records nothing: the completion must not mistake an accepted chunk
// for the service's final answer or for a failure.
void record(Attempt& a) {
  if (a.status == 202) return;
  const char* text = a.message();
  char* copy = text != nullptr ? mem_strdup(text) : nullptr;
  char* details = (a.status == 200 || a.status == 201) && copy != nullptr ? mem_strdup(copy) : nullptr;
  ZELUploadDecorator* u = a.upload;
  zel::mtx_lock(&u->mutex);
  mem_free(u->message);
  u->message = copy;
  u->last_status = a.status;
  if (details != nullptr) {
    mem_free(u->details);
    u->details = details;
  }
  zel::mtx_unlock(&u->mutex);
}
}  // namespace

int upload_request(ZELUploadDecorator* upload, const ZELByteRange* range, uint32_t attempt, const char* url) {
  Attempt a(upload, range, attempt, url);
  if (prepare(a)) {
    a.text = http_perform(a.request, a.response);
    fclose(a.file);
    a.file = nullptr;
    if (a.text != nullptr) {
      a.status = a.response->status;
    } else {
      judge(a);
    }
  }
  record(a);
  return a.status;
}

char* generate_session_id() {
  // Ids must differ between uploads started in the same instant, or two
  // uploads would write into one session: time alone is not enough, so a
  // process-wide counter and the clocks go into a private generator.
  static std::atomic<uint64_t> counter{0};
  char* id = static_cast<char*>(mem_calloc(33, 1));
  if (id == nullptr) return nullptr;
  timespec wall{}, mono{};
  clock_gettime(CLOCK_REALTIME, &wall);
  clock_gettime(CLOCK_MONOTONIC, &mono);
  uint64_t state = static_cast<uint64_t>(wall.tv_sec) * 1000003u + static_cast<uint64_t>(clock()) +
                   (static_cast<uint64_t>(wall.tv_nsec) << 20) + static_cast<uint64_t>(mono.tv_nsec) +
                   (counter.fetch_add(1) + 1) * 0x9E3779B97F4A7C15ull;
  for (int i = 0; i < 16; i++) {
    state += 0x9E3779B97F4A7C15ull;  // splitmix64
    uint64_t z = state;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    z ^= z >> 31;
    snprintf(id + 2 * i, 3, "%02x", static_cast<unsigned>(z % 94 + 33));
  }
  return id;
}
