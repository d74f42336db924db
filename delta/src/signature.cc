// Signature files: block sums computed on both cores, and the header check
// every reader runs before trusting a signature.
#include "signature.h"

#include <librsync.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <exception>
#include <string>
#include <thread>
#include <vector>

namespace zeldiff {
namespace {

constexpr uint8_t kSigMagic[4] = {'z', 'd', 's', 1};
constexpr size_t kChunkBytes = 1 << 20;

// Rolling and strong sums of every block, split in chunks that two threads
// claim in turn; the first thread also feeds the SHA-1, which must see the
// file in order.
class SumJob {
 public:
  SumJob(const File& file, const SigHeader& h, uint8_t* out)
      : file_(file), h_(h), out_(out), chunk_blocks_(std::max<uint64_t>(1, kChunkBytes / h.block_len)) {
    chunks_ = (h.blocks + chunk_blocks_ - 1) / chunk_blocks_;
  }

  void run(uint8_t sha1[kSha1Size]) {
    std::exception_ptr helper_error;
    std::thread helper([&] {
      try {
        std::vector<uint8_t> buffer(chunk_blocks_ * h_.block_len);
        while (sum_next(buffer)) {
        }
      } catch (...) {
        helper_error = std::current_exception();
        stop_.store(true);
      }
    });
    try {
      hash_and_sum(sha1);
    } catch (...) {
      stop_.store(true);
      helper.join();
      throw;
    }
    helper.join();
    if (helper_error) std::rethrow_exception(helper_error);
  }

 private:
  // Sums the next unclaimed chunk; false when none is left.
  bool sum_next(std::vector<uint8_t>& buffer) {
    uint64_t chunk = next_.fetch_add(1);
    if (chunk >= chunks_ || stop_.load()) return false;
    uint64_t first = chunk * chunk_blocks_;
    uint64_t offset = first * h_.block_len;
    size_t want = static_cast<size_t>(std::min<uint64_t>(buffer.size(), h_.file_size - offset));
    if (file_.read_at(buffer.data(), want, offset) != want)
      throw DiffError("The file changed while it was read");
    size_t per = 4 + h_.strong_len;
    uint8_t* out = out_ + first * per;
    for (size_t at = 0; at < want; at += h_.block_len, out += per) {
      size_t n = std::min<size_t>(h_.block_len, want - at);
      put_u32be(out, rk_sum(buffer.data() + at, n));
      strong_sum(buffer.data() + at, n, out + 4, h_.strong_len);
    }
    return true;
  }

  void hash_and_sum(uint8_t sha1[kSha1Size]) {
    std::vector<uint8_t> sums_buffer(chunk_blocks_ * h_.block_len);
    std::vector<uint8_t> buffer(kChunkBytes);
    Sha1 sha;
    for (uint64_t offset = 0; offset < h_.file_size;) {
      size_t want = static_cast<size_t>(std::min<uint64_t>(kChunkBytes, h_.file_size - offset));
      if (file_.read_at(buffer.data(), want, offset) != want)
        throw DiffError("The file changed while it was read");
      sha.update(buffer.data(), want);
      offset += want;
      if (stop_.load()) return;
      sum_next(sums_buffer);
    }
    sha.final(sha1);
    while (sum_next(sums_buffer)) {
    }
  }

