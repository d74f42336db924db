// diff_file_match: how much of a file no block of a signature covers.
//
// A greedy scan like the delta job's (a block found at a position covers it
// and the scan jumps past it), on its own index so that unrelated files are
// cheap: a bit filter that fits the cache turns most positions away before
// the hash table is touched, both cores scan, and the scan stops as soon as
// the uncovered bytes pass the limit.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <exception>
#include <thread>
#include <vector>

#include "diff.h"
#include "signature.h"

namespace zeldiff {
namespace {

constexpr size_t kReadChunk = 1 << 20;
// Below this size one thread scans the whole file; the split costs at most a
// block of accuracy at the seam.
constexpr uint64_t kSplitMin = 8 << 20;
// Longest probe chain followed; crafted sums that collide in bulk cannot
// make the scan quadratic (a block not found is merely counted uncovered).
constexpr int kMaxProbes = 64;
constexpr uint64_t kFlushEvery = 1 << 16;

class SigIndex {
 public:
  SigIndex(const File& sig, const SigHeader& h) : h_(h), mult_(rk_pow(h.block_len)) {
    if (h.blocks >= UINT32_MAX) throw DiffError("The signature describes too many blocks");
    full_blocks_ = h.file_size / h.block_len;
    tail_len_ = static_cast<size_t>(h.file_size % h.block_len);
    weak_.resize(h.blocks);
    strong_.resize(h.blocks * h.strong_len);
    load(sig);
    build();
  }

  uint32_t block_len() const { return h_.block_len; }
  uint32_t mult() const { return mult_; }
  size_t tail_len() const { return tail_len_; }

  // Two bits in one word per rolling sum: one memory access, and about one
  // position in 300 of an unrelated file reaches the table.
  bool maybe(uint32_t weak) const {
    uint64_t h = mix(weak);
    uint64_t bits = filter_bits(h);
    return (filter_[h & filter_mask_] & bits) == bits;
  }

  // True when some full block has this rolling sum and the strong sum of
  // the block_len bytes at `data`.
  bool find(uint32_t weak, const uint8_t* data) const {
    uint8_t strong[kMaxStrongLen];
    bool summed = false;
    uint64_t slot = (mix(weak) >> 20) & table_mask_;
    for (int probe = 0; probe < kMaxProbes && table_[slot] != 0; ++probe, slot = (slot + 1) & table_mask_) {
      uint32_t block = table_[slot] - 1;
      if (weak_[block] != weak) continue;
      if (!summed) strong_sum(data, h_.block_len, strong, h_.strong_len), summed = true;
      if (std::memcmp(strong, &strong_[block * h_.strong_len], h_.strong_len) == 0) return true;
    }
    return false;
  }

  bool tail_matches(const uint8_t* data) const {
    if (tail_len_ == 0) return false;
    uint64_t block = h_.blocks - 1;
    uint8_t strong[kMaxStrongLen];
    strong_sum(data, tail_len_, strong, h_.strong_len);
    return rk_sum(data, tail_len_) == weak_[block] &&
           std::memcmp(strong, &strong_[block * h_.strong_len], h_.strong_len) == 0;
  }

 private:
  static uint64_t mix(uint32_t weak) { return weak * uint64_t{0x9E3779B97F4A7C15}; }
  static uint64_t filter_bits(uint64_t h) {
    return (uint64_t{1} << (h >> 58)) | (uint64_t{1} << ((h >> 52) & 63));
  }

  void load(const File& sig) {
    size_t per = 4 + h_.strong_len;
    std::vector<uint8_t> buffer((kReadChunk / per) * per);
    uint64_t offset = kSigHeaderSize + kSigRsHeaderSize;
    for (uint64_t block = 0; block < h_.blocks;) {
      size_t want = static_cast<size_t>(std::min<uint64_t>(buffer.size(), (h_.blocks - block) * per));
      sig.read_exact(buffer.data(), want, offset);
      offset += want;
      for (size_t at = 0; at < want; at += per, ++block) {
        weak_[block] = get_u32be(&buffer[at]);
        std::memcpy(&strong_[block * h_.strong_len], &buffer[at + 4], h_.strong_len);
      }
    }
  }

  void build() {
    uint64_t slots = 1024, words = 1024;
    while (slots < 2 * full_blocks_) slots <<= 1;
    while (words < full_blocks_ / 2 && words < (uint64_t{1} << 24)) words <<= 1;  // 32 bits a block
    table_.assign(slots, 0);
    table_mask_ = slots - 1;
    filter_.assign(words, 0);
    filter_mask_ = words - 1;
    for (uint64_t block = 0; block < full_blocks_; ++block) insert(static_cast<uint32_t>(block));
  }

