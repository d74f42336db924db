// The one request path against a hostile network and a careless caller:
// answers cut, shortened, stalled, reset or redirected in circles by a
// proxy of the suite's own; URLs that do not fit; texts that would add
// header lines. Each case asserts the one reported outcome and, on success,
// the SHA-1 of the bytes.
#include <sys/stat.h>

#include <atomic>
#include <climits>

#include "fault_proxy.h"
#include "http_plan.h"
#include "raw_http_server.h"
#include "transfer.h"
#include "transfer_support.h"

namespace {

using zeltest::Fault;
using zeltest::FaultProxy;
using zeltest::GetOptions;
using zeltest::Outcome;
using zeltest::pattern_bytes;
using zeltest::PutOptions;
using zeltest::sha1_hex;

constexpr uint64_t kChunk = 65536;

class RequestPathTest : public zeltest::LibTest {
 protected:
  void SetUp() override {
    LibTest::SetUp();
    make_bucket("bkt");
    proxy_ = std::make_unique<FaultProxy>(server_.port());
    ASSERT_EQ(zel_set_environment_url(ZEL_ENV_LOCAL, proxy_->base_url().c_str()), 0);
    transfer_set_backoff(1, 10);
    h_ = handle();
    h_->chunk_size = kChunk;
  }
  void TearDown() override {
    transfer_set_backoff(100, 5000);
    LibTest::TearDown();
    proxy_.reset();
  }

  std::string store(const std::string& key, size_t size, uint32_t seed) {
    std::string data = pattern_bytes(size, seed);
    put_object("bkt", key, data);
    server_.clear_requests();
    return data;
  }

  std::string object_bytes(const std::string& key) {
    return zeltest::http("GET", server_.api(2) + "/buckets/bkt/objects/" + key, {zeltest::kAuthHeader}).body;
  }

