// The HTTP layer's results: what a response keeps, how transport failures
// are reported, URL escaping and the CA bundle beside the executable.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "alloc.h"
#include "captured_log.h"
#include "http.h"
#include "http_exchange.h"
#include "raw_http_server.h"
#include "tls_server.h"
#include "zel_server.h"

using zeltest::CapturedLog;
using zeltest::Exchange;
using zeltest::RawHttpServer;

namespace {

// A header query's answer as text, freed.
std::string query(char* value) {
  std::string out = value != nullptr ? value : "<none>";
  mem_free(value);
  return out;
}

// One GET to `url`, configured as every request is (peer verification on,
// `timeout_ms` when given); libcurl's message, or "" on success.
std::string get(Exchange& x, const std::string& url, uint32_t timeout_ms = 0) {
  HttpSettings settings{};
  settings.ssl_verify_peer = 1;
  settings.timeout_ms = timeout_ms;
  http_request_configure(x.request, &settings);
  EXPECT_EQ(http_request_get(x.request, url.c_str()), nullptr);
  const char* error = x.perform();
  return error != nullptr ? error : "";
}

}  // namespace

// Headers are stored without line ends, so the empty line that ends the
// head is gone; the body is followed by one zero byte.
TEST(HttpResponseRecord, BodyHeadersAndStatus) {
  RawHttpServer server;
  server.script(
      "HTTP/1.1 201 Created\r\nX-Trace: abc\r\nContent-Range: bytes 0-9/1000\r\n"
      "Content-Length: 2\r\nConnection: close\r\n\r\n{}");
  Exchange x;
  ASSERT_EQ(get(x, server.url("/r")), "");
  EXPECT_EQ(x.response->status, 201);
  ASSERT_EQ(x.response->body->size, 2u);
  EXPECT_EQ(std::memcmp(x.response->body->data, "{}", 3), 0);
  std::vector<std::string> lines;
  for (curl_slist* node = x.response->headers; node != nullptr; node = node->next)
    lines.push_back(node->data);
  EXPECT_EQ(lines,
            (std::vector<std::string>{"HTTP/1.1 201 Created", "X-Trace: abc", "Content-Range: bytes 0-9/1000",
                                      "Content-Length: 2", "Connection: close"}));
  EXPECT_EQ(query(http_response_header(x.response, "X-Trace")), " abc");
  EXPECT_EQ(query(http_response_range(x.response)), " bytes 0-9/1000")
      << "a Content-Range line also answers Range";
  EXPECT_EQ(query(http_response_content_range_total(x.response)), "1000");
}

TEST(HttpResponseRecord, HeaderQueriesOnCraftedLines) {
  HttpResponse* response = http_response_init();
  for (const char* line : {"HTTP/1.1 206 Partial Content\r\n", "X-Empty:", "X-Empty: later\r\n",
                           "Content-Range: bytes 0-9\r\n", "Range: bytes=1-2/9\r\n", "\r\n"})
    response->headers = curl_slist_append(response->headers, line);
  EXPECT_EQ(query(http_response_header(response, "X-Empty")), " later\r\n")
      << "a line whose colon ends it is passed over";
  EXPECT_EQ(query(http_response_header(response, "x-empty")), "<none>") << "matching is case-sensitive";
  EXPECT_EQ(query(http_response_range(response)), " bytes 0-9\r\n");
  EXPECT_EQ(query(http_response_content_range_total(response)), "<none>")
      << "the first Content-Range line decides, even without a slash";
  EXPECT_EQ(query(http_response_header(nullptr, "X")), "<none>");
  http_response_cleanup(response);
}

namespace {
int abort_transfer(void*, curl_off_t, curl_off_t, curl_off_t, curl_off_t) { return 1; }
}  // namespace

