// The connection layer under cpp-httplib. It owns the socket loop so that the
// emulator sees every request exactly as it came off the wire (header lines in
// order, names as sent) and so that object bytes can leave by sendfile.
#pragma once

#include <httplib.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace zelsrv {

using HeaderLines = std::vector<std::pair<std::string, std::string>>;

// What the connection layer saw of the request now served on this thread.
struct WireRequest {
  HeaderLines headers;      // every header line as received, in order
  uint64_t body_bytes = 0;  // request body bytes consumed so far
};

// The request in progress on the calling thread; empty outside a request.
const WireRequest &wire_request();

// First value of a header from the wire, case-insensitive; empty when absent.
std::string wire_header(const std::string &name);
bool wire_has_header(const std::string &name);

// While set, writes of bytes that lie inside [base, base + len) are sent from
// the file `fd` at the matching offset instead of being copied: `base` must be
// a read-only mapping of that file starting at `file_offset`.
void wire_set_file_window(const char *base, size_t len, int fd, off_t file_offset);
void wire_clear_file_window();

// Closes the connection once the answer in progress has been written.
void wire_close_after_response();

class WireServer : public httplib::Server {
 public:
  WireServer();
  // cpp-httplib listens with a backlog of 5: a burst of clients (a test
  // with hundreds of operations in flight) overflows it and the kernel drops
  // handshakes, stalling those clients for up to a minute. Call after
  // binding.
  void deepen_backlog();

 private:
  bool process_and_close_socket(socket_t sock) override;
  bool stopping() const { return svr_sock_ == INVALID_SOCKET; }
};

}  // namespace zelsrv