  const File& file_;
  const SigHeader& h_;
  uint8_t* out_;
  uint64_t chunk_blocks_;
  uint64_t chunks_ = 0;
  std::atomic<uint64_t> next_{0};
  std::atomic<bool> stop_{false};
};

}  // namespace

uint32_t rk_pow(size_t n) {
  uint32_t result = 1;
  uint32_t base = kRkMult;
  for (; n != 0; n >>= 1, base *= base) {
    if (n & 1) result *= base;
  }
  return result;
}

uint32_t rk_sum(const uint8_t* data, size_t n) {
  // Four bytes per step with independent multiplications.
  const uint32_t m2 = kRkMult * kRkMult, m3 = m2 * kRkMult, m4 = m3 * kRkMult;
  uint32_t hash = kRkSeed;
  size_t i = 0;
  for (; i + 4 <= n; i += 4) {
    hash = hash * m4 + data[i] * m3 + data[i + 1] * m2 + data[i + 2] * kRkMult + data[i + 3];
  }
  for (; i < n; ++i) hash = hash * kRkMult + data[i];
  return hash;
}

void strong_sum(const uint8_t* data, size_t n, uint8_t* out, uint32_t len) {
  unsigned char digest[16];
  rs_mdfour(digest, data, n);
  std::memcpy(out, digest, len);
}

// A false match needs a block's strong sum to equal that of an unrelated
// window. Any position of a new file (up to 1 TiB: 2^40 positions) may be
// compared with any of the base's blocks, so the expected number of false
// matches is at most 2^40 * blocks * 2^(-8 * len). Keeping it under 2^-40
// needs 80 + log2(blocks) bits; the rolling sum's 32 bits are not counted,
// as crafted data can make them collide at will. A false match can never
// yield a wrong result (the patch records the new file's SHA-1, checked when
// applied); it only costs a refused patch.
uint32_t signature_strong_len(uint64_t size, uint32_t block_len) {
  uint64_t blocks = std::max<uint64_t>(1, (size + block_len - 1) / block_len);
  uint32_t log2_blocks = 0;
  while ((uint64_t{1} << log2_blocks) < blocks) ++log2_blocks;
  return std::min(kMaxStrongLen, (80 + log2_blocks + 7) / 8);
}

SigHeader signature_read_header(const File& signature) {
  uint8_t raw[kSigHeaderSize + kSigRsHeaderSize];
  signature.read_exact(raw, sizeof raw, 0);
  if (std::memcmp(raw, kSigMagic, 3) != 0) throw DiffError("Not a signature file");
  if (raw[3] != kSigMagic[3]) throw DiffError("Unsupported signature file version");
  SigHeader h;
  std::memcpy(h.sha1, raw + 4, kSha1Size);
  h.file_size = get_u64le(raw + 24);
  h.block_len = get_u32be(raw + 36);
  h.strong_len = get_u32be(raw + 40);
  if (get_u32be(raw + 32) != RS_RK_MD4_SIG_MAGIC || h.block_len < kMinBlockLen ||
      h.block_len > kMaxBlockLen || h.strong_len < 1 || h.strong_len > kMaxStrongLen) {
    throw DiffError("The signature file is damaged: bad block parameters");
  }
  h.blocks = h.file_size / h.block_len + (h.file_size % h.block_len != 0);
  uint64_t per = 4 + h.strong_len;
  uint64_t room = (UINT64_MAX - sizeof raw) / per;
  if (h.blocks > room || signature.size() != sizeof raw + h.blocks * per) {
    throw DiffError("The signature file is damaged: its length does not match its header");
  }
  return h;
}

void signature_create(const char16_t* path, const char16_t* signature, uint32_t block_len) {
  if (block_len < kMinBlockLen || block_len > kMaxBlockLen) throw DiffError("The block size is out of range");
  File file;
  File::open_read(file, path, "file");
  SigHeader h{};
  h.file_size = file.size();
  h.block_len = block_len;
  h.strong_len = signature_strong_len(h.file_size, block_len);
  h.blocks = (h.file_size + block_len - 1) / block_len;
  size_t per = 4 + h.strong_len;
  std::vector<uint8_t> out(kSigHeaderSize + kSigRsHeaderSize + h.blocks * per);
  SumJob(file, h, out.data() + kSigHeaderSize + kSigRsHeaderSize).run(h.sha1);
  std::memcpy(out.data(), kSigMagic, 4);
  std::memcpy(out.data() + 4, h.sha1, kSha1Size);
  put_u64le(out.data() + 24, h.file_size);
  put_u32be(out.data() + 32, RS_RK_MD4_SIG_MAGIC);
  put_u32be(out.data() + 36, h.block_len);
  put_u32be(out.data() + 40, h.strong_len);
  OutputFile output(signature, "signature file");
  output.write(out.data(), out.size());
  output.commit(false, -1);
}

}  // namespace zeldiff
