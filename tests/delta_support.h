#pragma once
// Scratch files for the delta library's tests: a temporary directory,
// generated contents, wide names and an independent SHA-1.
#include <gtest/gtest.h>
#include <openssl/sha.h>
#include <unistd.h>
#include <zel/diff.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "alloc.h"
#include "util.h"
#include "zel_server.h"

namespace zeltest {

using Bytes = std::vector<unsigned char>;

inline std::u16string wide(const std::string& path) {
  char16_t* text = utf8_to_wide(path.c_str());
  std::u16string copy = text != nullptr ? text : u"";
  mem_free(text);
  return copy;
}

inline Bytes random_bytes(size_t n, uint64_t seed) {
  std::mt19937_64 rng(seed);
  Bytes out(n);
  for (size_t i = 0; i < n; i += 8) {
    uint64_t v = rng();
    for (size_t k = 0; k < 8 && i + k < n; ++k) out[i + k] = static_cast<unsigned char>(v >> (8 * k));
  }
  return out;
}

inline std::string sha1_hex(const Bytes& data) {
  unsigned char digest[SHA_DIGEST_LENGTH];
  SHA1(data.data(), data.size(), digest);
  char hex[41];
  for (int i = 0; i < 20; ++i) std::snprintf(hex + 2 * i, 3, "%02x", digest[i]);
  return hex;
}

inline std::string to_hex(const unsigned char* raw, size_t n) {
  std::string hex;
  char two[3];
  for (size_t i = 0; i < n; ++i) std::snprintf(two, sizeof two, "%02x", raw[i]), hex += two;
  return hex;
}

// A fresh directory per test, removed with everything in it.
class DeltaTest : public ::testing::Test {
 protected:
  std::string path(const std::string& name) const { return scratch_.file(name); }
  void write(const std::string& name, const Bytes& data) const {
    std::ofstream out(path(name), std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
    ASSERT_TRUE(out.good()) << name;
  }
  Bytes read(const std::string& name) const {
    std::ifstream in(path(name), std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  bool exists(const std::string& name) const { return access(path(name).c_str(), F_OK) == 0; }
  // Names in the directory, to prove no temporary file was left behind.
  std::vector<std::string> listing() const { return dir_entries(scratch_.file("")); }

  int32_t signature(const std::string& base, const std::string& sig, std::string* message = nullptr) {
    char* err = nullptr;
    int32_t r =
        diff_create_signature(wide(path(base)).c_str(), wide(path(sig)).c_str(), nullptr, 2048, 1, 0, &err);
    return take(r, err, message);
  }
  int32_t patch(const std::string& sig, const std::string& updated, const std::string& out, int level = 6,
                std::string* message = nullptr) {
    DiffFileList* list = file_list_init();
    DiffFileList* bases = list != nullptr ? file_list_append(list, wide(path(sig)).c_str()) : nullptr;
    char* err = nullptr;
    int32_t r = diff_create_patch(wide(path(updated)).c_str(), bases, wide(path(out)).c_str(), nullptr, 1, 0,
                                  level, 1, &err);
    file_list_cleanup(list);
    return take(r, err, message);
  }
  int32_t apply(const std::string& base, const std::string& sha1, const std::string& patch_name,
                const std::string& out, int32_t mode = 0, std::string* message = nullptr) {
    std::u16string base_path = wide(path(base));
    std::string sha = sha1;
    DiffFileEntry entry{&base_path[0], &sha[0], nullptr};
    DiffFileEntry* head = &entry;
    char* err = nullptr;
    int32_t r =
        diff_apply_patch(wide(path(out)).c_str(), wide(path(patch_name)).c_str(), &head, nullptr, mode, &err);
    return take(r, err, message);
  }
  int32_t match(const std::string& sig, const std::string& file, double ratio) {
    return diff_file_match(wide(path(sig)).c_str(), wide(path(file)).c_str(), nullptr, ratio);
  }

  // A failure must come with a message; success may come with one.
  static int32_t take(int32_t result, char* err, std::string* message) {
    if (result < 0) {
      EXPECT_NE(err, nullptr) << "failure without a message";
    }
    if (message != nullptr) *message = err != nullptr ? err : "";
    free_err_msg(&err);
    EXPECT_EQ(err, nullptr);
    return result;
  }

  ScratchDir scratch_;
};

}  // namespace zeltest
