// Small text and system helpers shared by the emulator's modules.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace zelsrv {

// Decodes %XX escapes of one path segment ('+' stays '+'); false on a broken escape.
bool percent_decode(const std::string& in, std::string& out);
// Escapes everything but unreserved characters, so the result is one path segment.
std::string percent_encode(const std::string& in);
bool valid_utf8(const std::string& s);

int64_t now_ms();
// 32 hex characters from the system's random source: names of stored files.
std::string random_hex_id();

struct ByteSpan {
  uint64_t start = 0;
  uint64_t end = 0;  // inclusive
};

// "bytes S-E/TOTAL" of an upload. An empty body is announced by clients as
// S-(S-1) wrapped around, so end may be below start only when total is 0.
bool parse_content_range(const std::string& value, ByteSpan& span, uint64_t& total);

enum class RangeResult { kNone, kOk, kUnsatisfiable, kInvalid };
// One "bytes=S-E", "bytes=S-" or "bytes=-N" against an object of `size` bytes.
RangeResult parse_range(const std::string& value, uint64_t size, ByteSpan& span);

// "bytes=a-b,c-d" for the spans, which must be sorted and merged.
std::string format_ranges(const std::vector<ByteSpan>& spans);

// Removes a directory tree; errors are ignored.
void remove_tree(const std::string& path);
bool make_dirs(const std::string& path);
// Makes a directory entry (a create, rename or link) durable.
void sync_dir(const std::string& path);

// Raised once when the server stops; every wait of the emulator's own ends
// early then, so that stopping never waits for a pause to run out.
class StopFlag {
 public:
  void raise();
  bool raised();
  // Sleeps up to `ms`; false when the flag is raised before the time is up.
  bool sleep_ms(int64_t ms);

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  bool raised_ = false;
};

}  // namespace zelsrv
