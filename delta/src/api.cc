// The exported functions: argument checks, then the work inside diff_guard.
#include <cstdlib>

#include "alloc.h"
#include "diff.h"
#include "patch.h"
#include "signature.h"
#include "util.h"

struct DiffFileList {
  size_t count;
  DiffFileEntry* head;
  DiffFileEntry* tail;
};

namespace {

using zeldiff::DiffError;

constexpr int32_t kSignatureFormat = 1;
constexpr int32_t kPatchFormat = 1;
constexpr int32_t kMaxLevel = 19;

}  // namespace

extern "C" {

DIFF_EXPORT int32_t diff_create_signature(const char16_t* file, const char16_t* signature,
                                          const char16_t* /*temp_dir*/, uint32_t block_size, int32_t format,
                                          int32_t /*process_type*/, char** err_msg) {
  return zeldiff::diff_guard(err_msg, [&] {
    if (file == nullptr || signature == nullptr) throw DiffError("A path is missing");
    if (format != kSignatureFormat) throw DiffError("Unsupported signature format");
    zeldiff::signature_create(file, signature, block_size);
    return 0;
  });
}

DIFF_EXPORT DiffFileList* file_list_init(void) {
  return static_cast<DiffFileList*>(mem_calloc(1, sizeof(DiffFileList)));
}

DIFF_EXPORT DiffFileList* file_list_append(DiffFileList* list, const char16_t* path) {
  if (list == nullptr || path == nullptr) return nullptr;
  DiffFileEntry* entry = static_cast<DiffFileEntry*>(mem_calloc(1, sizeof(DiffFileEntry)));
  if (entry == nullptr) return nullptr;
  entry->path = wide_dup(path);
  if (entry->path == nullptr) {
    mem_free(entry);
    return nullptr;
  }
  if (list->tail != nullptr) {
    list->tail->next = entry;
  } else {
    list->head = entry;
  }
  list->tail = entry;
  ++list->count;
  return list;
}

DIFF_EXPORT void file_list_cleanup(DiffFileList* list) {
  if (list == nullptr) return;
  for (DiffFileEntry* entry = list->head; entry != nullptr;) {
    DiffFileEntry* next = entry->next;
    mem_free(entry->path);
    mem_free(entry->sha1);
    mem_free(entry);
    entry = next;
  }
  mem_free(list);
}

DIFF_EXPORT int32_t diff_create_patch(const char16_t* new_file, DiffFileList* bases, const char16_t* patch,
                                      const char16_t* /*temp_dir*/, int32_t format, int32_t flags,
                                      int32_t level, int32_t verify, char** err_msg) {
  return zeldiff::diff_guard(err_msg, [&] {
    if (new_file == nullptr || patch == nullptr) throw DiffError("A path is missing");
    if (bases == nullptr || bases->count == 0) throw DiffError("The base list is empty");
    if (bases->count > 1) throw DiffError("Only one base file is supported");
    if (format != kPatchFormat) throw DiffError("Unsupported patch format");
    if (flags != 0) throw DiffError("Unknown patch flags");
    if (level < 0 || level > kMaxLevel) throw DiffError("The compression level must be 0 to 19");
    if (verify != 0 && verify != 1) throw DiffError("The verify value must be 0 or 1");
    zeldiff::patch_create(new_file, bases->head->path, patch, level, verify == 1);
    return 0;
  });
}

DIFF_EXPORT int32_t diff_apply_patch(const char16_t* result, const char16_t* patch, DiffFileEntry** bases,
                                     const char16_t* /*temp_dir*/, int32_t apply_mode, char** err_msg) {
  return zeldiff::diff_guard(err_msg, [&] {
    if (result == nullptr || patch == nullptr) throw DiffError("A path is missing");
    if (bases == nullptr) throw DiffError("The base list is empty");
    zeldiff::patch_apply(result, patch, *bases, apply_mode);
    return 0;
  });
}

DIFF_EXPORT char* file_sha1(const char16_t* path) {
  char* hex = nullptr;
  zeldiff::diff_guard(nullptr, [&] {
    if (path == nullptr) return -1;
    zeldiff::File file;
    zeldiff::File::open_read(file, path, "file");
    uint8_t digest[zeldiff::kSha1Size];
    zeldiff::sha1_of_file(file, digest);
    hex = static_cast<char*>(mem_malloc(2 * zeldiff::kSha1Size + 1));
    if (hex != nullptr) zeldiff::sha1_to_hex(digest, hex);
    return 0;
  });
  return hex;
}

DIFF_EXPORT void free_err_msg(char** err_msg) {
  if (err_msg == nullptr) return;
  mem_free(*err_msg);
  *err_msg = nullptr;
}

}  // extern "C"
