#pragma once
// A loopback HTTP/1.1 server that records requests byte for byte (request
// line, header lines in the order sent, body) and answers with scripted raw
// replies. It lets tests check what a client puts on the wire, which a
// full server library would normalise away.
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zeltest {

struct RawRequest {
  std::string request_line;          // without its CRLF
  std::vector<std::string> headers;  // each line without its CRLF, in order
  std::string body;
  bool body_complete = false;  // the announced body arrived in full

  // Value of the first header named `name` (case-insensitive), leading
  // blanks removed; empty when absent. `found` tells absent from empty.
  std::string header(const std::string& name, bool* found = nullptr) const;
  int count(const std::string& name) const;
};

class RawHttpServer {
 public:
  enum class Mode {
    normal,             // read the whole request, then reply
    reply_before_body,  // reply as soon as the head is in, then close
    silent,             // read, never reply (for timeouts)
    close_at_once,      // accept and close without reading
  };

  RawHttpServer();
  ~RawHttpServer();
  RawHttpServer(const RawHttpServer&) = delete;
  RawHttpServer& operator=(const RawHttpServer&) = delete;

  int port() const { return port_; }
  std::string url(const std::string& path) const;

  // Replies are used in order, one per request; after them `fallback` (by
  // default an empty 200 reply that closes the connection).
  void script(const std::string& raw_reply);
  void set_fallback(const std::string& raw_reply);
  void set_mode(Mode mode) { mode_.store(mode); }

  std::vector<RawRequest> requests() const;
  // Waits until at least n requests have been fully handled; false on timeout.
  bool wait_for(size_t n, int timeout_ms = 5000) const;
  int connections() const { return connections_.load(); }

  static std::string reply(int status, const std::string& reason, const std::string& body,
                           const std::vector<std::string>& extra_headers = {});

 private:
  void accept_loop();
  void serve(int fd);
  bool read_head(int fd, std::string* pending, std::string* head);
  bool read_body(int fd, std::string* pending, size_t length, std::string* body);
  std::string next_reply();
  void record(const RawRequest& request);

  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<Mode> mode_{Mode::normal};
  std::atomic<int> connections_{0};
  std::thread acceptor_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<std::thread> workers_;
  std::deque<std::string> replies_;
  std::string fallback_;
  std::vector<RawRequest> requests_;
};

}  // namespace zeltest
