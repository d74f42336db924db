// Uploads against the emulator: what arrives in the store, what went over
// the wire (the request journal), and what the caller was told.
#include <cerrno>
#include <cstring>
#include <set>

#include "alloc.h"
#include "captured_log.h"
#include "chunk_ledger.h"
#include "put_object.h"
#include "raw_http_server.h"
#include "transfer_support.h"

namespace {

using zeltest::http;
using zeltest::kAuthHeader;
using zeltest::Outcome;
using zeltest::pattern_bytes;
using zeltest::PutOptions;
using zeltest::sha1_hex;

constexpr uint64_t kChunk = 65536;

class UploadTest : public zeltest::LibTest {
 protected:
  void SetUp() override {
    LibTest::SetUp();
    make_bucket("bkt");
    h_ = handle();
    h_->chunk_size = kChunk;
  }

  std::string stored(const std::string& key) {
    zeltest::HttpResult r = http("GET", server_.api(2) + "/buckets/bkt/objects/" + key, {kAuthHeader});
    EXPECT_EQ(r.status, 200) << key;
    return r.body;
  }

  std::vector<zeltest::RecordedRequest> puts() {
    return zeltest::matching(server_.requests(), "PUT", "/objects/");
  }

  // Uploads `data` as `key` and waits for the single report.
  void upload(PutOptions& p, Outcome& o) {
    zel_put_object(h_, &p.opt, &o);
    ASSERT_TRUE(o.wait_once()) << "expected exactly one report";
  }

  ZEL* h_ = nullptr;
  zeltest::ScratchDir dir_;
};

TEST_F(UploadTest, ChunkBoundariesChooseThePathAndKeepTheBytes) {
  struct Case {
    uint64_t size;
    uint64_t chunk;
    size_t requests;
    bool resumable;
  };
  const Case cases[] = {{kChunk, kChunk, 1, false}, {kChunk + 1, kChunk, 2, true}, {300000, 4096, 74, true}};
  int n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE("size " + std::to_string(c.size) + " chunk " + std::to_string(c.chunk));
    std::string key = "boundary" + std::to_string(n);
    std::string data = pattern_bytes(c.size, 11 + n++);
    h_->chunk_size = c.chunk;
    server_.clear_requests();
    PutOptions p("bkt", key, dir_.write(key, data));
    Outcome o;
    upload(p, o);
    EXPECT_EQ(o.details, 1) << o.code << " " << o.message;
    EXPECT_EQ(o.sha1, sha1_hex(data));
    EXPECT_EQ(stored(key), data);
    auto sent = puts();
    ASSERT_EQ(sent.size(), c.requests);
    // The stored bytes show every chunk landed at its offset.
    std::set<std::string> ids;
    uint64_t body_bytes = 0;
    for (const auto& r : sent) {
      EXPECT_EQ(r.target.find("/resumable") != std::string::npos, c.resumable) << r.target;
      ids.insert(r.header("Session-Id"));
      body_bytes += r.body_size;
    }
    EXPECT_EQ(body_bytes, c.size) << "every byte goes up exactly once";
    ASSERT_EQ(ids.size(), 1u) << "one generated session id for the whole upload";
    EXPECT_EQ(ids.begin()->size(), 32u);
  }
}

TEST_F(UploadTest, EmptyFileIsOneEmptyPutEndingInDetails) {
  PutOptions p("bkt", "empty", dir_.write("empty", ""));
  Outcome o;
  upload(p, o);
  EXPECT_EQ(o.details, 1) << o.code << " " << o.message;
  EXPECT_EQ(o.size, 0u);
  EXPECT_EQ(o.sha1, sha1_hex(""));
  auto sent = puts();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].header("Content-Range"), "") << "no wrapped-around range for an empty file";
  EXPECT_EQ(sent[0].body_size, 0u);
}

