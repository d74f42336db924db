// Test support: runs zel-server as a child process and talks plain HTTP to it.
// It does not use the zel library, so the emulator's own tests stay
// independent of it; integration tests of the library add their own thin
// layer on top (pointing the library's environments at base_url()).
#pragma once

#include <gtest/gtest.h>
#include <jansson.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace zeltest {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

struct HttpResult {
  long status = 0;     // 0 when no answer arrived
  HeaderList headers;  // the answer's header lines, in order
  std::string body;
  std::string error;  // libcurl's text when the exchange failed
  // First value of a header, case-insensitive; empty when absent.
  std::string header(const std::string& name) const;
};

// One exchange on a fresh connection. `headers` are "Name: value" lines; the
// URL goes out as given (no dot-segment folding, escapes untouched).
HttpResult http(const std::string& method, const std::string& url,
                const std::vector<std::string>& headers = {}, const std::string& body = std::string());

struct JsonFree {
  void operator()(json_t* j) const { json_decref(j); }
};
using JsonPtr = std::unique_ptr<json_t, JsonFree>;
// Parses text as the clients do (duplicate keys refused); none on failure.
JsonPtr parse_json(const std::string& text);
// A member of a JSON object: its text ("" unless a string), its integer
// (-999 unless an integer).
std::string json_str(const json_t* object, const char* key);
long long json_int(const json_t* object, const char* key);
// The keys of a JSON object, sorted; empty for anything else.
std::vector<std::string> json_keys(const json_t* object);

std::string sha1_hex(const std::string& data);
// Milliseconds from `since` to now.
long elapsed_ms(std::chrono::steady_clock::time_point since);
// A scratch directory removed with its files at the end of the test.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  // Writes `data` as the file `name`; its path.
  std::string write(const std::string& name, const std::string& data) const;

 private:
  std::string path_;
};

// A whole file's bytes; empty when it cannot be read.
std::string read_file(const std::string& path);
bool file_exists(const std::string& path);
// The names in a directory without "." and "..", sorted; empty when unreadable.
std::vector<std::string> dir_entries(const std::string& dir);
// Deterministic bytes for uploads.
std::string pattern_bytes(size_t size, uint32_t seed);

// One request as the emulator's journal recorded it.
struct RecordedRequest {
  std::string method;
  std::string target;
  HeaderList headers;
  uint64_t body_size = 0;
  int status = 0;
  std::string principal;  // the auth id of the request's token; empty when none
  std::string header(const std::string& name) const;
};

class ServerProcess {
 public:
  // `extra_args` are added after --port 0 --test-api --data DIR.
  explicit ServerProcess(std::vector<std::string> extra_args = {});
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  // Starts on a free port with a fresh data directory (kept across restarts
  // and removed by the destructor). False with error() set on failure.
  bool start();
  void stop();     // SIGTERM, then waits for the exit
  void kill9();    // SIGKILL, then reaps the process; the data stays
  bool restart();  // same data directory, a new free port
  bool running() const { return pid_ > 0; }
  // The exit status of the last stopped process, as waitpid gives it.
  int last_wait_status() const { return wait_status_; }

  // The server's standard error goes to this file (appended) from the next
  // start on; empty: the test's own.
  void log_to(const std::string& path) { log_path_ = path; }

  int port() const { return port_; }
  std::string base_url() const;  // "http://127.0.0.1:PORT"
  std::string api(int version = 2) const { return base_url() + "/zel/v" + std::to_string(version); }
  const std::string& data_dir() const { return data_dir_; }
  const std::string& error() const { return error_; }

  // Creates a bucket of the local owner with no grants; true on 200.
  bool make_bucket(const std::string& key, const std::string& policy = "transient");

  std::vector<RecordedRequest> requests();
  bool clear_requests();
  bool add_fault(const std::string& rule_json);
  bool clear_faults();

 private:
  bool launch();
  void reap();

  std::vector<std::string> extra_args_;
  std::string data_dir_;
  std::string log_path_;
  std::string error_;
  pid_t pid_ = -1;
  int port_ = 0;
  int wait_status_ = 0;
};

extern const char kAuthHeader[];  // "Authorization: Bearer local-dev-token"

// Loopback sockets for the scripted servers: a listener on a free port
// (throws std::runtime_error when there is none), and a send that goes on
// until every byte is out (false when the peer is gone).
int listen_loopback(int* port);
bool send_all(int fd, const char* data, size_t size);
inline bool send_all(int fd, const std::string& data) { return send_all(fd, data.data(), data.size()); }

// One emulator per test, started before and stopped after it.
class EmulatorTest : public ::testing::Test {
 protected:
  explicit EmulatorTest(std::vector<std::string> extra_args = {}) : server_(std::move(extra_args)) {}
  void SetUp() override { ASSERT_TRUE(server_.start()) << server_.error(); }
  void TearDown() override { server_.stop(); }

  ServerProcess server_;
};

}  // namespace zeltest
