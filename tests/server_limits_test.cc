// zel-server's limits on clients and on its own data: slow clients cannot
// hold the request threads, idle upload sessions expire, and the options
// that tell what the server does.
#include <unistd.h>

#include <algorithm>
#include <regex>

#include "raw_client.h"
#include "zel_server.h"

using namespace zeltest;
using Clock = std::chrono::steady_clock;

namespace {

const std::string kPutHead =
    "PUT /zel/v2/buckets/lim/objects/slow HTTP/1.1\r\nHost: h\r\n" + std::string(kAuthHeader) + "\r\n";

// Fewer request threads than slow clients, and the default deadlines: a
// server that gave each connection a thread would be held by them all.
TEST(ServerLimitsTest, SixtyFourSlowClientsLeaveRoomForOthers) {
  ServerProcess server({"--threads", "16"});
  ASSERT_TRUE(server.start()) << server.error();
  std::vector<int> slow;
  for (int i = 0; i < 64; ++i) {  // heads begun but not ended, bodies announced but never sent
    slow.push_back(raw_connect(server.port()));
    EXPECT_TRUE(raw_send(slow.back(), i % 2 ? kPutHead + "Content-Length: 9\r\n\r\n" : "G"));
  }
  usleep(200 * 1000);
  auto t0 = Clock::now();
  for (int i = 0; i < 5; ++i) EXPECT_EQ(http("GET", server.api() + "/buckets", {kAuthHeader}).status, 200);
  EXPECT_LT(elapsed_ms(t0), 2000) << "normal requests wait for slow clients";
  for (int fd : slow) close(fd);
}

class DeadlineTest : public EmulatorTest {
 protected:
  DeadlineTest() : EmulatorTest({"--client-timeout", "1", "--session-ttl", "1"}) {}
};

TEST_F(DeadlineTest, SlowHeadsAndBodiesAreCut) {
  int head = raw_connect(server_.port());
  ASSERT_TRUE(raw_send(head, "GET /zel/v2/buckets HTTP/1.1\r\nHost: h\r\n"));
  auto t0 = Clock::now();
  EXPECT_TRUE(raw_closed_within(head, 3000)) << "the head never ended";
  EXPECT_GE(elapsed_ms(t0), 800);
  close(head);

  // A body that starts fast, then trickles 200 B/s, under the floor of 1 KiB/s.
  ASSERT_TRUE(server_.make_bucket("lim"));
  int body = raw_connect(server_.port());
  ASSERT_TRUE(raw_send(body, kPutHead + "Content-Length: 100000\r\n\r\n" + std::string(70000, 'f')));
  t0 = Clock::now();
  bool cut = false;
  while (!cut && elapsed_ms(t0) < 5000) {
    raw_send(body, std::string(20, 'b'));
    cut = raw_closed_within(body, 100);
  }
  EXPECT_TRUE(cut && elapsed_ms(t0) < 3000) << "a trickling body was not cut in time";
  close(body);
  EXPECT_EQ(http("GET", server_.api() + "/buckets/lim/objects/slow", {kAuthHeader}).status, 404);

  // A kept-alive connection serves several requests, fast ones untouched.
  int keep = raw_connect(server_.port());
  std::string req = "GET /zel/v2/buckets HTTP/1.1\r\nHost: h\r\n" + std::string(kAuthHeader) + "\r\n\r\n";
  ASSERT_TRUE(raw_send(keep, req + req));
  std::string got;
  raw_closed_within(keep, 500, &got);
  EXPECT_TRUE(std::regex_search(got, std::regex("HTTP/1.1 200[^]*HTTP/1.1 200"))) << got;
  close(keep);
}

TEST_F(DeadlineTest, IdleSessionsAndTheirFilesGo) {
  ASSERT_TRUE(server_.make_bucket("exp"));
  std::string url = server_.api() + "/buckets/exp/objects/o";
  auto chunk = [&](const std::string& sid, int at) {
    std::string range = "Content-Range: bytes " + std::to_string(at) + "-" + std::to_string(at + 9) + "/100";
    return http("PUT", url + "/resumable", {kAuthHeader, "Session-Id: " + sid, range}, std::string(10, 'e'));
  };
  ASSERT_EQ(chunk("idle", 0).status, 202);
  for (int at = 0; at < 90; at += 10) {  // "busy" is touched every 300 ms, "idle" never again
    if (at > 0) usleep(300 * 1000);
    EXPECT_EQ(chunk("busy", at).status, 202) << at;
  }
  EXPECT_EQ(http("GET", url + "/status/idle", {kAuthHeader}).status, 404);
  EXPECT_EQ(http("GET", url + "/status/busy", {kAuthHeader}).header("Range"), "bytes=0-89");
  ASSERT_EQ(chunk("busy", 90).status, 200);
  usleep(1800 * 1000);
  EXPECT_TRUE(dir_entries(server_.data_dir() + "/sessions").empty()) << "session files are left";
  EXPECT_EQ(http("GET", url, {kAuthHeader}).body, std::string(100, 'e')) << "expiry leaves objects alone";
}

TEST(ServerOptionsTest, UsageErrorAndRequestLog) {
  ProgramRun bad = run_program({ZEL_SERVER_BIN, "--no-such-option"}, 5000);
  EXPECT_TRUE(bad.exited(2));
  EXPECT_EQ(bad.err.find("zel-server: missing value or unknown option: --no-such-option\n"), 0u) << bad.err;

  ScratchDir dir;
  ServerProcess server({"--log-requests"});
  server.log_to(dir.file("log"));
  ASSERT_TRUE(server.start()) << server.error();
  http("PUT", server.api() + "/buckets/none/objects/k%20%0A", {kAuthHeader}, "12345");
  http("GET", server.api() + "/buckets", {"Authorization: Bearer unknown-secret"});
  server.stop();
  // A line is written once its answer has gone out, so the two may come in either order; an
  // unknown token names nobody and its secret is not written.
  std::string log = read_file(dir.file("log")), time = "\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z ";
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2) << log;
  for (const char* line :
       {"local PUT /zel/v2/buckets/none/objects/k%20%0A 404 in=5", "- GET /zel/v2/buckets 401 in=0"})
    EXPECT_TRUE(std::regex_search(log, std::regex("(^|\n)" + time + line + " out=\\d{2,} \\d+ms\n"))) << log;
}

}  // namespace
