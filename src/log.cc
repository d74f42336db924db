#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include <zel/zel.h>

namespace {
// Read by every logging thread without a lock; an atomic keeps the switch
// well-defined while operations run.
std::atomic<ZELLogSink> g_sink{nullptr};
constexpr size_t kLineBuffer = 1025;
constexpr size_t kLineLimit = 1024;
}  // namespace

extern "C" ZEL_EXPORT void zel_logger_init(ZELLogSink sink) { g_sink.store(sink); }

// Cutting long lines to the fixed bound is the point of these buffers.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wformat-truncation"
#endif

extern "C" ZEL_EXPORT void zel_log(const char* prefix, const char* tag, int32_t line, const char* format,
                                   ...) {
  if (tag == nullptr || format == nullptr) return;
  char message[kLineBuffer] = {0};
  va_list args;
  va_start(args, format);
  vsnprintf(message, kLineLimit, format, args);
  va_end(args);

  long now = static_cast<long>(time(nullptr));
  char out[kLineBuffer] = {0};
  if (prefix != nullptr) {
    snprintf(out, kLineLimit, "%s %ld %s:%d: %s\n", prefix, now, tag, line, message);
  } else {
    snprintf(out, kLineLimit, "%ld %s:%d: %s\n", now, tag, line, message);
  }
  ZELLogSink sink = g_sink.load();
  if (sink != nullptr) {
    sink(out);
  } else {
    fprintf(stderr, "%s", out);
  }
}
