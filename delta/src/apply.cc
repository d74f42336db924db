// Patch application: the base is hashed on a second thread while librsync's
// patch job rebuilds the new file into a temporary file; the result replaces
// the target only when the base, the output's size and its SHA-1 all agree
// with the patch.
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>
#include <vector>

#include "job.h"
#include "patch.h"

namespace zeldiff {
namespace {

constexpr int32_t kKeepMode = 1;
constexpr int32_t kSync = 2;

// Where the patch job reads the base; failures are kept here because
// librsync cannot carry an exception.
struct BaseReader {
  const File* file;
  uint64_t size;
  std::exception_ptr error;
};

rs_result copy_from_base(void* opaque, rs_long_t pos, size_t* len, void** buf) {
  BaseReader* base = static_cast<BaseReader*>(opaque);
  if (pos < 0 || static_cast<uint64_t>(pos) >= base->size) return RS_CORRUPT;
  *len = static_cast<size_t>(std::min<uint64_t>(*len, base->size - static_cast<uint64_t>(pos)));
  try {
    if (base->file->read_at(*buf, *len, static_cast<uint64_t>(pos)) != *len) return RS_IO_ERROR;
  } catch (...) {
    base->error = std::current_exception();
    return RS_IO_ERROR;
  }
  return RS_DONE;
}

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

// Runs the patch job from `patch` (after its header) into `sink`.
void run_patch(const File& patch, const PatchHeader& h, BaseReader& base, const Sink& sink) {
  uint64_t offset = kPatchHeaderSize;
  Source raw = [&](uint8_t* buffer, size_t cap) {
    size_t got = patch.read_at(buffer, cap, offset);
    offset += got;
    return got;
  };
  std::unique_ptr<ZstdReader> zstd;
  if (h.flags & kPatchZstd) zstd = std::make_unique<ZstdReader>(raw);
  Source source = zstd ? Source([&](uint8_t* buffer, size_t cap) { return zstd->read(buffer, cap); }) : raw;
  JobPtr job(rs_patch_begin(copy_from_base, &base));
  if (!job) throw std::bad_alloc();
  try {
    job_run(job.get(), source, sink, "The patch is damaged");
  } catch (...) {
    if (base.error) std::rethrow_exception(base.error);
    throw;
  }
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
  HashPipe sha;
  uint64_t written = 0;
  Sink sink = [&](const uint8_t* data, size_t n) {
    if (n > h.new_size - written) throw DiffError("The patch is damaged: it builds more data than it states");
    written += n;
    sha.push(data, n);
    out.write(data, n);
  };
  BaseReader base{&base_file, h.base_size, nullptr};
  run_patch(patch, h, base, sink);
  uint8_t digest[kSha1Size];
  sha.finish(digest);
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
