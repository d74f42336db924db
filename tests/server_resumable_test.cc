// zel-server: resumable upload sessions, including a kill -9 in the middle.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

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

class ResumableTest : public EmulatorTest {
 protected:
  void SetUp() override {
    EmulatorTest::SetUp();
    ASSERT_TRUE(server_.make_bucket("upl", "persistent"));
  }
  HttpResult chunk(const std::string& key, const std::string& sid, const std::string& data, Chunk c,
                   size_t total = 0) {
    if (total == 0) total = data.size();
    return http("PUT", server_.api() + "/buckets/upl/objects/" + key + "/resumable",
                {kAuthHeader, "Session-Id: " + sid,
                 "Content-Range: bytes " + std::to_string(c.start) + "-" + std::to_string(c.end) + "/" +
                     std::to_string(total),
                 "Content-Type: application/x-parts"},
                data.substr(c.start, c.end - c.start + 1));
  }
  HttpResult status(const std::string& key, const std::string& sid) {
    return http("GET", server_.api() + "/buckets/upl/objects/" + key + "/status/" + sid, {kAuthHeader});
  }
};

TEST_F(ResumableTest, ChunksInRandomOrderAndInParallelMakeTheObject) {
  const std::string data = pattern_bytes((2 << 20) + 77, 4);
  std::vector<Chunk> chunks = cut(data.size(), 256 << 10);
  std::shuffle(chunks.begin(), chunks.end(), std::mt19937(42));
  std::atomic<size_t> next{0};
  std::mutex mu;
  std::vector<HttpResult> answers;
  std::vector<std::thread> senders;
  for (int t = 0; t < 4; ++t)
    senders.emplace_back([&] {
      for (size_t i; (i = next++) < chunks.size();) {
        HttpResult r = chunk("big%2Fone", "sess-par", data, chunks[i]);
        std::lock_guard<std::mutex> lock(mu);
        answers.push_back(r);
      }
    });
  for (auto& t : senders) t.join();

  size_t complete = 0;
  for (const auto& r : answers) {
    ASSERT_TRUE(r.status == 200 || r.status == 202) << r.status << " " << r.body;
    if (r.status != 200) continue;
    ++complete;
    JsonPtr j = parse_json(r.body);
    EXPECT_EQ(json_str(j.get(), "sha1"), sha1_hex(data));
    EXPECT_EQ(json_str(j.get(), "objectKey"), "big/one");
    EXPECT_EQ(json_str(j.get(), "contentType"), "application/x-parts");
  }
  EXPECT_GE(complete, 1u) << "the request that completes the object answers 200";
  HttpResult g = http("GET", server_.api() + "/buckets/upl/objects/big%2Fone", {kAuthHeader});
  ASSERT_EQ(g.status, 200);
  EXPECT_TRUE(g.body == data) << "assembled bytes differ";

  HttpResult s = status("big%2Fone", "sess-par");
  EXPECT_EQ(s.status, 200);
  EXPECT_EQ(s.header("Range"), "bytes=0-" + std::to_string(data.size() - 1));
  // A chunk of a finished session is harmless and answers the details again.
  HttpResult again = chunk("big%2Fone", "sess-par", data, chunks[0]);
  EXPECT_EQ(again.status, 200);
  EXPECT_EQ(json_str(parse_json(again.body).get(), "sha1"), sha1_hex(data));
}

TEST_F(ResumableTest, StatusListsMergedRangesAndBadChunksAreRefused) {
  const std::string data = pattern_bytes(1000, 5);
  HttpResult r = chunk("m", "s1", data, {0, 99});
  EXPECT_EQ(r.status, 202);
  EXPECT_EQ(r.header("Range"), "bytes=0-99");
  EXPECT_EQ(chunk("m", "s1", data, {300, 399}).header("Range"), "bytes=0-99,300-399");
  EXPECT_EQ(chunk("m", "s1", data, {100, 299}).header("Range"), "bytes=0-399");
  EXPECT_EQ(chunk("m", "s1", data, {0, 99}).status, 202) << "a repeated chunk is harmless";

  // Refused: another total, a body that disagrees with its range, a range
  // beyond the total, no session id. None of them is recorded.
  EXPECT_EQ(chunk("m", "s1", data + data, {400, 499}).status, 400);
  EXPECT_EQ(http("PUT", server_.api() + "/buckets/upl/objects/m/resumable",
                 {kAuthHeader, "Session-Id: s1", "Content-Range: bytes 400-499/1000"}, std::string(50, 'x'))
                .status,
            400);
  EXPECT_EQ(http("PUT", server_.api() + "/buckets/upl/objects/m/resumable",
                 {kAuthHeader, "Session-Id: s1", "Content-Range: bytes 900-1000/1000"}, std::string(101, 'x'))
                .status,
            400);
  EXPECT_EQ(http("PUT", server_.api() + "/buckets/upl/objects/m/resumable",
                 {kAuthHeader, "Content-Range: bytes 400-499/1000"}, data.substr(400, 100))
                .status,
            400);
  r = status("m", "s1");
  EXPECT_EQ(r.status, 202);
  EXPECT_EQ(r.header("Range"), "bytes=0-399");
  EXPECT_EQ(status("m", "other").status, 404);
  EXPECT_EQ(status("never", "s1").status, 404);
  EXPECT_EQ(http("GET", server_.api() + "/buckets/upl/objects/m", {kAuthHeader}).status, 404)
      << "an incomplete object is not visible";

  r = chunk("m", "s1", data, {400, 999});
  ASSERT_EQ(r.status, 200) << r.body;
  EXPECT_EQ(json_str(parse_json(r.body).get(), "sha1"), sha1_hex(data));
  EXPECT_TRUE(http("GET", server_.api() + "/buckets/upl/objects/m", {kAuthHeader}).body == data);
}

