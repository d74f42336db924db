#include "fault_proxy.h"

#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include "raw_client.h"
#include "zel_server.h"

namespace zeltest {
namespace {

constexpr size_t kFaultKinds = 8;
constexpr int kStallLimitMs = 60000;

// Reads until `pending` holds a whole head; the head (with its empty line)
// is moved out of `pending`.
bool read_head(int fd, std::string* pending, std::string* head) {
  for (;;) {
    size_t end = pending->find("\r\n\r\n");
    if (end != std::string::npos) {
      *head = pending->substr(0, end + 4);
      pending->erase(0, end + 4);
      return true;
    }
    char buffer[16384];
    ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) return false;
    pending->append(buffer, static_cast<size_t>(n));
  }
}

// Header value by name (case-insensitive), or none.
bool header_value(const std::string& head, const char* name, std::string* value) {
  size_t n = std::strlen(name);
  for (size_t start = head.find("\r\n"); start != std::string::npos && start + 2 < head.size();) {
    size_t line = start + 2;
    size_t end = head.find("\r\n", line);
    if (end == std::string::npos) break;
    if (end - line > n && strncasecmp(head.c_str() + line, name, n) == 0 && head[line + n] == ':') {
      size_t v = head.find_first_not_of(" \t", line + n + 1);
      *value = v < end ? head.substr(v, end - v) : std::string();
      return true;
    }
    start = end;
  }
  return false;
}

// The head without the named lines, with `extra` lines added at its end.
std::string rewrite_head(const std::string& head, const std::vector<std::string>& drop,
                         const std::string& extra) {
  std::string out;
  size_t start = 0;
  while (start < head.size()) {
    size_t end = head.find("\r\n", start);
    std::string line = head.substr(start, end - start);
    start = end + 2;
    if (line.empty()) break;
    bool dropped = false;
    for (const std::string& name : drop)
      dropped =
          dropped || (line.size() > name.size() &&
                      strncasecmp(line.c_str(), name.c_str(), name.size()) == 0 && line[name.size()] == ':');
    if (!dropped) out += line + "\r\n";
  }
  return out + extra + "\r\n";
}

// Moves exactly `length` body bytes from `from` (after what is pending) to
// `to`, stopping after `limit` of them when it is smaller.
bool relay_body(int from, int to, std::string* pending, uint64_t length, uint64_t limit) {
  uint64_t moved = 0;
  uint64_t stop = std::min(length, limit);
  while (moved < stop) {
    if (pending->empty()) {
      char buffer[65536];
      ssize_t n = ::recv(from, buffer, sizeof buffer, 0);
      if (n <= 0) return false;
      pending->append(buffer, static_cast<size_t>(n));
    }
    size_t take = static_cast<size_t>(std::min<uint64_t>(pending->size(), stop - moved));
    if (!send_all(to, pending->data(), take)) return false;
    pending->erase(0, take);
    moved += take;
  }
  return true;
}

uint64_t content_length(const std::string& head) {
  std::string value;
  return header_value(head, "Content-Length", &value) ? std::strtoull(value.c_str(), nullptr, 10) : 0;
}

// Waits until the client closes or gives up (or the limit passes).
void wait_for_close(int fd, const std::atomic<bool>& stop) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStallLimitMs);
  while (!stop.load() && std::chrono::steady_clock::now() < end) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 50) > 0) {
      char byte;
      if (::recv(fd, &byte, 1, MSG_PEEK) <= 0) return;
    }
  }
}

}  // namespace

const char* fault_name(Fault fault) {
  static const char* names[] = {
      "none",  "cut_after_status", "shorten_body", "drop_length_and_cut", "short_body_length",
      "stall", "reset_mid_body",   "redirect_loop"};
  return names[static_cast<int>(fault)];
}

FaultProxy::FaultProxy(int upstream_port) : upstream_port_(upstream_port), applied_(kFaultKinds, 0) {
  listener_ = listen_loopback(&port_);
  acceptor_ = std::thread([this] { accept_loop(); });
}

FaultProxy::~FaultProxy() {
  stop_.store(true);
  ::shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  ::close(listener_);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (int fd : open_fds_) ::shutdown(fd, SHUT_RDWR);
  }
  for (std::thread& worker : workers_) worker.join();
}

std::string FaultProxy::base_url() const { return "http://127.0.0.1:" + std::to_string(port_); }

void FaultProxy::add_fault(Fault fault, const std::string& match, int times) {
  std::lock_guard<std::mutex> lock(mutex_);
  rules_.push_back(Rule{fault, match, times});
}

void FaultProxy::set_random_faults(double rate, uint32_t seed, const std::string& match) {
  std::lock_guard<std::mutex> lock(mutex_);
  random_rate_ = rate;
  random_match_ = match;
  random_.seed(seed);
}

void FaultProxy::clear_faults() {
  std::lock_guard<std::mutex> lock(mutex_);
  rules_.clear();
  random_rate_ = 0;
}

