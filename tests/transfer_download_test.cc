// Downloads against the emulator (and, for the size query by URL, a scripted
// raw server): the bytes in the file, the requests sent, the one report.
#include <atomic>
#include <cerrno>
#include <cstring>

#include "captured_log.h"
#include "get_object.h"
#include "httppool.h"
#include "raw_http_server.h"
#include "transfer_support.h"

namespace zeltest {
namespace {

constexpr uint64_t kChunk = 65536;

// A caller's own write function: the library must write through it, not
// past it.
std::atomic<size_t> g_caller_bytes{0};
size_t caller_write(const void* bytes, size_t size, size_t count, FILE* file) {
  g_caller_bytes += size * count;
  return fwrite(bytes, size, count, file);
}

class DownloadTest : public LibTest {
 protected:
  void SetUp() override {
    LibTest::SetUp();
    make_bucket("bkt");
    h_ = handle();
    h_->chunk_size = kChunk;
  }
  std::string store(const std::string& key, size_t size, uint32_t seed) {
    std::string data = pattern_bytes(size, seed);
    put_object("bkt", key, data);
    server_.clear_requests();
    return data;
  }
  // Downloads object `key` into file `key`, with exactly one report.
  void download(GetOptions& g, Outcome& o) {
    zel_get_object(h_, &g.opt, &o);
    ASSERT_TRUE(o.wait_once()) << "expected exactly one report";
    EXPECT_EQ(o.done, 1) << o.code << " " << o.message;
  }
  size_t requests(const char* part, const char* method = "GET") {
    return matching(server_.requests(), method, part).size();
  }
  ZEL* h_ = nullptr;
  ScratchDir dir_;
};

// The file's bytes show every chunk landed at its offset (a caller's range
// from offset zero); an object's details are asked before the chunks (size
// and SHA-1) and once after them (still the same object), while a range or
// an unknown size needs neither; without a size the whole answer comes in
// one request without Range. An empty object needs no GET, and a stale file
// of the same name is emptied, not appended to. A caller's write function
// takes every byte.
TEST_F(DownloadTest, ChunksLandAtTheirOffsets) {
  struct Case {
    size_t size;
    uint64_t chunk, start, end;  // no end: the whole object
    size_t requests;
    bool unknown, caller_stream = false;
  };
  const Case cases[] = {{kChunk, kChunk, 0, 0, 1, false},
                        {kChunk + 1, kChunk, 0, 0, 2, false},
                        {1000003, 16384, 0, 0, 62, false},
                        {0, kChunk, 0, 0, 0, false},
                        {300000, kChunk, 1000, 200000, 4, false},
                        {200000, kChunk, 0, 0, 1, true},
                        {3 * kChunk + 5, kChunk, 0, 0, 4, false, true}};
  int n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE("size " + std::to_string(c.size));
    std::string key = "obj" + std::to_string(n);
    std::string data = store(key, c.size, 40 + n++);
    h_->chunk_size = c.chunk;
    dir_.write(key, "stale bytes");
    GetOptions g("bkt", key, dir_.file(key));
    if (c.end > 0) g.set_range(c.start, c.end);
    g.opt.size_unknown = c.unknown;
    if (c.caller_stream) g.stream->write = caller_write;
    g_caller_bytes = 0;
    Outcome o;
    download(g, o);
    EXPECT_EQ(g_caller_bytes, c.caller_stream ? c.size : 0u);
    EXPECT_TRUE(read_file(dir_.file(key)) == (c.end > 0 ? data.substr(c.start, c.end - c.start + 1) : data));
    EXPECT_EQ(requests("/details"), c.end > 0 || c.unknown ? 0u : 2u);
    EXPECT_EQ(requests("/objects/") - requests("/details"), c.requests);
    if (c.unknown) {
      EXPECT_EQ(matching(server_.requests(), "GET", "/objects/").at(0).header("Range"), "");
    }
  }
}

TEST_F(DownloadTest, SizeByUrlReadsContentRangeTotalsBeyondFourGiB) {
  RawHttpServer raw;
  raw.script(RawHttpServer::reply(206, "Partial Content", "ab", {"Content-Range: bytes 0-1/5000000000"}));
  raw.script(RawHttpServer::reply(404, "Not Found", "{\"reason\":\"gone\"}"));
  std::u16string url = wide(raw.url("/some/object"));
  ZELGetObjectByURLOpt opt{};
  opt.download_url = url.c_str();
  opt.callback = outcome_status<ZELGetObjectByURLResp>;
  Outcome o;
  ZELGetObjectByURLDecorator decorator{h_, &opt, &o};
  int found = 0;
  EXPECT_EQ(query_object_size_by_url(&decorator, &found), 5000000000ull);
  EXPECT_EQ(found, 1);
  ASSERT_TRUE(raw.wait_for(1));
  EXPECT_EQ(raw.requests()[0].header("Range"), "bytes=0-1");
  EXPECT_EQ(raw.requests()[0].count("Authorization"), 0) << "no token unless asked for";
  EXPECT_EQ(query_object_size_by_url(&decorator, &found), 0u);
  EXPECT_EQ(found, 0);
  EXPECT_EQ(o.finals, 0) << "a 404 to the size query calls back nothing itself";
}

TEST_F(DownloadTest, EntryAndFileFailuresReportOnce) {
  store("obj", 100, 2);
  GetOptions g("bkt", "obj", dir_.file("missing-dir/obj"));
  Outcome o, none, gone;
  zel_get_object(h_, &g.opt, &o);
  ASSERT_TRUE(o.wait_once());
  EXPECT_EQ(std::to_string(o.code) + " " + o.message, std::to_string(ENOENT) + " " + std::strerror(ENOENT));
  g.opt.stream = nullptr;
  zel_get_object(h_, &g.opt, &none);
  EXPECT_EQ(std::to_string(none.finals) + " " + none.message, "1 ZELGetObjectOpt stream is (null)");
  // The size query reports the 404 itself, then the download gives up.
  GetOptions absent("bkt", "no-such-object", dir_.file("absent"));
  zel_get_object(h_, &absent.opt, &gone);
  ASSERT_TRUE(gone.wait_count(2));
  EXPECT_EQ(std::to_string(gone.callbacks) + " " + gone.message, "2 Cannot get object size");
}

// Uploads and downloads share one chunk engine: which failed statuses are
// retried, and that a progress callback cancels.
class ChunkRules : public DownloadTest, public ::testing::WithParamInterface<bool> {
 protected:
  bool up() const { return GetParam(); }
  const char* method() const { return up() ? "PUT" : "GET"; }
  // Moves `data` in the row's direction as object and file `key`.
  void run(const std::string& key, const std::string& data, Outcome& o, bool progress = false) {
    if (up()) dir_.write(key, data);
    PutOptions put("bkt", key, dir_.file(key));
    GetOptions get("bkt", key, dir_.file(key));
    put.opt.progress_callback = get.opt.progress_callback = progress ? on_progress : nullptr;
    up() ? zel_put_object(h_, &put.opt, &o) : zel_get_object(h_, &get.opt, &o);
    ASSERT_TRUE(o.wait_once()) << "expected exactly one report";
  }
  size_t chunk_requests() { return requests("/objects/", method()) - requests("/details", method()); }
  // A fault rule for the chunk requests of `key`; `from` narrows it to the
  // chunk starting there.
  bool fault(const std::string& key, const std::string& rest, const std::string& from = "") {
    std::string range = up() ? "Content-Range: bytes " : "Range: bytes=";
    std::string header = from.empty() ? "" : R"("header":")" + range + from + R"(",)";
    return server_.add_fault(std::string(R"({"method":")") + method() + R"(","path":"objects/)" + key +
                             R"((/resumable)?$",)" + header + rest + "}");
  }
};

