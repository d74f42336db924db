// The HTTP layer on the wire: what a request sends (header lines and their
// order, methods, bodies, announced sizes), what a reset forgets and where
// the transfer settings take a request.
#include "http.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#include "alloc.h"
#include "captured_log.h"
#include "http_exchange.h"
#include "raw_http_server.h"

using zeltest::attach_upload;
using zeltest::CapturedLog;
using zeltest::Exchange;
using zeltest::RawHttpServer;
using zeltest::RawRequest;

namespace {

const std::string kNoText;
const std::string kAbc = "abc";

// Custom lines of a recorded request: everything after the lines libcurl
// always sends first.
std::vector<std::string> custom_lines(const RawRequest& request) {
  std::vector<std::string> out;
  for (const std::string& line : request.headers) {
    if (line.rfind("Host:", 0) == 0 || line.rfind("User-Agent:", 0) == 0 || line.rfind("Accept:", 0) == 0) {
      continue;
    }
    out.push_back(line);
  }
  return out;
}

std::atomic<int> g_token_calls{0};
std::atomic<int> g_free_calls{0};
char g_token[] = "tok-123";
char* freed_token = nullptr;
char* give_token() {
  g_token_calls++;
  return g_token;
}
char* no_token() {
  g_token_calls++;
  return nullptr;
}
void take_token(char* token) {
  g_free_calls++;
  freed_token = token;
}

}  // namespace

TEST(HttpWire, HeaderLinesGoOutInOrderWithUserAgent) {
  RawHttpServer server;
  Exchange x;
  g_token_calls = g_free_calls = 0;
  http_request_set_auth(x.request, give_token, take_token);
  http_request_add_header(x.request, "X-Caller:one");
  http_request_add_header(x.request, "");  // empty lines are not sent
  http_request_add_header_kv(x.request, "X-Kv", "two");
  http_request_add_header_kv(x.request, "", "ignored");
  http_request_add_range(x.request, 0, 5242879);
  http_request_add_content_range(x.request, 10, 19, 18446744073709551615ull);
  http_request_add_session_id(x.request, "s-1");
  http_request_add_session_id(x.request, nullptr);
  EXPECT_EQ(g_token_calls, 1);
  EXPECT_EQ(g_free_calls, 1);
  EXPECT_EQ(freed_token, g_token) << "free_token must get back exactly the token it handed out";

  ASSERT_EQ(http_request_get(x.request, server.url("/zel/v2/buckets").c_str()), nullptr);
  ASSERT_EQ(x.perform(), nullptr);
  ASSERT_TRUE(server.wait_for(1));
  RawRequest seen = server.requests()[0];
  EXPECT_EQ(seen.request_line, "GET /zel/v2/buckets HTTP/1.1");
  EXPECT_EQ(seen.header("User-Agent"), "zel-c-sdk/2.7.3");
  std::vector<std::string> expected = {"Authorization:Bearer tok-123",
                                       "X-Caller:one",
                                       "X-Kv:two",
                                       "Range:bytes=0-5242879",
                                       "Content-Range:bytes 10-19/18446744073709551615",
                                       "Session-Id:s-1"};
  EXPECT_EQ(custom_lines(seen), expected);
}

TEST(HttpWire, MissingTokenAddsNothingAndFreesNothing) {
  RawHttpServer server;
  Exchange x;
  g_token_calls = g_free_calls = 0;
  http_request_set_auth(x.request, no_token, take_token);
  http_request_set_auth(x.request, nullptr, take_token);
  http_request_set_auth(nullptr, give_token, take_token);
  EXPECT_EQ(g_token_calls, 1);
  EXPECT_EQ(g_free_calls, 0);
  EXPECT_EQ(x.request->headers, nullptr);
  ASSERT_EQ(http_request_get(x.request, server.url("/a").c_str()), nullptr);
  ASSERT_EQ(x.perform(), nullptr);
  ASSERT_TRUE(server.wait_for(1));
  EXPECT_EQ(server.requests()[0].count("Authorization"), 0);
}

TEST(HttpWire, HeaderLinesAreCutAt102400Characters) {
  Exchange x;
  std::string value(200000, 'v');
  http_request_add_header_kv(x.request, "X-Big", value.c_str());
  ASSERT_NE(x.request->headers, nullptr);
  std::string line = x.request->headers->data;
  EXPECT_EQ(line.size(), 102400u);
  EXPECT_EQ(line.rfind("X-Big:vvv", 0), 0u);
}

