// Downloads against the emulator (and, for the size query by URL, a scripted
// raw server): the bytes in the file, the requests sent, the one report.
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
  size_t requests(const char* part) { return matching(server_.requests(), "GET", part).size(); }
  ZEL* h_ = nullptr;
  ScratchDir dir_;
};

// The file's bytes show every chunk landed at its offset (a caller's range
// from offset zero); an object's details are asked before the chunks (size
// and SHA-1) and once after them (still the same object), while a range
// needs neither. An empty object needs no GET, and a stale file of the same
// name is emptied, not appended to.
TEST_F(DownloadTest, ChunksLandAtTheirOffsets) {
  struct Case {
    size_t size;
    uint64_t chunk, start, end;  // no end: the whole object
    size_t requests;
  };
  const Case cases[] = {{kChunk, kChunk, 0, 0, 1},
                        {kChunk + 1, kChunk, 0, 0, 2},
                        {1000003, 16384, 0, 0, 62},
                        {0, kChunk, 0, 0, 0},
                        {300000, kChunk, 1000, 200000, 4}};
  int n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE("size " + std::to_string(c.size));
    std::string key = "obj" + std::to_string(n);
    std::string data = store(key, c.size, 40 + n++);
    h_->chunk_size = c.chunk;
    dir_.write(key, "stale bytes");
    GetOptions g("bkt", key, dir_.file(key));
    if (c.end > 0) g.set_range(c.start, c.end);
    Outcome o;
    download(g, o);
    EXPECT_TRUE(read_file(dir_.file(key)) == (c.end > 0 ? data.substr(c.start, c.end - c.start + 1) : data));
    EXPECT_EQ(requests("/details"), c.end > 0 ? 0u : 2u);
    EXPECT_EQ(requests("/objects/") - requests("/details"), c.requests);
  }
}

// Without a size the whole answer comes in one request without Range, and
// progress takes its total from the transfer. (The delta header's signature
// download, which takes the same path, is the match operation's.)
TEST_F(DownloadTest, UnknownSizeFetchesEverythingInOneRequest) {
  std::string data = store("unknown", 200000, 12);
  GetOptions g("bkt", "unknown", dir_.file("unknown"));
  g.opt.size_unknown = 1;
  g.opt.progress_callback = on_progress;
  Outcome o;
  download(g, o);
  auto sent = matching(server_.requests(), "GET", "/objects/");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].header("Range"), "");
  EXPECT_EQ(read_file(dir_.file("unknown")), data);
  EXPECT_EQ(o.progress_total, data.size());
  EXPECT_EQ(o.progress_max, data.size());
}

// By URL the token goes only when asked for: without it the size query
// reports the 401 itself, then the download gives up.
TEST_F(DownloadTest, ByUrlWithAndWithoutToken) {
  std::string data = store("byurl", 3 * kChunk + 1, 91);
  std::u16string url = wide(server_.api(2) + "/buckets/bkt/objects/byurl");
  GetOptions g("bkt", "byurl", dir_.file("byurl"));
  ZELGetObjectByURLOpt opt{
      url.c_str(),  true,    nullptr, g.stream, nullptr, 0, outcome_status<ZELGetObjectByURLResp>,
      outcome_done, nullptr, nullptr};
  Outcome o, refused, nohandle;
  zel_get_object_by_url(h_, &opt, &o);
  ASSERT_TRUE(o.wait_once());
  EXPECT_EQ(o.done, 1) << o.code << " " << o.message;
  EXPECT_EQ(read_file(dir_.file("byurl")), data);
  opt.authenticate = false;
  zel_get_object_by_url(h_, &opt, &refused);
  ASSERT_TRUE(refused.wait_count(2));
  EXPECT_EQ(refused.callbacks, 2);
  EXPECT_EQ(refused.message, "Cannot get object size");
  zel_get_object_by_url(nullptr, &opt, &nohandle);
  EXPECT_EQ(nohandle.finals, 1);
  EXPECT_EQ(nohandle.message, "Cannot allocate memory for ZELGetObjectByURLDecorator");
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
  Outcome o;
  zel_get_object(h_, &g.opt, &o);
  ASSERT_TRUE(o.wait_once());
  EXPECT_EQ(o.code, ENOENT);
  EXPECT_EQ(o.message, std::strerror(ENOENT));
  g.opt.stream = nullptr;
  Outcome none;
  zel_get_object(h_, &g.opt, &none);
  EXPECT_EQ(none.finals, 1);
  EXPECT_EQ(none.message, "ZELGetObjectOpt stream is (null)");
  // The size query reports the 404 itself, then the download gives up.
  GetOptions absent("bkt", "no-such-object", dir_.file("absent"));
  Outcome gone;
  zel_get_object(h_, &absent.opt, &gone);
  ASSERT_TRUE(gone.wait_count(2));
  EXPECT_EQ(gone.callbacks, 2);
  EXPECT_EQ(gone.message, "Cannot get object size");
}

