// Patch application: the delta stream rebuilds the new file into a
// temporary file while a second thread hashes it; the result replaces the
// target only when the base, the output's size and its SHA-1 all agree with
// the patch.
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>
#include <vector>

#include "delta_stream.h"
#include "patch.h"

namespace zeldiff {
namespace {

constexpr int32_t kKeepMode = 1;
constexpr int32_t kSync = 2;

PatchHeader read_header(const File& patch) {
  uint8_t raw[kPatchHeaderSize];
  patch.read_exact(raw, sizeof raw, 0);
  return patch_header_decode(raw);
}

void check_entry(const DiffFileEntry* entry, const PatchHeader& h, uint8_t sha1[kSha1Size]) {
  if (entry == nullptr) throw DiffError("The base list is empty");
  if (entry->next != nullptr) throw DiffError("Only one base file is supported");
  if (entry->path == nullptr) throw DiffError("The base entry has no path");
  if (!sha1_from_hex(entry->sha1, sha1))
    throw DiffError("The base entry's SHA-1 is not 40 hexadecimal digits");
  if (std::memcmp(sha1, h.base_sha1, kSha1Size) != 0) {
    throw DiffError("The patch was not made from the given base file");
  }
}

// Runs the delta stream of `patch` (after its header) into `out`.
void run_patch(const File& patch, const PatchHeader& h, const File& base, ResultWriter& out) {
  uint64_t offset = kPatchHeaderSize;
  Source raw = [&](uint8_t* buffer, size_t cap) {
    size_t got = patch.read_at(buffer, cap, offset);
    offset += got;
    return got;
  };
  std::unique_ptr<ZstdReader> zstd;
  if (h.flags & kPatchZstd) zstd = std::make_unique<ZstdReader>(raw);
  Source source = zstd ? Source([&](uint8_t* buffer, size_t cap) { return zstd->read(buffer, cap); }) : raw;
  delta_decode(source, base, h.base_size, h.new_size, out);
}

}  // namespace

void patch_apply(const char16_t* result, const char16_t* patch_path, const DiffFileEntry* entry,
                 int32_t mode) {
  if ((mode & ~(kKeepMode | kSync)) != 0) throw DiffError("Unknown apply mode");
  File patch, base_file;
  File::open_read(patch, patch_path, "patch file");
  PatchHeader h = read_header(patch);
  uint8_t entry_sha1[kSha1Size];
  check_entry(entry, h, entry_sha1);
  File::open_read(base_file, entry->path, "base file");
  if (base_file.size() != h.base_size) throw DiffError("The base file's size differs from the patch's base");

  OutputFile out(result, "result file");
  ResultWriter writer(out, h.new_size, (mode & kSync) != 0);
  run_patch(patch, h, base_file, writer);
  uint8_t digest[kSha1Size];
  writer.finish(digest);
  uint64_t written = writer.written();
  if (written != h.new_size || std::memcmp(digest, h.new_sha1, kSha1Size) != 0) {
    // Only now is the base hashed: a result that verifies cannot come from a
    // wrong base, and a failure is worth the time to name its cause.
    sha1_of_file(base_file, digest);
    if (std::memcmp(digest, entry_sha1, kSha1Size) != 0) {
      throw DiffError("The base file's content does not match its SHA-1");
    }
    throw DiffError("The patch is damaged: the result does not match its SHA-1");
  }
  int perms = -1;
  struct stat st;
  if (mode & kKeepMode) {
    if (fstat(base_file.fd(), &st) != 0)
      throw DiffError(diff_errno_message("Cannot read the base file's permissions"));
    perms = static_cast<int>(st.st_mode & 07777);
  }
  out.commit((mode & kSync) != 0, perms);
}

}  // namespace zeldiff