// The methods and their Content-Type rules are checked end to end by the
// operations' wire tests (DELETE, POST without a body and without a type,
// PUT with the default type); what only this layer shows is the exact
// Content-Type line of a POST body and a zero-length upload's own type.
TEST(HttpWire, ContentTypeLineOfPostAndEmptyUpload) {
  RawHttpServer server;
  {
    Exchange x;
    ASSERT_EQ(http_request_post(x.request, server.url("/p1").c_str(), "application/json", "{\"k\":1}"),
              nullptr);
    ASSERT_EQ(x.perform(), nullptr);
  }
  {
    Exchange x;
    attach_upload(x.request, kNoText, 0);
    ASSERT_EQ(http_request_put(x.request, server.url("/u2").c_str(), "text/plain"), nullptr);
    ASSERT_EQ(x.perform(), nullptr);
  }
  ASSERT_TRUE(server.wait_for(2));
  std::vector<RawRequest> seen = server.requests();
  EXPECT_EQ(seen[0].body, "{\"k\":1}");
  EXPECT_EQ(seen[0].count("Content-Type"), 1);
  EXPECT_NE(std::find(seen[0].headers.begin(), seen[0].headers.end(), "Content-Type: application/json"),
            seen[0].headers.end())
      << "the Content-Type line has a blank after its colon";
  EXPECT_EQ(seen[1].request_line, "PUT /u2 HTTP/1.1");
  EXPECT_EQ(seen[1].header("Content-Type"), "text/plain");
  EXPECT_EQ(seen[1].header("Content-Length"), "0");
}

TEST(HttpWire, LargeUploadWaitsForContinueAndArrivesWhole) {
  RawHttpServer server;
  Exchange x;
  std::string data(2 * 1024 * 1024, '\0');
  for (size_t i = 0; i < data.size(); i++) data[i] = static_cast<char>('a' + i % 26);
  attach_upload(x.request, data, data.size());
  ASSERT_EQ(http_request_put(x.request, server.url("/big").c_str(), nullptr), nullptr);
  ASSERT_EQ(x.perform(), nullptr);
  EXPECT_EQ(x.response->status, 200);
  ASSERT_TRUE(server.wait_for(1));
  RawRequest seen = server.requests()[0];
  EXPECT_EQ(seen.header("Content-Length"), std::to_string(data.size()));
  EXPECT_TRUE(seen.body_complete);
  EXPECT_TRUE(seen.body == data) << "upload body differs";
  EXPECT_EQ(x.response->size_upload, static_cast<double>(data.size()));
}

// On LP64 a long holds 2^31 as well, so the wire alone cannot tell the two
// options apart: the option choice is checked directly, and the wire checks
// that each side of the boundary announces its exact size. The server
// answers as soon as the head is in, so no gigabytes are sent.
TEST(HttpWire, UploadSizeOptionAroundTwoGigabytes) {
  EXPECT_EQ(http_upload_size_option(0), CURLOPT_INFILESIZE);
  EXPECT_EQ(http_upload_size_option(2147483647ull), CURLOPT_INFILESIZE);
  EXPECT_EQ(http_upload_size_option(2147483648ull), CURLOPT_INFILESIZE_LARGE);
  EXPECT_EQ(http_upload_size_option(5ull << 32), CURLOPT_INFILESIZE_LARGE);

  RawHttpServer server;
  server.set_mode(RawHttpServer::Mode::reply_before_body);
  server.set_fallback(RawHttpServer::reply(413, "Payload Too Large", "", {"Connection: close"}));
  for (uint64_t size : {2147483647ull, 2147483648ull}) {
    Exchange x;
    attach_upload(x.request, kNoText, size);
    ASSERT_EQ(http_request_put(x.request, server.url("/huge").c_str(), nullptr), nullptr);
    x.perform();  // the early answer may or may not count as a failure; only the head matters
  }
  ASSERT_TRUE(server.wait_for(2));
  std::vector<RawRequest> seen = server.requests();
  EXPECT_EQ(seen[0].header("Content-Length"), "2147483647");
  EXPECT_EQ(seen[1].header("Content-Length"), "2147483648");
}

namespace {
int count_progress(void* data, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  ++*static_cast<int*>(data);
  return 0;
}
}  // namespace

