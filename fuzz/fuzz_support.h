#pragma once
// Shared by the fuzz targets: a quiet log and a terminated copy of the input.
#include <zel/zel.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzz {

inline void quiet(const char*) {}

// The parsers read terminated texts, as the transport hands them over.
inline std::string text(const uint8_t* data, size_t size) {
  return std::string(reinterpret_cast<const char*>(data), size);
}

}  // namespace fuzz

// Every rejected input logs a line; silence them so the runs stay readable.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  zel_logger_init(fuzz::quiet);
  return 0;
}
