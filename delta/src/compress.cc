#include "compress.h"

#include <cstring>
#include <string>

namespace zeldiff {
namespace {

// 2^24: 16 MiB, above the window the compressor uses at any level it is
// given here, and a bound on what a crafted frame can make us allocate.
constexpr int kMaxWindowLog = 24;

[[noreturn]] void zstd_fail(const char* what, const char* reason) {
  throw DiffError(std::string(what) + ": " + reason);
}

}  // namespace

ZstdWriter::ZstdWriter(int level, Sink sink) : ctx_(ZSTD_createCCtx()), sink_(std::move(sink)) {
  if (ctx_ == nullptr) throw std::bad_alloc();
  // Single-threaded: the encoder, not compression, bounds the speed, and a
  // worker's job buffers would cost tens of MiB.
  if (ZSTD_isError(ZSTD_CCtx_setParameter(ctx_, ZSTD_c_compressionLevel, level)) ||
      ZSTD_isError(ZSTD_CCtx_setParameter(ctx_, ZSTD_c_windowLog, 21)) ||
      ZSTD_isError(ZSTD_CCtx_setParameter(ctx_, ZSTD_c_checksumFlag, 1))) {
    ZSTD_freeCCtx(ctx_);
    throw DiffError("Cannot set up the compression");
  }
  out_.resize(ZSTD_CStreamOutSize());
}

ZstdWriter::~ZstdWriter() { ZSTD_freeCCtx(ctx_); }

void ZstdWriter::pump(ZSTD_inBuffer* in, ZSTD_EndDirective mode) {
  for (;;) {
    ZSTD_outBuffer out{out_.data(), out_.size(), 0};
    size_t left = ZSTD_compressStream2(ctx_, &out, in, mode);
    if (ZSTD_isError(left)) zstd_fail("Cannot compress the patch", ZSTD_getErrorName(left));
    if (out.pos != 0) sink_(out_.data(), out.pos);
    bool done = mode == ZSTD_e_end ? left == 0 : in->pos == in->size;
    if (done) return;
  }
}

void ZstdWriter::write(const uint8_t* data, size_t n) {
  ZSTD_inBuffer in{data, n, 0};
  pump(&in, ZSTD_e_continue);
}

void ZstdWriter::finish() {
  ZSTD_inBuffer in{nullptr, 0, 0};
  pump(&in, ZSTD_e_end);
}

ZstdReader::ZstdReader(Source source) : ctx_(ZSTD_createDCtx()), source_(std::move(source)) {
  if (ctx_ == nullptr) throw std::bad_alloc();
  if (ZSTD_isError(ZSTD_DCtx_setParameter(ctx_, ZSTD_d_windowLogMax, kMaxWindowLog))) {
    ZSTD_freeDCtx(ctx_);
    throw DiffError("Cannot set up the decompression");
  }
  in_.resize(ZSTD_DStreamInSize());
}

ZstdReader::~ZstdReader() { ZSTD_freeDCtx(ctx_); }

size_t ZstdReader::read(uint8_t* buffer, size_t cap) {
  ZSTD_outBuffer out{buffer, cap, 0};
  while (out.pos == 0 && !frame_done_) {
    if (pos_.pos == pos_.size && !source_done_) {
      pos_ = ZSTD_inBuffer{in_.data(), source_(in_.data(), in_.size()), 0};
      source_done_ = pos_.size == 0;
    }
    size_t hint = ZSTD_decompressStream(ctx_, &out, &pos_);
    if (ZSTD_isError(hint)) zstd_fail("The patch is damaged", ZSTD_getErrorName(hint));
    if (hint == 0) {
      frame_done_ = true;
    } else if (source_done_ && pos_.pos == pos_.size && out.pos < out.size) {
      throw DiffError("The patch is truncated");
    }
  }
  if (frame_done_ && out.pos == 0 && (pos_.pos != pos_.size || source_(in_.data(), 1) != 0)) {
    throw DiffError("The patch has unexpected data after its end");
  }
  return out.pos;
}

}  // namespace zeldiff
