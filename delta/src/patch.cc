// Patch creation: librsync's delta job against a loaded signature, its
// output compressed into the patch file, the header written last once the
// new file's SHA-1 and size are known.
#include "patch.h"

#include <sys/stat.h>

#include <cstring>
#include <memory>
#include <string>

#include "job.h"
#include "signature.h"

namespace zeldiff {
namespace {

constexpr uint8_t kPatchMagic[4] = {'z', 'd', 'p', 1};

struct SumsetFree {
  void operator()(rs_signature_t* sums) const { rs_free_sumset(sums); }
};
using SumsetPtr = std::unique_ptr<rs_signature_t, SumsetFree>;

// Loads the librsync part of a checked signature file and indexes it.
// librsync's file loader sizes its block table from the file's length at
// once; fed as a stream, it would grow the table by doubling and could
// briefly hold three times the signature.
SumsetPtr load_sumset(const File& sig) {
  if (fseeko(sig.stream(), static_cast<off_t>(kSigHeaderSize), SEEK_SET) != 0) {
    throw DiffError(diff_errno_message("Cannot read the signature file"));
  }
  rs_signature_t* raw = nullptr;
  rs_result result = rs_loadsig_file(sig.stream(), &raw, nullptr);
  SumsetPtr sums(raw);
  if (result != RS_DONE) throw DiffError(std::string("Cannot load the signature: ") + rs_strerror(result));
  if (!sums || rs_build_hash_table(sums.get()) != RS_DONE) throw DiffError("Cannot index the signature");
  return sums;
}

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
  SumsetPtr sums = load_sumset(sig);
  File::open_read(input, new_file, "new file");
  Snapshot before = snapshot(input);

  OutputFile out(patch, "patch file");
  PatchHeader h{};
  uint8_t raw[kPatchHeaderSize] = {};
  out.write(raw, sizeof raw);  // rewritten at the end
  FileHasher hasher(input);
  uint64_t offset = 0;
  Source source = [&](uint8_t* buffer, size_t cap) {
    size_t got = input.read_at(buffer, cap, offset);
    offset += got;
    return got;
  };
  Sink to_file = [&](const uint8_t* data, size_t n) { out.write(data, n); };
  std::unique_ptr<ZstdWriter> zstd;
  if (level > 0) zstd = std::make_unique<ZstdWriter>(level, to_file);
  Sink sink = zstd ? Sink([&](const uint8_t* data, size_t n) { zstd->write(data, n); }) : to_file;
  JobPtr job(rs_delta_begin(sums.get()));
  if (!job) throw std::bad_alloc();
  job_run(job.get(), source, sink, "Cannot build the delta");
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