  // Identical blocks are indexed once, so a file of repeated content does
  // not build long probe chains.
  void insert(uint32_t block) {
    uint32_t weak = weak_[block];
    uint64_t h = mix(weak);
    filter_[h & filter_mask_] |= filter_bits(h);
    uint64_t slot = (h >> 20) & table_mask_;
    for (; table_[slot] != 0; slot = (slot + 1) & table_mask_) {
      uint32_t other = table_[slot] - 1;
      if (weak_[other] == weak &&
          std::memcmp(&strong_[other * h_.strong_len], &strong_[block * h_.strong_len], h_.strong_len) == 0) {
        return;
      }
    }
    table_[slot] = block + 1;
  }

  SigHeader h_;
  uint32_t mult_;
  uint64_t full_blocks_ = 0;
  size_t tail_len_ = 0;
  std::vector<uint32_t> weak_;
  std::vector<uint8_t> strong_;
  std::vector<uint32_t> table_;
  std::vector<uint64_t> filter_;
  uint64_t table_mask_ = 0, filter_mask_ = 0;
};

// Uncovered bytes of the whole file, shared by the scanning threads, which
// stop once it passes the limit.
struct Tally {
  std::atomic<uint64_t> uncovered{0};
  uint64_t limit = 0;
  bool over() const { return uncovered.load(std::memory_order_relaxed) > limit; }
  void add(uint64_t n) { uncovered.fetch_add(n, std::memory_order_relaxed); }
};

// Positions [i, stop), i < stop, of a buffer whose window sum at i is `weak`: returns
// the first position where a block starts, or stop. Every window lies
// inside the buffer.
size_t scan_windows(const SigIndex& index, const uint8_t* data, size_t i, size_t stop, uint32_t weak,
                    size_t block) {
  const uint32_t mult = index.mult();
  for (;;) {
    if (index.maybe(weak) && index.find(weak, data + i)) return i;
    if (++i == stop) return stop;
    weak = rk_rotate(weak, mult, data[i - 1], data[i - 1 + block]);
  }
}

// Scans positions [begin, end) of `file`; a block found before `end` may
// reach past it.
void scan_range(const SigIndex& index, const File& file, uint64_t size, uint64_t begin, uint64_t end,
                Tally& tally) {
  const size_t block = index.block_len();
  std::vector<uint8_t> buffer(kReadChunk + block);
  uint64_t p = begin, uncovered = 0, flushed = 0;
  while (p < end && p + block <= size) {
    size_t len = file.read_at(buffer.data(), buffer.size(), p);
    if (len < block) break;
    size_t i = 0;
    // Windows that fit the buffer and start before `end`.
    size_t last = static_cast<size_t>(std::min<uint64_t>(len - block, end - 1 - p));
    while (i <= last) {
      size_t found = scan_windows(index, buffer.data(), i, last + 1, rk_sum(&buffer[i], block), block);
      uncovered += found - i;
      i = found <= last ? found + block : found;
    }
    p += i;
    if (uncovered - flushed >= kFlushEvery) {
      tally.add(uncovered - flushed);
      flushed = uncovered;
      if (tally.over()) return;
    }
  }
  if (p < end) {
    // Fewer than a block's bytes remain: only the signature's short last
    // block, ending exactly here, can cover them.
    size_t rest = static_cast<size_t>(size - p);
    std::vector<uint8_t> tail(rest);
    bool covered = rest == index.tail_len() && file.read_at(tail.data(), rest, p) == rest &&
                   index.tail_matches(tail.data());
    if (!covered) uncovered += end - p;
  }
  tally.add(uncovered - flushed);
}

int32_t match_file(const char16_t* signature, const char16_t* path, double ratio) {
  if (!(ratio >= 0.0 && ratio <= 1.0)) throw DiffError("The ratio must be between 0.0 and 1.0");
  File sig, file;
  File::open_read(sig, signature, "signature file");
  SigHeader h = signature_read_header(sig);
  SigIndex index(sig, h);
  File::open_read(file, path, "file");
  uint64_t size = file.size();
  Tally tally;
  tally.limit = static_cast<uint64_t>(std::floor(ratio * static_cast<double>(size)));
  if (size < kSplitMin) {
    scan_range(index, file, size, 0, size, tally);
  } else {
    uint64_t split = size / 2;
    std::exception_ptr error;
    std::thread second([&] {
      try {
        scan_range(index, file, size, split, size, tally);
      } catch (...) {
        error = std::current_exception();
      }
    });
    try {
      scan_range(index, file, size, 0, split, tally);
    } catch (...) {
      second.join();
      throw;
    }
    second.join();
    if (error) std::rethrow_exception(error);
  }
  return tally.over() ? 0 : 1;
}

}  // namespace
}  // namespace zeldiff

extern "C" DIFF_EXPORT int32_t diff_file_match(const char16_t* signature, const char16_t* file,
                                               const char16_t* /*temp_dir*/, double ratio) {
  return zeldiff::diff_guard(nullptr, [&] {
    if (signature == nullptr || file == nullptr) throw zeldiff::DiffError("A path is missing");
    return zeldiff::match_file(signature, file, ratio);
  });
}
