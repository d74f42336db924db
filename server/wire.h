// The connection layer under cpp-httplib. It owns the socket loop so that the
// emulator sees every request exactly as it came off the wire (header lines in
// order, names as sent) and so that object bytes can leave by sendfile.
#pragma once

#include <httplib.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "heads.h"

namespace zelsrv {

using HeaderLines = std::vector<std::pair<std::string, std::string>>;

// What the connection layer saw of the request now served on this thread.
struct WireRequest {
  HeaderLines headers;      // every header line as received, in order
  uint64_t body_bytes = 0;  // request body bytes consumed so far
  uint64_t sent_bytes = 0;  // answer bytes written so far, head included
  std::chrono::steady_clock::time_point began = std::chrono::steady_clock::now();
  std::string principal;  // set once the request's token is known
};

// Records the header lines of a raw request head into `req` and returns the
// head that cpp-httplib gets to parse (the Range line renamed).
std::string wire_rewrite_head(const std::string& head, WireRequest* req);

// The request in progress on the calling thread; empty outside a request.
const WireRequest& wire_request();
void wire_set_principal(const std::string& principal);

// First value of a header from the wire, case-insensitive; empty when absent.
std::string wire_header(const std::string& name);
bool wire_has_header(const std::string& name);

// While set, writes of bytes that lie inside [base, base + len) are sent from
// the file `fd` at the matching offset instead of being copied: `base` must be
// a read-only mapping of that file starting at `file_offset`.
void wire_set_file_window(const char* base, size_t len, int fd, off_t file_offset);
void wire_clear_file_window();

// Closes the connection once the answer in progress has been written.
void wire_close_after_response();

struct WireLimits {
  size_t threads = 64;          // requests served at once
  int head_timeout_ms = 10000;  // from a request's first byte to its empty line
  int idle_timeout_ms = 30000;  // a kept-alive connection between requests
  int body_window_ms = 10000;   // a body must move body_floor_bytes per window
  uint64_t body_floor_bytes = 10 * 1024;
  int write_timeout_ms = 60000;  // a client that reads nothing for this long is cut
};

// Heads are gathered off the request threads (HeadWaiter); a request thread
// serves a connection only while a whole head is there to serve.
class WireServer : public httplib::Server {
 public:
  explicit WireServer(const WireLimits& limits);
  ~WireServer() override;
  // cpp-httplib listens with a backlog of 5: a burst of clients (a test
  // with hundreds of operations in flight) overflows it and the kernel drops
  // handshakes, stalling those clients for up to a minute. Call after
  // binding.
  void deepen_backlog();
  // Serves until halt(); returns once every request thread has finished.
  bool run();
  // Stops listening; requests in progress finish and their connections
  // close. Any thread may call it.
  void halt();
  // Ends every connection's reads and writes at once. Any thread.
  void cut();

 private:
  bool process_and_close_socket(socket_t sock) override;
  void serve_connection(int fd, std::string bytes);
  void release(int fd);

  WireLimits limits_;
  std::atomic<bool> closing_{false};  // no further request on any connection
  std::atomic<bool> halted_{false};   // no further byte either
  std::unique_ptr<httplib::ThreadPool> pool_;
  HeadWaiter heads_;
  std::mutex active_mu_;
  std::set<int> active_;  // connections in a request thread's hands
};

}  // namespace zelsrv
