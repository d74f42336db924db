#pragma once
// Sources and sinks of bytes, and the zstd stages that sit between the delta
// stream and the patch file.
#include <zstd.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "diff_internal.h"

namespace zeldiff {

// Fills up to `cap` bytes; 0 at the end of the input. Throws on failure.
using Source = std::function<size_t(uint8_t* buffer, size_t cap)>;
// Consumes n bytes. Throws on failure.
using Sink = std::function<void(const uint8_t* data, size_t n)>;

// Compresses what it is given with zstd at `level` into `sink`.
class ZstdWriter {
 public:
  ZstdWriter(int level, Sink sink);
  ZstdWriter(const ZstdWriter&) = delete;
  ZstdWriter& operator=(const ZstdWriter&) = delete;
  ~ZstdWriter();
  void write(const uint8_t* data, size_t n);
  void finish();

 private:
  void pump(ZSTD_inBuffer* in, ZSTD_EndDirective mode);
  ZSTD_CCtx* ctx_;
  Sink sink_;
  std::vector<uint8_t> out_;
};

// Decompresses one zstd frame read from `source`, with a bounded window so
// that a crafted frame cannot demand a large allocation.
class ZstdReader {
 public:
  explicit ZstdReader(Source source);
  ZstdReader(const ZstdReader&) = delete;
  ZstdReader& operator=(const ZstdReader&) = delete;
  ~ZstdReader();
  size_t read(uint8_t* buffer, size_t cap);

 private:
  ZSTD_DCtx* ctx_;
  Source source_;
  std::vector<uint8_t> in_;
  ZSTD_inBuffer pos_{nullptr, 0, 0};
  bool frame_done_ = false;
  bool source_done_ = false;
};

}  // namespace zeldiff