// A transport failure leaves libcurl's code as the status and its message
// as the result: nobody listening, the settings' timeout, an aborting
// progress hook.
TEST(HttpFailures, TransportErrorsLeaveTheirCodes) {
  int closed_port = RawHttpServer().port();
  RawHttpServer silent;
  silent.set_mode(RawHttpServer::Mode::silent);
  Exchange refused, slow, aborted;
  aborted.request->progress = http_progress_init();
  aborted.request->progress->data = mem_calloc(1, sizeof(int));  // owned by the hook, freed with the request
  aborted.request->progress->function = abort_transfer;
  const struct {
    std::string error;
    Exchange& x;
    CURLcode code;
  } cases[] = {
      {get(refused, "http://127.0.0.1:" + std::to_string(closed_port) + "/"), refused, CURLE_COULDNT_CONNECT},
      {get(slow, silent.url("/slow"), 300), slow, CURLE_OPERATION_TIMEDOUT},
      {get(aborted, silent.url("/p")), aborted, CURLE_ABORTED_BY_CALLBACK},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.error, curl_easy_strerror(c.code));
    EXPECT_EQ(c.x.response->status, c.code);
  }
  EXPECT_NE(http_perform(nullptr, refused.response), nullptr);
}

// The callbacks allocate once per header line, then once for the single
// body chunk; either failing aborts the transfer with a write error.
TEST(HttpFailures, AllocationFailureInCallbacksAbortsTheTransfer) {
  RawHttpServer server;
  const std::string answer = RawHttpServer::reply(200, "OK", "hello", {"Connection: close"});
  CapturedLog log;
  for (long step : {0L, 1L, 5L}) {
    SCOPED_TRACE(step);
    server.script(answer);
    Exchange x;
    ASSERT_EQ(http_request_get(x.request, server.url("/m").c_str()), nullptr);
    long before = mem_allocation_count();
    mem_fail_at(step);
    const char* error = x.perform();
    mem_fail_at(0);
    if (step == 0) {
      ASSERT_EQ(error, nullptr);
      EXPECT_EQ(mem_allocation_count() - before, 5)
          << "status line, two header lines, the empty line, the body";
      continue;
    }
    EXPECT_STREQ(error, curl_easy_strerror(CURLE_WRITE_ERROR));
    EXPECT_EQ(x.response->status, CURLE_WRITE_ERROR);
    EXPECT_EQ(x.response->body->size, 0u);
  }
}

TEST(HttpText, EscapeAndUnescape) {
  char* escaped = http_url_escape(u"dir/a b\u00fc~._-Z9");
  EXPECT_STREQ(escaped, "dir%2Fa%20b%C3%BC~._-Z9");
  char* plain = http_url_unescape(escaped);
  EXPECT_STREQ(plain, "dir/a b\xc3\xbc~._-Z9");
  curl_free(plain);
  curl_free(escaped);
  const char16_t lone_surrogate[] = {u'a', 0xD800, 0};
  EXPECT_EQ(http_url_escape(lone_surrogate), nullptr);
}

// Empty pieces are dropped; a path that would not fit leaves the buffer
// empty, never overrun.
TEST(HttpCaBundle, PathIsTheExecutableDirectoryPlusTheBundleName) {
  const std::string name = "Tumbleframe/cacert.pem";
  const std::string fits = "/" + std::string(kCaPathMax - name.size() - 2, 'd') + "/app";
  const struct {
    std::string exe;
    std::string expected;
  } cases[] = {
      {"/opt/app/bin/app", "/opt/app/bin/" + name},
      {"//opt\\\\mixed//bin/app", "/opt/mixed/bin/" + name},
      {"app", name},
      {fits, fits.substr(0, fits.size() - 3) + name},
      {"/" + std::string(kCaPathMax - name.size() - 1, 'd') + "/app", ""},
  };
  for (const auto& c : cases) {
    char out[kCaPathMax + 1];
    std::memset(out, 'x', sizeof out);
    EXPECT_EQ(http_ca_bundle_path(c.exe.c_str(), out), c.expected.empty() ? -1 : 0);
    EXPECT_EQ(out, c.expected);
    EXPECT_EQ(out[kCaPathMax], '\0');
  }
}

