// Connections waiting for a complete request head. One thread watches them
// all, so a client that sends its head slowly, keeps an idle connection open
// or announces a body it does not send, holds a file descriptor but never a
// request thread.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace zelsrv {

// True when `bytes` hold a whole request head (up to its empty line) and
// the start of its body: up to kEarlyBody bytes of it, fewer when the body
// is shorter, none when the client waits for "100 Continue" first. A request
// thread is given only to requests that got this far.
bool head_complete(const std::string& bytes);

class HeadWaiter {
 public:
  // Receives each connection whose head has arrived, with every byte read
  // from it so far; it then owns the descriptor.
  using Ready = std::function<void(int fd, std::string bytes)>;
  static constexpr size_t kMaxHead = 64 * 1024;
  static constexpr size_t kEarlyBody = 64 * 1024;

  HeadWaiter(Ready ready, int head_timeout_ms, int idle_timeout_ms);
  ~HeadWaiter();
  HeadWaiter(const HeadWaiter&) = delete;
  HeadWaiter& operator=(const HeadWaiter&) = delete;

  bool start();
  // Closes every waiting connection; later add() calls close theirs at once.
  void stop();
  // Takes `fd`, of which `bytes` were read already. A kept-alive connection
  // (`idle`) may wait idle_timeout_ms for its next request to begin; then, as
  // for a new one, the head must be whole within head_timeout_ms.
  void add(int fd, std::string bytes, bool idle);

 private:
  using Clock = std::chrono::steady_clock;
  struct Waiting {
    std::string bytes;
    Clock::time_point deadline;
    bool idle = false;
  };

  void loop();
  void take_incoming();
  void on_readable(int fd);
  void expire();
  void drop(int fd);
  void wake();

  Ready ready_;
  int head_ms_;
  int idle_ms_;
  int ep_ = -1;
  int wake_fd_ = -1;
  std::thread thread_;
  std::map<int, Waiting> waiting_;  // the loop thread's own

  std::mutex mu_;  // guards what follows
  std::vector<std::pair<int, Waiting>> incoming_;
  bool stopped_ = false;
};

}  // namespace zelsrv