TEST(HttpRequestRecord, ResetForgetsEverythingButKeepsTheConnection) {
  RawHttpServer server;
  server.set_fallback(RawHttpServer::reply(200, "OK", "x"));  // keeps the connection open
  Exchange x;
  http_request_add_header_kv(x.request, "X-Old", "1");
  attach_upload(x.request, kAbc, 3);
  x.request->progress = http_progress_init();
  x.request->progress->data = mem_calloc(1, sizeof(int));
  x.request->progress->function = count_progress;
  ASSERT_EQ(http_request_delete(x.request, server.url("/first").c_str()), nullptr);
  ASSERT_EQ(x.perform(), nullptr);
  CURL* handle = x.request->curl;

  http_request_reset(x.request);
  EXPECT_EQ(x.request->curl, handle);
  EXPECT_EQ(x.request->headers, nullptr);
  EXPECT_EQ(x.request->body, nullptr);
  EXPECT_EQ(x.request->progress, nullptr);
  http_response_cleanup(x.response);
  x.response = http_response_init();
  x.response->body = http_body_init();
  x.response->body->callback = http_body_write;
  ASSERT_EQ(http_request_get(x.request, server.url("/second").c_str()), nullptr);
  ASSERT_EQ(x.perform(), nullptr);

  ASSERT_TRUE(server.wait_for(2));
  std::vector<RawRequest> seen = server.requests();
  EXPECT_EQ(seen[1].request_line, "GET /second HTTP/1.1") << "the DELETE method must not survive a reset";
  EXPECT_EQ(seen[1].count("X-Old"), 0);
  EXPECT_EQ(seen[1].header("User-Agent"), "zel-c-sdk/2.7.3");
  EXPECT_EQ(server.connections(), 1) << "a reset request reuses its open connection";
  http_request_reset(nullptr);
  http_request_cleanup(nullptr);
  http_release(nullptr, nullptr);
}

TEST(HttpRequestRecord, ProxySettingsReachTheProxy) {
  RawHttpServer proxy;
  ZEL* handle = zel_init(ZEL_ENV_LOCAL, 2, nullptr, nullptr);
  std::string address = "127.0.0.1:" + std::to_string(proxy.port());
  zel_set_proxy_with_credentials(handle, address.c_str(), "alice", "s3cret");
  HttpSettings settings = http_settings_from(handle);
  EXPECT_EQ(settings.timeout_ms, 1800000u);
  EXPECT_EQ(settings.ssl_verify_peer, 1u);
  EXPECT_EQ(settings.proxy, handle->proxy) << "settings borrow the handle's texts";
  Exchange x;
  http_request_configure(x.request, &settings);
  zel_cleanup(handle);  // libcurl keeps its own copies
  ASSERT_EQ(http_request_get(x.request, "http://storage.invalid/zel/v2/b"), nullptr);
  ASSERT_EQ(x.perform(), nullptr);
  ASSERT_TRUE(proxy.wait_for(1));
  RawRequest seen = proxy.requests()[0];
  EXPECT_EQ(seen.request_line, "GET http://storage.invalid/zel/v2/b HTTP/1.1");
  EXPECT_EQ(seen.header("Proxy-Authorization"), "Basic YWxpY2U6czNjcmV0");  // alice:s3cret
  http_request_configure(nullptr, &settings);
  http_request_configure(x.request, nullptr);
}

TEST(HttpRequestRecord, EnvironmentProxyIsIgnored) {
  RawHttpServer target;
  RawHttpServer stray_proxy;
  std::string address = "http://127.0.0.1:" + std::to_string(stray_proxy.port());
  setenv("http_proxy", address.c_str(), 1);
  setenv("ALL_PROXY", address.c_str(), 1);
  unsetenv("no_proxy");
  unsetenv("NO_PROXY");
  {
    Exchange x;
    HttpSettings settings{};
    http_request_configure(x.request, &settings);
    ASSERT_EQ(http_request_get(x.request, target.url("/direct").c_str()), nullptr);
    EXPECT_EQ(x.perform(), nullptr);
  }
  unsetenv("http_proxy");
  unsetenv("ALL_PROXY");
  EXPECT_TRUE(target.wait_for(1, 2000)) << "the request must go straight to its host";
  EXPECT_TRUE(stray_proxy.requests().empty());
}