TEST_F(UploadTest, ResumedUploadSendsOnlyTheMissingRanges) {
  std::string data = pattern_bytes(4 * kChunk + 500, 3);
  std::string path = dir_.write("resume", data);
  // The second chunk is refused once: the session keeps the other three.
  ASSERT_TRUE(
      server_.add_fault(R"({"method":"PUT","path":"resumable","header":"Content-Range: bytes 65536-",)"
                        R"("status":403,"times":1})"));
  PutOptions first("bkt", "resume", path);
  first.opt.session_id = "resume-session-0001";
  Outcome o1;
  upload(first, o1);
  EXPECT_EQ(o1.callbacks, 1);
  EXPECT_EQ(o1.code, 403);
  EXPECT_EQ(o1.message, "Resumable upload failed or was cancelled");
  ASSERT_EQ(o1.chunk_failures.size(), 1u);
  EXPECT_EQ(o1.chunk_failures[0], std::make_pair(int32_t{403}, std::string("Forbidden")));
  EXPECT_EQ(o1.chunks_done.size(), 4u);
  EXPECT_EQ(zeltest::matching(server_.requests(), "PUT", "resumable").size(), 5u) << "a 403 is not retried";

  zeltest::HttpResult status =
      http("GET", server_.api(2) + "/buckets/bkt/objects/resume/status/resume-session-0001", {kAuthHeader});
  ASSERT_EQ(status.status, 202);
  EXPECT_EQ(status.header("Range"), "bytes=0-65535,131072-262643");

  server_.clear_requests();
  PutOptions second("bkt", "resume", path);
  second.opt.session_id = "resume-session-0001";
  second.set_range(65536, 131071);
  Outcome o2;
  upload(second, o2);
  ASSERT_EQ(o2.details, 1) << o2.code << " " << o2.message;
  EXPECT_FALSE(o2.details_null);
  EXPECT_EQ(o2.sha1, sha1_hex(data));
  auto sent = puts();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].header("Content-Range"), "bytes 65536-131071/262644");
  EXPECT_EQ(sent[0].header("Session-Id"), "resume-session-0001");
  EXPECT_EQ(sent[0].body_size, kChunk);
  EXPECT_EQ(stored("resume"), data);
}

TEST_F(UploadTest, RangedUploadLandsAtItsOffsetsAndEndsWithoutDetails) {
  std::string data = pattern_bytes(200000, 5);
  PutOptions p("bkt", "ranged", dir_.write("ranged", data));
  p.opt.session_id = "ranged-session";
  p.set_range(70000, 199999);
  Outcome o;
  upload(p, o);
  EXPECT_EQ(o.details, 1);
  EXPECT_TRUE(o.details_null) << "the service still misses bytes 0-69999";
  EXPECT_EQ(o.chunks_done.size(), 2u);
  std::set<std::string> ranges;
  for (const auto& r : puts()) ranges.insert(r.header("Content-Range"));
  EXPECT_EQ(ranges, (std::set<std::string>{"bytes 70000-135535/200000", "bytes 135536-199999/200000"}));
  // The rest completes the object, whose bytes must all sit in place.
  PutOptions rest("bkt", "ranged", dir_.file("ranged"));
  rest.opt.session_id = "ranged-session";
  rest.set_range(0, 69999);
  Outcome o2;
  upload(rest, o2);
  ASSERT_EQ(o2.details, 1) << o2.code << " " << o2.message;
  EXPECT_EQ(o2.sha1, sha1_hex(data));
  EXPECT_EQ(stored("ranged"), data);
}

TEST_F(UploadTest, EntryRefusalsAreReportedOnTheCallingThread) {
  zeltest::CapturedLog log;
  PutOptions p("bkt", "nofile", dir_.file("does-not-exist"));
  Outcome o;
  zel_put_object(h_, &p.opt, &o);
  EXPECT_EQ(o.finals, 1) << "reported before the call returned";
  EXPECT_EQ(o.code, ENOENT);
  EXPECT_EQ(o.message, std::strerror(ENOENT));

  p.opt.stream = nullptr;
  Outcome none;
  zel_put_object(h_, &p.opt, &none);
  EXPECT_EQ(none.finals, 1);
  EXPECT_EQ(none.code, 0);
  EXPECT_EQ(none.message, "ZELPutObjectOpt stream is (null)");

  Outcome silent;
  zel_put_object(nullptr, &p.opt, &silent);
  EXPECT_EQ(silent.finals, 0);
  EXPECT_EQ(zeltest::CapturedLog::last("src\\object"), "ZEL is not initialized");

  PutOptions nokey("bkt", "x", dir_.write("x", "abc"));
  nokey.opt.key = nullptr;
  Outcome missing;
  zel_put_object(h_, &nokey.opt, &missing);
  ASSERT_TRUE(missing.wait_once());
  EXPECT_EQ(missing.code, 0);
  EXPECT_EQ(missing.message, "ZELPutObjectOpt key is (null)");
}

