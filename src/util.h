#pragma once
// Text and file helpers shared by every module. Results are allocated with
// mem_malloc and released with mem_free.
#include <cstddef>
#include <cstdint>
#include <cstdio>

// UTF-8 <-> UTF-16. Ill-formed input (invalid or overlong UTF-8, surrogate
// code points encoded in UTF-8, lone surrogates in UTF-16) gives nullptr: a
// bucket or object key must never be altered silently. nullptr in gives
// nullptr out.
char16_t* utf8_to_wide(const char* text);
char* wide_to_utf8(const char16_t* text);

// Length in code units of a terminated wide text; 0 for nullptr.
size_t wide_len(const char16_t* text);
// New copy of a wide text, nullptr for nullptr or when memory runs out.
char16_t* wide_dup(const char16_t* text);

// New text holding at most n bytes of `text`; nullptr for nullptr.
char* strndup_bounded(const char* text, size_t n);
// Splits the next token off *cursor at the first character of `separators`.
char* str_split(char** cursor, const char* separators);

// Opens a file by its wide name (UTF-8 on POSIX). nullptr with errno set on
// failure, EINVAL for a name that does not convert.
FILE* file_open(const char16_t* path, const char* mode);
// Opens a file by its wide name as a descriptor (open(2) flags, close on
// exec added); -1 with errno set on failure, EINVAL for a name that does not
// convert.
int file_open_descriptor(const char16_t* path, int flags);
// Size of the file named by `path`; 0 on success, -1 on failure.
int file_size(const char16_t* path, uint64_t* size);
// Removes the file named by a wide path; 0, or -1 with errno set.
int file_remove(const char16_t* path);
// Standard-library stream functions with the shapes of ZELStream.
int file_seek64(FILE* file, int64_t offset, int origin);