  std::unique_ptr<FaultProxy> proxy_;
  ZEL* h_ = nullptr;
  zeltest::ScratchDir dir_;
};

const Fault kBodyFaults[] = {Fault::cut_after_status,  Fault::shorten_body,   Fault::drop_length_and_cut,
                             Fault::short_body_length, Fault::reset_mid_body, Fault::stall};

TEST_F(RequestPathTest, FaultyChunkAnswersAreRetriedAndTheBytesAreRight) {
  h_->low_speed_limit = 1000;  // a stalled answer is given up after a second
  h_->low_speed_time = 1;
  int n = 0;
  for (Fault fault : kBodyFaults) {
    SCOPED_TRACE(zeltest::fault_name(fault));
    std::string key = "obj" + std::to_string(n);
    std::string data = store(key, 4 * kChunk + 7, 10 + n++);
    // The third ranged GET of the object (not its details) meets the fault.
    proxy_->add_fault(Fault::none, key + " HTTP", 2);
    proxy_->add_fault(fault, key + " HTTP", 1);
    GetOptions g("bkt", key, dir_.file(key));
    Outcome o;
    zel_get_object(h_, &g.opt, &o);
    ASSERT_TRUE(o.wait_once()) << "exactly one report";
    EXPECT_EQ(o.done, 1) << o.code << " " << o.message;
    EXPECT_EQ(sha1_hex(zeltest::read_file(dir_.file(key))), sha1_hex(data));
    EXPECT_EQ(proxy_->applied(fault), 1);
  }
}

// One request, no retry: a cut answer is a failure, never success with
// zeros, and the file holds no more than what arrived.
TEST_F(RequestPathTest, CutAnswersFailTheDownloadWhenNoAttemptRemains) {
  h_->max_retries = 0;
  int n = 0;
  for (Fault fault : {Fault::cut_after_status, Fault::drop_length_and_cut, Fault::short_body_length,
                      Fault::shorten_body, Fault::reset_mid_body}) {
    SCOPED_TRACE(zeltest::fault_name(fault));
    std::string key = "one" + std::to_string(n++);
    store(key, 40000, 3);
    proxy_->add_fault(fault, key + " HTTP", 1);
    GetOptions g("bkt", key, dir_.file(key));
    Outcome o;
    zel_get_object(h_, &g.opt, &o);
    ASSERT_TRUE(o.wait_once());
    EXPECT_EQ(o.done, 0);
    EXPECT_EQ(o.callbacks, 1);
    EXPECT_NE(o.code, 200);
    EXPECT_LT(zeltest::read_file(dir_.file(key)).size(), 40000u)
        << "nothing reserved beyond the bytes written";
    if (fault == Fault::cut_after_status) {  // a short ranged answer names its fault
      EXPECT_EQ(o.code, 206);
      EXPECT_EQ(o.message, "The answer ended before every requested byte arrived");
    }
  }
}

TEST_F(RequestPathTest, RedirectLoopsEndAfterFiveHops) {
  store("loop", 10, 5);
  proxy_->add_fault(Fault::redirect_loop, "loop/details", 100);
  Outcome o;
  ZELGetObjectDetailsOpt opt{u"bkt", u"loop", nullptr, zeltest::outcome_status<ZELGetObjectDetailsResp>,
                             zeltest::on_details};
  zel_get_object_details(h_, &opt, &o);
  ASSERT_TRUE(o.wait_once());
  EXPECT_EQ(o.code, CURLE_TOO_MANY_REDIRECTS) << o.message;
  EXPECT_EQ(proxy_->applied(Fault::redirect_loop), 1 + kHttpMaxRedirects);
}

// A key long enough that its URL would be cut into the URL of a
// neighbouring object: every operation refuses it and sends nothing.
TEST_F(RequestPathTest, OverLongKeysAreRefusedAndTheNeighbourIsUntouched) {
  std::string prefix = proxy_->base_url() + "/zel/v2/buckets/bkt/objects/";
  std::string neighbour(kHttpUrlMax - prefix.size(), 'V');
  std::string data = store(neighbour, 1000, 6);
  std::u16string mine = zeltest::wide(std::string(4060, 'V') + "-mine");
  std::string local = dir_.file("src");
  dir_.write("src", pattern_bytes(3 * kChunk, 9));
  Outcome put, get, del, cp;
  PutOptions p("bkt", "x", local);
  p.opt.key = mine.c_str();
  zel_put_object(h_, &p.opt, &put);
  GetOptions g("bkt", "x", dir_.file("out"));
  g.opt.key = mine.c_str();
  zel_get_object(h_, &g.opt, &get);
  ZELDeleteObjectOpt d{u"bkt", mine.c_str(), nullptr, zeltest::outcome_status<ZELDeleteObjectResp>,
                       zeltest::outcome_done};
  zel_delete_object(h_, &d, &del);
  ZELCopyObjectOpt c{
      u"bkt", mine.c_str(), u"copy", zeltest::outcome_status<ZELCopyObjectResp>, zeltest::on_details,
      nullptr};
  zel_copy_object(h_, &c, &cp);
  ZELCopyObjectOpt c2{
      u"bkt", u"a", mine.c_str(), zeltest::outcome_status<ZELCopyObjectResp>, zeltest::on_details, nullptr};
  Outcome cp2;
  zel_copy_object(h_, &c2, &cp2);
  // Details and undelete build their URL as delete does.
  for (Outcome* o : {&put, &get, &del, &cp, &cp2}) {
    ASSERT_TRUE(o->wait_once());
    EXPECT_EQ(o->code, 0);
    EXPECT_EQ(o->message, "The request URL is too long");
  }
  wait_for_workers();
  EXPECT_TRUE(server_.requests().empty()) << "nothing may be sent";
  EXPECT_EQ(sha1_hex(object_bytes(neighbour)), sha1_hex(data));
  EXPECT_FALSE(zeltest::file_exists(dir_.file("out"))) << "the output file is not even created";
}

char* evil_token() { return strdup("tok\r\nX-Evil: 1"); }
void free_evil(char* token) { free(token); }

TEST_F(RequestPathTest, LineBreaksInTextsAreRefusedBeforeAnythingIsSent) {
  dir_.write("src", "hello");
  server_.clear_requests();
  struct Case {
    const char* what;
    const char* expected;
  } cases[] = {{"content type", "The content type contains CR or LF"},
               {"session id", "The session id contains CR or LF"},
               {"extra header", "An extra header line contains CR or LF"},
               {"token", "The bearer token contains CR or LF"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ZEL* h = std::string(c.what) == "token" ? zel_init(ZEL_ENV_LOCAL, 2, evil_token, free_evil) : h_;
    PutOptions p("bkt", "k", dir_.file("src"));
    ZELHeaders* headers = nullptr;
    if (std::string(c.what) == "content type") p.opt.content_type = "text/plain\r\nX-Evil: 1";
    if (std::string(c.what) == "session id") p.opt.session_id = "abc\nX-Evil: 1";
    if (std::string(c.what) == "extra header") headers = zel_headers_append(nullptr, "X-A", "v\r\nX-Evil: 1");
    p.opt.headers = headers;
    Outcome o;
    zel_put_object(h, &p.opt, &o);
    ASSERT_TRUE(o.wait_once());
    EXPECT_EQ(o.code, 0);
    EXPECT_EQ(o.message, c.expected);
    zel_headers_cleanup(headers);
    if (h != h_) zel_cleanup(h);
  }
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(RequestPathTest, SessionIdsThatWouldChangeTheStatusUrlAreRefused) {
  server_.clear_requests();
  for (const char* id : {"a/../b", "a?x", "a#b", "a%2F", "a b"}) {
    SCOPED_TRACE(id);
    Outcome o;
    ZELGetObjectSessionOpt s{u"bkt", u"k", id, nullptr, zeltest::outcome_status<ZELGetObjectSessionResp>,
                             nullptr};
    zel_get_object_session(h_, &s, &o);
    ASSERT_TRUE(o.wait_once());
    EXPECT_EQ(o.code, 0);
    EXPECT_EQ(o.message, "The session id holds characters a URL path cannot carry as they are");
  }
  wait_for_workers();
  EXPECT_TRUE(server_.requests().empty());
}

struct SessionSeen {
  std::atomic<int> sessions{0};
  std::atomic<int> ranges{-1};
};
SessionSeen* g_seen = nullptr;
void on_session(const ZELObjectSession* session, void* user_data) {
  g_seen->ranges.store(session->ranges != nullptr ? static_cast<int>(session->ranges->count) : 0);
  g_seen->sessions++;
  auto* o = static_cast<Outcome*>(user_data);
  std::lock_guard<std::mutex> lock(o->mutex);
  o->finish();
}

// A session that holds no byte yet and the completed session of an empty
// object both read as empty lists. (Resuming such a session is the upload
// tests' business, its survival across a restart the emulator's.)
TEST_F(RequestPathTest, SessionsHoldingNoBytesReadAsEmptyLists) {
  SessionSeen seen;
  g_seen = &seen;
  // The first chunk never landed: its body broke off.
  zeltest::HttpResult r =
      zeltest::http("PUT", server_.api(2) + "/buckets/bkt/objects/big/resumable",
                    {zeltest::kAuthHeader, "Session-Id: s-empty", "Content-Range: bytes 0-99/200"}, "short");
  EXPECT_EQ(r.status, 400);
  Outcome o;
  ZELGetObjectSessionOpt s{
      u"bkt", u"big", "s-empty", nullptr, zeltest::outcome_status<ZELGetObjectSessionResp>, on_session};
  zel_get_object_session(h_, &s, &o);
  ASSERT_TRUE(o.wait_once()) << o.message;
  EXPECT_EQ(seen.sessions.load(), 1) << o.code << " " << o.message;
  EXPECT_EQ(seen.ranges.load(), 0);

  dir_.write("empty", "");
  PutOptions e("bkt", "empty", dir_.file("empty"));
  e.opt.session_id = "s-zero";
  Outcome put_empty;
  zel_put_object(h_, &e.opt, &put_empty);
  ASSERT_TRUE(put_empty.wait_once());
  EXPECT_EQ(put_empty.details, 1) << put_empty.message;
  seen.ranges.store(-1);
  Outcome o2;
  ZELGetObjectSessionOpt s2{
      u"bkt", u"empty", "s-zero", nullptr, zeltest::outcome_status<ZELGetObjectSessionResp>, on_session};
  zel_get_object_session(h_, &s2, &o2);
  ASSERT_TRUE(o2.wait_once());
  EXPECT_EQ(seen.sessions.load(), 2) << o2.code << " " << o2.message;
  EXPECT_EQ(seen.ranges.load(), 0);
}

struct Overwrite {
  std::string url;
  std::string data;
  std::atomic<bool> done{false};
};
Overwrite* g_overwrite = nullptr;
int32_t overwrite_once(uint64_t, uint64_t, void*) {
  if (!g_overwrite->done.exchange(true)) {
    zeltest::http("PUT", g_overwrite->url,
                  {zeltest::kAuthHeader, "Session-Id: other",
                   "Content-Range: bytes 0-" + std::to_string(g_overwrite->data.size() - 1) + "/" +
                       std::to_string(g_overwrite->data.size())},
                  g_overwrite->data);
  }
  return 0;
}

TEST_F(RequestPathTest, DownloadSpanningAnOverwriteFails) {
  store("moving", 6 * kChunk, 11);
  Overwrite change;
  change.url = server_.api(2) + "/buckets/bkt/objects/moving";
  change.data = pattern_bytes(6 * kChunk, 12);  // same size, other bytes
  g_overwrite = &change;
  h_->thread_pool_size = 1;  // chunks one after another, so the change lands mid-way
  GetOptions g("bkt", "moving", dir_.file("moving"));
  g.opt.progress_callback = overwrite_once;
  Outcome o;
  zel_get_object(h_, &g.opt, &o);
  ASSERT_TRUE(o.wait_once());
  EXPECT_EQ(o.done, 0);
  EXPECT_EQ(o.message, "The downloaded bytes do not match the object's SHA-1");
  h_->thread_pool_size = 8;
}

TEST_F(RequestPathTest, RangesThatWrapAreRefused) {
  server_.clear_requests();
  GetOptions g("bkt", "x", dir_.file("x"));
  g.set_range(0, UINT64_MAX);
  Outcome o;
  zel_get_object(h_, &g.opt, &o);
  ASSERT_TRUE(o.wait_once());
  EXPECT_EQ(o.done, 0);
  EXPECT_EQ(o.message, "The range is too large");
  wait_for_workers();
  EXPECT_TRUE(server_.requests().empty());
}

// In-memory answers stop at 8 MiB: a details answer of 9 MiB fails.
TEST(RequestPathMemory, InMemoryAnswersAreCapped) {
  zeltest::RawHttpServer raw;
  raw.script(zeltest::RawHttpServer::reply(200, "OK", std::string(9u << 20, ' ')));
  HttpPlan plan;
  std::string url = raw.url("/big");
  plan.url = url.c_str();
  HttpExchange exchange;
  EXPECT_FALSE(exchange.run(plan));
  EXPECT_STREQ(exchange.error(), "The answer is larger than the 8 MiB held in memory");
  EXPECT_FALSE(exchange.retryable());
  EXPECT_LE(exchange.delivered(), kHttpBodyCap);
}

TEST(RequestPathArithmetic, RangesAndContentRanges) {
  uint64_t length = 0;
  EXPECT_TRUE(http_range_length(0, 9, &length));
  EXPECT_EQ(length, 10u);
  EXPECT_FALSE(http_range_length(0, UINT64_MAX, &length)) << "would wrap to 0";
  EXPECT_FALSE(http_range_length(5, 4, &length));
  EXPECT_FALSE(http_range_length(kHttpMaxOffset, kHttpMaxOffset, &length));
  uint64_t first = 0, last = 0, total = 0;
  EXPECT_TRUE(http_parse_content_range(" bytes 0-9/1000", &first, &last, &total));
  EXPECT_EQ(first + last + total, 1009u);
  for (const char* bad : {"bytes 9-0/10", "bytes 0-9/9", "bytes 0-9/*", "bytes -1-9/10", "bytes 0-9",
                          "bytes 0-99999999999999999999/1", "items 0-9/10", ""}) {
    EXPECT_FALSE(http_parse_content_range(bad, &first, &last, &total)) << bad;
  }
}

// Retries after 5xx answers wait, doubling; a 4xx is not retried at all.
TEST_F(RequestPathTest, RetriesWaitWithBackoffAndRefusalsDoNot) {
  put_object("bkt", "r", pattern_bytes(2 * kChunk, 1));
  transfer_set_backoff(40, 1000);
  ASSERT_TRUE(server_.add_fault(R"({"method":"GET","path":"/objects/r$","times":3,"status":503})"));
  GetOptions g("bkt", "r", dir_.file("r"));
  Outcome o;
  auto start = std::chrono::steady_clock::now();
  zel_get_object(h_, &g.opt, &o);
  ASSERT_TRUE(o.wait_once());
  auto took = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(o.done, 1) << o.code << " " << o.message;
  // Three failures: at least half of 40, then 80, then (by one chunk or
  // another) 40 ms again.
  EXPECT_GE(took, std::chrono::milliseconds(20 + 40));

  ASSERT_TRUE(server_.add_fault(R"({"method":"GET","path":"/objects/r$","times":1,"status":409})"));
  h_->chunk_size = 4 * kChunk;  // one request
  server_.clear_requests();
  GetOptions g2("bkt", "r", dir_.file("r2"));
  Outcome o2;
  zel_get_object(h_, &g2.opt, &o2);
  ASSERT_TRUE(o2.wait_once());
  EXPECT_EQ(o2.code, 409);
  EXPECT_EQ(zeltest::matching(server_.requests(), "GET", "/objects/r").size(), 2u) << "details and one GET";
}

// Shut-down does not wait out a retry's backoff.
TEST_F(RequestPathTest, ShutdownInterruptsTheWait) {
  put_object("bkt", "w", pattern_bytes(2 * kChunk, 2));
  transfer_set_backoff(5000, 5000);
  ASSERT_TRUE(server_.add_fault(R"({"method":"GET","path":"/objects/w$","status":500})"));
  GetOptions g("bkt", "w", dir_.file("w"));
  Outcome o;
  zel_get_object(h_, &g.opt, &o);
  // Both chunks have failed once and wait for their retry.
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (zeltest::matching(server_.requests(), "GET", "/objects/w").size() < 3 &&
         std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  auto start = std::chrono::steady_clock::now();
  zel_global_cleanup();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
  ASSERT_EQ(zel_global_init(), 0);  // for the fixture's own shut-down
}

// A redirect to another host is followed only when the request carries
// nothing private: no token and none of the caller's lines.
TEST(RequestPathRedirects, PrivateHeadersNeverFollowToAnotherHost) {
  zeltest::RawHttpServer other;
  other.set_fallback(zeltest::RawHttpServer::reply(200, "OK", "{}"));
  zeltest::RawHttpServer first;
  first.set_fallback(zeltest::RawHttpServer::reply(302, "Found", "", {"Location: " + other.url("/there")}));
  std::string url = first.url("/here");
  ZELHeaders* headers = zel_headers_append(nullptr, "X-Secret", "s3cret");
  HttpPlan plan;
  plan.url = url.c_str();
  plan.headers = headers;
  HttpExchange refused;
  EXPECT_FALSE(refused.run(plan));
  EXPECT_STREQ(refused.error(),
               "The answer redirects to another host, where the request's headers must not go");
  EXPECT_TRUE(other.requests().empty());
  plan.headers = nullptr;
  HttpExchange followed;
  EXPECT_TRUE(followed.run(plan));
  EXPECT_EQ(followed.status(), 200);
  ASSERT_EQ(other.requests().size(), 1u);
  zel_headers_cleanup(headers);
}

// A details answer claiming a size of -1 reads as 2^64-1: refused, nothing
// fetched, no file of that size reserved.
TEST_F(RequestPathTest, ClaimedSizesBeyondWhatAFileCanHoldAreRefused) {
  store("claim", 1000, 13);
  std::string details =
      zeltest::http("GET", server_.api(2) + "/buckets/bkt/objects/claim/details", {zeltest::kAuthHeader})
          .body;
  size_t at = details.find("\"size\":1000");
  ASSERT_NE(at, std::string::npos) << details;
  details.replace(at, 11, "\"size\":-1");
  json_t* rule = json_pack("{s:s, s:s, s:i, s:s}", "method", "GET", "path", "claim/details", "status", 200,
                           "body", details.c_str());
  char* text = json_dumps(rule, 0);
  ASSERT_TRUE(server_.add_fault(text));
  free(text);
  json_decref(rule);
  server_.clear_requests();
  GetOptions g("bkt", "claim", dir_.file("claim"));
  Outcome o;
  zel_get_object(h_, &g.opt, &o);
  ASSERT_TRUE(o.wait_once());
  EXPECT_EQ(o.done, 0);
  EXPECT_EQ(o.message, "The object size is out of range");
  EXPECT_EQ(zeltest::matching(server_.requests(), "GET", "/objects/claim").size(), 1u) << "the details only";
}

}  // namespace