TEST_F(UploadTest, OptionsMayBeFreedAtOnceAndBucketsAreCreatedOnDemand) {
  h_->auto_create_bucket = 1;
  server_.clear_requests();
  std::string data = pattern_bytes(3 * kChunk, 8);
  auto* p = new PutOptions("fresh-bucket", "obj", dir_.write("obj", data));
  Outcome o;
  zel_put_object(h_, &p->opt, &o);
  delete p;  // the queued upload works on its own copies
  ASSERT_TRUE(o.wait_once());
  EXPECT_EQ(o.details, 1) << o.code << " " << o.message;
  EXPECT_EQ(o.sha1, sha1_hex(data));
  auto journal = server_.requests();
  ASSERT_FALSE(journal.empty());
  EXPECT_EQ(journal.front().method, "POST") << "the bucket is made before the first chunk";
  EXPECT_EQ(zeltest::matching(journal, "POST", "/buckets").size(), 1u);
}

// Chunks start in file order, whatever order the worker queue runs its
// tasks in, and a transfer of many chunks keeps only a window of them
// queued: with one worker every chunk arrives in order, one after another.
TEST_F(UploadTest, ChunksStartInFileOrderFromABoundedWindow) {
  const uint64_t chunk = 512;
  const size_t chunks = 400;
  std::string data = pattern_bytes(chunk * chunks - 7, 21);
  h_->chunk_size = chunk;
  for (uint32_t workers : {1u, 3u}) {
    SCOPED_TRACE("workers " + std::to_string(workers));
    h_->thread_pool_size = workers;
    std::string key = "order" + std::to_string(workers);
    server_.clear_requests();
    chunk_ledger_reset_peak();
    PutOptions p("bkt", key, dir_.write(key, data));
    Outcome o;
    upload(p, o);
    EXPECT_EQ(o.details, 1) << o.code << " " << o.message;
    EXPECT_EQ(stored(key), data);
    EXPECT_GT(chunk_ledger_peak_queued(), 0u);
    EXPECT_LE(chunk_ledger_peak_queued(), workers * kChunkWindowPerWorker) << "queued chunks stay bounded";
    auto sent = puts();
    ASSERT_EQ(sent.size(), chunks);
    // With one worker, arrival order is start order. With more, a chunk can
    // be overtaken by those that started while it ran, and on a loaded
    // machine a worker can stall for many chunks; chunks started from the
    // end would put most of them hundreds of places out.
    size_t behind = 0;
    for (size_t i = 0; i < sent.size(); i++) {
      uint64_t first = std::stoull(sent[i].header("Content-Range").substr(6));
      size_t index = first / chunk;
      size_t late = i > index ? i - index : index - i;
      behind = std::max(behind, late);
    }
    EXPECT_LT(behind, workers == 1 ? 1u : chunks / 8) << "chunks go up in file order";
  }
}

// A body sent in full and answered with a redirect is sent again from its
// first byte: the request can put its source back.
TEST_F(UploadTest, RedirectedPutSendsItsBodyAgain) {
  zeltest::RawHttpServer raw;
  raw.script(
      zeltest::RawHttpServer::reply(307, "Temporary Redirect", "", {"Location: " + raw.url("/again")}));
  raw.set_fallback(zeltest::RawHttpServer::reply(202, "Accepted", ""));
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

TEST(SessionId, PrintableCodesInHexAndNeverRepeated) {
  std::set<std::string> seen;
  for (int i = 0; i < 2000; i++) {
    char* id = generate_session_id();
    ASSERT_NE(id, nullptr);
    std::string text(id);
    mem_free(id);
    ASSERT_EQ(text.size(), 32u) << text;
    ASSERT_EQ(text.find_first_not_of("0123456789abcdef"), std::string::npos) << text;
    for (size_t j = 0; j < 32; j += 2) {
      int code = std::stoi(text.substr(j, 2), nullptr, 16);
      EXPECT_GE(code, 0x21) << text;
      EXPECT_LE(code, 0x7e) << text;
    }
    // Uploads started in the same instant must not share a session.
    EXPECT_TRUE(seen.insert(text).second) << "repeated id " << text;
  }
}

}  // namespace
