#include "digest.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <vector>

namespace zelsrv {

Sha1::Sha1() : ctx_(EVP_MD_CTX_new()) { EVP_DigestInit_ex(ctx_, EVP_sha1(), nullptr); }

Sha1::~Sha1() { EVP_MD_CTX_free(ctx_); }

void Sha1::update(const void* data, size_t len) { EVP_DigestUpdate(ctx_, data, len); }

std::string Sha1::hex() {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EVP_DigestFinal_ex(ctx_, md, &len);
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  for (unsigned int i = 0; i < len; ++i) {
    out += kHex[md[i] >> 4];
    out += kHex[md[i] & 15];
  }
  return out;
}

bool sha1_file(int fd, std::string& hex) {
  Sha1 sha;
  std::vector<char> buf(1 << 20);
  off_t off = 0;
  for (;;) {
    ssize_t n = pread(fd, buf.data(), buf.size(), off);
    if (n < 0) return false;
    if (n == 0) break;
    sha.update(buf.data(), static_cast<size_t>(n));
    off += n;
  }
  hex = sha.hex();
  return true;
}

}  // namespace zelsrv
