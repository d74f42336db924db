#pragma once
// The block sums of a signature file, indexed for lookups by rolling sum.
// Used by the match scan and by the patch encoder. Its memory is close to
// the signature's own size: the sums in two flat arrays, a table of 32-bit
// block numbers at most half full, and a bit filter of 32 bits a block.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "signature.h"

namespace zeldiff {

class SigIndex {
 public:
  // Loads the sums of a signature whose header `h` was checked.
  SigIndex(const File& sig, const SigHeader& h);
  SigIndex(const SigIndex&) = delete;
  SigIndex& operator=(const SigIndex&) = delete;

  uint32_t block_len() const { return h_.block_len; }
  uint32_t mult() const { return mult_; }
  uint64_t blocks() const { return h_.blocks; }
  size_t tail_len() const { return tail_len_; }

  // Two bits in one word per rolling sum: one memory access, and about one
  // position in 300 of an unrelated file reaches the table.
  bool maybe(uint32_t weak) const {
    uint64_t h = mix(weak);
    uint64_t bits = filter_bits(h);
    return (filter_[h & filter_mask_] & bits) == bits;
  }

  // A full block with this rolling sum and the strong sum of the block_len
  // bytes at `data`, or -1. Block `hint` is tried first, so that a run of
  // blocks that repeat in the base is still found in order.
  int64_t find(uint32_t weak, const uint8_t* data, uint64_t hint) const;

  // True when the signature's short last block equals the tail_len() bytes
  // at `data`.
  bool tail_matches(const uint8_t* data) const;

 private:
  static uint64_t mix(uint32_t weak) { return weak * uint64_t{0x9E3779B97F4A7C15}; }
  static uint64_t filter_bits(uint64_t h) {
    return (uint64_t{1} << (h >> 58)) | (uint64_t{1} << ((h >> 52) & 63));
  }
  bool same_strong(uint64_t block, const uint8_t* strong) const;
  void load(const File& sig);
  void build();
  void insert(uint32_t block);

  SigHeader h_;
  uint32_t mult_;
  uint64_t full_blocks_ = 0;
  size_t tail_len_ = 0;
  std::vector<uint32_t> weak_;
  std::vector<uint8_t> strong_;
  std::vector<uint32_t> table_;  // block + 1; 0 marks a free slot
  std::vector<uint64_t> filter_;
  uint64_t table_mask_ = 0, filter_mask_ = 0;
};

}  // namespace zeldiff
