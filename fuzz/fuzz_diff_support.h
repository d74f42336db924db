#pragma once
// Shared by the delta library's fuzz targets: a scratch directory, a fixed
// base file and its SHA-1, and wide names.
#include <stdlib.h>
#include <unistd.h>
#include <zel/diff.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace fuzzdiff {

inline std::u16string wide(const std::string& ascii) { return std::u16string(ascii.begin(), ascii.end()); }

struct Scratch {
  std::string dir;
  std::string base_sha1;
  std::string path(const char* name) const { return dir + "/" + name; }
};

// The base every input is compared with or applied to: 5000 bytes from a
// fixed generator, so seeds made from it stay valid.
inline const Scratch& scratch() {
  static Scratch s = [] {
    Scratch made;
    char pattern[] = "/tmp/zel-fuzz-diff-XXXXXX";
    if (mkdtemp(pattern) == nullptr) abort();
    made.dir = pattern;
    FILE* f = std::fopen(made.path("base").c_str(), "wb");
    uint32_t x = 12345;
    for (int i = 0; i < 5000; ++i) {
      x = x * 1103515245u + 12345u;
      std::fputc(static_cast<int>(x >> 16) & 0xFF, f);
    }
    std::fclose(f);
    char* hex = file_sha1(wide(made.path("base")).c_str());
    if (hex == nullptr) abort();
    made.base_sha1 = hex;
    std::free(hex);
    return made;
  }();
  return s;
}

inline void write_file(const std::string& path, const uint8_t* data, size_t size) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr || std::fwrite(data, 1, size, f) != size) abort();
  std::fclose(f);
}

}  // namespace fuzzdiff
