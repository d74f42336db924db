// Downloads against the emulator (and, for the size query by URL, a scripted
// raw server): the bytes in the file, the requests sent, the one report.
#include <cerrno>
#include <cstring>
#include <memory>
#include <ostream>

#include "captured_log.h"
#include "get_object.h"
#include "httppool.h"
#include "raw_http_server.h"
#include "transfer_support.h"

namespace {

using zeltest::GetOptions;
using zeltest::http;
using zeltest::Outcome;
using zeltest::pattern_bytes;
using zeltest::PutOptions;
using zeltest::sha1_hex;

constexpr uint64_t kChunk = 65536;

class DownloadTest : public zeltest::LibTest {
 protected:
  void SetUp() override {
    LibTest::SetUp();
    make_bucket("bkt");
    h_ = handle();
    h_->chunk_size = kChunk;
  }

  std::string store(const std::string& key, size_t size, uint32_t seed) {
    std::string data = pattern_bytes(size, seed);
    if (size > 0) {
      put_object("bkt", key, data);
    } else {
      zeltest::HttpResult r =
          zeltest::http("PUT", server_.api(2) + "/buckets/bkt/objects/" + key, {zeltest::kAuthHeader}, "");
      EXPECT_EQ(r.status, 200) << r.body;
    }
    server_.clear_requests();
    return data;
  }

  void download(GetOptions& g, Outcome& o) {
    zel_get_object(h_, &g.opt, &o);
    ASSERT_TRUE(o.wait_once()) << "expected exactly one report";
  }

  std::vector<zeltest::RecordedRequest> gets() {
    std::vector<zeltest::RecordedRequest> out;
    for (const auto& r : zeltest::matching(server_.requests(), "GET", "/objects/")) {
      if (r.target.find("/details") == std::string::npos) out.push_back(r);
    }
    return out;
  }

  ZEL* h_ = nullptr;
  zeltest::ScratchDir dir_;
};

TEST_F(DownloadTest, ChunksLandAtTheirOffsets) {
  struct Case {
    size_t size;
    uint64_t chunk;
    size_t requests;
  };
  const Case cases[] = {{kChunk, kChunk, 1}, {kChunk + 1, kChunk, 2}, {1000003, 16384, 62}};
  int n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE("size " + std::to_string(c.size));
    std::string key = "obj" + std::to_string(n);
    std::string data = store(key, c.size, 40 + n++);
    h_->chunk_size = c.chunk;
    GetOptions g("bkt", key, dir_.file(key));
    Outcome o;
    download(g, o);
    EXPECT_EQ(o.done, 1) << o.code << " " << o.message;
    // The file's bytes show every chunk landed at its offset.
    EXPECT_TRUE(zeltest::read_file(dir_.file(key)) == data);
    EXPECT_EQ(gets().size(), c.requests);
    // One before (size and SHA-1) and one after the chunks (still the same object).
    EXPECT_EQ(zeltest::matching(server_.requests(), "GET", "/details").size(), 2u) << "size query and check";
  }
}

TEST_F(DownloadTest, EmptyObjectGivesAnEmptyFileWithoutAGet) {
  store("empty", 0, 1);
  // A stale file of the same name must be emptied, not appended to.
  dir_.write("empty", "stale bytes");
  GetOptions g("bkt", "empty", dir_.file("empty"));
  Outcome o;
  download(g, o);
  EXPECT_EQ(o.done, 1) << o.code << " " << o.message;
  EXPECT_TRUE(zeltest::file_exists(dir_.file("empty")));
  EXPECT_EQ(zeltest::read_file(dir_.file("empty")), "");
  EXPECT_TRUE(gets().empty());
}

TEST_F(DownloadTest, CallerRangesAreWrittenFromOffsetZero) {
  std::string data = store("ranged", 300000, 7);
  struct Case {
    uint64_t start, end;
  };
  for (Case c : {Case{100, 199}, Case{1000, 200000}, Case{250000, 250009}}) {
    SCOPED_TRACE(std::to_string(c.start) + "-" + std::to_string(c.end));
    server_.clear_requests();
    GetOptions g("bkt", "ranged", dir_.file("ranged"));
    g.set_range(c.start, c.end);
    Outcome o;
    download(g, o);
    EXPECT_EQ(o.done, 1) << o.code << " " << o.message;
    EXPECT_EQ(zeltest::read_file(dir_.file("ranged")), data.substr(c.start, c.end - c.start + 1));
    EXPECT_TRUE(zeltest::matching(server_.requests(), "GET", "/details").empty())
        << "a range needs no size query";
  }
}

