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

FILE* file_open(const char16_t* path, const char* mode) {
  char* name = wide_to_utf8(path);
  if (name == nullptr) {
    errno = path == nullptr ? EINVAL : (errno == ENOMEM ? ENOMEM : EINVAL);
    return nullptr;
  }
  FILE* file = std::fopen(name, mode);
  int saved = errno;
  mem_free(name);
  errno = saved;
  return file;
}

int file_open_descriptor(const char16_t* path, int flags) {
  char* name = wide_to_utf8(path);
  if (name == nullptr) {
    errno = path == nullptr ? EINVAL : (errno == ENOMEM ? ENOMEM : EINVAL);
    return -1;
  }
  int fd = ::open(name, flags | O_CLOEXEC);
  int saved = errno;
  mem_free(name);
  errno = saved;
  return fd;
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
