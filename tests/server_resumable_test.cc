// zel-server: resumable upload sessions, including a kill -9 in the middle.
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <regex>
#include <thread>

#include "raw_client.h"
#include "zel_server.h"

using namespace zeltest;

namespace {

struct Chunk {
  size_t start, end;
};

std::vector<Chunk> cut(size_t total, size_t step) {
  std::vector<Chunk> out;
  for (size_t s = 0; s < total; s += step) out.push_back({s, std::min(total, s + step) - 1});
  return out;
}

std::string sha1_of(const HttpResult& r) { return json_str(parse_json(r.body).get(), "sha1"); }
std::string status_line(const HttpResult& r) { return std::to_string(r.status) + " " + r.header("Range"); }

class ResumableTest : public EmulatorTest {
 protected:
  void SetUp() override {
    EmulatorTest::SetUp();
    ASSERT_TRUE(server_.make_bucket("upl", "persistent"));
  }
  std::string url(const std::string& key) const { return server_.api() + "/buckets/upl/objects/" + key; }
  HttpResult chunk(const std::string& key, const std::string& sid, const std::string& data, Chunk c,
                   size_t total = 0) {
    std::string range = std::to_string(c.start) + "-" + std::to_string(c.end);
    return http("PUT", url(key) + "/resumable",
                {kAuthHeader, "Session-Id: " + sid, "Content-Type: application/x-parts",
                 "Content-Range: bytes " + range + "/" + std::to_string(total ? total : data.size())},
                data.substr(c.start, c.end - c.start + 1));
  }
  HttpResult status(const std::string& key, const std::string& sid) {
    return http("GET", url(key) + "/status/" + sid, {kAuthHeader});
  }
};

TEST_F(ResumableTest, StatusListsMergedRangesAndBadChunksAreRefused) {
  const std::string data = pattern_bytes(1000, 5);
  EXPECT_EQ(status_line(chunk("m", "s1", data, {0, 99})), "202 bytes=0-99");
  EXPECT_EQ(chunk("m", "s1", data, {300, 399}).header("Range"), "bytes=0-99,300-399");
  EXPECT_EQ(chunk("m", "s1", data, {100, 299}).header("Range"), "bytes=0-399");
  EXPECT_EQ(chunk("m", "s1", data, {0, 99}).status, 202) << "a repeated chunk is harmless";

  // Refused, and not recorded: another total, a body that disagrees with its
  // range, a range beyond the total, no session id.
  const std::vector<std::pair<std::vector<std::string>, std::string>> refused = {
      {{"Session-Id: s1", "Content-Range: bytes 400-499/2000"}, data.substr(400, 100)},
      {{"Session-Id: s1", "Content-Range: bytes 400-499/1000"}, std::string(50, 'x')},
      {{"Session-Id: s1", "Content-Range: bytes 900-1000/1000"}, std::string(101, 'x')},
      {{"Content-Range: bytes 400-499/1000"}, data.substr(400, 100)}};
  for (auto bad : refused) {
    bad.first.push_back(kAuthHeader);
    EXPECT_EQ(http("PUT", url("m") + "/resumable", bad.first, bad.second).status, 400) << bad.first[0];
  }
  EXPECT_EQ(status_line(status("m", "s1")), "202 bytes=0-399");
  EXPECT_EQ(status("m", "other").status, 404);
  EXPECT_EQ(http("GET", url("m"), {kAuthHeader}).status, 404) << "an incomplete object is not visible";
  EXPECT_EQ(sha1_of(chunk("m", "s1", data, {400, 999})), sha1_hex(data));
  EXPECT_TRUE(http("GET", url("m"), {kAuthHeader}).body == data);
}

// Chunks longer than the server's write blocks, starting off any alignment,
// and a chunk that rewrites bytes the session already holds with other
// bytes: the object's SHA-1 must be that of the bytes it serves.
TEST_F(ResumableTest, LargeUnalignedAndRewrittenChunksKeepTheHashTrue) {
  const size_t total = (3 << 20) + 12345, step = (1 << 20) + 4097, mid = (1 << 20) + 3;
  const std::string data = pattern_bytes(total, 11), other = pattern_bytes(total, 12);
  const std::string rewritten = data.substr(0, mid) + other.substr(mid);
  std::vector<Chunk> ordered = cut(total, step), reversed(ordered.rbegin(), ordered.rend());
  struct Case {
    const char* key;
    std::vector<Chunk> chunks;
    const std::string *last_bytes, *served;
  } cases[] = {{"ordered", ordered, &data, &data},
               {"reversed", reversed, &data, &data},
               // The first two chunks are held (and hashed) before the last
               // one comes with other bytes from inside the first.
               {"rewrite", {ordered[0], ordered[1], {mid, total - 1}}, &other, &rewritten}};
  for (const Case& c : cases) {
    HttpResult last;
    for (const Chunk& k : c.chunks)
      last = chunk(c.key, c.key, &k == &c.chunks.back() ? *c.last_bytes : data, k, total);
    EXPECT_EQ(sha1_of(last), sha1_hex(*c.served)) << c.key << ": " << last.body;
    EXPECT_TRUE(http("GET", url(c.key), {kAuthHeader}).body == *c.served) << c.key << ": served bytes differ";
  }
}

TEST_F(ResumableTest, KillNineMidUploadLosesNoReceivedRange) {
  const std::string data = pattern_bytes(1 << 20, 6);
  std::vector<Chunk> chunks = cut(data.size(), 64 << 10);
  // Of the sixteen 64 KiB chunks, seven come before the crash.
  const std::vector<size_t> order = {9, 0, 15, 2, 5, 10, 1, 3, 4, 6, 7, 8, 11, 12, 13, 14};
  for (size_t i = 0; i < 7; ++i) ASSERT_EQ(chunk("crash", "s9", data, chunks[order[i]]).status, 202);
  const std::string expected = "202 bytes=0-196607,327680-393215,589824-720895,983040-1048575";
  ASSERT_EQ(status_line(status("crash", "s9")), expected);

  // A chunk cut off by the crash must not count as received.
  int fd = raw_connect(server_.port());
  ASSERT_TRUE(raw_send(fd, "PUT /zel/v2/buckets/upl/objects/crash/resumable HTTP/1.1\r\nHost: x\r\n" +
                               std::string(kAuthHeader) + "\r\nSession-Id: s9\r\nContent-Range: bytes " +
                               std::to_string(chunks[3].start) + "-" + std::to_string(chunks[3].end) +
                               "/1048576\r\nContent-Length: 65536\r\n\r\n" + std::string(1000, 'z')));
  usleep(200 * 1000);
  server_.kill9();
  close(fd);
  ASSERT_TRUE(server_.restart()) << server_.error();
  EXPECT_EQ(status_line(status("crash", "s9")), expected) << "the session survives exactly";
  HttpResult last;
  for (size_t i = 7; i < order.size(); ++i) last = chunk("crash", "s9", data, chunks[order[i]]);
  EXPECT_EQ(sha1_of(last), sha1_hex(data)) << last.body;

  // The completed object, its bucket, a grant and a deleted object that can
  // still be restored survive another kill.
  ASSERT_EQ(http("POST", server_.api() + "/buckets/upl/grant", {kAuthHeader},
                 R"({"allow":[{"authId":"x","access":"read"}]})")
                .status,
            200);
  ASSERT_EQ(http("PUT", url("gone"), {kAuthHeader}, "bye").status, 200);
  ASSERT_EQ(http("DELETE", url("gone"), {kAuthHeader}).status, 200);
  server_.kill9();
  ASSERT_TRUE(server_.restart()) << server_.error();
  EXPECT_TRUE(http("GET", url("crash"), {kAuthHeader}).body == data);
  EXPECT_NE(http("GET", server_.api() + "/buckets/upl/details", {kAuthHeader}).body.find("\"authId\":\"x\""),
            std::string::npos);
  EXPECT_EQ(http("POST", url("gone/undelete"), {kAuthHeader}).status, 200);
  EXPECT_EQ(http("GET", url("gone"), {kAuthHeader}).body, "bye");
}

// Chunks arriving together, in random order, are synced and committed as
// one group: every 202 must already name its own chunk, and every chunk
// answered must survive a kill -9, however the group's ranges were merged.
TEST_F(ResumableTest, ConcurrentChunksAreDurableWhenAnswered) {
  const std::string data = pattern_bytes(96 << 14, 8);
  std::vector<Chunk> chunks = cut(data.size(), 16 << 10);
  Chunk held = chunks[40];
  chunks.erase(chunks.begin() + 40);
  std::shuffle(chunks.begin(), chunks.end(), std::mt19937(3));
  std::vector<HttpResult> answers(chunks.size());
  std::atomic<size_t> next{0};
  std::vector<std::thread> senders;
  for (int t = 0; t < 8; ++t)
    senders.emplace_back([&] {
      for (size_t i; (i = next++) < chunks.size();) answers[i] = chunk("big%2Fone", "sg", data, chunks[i]);
    });
  for (auto& t : senders) t.join();
  const std::regex pair("(\\d+)-(\\d+)");
  for (size_t i = 0; i < chunks.size(); ++i) {
    std::string range = answers[i].header("Range");
    bool named = false;
    for (std::sregex_iterator m(range.begin(), range.end(), pair), end; m != end; ++m)
      named = named || (std::stoul((*m)[1]) <= chunks[i].start && chunks[i].end <= std::stoul((*m)[2]));
    EXPECT_TRUE(answers[i].status == 202 && named) << status_line(answers[i]);
  }

  server_.kill9();
  ASSERT_TRUE(server_.restart()) << server_.error();
  EXPECT_EQ(status("big%2Fone", "sg").header("Range"), "bytes=0-" + std::to_string(held.start - 1) + "," +
                                                           std::to_string(held.end + 1) + "-" +
                                                           std::to_string(data.size() - 1));
  // The chunk that completes the object answers its details.
  JsonPtr done = parse_json(chunk("big%2Fone", "sg", data, held).body);
  EXPECT_EQ(json_str(done.get(), "sha1") + " " + json_str(done.get(), "objectKey") + " " +
                json_str(done.get(), "contentType"),
            sha1_hex(data) + " big/one application/x-parts");
  EXPECT_TRUE(http("GET", url("big%2Fone"), {kAuthHeader}).body == data) << "assembled bytes differ";
  EXPECT_EQ(status_line(status("big%2Fone", "sg")), "200 bytes=0-" + std::to_string(data.size() - 1));
  // A chunk of a finished session is harmless and answers the details again.
  EXPECT_EQ(sha1_of(chunk("big%2Fone", "sg", data, chunks[0])), sha1_hex(data));
}

// A chunk is only answered as stored once its range is recorded: when the
// database cannot take the row, the chunk is refused and nothing of it
// counts, and sending it again completes the object.
TEST_F(ResumableTest, AChunkWhoseRangeCannotBeRecordedIsRefused) {
  const std::string data = pattern_bytes(128 << 10, 9);
  std::vector<Chunk> chunks = cut(data.size(), 64 << 10);
  ASSERT_EQ(chunk("locked", "sl", data, chunks[0]).status, 202);
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((server_.data_dir() + "/meta.db").c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  HttpResult refused = chunk("locked", "sl", data, chunks[1]);
  sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  EXPECT_EQ(refused.status, 500) << refused.body;
  EXPECT_EQ(status("locked", "sl").header("Range"), "bytes=0-65535");
  EXPECT_EQ(sha1_of(chunk("locked", "sl", data, chunks[1])), sha1_hex(data));
}

}  // namespace
