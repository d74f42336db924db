// The upload engine.
#include "put_object.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "alloc.h"
#include "frame.h"
#include "http_plan.h"
#include "json.h"
#include "log.h"
#include "progress.h"
#include "transfer.h"
#include "util.h"
#include "zel_internal.h"

namespace {
constexpr const char* kLogTag = "src\\put_object";

constexpr int kUploadOk[] = {200, 201, 202};

// What the request body is read from: the open file through the caller's
// read function, never more than the range holds.
struct UploadSource {
  FILE* file;
  const ZELStream* stream;
  uint64_t first;   // offset of the body's first byte in the file
  uint64_t length;  // bytes in the body
  uint64_t remaining;
};

size_t upload_read(char* buffer, size_t n, void* raw) {
  auto* source = static_cast<UploadSource*>(raw);
  if (source->remaining == 0) return 0;
  size_t want = source->remaining < n ? static_cast<size_t>(source->remaining) : n;
  size_t got = source->stream->read(buffer, 1, want, source->file);
  source->remaining -= got < source->remaining ? got : source->remaining;
  return got;
}

bool upload_seek(uint64_t offset, void* raw) {
  auto* source = static_cast<UploadSource*>(raw);
  if (offset > source->length) return false;
  if (source->stream->seek(source->file, static_cast<int64_t>(source->first + offset), 0) < 0) return false;
  source->remaining = source->length - offset;
  return true;
}

int upload_progress(void* data, uint64_t, uint64_t, uint64_t, uint64_t uploaded) {
  return transfer_progress_step(static_cast<ZELTransferProgress*>(data), uploaded, false);
}

uint64_t range_length(const ZELByteRange* range, uint64_t file_size) {
  // An empty file has no byte to name; its single request sends nothing.
  return file_size == 0 ? 0 : range->end - range->start + 1;
}

HttpPlan upload_plan(const ZELUploadDecorator* u, const ZELByteRange* range, const char* url,
                     UploadSource* source, ZELTransferProgress* data) {
  HttpPlan plan = transfer_plan(u->handle, url, true);
  plan.method = HttpMethod::put;
  plan.bulk = true;
  plan.session_id = u->opt->session_id;
  // An empty file has no first and last byte to name; its whole-object PUT
  // goes without a Content-Range rather than with a wrapped-around one.
  plan.content_range = HttpByteRange{u->file_size != 0, range->start, range->end};
  plan.content_range_total = u->file_size;
  plan.headers = u->opt->headers;
  plan.content_type = u->opt->content_type;
  plan.body_size = source->remaining;
  plan.source = upload_read;
  plan.source_seek = upload_seek;
  plan.source_data = source;
  plan.progress = upload_progress;
  plan.progress_data = data;
  return plan;
}

constexpr HttpVerdictRules kUploadRules{kUploadOk, 3, true, true, nullptr, true};

void report_stats(const ZELUploadDecorator* u, const HttpResponse* r) {
  if (u->opt->stats_callback == nullptr) return;
  u->opt->stats_callback(r->total_time, r->namelookup_time, r->connect_time, r->speed_upload, r->size_upload,
                         u->user_data);
}

// Records an attempt's status and text in the upload record. A 202
// records nothing: the completion must not mistake an accepted chunk for
// the service's final answer or for a failure.
void record(ZELUploadDecorator* u, int32_t status, const char* text, const char* details_body) {
  if (status == 202) return;
  char* copy = text != nullptr ? mem_strdup(text) : nullptr;
  char* details = details_body != nullptr ? mem_strdup(details_body) : nullptr;
  zel::LockGuard lock(u->mutex);
  mem_free(u->message);
  u->message = copy;
  u->last_status = status;
  if (details != nullptr) {
    mem_free(u->details);
    u->details = details;
  }
}

// Opens the file at the range; the system's text when it cannot.
const char* open_source(const ZELUploadDecorator* u, const ZELByteRange* range, FILE** file) {
  const ZELStream* stream = u->opt->stream;
  *file = file_open(stream->filename, "rb");
  if (*file != nullptr && stream->seek(*file, static_cast<int64_t>(range->start), 0) >= 0) return nullptr;
  const char* text = transfer_error_text(errno);
  return text != nullptr ? text : "(null)";
}
}  // namespace

AttemptOutcome upload_request(ZELUploadDecorator* upload, const ZELByteRange* range, uint32_t attempt,
                              const char* url) {
  FILE* file = nullptr;
  if (const char* text = open_source(upload, range, &file)) {
    if (file != nullptr) fclose(file);
    record(upload, -1, text, nullptr);
    return AttemptOutcome{false, -1, true};
  }
  uint64_t length = range_length(range, upload->file_size);
  UploadSource source{file, upload->opt->stream, range->start, length, length};
  ZELTransferProgress data{upload->progress,    0, upload->user_data,
                           attempt > 0 ? 1 : 0, 0, upload->opt->progress_callback};
  HttpPlan plan = upload_plan(upload, range, url, &source, &data);
  HttpExchange exchange;
  exchange.run(plan);
  fclose(file);
  HttpVerdict verdict(exchange, kUploadRules);
  int32_t status = verdict.code();
  // A 200 or 201 without any body was cut short: the details it carries
  // are what completes the upload, so the attempt is tried again.
  if (verdict.success() && status != 202 && exchange.body() == nullptr) {
    record(upload, status, "The answer ended before its body arrived", nullptr);
    return AttemptOutcome{false, status, true};
  }
  if (verdict.success()) {
    report_stats(upload, exchange.response());
    const char* body = status != 202 ? exchange.body() : nullptr;
    record(upload, status, body, body);
    return AttemptOutcome{true, status, false};
  }
  transfer_note_failure(status);
  record(upload, status, verdict.message(), nullptr);
  return AttemptOutcome{false, status, verdict.retryable()};
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
