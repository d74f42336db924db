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
constexpr int kSliceMs = 200;  // waits are cut in slices to notice a halt

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

thread_local WireRequest* t_request = nullptr;
thread_local FileWindow t_window;
thread_local bool t_close = false;
const WireRequest kNoRequest;

std::string trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t");
  if (b == std::string::npos) return std::string();
  size_t e = s.find_last_not_of(" \t");
  return s.substr(b, e - b + 1);
}

}  // namespace

std::string wire_rewrite_head(const std::string& head, WireRequest* req) {
  size_t p = head.find("\r\n");
  if (p == std::string::npos) return head;
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

namespace {

using Clock = std::chrono::steady_clock;

int64_t ms_since(Clock::time_point t) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count();
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
  WireStream(int fd, std::string bytes, const WireLimits& limits, const std::atomic<bool>& halted)
      : fd_(fd), buf_(std::max(kBufSize, bytes.size())), limits_(limits), halted_(halted) {
    std::memcpy(buf_.data(), bytes.data(), bytes.size());
    end_ = bytes.size();
  }

  // Reads wait in read(), which knows the deadlines.
  bool is_readable() const override { return !halted_; }
  bool is_writable() const override;
  ssize_t read(char* ptr, size_t size) override;
  ssize_t write(const char* ptr, size_t size) override;
  void get_remote_ip_and_port(std::string& ip, int& port) const override { address(true, ip, port); }
  void get_local_ip_and_port(std::string& ip, int& port) const override { address(false, ip, port); }
  socket_t socket() const override { return fd_; }

  bool head_buffered() const { return head_complete(std::string(buf_.data() + pos_, end_ - pos_)); }
  std::string take_buffered() {
    std::string out(buf_.data() + pos_, end_ - pos_);
    pos_ = end_ = 0;
    return out;
  }

  void begin_request(WireRequest* req) {
    req_ = req;
    state_ = State::kNeedHead;
    head_.clear();
    head_pos_ = 0;
    waited_ms_ = 0;
    window_bytes_ = 0;
  }

 private:
  enum class State { kNeedHead, kHead, kBody };

  bool fill();
  bool load_head();
  bool wait_readable();
  ssize_t recv_some(char* ptr, size_t size);
  void address(bool peer, std::string& ip, int& port) const;

  int fd_;
  std::vector<char> buf_;
  size_t pos_ = 0, end_ = 0;
  State state_ = State::kBody;
  std::string head_;
  size_t head_pos_ = 0;
  WireRequest* req_ = nullptr;
  const WireLimits& limits_;
  const std::atomic<bool>& halted_;
  // Time spent waiting for body bytes, and the bytes that came, since the
  // body last reached its floor.
  int64_t waited_ms_ = 0;
  uint64_t window_bytes_ = 0;
};

bool WireStream::is_writable() const {
  for (int waited = 0; waited < limits_.write_timeout_ms; waited += kSliceMs) {
    if (halted_) return false;
    if (poll_fd(fd_, POLLOUT, kSliceMs)) return true;
  }
  return false;
}

// A body that moves less than the floor over a window is cut: a slow sender
// holds a request thread for one window at most.
bool WireStream::wait_readable() {
  for (;;) {
    if (halted_) return false;
    Clock::time_point t0 = Clock::now();
    bool ready = poll_fd(fd_, POLLIN, kSliceMs);
    waited_ms_ += ms_since(t0);
    if (waited_ms_ >= limits_.body_window_ms && window_bytes_ < limits_.body_floor_bytes) return false;
    if (ready) return true;
  }
}

ssize_t WireStream::recv_some(char* ptr, size_t size) {
  if (!wait_readable()) return -1;
  for (;;) {
    ssize_t n = ::recv(fd_, ptr, size, MSG_DONTWAIT);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) {
      if (errno == EAGAIN && !wait_readable()) return -1;
      continue;
    }
    if (n > 0 && (window_bytes_ += static_cast<uint64_t>(n)) >= limits_.body_floor_bytes) {
      waited_ms_ = 0;
      window_bytes_ = 0;
    }
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
    const char* b = buf_.data() + pos_;
    const char* last = buf_.data() + end_;
    const char* e = std::search(b, last, kEnd, kEnd + 4);
    if (e != last) {
      std::string raw(b, e + 4);
      pos_ += raw.size();
      head_ = wire_rewrite_head(raw, req_);
      head_pos_ = 0;
      return true;
    }
    if (end_ - pos_ >= HeadWaiter::kMaxHead || !fill()) return false;
  }
}

