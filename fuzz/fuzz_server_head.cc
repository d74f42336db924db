// zel-server: a raw request head as it comes off the wire, and its path.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "heads.h"
#include "router.h"
#include "util.h"
#include "wire.h"

namespace {

// A decoded segment encodes to a text that decodes back to it.
void check_segments(const std::string& path) {
  if (path.empty() || path[0] != '/') return;
  std::vector<std::string> decoded;
  if (!zelsrv::decode_segments(zelsrv::split_path(path), decoded).empty()) return;
  for (const auto& d : decoded) {
    std::string again;
    if (!zelsrv::valid_utf8(d) || !zelsrv::percent_decode(zelsrv::percent_encode(d), again) || again != d)
      __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string bytes(reinterpret_cast<const char*>(data), size);
  zelsrv::head_complete(bytes);
  size_t end = bytes.find("\r\n\r\n");
  if (end != std::string::npos) {
    zelsrv::WireRequest req;
    std::string head = zelsrv::wire_rewrite_head(bytes.substr(0, end + 4), &req);
    // The rewrite keeps every header line; the Range line only changes name.
    if (head.size() < 4 || head.compare(head.size() - 4, 4, "\r\n\r\n") != 0) __builtin_trap();
  }
  size_t sp = bytes.find(' ');
  size_t sp2 = sp == std::string::npos ? sp : bytes.find(' ', sp + 1);
  std::string target = sp2 == std::string::npos ? bytes : bytes.substr(sp + 1, sp2 - sp - 1);
  check_segments(target.substr(0, target.find('?')));
  return 0;
}