TEST_F(DownloadTest, UnknownSizeFetchesEverythingInOneRequest) {
  std::string data = store("unknown", 200000, 12);
  for (int delta = 0; delta < 2; delta++) {
    SCOPED_TRACE(delta ? "delta header" : "size_unknown");
    server_.clear_requests();
    GetOptions g("bkt", "unknown", dir_.file("unknown"));
    ZELHeaders* headers = nullptr;
    if (delta) {
      headers = zel_headers_append(nullptr, "x-pmw-delta-object", "signature:@2048");
      g.opt.headers = headers;
    } else {
      g.opt.size_unknown = 1;
      g.opt.progress_callback = zeltest::on_progress;
    }
    Outcome o;
    download(g, o);
    zel_headers_cleanup(headers);
    EXPECT_EQ(o.done, 1) << o.code << " " << o.message;
    auto sent = gets();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].header("Range"), "");
    EXPECT_TRUE(zeltest::matching(server_.requests(), "GET", "/details").empty());
    // With the delta header the service answers the object's signature.
    std::string expected = delta
                               ? zeltest::http("GET", server_.api(2) + "/buckets/bkt/objects/unknown",
                                               {zeltest::kAuthHeader, "x-pmw-delta-object: signature:@2048"})
                                     .body
                               : data;
    EXPECT_EQ(zeltest::read_file(dir_.file("unknown")), expected);
    if (!delta) {
      EXPECT_EQ(o.progress_total, data.size()) << "the total comes from the transfer";
      EXPECT_EQ(o.progress_max, data.size());
    }
  }
}

TEST_F(DownloadTest, ByUrlWithAndWithoutToken) {
  std::string data = store("byurl", 3 * kChunk + 1, 91);
  std::u16string url = zeltest::wide(server_.api(2) + "/buckets/bkt/objects/byurl");
  ZELStream* stream = zel_stream_init(zeltest::wide(dir_.file("byurl")).c_str());
  ZELGetObjectByURLOpt opt{};
  opt.download_url = url.c_str();
  opt.stream = stream;
  opt.callback = zeltest::outcome_status<ZELGetObjectByURLResp>;
  opt.done_callback = zeltest::outcome_done;
  opt.authenticate = true;
  Outcome o;
  zel_get_object_by_url(h_, &opt, &o);
  ASSERT_TRUE(o.wait_once());
  EXPECT_EQ(o.done, 1) << o.code << " " << o.message;
  EXPECT_EQ(zeltest::read_file(dir_.file("byurl")), data);
  auto sent = gets();
  ASSERT_EQ(sent.size(), 5u) << "a two-byte size query and four chunks";
  for (const auto& r : sent) EXPECT_NE(r.header("Authorization"), "");

  opt.authenticate = false;
  Outcome refused;
  zel_get_object_by_url(h_, &opt, &refused);
  // The size query reports the 401 itself, then the download gives up.
  ASSERT_TRUE(refused.wait_count(2));
  EXPECT_EQ(refused.callbacks, 2);
  EXPECT_EQ(refused.message, "Cannot get object size");

  Outcome nohandle;
  zel_get_object_by_url(nullptr, &opt, &nohandle);
  EXPECT_EQ(nohandle.finals, 1);
  EXPECT_EQ(nohandle.message, "Cannot allocate memory for ZELGetObjectByURLDecorator");
  zel_stream_cleanup(stream);
}

TEST_F(DownloadTest, SizeByUrlReadsContentRangeTotalsBeyondFourGiB) {
  zeltest::RawHttpServer raw;
  raw.script(
      zeltest::RawHttpServer::reply(206, "Partial Content", "ab", {"Content-Range: bytes 0-1/5000000000"}));
  raw.script(zeltest::RawHttpServer::reply(404, "Not Found", "{\"reason\":\"gone\"}"));
  std::u16string url = zeltest::wide(raw.url("/some/object"));
  ZELGetObjectByURLOpt opt{};
  opt.download_url = url.c_str();
  opt.callback = zeltest::outcome_status<ZELGetObjectByURLResp>;
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
  download(g, o);
  EXPECT_EQ(o.code, ENOENT);
  EXPECT_EQ(o.message, std::strerror(ENOENT));

  GetOptions nostream("bkt", "obj", dir_.file("x"));
  nostream.opt.stream = nullptr;
  Outcome none;
  zel_get_object(h_, &nostream.opt, &none);
  EXPECT_EQ(none.finals, 1);
  EXPECT_EQ(none.message, "ZELGetObjectOpt stream is (null)");

  GetOptions absent("bkt", "no-such-object", dir_.file("absent"));
  Outcome gone;
  zel_get_object(h_, &absent.opt, &gone);
  // The size query reports the 404 itself, then the download gives up.
  ASSERT_TRUE(gone.wait_count(2));
  EXPECT_EQ(gone.callbacks, 2);
  EXPECT_EQ(gone.message, "Cannot get object size");
}

// Uploads and downloads share one chunk engine: which failed statuses are
// retried (each retry logged with its number), what progress reports see,
// and that a progress callback can cancel. A row holds what differs.
struct Direction {
  bool upload;
  const char* method;        // of the chunk requests
  const char* range_header;  // the chunk's range, up to its first byte
  const char* tag;           // of the retry log lines
  const char* failed;        // the report of a chunk that failed for good
  const char* error;         // the retry lines' error text
};
// Names the row in test output, instead of its raw bytes.
void PrintTo(const Direction& d, std::ostream* out) { *out << (d.upload ? "upload" : "download"); }

