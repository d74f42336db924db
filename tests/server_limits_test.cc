// zel-server's limits on clients and on its own data: slow clients cannot
// hold the request threads, idle upload sessions expire, and the options
// that tell what the server does.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "raw_client.h"
#include "zel_server.h"

using namespace zeltest;
using Clock = std::chrono::steady_clock;

namespace {

// Fewer request threads than slow clients, and the default deadlines: a
// server that gave each connection a thread would be held by them all.
class SlowClientTest : public EmulatorTest {
 protected:
  SlowClientTest() : EmulatorTest({"--threads", "16"}) {}
};

TEST_F(SlowClientTest, SixtyFourSlowClientsLeaveRoomForOthers) {
  std::vector<int> slow;
  for (int i = 0; i < 64; ++i) {
    int fd = raw_connect(server_.port());
    ASSERT_GE(fd, 0);
    slow.push_back(fd);
  }
  // Heads begun but not ended, and bodies announced but never sent.
  for (size_t i = 0; i < slow.size(); ++i) {
    if (i % 2 == 0)
      EXPECT_TRUE(raw_send(slow[i], "G"));
    else
      EXPECT_TRUE(raw_send(slow[i],
                           "PUT /zel/v2/buckets/x/objects/y HTTP/1.1\r\nHost: h\r\n"
                           "Authorization: Bearer local-dev-token\r\nContent-Length: 9\r\n\r\n"));
  }
  usleep(200 * 1000);
  auto t0 = Clock::now();
  for (int i = 0; i < 5; ++i) EXPECT_EQ(http("GET", server_.api() + "/buckets", {kAuthHeader}).status, 200);
  EXPECT_LT(elapsed_ms(t0), 2000) << "normal requests wait for slow clients";
  for (int fd : slow) close(fd);
}

class DeadlineTest : public EmulatorTest {
 protected:
  DeadlineTest() : EmulatorTest({"--client-timeout", "1"}) {}
};

TEST_F(DeadlineTest, SlowHeadsAndBodiesAreCut) {
  int head = raw_connect(server_.port());
  ASSERT_TRUE(raw_send(head, "GET /zel/v2/buckets HTTP/1.1\r\nHost: h\r\n"));
  auto t0 = Clock::now();
  EXPECT_TRUE(raw_closed_within(head, 3000)) << "the head never ended";
  EXPECT_GE(elapsed_ms(t0), 800);
  close(head);

  // A body that starts fast, then slows to 20 bytes every 100 ms (200 B/s,
  // under the floor of 1 KiB/s).
  ASSERT_TRUE(server_.make_bucket("lim"));
  int body = raw_connect(server_.port());
  ASSERT_TRUE(raw_send(body,
                       "PUT /zel/v2/buckets/lim/objects/slow HTTP/1.1\r\nHost: h\r\n"
                       "Authorization: Bearer local-dev-token\r\nContent-Length: 100000\r\n\r\n" +
                           std::string(70000, 'f')));
  t0 = Clock::now();
  bool cut = false;
  while (!cut && elapsed_ms(t0) < 5000) {
    raw_send(body, std::string(20, 'b'));
    cut = raw_closed_within(body, 100);
  }
  EXPECT_TRUE(cut) << "a trickling body was not cut";
  EXPECT_LT(elapsed_ms(t0), 3000);
  close(body);
  EXPECT_EQ(http("GET", server_.api() + "/buckets/lim/objects/slow", {kAuthHeader}).status, 404);

  // A kept-alive connection serves several requests, fast ones untouched.
  int keep = raw_connect(server_.port());
  std::string req =
      "GET /zel/v2/buckets HTTP/1.1\r\nHost: h\r\nAuthorization: Bearer local-dev-token\r\n\r\n";
  ASSERT_TRUE(raw_send(keep, req + req));
  std::string got;
  raw_closed_within(keep, 500, &got);
  EXPECT_EQ(std::regex_search(got, std::regex("HTTP/1.1 200[^]*HTTP/1.1 200")), true) << got;
  close(keep);
}

class SessionExpiryTest : public EmulatorTest {
 protected:
  SessionExpiryTest() : EmulatorTest({"--session-ttl", "1"}) {}
};

TEST_F(SessionExpiryTest, IdleSessionsAndTheirFilesGo) {
  ASSERT_TRUE(server_.make_bucket("exp"));
  std::string url = server_.api() + "/buckets/exp/objects/o";
  auto chunk = [&](const std::string& sid, const char* range) {
    return http("PUT", url + "/resumable",
                {kAuthHeader, "Session-Id: " + sid, std::string("Content-Range: ") + range},
                std::string(10, 'e'));
  };
  ASSERT_EQ(chunk("idle", "bytes 0-9/100").status, 202);
  ASSERT_EQ(chunk("busy", "bytes 0-9/100").status, 202);
  std::string dir = server_.data_dir() + "/sessions";
  // "busy" is touched every 300 ms, "idle" never again.
  for (int i = 0; i < 8; ++i) {
    usleep(300 * 1000);
    EXPECT_EQ(http("GET", url + "/status/busy", {kAuthHeader}).status, 202) << i;
    chunk("busy",
          ("bytes " + std::to_string(10 + i * 10) + "-" + std::to_string(19 + i * 10) + "/100").c_str());
  }
  EXPECT_EQ(http("GET", url + "/status/idle", {kAuthHeader}).status, 404);
  HttpResult busy = http("GET", url + "/status/busy", {kAuthHeader});
  EXPECT_EQ(busy.status, 202);
  EXPECT_EQ(busy.header("Range"), "bytes=0-89");
  ASSERT_EQ(chunk("busy", "bytes 90-99/100").status, 200);
  usleep(1800 * 1000);
  struct stat st;
  EXPECT_EQ(system(("test -z \"$(ls " + dir + ")\"").c_str()), 0) << "session files are left in " << dir;
  EXPECT_EQ(stat(dir.c_str(), &st), 0);
  EXPECT_EQ(http("GET", url, {kAuthHeader}).body, std::string(100, 'e')) << "expiry leaves objects alone";
}

TEST(ServerOptionsTest, VersionHelpAndRequestLog) {
  ProgramRun version = run_program({ZEL_SERVER_BIN, "--version"}, 5000);
  EXPECT_TRUE(version.exited(0));
  EXPECT_TRUE(std::regex_match(version.out, std::regex("zel-server [0-9]+\\.[0-9]+\\.[0-9]+\n")))
      << version.out;
  ProgramRun help = run_program({ZEL_SERVER_BIN, "--help"}, 5000);
  EXPECT_TRUE(help.exited(0));
  EXPECT_EQ(help.out.find("usage: zel-server"), 0u);
  EXPECT_NE(help.out.find("--log-requests"), std::string::npos);
  ProgramRun bad = run_program({ZEL_SERVER_BIN, "--no-such-option"}, 5000);
  EXPECT_TRUE(bad.exited(2));
  EXPECT_EQ(bad.err.find("zel-server: missing value or unknown option: --no-such-option\n"), 0u) << bad.err;

  std::string log = "/tmp/zel-reqlog-" + std::to_string(getpid()) + ".log";
  {
    ServerProcess server({"--log-requests"});
    server.log_to(log);
    ASSERT_TRUE(server.start()) << server.error();
    http("PUT", server.api() + "/buckets/none/objects/k%20%0A", {kAuthHeader}, "12345");
    http("GET", server.api() + "/buckets", {"Authorization: Bearer unknown-secret"});
    server.stop();
  }
  std::ifstream in(log);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  unlink(log.c_str());
  ASSERT_EQ(lines.size(), 2u);
  // A line is written once its answer has gone out, so the client may have
  // sent the second request before the first one's line is written.
  if (lines[1].find(" PUT ") != std::string::npos) std::swap(lines[0], lines[1]);
  std::regex shape(
      "\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z (\\S+) (\\S+) (\\S+) (\\d+) in=(\\d+) out=(\\d+) "
      "\\d+ms");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(lines[0], m, shape)) << lines[0];
  EXPECT_EQ(m[1], "local");
  EXPECT_EQ(m[2], "PUT");
  EXPECT_EQ(m[3], "/zel/v2/buckets/none/objects/k%20%0A") << "the target as sent, on one line";
  EXPECT_EQ(m[4], "404");
  EXPECT_EQ(m[5], "5");
  EXPECT_GT(std::stoi(m[6]), 20);
  ASSERT_TRUE(std::regex_match(lines[1], m, shape)) << lines[1];
  EXPECT_EQ(m[1], "-") << "an unknown token names nobody";
  EXPECT_EQ(m[4], "401");
  EXPECT_EQ(lines[1].find("unknown-secret"), std::string::npos);
}

}  // namespace