// Chunks longer than the server's write blocks, starting off any alignment,
// and a chunk that rewrites bytes the session already holds with other
// bytes: the object's SHA-1 must be that of the bytes it serves.
TEST_F(ResumableTest, LargeUnalignedAndRewrittenChunksKeepTheHashTrue) {
  const size_t total = (3 << 20) + 12345, step = (1 << 20) + 4097;
  const std::string data = pattern_bytes(total, 11), other = pattern_bytes(total, 12);
  struct Case {
    const char* key;
    std::vector<std::pair<Chunk, const std::string*>> sends;
    std::string served;
  };
  std::vector<Chunk> ordered = cut(total, step), reversed(ordered.rbegin(), ordered.rend());
  const size_t mid = (1 << 20) + 3;
  std::vector<Case> cases = {{"ordered", {}, data},
                             {"reversed", {}, data},
                             {"rewrite", {}, data.substr(0, mid) + other.substr(mid)}};
  for (const auto& c : ordered) cases[0].sends.push_back({c, &data});
  for (const auto& c : reversed) cases[1].sends.push_back({c, &data});
  // The first two chunks are held (and hashed) before the last one comes
  // with other bytes from inside the first.
  cases[2].sends = {{ordered[0], &data}, {ordered[1], &data}, {{mid, total - 1}, &other}};
  for (const auto& k : cases) {
    HttpResult last;
    for (const auto& s : k.sends) last = chunk(k.key, std::string("s-") + k.key, *s.second, s.first, total);
    ASSERT_EQ(last.status, 200) << k.key << ": " << last.body;
    EXPECT_EQ(json_str(parse_json(last.body).get(), "sha1"), sha1_hex(k.served)) << k.key;
    HttpResult g = http("GET", server_.api() + "/buckets/upl/objects/" + k.key, {kAuthHeader});
    EXPECT_TRUE(g.body == k.served) << k.key << ": served bytes differ";
  }
}

// Sends the head and part of the body of a chunk, then leaves the
// connection open: a request the server is in the middle of receiving.
int start_partial_chunk(int port, size_t start, size_t length, size_t total, size_t sent) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) return -1;
  std::string head = "PUT /zel/v2/buckets/upl/objects/crash/resumable HTTP/1.1\r\nHost: x\r\n" +
                     std::string(kAuthHeader) + "\r\nSession-Id: s9\r\nContent-Range: bytes " +
                     std::to_string(start) + "-" + std::to_string(start + length - 1) + "/" +
                     std::to_string(total) + "\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n" +
                     std::string(sent, 'z');
  if (send(fd, head.data(), head.size(), 0) != static_cast<ssize_t>(head.size())) return -1;
  return fd;
}

