#include "util.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "alloc.h"

char* strndup_bounded(const char* text, size_t n) {
  if (text == nullptr) return nullptr;
  size_t length = strnlen(text, n);
  char* copy = static_cast<char*>(mem_calloc(length + 1, 1));
  if (copy != nullptr) std::memcpy(copy, text, length);
  return copy;
}

char* str_split(char** cursor, const char* separators) {
  if (cursor == nullptr || *cursor == nullptr) return nullptr;
  char* token = *cursor;
  if (separators == nullptr || *separators == '\0') {
    *cursor = nullptr;
    return token;
  }
  char* found = std::strpbrk(token, separators);
  if (found == nullptr) {
    *cursor = nullptr;
  } else {
    *found = '\0';
    *cursor = found + 1;
  }
  return token;
}

namespace {
// Runs `call` on the UTF-8 form of a wide path and keeps the errno it left;
// `failed` with errno EINVAL (ENOMEM when memory ran out) when the path
// does not convert.
template <class Result, class Call>
Result on_native_name(const char16_t* path, Result failed, Call call) {
  char* name = wide_to_utf8(path);
  if (name == nullptr) {
    errno = path == nullptr ? EINVAL : (errno == ENOMEM ? ENOMEM : EINVAL);
    return failed;
  }
  Result result = call(name);
  int saved = errno;
  mem_free(name);
  errno = saved;
  return result;
}
}  // namespace

FILE* file_open(const char16_t* path, const char* mode) {
  return on_native_name(path, static_cast<FILE*>(nullptr),
                        [mode](const char* name) { return std::fopen(name, mode); });
}

int file_open_descriptor(const char16_t* path, int flags) {
  return on_native_name(path, -1, [flags](const char* name) { return ::open(name, flags | O_CLOEXEC); });
}

int file_remove(const char16_t* path) {
  char* name = wide_to_utf8(path);
  if (name == nullptr) {
    errno = EINVAL;
    return -1;
  }
  int result = std::remove(name);
  int saved = errno;
  mem_free(name);
  errno = saved;
  return result;
}

int file_seek64(FILE* file, int64_t offset, int origin) {
  return fseeko(file, static_cast<off_t>(offset), origin);
}

int file_size(const char16_t* path, uint64_t* size) {
  FILE* file = file_open(path, "rb");
  if (file == nullptr) return -1;
  int result = -1;
  if (fseeko(file, 0, SEEK_END) == 0) {
    off_t end = ftello(file);
    if (end >= 0 && fseeko(file, 0, SEEK_SET) == 0) {
      if (size != nullptr) *size = static_cast<uint64_t>(end);
      result = 0;
    }
  }
  int saved = errno;
  std::fclose(file);
  errno = saved;
  return result;
}
