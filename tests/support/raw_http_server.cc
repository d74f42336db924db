#include "raw_http_server.h"

#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>

#include "zel_server.h"

namespace zeltest {
namespace {

constexpr int kPollMs = 20;

std::string trim_left(const std::string& text) {
  size_t start = text.find_first_not_of(" \t");
  return start == std::string::npos ? std::string() : text.substr(start);
}

bool equals_nocase(const std::string& a, const std::string& b) {
  return a.size() == b.size() && strncasecmp(a.c_str(), b.c_str(), a.size()) == 0;
}

// Splits "Name: value" at the first colon.
bool split_header(const std::string& line, std::string* name, std::string* value) {
  size_t colon = line.find(':');
  if (colon == std::string::npos) return false;
  *name = line.substr(0, colon);
  *value = trim_left(line.substr(colon + 1));
  return true;
}

RawRequest parse_head(const std::string& head) {
  RawRequest request;
  size_t start = 0;
  bool first = true;
  while (start <= head.size()) {
    size_t end = head.find("\r\n", start);
    if (end == std::string::npos) end = head.size();
    std::string line = head.substr(start, end - start);
    if (first) {
      request.request_line = line;
      first = false;
    } else {
      request.headers.push_back(line);
    }
    start = end + 2;
  }
  return request;
}

}  // namespace

std::string RawRequest::header(const std::string& name, bool* found) const {
  if (found != nullptr) *found = false;
  for (const std::string& line : headers) {
    std::string key, value;
    if (split_header(line, &key, &value) && equals_nocase(key, name)) {
      if (found != nullptr) *found = true;
      return value;
    }
  }
  return std::string();
}

int RawRequest::count(const std::string& name) const {
  int n = 0;
  for (const std::string& line : headers) {
    std::string key, value;
    if (split_header(line, &key, &value) && equals_nocase(key, name)) n++;
  }
  return n;
}

RawHttpServer::RawHttpServer() : fallback_(reply(200, "OK", "", {"Connection: close"})) {
  listener_ = listen_loopback(&port_);
  acceptor_ = std::thread([this] { accept_loop(); });
}

RawHttpServer::~RawHttpServer() {
  stop_.store(true);
  acceptor_.join();
  std::vector<std::thread> workers;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    workers.swap(workers_);
  }
  for (std::thread& worker : workers) worker.join();
  ::close(listener_);
}

std::string RawHttpServer::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

void RawHttpServer::script(const std::string& raw_reply) {
  std::lock_guard<std::mutex> guard(mutex_);
  replies_.push_back(raw_reply);
}

void RawHttpServer::set_fallback(const std::string& raw_reply) {
  std::lock_guard<std::mutex> guard(mutex_);
  fallback_ = raw_reply;
}

std::vector<RawRequest> RawHttpServer::requests() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return requests_;
}

bool RawHttpServer::wait_for(size_t n, int timeout_ms) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                           [&] { return requests_.size() >= n; });
}

std::string RawHttpServer::reply(int status, const std::string& reason, const std::string& body,
                                 const std::vector<std::string>& extra_headers) {
  std::string out = "HTTP/1.1 " + std::to_string(status) + " " + reason + "\r\n";
  for (const std::string& line : extra_headers) out += line + "\r\n";
  out += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  return out;
}

void RawHttpServer::accept_loop() {
  while (!stop_.load()) {
    pollfd entry{listener_, POLLIN, 0};
    if (::poll(&entry, 1, kPollMs) <= 0) continue;
    int fd = ::accept(listener_, nullptr, nullptr);
    if (fd < 0) continue;
    connections_++;
    std::lock_guard<std::mutex> guard(mutex_);
    workers_.emplace_back([this, fd] {
      serve(fd);
      ::close(fd);
    });
  }
}

std::string RawHttpServer::next_reply() {
  std::lock_guard<std::mutex> guard(mutex_);
  if (replies_.empty()) return fallback_;
  std::string next = replies_.front();
  replies_.pop_front();
  return next;
}

void RawHttpServer::record(const RawRequest& request) {
  std::lock_guard<std::mutex> guard(mutex_);
  requests_.push_back(request);
  changed_.notify_all();
}

// Reads more bytes into *pending; false at end of stream or on stop.
static bool read_more(int fd, std::string* pending, const std::atomic<bool>& stop) {
  char buffer[65536];
  while (!stop.load()) {
    pollfd entry{fd, POLLIN, 0};
    int ready = ::poll(&entry, 1, kPollMs);
    if (ready == 0) continue;
    if (ready < 0) return false;
    ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) return false;
    pending->append(buffer, static_cast<size_t>(n));
    return true;
  }
  return false;
}

bool RawHttpServer::read_head(int fd, std::string* pending, std::string* head) {
  for (;;) {
    size_t end = pending->find("\r\n\r\n");
    if (end != std::string::npos) {
      *head = pending->substr(0, end);
      pending->erase(0, end + 4);
      return true;
    }
    if (!read_more(fd, pending, stop_)) return false;
  }
}

bool RawHttpServer::read_body(int fd, std::string* pending, size_t length, std::string* body) {
  while (pending->size() < length) {
    if (!read_more(fd, pending, stop_)) break;
  }
  size_t take = pending->size() < length ? pending->size() : length;
  body->assign(*pending, 0, take);
  pending->erase(0, take);
  return take == length;
}

void RawHttpServer::serve(int fd) {
  if (mode_.load() == Mode::close_at_once) return;
  std::string pending;
  std::string head;
  while (read_head(fd, &pending, &head)) {
    RawRequest request = parse_head(head);
    Mode mode = mode_.load();
    if (mode == Mode::reply_before_body) {
      record(request);
      send_all(fd, next_reply());
      return;
    }
    if (mode == Mode::silent) {
      record(request);
      while (read_more(fd, &pending, stop_)) pending.clear();
      return;
    }
    if (equals_nocase(request.header("Expect"), "100-continue"))
      send_all(fd, "HTTP/1.1 100 Continue\r\n\r\n");
    size_t length = static_cast<size_t>(std::strtoull(request.header("Content-Length").c_str(), nullptr, 10));
    request.body_complete = read_body(fd, &pending, length, &request.body);
    std::string answer = next_reply();
    record(request);
    if (!request.body_complete || !send_all(fd, answer)) return;
    if (answer.find("Connection: close") != std::string::npos) return;
  }
}

}  // namespace zeltest