ssize_t WireStream::read(char* ptr, size_t size) {
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

// Writes go out from the file window by sendfile when they can. A sendfile
// that moves nothing means the file is shorter than its mapping: that is an
// error, never a reason to try again.
ssize_t write_from_file(int sock, const FileWindow& w, const char* ptr, size_t size) {
  uintptr_t p = reinterpret_cast<uintptr_t>(ptr);
  off_t off = w.offset + static_cast<off_t>(p - w.base);
  size_t n = std::min(size, static_cast<size_t>(w.base + w.len - p));
  for (;;) {
    ssize_t r = ::sendfile(sock, w.fd, &off, n);
    if (r < 0 && errno == EINTR) continue;
    if (r == 0) return -1;
    if (r > 0 || (errno != EINVAL && errno != ENOSYS)) return r;
    return -2;  // this socket cannot take sendfile: copy from the mapping
  }
}

ssize_t WireStream::write(const char* ptr, size_t size) {
  const FileWindow& w = t_window;
  uintptr_t p = reinterpret_cast<uintptr_t>(ptr);
  ssize_t r = -2;
  if (w.base != 0 && p >= w.base && p < w.base + w.len) r = write_from_file(fd_, w, ptr, size);
  while (r == -2 || (r < 0 && errno == EINTR)) r = ::send(fd_, ptr, size, MSG_NOSIGNAL);
  if (r > 0 && req_) req_->sent_bytes += static_cast<uint64_t>(r);
  return r;
}

void WireStream::address(bool peer, std::string& ip, int& port) const {
  sockaddr_storage addr{};
  socklen_t len = sizeof(addr);
  int r = peer ? ::getpeername(fd_, reinterpret_cast<sockaddr*>(&addr), &len)
               : ::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
  if (r != 0) return;
  char text[INET6_ADDRSTRLEN] = {0};
  if (addr.ss_family == AF_INET) {
    auto* a = reinterpret_cast<sockaddr_in*>(&addr);
    inet_ntop(AF_INET, &a->sin_addr, text, sizeof(text));
    port = ntohs(a->sin_port);
  } else if (addr.ss_family == AF_INET6) {
    auto* a = reinterpret_cast<sockaddr_in6*>(&addr);
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

const WireRequest& wire_request() { return t_request ? *t_request : kNoRequest; }

void wire_set_principal(const std::string& principal) {
  if (t_request) t_request->principal = principal;
}

std::string wire_header(const std::string& name) {
  for (const auto& h : wire_request().headers)
    if (strcasecmp(h.first.c_str(), name.c_str()) == 0) return h.second;
  return std::string();
}

bool wire_has_header(const std::string& name) {
  for (const auto& h : wire_request().headers)
    if (strcasecmp(h.first.c_str(), name.c_str()) == 0) return true;
  return false;
}

void wire_set_file_window(const char* base, size_t len, int fd, off_t file_offset) {
  t_window = FileWindow{reinterpret_cast<uintptr_t>(base), len, fd, file_offset};
}

void wire_clear_file_window() { t_window = FileWindow{}; }

void wire_close_after_response() { t_close = true; }

namespace {

// Runs each accepted connection's first step on the accepting thread: it
// only hands the socket to the head waiter.
class InlineQueue : public httplib::TaskQueue {
 public:
  void enqueue(std::function<void()> fn) override { fn(); }
  void shutdown() override {}
};

// Without SO_REUSEPORT: a second server on a port in use fails to bind
// instead of sharing the port and answering half the clients.
void listen_socket_options(socket_t sock) {
  int one = 1;
  setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
}

// Serves the requests whose heads are buffered; false when the connection
// must close.
template <class Process>
bool serve_buffered(WireStream& strm, const std::atomic<bool>& closing, Process process) {
  do {
    WireRequest request;
    strm.begin_request(&request);
    t_request = &request;
    t_close = false;
    bool closed = false;
    bool ok = process(strm, closed);
    t_request = nullptr;
    wire_clear_file_window();
    if (!ok || closed || t_close || closing) return false;
  } while (strm.head_buffered());
  return true;
}

}  // namespace

WireServer::WireServer(const WireLimits& limits)
    : limits_(limits),
      heads_(
          [this](int fd, std::string bytes) {
            pool_->enqueue(
                [this, fd, b = std::move(bytes)]() mutable { serve_connection(fd, std::move(b)); });
          },
          limits.head_timeout_ms, limits.idle_timeout_ms) {
  set_socket_options(listen_socket_options);
  new_task_queue = [] { return new InlineQueue; };
}

WireServer::~WireServer() {
  halt();
  cut();
}

void WireServer::deepen_backlog() {
  if (svr_sock_ != INVALID_SOCKET) ::listen(svr_sock_, SOMAXCONN);
}

bool WireServer::run() {
  pool_ = std::make_unique<httplib::ThreadPool>(limits_.threads);
  // A stop that came before the listening loop started would otherwise be
  // lost: the HTTP library ignores a stop while it is not yet running.
  bool ok = !closing_ && heads_.start() && listen_after_bind();
  halt();
  heads_.stop();
  pool_->shutdown();
  return ok;
}

void WireServer::halt() {
  closing_ = true;
  stop();
}

void WireServer::cut() {
  std::lock_guard<std::mutex> lock(active_mu_);
  closing_ = true;
  halted_ = true;
  for (int fd : active_) ::shutdown(fd, SHUT_RDWR);
}

bool WireServer::process_and_close_socket(socket_t sock) {
  tune_socket(sock);
  heads_.add(sock, std::string(), false);
  return true;
}

void WireServer::release(int fd) {
  std::lock_guard<std::mutex> lock(active_mu_);
  active_.erase(fd);
  // Closed under the lock, so halt() never shuts down a reused number.
  ::shutdown(fd, SHUT_RDWR);
  ::close(fd);
}

void WireServer::serve_connection(int fd, std::string bytes) {
  {
    std::lock_guard<std::mutex> lock(active_mu_);
    if (!closing_) active_.insert(fd);
  }
  if (closing_) return release(fd);
  WireStream strm(fd, std::move(bytes), limits_, halted_);
  bool keep = serve_buffered(strm, closing_, [this](WireStream& s, bool& closed) {
    return process_request(s, false, closed, std::function<void(httplib::Request&)>());
  });
  if (!keep) return release(fd);
  {
    std::lock_guard<std::mutex> lock(active_mu_);
    active_.erase(fd);
  }
  heads_.add(fd, strm.take_buffered(), true);
}

}  // namespace zelsrv
