// The encoder: a greedy scan of the new file against the base's block
// index. A window whose rolling and strong sums match a block becomes a
// copy and the scan jumps past it; anything else is new data.
#include <algorithm>
#include <cstring>

#include "delta_stream.h"

namespace zeldiff {
namespace {

constexpr uint8_t kOpEnd = 0, kOpLiteral = 1, kOpCopy = 2;
constexpr size_t kWriterBuffer = 1 << 20;
constexpr size_t kScanChunk = 4 << 20;

uint64_t zigzag(int64_t v) { return (static_cast<uint64_t>(v) << 1) ^ static_cast<uint64_t>(v >> 63); }

}  // namespace

DeltaWriter::DeltaWriter(Sink sink) : sink_(std::move(sink)), buffer_(kWriterBuffer) {}

void DeltaWriter::flush() {
  if (used_ != 0) sink_(buffer_.data(), used_);
  used_ = 0;
}

void DeltaWriter::put(const uint8_t* data, size_t n) {
  while (n != 0) {
    if (used_ == buffer_.size()) flush();
    size_t k = std::min(n, buffer_.size() - used_);
    std::memcpy(&buffer_[used_], data, k);
    used_ += k, data += k, n -= k;
  }
}

void DeltaWriter::put_varint(uint64_t v) {
  uint8_t raw[10];
  size_t n = 0;
  for (; v >= 0x80; v >>= 7) raw[n++] = static_cast<uint8_t>(v | 0x80);
  raw[n++] = static_cast<uint8_t>(v);
  put(raw, n);
}

void DeltaWriter::flush_copy() {
  if (copy_len_ == 0) return;
  put(&kOpCopy, 1);
  put_varint(zigzag(static_cast<int64_t>(copy_offset_ - last_end_)));
  put_varint(copy_len_);
  last_end_ = copy_offset_ + copy_len_;
  copy_len_ = 0;
}

void DeltaWriter::literal(const uint8_t* data, size_t n) {
  if (n == 0) return;
  flush_copy();
  put(&kOpLiteral, 1);
  put_varint(n);
  put(data, n);
}

void DeltaWriter::copy(uint64_t offset, uint64_t n) {
  if (copy_len_ != 0 && copy_offset_ + copy_len_ == offset) {
    copy_len_ += n;
    return;
  }
  flush_copy();
  copy_offset_ = offset;
  copy_len_ = n;
}

void DeltaWriter::finish() {
  flush_copy();
  put(&kOpEnd, 1);
  flush();
}

// The scan keeps a window of the file in `buffer`; `lit` marks where the new
// data not yet written starts. When the window runs out, what is left of
// it moves to the front and the rest is read behind it.
uint64_t delta_encode(const SigIndex& index, const File& input, DeltaWriter& out) {
  const size_t block = index.block_len();
  const uint32_t mult = index.mult();
  std::vector<uint8_t> buffer(kScanChunk + block);
  uint64_t start = 0;  // file offset of buffer[0]
  size_t len = input.read_at(buffer.data(), buffer.size(), 0);
  bool eof = len < buffer.size();
  size_t i = 0, lit = 0;
  uint64_t hint = 0;
  for (;;) {
    bool fresh = true;
    uint32_t weak = 0;
    while (i + block <= len) {
      if (fresh) weak = rk_sum(&buffer[i], block), fresh = false;
      int64_t found = index.maybe(weak) ? index.find(weak, &buffer[i], hint) : -1;
      if (found >= 0) {
        out.literal(&buffer[lit], i - lit);
        out.copy(static_cast<uint64_t>(found) * block, block);
        hint = static_cast<uint64_t>(found) + 1;
        i += block, lit = i, fresh = true;
      } else if (i + block < len) {
        weak = rk_rotate(weak, mult, buffer[i], buffer[i + block]);
        ++i;
      } else {
        ++i;
      }
    }
    if (eof) break;
    out.literal(&buffer[lit], i - lit);
    size_t keep = len - i;
    std::memmove(buffer.data(), &buffer[i], keep);
    start += i, i = 0, lit = 0;
    size_t want = buffer.size() - keep;
    size_t got = input.read_at(&buffer[keep], want, start + keep);
    len = keep + got;
    eof = got < want;
  }
  // Fewer than a block's bytes remain, none of them the start of a full
  // block: only the base's short last block, ending the file, can cover
  // some of them.
  size_t tail = index.tail_len();
  if (tail != 0 && len - i >= tail && index.tail_matches(&buffer[len - tail])) {
    out.literal(&buffer[lit], len - tail - lit);
    out.copy((index.blocks() - 1) * block, tail);
  } else {
    out.literal(&buffer[lit], len - lit);
  }
  return start + len;
}

}  // namespace zeldiff
