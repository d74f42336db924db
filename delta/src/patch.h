#pragma once
// The patch file.
//
// Layout (integers little-endian):
//   0   4  magic "zdp" and format version 2
//   4   4  flags: bit 0 set when the delta stream is one zstd frame
//   8  20  SHA-1 of the base file, raw bytes
//  28  20  SHA-1 of the new file
//  48   8  size of the new file
//  56   8  size of the base file
//  64  ..  delta stream of delta_stream.h (compressed when flagged)
#include <cstddef>
#include <cstdint>

#include "diff.h"
#include "diff_internal.h"

namespace zeldiff {

constexpr size_t kPatchHeaderSize = 64;
constexpr uint32_t kPatchZstd = 1;

struct PatchHeader {
  uint32_t flags;
  uint8_t base_sha1[kSha1Size];
  uint8_t new_sha1[kSha1Size];
  uint64_t new_size;
  uint64_t base_size;
};

void patch_header_encode(const PatchHeader& h, uint8_t out[kPatchHeaderSize]);
// Throws a message for a header this version cannot have written.
PatchHeader patch_header_decode(const uint8_t in[kPatchHeaderSize]);

// Writes the patch from the base behind `signature` to `new_file`; `level` 0
// stores the delta stream uncompressed. With `verify`, a new file that
// changes while it is read is refused.
void patch_create(const char16_t* new_file, const char16_t* signature, const char16_t* patch, int level,
                  bool verify);

// Applies `patch` to the base of `entry` into `result` (apply_mode bits as in
// diff.h).
void patch_apply(const char16_t* result, const char16_t* patch, const DiffFileEntry* entry, int32_t mode);

}  // namespace zeldiff
