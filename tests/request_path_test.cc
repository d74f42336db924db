// The one request path against a hostile network and a careless caller:
// answers cut, shortened, stalled, reset or redirected in circles by a
// proxy of the suite's own; URLs that do not fit; texts that would add
// header lines. Each case asserts the one reported outcome and, on success,
// the SHA-1 of the bytes.
#include <sys/stat.h>

#include <atomic>

#include "fault_proxy.h"
#include "http_plan.h"
#include "raw_http_server.h"
#include "transfer.h"
#include "transfer_support.h"

namespace {

using zeltest::Fault;
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
    proxy_ = std::make_unique<zeltest::FaultProxy>(server_.port());
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

  // Starts one operation and waits for its single report.
  template <class Opt>
  void run(void (*call)(ZEL*, const Opt*, void*), const Opt& opt, Outcome& o) {
    call(h_, &opt, &o);
    ASSERT_TRUE(o.wait_once()) << "exactly one report";
  }
  // A refusal: reported with code 0 and its message, nothing sent.
  static void expect_refused(const Outcome& o, const std::string& message) {
    EXPECT_EQ(o.code, 0);
    EXPECT_EQ(o.message, message);
  }
  void expect_nothing_sent() {
    wait_for_workers();
    EXPECT_TRUE(server_.requests().empty()) << "nothing may be sent";
  }

  std::unique_ptr<zeltest::FaultProxy> proxy_;
  ZEL* h_ = nullptr;
  zeltest::ScratchDir dir_;
};

// With retries left, a faulty chunk answer is retried and the bytes are
// right. With none left, a cut answer to a single request fails the
// download, never succeeds with zeros, and the file holds no more than
// what arrived.
TEST_F(RequestPathTest, FaultyAnswersAreRetriedOrFailTheDownload) {
  h_->low_speed_limit = 1000;  // a stalled answer is given up after a second
  h_->low_speed_time = 1;
  int n = 0;
  for (Fault fault : {Fault::cut_after_status, Fault::shorten_body, Fault::drop_length_and_cut,
                      Fault::short_body_length, Fault::reset_mid_body, Fault::stall}) {
    SCOPED_TRACE(zeltest::fault_name(fault));
    std::string key = "obj" + std::to_string(n), one = "one" + std::to_string(n);
    std::string data = store(key, 4 * kChunk + 7, 10 + n++);
    store(one, 40000, 3);
    proxy_->add_fault(Fault::none, key + " HTTP", 2);  // the third ranged GET (not the details) meets it
    proxy_->add_fault(fault, key + " HTTP", 1);
    proxy_->add_fault(fault, one + " HTTP", 1);
    GetOptions g("bkt", key, dir_.file(key)), single("bkt", one, dir_.file(one));
    Outcome o, cut;
    run(zel_get_object, g.opt, o);
    EXPECT_EQ(o.done, 1) << o.code << " " << o.message;
    EXPECT_EQ(sha1_hex(zeltest::read_file(dir_.file(key))), sha1_hex(data));
    h_->max_retries = 0;
    run(zel_get_object, single.opt, cut);
    h_->max_retries = 5;
    EXPECT_EQ(std::make_pair(cut.done, cut.callbacks), std::make_pair(0, 1)) << "one failure report";
    EXPECT_NE(cut.code, 200);
    EXPECT_LT(zeltest::read_file(dir_.file(one)).size(), 40000u)
        << "nothing reserved beyond the bytes written";
    if (fault == Fault::cut_after_status) {  // a short ranged answer names its fault
      EXPECT_EQ(cut.code, 206);
      EXPECT_EQ(cut.message, "The answer ended before every requested byte arrived");
    }
    EXPECT_EQ(proxy_->applied(fault), 2);
  }
}

// Disk blocks are reserved ahead of the chunks of a download; a download
// that fails gives back those of the chunks that never came.
TEST_F(RequestPathTest, AFailedChunkedDownloadKeepsNoBlocksPastItsEnd) {
  store("part", 32 * kChunk, 4);
  h_->max_retries = 0;
  proxy_->add_fault(Fault::reset_mid_body, "part HTTP", 1);
  GetOptions g("bkt", "part", dir_.file("part"));
  Outcome o;
  run(zel_get_object, g.opt, o);
  EXPECT_EQ(std::make_pair(o.done, o.callbacks), std::make_pair(0, 1));
  struct stat st {};
  ASSERT_EQ(stat(dir_.file("part").c_str(), &st), 0);
  EXPECT_LT(st.st_size, static_cast<off_t>(32 * kChunk));
  EXPECT_LE(st.st_blocks * 512, (st.st_size + 4095) / 4096 * 4096) << "blocks kept past the end";
}

