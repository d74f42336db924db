// The HTTP layer on the wire: what a request sends (header lines and their
// order, methods, bodies, announced sizes), what a response keeps, and how
// transport failures are reported.
#include "http.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "alloc.h"
#include "captured_log.h"
#include "raw_http_server.h"

using zeltest::CapturedLog;
using zeltest::RawHttpServer;
using zeltest::RawRequest;

namespace {

struct Exchange {
  HttpRequest* request = http_request_init();
  HttpResponse* response = http_response_init();
  Exchange() {
    response->body = http_body_init();
    response->body->callback = http_body_write;
  }
  ~Exchange() { http_release(request, response); }
  const char* perform() { return http_perform(request, response); }
};

// Upload source for tests: serves the test's text or, past its end, zero
// bytes up to the announced size, so a large announced body needs no large
// buffer. It lives in the body's data field, which the request frees, and
// only points at the text, which the test keeps alive.
struct UploadSource {
  const std::string* text;
  uint64_t offset;
};

size_t read_upload(char* bytes, size_t size, size_t count, void* raw) {
  auto* body = static_cast<HttpBody*>(raw);
  auto* source = reinterpret_cast<UploadSource*>(body->data);
  size_t room = size * count;
  uint64_t left = body->size - source->offset;
  size_t n = left < room ? static_cast<size_t>(left) : room;
  for (size_t i = 0; i < n; i++) {
    uint64_t at = source->offset + i;
    bytes[i] = at < source->text->size() ? (*source->text)[at] : '\0';
  }
  source->offset += n;
  return n;
}

void attach_upload(HttpRequest* request, const std::string& text, uint64_t size) {
  request->body = http_body_init();
  auto* source = static_cast<UploadSource*>(mem_calloc(1, sizeof(UploadSource)));
  source->text = &text;
  request->body->data = reinterpret_cast<char*>(source);
  request->body->size = size;
  request->body->callback = read_upload;
}

const std::string kNoText;
const std::string kDigits = "0123456789";
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

TEST(HttpWire, MethodsAndContentTypeRules) {
  RawHttpServer server;
  {
    Exchange x;
    ASSERT_EQ(http_request_delete(x.request, server.url("/o/k").c_str()), nullptr);
    ASSERT_EQ(x.perform(), nullptr);
  }
  {
    Exchange x;
    std::string json = "{\"bucketKey\":\"b\"}";
    ASSERT_EQ(http_request_post(x.request, server.url("/p1").c_str(), "application/json", json.c_str()),
              nullptr);
    ASSERT_EQ(x.perform(), nullptr);
  }
  {
    Exchange x;  // no body, no type
    ASSERT_EQ(http_request_post(x.request, server.url("/p2").c_str(), nullptr, nullptr), nullptr);
    ASSERT_EQ(x.perform(), nullptr);
  }
  {
    Exchange x;  // default type of an upload
    attach_upload(x.request, kDigits, 10);
    ASSERT_EQ(http_request_put(x.request, server.url("/u1").c_str(), nullptr), nullptr);
    ASSERT_EQ(x.perform(), nullptr);
  }
  {
    Exchange x;
    attach_upload(x.request, kNoText, 0);
    ASSERT_EQ(http_request_put(x.request, server.url("/u2").c_str(), "text/plain"), nullptr);
    ASSERT_EQ(x.perform(), nullptr);
  }
  ASSERT_TRUE(server.wait_for(5));
  std::vector<RawRequest> seen = server.requests();
  EXPECT_EQ(seen[0].request_line, "DELETE /o/k HTTP/1.1");
  EXPECT_EQ(seen[0].count("Content-Type"), 0);

  EXPECT_EQ(seen[1].request_line, "POST /p1 HTTP/1.1");
  EXPECT_EQ(seen[1].body, "{\"bucketKey\":\"b\"}");
  EXPECT_EQ(seen[1].count("Content-Type"), 1);
  EXPECT_EQ(seen[1].header("Content-Type"), "application/json");
  EXPECT_NE(std::find(seen[1].headers.begin(), seen[1].headers.end(), "Content-Type: application/json"),
            seen[1].headers.end())
      << "the Content-Type line has a blank after its colon";

  EXPECT_EQ(seen[2].request_line, "POST /p2 HTTP/1.1");
  EXPECT_EQ(seen[2].header("Content-Length"), "0");
  EXPECT_EQ(seen[2].count("Content-Type"), 0) << "an empty POST must not be announced as a form";
  EXPECT_TRUE(seen[2].body.empty());

  EXPECT_EQ(seen[3].request_line, "PUT /u1 HTTP/1.1");
  EXPECT_EQ(seen[3].header("Content-Type"), "application/octet-stream");
  EXPECT_EQ(seen[3].header("Content-Length"), "10");
  EXPECT_EQ(seen[3].body, "0123456789");

  EXPECT_EQ(seen[4].header("Content-Type"), "text/plain");
  EXPECT_EQ(seen[4].header("Content-Length"), "0");
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

TEST(HttpResponseRecord, BodyHeadersStatusAndStatistics) {
  RawHttpServer server;
  server.script(
      "HTTP/1.1 201 Created\r\nX-Trace: abc\r\nContent-Range: bytes 0-9/1000\r\n"
      "Content-Length: 2\r\nConnection: close\r\n\r\n{}");
  Exchange x;
  ASSERT_EQ(http_request_get(x.request, server.url("/r").c_str()), nullptr);
  ASSERT_EQ(x.perform(), nullptr);
  EXPECT_EQ(x.response->status, 201);
  ASSERT_NE(x.response->body->data, nullptr);
  EXPECT_EQ(x.response->body->size, 2u);
  EXPECT_EQ(std::memcmp(x.response->body->data, "{}", 3), 0) << "body must be followed by one zero byte";
  std::vector<std::string> lines;
  for (curl_slist* node = x.response->headers; node != nullptr; node = node->next)
    lines.push_back(node->data);
  std::vector<std::string> expected = {
      "HTTP/1.1 201 Created\r\n", "X-Trace: abc\r\n",      "Content-Range: bytes 0-9/1000\r\n",
      "Content-Length: 2\r\n",    "Connection: close\r\n", "\r\n"};
  EXPECT_EQ(lines, expected);
  EXPECT_EQ(x.response->size_download, 2.0);
  EXPECT_GT(x.response->total_time, 0.0);
  EXPECT_GE(x.response->total_time, x.response->connect_time);

  std::unique_ptr<char, void (*)(void*)> trace(http_response_header(x.response, "X-Trace"), mem_free);
  ASSERT_NE(trace, nullptr);
  EXPECT_STREQ(trace.get(), " abc\r\n");
  std::unique_ptr<char, void (*)(void*)> range(http_response_range(x.response), mem_free);
  ASSERT_NE(range, nullptr);
  EXPECT_STREQ(range.get(), " bytes 0-9/1000\r\n") << "a Content-Range line also answers Range";
  std::unique_ptr<char, void (*)(void*)> total(http_response_content_range_total(x.response), mem_free);
  ASSERT_NE(total, nullptr);
  EXPECT_STREQ(total.get(), "1000\r\n");
}

TEST(HttpResponseRecord, HeaderQueriesOnCraftedLines) {
  HttpResponse* response = http_response_init();
  const char* lines[] = {
      "HTTP/1.1 206 Partial Content\r\n", "X-Empty:", "X-Empty: later\r\n", "Content-Range: bytes 0-9\r\n",
      "Range: bytes=1-2/9\r\n",           "\r\n"};
  for (const char* line : lines) response->headers = curl_slist_append(response->headers, line);
  auto query = [&](char* value) {
    std::string out = value != nullptr ? value : "<none>";
    mem_free(value);
    return out;
  };
  EXPECT_EQ(query(http_response_header(response, "X-Empty")), " later\r\n")
      << "a line whose colon ends it is passed over";
  EXPECT_EQ(query(http_response_header(response, "x-empty")), "<none>") << "matching is case-sensitive";
  EXPECT_EQ(query(http_response_header(response, "Missing")), "<none>");
  EXPECT_EQ(query(http_response_range(response)), " bytes 0-9\r\n");
  EXPECT_EQ(query(http_response_content_range_total(response)), "<none>")
      << "the first Content-Range line decides, even without a slash";
  EXPECT_EQ(query(http_response_header(nullptr, "X")), "<none>");
  http_response_cleanup(response);
}

TEST(HttpFailures, TransportErrorsLeaveTheirCodes) {
  {
    Exchange x;  // name look-up
    ASSERT_EQ(http_request_get(x.request, "http://no-such-host.invalid/zel/v1/buckets"), nullptr);
    EXPECT_STREQ(x.perform(), curl_easy_strerror(CURLE_COULDNT_RESOLVE_HOST));
    EXPECT_EQ(x.response->status, 6);
  }
  int closed_port;
  {
    RawHttpServer gone;
    closed_port = gone.port();
  }
  {
    Exchange x;  // nobody listening
    std::string url = "http://127.0.0.1:" + std::to_string(closed_port) + "/";
    ASSERT_EQ(http_request_get(x.request, url.c_str()), nullptr);
    EXPECT_STREQ(x.perform(), curl_easy_strerror(CURLE_COULDNT_CONNECT));
    EXPECT_EQ(x.response->status, CURLE_COULDNT_CONNECT);
  }
  RawHttpServer server;
  server.set_mode(RawHttpServer::Mode::silent);
  {
    Exchange x;  // the handle's timeout applies
    HttpSettings settings{};
    settings.timeout_ms = 300;
    settings.ssl_verify_peer = 1;
    http_request_configure(x.request, &settings);
    ASSERT_EQ(http_request_get(x.request, server.url("/slow").c_str()), nullptr);
    EXPECT_STREQ(x.perform(), curl_easy_strerror(CURLE_OPERATION_TIMEDOUT));
    EXPECT_EQ(x.response->status, CURLE_OPERATION_TIMEDOUT);
  }
}

namespace {
int abort_transfer(void* data, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  ++*static_cast<int*>(data);
  return 1;
}
int count_progress(void* data, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  ++*static_cast<int*>(data);
  return 0;
}
}  // namespace

TEST(HttpFailures, ProgressHookAbortsAndMissingRecordsAreNamed) {
  RawHttpServer server;
  server.set_mode(RawHttpServer::Mode::silent);
  Exchange x;
  x.request->progress = http_progress_init();
  x.request->progress->data = mem_calloc(1, sizeof(int));  // owned by the hook, freed with the request
  x.request->progress->function = abort_transfer;
  ASSERT_EQ(http_request_get(x.request, server.url("/p").c_str()), nullptr);
  EXPECT_STREQ(x.perform(), curl_easy_strerror(CURLE_ABORTED_BY_CALLBACK));
  EXPECT_EQ(x.response->status, CURLE_ABORTED_BY_CALLBACK);
  EXPECT_GE(*static_cast<int*>(x.request->progress->data), 1);

  EXPECT_STREQ(http_perform(nullptr, x.response), "HttpRequest is not initialized");
  EXPECT_STREQ(http_perform(x.request, nullptr), "HttpResponse is not initialized");
  EXPECT_STREQ(http_request_get(nullptr, "http://x/"), "HttpRequest is not initialized");
  EXPECT_STREQ(http_request_delete(nullptr, "http://x/"), "HttpRequest is not initialized");
  EXPECT_STREQ(http_request_post(nullptr, "http://x/", nullptr, nullptr), "HttpRequest is not initialized");
  EXPECT_STREQ(http_request_put(nullptr, "http://x/", nullptr), "HttpRequest is not initialized");
}

TEST(HttpFailures, AllocationFailureInCallbacksAbortsTheTransfer) {
  RawHttpServer server;
  const std::string answer = RawHttpServer::reply(200, "OK", "hello", {"Connection: close"});
  // A clean run first, to learn how many allocations the callbacks make:
  // one per header line, then one for the single body chunk.
  long per_exchange;
  {
    server.script(answer);
    Exchange x;
    ASSERT_EQ(http_request_get(x.request, server.url("/m").c_str()), nullptr);
    long before = mem_allocation_count();
    ASSERT_EQ(x.perform(), nullptr);
    per_exchange = mem_allocation_count() - before;
    ASSERT_EQ(per_exchange, 5) << "status line, two header lines, the empty line, the body";
  }
  CapturedLog log;
  {
    server.script(answer);
    Exchange x;
    ASSERT_EQ(http_request_get(x.request, server.url("/m").c_str()), nullptr);
    mem_fail_at(1);
    EXPECT_STREQ(x.perform(), curl_easy_strerror(CURLE_WRITE_ERROR));
    EXPECT_EQ(x.response->status, CURLE_WRITE_ERROR);
    EXPECT_EQ(log.count("Cannot allocate memory for http header"), 1);
  }
  {
    server.script(answer);
    Exchange x;
    ASSERT_EQ(http_request_get(x.request, server.url("/m").c_str()), nullptr);
    mem_fail_at(per_exchange);
    EXPECT_STREQ(x.perform(), curl_easy_strerror(CURLE_WRITE_ERROR));
    EXPECT_EQ(log.count("Cannot reallocate http body content"), 1);
    EXPECT_EQ(log.tag_of("Cannot reallocate http body content"), "src\\http");
    EXPECT_EQ(x.response->body->size, 0u);
  }
  mem_fail_at(0);
}

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

TEST(HttpText, EscapeAndUnescape) {
  char* escaped = http_url_escape(u"dir/a b\u00fc~._-Z9");
  ASSERT_NE(escaped, nullptr);
  EXPECT_STREQ(escaped, "dir%2Fa%20b%C3%BC~._-Z9");
  char* plain = http_url_unescape(escaped);
  ASSERT_NE(plain, nullptr);
  EXPECT_STREQ(plain, "dir/a b\xc3\xbc~._-Z9");
  curl_free(plain);
  curl_free(escaped);
  const char16_t lone_surrogate[] = {u'a', 0xD800, 0};
  EXPECT_EQ(http_url_escape(lone_surrogate), nullptr);
  EXPECT_EQ(http_url_escape(nullptr), nullptr);
  EXPECT_EQ(http_url_unescape(nullptr), nullptr);
}

TEST(HttpCaBundle, PathIsTheExecutableDirectoryPlusTheBundleName) {
  char out[kCaPathMax + 1];
  ASSERT_EQ(http_ca_bundle_path("C:\\Tools\\App\\app.exe", out), 0);
  EXPECT_STREQ(out, "C:/Tools/App/Tumbleframe/cacert.pem");
  ASSERT_EQ(http_ca_bundle_path("/opt/app/bin/app", out), 0);
  EXPECT_STREQ(out, "/opt/app/bin/Tumbleframe/cacert.pem");
  ASSERT_EQ(http_ca_bundle_path("//opt\\\\mixed//bin/app", out), 0);
  EXPECT_STREQ(out, "/opt/mixed/bin/Tumbleframe/cacert.pem") << "empty pieces are dropped";
  ASSERT_EQ(http_ca_bundle_path("app", out), 0);
  EXPECT_STREQ(out, "Tumbleframe/cacert.pem");

  const std::string name = "Tumbleframe/cacert.pem";
  std::string fits = "/" + std::string(kCaPathMax - name.size() - 2, 'd') + "/app";
  ASSERT_EQ(http_ca_bundle_path(fits.c_str(), out), 0);
  EXPECT_EQ(std::strlen(out), kCaPathMax);
  std::string too_long = "/" + std::string(kCaPathMax - name.size() - 1, 'd') + "/app";
  std::memset(out, 'x', sizeof out);
  EXPECT_EQ(http_ca_bundle_path(too_long.c_str(), out), -1);
  EXPECT_EQ(out[0], '\0');
  EXPECT_EQ(out[kCaPathMax], '\0') << "the buffer is left empty, never overrun";
}

TEST(HttpCaBundle, AbsentOrTooLongBundleIsLoggedOncePerProcess) {
  CapturedLog log;
  http_ca_bundle_override("/nonexistent-zel/dir/app");
  Exchange x;
  HttpSettings settings{};
  for (int i = 0; i < 3; i++) http_request_configure(x.request, &settings);
  EXPECT_EQ(http_ca_bundle(), nullptr);
  EXPECT_EQ(
      log.count("No CA bundle at /nonexistent-zel/dir/Tumbleframe/cacert.pem; using the default CA store"),
      1);

  log.clear();
  http_ca_bundle_override(("/" + std::string(300, 'd') + "/app").c_str());
  for (int i = 0; i < 3; i++) http_request_configure(x.request, &settings);
  EXPECT_EQ(http_ca_bundle(), nullptr);
  EXPECT_EQ(
      log.count("The executable's directory is too long for the CA bundle path; using the default CA store"),
      1);
  http_ca_bundle_override(nullptr);
}

// A bundle that cannot be loaded makes libcurl fail before the TLS
// handshake with its CA-file error; without the bundle the same exchange
// gets as far as the handshake. That difference shows CURLOPT_CAINFO is set.
TEST(HttpCaBundle, BundleBesideTheExecutableIsUsed) {
  char dir[] = "/tmp/zel_ca_XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  std::string tumbleframe = std::string(dir) + "/Tumbleframe";
  std::string bundle = tumbleframe + "/cacert.pem";
  ASSERT_EQ(mkdir(tumbleframe.c_str(), 0700), 0);
  FILE* file = std::fopen(bundle.c_str(), "w");
  ASSERT_NE(file, nullptr);
  std::fputs("not a certificate\n", file);
  std::fclose(file);

  RawHttpServer server;
  server.set_mode(RawHttpServer::Mode::close_at_once);
  std::string https = "https://127.0.0.1:" + std::to_string(server.port()) + "/";
  HttpSettings settings{};
  settings.ssl_verify_peer = 1;
  auto attempt = [&]() {
    Exchange x;
    http_request_configure(x.request, &settings);
    EXPECT_EQ(http_request_get(x.request, https.c_str()), nullptr);
    x.perform();
    return x.response->status;
  };
  http_ca_bundle_override((std::string(dir) + "/app").c_str());
  ASSERT_NE(http_ca_bundle(), nullptr);
  EXPECT_STREQ(http_ca_bundle(), bundle.c_str());
  EXPECT_EQ(attempt(), CURLE_SSL_CACERT_BADFILE);
  http_ca_bundle_override("/nonexistent-zel/app");
  EXPECT_NE(attempt(), CURLE_SSL_CACERT_BADFILE);
  http_ca_bundle_override(nullptr);
  std::remove(bundle.c_str());
  rmdir(tumbleframe.c_str());
  rmdir(dir);
}

TEST(HttpGlobal, StartAndStop) {
  EXPECT_FALSE(http_global_ready());
  ASSERT_EQ(http_global_init(), 0);
  EXPECT_TRUE(http_global_ready());
  http_global_cleanup();
  EXPECT_FALSE(http_global_ready());
  http_global_cleanup();  // a second cleanup is harmless
}
