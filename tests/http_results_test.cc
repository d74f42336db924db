// The HTTP layer's results: what a response keeps, how transport failures
// are reported, URL escaping, the CA bundle beside the executable and
// libcurl's process-wide state.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "alloc.h"
#include "captured_log.h"
#include "http.h"
#include "http_exchange.h"
#include "raw_http_server.h"
#include "tls_server.h"

using zeltest::CapturedLog;
using zeltest::Exchange;
using zeltest::RawHttpServer;
using zeltest::TlsServer;

namespace {
// A header query's answer as text, freed.
std::string query(char* value) {
  std::string out = value != nullptr ? value : "<none>";
  mem_free(value);
  return out;
}
}  // namespace

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
  // Stored without line ends, so the empty line that ends the head is gone.
  std::vector<std::string> expected = {"HTTP/1.1 201 Created", "X-Trace: abc",
                                       "Content-Range: bytes 0-9/1000", "Content-Length: 2",
                                       "Connection: close"};
  EXPECT_EQ(lines, expected);
  EXPECT_EQ(x.response->size_download, 2.0);
  EXPECT_GT(x.response->total_time, 0.0);
  EXPECT_GE(x.response->total_time, x.response->connect_time);

  EXPECT_EQ(query(http_response_header(x.response, "X-Trace")), " abc");
  EXPECT_EQ(query(http_response_range(x.response)), " bytes 0-9/1000")
      << "a Content-Range line also answers Range";
  EXPECT_EQ(query(http_response_content_range_total(x.response)), "1000");
}

TEST(HttpResponseRecord, HeaderQueriesOnCraftedLines) {
  HttpResponse* response = http_response_init();
  const char* lines[] = {
      "HTTP/1.1 206 Partial Content\r\n", "X-Empty:", "X-Empty: later\r\n", "Content-Range: bytes 0-9\r\n",
      "Range: bytes=1-2/9\r\n",           "\r\n"};
  for (const char* line : lines) response->headers = curl_slist_append(response->headers, line);
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

namespace {

// A directory that takes everything under it along when it goes.
struct TempDir {
  std::string path;
  TempDir() {
    char name[] = "/tmp/zel_ca_XXXXXX";
    if (mkdtemp(name) != nullptr) path = name;
  }
  ~TempDir() {
    std::error_code ignored;
    if (!path.empty()) std::filesystem::remove_all(path, ignored);
  }
  // Writes `text` to <dir>/Tumbleframe/cacert.pem; returns that path.
  std::string put_bundle(const std::string& dir, const std::string& text) const {
    std::filesystem::create_directories(dir + "/Tumbleframe");
    std::string bundle = dir + "/Tumbleframe/cacert.pem";
    std::ofstream(bundle) << text;
    return bundle;
  }
};

// One GET with peer verification on, configured as every request is;
// the HTTP status, or libcurl's code when the exchange failed.
long verified_get(const std::string& url) {
  HttpSettings settings{};
  settings.ssl_verify_peer = 1;
  Exchange x;
  http_request_configure(x.request, &settings);
  EXPECT_EQ(http_request_get(x.request, url.c_str()), nullptr);
  x.perform();
  return x.response->status;
}

// What libcurl does on its own, with its default CA store.
long default_store_get(const std::string& url) {
  CURL* curl = curl_easy_init();
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_PROXY, "");
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(
      curl, CURLOPT_WRITEFUNCTION, +[](char*, size_t size, size_t count, void*) { return size * count; });
  long code = curl_easy_perform(curl);
  curl_easy_cleanup(curl);
  return code;
}

}  // namespace

// The server's CA exists only in this test, so the machine's own store (or
// the lack of one) cannot make a request succeed: success proves the bundle
// beside the executable was used, and without it the outcome must be
// exactly libcurl's own with its default store.
TEST(HttpCaBundle, BundleBesideTheExecutableIsUsedAndAMissingOneFallsBack) {
  TlsServer server;
  TlsServer stranger;
  TempDir dir;
  ASSERT_FALSE(dir.path.empty());
  CapturedLog log;

  std::string bundle = dir.put_bundle(dir.path + "/trusting", server.ca_pem());
  http_ca_bundle_override((dir.path + "/trusting/app").c_str());
  ASSERT_NE(http_ca_bundle(), nullptr);
  EXPECT_STREQ(http_ca_bundle(), bundle.c_str());
  EXPECT_EQ(verified_get(server.url("/")), 200) << "the bundle's CA signed the server's certificate";
  EXPECT_EQ(server.answered(), 1);

  dir.put_bundle(dir.path + "/other", stranger.ca_pem());
  http_ca_bundle_override((dir.path + "/other/app").c_str());
  EXPECT_EQ(verified_get(server.url("/")), CURLE_PEER_FAILED_VERIFICATION)
      << "trust comes from the bundle's contents, not from its presence";

  http_ca_bundle_override((dir.path + "/none/app").c_str());
  EXPECT_EQ(http_ca_bundle(), nullptr);
  long fallback = verified_get(server.url("/"));
  EXPECT_NE(fallback, 200);
  EXPECT_EQ(fallback, default_store_get(server.url("/")));
  EXPECT_EQ(server.answered(), 1);
  http_ca_bundle_override(nullptr);
  EXPECT_TRUE(log.all().empty()) << "a bundle that is used, or absent, is not worth a log line";
}

// No bundle is the normal case and stays quiet; a bundle that is there but
// cannot be used is logged once per resolution, and the default store used.
TEST(HttpCaBundle, OnlyABundleThatCannotBeUsedIsLogged) {
  TempDir dir;
  ASSERT_FALSE(dir.path.empty());
  CapturedLog log;
  Exchange x;
  HttpSettings settings{};
  auto configure_three_times = [&](const std::string& exe) {
    http_ca_bundle_override(exe.c_str());
    for (int i = 0; i < 3; i++) http_request_configure(x.request, &settings);
    return http_ca_bundle();
  };
  EXPECT_EQ(configure_three_times("/nonexistent-zel/dir/app"), nullptr);
  EXPECT_EQ(configure_three_times(dir.path + "/app"), nullptr);
  EXPECT_TRUE(log.all().empty()) << log.all().front();

  std::string unusable = dir.path + "/Tumbleframe/cacert.pem";
  std::filesystem::create_directories(unusable);  // a directory, not a file
  EXPECT_EQ(configure_three_times(dir.path + "/app"), nullptr);
  EXPECT_EQ(log.count("The CA bundle at " + unusable + " cannot be read; using the default CA store"), 1);

  // Too long for the bundle path: only logged when a bundle is there.
  std::string deep = dir.path + "/" + std::string(200, 'd') + "/" + std::string(100, 'e');
  std::filesystem::create_directories(deep);
  log.clear();
  EXPECT_EQ(configure_three_times(deep + "/app"), nullptr);
  EXPECT_TRUE(log.all().empty());
  dir.put_bundle(deep, "a bundle that cannot be reached\n");
  EXPECT_EQ(configure_three_times(deep + "/app"), nullptr);
  EXPECT_EQ(
      log.count("The executable's directory is too long for the CA bundle path; using the default CA store"),
      1);
  http_ca_bundle_override(nullptr);
}