TEST_F(RequestPathTest, RedirectLoopsEndAfterFiveHops) {
  store("loop", 10, 5);
  proxy_->add_fault(Fault::redirect_loop, "loop/details", 100);
  Outcome o;
  run(zel_get_object_details,
      ZELGetObjectDetailsOpt{u"bkt", u"loop", nullptr, zeltest::outcome_status<ZELGetObjectDetailsResp>,
                             zeltest::on_details},
      o);
  EXPECT_EQ(o.code, CURLE_TOO_MANY_REDIRECTS) << o.message;
  EXPECT_EQ(proxy_->applied(Fault::redirect_loop), 1 + kHttpMaxRedirects);
}

// A key long enough that its URL would be cut into the URL of a
// neighbouring object: every operation refuses it and sends nothing.
// (Details and undelete build their URL as delete does.)
TEST_F(RequestPathTest, OverLongKeysAreRefusedAndTheNeighbourIsUntouched) {
  std::string prefix = proxy_->base_url() + "/zel/v2/buckets/bkt/objects/";
  std::string neighbour(kHttpUrlMax - prefix.size(), 'V');
  std::string data = store(neighbour, 1000, 6);
  std::u16string mine = zeltest::wide(std::string(4060, 'V') + "-mine");
  dir_.write("src", pattern_bytes(3 * kChunk, 9));
  Outcome o[5];
  PutOptions p("bkt", "x", dir_.file("src"));
  p.opt.key = mine.c_str();
  run(zel_put_object, p.opt, o[0]);
  GetOptions g("bkt", "x", dir_.file("out"));
  g.opt.key = mine.c_str();
  run(zel_get_object, g.opt, o[1]);
  run(zel_delete_object,
      ZELDeleteObjectOpt{u"bkt", mine.c_str(), nullptr, zeltest::outcome_status<ZELDeleteObjectResp>,
                         zeltest::outcome_done},
      o[2]);
  for (int i : {3, 4}) {
    ZELCopyObjectOpt c{u"bkt",
                       i == 3 ? mine.c_str() : u"a",
                       i == 3 ? u"copy" : mine.c_str(),
                       zeltest::outcome_status<ZELCopyObjectResp>,
                       zeltest::on_details,
                       nullptr};
    run(zel_copy_object, c, o[i]);
  }
  for (const Outcome& each : o) expect_refused(each, "The request URL is too long");
  expect_nothing_sent();
  EXPECT_EQ(sha1_hex(zeltest::http("GET", server_.api(2) + "/buckets/bkt/objects/" + neighbour,
                                   {zeltest::kAuthHeader})
                         .body),
            sha1_hex(data));
  EXPECT_FALSE(zeltest::file_exists(dir_.file("out"))) << "the output file is not even created";
}

char* evil_token() { return strdup("tok\r\nX-Evil: 1"); }
void free_evil(char* token) { free(token); }

