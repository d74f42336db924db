#include "heads.h"

#include <strings.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace zelsrv {
namespace {

constexpr int kTickMs = 100;  // how often deadlines are looked at

void close_fd(int fd) {
  ::shutdown(fd, SHUT_RDWR);
  ::close(fd);
}

}  // namespace

// The value of header `name` in `head`, case-insensitive; empty when absent.
std::string head_value(const std::string& head, const char* name) {
  size_t n = std::strlen(name);
  for (size_t p = head.find("\r\n"); p != std::string::npos && p + 2 < head.size();
       p = head.find("\r\n", p + 2)) {
    if (head.size() - (p + 2) <= n || strncasecmp(head.c_str() + p + 2, name, n) != 0 ||
        head[p + 2 + n] != ':')
      continue;
    size_t b = head.find_first_not_of(" \t", p + 3 + n), e = head.find("\r\n", p + 2);
    return b < e ? head.substr(b, e - b) : std::string();
  }
  return std::string();
}

bool head_complete(const std::string& bytes) {
  size_t end = bytes.find("\r\n\r\n");
  if (end == std::string::npos) return false;
  std::string head = bytes.substr(0, end + 2);
  if (strcasecmp(head_value(head, "Expect").c_str(), "100-continue") == 0) return true;
  uint64_t want = 0;
  std::string length = head_value(head, "Content-Length");
  if (!length.empty()) {
    char* stop = nullptr;
    want = std::strtoull(length.c_str(), &stop, 10);
    if (*stop != '\0') want = 0;  // cpp-httplib refuses it; no reason to wait
  } else if (!head_value(head, "Transfer-Encoding").empty()) {
    want = 1;
  }
  return bytes.size() - (end + 4) >= std::min<uint64_t>(want, HeadWaiter::kEarlyBody);
}

HeadWaiter::HeadWaiter(Ready ready, int head_timeout_ms, int idle_timeout_ms)
    : ready_(std::move(ready)), head_ms_(head_timeout_ms), idle_ms_(idle_timeout_ms) {}

HeadWaiter::~HeadWaiter() {
  stop();
  if (ep_ >= 0) ::close(ep_);
  if (wake_fd_ >= 0) ::close(wake_fd_);
}

bool HeadWaiter::start() {
  ep_ = epoll_create1(EPOLL_CLOEXEC);
  wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (ep_ < 0 || wake_fd_ < 0) return false;
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.fd = wake_fd_;
  if (epoll_ctl(ep_, EPOLL_CTL_ADD, wake_fd_, &ev) != 0) return false;
  thread_ = std::thread([this] { loop(); });
  return true;
}

void HeadWaiter::stop() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    stopped_ = true;
  }
  wake();
  if (thread_.joinable()) thread_.join();
  for (auto& w : waiting_) close_fd(w.first);
  waiting_.clear();
  std::lock_guard<std::mutex> lock(mu_);
  for (auto& w : incoming_) close_fd(w.first);
  incoming_.clear();
}

void HeadWaiter::add(int fd, std::string bytes, bool idle) {
  Waiting w{std::move(bytes), Clock::now() + std::chrono::milliseconds(idle ? idle_ms_ : head_ms_), idle};
  w.idle = idle && w.bytes.empty();
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!stopped_) {
      incoming_.emplace_back(fd, std::move(w));
      fd = -1;
    }
  }
  if (fd >= 0) return close_fd(fd);
  wake();
}

void HeadWaiter::wake() {
  uint64_t one = 1;
  if (wake_fd_ >= 0 && ::write(wake_fd_, &one, sizeof(one)) < 0) {
    // The counter is saturated: the loop is awake already.
  }
}

void HeadWaiter::take_incoming() {
  std::vector<std::pair<int, Waiting>> taken;
  {
    std::lock_guard<std::mutex> lock(mu_);
    taken.swap(incoming_);
  }
  for (auto& t : taken) {
    int fd = t.first;
    if (head_complete(t.second.bytes)) {
      ready_(fd, std::move(t.second.bytes));
      continue;
    }
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLRDHUP;
    ev.data.fd = fd;
    if (epoll_ctl(ep_, EPOLL_CTL_ADD, fd, &ev) != 0) {
      close_fd(fd);
      continue;
    }
    waiting_[fd] = std::move(t.second);
  }
}

void HeadWaiter::drop(int fd) {
  epoll_ctl(ep_, EPOLL_CTL_DEL, fd, nullptr);
  waiting_.erase(fd);
  close_fd(fd);
}

void HeadWaiter::on_readable(int fd) {
  auto it = waiting_.find(fd);
  if (it == waiting_.end()) return;
  Waiting& w = it->second;
  char buf[16 * 1024];
  ssize_t n = ::recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (n <= 0) return drop(fd);
  if (w.idle) {
    // The next request has begun: from now on its head has the head deadline.
    w.idle = false;
    w.deadline = Clock::now() + std::chrono::milliseconds(head_ms_);
  }
  w.bytes.append(buf, static_cast<size_t>(n));
  if (head_complete(w.bytes)) {
    std::string bytes = std::move(w.bytes);
    epoll_ctl(ep_, EPOLL_CTL_DEL, fd, nullptr);
    waiting_.erase(it);
    return ready_(fd, std::move(bytes));
  }
  bool head_ended = w.bytes.find("\r\n\r\n") != std::string::npos;
  if (w.bytes.size() > (head_ended ? kMaxHead + kEarlyBody : kMaxHead)) drop(fd);
}

void HeadWaiter::expire() {
  Clock::time_point now = Clock::now();
  std::vector<int> late;
  for (const auto& w : waiting_)
    if (w.second.deadline <= now) late.push_back(w.first);
  for (int fd : late) drop(fd);
}

void HeadWaiter::loop() {
  epoll_event events[64];
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(mu_);
      if (stopped_) return;
    }
    take_incoming();
    int n = epoll_wait(ep_, events, 64, kTickMs);
    for (int i = 0; i < n; ++i) {
      int fd = events[i].data.fd;
      if (fd == wake_fd_) {
        uint64_t count = 0;
        while (::read(wake_fd_, &count, sizeof(count)) > 0) {
        }
        continue;
      }
      on_readable(fd);
    }
    expire();
  }
}

}  // namespace zelsrv
