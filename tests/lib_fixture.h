#pragma once
// Integration tests of the library: an emulator per test, the library's
// local environment pointed at it, and a settable bearer token.
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
#include "recorder.h"
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
    HttpResult r =
        http("PUT", server_.api(2) + "/buckets/" + bucket + "/objects/" + escaped_key, headers, data);
    ASSERT_EQ(r.status, 200) << r.body;
  }

  std::vector<ZEL*> handles_;
};

}  // namespace zeltest
