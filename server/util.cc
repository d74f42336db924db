#include "util.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <random>

namespace zelsrv {
namespace {

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool parse_u64(const std::string& s, uint64_t& v) {
  if (s.empty() || s.size() > 20) return false;
  v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
    uint64_t d = static_cast<uint64_t>(c - '0');
    if (v > (UINT64_MAX - d) / 10) return false;
    v = v * 10 + d;
  }
  return true;
}

std::string trim(const std::string& s) {
  size_t b = s.find_first_not_of(' ');
  if (b == std::string::npos) return std::string();
  return s.substr(b, s.find_last_not_of(' ') - b + 1);
}

}  // namespace

bool percent_decode(const std::string& in, std::string& out) {
  out.clear();
  out.reserve(in.size());
  for (size_t i = 0; i < in.size(); ++i) {
    if (in[i] != '%') {
      out += in[i];
      continue;
    }
    if (i + 2 >= in.size()) return false;
    int hi = hex_value(in[i + 1]), lo = hex_value(in[i + 2]);
    if (hi < 0 || lo < 0) return false;
    out += static_cast<char>(hi * 16 + lo);
    i += 2;
  }
  return true;
}

std::string percent_encode(const std::string& in) {
  static const char kHex[] = "0123456789ABCDEF";
  // A segment of dots alone would read as a path step: escape them.
  if (in.find_first_not_of('.') == std::string::npos) {
    std::string dots;
    for (size_t i = 0; i < in.size(); ++i) dots += "%2E";
    return dots;
  }
  std::string out;
  for (unsigned char c : in) {
    if (isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

bool valid_utf8(const std::string& s) {
  size_t i = 0;
  while (i < s.size()) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    size_t n = c < 0x80 ? 0 : (c >> 5) == 6 ? 1 : (c >> 4) == 14 ? 2 : (c >> 3) == 30 ? 3 : 9;
    if (n == 9 || i + n >= s.size()) return false;
    uint32_t cp = n == 0 ? c : c & (0x3f >> n);
    for (size_t k = 1; k <= n; ++k) {
      unsigned char cc = static_cast<unsigned char>(s[i + k]);
      if ((cc >> 6) != 2) return false;
      cp = (cp << 6) | (cc & 0x3f);
    }
    static const uint32_t kMin[] = {0, 0x80, 0x800, 0x10000};
    if (cp < kMin[n] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) return false;
    i += n + 1;
  }
  return true;
}

int64_t now_ms() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

std::string random_hex_id() {
  static thread_local std::random_device rd;
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  for (int i = 0; i < 4; ++i) {
    uint32_t v = rd();
    for (int k = 0; k < 8; ++k, v >>= 4) out += kHex[v & 15];
  }
  return out;
}

bool parse_content_range(const std::string& value, ByteSpan& span, uint64_t& total) {
  std::string v = trim(value);
  if (v.compare(0, 6, "bytes ") != 0) return false;
  size_t dash = v.find('-', 6), slash = v.find('/', 6);
  if (dash == std::string::npos || slash == std::string::npos || slash < dash) return false;
  if (!parse_u64(v.substr(6, dash - 6), span.start) ||
      !parse_u64(v.substr(dash + 1, slash - dash - 1), span.end) || !parse_u64(v.substr(slash + 1), total))
    return false;
  if (total == 0) return true;
  return span.start <= span.end && span.end < total;
}

RangeResult parse_range(const std::string& value, uint64_t size, ByteSpan& span) {
  std::string v = trim(value);
  if (v.empty()) return RangeResult::kNone;
  if (v.compare(0, 6, "bytes=") != 0 || v.find(',') != std::string::npos) return RangeResult::kInvalid;
  size_t dash = v.find('-', 6);
  if (dash == std::string::npos) return RangeResult::kInvalid;
  std::string a = trim(v.substr(6, dash - 6)), b = trim(v.substr(dash + 1));
  uint64_t first = 0, last = 0;
  if (a.empty()) {  // the last `b` bytes
    if (!parse_u64(b, last)) return RangeResult::kInvalid;
    if (last == 0 || size == 0) return RangeResult::kUnsatisfiable;
    span.start = last >= size ? 0 : size - last;
    span.end = size - 1;
    return RangeResult::kOk;
  }
  if (!parse_u64(a, first) || (!b.empty() && !parse_u64(b, last))) return RangeResult::kInvalid;
  if (!b.empty() && last < first) return RangeResult::kInvalid;
  if (first >= size) return RangeResult::kUnsatisfiable;
  span.start = first;
  span.end = (b.empty() || last >= size) ? size - 1 : last;
  return RangeResult::kOk;
}

std::string format_ranges(const std::vector<ByteSpan>& spans) {
  std::string out = "bytes=";
  for (size_t i = 0; i < spans.size(); ++i) {
    if (i) out += ',';
    out += std::to_string(spans[i].start) + "-" + std::to_string(spans[i].end);
  }
  return out;
}

void remove_tree(const std::string& path) {
  DIR* d = opendir(path.c_str());
  if (d) {
    while (dirent* e = readdir(d)) {
      if (!strcmp(e->d_name, ".") || !strcmp(e->d_name, "..")) continue;
      std::string child = path + "/" + e->d_name;
      struct stat st;
      if (lstat(child.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        remove_tree(child);
      else
        unlink(child.c_str());
    }
    closedir(d);
  }
  rmdir(path.c_str());
}

bool make_dirs(const std::string& path) {
  std::string cur;
  for (size_t i = 0; i <= path.size(); ++i) {
    if (i == path.size() || (path[i] == '/' && i > 0)) {
      cur = path.substr(0, i);
      if (mkdir(cur.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
  }
  return true;
}

void sync_dir(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd < 0) return;
  fsync(fd);
  close(fd);
}

void StopFlag::raise() {
  std::lock_guard<std::mutex> lock(mu_);
  raised_ = true;
  cv_.notify_all();
}

bool StopFlag::raised() {
  std::lock_guard<std::mutex> lock(mu_);
  return raised_;
}

bool StopFlag::sleep_ms(int64_t ms) {
  std::unique_lock<std::mutex> lock(mu_);
  return !cv_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return raised_; });
}

}  // namespace zelsrv
