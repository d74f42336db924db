// The HTTP layer on the wire: what a request sends (header lines and their
// order, methods, bodies, announced sizes), what a reset forgets and where
// the transfer settings take a request.
#include "http.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "alloc.h"
#include "http_exchange.h"
#include "raw_http_server.h"

using zeltest::attach_upload;
using zeltest::Exchange;
using zeltest::RawHttpServer;
using zeltest::RawRequest;

namespace {

// Custom lines of a recorded request: everything after the lines libcurl
// always sends first.
std::vector<std::string> custom_lines(const RawRequest& request) {
  std::vector<std::string> out;
  for (const std::string& line : request.headers)
    if (line.rfind("Host:", 0) != 0 && line.rfind("User-Agent:", 0) != 0 && line.rfind("Accept:", 0) != 0)
      out.push_back(line);
  return out;
}

std::atomic<int> g_token_calls{0}, g_free_calls{0};
char g_token[] = "tok-123";
char* freed_token = nullptr;
char* give_token() { return g_token_calls++, g_token; }
char* no_token() { return g_token_calls++, nullptr; }
void take_token(char* token) { g_free_calls++, freed_token = token; }

// Sends `x`'s request as a GET to `path`; the request as the server saw it.
RawRequest sent(RawHttpServer& server, Exchange& x, const std::string& path) {
  size_t before = server.requests().size();
  EXPECT_EQ(http_request_get(x.request, server.url(path).c_str()), nullptr);
  EXPECT_EQ(x.perform(), nullptr);
  EXPECT_TRUE(server.wait_for(before + 1));
  return server.requests().back();
}

}  // namespace

// The token is asked for once and handed back to be freed, exactly as
// given; empty lines and values are not sent; a missing token adds
// nothing and frees nothing.
TEST(HttpWire, HeaderLinesGoOutInOrder) {
  RawHttpServer server;
  Exchange x;
  http_request_set_auth(x.request, give_token, take_token);
  http_request_add_header(x.request, "X-Caller:one");
  http_request_add_header(x.request, "");
  http_request_add_header_kv(x.request, "X-Kv", "two");
  http_request_add_header_kv(x.request, "", "ignored");
  http_request_add_range(x.request, 0, 5242879);
  http_request_add_content_range(x.request, 10, 19, 18446744073709551615ull);
  http_request_add_session_id(x.request, "s-1");
  http_request_add_session_id(x.request, nullptr);
  EXPECT_EQ(freed_token, g_token);
  RawRequest seen = sent(server, x, "/zel/v2/buckets");
  EXPECT_EQ(seen.request_line, "GET /zel/v2/buckets HTTP/1.1");
  EXPECT_EQ(custom_lines(seen),
            (std::vector<std::string>{"Authorization:Bearer tok-123", "X-Caller:one", "X-Kv:two",
                                      "Range:bytes=0-5242879",
                                      "Content-Range:bytes 10-19/18446744073709551615", "Session-Id:s-1"}));

  Exchange without;
  http_request_set_auth(without.request, no_token, take_token);
  http_request_set_auth(without.request, nullptr, take_token);
  http_request_set_auth(nullptr, give_token, take_token);
  EXPECT_EQ(std::make_pair(g_token_calls.load(), g_free_calls.load()), std::make_pair(2, 1))
      << "two tokens asked for, one freed";
  EXPECT_EQ(sent(server, without, "/a").count("Authorization"), 0);

  Exchange big;
  http_request_add_header_kv(big.request, "X-Big", std::string(200000, 'v').c_str());
  std::string line = big.request->headers->data;
  EXPECT_EQ(line.size(), 102400u) << "header lines are cut";
  EXPECT_EQ(line.rfind("X-Big:vvv", 0), 0u);
}

// The methods and their Content-Type rules are checked end to end by the
// operations' wire tests; what only this layer shows is the exact
// Content-Type line of a POST body, a zero-length upload's own type, and a
// large upload that waits for "100 Continue" and arrives whole.
TEST(HttpWire, ContentTypeLinesAndUploadBodies) {
  RawHttpServer server;
  std::string data(2 * 1024 * 1024, '\0');
  for (size_t i = 0; i < data.size(); i++) data[i] = static_cast<char>('a' + i % 26);
  Exchange post, empty, large;
  ASSERT_EQ(http_request_post(post.request, server.url("/p1").c_str(), "application/json", "{\"k\":1}"),
            nullptr);
  attach_upload(empty.request, zeltest::kNoText, 0);
  ASSERT_EQ(http_request_put(empty.request, server.url("/u2").c_str(), "text/plain"), nullptr);
  attach_upload(large.request, data, data.size());
  ASSERT_EQ(http_request_put(large.request, server.url("/big").c_str(), nullptr), nullptr);
  for (Exchange* x : {&post, &empty, &large}) ASSERT_EQ(x->perform(), nullptr);
  ASSERT_TRUE(server.wait_for(3));
  std::vector<RawRequest> seen = server.requests();
  EXPECT_EQ(seen[0].body, "{\"k\":1}");
  EXPECT_EQ(seen[0].count("Content-Type"), 1);
  EXPECT_NE(std::find(seen[0].headers.begin(), seen[0].headers.end(), "Content-Type: application/json"),
            seen[0].headers.end())
      << "the Content-Type line has a blank after its colon";
  EXPECT_EQ(
      seen[1].request_line + "|" + seen[1].header("Content-Type") + "|" + seen[1].header("Content-Length"),
      "PUT /u2 HTTP/1.1|text/plain|0");
  EXPECT_EQ(seen[2].header("Content-Length"), std::to_string(data.size()));
  EXPECT_TRUE(seen[2].body_complete && seen[2].body == data) << "upload body differs";
}