class ChunkRules : public DownloadTest, public ::testing::WithParamInterface<Direction> {
 protected:
  // Moves `data` in the row's direction as object and file `key`.
  void run(const std::string& key, const std::string& data, Outcome& o, bool progress = false) {
    std::unique_ptr<PutOptions> put;
    std::unique_ptr<GetOptions> get;
    if (GetParam().upload) {
      put = std::make_unique<PutOptions>("bkt", key, dir_.write(key, data));
      if (progress) put->opt.progress_callback = zeltest::on_progress;
      zel_put_object(h_, &put->opt, &o);
    } else {
      get = std::make_unique<GetOptions>("bkt", key, dir_.file(key));
      if (progress) get->opt.progress_callback = zeltest::on_progress;
      zel_get_object(h_, &get->opt, &o);
    }
    ASSERT_TRUE(o.wait_once()) << "expected exactly one report";
  }
  // The data arrived: in the store's details, or in the file.
  void expect_arrived(const std::string& key, const std::string& data, const Outcome& o) {
    EXPECT_EQ(GetParam().upload ? o.details : o.done, 1) << o.code << " " << o.message;
    EXPECT_EQ(GetParam().upload ? o.sha1 : sha1_hex(zeltest::read_file(dir_.file(key))), sha1_hex(data))
        << "an error body never reaches the data";
  }
  size_t chunk_requests() {
    size_t n = 0;
    for (const auto& r : zeltest::matching(server_.requests(), GetParam().method, "/objects/"))
      n += r.target.find("/details") == std::string::npos;
    return n;
  }
  // A fault rule for the chunk requests of `key`; `from` narrows it to the
  // chunk starting there.
  bool fault(const std::string& key, const std::string& rest, const std::string& from = "") {
    std::string header =
        from.empty() ? "" : R"("header":")" + std::string(GetParam().range_header) + from + R"(",)";
    return server_.add_fault(std::string(R"({"method":")") + GetParam().method + R"(","path":"objects/)" +
                             key + R"((/resumable)?$",)" + header + rest + "}");
  }
};

INSTANTIATE_TEST_SUITE_P(
    BothWays, ChunkRules,
    ::testing::Values(Direction{true, "PUT", "Content-Range: bytes ", "src\\put_object",
                                "Resumable upload failed or was cancelled", "Injected fault"},
                      Direction{false, "GET", "Range: bytes=", "src\\get_object", "Chunk Download Failed",
                                "Chunk Download Failed"}),
    [](const ::testing::TestParamInfo<Direction>& row) { return row.param.upload ? "Up" : "Down"; });

TEST_P(ChunkRules, FailedStatusesAreRetriedOnlyWhenWorthIt) {
  zeltest::CapturedLog log;
  const Direction& d = GetParam();
  std::string data = store("retry", kChunk + 10, 33);
  {
    SCOPED_TRACE("500: retried five times, each retry logged with its number");
    ASSERT_TRUE(fault("retry", R"("status":500,"times":-1)", "65536-"));
    Outcome o;
    run("retry", data, o);
    EXPECT_EQ(o.code, 500);
    EXPECT_EQ(o.message, d.failed);
    EXPECT_EQ(o.chunk_failures.size(), d.upload ? 1u : 0u);
    std::vector<std::string> lines = zeltest::CapturedLog::messages(d.tag);
    ASSERT_EQ(lines.size(), 5u);
    for (int n = 1; n <= 5; n++) {
      EXPECT_EQ(lines[n - 1], std::string("Chunk (65536-65545/65546) ") + (d.upload ? "upload" : "download") +
                                  " failed (status: 500, error: " + d.error + ") - retry #" +
                                  std::to_string(n));
    }
    EXPECT_EQ(chunk_requests(), 7u) << "one good chunk and six tries of the failing one";
    server_.clear_faults();
  }
  for (int refused : {403, 404}) {
    SCOPED_TRACE(std::to_string(refused) + " is not retried");
    server_.clear_requests();
    ASSERT_TRUE(fault("retry", R"("status":)" + std::to_string(refused), "0-"));
    Outcome o;
    run("retry", data, o);
    EXPECT_EQ(o.code, refused);
    std::string reason = d.upload ? (o.chunk_failures.empty() ? "" : o.chunk_failures[0].second) : o.message;
    EXPECT_EQ(reason, refused == 403 ? "Forbidden" : "Not Found");
    EXPECT_LE(chunk_requests(), 2u);
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
  if (!GetParam().upload) store("cancelled", data.size(), 77);
  run("cancelled", data, o, true);
  EXPECT_EQ(o.callbacks, 1);
  EXPECT_EQ(o.code, 42);
  EXPECT_LE(chunk_requests(), 11u) << "no chunk is retried after a cancel";
  if (GetParam().upload) {
    EXPECT_EQ(o.chunk_failures.size(), 11u);
    for (const auto& f : o.chunk_failures) EXPECT_EQ(f.first, 42);
    EXPECT_EQ(http("GET", server_.api(2) + "/buckets/bkt/objects/cancelled", {zeltest::kAuthHeader}).status,
              404)
        << "a cancelled upload stores nothing";
  }
}

}  // namespace
