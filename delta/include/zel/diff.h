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

DIFF_EXPORT int32_t diff_create_signature(const char16_t* file, const char16_t* signature,
                                          const char16_t* temp_dir, uint32_t block_size,
                                          int32_t format, int32_t process_type, char** err_msg);

DIFF_EXPORT int32_t diff_file_match(const char16_t* signature, const char16_t* file,
                                    const char16_t* temp_dir, double ratio);

DIFF_EXPORT DiffFileList* file_list_init(void);
DIFF_EXPORT DiffFileList* file_list_append(DiffFileList* list, const char16_t* path);
DIFF_EXPORT void file_list_cleanup(DiffFileList* list);

DIFF_EXPORT int32_t diff_create_patch(const char16_t* new_file, DiffFileList* bases,
                                      const char16_t* patch, const char16_t* temp_dir,
                                      int32_t format, int32_t flags, int32_t level,
                                      int32_t verify, char** err_msg);

DIFF_EXPORT int32_t diff_apply_patch(const char16_t* result, const char16_t* patch,
                                     DiffFileEntry** bases, const char16_t* temp_dir,
                                     int32_t apply_mode, char** err_msg);

DIFF_EXPORT char* file_sha1(const char16_t* path);

DIFF_EXPORT void free_err_msg(char** err_msg);

#ifdef __cplusplus
}
#endif

#endif