int FaultProxy::applied(Fault fault) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return applied_[static_cast<size_t>(fault)];
}

Fault FaultProxy::choose(const std::string& request_line) {
  std::lock_guard<std::mutex> lock(mutex_);
  Fault fault = Fault::none;
  for (auto it = rules_.begin(); it != rules_.end(); ++it) {
    if (request_line.find(it->match) == std::string::npos) continue;
    fault = it->fault;
    if (--it->times <= 0) rules_.erase(it);
    break;
  }
  if (fault == Fault::none && random_rate_ > 0 && request_line.find(random_match_) != std::string::npos &&
      std::uniform_real_distribution<double>(0, 1)(random_) < random_rate_) {
    fault = static_cast<Fault>(1 + random_() % (kFaultKinds - 1));
  }
  applied_[static_cast<size_t>(fault)]++;
  return fault;
}

void FaultProxy::track(int fd, bool add) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (add) {
    open_fds_.push_back(fd);
  } else {
    open_fds_.erase(std::remove(open_fds_.begin(), open_fds_.end(), fd), open_fds_.end());
  }
}

void FaultProxy::accept_loop() {
  while (!stop_.load()) {
    int client = ::accept(listener_, nullptr, nullptr);
    if (client < 0) {
      if (stop_.load()) return;
      continue;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    open_fds_.push_back(client);
    workers_.emplace_back([this, client] { serve(client); });
  }
}

void FaultProxy::serve(int client) {
  int upstream = raw_connect(upstream_port_.load());
  if (upstream >= 0) {
    track(upstream, true);
    std::string client_pending, upstream_pending;
    while (!stop_.load() && relay_one(client, upstream, &client_pending, &upstream_pending)) {
    }
    track(upstream, false);
    ::close(upstream);
  }
  track(client, false);
  ::close(client);
}

// One request and its answer; false when the connection must end.
bool FaultProxy::relay_one(int client, int upstream, std::string* client_pending,
                           std::string* upstream_pending) {
  std::string request;
  if (!read_head(client, client_pending, &request)) return false;
  std::string request_line = request.substr(0, request.find("\r\n"));
  Fault fault = choose(request_line);
  uint64_t request_body = content_length(request);
  if (fault == Fault::redirect_loop) {
    // The body is read and dropped; the client is sent back where it was.
    while (client_pending->size() < request_body) {
      char buffer[65536];
      ssize_t n = ::recv(client, buffer, sizeof buffer, 0);
      if (n <= 0) return false;
      client_pending->append(buffer, static_cast<size_t>(n));
    }
    client_pending->erase(0, static_cast<size_t>(request_body));
    size_t first = request_line.find(' ');
    std::string target = request_line.substr(first + 1, request_line.rfind(' ') - first - 1);
    return send_all(client, "HTTP/1.1 302 Found\r\nLocation: " + target + "\r\nContent-Length: 0\r\n\r\n");
  }
  exchanges_++;
  if (!send_all(upstream, request) ||
      !relay_body(client, upstream, client_pending, request_body, request_body))
    return false;
  std::string head;
  if (!read_head(upstream, upstream_pending, &head)) return false;
  std::string value;
  if (header_value(head, "Transfer-Encoding", &value)) fault = Fault::none;  // not scripted for chunked
  bool has_body = request_line.rfind("HEAD ", 0) != 0;
  uint64_t length = has_body ? content_length(head) : 0;
  uint64_t half = length / 2;
  switch (fault) {
    case Fault::none:
    case Fault::redirect_loop:
      return send_all(client, head) && relay_body(upstream, client, upstream_pending, length, length);
    case Fault::cut_after_status:
      send_all(client, head.substr(0, head.find("\r\n") + 2) + "\r\n");
      return false;
    case Fault::shorten_body:
      send_all(client, head) && relay_body(upstream, client, upstream_pending, length, half);
      return false;
    case Fault::drop_length_and_cut:
      send_all(client, rewrite_head(head, {"Content-Length", "Connection"}, "Connection: close\r\n")) &&
          relay_body(upstream, client, upstream_pending, length, half);
      return false;
    case Fault::short_body_length:
      send_all(client,
               rewrite_head(head, {"Content-Length"},
                            "Content-Length: " + std::to_string(std::min<uint64_t>(5, length)) + "\r\n")) &&
          relay_body(upstream, client, upstream_pending, length, 5);
      return false;
    case Fault::stall:
      if (send_all(client, head) &&
          relay_body(upstream, client, upstream_pending, length, std::min<uint64_t>(half, 1024)))
        wait_for_close(client, stop_);
      return false;
    case Fault::reset_mid_body: {
      send_all(client, head) && relay_body(upstream, client, upstream_pending, length, half);
      linger hard{1, 0};
      ::setsockopt(client, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
      return false;
    }
  }
  return false;
}

}  // namespace zeltest