// Where a long holds only 31 bits the large option must be chosen past
// 2^31 - 1; on LP64 the wire cannot tell, so the choice is checked
// directly, and each side of the boundary announces its exact size. The
// server answers as soon as the head is in, so no gigabytes are sent.
TEST(HttpWire, UploadSizeOptionAroundTwoGigabytes) {
  EXPECT_EQ(http_upload_size_option(2147483647ull), CURLOPT_INFILESIZE);
  EXPECT_EQ(http_upload_size_option(2147483648ull), CURLOPT_INFILESIZE_LARGE);
  RawHttpServer server;
  server.set_mode(RawHttpServer::Mode::reply_before_body);
  server.set_fallback(RawHttpServer::reply(413, "Payload Too Large", "", {"Connection: close"}));
  for (uint64_t size : {2147483647ull, 2147483648ull}) {
    Exchange x;
    attach_upload(x.request, zeltest::kNoText, size);
    ASSERT_EQ(http_request_put(x.request, server.url("/huge").c_str(), nullptr), nullptr);
    x.perform();  // the early answer may or may not count as a failure; only the head matters
  }
  ASSERT_TRUE(server.wait_for(2));
  EXPECT_EQ(server.requests()[0].header("Content-Length"), "2147483647");
  EXPECT_EQ(server.requests()[1].header("Content-Length"), "2147483648");
}

TEST(HttpRequestRecord, ResetForgetsEverythingButKeepsTheConnection) {
  RawHttpServer server;
  server.set_fallback(RawHttpServer::reply(200, "OK", "x"));  // keeps the connection open
  Exchange x;
  http_request_add_header_kv(x.request, "X-Old", "1");
  attach_upload(x.request, zeltest::kAbc, 3);
  x.request->progress = http_progress_init();
  x.request->progress->data = mem_calloc(1, sizeof(int));
  x.request->progress->function = [](void*, curl_off_t, curl_off_t, curl_off_t, curl_off_t) { return 0; };
  ASSERT_EQ(http_request_delete(x.request, server.url("/first").c_str()), nullptr);
  ASSERT_EQ(x.perform(), nullptr);
  CURL* handle = x.request->curl;
  http_request_reset(x.request);
  EXPECT_EQ(x.request->curl, handle);
  EXPECT_TRUE(x.request->headers == nullptr && x.request->body == nullptr && x.request->progress == nullptr);
  http_response_cleanup(x.response);
  x.response = http_response_init();
  x.response->body = http_body_init();
  x.response->body->callback = http_body_write;
  RawRequest seen = sent(server, x, "/second");
  EXPECT_EQ(seen.request_line, "GET /second HTTP/1.1") << "the DELETE method must not survive a reset";
  EXPECT_EQ(seen.count("X-Old"), 0);
  EXPECT_EQ(server.connections(), 1) << "a reset request reuses its open connection";
}

// The handle's proxy and its credentials reach the proxy (libcurl keeps
// its own copies); a proxy from the environment is ignored.
TEST(HttpRequestRecord, ProxySettingsReachTheProxyAndTheEnvironmentsAreIgnored) {
  RawHttpServer proxy, target, stray_proxy;
  ZEL* handle = zel_init(ZEL_ENV_LOCAL, 2, nullptr, nullptr);
  zel_set_proxy_with_credentials(handle, ("127.0.0.1:" + std::to_string(proxy.port())).c_str(), "alice",
                                 "s3cret");
  HttpSettings settings = http_settings_from(handle);
  Exchange x;
  http_request_configure(x.request, &settings);
  zel_cleanup(handle);
  ASSERT_EQ(http_request_get(x.request, "http://storage.invalid/zel/v2/b"), nullptr);
  ASSERT_EQ(x.perform(), nullptr);
  ASSERT_TRUE(proxy.wait_for(1));
  EXPECT_EQ(proxy.requests()[0].request_line, "GET http://storage.invalid/zel/v2/b HTTP/1.1");
  EXPECT_EQ(proxy.requests()[0].header("Proxy-Authorization"), "Basic YWxpY2U6czNjcmV0");  // alice:s3cret

  std::string address = "http://127.0.0.1:" + std::to_string(stray_proxy.port());
  setenv("http_proxy", address.c_str(), 1);
  setenv("ALL_PROXY", address.c_str(), 1);
  unsetenv("no_proxy");
  unsetenv("NO_PROXY");
  {
    Exchange direct;
    HttpSettings plain{};
    http_request_configure(direct.request, &plain);
    ASSERT_EQ(http_request_get(direct.request, target.url("/direct").c_str()), nullptr);
    EXPECT_EQ(direct.perform(), nullptr);
  }
  unsetenv("http_proxy");
  unsetenv("ALL_PROXY");
  EXPECT_TRUE(target.wait_for(1, 2000)) << "the request must go straight to its host";
  EXPECT_TRUE(stray_proxy.requests().empty());
}
