// SHA-1 of stored bytes, as object details report it (lower-case hex).
#pragma once

#include <cstddef>
#include <string>

struct evp_md_ctx_st;

namespace zelsrv {

class Sha1 {
 public:
  Sha1();
  ~Sha1();
  Sha1(const Sha1&) = delete;
  Sha1& operator=(const Sha1&) = delete;
  void update(const void* data, size_t len);
  std::string hex();

 private:
  ::evp_md_ctx_st* ctx_;
};

// Hashes a whole file from its start; false on a read error.
bool sha1_file(int fd, std::string& hex);

}  // namespace zelsrv
