#pragma once
// The signature file and the block sums it holds.
//
// Layout (integers of our header little-endian, librsync's big-endian):
//   0   4  magic "zds" and format version 1
//   4  20  SHA-1 of the signed file, raw bytes
//  24   8  size of the signed file
//  32  12  librsync signature header: magic (RabinKarp + MD4), block length,
//          strong sum length
//  44  ..  per block: 4-byte rolling sum, then the strong sum
// The part from offset 32 is exactly a librsync signature (RabinKarp rolling
// sums, MD4 strong sums), so librsync's tools can read it and our sums can be
// checked against librsync's.
#include <cstddef>
#include <cstdint>

#include "diff_internal.h"

namespace zeldiff {

constexpr size_t kSigHeaderSize = 32;
constexpr size_t kSigRsHeaderSize = 12;
constexpr uint32_t kMinBlockLen = 256;
constexpr uint32_t kMaxBlockLen = 1 << 20;
constexpr uint32_t kMaxStrongLen = 16;  // an MD4 digest

// What the header of a validated signature file says.
struct SigHeader {
  uint8_t sha1[kSha1Size];
  uint64_t file_size;
  uint32_t block_len;
  uint32_t strong_len;
  uint64_t blocks;
};

// Reads and checks the header, and that the file's length is exactly what
// the header implies; throws a message for anything else.
SigHeader signature_read_header(const File& signature);

// Strong-sum length for a base of `size` bytes; see the definition.
uint32_t signature_strong_len(uint64_t size, uint32_t block_len);

// Writes the signature of `file` to `signature`.
void signature_create(const char16_t* file, const char16_t* signature, uint32_t block_len);

// librsync's RabinKarp rolling sum, so that our signatures and librsync's
// agree.
constexpr uint32_t kRkSeed = 1;
constexpr uint32_t kRkMult = 0x08104225u;
constexpr uint32_t kRkAdj = 0x08104224u;  // (kRkMult - 1) * kRkSeed
uint32_t rk_sum(const uint8_t* data, size_t n);
// kRkMult to the power n.
uint32_t rk_pow(size_t n);
// Moves a window of n bytes (mult = rk_pow(n)) one byte on.
inline uint32_t rk_rotate(uint32_t sum, uint32_t mult, uint8_t out, uint8_t in) {
  return sum * kRkMult + in - mult * (out + kRkAdj);
}
// The strong sum of a block: its MD4 digest cut to `len` bytes.
void strong_sum(const uint8_t* data, size_t n, uint8_t* out, uint32_t len);

}  // namespace zeldiff
