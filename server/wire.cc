#include "wire.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace zelsrv {
namespace {

constexpr size_t kBufSize = 256 * 1024;
constexpr size_t kMaxHead = 64 * 1024;
constexpr int kReadTimeoutMs = 60 * 1000;
constexpr int kWriteTimeoutMs = 60 * 1000;

// cpp-httplib acts on a Range header by itself (it slices bodies and answers
// 416 on its own terms). Renaming the line before it parses the request leaves
// ranges to the emulator, which reads the original from wire_request().
const char kHiddenRange[] = "X-Zel-Wire-Range";

struct FileWindow {
  uintptr_t base = 0;
  size_t len = 0;
  int fd = -1;
  off_t offset = 0;
};

thread_local WireRequest *t_request = nullptr;
thread_local FileWindow t_window;
thread_local bool t_close = false;
const WireRequest kNoRequest;

std::string trim(const std::string &s) {
  size_t b = s.find_first_not_of(" \t");
  if (b == std::string::npos) return std::string();
  size_t e = s.find_last_not_of(" \t");
  return s.substr(b, e - b + 1);
}

// Records the header lines of `head` into `req` and returns the block that
// cpp-httplib gets to parse.
std::string rewrite_head(const std::string &head, WireRequest *req) {
  size_t p = head.find("\r\n");
  std::string out = head.substr(0, p + 2);
  p += 2;
  while (p < head.size()) {
    size_t e = head.find("\r\n", p);
    if (e == std::string::npos || e == p) break;
    std::string line = head.substr(p, e - p);
    size_t colon = line.find(':');
    if (colon != std::string::npos) {
      std::string name = line.substr(0, colon);
      req->headers.emplace_back(name, trim(line.substr(colon + 1)));
      if (strcasecmp(name.c_str(), "Range") == 0) line = kHiddenRange + line.substr(colon);
    }
    out += line;
    out += "\r\n";
    p = e + 2;
  }
  out += "\r\n";
  return out;
}

bool poll_fd(int fd, short events, int timeout_ms) {
  pollfd pfd{fd, events, 0};
  for (;;) {
    int r = ::poll(&pfd, 1, timeout_ms);
    if (r < 0 && errno == EINTR) continue;
    return r > 0;
  }
}

class WireStream final : public httplib::Stream {
 public:
  explicit WireStream(int fd) : fd_(fd), buf_(kBufSize) {}

  bool is_readable() const override { return buffered() || poll_fd(fd_, POLLIN, kReadTimeoutMs); }
  bool is_writable() const override { return poll_fd(fd_, POLLOUT, kWriteTimeoutMs); }
  ssize_t read(char *ptr, size_t size) override;
  ssize_t write(const char *ptr, size_t size) override;
  void get_remote_ip_and_port(std::string &ip, int &port) const override { address(true, ip, port); }
  void get_local_ip_and_port(std::string &ip, int &port) const override { address(false, ip, port); }
  socket_t socket() const override { return fd_; }

  // Waits for the first byte of another request on a kept-alive connection.
  template <class Stop>
  bool wait_request(time_t timeout_sec, Stop stop) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_sec);
    while (!buffered()) {
      if (stop() || std::chrono::steady_clock::now() >= deadline) return false;
      if (poll_fd(fd_, POLLIN, 100)) return true;
    }
    return true;
  }

  void begin_request(WireRequest *req) {
    req_ = req;
    state_ = State::kNeedHead;
    head_.clear();
    head_pos_ = 0;
  }

 private:
  enum class State { kNeedHead, kHead, kBody };

  bool buffered() const { return pos_ < end_ || head_pos_ < head_.size(); }
  bool fill();
  bool load_head();
  ssize_t recv_some(char *ptr, size_t size);
  void address(bool peer, std::string &ip, int &port) const;

  int fd_;
  std::vector<char> buf_;
  size_t pos_ = 0, end_ = 0;
  State state_ = State::kBody;
  std::string head_;
  size_t head_pos_ = 0;
  WireRequest *req_ = nullptr;
};

ssize_t WireStream::recv_some(char *ptr, size_t size) {
  if (!poll_fd(fd_, POLLIN, kReadTimeoutMs)) return -1;
  for (;;) {
    ssize_t n = ::recv(fd_, ptr, size, 0);
    if (n < 0 && errno == EINTR) continue;
    return n;
  }
}

bool WireStream::fill() {
  if (pos_ == end_) pos_ = end_ = 0;
  if (end_ == buf_.size()) {
    std::memmove(buf_.data(), buf_.data() + pos_, end_ - pos_);
    end_ -= pos_;
    pos_ = 0;
  }
  ssize_t n = recv_some(buf_.data() + end_, buf_.size() - end_);
  if (n <= 0) return false;
  end_ += static_cast<size_t>(n);
  return true;
}

bool WireStream::load_head() {
  static const char kEnd[] = "\r\n\r\n";
  for (;;) {
    const char *b = buf_.data() + pos_;
    const char *last = buf_.data() + end_;
    const char *e = std::search(b, last, kEnd, kEnd + 4);
    if (e != last) {
      std::string raw(b, e + 4);
      pos_ += raw.size();
      head_ = rewrite_head(raw, req_);
      head_pos_ = 0;
      return true;
    }
    if (end_ - pos_ >= kMaxHead || !fill()) return false;
  }
}

