// Downloads against the emulator (and, for the size query by URL, a scripted
// raw server): the bytes in the file, the requests sent, the one report.
#include <cerrno>
#include <cstring>

#include "captured_log.h"
#include "get_object.h"
#include "httppool.h"
#include "raw_http_server.h"
#include "transfer_support.h"

namespace {

using zeltest::GetOptions;
using zeltest::Outcome;
using zeltest::pattern_bytes;
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

TEST_F(DownloadTest, FailedChunksAreRetriedOnlyWhenWorthIt) {
  zeltest::CapturedLog log;
  std::string data = store("retry", kChunk + 10, 33);
  {
    SCOPED_TRACE("500: retried five times, then Chunk Download Failed");
    ASSERT_TRUE(server_.add_fault(R"({"method":"GET","path":"objects/retry$","header":"Range: bytes=65536-",)"
                                  R"("status":500,"times":-1})"));
    GetOptions g("bkt", "retry", dir_.file("retry"));
    Outcome o;
    download(g, o);
    EXPECT_EQ(o.code, 500);
    EXPECT_EQ(o.message, "Chunk Download Failed");
    std::vector<std::string> lines = zeltest::CapturedLog::messages("src\\get_object");
    ASSERT_EQ(lines.size(), 5u);
    for (int n = 1; n <= 5; n++) {
      EXPECT_EQ(lines[n - 1],
                "Chunk (65536-65545/65546) download failed (status: 500, error: Chunk Download "
                "Failed) - retry #" +
                    std::to_string(n));
    }
    EXPECT_EQ(gets().size(), 7u) << "one good chunk and six tries of the failing one";
    server_.clear_faults();
  }
  for (int refused : {403, 404}) {
    SCOPED_TRACE(std::to_string(refused) + " is not retried");
    server_.clear_requests();
    ASSERT_TRUE(server_.add_fault(R"({"method":"GET","path":"objects/retry$","header":"Range: bytes=0-",)"
                                  R"("status":)" +
                                  std::to_string(refused) + "}"));
    GetOptions g("bkt", "retry", dir_.file("retry"));
    Outcome o;
    download(g, o);
    EXPECT_EQ(o.code, refused);
    EXPECT_EQ(o.message, refused == 403 ? "Forbidden" : "Not Found");
    EXPECT_LE(gets().size(), 2u);
  }
  {
    SCOPED_TRACE("504 is retried and gives up one place in the request pool");
    server_.clear_requests();
    ASSERT_TRUE(server_.add_fault(R"({"method":"GET","path":"objects/retry$","status":504,"times":1})"));
    GetOptions g("bkt", "retry", dir_.file("retry"));
    Outcome o;
    download(g, o);
    EXPECT_EQ(o.done, 1) << o.code << " " << o.message;
    EXPECT_EQ(zeltest::read_file(dir_.file("retry")), data) << "an error body never reaches the file";
    EXPECT_EQ(gets().size(), 3u);
    EXPECT_EQ(http_pool_available(), 7);
  }
}

TEST_F(DownloadTest, ProgressSumsToTheSizeAndCanCancel) {
  std::string data = store("progress", 10 * kChunk + 7, 77);
  {
    GetOptions g("bkt", "progress", dir_.file("progress"));
    g.opt.progress_callback = zeltest::on_progress;
    Outcome o;
    download(g, o);
    EXPECT_EQ(o.done, 1);
    EXPECT_EQ(o.progress_max, data.size());
    EXPECT_EQ(o.progress_total, data.size());
    EXPECT_EQ(o.stats, 11);
    EXPECT_EQ(o.stats_bytes, static_cast<double>(data.size()));
  }
  {
    SCOPED_TRACE("cancelled from progress_callback");
    server_.clear_requests();
    GetOptions g("bkt", "progress", dir_.file("cancelled"));
    g.opt.progress_callback = zeltest::on_progress;
    Outcome o;
    o.cancel_after = 0;
    download(g, o);
    EXPECT_EQ(o.callbacks, 1);
    EXPECT_EQ(o.code, 42);
    EXPECT_LE(gets().size(), 11u) << "no chunk is retried after a cancel";
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

}  // namespace