// Uploads and downloads share one chunk engine: which failed statuses are
// retried (each retry logged with its number), what progress reports see,
// and that a progress callback can cancel.
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
  // The data arrived: in the store's details, or in the file.
  void expect_arrived(const std::string& key, const std::string& data, const Outcome& o) {
    EXPECT_EQ(up() ? o.details : o.done, 1) << o.code << " " << o.message;
    EXPECT_EQ(up() ? o.sha1 : sha1_hex(read_file(dir_.file(key))), sha1_hex(data))
        << "an error body never reaches the data";
  }
  size_t chunk_requests() {
    return matching(server_.requests(), method(), "/objects/").size() -
           matching(server_.requests(), method(), "/details").size();
  }
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
  CapturedLog log;
  std::string data = store("retry", kChunk + 10, 33);
  {
    SCOPED_TRACE("500: retried five times, each retry logged with its number");
    ASSERT_TRUE(fault("retry", R"("status":500,"times":-1)", "65536-"));
    Outcome o;
    run("retry", data, o);
    EXPECT_EQ(o.code, 500);
    EXPECT_EQ(o.message, up() ? "Resumable upload failed or was cancelled" : "Chunk Download Failed");
    EXPECT_EQ(o.chunk_failures.size(), up() ? 1u : 0u);
    std::vector<std::string> lines = CapturedLog::messages(up() ? "src\\put_object" : "src\\get_object");
    ASSERT_EQ(lines.size(), 5u);
    for (int n = 1; n <= 5; n++) {
      EXPECT_EQ(lines[n - 1],
                std::string("Chunk (65536-65545/65546) ") + (up() ? "upload" : "download") +
                    " failed (status: 500, error: " + (up() ? "Injected fault" : "Chunk Download Failed") +
                    ") - retry #" + std::to_string(n));
    }
    EXPECT_EQ(chunk_requests(), 7u) << "one good chunk and six tries of the failing one";
    server_.clear_faults();
  }
  {
    SCOPED_TRACE("504 is retried and gives up one place in the request pool");
    server_.clear_requests();
    ASSERT_TRUE(fault("retry", R"("status":504,"times":1)"));
    Outcome o;
    run("retry", data, o);
    expect_arrived("retry", data, o);
    EXPECT_EQ(chunk_requests(), 3u);
    EXPECT_EQ(http_pool_available(), 7);
  }
}

TEST_P(ChunkRules, ProgressSumsToTheSizeAndCanCancel) {
  std::string data = store("progress", 10 * kChunk + 123, 77);
  {
    Outcome o;
    run("progress", data, o, true);
    expect_arrived("progress", data, o);
    EXPECT_EQ(o.progress_max, data.size());
    EXPECT_EQ(o.progress_total, data.size());
    EXPECT_EQ(o.stats, 11);
    EXPECT_EQ(o.stats_bytes, static_cast<double>(data.size()));
  }
  SCOPED_TRACE("a progress_callback that answers non-zero cancels without retry");
  server_.clear_requests();
  // The service holds each chunk back, so every chunk is still in flight
  // when its first progress report cancels it.
  ASSERT_TRUE(fault("cancelled", R"("delay_ms":300,"times":-1)"));
  Outcome o;
  o.cancel_after = 0;
  if (!up()) store("cancelled", data.size(), 77);
  run("cancelled", data, o, true);
  EXPECT_EQ(o.callbacks, 1);
  EXPECT_EQ(o.code, 42);
  EXPECT_LE(chunk_requests(), 11u) << "no chunk is retried after a cancel";
  if (up()) {
    EXPECT_EQ(o.chunk_failures.size(), 11u);
    for (const auto& f : o.chunk_failures) EXPECT_EQ(f.first, 42);
    EXPECT_EQ(http("GET", server_.api(2) + "/buckets/bkt/objects/cancelled", {kAuthHeader}).status, 404)
        << "a cancelled upload stores nothing";
  }
}

}  // namespace
}  // namespace zeltest
