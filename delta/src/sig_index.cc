#include "sig_index.h"

#include <algorithm>
#include <cstring>

namespace zeldiff {
namespace {

constexpr size_t kReadChunk = 1 << 20;
// Longest probe chain followed; crafted sums that collide in bulk cannot
// make a scan quadratic (a block not found is merely treated as new data).
constexpr int kMaxProbes = 64;

}  // namespace

SigIndex::SigIndex(const File& sig, const SigHeader& h) : h_(h), mult_(rk_pow(h.block_len)) {
  if (h.blocks >= UINT32_MAX) throw DiffError("The signature describes too many blocks");
  full_blocks_ = h.file_size / h.block_len;
  tail_len_ = static_cast<size_t>(h.file_size % h.block_len);
  weak_.resize(h.blocks);
  strong_.resize(h.blocks * h.strong_len);
  load(sig);
  build();
}

bool SigIndex::same_strong(uint64_t block, const uint8_t* strong) const {
  return std::memcmp(strong, &strong_[block * h_.strong_len], h_.strong_len) == 0;
}

int64_t SigIndex::find(uint32_t weak, const uint8_t* data, uint64_t hint) const {
  uint8_t strong[kMaxStrongLen];
  bool summed = false;
  auto matches = [&](uint64_t block) {
    if (weak_[block] != weak) return false;
    if (!summed) strong_sum(data, h_.block_len, strong, h_.strong_len), summed = true;
    return same_strong(block, strong);
  };
  if (hint < full_blocks_ && matches(hint)) return static_cast<int64_t>(hint);
  uint64_t slot = (mix(weak) >> 20) & table_mask_;
  for (int probe = 0; probe < kMaxProbes && table_[slot] != 0; ++probe, slot = (slot + 1) & table_mask_) {
    uint32_t block = table_[slot] - 1;
    if (matches(block)) return block;
  }
  return -1;
}

bool SigIndex::tail_matches(const uint8_t* data) const {
  if (tail_len_ == 0) return false;
  uint64_t block = h_.blocks - 1;
  if (rk_sum(data, tail_len_) != weak_[block]) return false;
  uint8_t strong[kMaxStrongLen];
  strong_sum(data, tail_len_, strong, h_.strong_len);
  return same_strong(block, strong);
}

void SigIndex::load(const File& sig) {
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

void SigIndex::build() {
  uint64_t slots = 1024, words = 1024;
  while (slots < 2 * full_blocks_) slots <<= 1;
  while (words < full_blocks_ / 2 && words < (uint64_t{1} << 24)) words <<= 1;  // 32 bits a block
  table_.assign(slots, 0);
  table_mask_ = slots - 1;
  filter_.assign(words, 0);
  filter_mask_ = words - 1;
  for (uint64_t block = 0; block < full_blocks_; ++block) insert(static_cast<uint32_t>(block));
}

// Identical blocks are indexed once, so a file of repeated content does not
// build long probe chains.
void SigIndex::insert(uint32_t block) {
  uint32_t weak = weak_[block];
  uint64_t h = mix(weak);
  filter_[h & filter_mask_] |= filter_bits(h);
  uint64_t slot = (h >> 20) & table_mask_;
  for (; table_[slot] != 0; slot = (slot + 1) & table_mask_) {
    uint32_t other = table_[slot] - 1;
    if (weak_[other] == weak && same_strong(other, &strong_[uint64_t{block} * h_.strong_len])) return;
  }
  table_[slot] = block + 1;
}

}  // namespace zeldiff