TEST_F(RequestPathTest, HostileTextsAreRefusedBeforeAnythingIsSent) {
  dir_.write("src", "hello");
  server_.clear_requests();
  const struct {
    const char* content_type;
    const char* session_id;
    const char* header_value;
    char* (*token)();
    const char* expected;
  } cases[] = {{"text/plain\r\nX-Evil: 1", nullptr, nullptr, nullptr, "The content type contains CR or LF"},
               {nullptr, "abc\nX-Evil: 1", nullptr, nullptr, "The session id contains CR or LF"},
               {nullptr, nullptr, "v\r\nX-Evil: 1", nullptr, "An extra header line contains CR or LF"},
               {nullptr, nullptr, nullptr, evil_token, "The bearer token contains CR or LF"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    ZEL* h = c.token != nullptr ? zel_init(ZEL_ENV_LOCAL, 2, c.token, free_evil) : h_;
    PutOptions p("bkt", "k", dir_.file("src"));
    p.opt.content_type = c.content_type;
    p.opt.session_id = c.session_id;
    p.opt.headers = c.header_value != nullptr ? zel_headers_append(nullptr, "X-A", c.header_value) : nullptr;
    Outcome o;
    zel_put_object(h, &p.opt, &o);
    ASSERT_TRUE(o.wait_once());
    expect_refused(o, c.expected);
    zel_headers_cleanup(p.opt.headers);
    if (h != h_) zel_cleanup(h);
  }
  // A session id that would change the status URL.
  for (const char* id : {"a/../b", "a?x", "a#b", "a%2F", "a b"}) {
    SCOPED_TRACE(id);
    Outcome o;
    run(zel_get_object_session,
        ZELGetObjectSessionOpt{u"bkt", u"k", id, nullptr, zeltest::outcome_status<ZELGetObjectSessionResp>,
                               nullptr},
        o);
    expect_refused(o, "The session id holds characters a URL path cannot carry as they are");
  }
  expect_nothing_sent();
}

std::atomic<int> g_ranges{-1};
void on_session(const ZELObjectSession* session, void* user_data) {
  g_ranges.store(session->ranges != nullptr ? static_cast<int>(session->ranges->count) : -2);
  auto* o = static_cast<Outcome*>(user_data);
  std::lock_guard<std::mutex> lock(o->mutex);
  o->finish();
}

// A session whose first chunk never landed (its body broke off) and the
// completed session of an empty object both read as empty lists.
TEST_F(RequestPathTest, SessionsHoldingNoBytesReadAsEmptyLists) {
  zeltest::HttpResult r =
      zeltest::http("PUT", server_.api(2) + "/buckets/bkt/objects/big/resumable",
                    {zeltest::kAuthHeader, "Session-Id: s-empty", "Content-Range: bytes 0-99/200"}, "short");
  EXPECT_EQ(r.status, 400);
  dir_.write("empty", "");
  PutOptions e("bkt", "empty", dir_.file("empty"));
  e.opt.session_id = "s-zero";
  Outcome put_empty;
  run(zel_put_object, e.opt, put_empty);
  EXPECT_EQ(put_empty.details, 1) << put_empty.message;
  for (auto [key, id] : {std::pair{u"big", "s-empty"}, std::pair{u"empty", "s-zero"}}) {
    g_ranges.store(-1);
    Outcome o;
    run(zel_get_object_session,
        ZELGetObjectSessionOpt{u"bkt", key, id, nullptr, zeltest::outcome_status<ZELGetObjectSessionResp>,
                               on_session},
        o);
    EXPECT_EQ(g_ranges.load(), 0) << id << ": " << o.code << " " << o.message;
  }
}

std::string g_overwrite_url, g_overwrite_data;
std::atomic<bool> g_overwritten{false};
int32_t overwrite_once(uint64_t, uint64_t, void*) {
  if (!g_overwritten.exchange(true)) {
    size_t size = g_overwrite_data.size();
    zeltest::http("PUT", g_overwrite_url,
                  {zeltest::kAuthHeader, "Session-Id: other",
                   "Content-Range: bytes 0-" + std::to_string(size - 1) + "/" + std::to_string(size)},
                  g_overwrite_data);
  }
  return 0;
}

// An object overwritten (same size, other bytes) while its chunks arrive
// one after another fails the download; a range that wraps is refused
// before anything is sent.
TEST_F(RequestPathTest, DownloadSpanningAnOverwriteFailsAndWrappingRangesAreRefused) {
  store("moving", 6 * kChunk, 11);
  g_overwrite_url = server_.api(2) + "/buckets/bkt/objects/moving";
  g_overwrite_data = pattern_bytes(6 * kChunk, 12);
  h_->thread_pool_size = 1;
  GetOptions g("bkt", "moving", dir_.file("moving"));
  g.opt.progress_callback = overwrite_once;
  Outcome o;
  run(zel_get_object, g.opt, o);
  EXPECT_EQ(o.done, 0);
  EXPECT_EQ(o.message, "The downloaded bytes do not match the object's SHA-1");
  h_->thread_pool_size = 8;

  server_.clear_requests();
  GetOptions wrap("bkt", "x", dir_.file("x"));
  wrap.set_range(0, UINT64_MAX);
  Outcome refused;
  run(zel_get_object, wrap.opt, refused);
  EXPECT_EQ(refused.done, 0);
  EXPECT_EQ(refused.message, "The range is too large");
  expect_nothing_sent();
}

// In-memory answers stop at 8 MiB; a redirect to another host is followed
// only when the request carries nothing private: no token and none of the
// caller's lines.
TEST(RequestPathExchange, AnswerCapAndPrivateHeadersOnRedirects) {
  zeltest::RawHttpServer raw, other;
  raw.script(zeltest::RawHttpServer::reply(200, "OK", std::string(9u << 20, ' ')));
  std::string url = raw.url("/big");
  HttpPlan plan;
  plan.url = url.c_str();
  HttpExchange big;
  EXPECT_FALSE(big.run(plan));
  EXPECT_STREQ(big.error(), "The answer is larger than the 8 MiB held in memory");
  EXPECT_FALSE(big.retryable());
  EXPECT_LE(big.delivered(), kHttpBodyCap);

  other.set_fallback(zeltest::RawHttpServer::reply(200, "OK", "{}"));
  raw.set_fallback(zeltest::RawHttpServer::reply(302, "Found", "", {"Location: " + other.url("/there")}));
  url = raw.url("/here");
  plan.url = url.c_str();
  ZELHeaders* secret = zel_headers_append(nullptr, "X-Secret", "s3cret");
  plan.headers = secret;
  HttpExchange refused, followed;
  EXPECT_FALSE(refused.run(plan));
  EXPECT_STREQ(refused.error(),
               "The answer redirects to another host, where the request's headers must not go");
  EXPECT_TRUE(other.requests().empty());
  zel_headers_cleanup(secret);
  plan.headers = nullptr;
  EXPECT_TRUE(followed.run(plan));
  EXPECT_EQ(followed.status(), 200);
  EXPECT_EQ(other.requests().size(), 1u);
}

// Well-formed values are read by every ranged download; here the ones that
// must be refused (a wrapping range is refused end to end above).
TEST(RequestPathArithmetic, RangesAndContentRanges) {
  uint64_t length = 0, first = 0, last = 0, total = 0;
  EXPECT_FALSE(http_range_length(5, 4, &length));
  EXPECT_FALSE(http_range_length(kHttpMaxOffset, kHttpMaxOffset, &length));
  for (const char* bad : {"bytes 9-0/10", "bytes 0-9/9", "bytes 0-9/*", "bytes -1-9/10", "bytes 0-9",
                          "bytes 0-99999999999999999999/1", "items 0-9/10", ""}) {
    EXPECT_FALSE(http_parse_content_range(bad, &first, &last, &total)) << bad;
  }
}

// Retries after 5xx answers wait, doubling: three failures wait at least
// half of 40, then 80, then (by one chunk or another) 40 ms again. A 4xx is
// not retried at all.
TEST_F(RequestPathTest, RetriesWaitWithBackoffAndRefusalsDoNot) {
  put_object("bkt", "r", pattern_bytes(2 * kChunk, 1));
  transfer_set_backoff(40, 1000);
  ASSERT_TRUE(server_.add_fault(R"({"method":"GET","path":"/objects/r$","times":3,"status":503})"));
  GetOptions g("bkt", "r", dir_.file("r"));
  Outcome o;
  auto start = std::chrono::steady_clock::now();
  run(zel_get_object, g.opt, o);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20 + 40));
  EXPECT_EQ(o.done, 1) << o.code << " " << o.message;

  ASSERT_TRUE(server_.add_fault(R"({"method":"GET","path":"/objects/r$","times":1,"status":409})"));
  h_->chunk_size = 4 * kChunk;  // one request
  server_.clear_requests();
  GetOptions g2("bkt", "r", dir_.file("r2"));
  Outcome o2;
  run(zel_get_object, g2.opt, o2);
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
  run(zel_get_object, g.opt, o);
  EXPECT_EQ(o.done, 0);
  EXPECT_EQ(o.message, "The object size is out of range");
  EXPECT_EQ(zeltest::matching(server_.requests(), "GET", "/objects/claim").size(), 1u) << "the details only";
}

}  // namespace
