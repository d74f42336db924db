// Service handle: defaults, copies, proxy texts and URL building for every
// environment, including overrides of the environment table.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "alloc.h"
#include "captured_log.h"
#include "zel_config.h"
#include "zel_internal.h"

namespace {

char* token() { return nullptr; }

class Handle : public ::testing::Test {
 protected:
  void TearDown() override {
    for (uint32_t env = 0; env <= 3; ++env) zel_set_environment_url(env, nullptr);
  }
  zeltest::CapturedLog log_;
};

std::string url_for(uint32_t environment, uint32_t version, const char* path) {
  ZEL* handle = zel_init(environment, version, token, nullptr);
  char buffer[ZEL_URL_SIZE];
  int n = zel_api_url(handle, buffer, "%s", path);
  zel_cleanup(handle);
  EXPECT_EQ(n, static_cast<int>(std::strlen(buffer)));
  return buffer;
}

TEST_F(Handle, InitSetsDefaultsAndKeepsArguments) {
  ZEL* handle = zel_init(3, 2, token, nullptr);
  ASSERT_NE(handle, nullptr);
  const ZEL& h = *handle;
  EXPECT_EQ(std::make_tuple(h.environment, h.api_version, h.http_pool_size, h.thread_pool_size, h.chunk_size,
                            h.max_retries, h.auto_create_bucket, h.timeout_ms, h.low_speed_limit,
                            h.low_speed_time, h.ssl_verify_peer, h.max_send_speed, h.max_recv_speed),
            std::make_tuple(3u, 2u, 8u, 8u, uint64_t{5242880}, 5u, 0u, 1800000u, 0u, 0u, 1u, int64_t{0},
                            int64_t{0}));
  EXPECT_TRUE(h.proxy == nullptr && h.proxy_username == nullptr && h.proxy_password == nullptr);
  EXPECT_TRUE(h.get_token == &token && h.free_token == nullptr);
  zel_cleanup(handle);
  zel_cleanup(nullptr);
}

TEST_F(Handle, ProxySettersAndCloneOwnTheirTexts) {
  ZEL* handle = zel_init(1, 1, token, nullptr);
  zel_set_proxy_with_credentials(handle, "p1", "u1", "w1");
  zel_set_proxy(handle, "p2");  // replaces the proxy and clears the credentials
  EXPECT_TRUE(std::string(handle->proxy) == "p2" && handle->proxy_username == nullptr &&
              handle->proxy_password == nullptr);
  zel_set_proxy(handle, nullptr);
  EXPECT_EQ(handle->proxy, nullptr);
  zel_set_low_speed_limit(handle, 100, 7);
  EXPECT_EQ(handle->low_speed_limit + handle->low_speed_time, 107u);
  zel_set_low_speed_limit(nullptr, 1, 1);
  zel_set_proxy(nullptr, "x");
  ZEL* bare = zel_clone(handle);
  EXPECT_TRUE(bare->proxy == nullptr && bare->proxy_username == nullptr);
  zel_set_proxy_with_credentials(handle, "http://proxy:3128", "user", "secret");
  handle->chunk_size = 1234;
  ZEL* copy = zel_clone(handle);
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy->proxy, handle->proxy);
  EXPECT_EQ(copy->chunk_size, 1234u);
  EXPECT_EQ(copy->get_token, handle->get_token);
  EXPECT_EQ(zel_clone(nullptr), nullptr);
  zel_cleanup(handle);  // the copy must not depend on the original's texts
  EXPECT_STREQ(copy->proxy, "http://proxy:3128");
  EXPECT_STREQ(copy->proxy_username, "user");
  EXPECT_STREQ(copy->proxy_password, "secret");
  zel_cleanup(copy);
  zel_cleanup(bare);
}

TEST_F(Handle, EveryEnvironmentHasItsBase) {
  EXPECT_EQ(url_for(1, 1, "/x"), std::string(ZEL_DEFAULT_URL_DEVELOPMENT) + "/zel/v1/x");
  EXPECT_EQ(url_for(2, 1, "/x"), std::string(ZEL_DEFAULT_URL_STAGING) + "/zel/v1/x");
  EXPECT_EQ(url_for(3, 2, "/buckets/b1/details"),
            std::string(ZEL_DEFAULT_URL_PRODUCTION) + "/zel/v2/buckets/b1/details");
  // 0 and every unknown value mean the local test endpoint, never an error.
  for (uint32_t env : {0u, 4u, 99u, 0xFFFFFFFFu}) {
    EXPECT_EQ(url_for(env, 2, "/b"), "http://localhost:9000/zel/v2/b") << env;
  }
  EXPECT_EQ(std::string(ZEL_DEFAULT_URL_PRODUCTION).rfind("https://", 0), 0u);
}

