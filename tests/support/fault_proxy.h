// Test support: a small threaded TCP proxy between the library and
// zel-server that does to answers what real networks do. Exchanges pass
// through untouched, keep-alive included, until a scripted fault matches a
// request; the fault then acts on that request's answer and ends the
// connection (except `redirect_loop`, which answers by itself).
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace zeltest {

enum class Fault {
  none,
  cut_after_status,     // the status line and an empty head, then close
  shorten_body,         // the head as sent, half the body, then close
  drop_length_and_cut,  // no Content-Length, half the body, then close
  short_body_length,    // Content-Length rewritten to 5, and 5 bytes sent
  stall,                // the head and a little body, then silence until the client gives up
  reset_mid_body,       // the head and half the body, then a TCP reset
  redirect_loop,        // 302 back to the same URL, without asking the server
};

const char* fault_name(Fault fault);

class FaultProxy {
 public:
  // Forwards to 127.0.0.1:upstream_port; listens on a free loopback port.
  explicit FaultProxy(int upstream_port);
  ~FaultProxy();
  FaultProxy(const FaultProxy&) = delete;
  FaultProxy& operator=(const FaultProxy&) = delete;

  int port() const { return port_; }
  std::string base_url() const;  // "http://127.0.0.1:PORT"
  void set_upstream(int port) { upstream_port_.store(port); }

  // The next `times` requests whose request line contains `match` (empty:
  // any) get `fault`. Rules are tried in the order they were added.
  void add_fault(Fault fault, const std::string& match = "", int times = 1);
  // From now on every matching request gets a random fault (or none) with
  // probability `rate`; `seed` makes a run repeatable.
  void set_random_faults(double rate, uint32_t seed, const std::string& match = "");
  void clear_faults();

  // Faults applied so far, by kind.
  int applied(Fault fault) const;
  int exchanges() const { return exchanges_.load(); }

 private:
  struct Rule {
    Fault fault;
    std::string match;
    int times;
  };

  void accept_loop();
  void serve(int client);
  Fault choose(const std::string& request_line);
  bool relay_one(int client, int upstream, std::string* client_pending, std::string* upstream_pending);
  void track(int fd, bool add);

  int listener_ = -1;
  int port_ = 0;
  std::atomic<int> upstream_port_;
  std::atomic<bool> stop_{false};
  std::atomic<int> exchanges_{0};
  std::thread acceptor_;
  mutable std::mutex mutex_;
  std::deque<Rule> rules_;
  double random_rate_ = 0;
  std::string random_match_;
  std::mt19937 random_;
  std::vector<int> applied_;
  std::vector<int> open_fds_;
  std::vector<std::thread> workers_;
};

}  // namespace zeltest
