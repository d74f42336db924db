// Service handle: copies, proxy texts and URL building for every
// environment, including overrides of the environment table.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
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

// A clone owns copies of the proxy texts; a text it cannot copy stays
// empty instead of failing the clone.
TEST_F(Handle, ProxySettersAndClonesOwnTheirTexts) {
  mem_fail_at(1);
  EXPECT_EQ(zel_init(1, 1, token, nullptr), nullptr);
  auto texts = [](const ZEL* h) {
    auto text = [](const char* t) { return std::string(t ? t : "-"); };
    return text(h->proxy) + "|" + text(h->proxy_username) + "|" + text(h->proxy_password);
  };
  ZEL* handle = zel_init(1, 1, token, nullptr);
  zel_set_proxy_with_credentials(handle, "p1", "u1", "w1");
  zel_set_proxy(handle, "p2");  // the old proxy's credentials must not go to the new one
  EXPECT_EQ(texts(handle), "p2|-|-");
  zel_set_proxy_with_credentials(handle, "http://proxy:3128", "user", "secret");
  mem_fail_at(1);
  EXPECT_EQ(zel_clone(handle), nullptr);
  mem_fail_at(3);  // record, proxy, then the user name copy fails
  ZEL* partial = zel_clone(handle);
  ZEL* copy = zel_clone(handle);
  ASSERT_TRUE(copy != nullptr && partial != nullptr);
  zel_cleanup(handle);  // the copies must not depend on the original's texts
  EXPECT_EQ(texts(partial), "http://proxy:3128|-|secret");
  EXPECT_EQ(texts(copy), "http://proxy:3128|user|secret");
  zel_cleanup(copy);
  zel_cleanup(partial);
}

TEST_F(Handle, EnvironmentsOverridesAndRestores) {
  // Every unknown environment means the local test endpoint, never an error.
  EXPECT_EQ(url_for(0xFFFFFFFFu, 2, "/b"), "http://localhost:9000/zel/v2/b");
  EXPECT_EQ(zel_set_environment_url(3, "http://127.0.0.1:41234"), 0);
  EXPECT_EQ(url_for(3, 1, "/a"), "http://127.0.0.1:41234/zel/v1/a");
  EXPECT_EQ(zel_set_environment_url(7, "https://[::1]:8443"), 0);  // unknown: the local slot
  EXPECT_EQ(url_for(0, 2, "/a"), "https://[::1]:8443/zel/v2/a");
  for (const char* bad :
       {"", "localhost:9000", "ftp://host", "http://", "http://h/p", "http://h:0", "http://h:65536",
        "http://h:9x", "http://a b", "http://h:9000/zel/v1", "http://%25s.example"}) {
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
  EXPECT_EQ(zel_upload_url_bounded(handle, small, sizeof small, "/%s", "abc"),
            static_cast<int>(base.size() + 4));
  EXPECT_EQ(std::string(small), base.substr(0, 15));
  zel_cleanup(handle);
  EXPECT_EQ(zel_download_url(nullptr, buffer.data(), "/x"), -1);
}

}  // namespace
