#pragma once
// Shared pieces of the transfer tests: local files, a collector for every
// callback a transfer can make, and options records wired to it.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>
#include <zel/zel.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "lib_fixture.h"

namespace zeltest {

inline std::u16string wide(const std::string& text) { return std::u16string(text.begin(), text.end()); }

// Everything one transfer reported. The terminal reports (callback,
// details_callback, done_callback) are counted so tests can insist on
// exactly one.
struct Outcome {
  std::mutex mutex;
  std::condition_variable changed;
  int finals = 0;
  int callbacks = 0;
  int32_t code = 0;
  std::string message;
  int details = 0;
  bool details_null = false;
  std::string sha1;
  uint64_t size = 0;
  int done = 0;
  std::vector<std::pair<int32_t, std::string>> chunk_failures;
  std::vector<std::pair<uint64_t, uint64_t>> chunks_done;
  uint64_t progress_max = 0;
  uint64_t progress_total = 0;
  int progress_calls = 0;
  uint64_t cancel_after = UINT64_MAX;  // progress_callback cancels beyond this
  int stats = 0;
  double stats_bytes = 0;

  // Called with `mutex` held.
  void finish() {
    finals++;
    changed.notify_all();
  }
  // Waits for the first terminal report; false on timeout.
  bool wait(std::chrono::seconds timeout = std::chrono::seconds(60)) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] { return finals > 0; });
  }
  // Waits for `n` terminal reports; false on timeout.
  bool wait_count(int n, std::chrono::seconds timeout = std::chrono::seconds(60)) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] { return finals >= n; });
  }
  // Waits for the report, then gives a stray second report a moment to
  // show itself; true when exactly one came.
  bool wait_once() {
    if (!wait()) return false;
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, std::chrono::milliseconds(100), [&] { return finals > 1; });
    return finals == 1;
  }
};

template <class Resp>
void outcome_status(const Resp* resp, void* user_data) {
  auto* o = static_cast<Outcome*>(user_data);
  std::lock_guard<std::mutex> lock(o->mutex);
  o->callbacks++;
  o->code = resp->code;
  o->message = resp->message != nullptr ? resp->message : "<null>";
  o->finish();
}

inline void on_details(const ZELObjectDetails* details, void* user_data) {
  auto* o = static_cast<Outcome*>(user_data);
  std::lock_guard<std::mutex> lock(o->mutex);
  o->details++;
  o->details_null = details == nullptr;
  if (details != nullptr) {
    o->sha1 = details->sha1 != nullptr ? details->sha1 : "";
    o->size = details->size;
  }
  o->finish();
}

inline void outcome_done(void* user_data) {
  auto* o = static_cast<Outcome*>(user_data);
  std::lock_guard<std::mutex> lock(o->mutex);
  o->done++;
  o->finish();
}

inline void on_chunk_failed(const ZELPutObjectResp* resp, const ZELPutObjectOpt*, void* user_data) {
  auto* o = static_cast<Outcome*>(user_data);
  std::lock_guard<std::mutex> lock(o->mutex);
  o->chunk_failures.emplace_back(resp->code, resp->message != nullptr ? resp->message : "<null>");
}

inline void on_chunk_done(const ZELPutObjectOpt* chunk, void* user_data) {
  auto* o = static_cast<Outcome*>(user_data);
  std::lock_guard<std::mutex> lock(o->mutex);
  o->chunks_done.emplace_back(chunk->range->start, chunk->range->end);
}

inline int32_t on_progress(uint64_t transferred, uint64_t total, void* user_data) {
  auto* o = static_cast<Outcome*>(user_data);
  std::lock_guard<std::mutex> lock(o->mutex);
  o->progress_calls++;
  if (transferred > o->progress_max) o->progress_max = transferred;
  o->progress_total = total;
  return transferred > o->cancel_after ? 1 : 0;
}

inline void on_stats(double, double, double, double, double size, void* user_data) {
  auto* o = static_cast<Outcome*>(user_data);
  std::lock_guard<std::mutex> lock(o->mutex);
  o->stats++;
  o->stats_bytes += size;
}

// Options records that own their texts and the stream.
struct PutOptions {
  std::u16string bucket, key;
  ZELStream* stream = nullptr;
  ZELByteRange range{};
  ZELPutObjectOpt opt{};
  PutOptions(const std::string& b, const std::string& k, const std::string& path)
      : bucket(wide(b)), key(wide(k)) {
    stream = zel_stream_init(wide(path).c_str());
    opt.bucket_key = bucket.c_str();
    opt.key = key.c_str();
    opt.stream = stream;
    opt.callback = outcome_status<ZELPutObjectResp>;
    opt.details_callback = on_details;
    opt.chunk_failed_callback = on_chunk_failed;
    opt.chunk_done_callback = on_chunk_done;
    opt.stats_callback = on_stats;
  }
  ~PutOptions() { zel_stream_cleanup(stream); }
  void set_range(uint64_t start, uint64_t end) {
    range = {start, end};
    opt.range = &range;
  }
};

struct GetOptions {
  std::u16string bucket, key;
  ZELStream* stream = nullptr;
  ZELByteRange range{};
  ZELGetObjectOpt opt{};
  GetOptions(const std::string& b, const std::string& k, const std::string& path)
      : bucket(wide(b)), key(wide(k)) {
    stream = zel_stream_init(wide(path).c_str());
    opt.bucket_key = bucket.c_str();
    opt.key = key.c_str();
    opt.stream = stream;
    opt.callback = outcome_status<ZELGetObjectResp>;
    opt.done_callback = outcome_done;
    opt.stats_callback = on_stats;
  }
  ~GetOptions() { zel_stream_cleanup(stream); }
  void set_range(uint64_t start, uint64_t end) {
    range = {start, end};
    opt.range = &range;
  }
};

// Requests of the journal that match a method and a piece of the target.
inline std::vector<RecordedRequest> matching(const std::vector<RecordedRequest>& all,
                                             const std::string& method, const std::string& part) {
  std::vector<RecordedRequest> out;
  for (const auto& r : all) {
    if (r.method == method && r.target.find(part) != std::string::npos) out.push_back(r);
  }
  return out;
}

}  // namespace zeltest