TEST_F(ResumableTest, KillNineMidUploadLosesNoReceivedRange) {
  const std::string data = pattern_bytes(1 << 20, 6);
  std::vector<Chunk> chunks = cut(data.size(), 64 << 10), rest;
  const std::vector<size_t> first = {9, 0, 15, 2, 5, 10, 1};  // of the sixteen 64 KiB chunks
  for (size_t i : first) ASSERT_EQ(chunk("crash", "s9", data, chunks[i]).status, 202);
  for (size_t i = 0; i < chunks.size(); ++i)
    if (std::find(first.begin(), first.end(), i) == first.end()) rest.push_back(chunks[i]);
  const std::string expected = "bytes=0-196607,327680-393215,589824-720895,983040-1048575";
  ASSERT_EQ(status("crash", "s9").header("Range"), expected);

  // A chunk cut off by the crash must not count as received.
  int fd =
      start_partial_chunk(server_.port(), rest[0].start, rest[0].end - rest[0].start + 1, data.size(), 1000);
  ASSERT_GE(fd, 0);
  usleep(200 * 1000);
  server_.kill9();
  close(fd);
  ASSERT_TRUE(server_.restart()) << server_.error();

  HttpResult s = status("crash", "s9");
  EXPECT_EQ(s.status, 202);
  EXPECT_EQ(s.header("Range"), expected) << "the session survives exactly";
  HttpResult last;
  for (const auto& c : rest) last = chunk("crash", "s9", data, c);
  ASSERT_EQ(last.status, 200) << last.body;
  EXPECT_EQ(json_str(parse_json(last.body).get(), "sha1"), sha1_hex(data));

  // The completed object, its bucket, a grant and a deleted object that can
  // still be restored survive another kill.
  ASSERT_EQ(http("POST", server_.api() + "/buckets/upl/grant", {kAuthHeader},
                 R"({"allow":[{"authId":"x","access":"read"}]})")
                .status,
            200);
  ASSERT_EQ(http("PUT", server_.api() + "/buckets/upl/objects/gone", {kAuthHeader}, "bye").status, 200);
  ASSERT_EQ(http("DELETE", server_.api() + "/buckets/upl/objects/gone", {kAuthHeader}).status, 200);
  server_.kill9();
  ASSERT_TRUE(server_.restart()) << server_.error();
  EXPECT_TRUE(http("GET", server_.api() + "/buckets/upl/objects/crash", {kAuthHeader}).body == data);
  EXPECT_NE(http("GET", server_.api() + "/buckets/upl/details", {kAuthHeader}).body.find("\"authId\":\"x\""),
            std::string::npos);
  EXPECT_EQ(http("POST", server_.api() + "/buckets/upl/objects/gone/undelete", {kAuthHeader}).status, 200);
  EXPECT_EQ(http("GET", server_.api() + "/buckets/upl/objects/gone", {kAuthHeader}).body, "bye");
}

// Chunks arriving together are synced and committed as one group: every
// 202 must already name its own chunk, and every chunk answered must
// survive a kill -9, however the group's ranges were merged.
TEST_F(ResumableTest, ConcurrentChunksAreDurableWhenAnswered) {
  const std::string data = pattern_bytes(96 << 14, 8);
  std::vector<Chunk> chunks = cut(data.size(), 16 << 10);
  Chunk held = chunks[40];
  chunks.erase(chunks.begin() + 40);
  std::shuffle(chunks.begin(), chunks.end(), std::mt19937(3));
  std::atomic<size_t> next{0};
  std::atomic<int> unacknowledged{0};
  std::vector<std::thread> senders;
  for (int t = 0; t < 8; ++t)
    senders.emplace_back([&] {
      for (size_t i; (i = next++) < chunks.size();) {
        HttpResult r = chunk("group", "sg", data, chunks[i]);
        std::string range = r.header("Range");
        bool named = false;
        for (size_t at = 6; r.status == 202 && at < range.size();) {
          size_t dash = range.find('-', at), comma = range.find(',', at);
          if (comma == std::string::npos) comma = range.size();
          named = named || (std::stoul(range.substr(at, dash - at)) <= chunks[i].start &&
                            chunks[i].end <= std::stoul(range.substr(dash + 1, comma - dash - 1)));
          at = comma + 1;
        }
        if (!named) ++unacknowledged;
      }
    });
  for (auto& t : senders) t.join();
  EXPECT_EQ(unacknowledged, 0);

  server_.kill9();
  ASSERT_TRUE(server_.restart()) << server_.error();
  EXPECT_EQ(status("group", "sg").header("Range"), "bytes=0-" + std::to_string(held.start - 1) + "," +
                                                       std::to_string(held.end + 1) + "-" +
                                                       std::to_string(data.size() - 1));
  HttpResult last = chunk("group", "sg", data, held);
  ASSERT_EQ(last.status, 200) << last.body;
  EXPECT_EQ(json_string_value(json_object_get(parse_json(last.body).get(), "sha1")), sha1_hex(data));
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
  HttpResult last = chunk("locked", "sl", data, chunks[1]);
  ASSERT_EQ(last.status, 200) << last.body;
  EXPECT_EQ(json_str(parse_json(last.body).get(), "sha1"), sha1_hex(data));
}

}  // namespace
