#include "job.h"

#include <cstring>
#include <string>

namespace zeldiff {
namespace {

constexpr size_t kJobChunk = 256 * 1024;
// Iterations without any input taken or output given before a job counts as
// stuck; librsync may change state a few times without visible progress.
constexpr int kMaxIdleRounds = 64;
// 2^24: 16 MiB, above the window the compressor uses at any level it is
// given here, and a bound on what a crafted frame can make us allocate.
constexpr int kMaxWindowLog = 24;

[[noreturn]] void job_fail(const char* what, const char* reason) {
  throw DiffError(std::string(what) + ": " + reason);
}

}  // namespace

void job_run(rs_job_t* job, const Source& source, const Sink& sink, const char* what) {
  std::vector<uint8_t> in(kJobChunk), out(2 * kJobChunk);
  size_t have = 0;
  bool eof = false;
  int idle = 0;
  for (;;) {
    if (!eof && have < in.size()) {
      size_t got = source(in.data() + have, in.size() - have);
      eof = got == 0;
      have += got;
    }
    rs_buffers_t buffers{};
    buffers.next_in = reinterpret_cast<char*>(in.data());
    buffers.avail_in = have;
    buffers.eof_in = eof;
    buffers.next_out = reinterpret_cast<char*>(out.data());
    buffers.avail_out = out.size();
    rs_result result = rs_job_iter(job, &buffers);
    size_t produced = out.size() - buffers.avail_out;
    if (produced != 0) sink(out.data(), produced);
    idle = (produced == 0 && buffers.avail_in == have) ? idle + 1 : 0;
    have = buffers.avail_in;
    if (have != 0) std::memmove(in.data(), buffers.next_in, have);
    if (result == RS_DONE) break;
    if (result != RS_BLOCKED)
      job_fail(what, result == RS_INPUT_ENDED ? "the data ends early" : rs_strerror(result));
    if (idle > kMaxIdleRounds) job_fail(what, "no progress");
  }
  if (have != 0 || (!eof && source(in.data(), 1) != 0)) job_fail(what, "unexpected data after the end");
}

ZstdWriter::ZstdWriter(int level, Sink sink) : ctx_(ZSTD_createCCtx()), sink_(std::move(sink)) {
  if (ctx_ == nullptr) throw std::bad_alloc();
  // Single-threaded: the delta job, not compression, bounds the speed, and
  // a worker's job buffers would cost tens of MiB.
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
    if (ZSTD_isError(left)) job_fail("Cannot compress the patch", ZSTD_getErrorName(left));
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
    if (ZSTD_isError(hint)) job_fail("The patch is damaged", ZSTD_getErrorName(hint));
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
