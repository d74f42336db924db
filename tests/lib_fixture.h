#pragma once
// Integration tests of the library: an emulator per test, the library's
// local environment pointed at it, a settable bearer token, and a recorder
// that turns callbacks from library threads into events a test can wait for.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <zel/zel.h>

#include "frame.h"
#include "zel_server.h"

namespace zeltest {

// The token every handle made by the fixture hands out; tests change it to
// provoke 401 and 403 answers.
inline std::mutex& token_mutex() {
  static std::mutex mutex;
  return mutex;
}
inline std::string& token_value() {
  static std::string token = "local-dev-token";
  return token;
}
inline void set_token(const std::string& token) {
  std::lock_guard<std::mutex> lock(token_mutex());
  token_value() = token;
}
inline char* get_token() {
  std::lock_guard<std::mutex> lock(token_mutex());
  return strdup(token_value().c_str());
}
inline void free_token(char* token) { free(token); }

struct Event {
  std::string kind;  // "callback", "done", "details", ...
  int32_t code = 0;
  std::string message;
};

// Collects callback events; safe to call from any thread.
class Recorder {
 public:
  void add(Event event) {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(std::move(event));
    changed_.notify_all();
  }
  // Waits until at least `count` events arrived; false on timeout.
  bool wait_for(size_t count, std::chrono::seconds timeout = std::chrono::seconds(30)) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return events_.size() >= count; });
  }
  std::vector<Event> events() {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }
  // The single event of a finished call; fails the test when there is not
  // exactly one after a short grace period for stray second reports.
  Event only() {
    EXPECT_TRUE(wait_for(1)) << "no callback arrived";
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::vector<Event> all = events();
    EXPECT_EQ(all.size(), 1u) << "expected exactly one report";
    return all.empty() ? Event{"none", -999, ""} : all.front();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Event> events_;
};

template <class Resp>
void on_status(const Resp* resp, void* user_data) {
  static_cast<Recorder*>(user_data)->add({"callback", resp->code, resp->message ? resp->message : "<null>"});
}
inline void on_done(void* user_data) { static_cast<Recorder*>(user_data)->add({"done", 0, ""}); }

// Library integration tests: zel_global_init, the local environment on the
// emulator, and a clean shutdown that waits for every detached worker.
class LibTest : public EmulatorTest {
 protected:
  explicit LibTest(std::vector<std::string> extra_args = {}) : EmulatorTest(std::move(extra_args)) {}

  void SetUp() override {
    EmulatorTest::SetUp();
    ASSERT_EQ(zel_global_init(), 0);
    ASSERT_EQ(zel_set_environment_url(ZEL_ENV_LOCAL, server_.base_url().c_str()), 0);
    set_token("local-dev-token");
  }

  void TearDown() override {
    wait_for_workers();
    for (ZEL* handle : handles_) zel_cleanup(handle);
    handles_.clear();
    zel_global_cleanup();
    zel_set_environment_url(ZEL_ENV_LOCAL, nullptr);
    EmulatorTest::TearDown();
  }

  static void wait_for_workers() {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (frame_running_workers() > 0 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(frame_running_workers(), 0) << "operation threads still running";
  }

  // A handle for the local environment; freed by the fixture.
  ZEL* handle(uint32_t api_version = 2) {
    ZEL* made = zel_init(ZEL_ENV_LOCAL, api_version, get_token, free_token);
    handles_.push_back(made);
    return made;
  }

  // Creates a bucket straight over HTTP, independent of the library.
  void make_bucket(const std::string& key) {
    HttpResult r = http("POST", server_.api(2) + "/buckets", {kAuthHeader, "Content-Type: application/json"},
                        "{\"bucketKey\":\"" + key + "\",\"policyKey\":\"transient\",\"allow\":[]}");
    ASSERT_EQ(r.status, 200) << r.body;
  }

  // Stores an object straight over HTTP; `escaped_key` is already
  // percent-encoded for the path.
  void put_object(const std::string& bucket, const std::string& escaped_key, const std::string& data) {
    std::vector<std::string> headers{kAuthHeader, "Session-Id: fixture-session",
                                     "Content-Type: application/octet-stream"};
    if (!data.empty()) {  // an empty object has no byte range to name
      headers.push_back("Content-Range: bytes 0-" + std::to_string(data.size() - 1) + "/" +
                        std::to_string(data.size()));
    }
    HttpResult r = http("PUT", server_.api(2) + "/buckets/" + bucket + "/objects/" + escaped_key, headers, data);
    ASSERT_EQ(r.status, 200) << r.body;
  }

  std::vector<ZEL*> handles_;
};

}  // namespace zeltest
