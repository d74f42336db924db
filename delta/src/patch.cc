// Patch creation: the encoder against the signature's index, its output
// compressed into the patch file, the header written last once the new
// file's SHA-1 and size are known.
#include "patch.h"

#include <sys/stat.h>

#include <cstring>
#include <memory>
#include <string>

#include "delta_stream.h"
#include "signature.h"

namespace zeldiff {
namespace {

constexpr uint8_t kPatchMagic[4] = {'z', 'd', 'p', 2};

struct Snapshot {
  uint64_t size;
  int64_t mtime_sec;
  int64_t mtime_nsec;
  bool operator==(const Snapshot& o) const {
    return size == o.size && mtime_sec == o.mtime_sec && mtime_nsec == o.mtime_nsec;
  }
};

Snapshot snapshot(const File& file) {
  struct stat st;
  if (fstat(file.fd(), &st) != 0) throw DiffError(diff_errno_message("Cannot read the new file's state"));
  return {static_cast<uint64_t>(st.st_size), st.st_mtim.tv_sec, st.st_mtim.tv_nsec};
}

}  // namespace

void patch_header_encode(const PatchHeader& h, uint8_t out[kPatchHeaderSize]) {
  std::memset(out, 0, kPatchHeaderSize);
  std::memcpy(out, kPatchMagic, 4);
  for (int i = 0; i < 4; ++i) out[4 + i] = static_cast<uint8_t>(h.flags >> (8 * i));
  std::memcpy(out + 8, h.base_sha1, kSha1Size);
  std::memcpy(out + 28, h.new_sha1, kSha1Size);
  put_u64le(out + 48, h.new_size);
  put_u64le(out + 56, h.base_size);
}

PatchHeader patch_header_decode(const uint8_t in[kPatchHeaderSize]) {
  if (std::memcmp(in, kPatchMagic, 3) != 0) throw DiffError("Not a patch file");
  if (in[3] != kPatchMagic[3]) throw DiffError("Unsupported patch file version");
  PatchHeader h;
  h.flags = uint32_t{in[4]} | uint32_t{in[5]} << 8 | uint32_t{in[6]} << 16 | uint32_t{in[7]} << 24;
  if ((h.flags & ~kPatchZstd) != 0) throw DiffError("The patch file uses unknown options");
  std::memcpy(h.base_sha1, in + 8, kSha1Size);
  std::memcpy(h.new_sha1, in + 28, kSha1Size);
  h.new_size = get_u64le(in + 48);
  h.base_size = get_u64le(in + 56);
  return h;
}

void patch_create(const char16_t* new_file, const char16_t* signature, const char16_t* patch, int level,
                  bool verify) {
  File sig, input;
  File::open_read(sig, signature, "signature file");
  SigHeader base = signature_read_header(sig);
  SigIndex index(sig, base);
  File::open_read(input, new_file, "new file");
  Snapshot before = snapshot(input);

  OutputFile out(patch, "patch file");
  PatchHeader h{};
  uint8_t raw[kPatchHeaderSize] = {};
  out.write(raw, sizeof raw);  // rewritten at the end
  FileHasher hasher(input);
  Sink to_file = [&](const uint8_t* data, size_t n) { out.write(data, n); };
  std::unique_ptr<ZstdWriter> zstd;
  if (level > 0) zstd = std::make_unique<ZstdWriter>(level, to_file);
  Sink sink = zstd ? Sink([&](const uint8_t* data, size_t n) { zstd->write(data, n); }) : to_file;
  DeltaWriter writer(sink);
  uint64_t offset = delta_encode(index, input, writer);
  writer.finish();
  if (zstd) zstd->finish();
  const uint8_t* digest = hasher.wait();
  // The hash and the delta read the file separately: they describe the same
  // bytes only if it did not change, which `verify` checks and the SHA-1
  // check of every apply enforces in any case.
  if (hasher.bytes() != offset || (verify && !(snapshot(input) == before && offset == before.size))) {
    throw DiffError("The new file changed while the patch was made");
  }
  h.flags = zstd ? kPatchZstd : 0;
  std::memcpy(h.base_sha1, base.sha1, kSha1Size);
  std::memcpy(h.new_sha1, digest, kSha1Size);
  h.new_size = offset;
  h.base_size = base.file_size;
  patch_header_encode(h, raw);
  out.write_at(raw, sizeof raw, 0);
  out.commit(false, -1);
}

}  // namespace zeldiff
