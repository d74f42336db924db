// diff_file_match: how much of a file no block of a signature covers.
//
// A greedy scan like the patch encoder's (a block found at a position covers
// it and the scan jumps past it). Unrelated files are cheap: the index's bit
// filter turns most positions away before the hash table is touched, both
// cores scan, and the scan stops as soon as the uncovered bytes pass the
// limit.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <exception>
#include <thread>
#include <vector>

#include "diff.h"
#include "sig_index.h"

namespace zeldiff {
namespace {

constexpr size_t kReadChunk = 1 << 20;
// Below this size one thread scans the whole file; the split costs at most a
// block of accuracy at the seam.
constexpr uint64_t kSplitMin = 8 << 20;
constexpr uint64_t kFlushEvery = 1 << 16;

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
    if (index.maybe(weak) && index.find(weak, data + i, UINT64_MAX) >= 0) return i;
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
