// Uploads against the emulator: what arrives in the store, what went over
// the wire (the request journal), and what the caller was told.
#include <set>

#include "alloc.h"
#include "captured_log.h"
#include "chunk_ledger.h"
#include "put_object.h"
#include "raw_http_server.h"
#include "transfer_support.h"

namespace zeltest {
namespace {

constexpr uint64_t kChunk = 65536;

class UploadTest : public LibTest {
 protected:
  void SetUp() override {
    LibTest::SetUp();
    make_bucket("bkt");
    h_ = handle();
    h_->chunk_size = kChunk;
  }

  std::string stored(const std::string& key) {
    HttpResult r = http("GET", server_.api(2) + "/buckets/bkt/objects/" + key, {kAuthHeader});
    EXPECT_EQ(r.status, 200) << key;
    return r.body;
  }

  std::vector<RecordedRequest> puts() { return matching(server_.requests(), "PUT", "/objects/"); }

  // Uploads `data` as `key` and waits for the single report.
  void upload(PutOptions& p, Outcome& o) {
    zel_put_object(h_, &p.opt, &o);
    ASSERT_TRUE(o.wait_once()) << "expected exactly one report";
  }

  ZEL* h_ = nullptr;
  ScratchDir dir_;
};

// The stored bytes show every chunk landed at its offset; every byte goes
// up once, under one generated session id. A file of one chunk goes up
// whole; an empty one as one empty PUT without a (wrapped-around) range.
// Chunks start in file order, whatever order the worker queue runs its
// tasks in, and only a window of them is queued: with one worker every
// chunk arrives in order.
TEST_F(UploadTest, ChunkBoundariesChooseThePathAndKeepTheBytes) {
  struct Case {
    uint64_t size, chunk;
    size_t requests;
    bool resumable;
  };
  const Case cases[] = {{kChunk, kChunk, 1, false},
                        {kChunk + 1, kChunk, 2, true},
                        {300000, 1024, 293, true},
                        {0, kChunk, 1, false}};
  h_->thread_pool_size = 1;
  int n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE("size " + std::to_string(c.size) + " chunk " + std::to_string(c.chunk));
    std::string key = "boundary" + std::to_string(n);
    std::string data = pattern_bytes(c.size, 11 + n++);
    h_->chunk_size = c.chunk;
    server_.clear_requests();
    chunk_ledger_reset_peak();
    PutOptions p("bkt", key, dir_.write(key, data));
    Outcome o;
    upload(p, o);
    EXPECT_EQ(o.details, 1) << o.code << " " << o.message;
    EXPECT_EQ(o.sha1 + " " + std::to_string(o.size), sha1_hex(data) + " " + std::to_string(c.size));
    EXPECT_EQ(stored(key), data);
    EXPECT_GE(chunk_ledger_peak_queued(), c.resumable ? 1u : 0u);
    EXPECT_LE(chunk_ledger_peak_queued(), kChunkWindowPerWorker) << "queued chunks stay bounded";
    auto sent = puts();
    ASSERT_EQ(sent.size(), c.requests);
    std::set<std::string> ids;
    uint64_t body_bytes = 0;
    for (size_t i = 0; i < sent.size(); i++) {
      EXPECT_EQ(sent[i].target.find("/resumable") != std::string::npos, c.resumable) << sent[i].target;
      if (c.size > 0) {
        EXPECT_EQ(std::stoull(sent[i].header("Content-Range").substr(6)), i * c.chunk) << "file order";
      }
      ids.insert(sent[i].header("Session-Id"));
      body_bytes += sent[i].body_size;
    }
    EXPECT_EQ(sent[0].header("Content-Range").empty(), c.size == 0);
    EXPECT_EQ(body_bytes, c.size);
    EXPECT_EQ(ids.size(), 1u);
  }
}

// A missing key is reported once; without a handle there is only the log.
// (A missing stream is refused by the check the download test makes.)
TEST_F(UploadTest, EntryRefusalsAreReportedOnce) {
  CapturedLog log;
  PutOptions p("bkt", "x", dir_.write("x", "abc"));
  p.opt.key = nullptr;
  Outcome missing, silent;
  upload(p, missing);
  EXPECT_EQ(std::to_string(missing.code) + " " + missing.message, "0 ZELPutObjectOpt key is (null)");
  zel_put_object(nullptr, &p.opt, &silent);
  EXPECT_EQ(silent.finals, 0);
  EXPECT_EQ(CapturedLog::last("src\\object"), "ZEL is not initialized");
}

// A body sent in full and answered with a redirect is sent again from its
// first byte: the request can put its source back.
TEST_F(UploadTest, RedirectedPutSendsItsBodyAgain) {
  RawHttpServer raw;
  raw.script(RawHttpServer::reply(307, "Temporary Redirect", "", {"Location: " + raw.url("/again")}));
  raw.set_fallback(RawHttpServer::reply(202, "Accepted", ""));
  ASSERT_EQ(zel_set_environment_url(ZEL_ENV_LOCAL, raw.url("").c_str()), 0);
  std::string data = pattern_bytes(3000, 8);
  PutOptions p("bkt", "moved", dir_.write("moved", data));
  Outcome o;
  upload(p, o);
  ASSERT_EQ(zel_set_environment_url(ZEL_ENV_LOCAL, server_.base_url().c_str()), 0);
  EXPECT_EQ(o.details, 1) << o.code << " " << o.message;
  auto requests = raw.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[1].request_line.substr(0, 10), "PUT /again");
  EXPECT_EQ(requests[1].body, data);
}

TEST(SessionId, HexAndNeverRepeated) {
  std::set<std::string> seen;
  for (int i = 0; i < 2000; i++) {
    char* id = generate_session_id();
    std::string text(id);
    mem_free(id);
    ASSERT_EQ(text.size(), 32u) << text;
    ASSERT_EQ(text.find_first_not_of("0123456789abcdef"), std::string::npos) << text;
    // Uploads started in the same instant must not share a session.
    EXPECT_TRUE(seen.insert(text).second) << "repeated id " << text;
  }
}

}  // namespace
}  // namespace zeltest