namespace {

// A scratch directory's path, without the trailing slash.
std::string root_of(const zeltest::ScratchDir& dir) {
  return std::filesystem::path(dir.file("")).parent_path().string();
}

// Writes `text` to <dir>/Tumbleframe/cacert.pem; returns that path.
std::string put_bundle(const std::string& dir, const std::string& text) {
  std::filesystem::create_directories(dir + "/Tumbleframe");
  std::ofstream(dir + "/Tumbleframe/cacert.pem") << text;
  return dir + "/Tumbleframe/cacert.pem";
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

long verified_get(const std::string& url) {
  Exchange x;
  get(x, url);
  return x.response->status;
}

}  // namespace

// The server's CA exists only in this test, so the machine's own store (or
// the lack of one) cannot make a request succeed: success proves the bundle
// beside the executable was used, and without it the outcome must be
// exactly libcurl's own with its default store. Trust comes from the
// bundle's contents, not from its presence.
TEST(HttpCaBundle, BundleBesideTheExecutableIsUsedAndAMissingOneFallsBack) {
  zeltest::TlsServer server, stranger;
  zeltest::ScratchDir scratch;
  const std::string root = root_of(scratch);
  CapturedLog log;
  std::string bundle = put_bundle(root + "/trusting", server.ca_pem());
  http_ca_bundle_override((root + "/trusting/app").c_str());
  EXPECT_STREQ(http_ca_bundle(), bundle.c_str());
  EXPECT_EQ(verified_get(server.url("/")), 200);
  put_bundle(root + "/other", stranger.ca_pem());
  http_ca_bundle_override((root + "/other/app").c_str());
  EXPECT_EQ(verified_get(server.url("/")), CURLE_PEER_FAILED_VERIFICATION);
  http_ca_bundle_override((root + "/none/app").c_str());
  EXPECT_EQ(http_ca_bundle(), nullptr);
  long fallback = verified_get(server.url("/"));
  EXPECT_NE(fallback, 200);
  EXPECT_EQ(fallback, default_store_get(server.url("/")));
  EXPECT_EQ(server.answered(), 1);
  http_ca_bundle_override(nullptr);
  EXPECT_TRUE(log.all().empty()) << "a bundle that is used, or absent, is not worth a log line";
}

// No bundle is the normal case and stays quiet; a bundle that is there but
// cannot be used (a directory; beyond the path's room) is logged once per
// resolution, and the default store used.
TEST(HttpCaBundle, OnlyABundleThatCannotBeUsedIsLogged) {
  zeltest::ScratchDir scratch;
  const std::string root = root_of(scratch);
  CapturedLog log;
  Exchange x;
  HttpSettings settings{};
  auto configure_three_times = [&](const std::string& exe) {
    http_ca_bundle_override(exe.c_str());
    for (int i = 0; i < 3; i++) http_request_configure(x.request, &settings);
    return http_ca_bundle();
  };
  std::string deep = root + "/" + std::string(200, 'd') + "/" + std::string(100, 'e');
  std::filesystem::create_directories(deep);
  for (const std::string& exe : {std::string("/nonexistent-zel/dir/app"), root + "/app", deep + "/app"})
    EXPECT_EQ(configure_three_times(exe), nullptr);
  EXPECT_TRUE(log.all().empty()) << log.all().front();

  std::string unusable = root + "/Tumbleframe/cacert.pem";
  std::filesystem::create_directories(unusable);
  EXPECT_EQ(configure_three_times(root + "/app"), nullptr);
  EXPECT_EQ(log.count("The CA bundle at " + unusable + " cannot be read; using the default CA store"), 1);
  put_bundle(deep, "a bundle that cannot be reached\n");
  EXPECT_EQ(configure_three_times(deep + "/app"), nullptr);
  EXPECT_EQ(
      log.count("The executable's directory is too long for the CA bundle path; using the default CA store"),
      1);
  http_ca_bundle_override(nullptr);
}