INSTANTIATE_TEST_SUITE_P(BothWays, ChunkRules, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& row) { return row.param ? "Up" : "Down"; });

TEST_P(ChunkRules, FailedStatusesAreRetriedOnlyWhenWorthIt) {
  CapturedLog log;  // each retry logs a line
  std::string data = store("retry", kChunk + 10, 33);
  {
    SCOPED_TRACE("500: retried five times");
    ASSERT_TRUE(fault("retry", R"("status":500,"times":-1)", "65536-"));
    Outcome o;
    run("retry", data, o);
    EXPECT_EQ(o.code, 500);
    EXPECT_EQ(o.message, up() ? "Resumable upload failed or was cancelled" : "Chunk Download Failed");
    EXPECT_EQ(o.chunk_failures.size(), up() ? 1u : 0u);
    EXPECT_EQ(chunk_requests(), 7u) << "one good chunk and six tries of the failing one";
    server_.clear_faults();
  }
  {
    SCOPED_TRACE("504 is retried and gives up one place in the request pool");
    server_.clear_requests();
    ASSERT_TRUE(fault("retry", R"("status":504,"times":1)"));
    Outcome o;
    run("retry", data, o);
    EXPECT_EQ(up() ? o.details : o.done, 1) << o.code << " " << o.message;
    EXPECT_EQ(up() ? o.sha1 : sha1_hex(read_file(dir_.file("retry"))), sha1_hex(data))
        << "an error body never reaches the data";
    EXPECT_EQ(chunk_requests(), 3u);
    EXPECT_EQ(http_pool_available(), 7);
  }
}

// A progress_callback that answers non-zero cancels without retry. (The
// sums progress reports see are the progress counter's tests'.)
TEST_P(ChunkRules, ProgressCallbackCancels) {
  std::string data = pattern_bytes(10 * kChunk + 123, 77);
  if (!up()) store("cancelled", data.size(), 77);
  // The service holds each chunk back, so every chunk is still in flight
  // when its first progress report cancels it.
  ASSERT_TRUE(fault("cancelled", R"("delay_ms":300,"times":-1)"));
  Outcome o;
  o.cancel_after = 0;
  run("cancelled", data, o, true);
  EXPECT_EQ(o.callbacks, 1);
  EXPECT_EQ(o.code, 42);
  EXPECT_LE(chunk_requests(), 11u) << "no chunk is retried after a cancel";
  if (up()) {
    EXPECT_EQ(o.chunk_failures.size(), 11u);
    EXPECT_EQ(http("GET", server_.api(2) + "/buckets/bkt/objects/cancelled", {kAuthHeader}).status, 404)
        << "a cancelled upload stores nothing";
  }
}

}  // namespace
}  // namespace zeltest
