#include "signature.h"

#include <cstdio>

#include "alloc.h"
#include "log.h"
#include "util.h"

namespace {
constexpr const char* kLogTag = "src\\util";
// The digest sits after the signature's 4-byte magic and version.
constexpr long kSha1Offset = 4;
constexpr size_t kSha1Bytes = 20;

struct FileCloser {
  FILE* file;
  ~FileCloser() {
    if (file != nullptr) std::fclose(file);
  }
};
}  // namespace

char* signature_sha1(const char16_t* path) {
  if (path == nullptr) return nullptr;
  FileCloser closer{file_open(path, "rb")};
  if (closer.file == nullptr) {
    ZLOG("Cannot open the signature file");
    return nullptr;
  }
  unsigned char digest[kSha1Bytes];
  if (std::fseek(closer.file, kSha1Offset, SEEK_SET) != 0) {
    ZLOG("Cannot seek signature file");
    return nullptr;
  }
  if (std::fread(digest, 1, kSha1Bytes, closer.file) != kSha1Bytes) {
    ZLOG("Cannot get sha1 from signature file");
    return nullptr;
  }
  auto* text = static_cast<char*>(mem_calloc(2 * kSha1Bytes + 1, 1));
  if (text == nullptr) {
    ZLOG("Canot allocate memory for sha1");
    return nullptr;
  }
  for (size_t i = 0; i < kSha1Bytes; ++i) {
    if (std::snprintf(text + 2 * i, 3, "%02x", digest[i]) != 2) {
      ZLOG("Failed to read form sha1 bytes");
      mem_free(text);
      return nullptr;
    }
  }
  return text;
}