ssize_t WireStream::read(char *ptr, size_t size) {
  if (state_ == State::kNeedHead) state_ = load_head() ? State::kHead : State::kBody;
  if (state_ == State::kHead) {
    size_t n = std::min(size, head_.size() - head_pos_);
    std::memcpy(ptr, head_.data() + head_pos_, n);
    head_pos_ += n;
    if (head_pos_ == head_.size()) state_ = State::kBody;
    return static_cast<ssize_t>(n);
  }
  size_t n = 0;
  if (pos_ == end_ && size >= kBufSize / 2) {
    ssize_t r = recv_some(ptr, size);
    if (r <= 0) return r;
    n = static_cast<size_t>(r);
  } else {
    if (pos_ == end_ && !fill()) return 0;
    n = std::min(size, end_ - pos_);
    std::memcpy(ptr, buf_.data() + pos_, n);
    pos_ += n;
  }
  if (req_) req_->body_bytes += n;
  return static_cast<ssize_t>(n);
}

ssize_t WireStream::write(const char *ptr, size_t size) {
  const FileWindow &w = t_window;
  uintptr_t p = reinterpret_cast<uintptr_t>(ptr);
  if (w.base != 0 && p >= w.base && p < w.base + w.len) {
    off_t off = w.offset + static_cast<off_t>(p - w.base);
    size_t n = std::min(size, static_cast<size_t>(w.base + w.len - p));
    for (;;) {
      ssize_t r = ::sendfile(fd_, w.fd, &off, n);
      if (r < 0 && errno == EINTR) continue;
      if (r >= 0 || (errno != EINVAL && errno != ENOSYS)) return r;
      break;  // this socket cannot take sendfile: copy from the mapping
    }
  }
  for (;;) {
    ssize_t r = ::send(fd_, ptr, size, MSG_NOSIGNAL);
    if (r < 0 && errno == EINTR) continue;
    return r;
  }
}

void WireStream::address(bool peer, std::string &ip, int &port) const {
  sockaddr_storage addr{};
  socklen_t len = sizeof(addr);
  int r = peer ? ::getpeername(fd_, reinterpret_cast<sockaddr *>(&addr), &len)
               : ::getsockname(fd_, reinterpret_cast<sockaddr *>(&addr), &len);
  if (r != 0) return;
  char text[INET6_ADDRSTRLEN] = {0};
  if (addr.ss_family == AF_INET) {
    auto *a = reinterpret_cast<sockaddr_in *>(&addr);
    inet_ntop(AF_INET, &a->sin_addr, text, sizeof(text));
    port = ntohs(a->sin_port);
  } else if (addr.ss_family == AF_INET6) {
    auto *a = reinterpret_cast<sockaddr_in6 *>(&addr);
    inet_ntop(AF_INET6, &a->sin6_addr, text, sizeof(text));
    port = ntohs(a->sin6_port);
  }
  ip = text;
}

void tune_socket(int fd) {
  int one = 1;
  // Answers go out as a header write and a body write; without this the
  // second waits for the peer's delayed acknowledgement.
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
}

}  // namespace

const WireRequest &wire_request() { return t_request ? *t_request : kNoRequest; }

std::string wire_header(const std::string &name) {
  for (const auto &h : wire_request().headers)
    if (strcasecmp(h.first.c_str(), name.c_str()) == 0) return h.second;
  return std::string();
}

bool wire_has_header(const std::string &name) {
  for (const auto &h : wire_request().headers)
    if (strcasecmp(h.first.c_str(), name.c_str()) == 0) return true;
  return false;
}

void wire_set_file_window(const char *base, size_t len, int fd, off_t file_offset) {
  t_window = FileWindow{reinterpret_cast<uintptr_t>(base), len, fd, file_offset};
}

void wire_clear_file_window() { t_window = FileWindow{}; }

void wire_close_after_response() { t_close = true; }

WireServer::WireServer() {
  set_keep_alive_max_count(100000);
  set_keep_alive_timeout(30);
}

void WireServer::deepen_backlog() {
  if (svr_sock_ != INVALID_SOCKET) ::listen(svr_sock_, SOMAXCONN);
}

bool WireServer::process_and_close_socket(socket_t sock) {
  tune_socket(sock);
  {
    WireStream strm(sock);
    for (size_t count = keep_alive_max_count_; count > 0 && !stopping(); --count) {
      if (!strm.wait_request(keep_alive_timeout_sec_, [this] { return stopping(); })) break;
      WireRequest request;
      strm.begin_request(&request);
      t_request = &request;
      t_close = false;
      bool closed = false;
      bool ok = process_request(strm, count == 1, closed, std::function<void(httplib::Request &)>());
      t_request = nullptr;
      wire_clear_file_window();
      if (!ok || closed || t_close) break;
    }
  }
  ::shutdown(sock, SHUT_RDWR);
  ::close(sock);
  return true;
}

}  // namespace zelsrv