TEST_F(Handle, EnvironmentOverridesAndRestores) {
  EXPECT_EQ(zel_set_environment_url(3, "http://127.0.0.1:41234"), 0);
  EXPECT_EQ(url_for(3, 1, "/a"), "http://127.0.0.1:41234/zel/v1/a");
  EXPECT_EQ(zel_set_environment_url(7, "https://[::1]:8443"), 0);  // unknown: the local slot
  EXPECT_EQ(url_for(0, 2, "/a"), "https://[::1]:8443/zel/v2/a");
  EXPECT_EQ(url_for(12, 2, "/a"), "https://[::1]:8443/zel/v2/a");
  EXPECT_EQ(url_for(1, 1, "/a"), std::string(ZEL_DEFAULT_URL_DEVELOPMENT) + "/zel/v1/a");
  const char* malformed[] = {"",           "localhost:9000",       "ftp://host",         "http://",
                             "http://h/p", "http://h:0",           "http://h:65536",     "http://h:9x",
                             "http://a b", "http://h:9000/zel/v1", "http://%25s.example"};
  for (const char* bad : malformed) {
    EXPECT_EQ(zel_set_environment_url(3, bad), -1) << bad;
  }
  EXPECT_EQ(url_for(3, 1, "/a"), "http://127.0.0.1:41234/zel/v1/a");  // unchanged by refusals
  EXPECT_EQ(zel_set_environment_url(3, nullptr), 0);
  EXPECT_EQ(url_for(3, 1, "/a"), std::string(ZEL_DEFAULT_URL_PRODUCTION) + "/zel/v1/a");
}

TEST_F(Handle, LongUrlIsCutButReportsFullLength) {
  ZEL* handle = zel_init(0, 2, token, nullptr);
  std::string path(5000, 'k');
  std::vector<char> buffer(ZEL_URL_SIZE + 16, '#');
  int n = zel_api_url(handle, buffer.data(), "/%s", path.c_str());
  std::string base = "http://localhost:9000/zel/v2";
  EXPECT_EQ(n, static_cast<int>(base.size() + 1 + path.size()));
  EXPECT_EQ(std::strlen(buffer.data()), static_cast<size_t>(ZEL_URL_SIZE - 1));
  EXPECT_EQ(buffer[ZEL_URL_SIZE], '#') << "wrote past the 4096-byte buffer";

  char small[16];
  n = zel_upload_url_bounded(handle, small, sizeof small, "/%s", "abc");
  EXPECT_EQ(n, static_cast<int>(base.size() + 4));
  EXPECT_EQ(std::string(small), base.substr(0, 15));
  zel_cleanup(handle);
}

TEST_F(Handle, UrlWithoutHandleLogsAndFails) {
  char buffer[ZEL_URL_SIZE];
  EXPECT_EQ(zel_download_url(nullptr, buffer, "/x"), -1);
  EXPECT_EQ(zeltest::CapturedLog::messages("src\\zel"),
            std::vector<std::string>{"ZEL handler is not initialized"});
}

TEST_F(Handle, AllocationFailuresAreLogged) {
  mem_fail_at(1);
  EXPECT_EQ(zel_init(0, 1, token, nullptr), nullptr);
  ZEL* handle = zel_init(0, 1, token, nullptr);
  mem_fail_at(1);
  EXPECT_EQ(zel_clone(handle), nullptr);
  zel_set_proxy_with_credentials(handle, "p", "u", "w");
  mem_fail_at(3);  // record, proxy, then the user name copy fails: that field stays empty
  ZEL* copy = zel_clone(handle);
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy->proxy, "p");
  EXPECT_EQ(copy->proxy_username, nullptr);
  EXPECT_STREQ(copy->proxy_password, "w");
  zel_cleanup(copy);
  zel_cleanup(handle);
  EXPECT_EQ(log_.all().size(), 2u);
  EXPECT_EQ(log_.count("Cannot allocate memory for the ZEL handler"), 1);
  EXPECT_EQ(log_.count("Cannot allocate memory for the ZEL clone"), 1);
}

}  // namespace
