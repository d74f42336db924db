/*
 * zel delta library: signatures, matches, patches and SHA-1 of local files.
 *
 * Conventions of this interface:
 *  1. Paths are UTF-16 `char16_t` strings on every platform.
 *  2. Functions returning int32_t return a negative value on failure and 0 or
 *     more on success.
 *  3. Functions taking `char** err_msg` expect the address of a pointer the
 *     caller has set to NULL. They may store an allocated message there, on
 *     failure and sometimes on success; release it with free_err_msg().
 *  4. Texts returned by file_sha1() are released with free().
 *  5. No function throws or lets an exception out; every function may be
 *     called from several threads at once on different files.
 *  6. Every file the library writes (signature, patch, result) is first
 *     written to a temporary file beside it and renamed over the path only
 *     when complete, so a failure leaves the path as it was. `temp_dir` is
 *     accepted for callers that pass one; no file is written there.
 *  7. Signature file: 4 bytes of magic and version, the raw 20-byte SHA-1 of
 *     the signed file at offset 4, its size, then a rolling and a strong sum
 *     per block. Patch file: magic and version, the SHA-1 and size of the base
 *     and of the new file, then the delta stream (zstd-compressed or not).
 *     Both are checked fully before use; a damaged or crafted file gives a
 *     negative result and a message, never a wrong output.
 */
#ifndef ZEL_DIFF_H
#define ZEL_DIFF_H

#include <stdint.h>
#ifndef __cplusplus
#include <uchar.h>
#endif

#if defined(_WIN32)
#if defined(ZEL_BUILDING_DIFF)
#define DIFF_EXPORT __declspec(dllexport)
#else
#define DIFF_EXPORT
#endif
#else
#define DIFF_EXPORT __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* One base file of diff_apply_patch(): its path, the SHA-1 of its content as
 * 40 lowercase hexadecimal digits, and the next entry (NULL at the end).
 * Callers may build such a chain themselves. */
typedef struct DiffFileEntry {
  char16_t* path;
  char* sha1;
  struct DiffFileEntry* next;
} DiffFileEntry;

/* A list of paths made by file_list_init() and file_list_append(). An empty
 * list is a valid, non-NULL object. */
typedef struct DiffFileList DiffFileList;

/* Writes the signature of `file` to `signature`. `block_size`: bytes per
 * block, 256 to 1048576 (2048 is the system's choice). `format`: signature
 * format version, only 1 exists. `process_type`: the service's job class; it
 * does not change the signature, so both sides compute identical ones.
 * Returns 0, or negative with a message. */
DIFF_EXPORT int32_t diff_create_signature(const char16_t* file, const char16_t* signature,
                                          const char16_t* temp_dir, uint32_t block_size, int32_t format,
                                          int32_t process_type, char** err_msg);

/* Compares `file` with the file behind `signature`: counts the bytes of
 * `file` that no block of the signature covers. Returns 0 as soon as that
 * count exceeds `ratio` (0.0 to 1.0) times the size of `file`, 1 when the
 * whole file stays within it, negative on failure (unreadable or damaged
 * signature, unreadable file, ratio out of range). Two empty files match. */
DIFF_EXPORT int32_t diff_file_match(const char16_t* signature, const char16_t* file, const char16_t* temp_dir,
                                    double ratio);

/* A new, empty list; NULL only when memory runs out. */
DIFF_EXPORT DiffFileList* file_list_init(void);
/* Adds a copy of `path` and returns the list to continue with. On failure
 * (NULL list or path, no memory) returns NULL and `list` stays valid and
 * owned by the caller. */
DIFF_EXPORT DiffFileList* file_list_append(DiffFileList* list, const char16_t* path);
/* Releases the list and its paths; NULL is ignored. */
DIFF_EXPORT void file_list_cleanup(DiffFileList* list);

/* Writes to `patch` the patch that turns the base described by the one
 * signature file in `bases` into `new_file` (a list with another count is
 * refused). The constant arguments:
 *   format   patch format version; only 1 exists.
 *   flags    0; no flag is defined yet, any other value is refused.
 *   level    zstd level (1 to 19) of the delta stream; 0 stores it
 *            uncompressed. Literal data of compressible files shrinks.
 *   verify   1: refuse the patch when `new_file` changes (size or
 *            modification time) while it is read; 0: do not check.
 * The header records the base's SHA-1 and size from the signature and the
 * SHA-1 and size of the bytes actually read from `new_file`.
 * Returns 0, or negative with a message. */
DIFF_EXPORT int32_t diff_create_patch(const char16_t* new_file, DiffFileList* bases, const char16_t* patch,
                                      const char16_t* temp_dir, int32_t format, int32_t flags, int32_t level,
                                      int32_t verify, char** err_msg);

/* Applies `patch` to the one base in `*bases` and writes `result`. The entry's
 * SHA-1 text must equal the base SHA-1 of the patch and the base file must
 * have the patch's base size. The result is written to a temporary file
 * beside `result`; its size and SHA-1 are checked against the patch, and only
 * then is it renamed over `result`, so no file built from a wrong base or a
 * damaged patch is ever accepted. When that check fails the base is hashed
 * to report which of the two it was. On any failure `result` is left as it
 * was.
 * `apply_mode` is a set of bits:
 *   1  give the result the permission bits of the base file (otherwise the
 *      process's defaults for a new file);
 *   2  flush the result to stable storage before the rename, and the
 *      directory's new entry after it.
 * Other bits are refused. Returns 0, or negative with a message. */
DIFF_EXPORT int32_t diff_apply_patch(const char16_t* result, const char16_t* patch, DiffFileEntry** bases,
                                     const char16_t* temp_dir, int32_t apply_mode, char** err_msg);

/* The SHA-1 of the file's content as 40 lowercase hexadecimal digits, or NULL
 * when the file cannot be read or memory runs out. Release with free(). */
DIFF_EXPORT char* file_sha1(const char16_t* path);

/* Releases *err_msg and sets it to NULL; NULL or a NULL message is ignored. */
DIFF_EXPORT void free_err_msg(char** err_msg);

#ifdef __cplusplus
}
#endif

#endif
