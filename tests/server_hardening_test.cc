// zel-server against a hostile client and a power cut: the port cannot be
// shared, the test API keeps secrets, fault rules cannot freeze it, stored
// files are checked before they are served, and a stop is prompt.
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "raw_client.h"
#include "zel_server.h"

using namespace zeltest;
using Clock = std::chrono::steady_clock;

namespace {

class HardeningTest : public EmulatorTest {
 protected:
  HardeningTest() : EmulatorTest({"--token", "s3cret-bob=bob"}) {}
  void SetUp() override {
    server_.log_to(scratch_.file("log"));
    EmulatorTest::SetUp();
    ASSERT_TRUE(server_.make_bucket("hard", "persistent"));
  }
  std::string url(const std::string& key) const { return server_.api() + "/buckets/hard/objects/" + key; }
  // A raw request's head for an object, with `extra` header lines.
  static std::string head(const char* method, const std::string& key, const std::string& extra = "") {
    return std::string(method) + " /zel/v2/buckets/hard/objects/" + key + " HTTP/1.1\r\nHost: h\r\n" +
           kAuthHeader + "\r\n" + extra + "\r\n";
  }
  HttpResult faults_post(const std::string& json) {
    return http("POST", server_.base_url() + "/_emulator/faults", {kAuthHeader}, json);
  }
  // The only file in a directory of the server's data.
  std::string only_file(const std::string& dir) {
    std::vector<std::string> files = dir_entries(server_.data_dir() + dir);
    EXPECT_EQ(files.size(), 1u) << dir;
    return server_.data_dir() + dir + (files.empty() ? "" : files[0]);
  }
  ScratchDir scratch_;
};

TEST_F(HardeningTest, ASecondServerOnAPortInUseRefusesToStart) {
  ASSERT_EQ(http("PUT", url("kept"), {kAuthHeader}, "first server's bytes").status, 200);
  std::string port = std::to_string(server_.port());
  ProgramRun second = run_program({ZEL_SERVER_BIN, "--port", port}, 5000);
  EXPECT_TRUE(second.exited(1)) << "timed out: " << second.timed_out << ", stdout: " << second.out;
  EXPECT_EQ(second.out.find("listening"), std::string::npos) << second.out;
  EXPECT_EQ(second.err, "zel-server: cannot listen on 127.0.0.1:" + port + ": Address already in use\n");
  for (int i = 0; i < 10; ++i)
    EXPECT_EQ(http("GET", url("kept"), {kAuthHeader}).body, "first server's bytes") << i;
}

TEST_F(HardeningTest, TestApiNeedsAKnownTokenAndKeepsNoSecrets) {
  const std::vector<std::vector<std::string>> calls = {{"GET", "requests", ""},
                                                       {"DELETE", "requests", ""},
                                                       {"DELETE", "faults", ""},
                                                       {"POST", "faults", R"({"path":"","status":500})"}};
  for (const char* auth : {"X-None: 1", "Authorization: Bearer nope"})
    for (const auto& c : calls)
      EXPECT_EQ(http(c[0], server_.base_url() + "/_emulator/" + c[1], {auth}, c[2]).status, 401)
          << auth << c[0];
  EXPECT_EQ(http("GET", server_.api() + "/buckets", {kAuthHeader}).status, 200) << "no rule was added";

  ASSERT_TRUE(server_.clear_requests());
  for (const std::vector<std::string>& auth : std::vector<std::vector<std::string>>{
           {kAuthHeader},
           {"Authorization: Bearer s3cret-bob"},
           {"Authorization: Bearer wrong-guess", "Proxy-Authorization: Basic eDp5"}})
    http("GET", server_.api() + "/buckets/hard/details", auth);
  std::string raw =
      http("GET", server_.base_url() + "/_emulator/requests", {"Authorization: Bearer s3cret-bob"}).body;
  for (const char* secret : {"local-dev-token", "s3cret-bob", "wrong-guess", "eDp5"})
    EXPECT_EQ(raw.find(secret), std::string::npos) << secret << " is in the journal: " << raw;

  std::vector<RecordedRequest> log = server_.requests();
  ASSERT_EQ(log.size(), 3u);
  EXPECT_EQ(log[0].header("Authorization"), "Bearer <redacted>");
  EXPECT_EQ(log[2].header("Proxy-Authorization"), "Basic <redacted>");
  // Which token was used stays visible.
  EXPECT_EQ(log[0].principal + " " + std::to_string(log[0].status), "local 200");
  EXPECT_EQ(log[2].principal + " " + std::to_string(log[2].status), " 401");
}

TEST_F(HardeningTest, FaultRulesCannotFreezeTheServer) {
  // Exponential for a backtracking matcher; linear here.
  ASSERT_TRUE(server_.add_fault(R"({"path":"^/(a+)+$","status":500,"times":-1})"));
  auto t0 = Clock::now();
  EXPECT_EQ(http("GET", server_.base_url() + "/" + std::string(60, 'a') + "b", {kAuthHeader}).status, 404);
  EXPECT_LT(elapsed_ms(t0), 2000);
  EXPECT_EQ(http("GET", server_.base_url() + "/aaaa", {kAuthHeader}).status, 500) << "the rule still applies";
  ASSERT_TRUE(server_.clear_faults());

  std::string many = "[";
  for (int i = 0; i < 1000; ++i) many += std::string(i ? "," : "") + R"({"path":"^/never$","status":500})";
  ASSERT_EQ(faults_post(many + "]").status, 200);
  struct Case {
    const char* rule;
    std::string reason;
  } cases[] = {{R"({"path":"x","delay_ms":60001})", "\"delay_ms\" may be at most 60000"},
               {R"({"path":"(a)\\1","status":500})", "\"path\" is not a valid regular expression"},
               {R"({"path":"^/never$","status":500})", "At most 1000 fault rules may be held at once"}};
  for (const Case& c : cases) {
    HttpResult r = faults_post(c.rule);
    EXPECT_EQ(r.status, 400) << c.rule;
    EXPECT_EQ(json_str(parse_json(r.body).get(), "reason").find(c.reason), 0u) << r.body;
  }
}

TEST_F(HardeningTest, DamagedObjectAndSessionFilesFoundAtStart) {
  const std::string data = pattern_bytes(8, 3), parts = pattern_bytes(10000, 8);
  ASSERT_EQ(http("PUT", url("cut"), {kAuthHeader}, data).status, 200);
  std::string blob = only_file("/objects/");
  ASSERT_EQ(http("PUT", url("whole"), {kAuthHeader}, "intact").status, 200);
  auto chunk = [&](size_t start, size_t end) {
    return http("PUT", url("parts") + "/resumable",
                {kAuthHeader, "Session-Id: p1",
                 "Content-Range: bytes " + std::to_string(start) + "-" + std::to_string(end) + "/10000"},
                parts.substr(start, end - start + 1));
  };
  ASSERT_EQ(chunk(0, 4999).status, 202);
  server_.stop();  // a power cut: files shorter than their records
  ASSERT_EQ(truncate(blob.c_str(), 4), 0);
  ASSERT_EQ(truncate(only_file("/sessions/").c_str(), 2000), 0);
  ASSERT_TRUE(server_.restart()) << server_.error();

  // The object is withdrawn, not served short, and its bytes kept aside.
  EXPECT_EQ(http("GET", url("cut"), {kAuthHeader}).status, 404);
  EXPECT_EQ(http("GET", url("cut") + "/details", {kAuthHeader}).status, 404);
  EXPECT_EQ(http("GET", url("whole"), {kAuthHeader}).body, "intact");
  EXPECT_EQ(read_file(server_.data_dir() + "/damaged/" + blob.substr(blob.rfind('/') + 1)),
            data.substr(0, 4));

  // Ranges past the session file's end are not claimed and are sent again.
  HttpResult s = http("GET", url("parts") + "/status/p1", {kAuthHeader});
  EXPECT_EQ(s.status, 202);
  EXPECT_EQ(s.header("Range"), "bytes=") << "the lost range is not claimed";
  ASSERT_EQ(chunk(5000, 9999).status, 202) << "the object is not assembled from a hole";
  ASSERT_EQ(chunk(0, 4999).status, 200);
  EXPECT_EQ(http("GET", url("parts"), {kAuthHeader}).body, parts);
}

TEST_F(HardeningTest, FileShortenedUnderARunningServerIsAnErrorNotASpin) {
  ASSERT_EQ(http("PUT", url("big"), {kAuthHeader}, pattern_bytes(32 << 20, 5)).status, 200);
  // Shortened while it is being sent: the answer stops where the file does.
  // Only the first 64 KiB are read, so the server is still sending (the
  // socket buffers hold far less than the object) when the file shrinks.
  int fd = raw_connect(server_.port());
  ASSERT_TRUE(raw_send(fd, head("GET", "big")));
  std::string got(64 << 10, '\0');
  ASSERT_EQ(recv(fd, &got[0], got.size(), MSG_WAITALL), static_cast<ssize_t>(got.size()));
  ASSERT_EQ(truncate(only_file("/objects/").c_str(), 1 << 20), 0);
  EXPECT_TRUE(raw_closed_within(fd, 3000, &got)) << "the connection hangs on with " << got.size() << " bytes";
  EXPECT_LT(got.size(), 32u << 20);
  close(fd);

  // Found short before anything is sent: an error answer.
  auto t0 = Clock::now();
  EXPECT_EQ(http("GET", url("big"), {kAuthHeader}).status, 500);
  EXPECT_EQ(http("GET", url("big"), {kAuthHeader, "Range: bytes=0-99"}).status, 500);
  EXPECT_LT(elapsed_ms(t0), 2000);
}

TEST_F(HardeningTest, WholeUploadCutAfterSeveralBlocksLeavesNothing) {
  int fd = raw_connect(server_.port());
  ASSERT_TRUE(
      raw_send(fd, head("PUT", "cut", "Content-Length: 3145728\r\n") + pattern_bytes((5 << 20) / 2 + 7, 4)));
  close(fd);
  std::string tmp = server_.data_dir() + "/tmp/";
  auto t0 = Clock::now();
  while (!dir_entries(tmp).empty() && elapsed_ms(t0) < 3000) usleep(20 * 1000);
  EXPECT_TRUE(dir_entries(tmp).empty()) << "the partial upload's file stays";
  EXPECT_EQ(http("GET", url("cut"), {kAuthHeader}).status, 404);
  const std::string data = pattern_bytes((3 << 20) + 1, 5);
  ASSERT_EQ(http("PUT", url("cut"), {kAuthHeader}, data).status, 200);
  EXPECT_TRUE(http("GET", url("cut"), {kAuthHeader}).body == data);
}

TEST_F(HardeningTest, StopEndsTheServerWithinASecondWhateverClientsDo) {
  ASSERT_EQ(http("PUT", url("large"), {kAuthHeader}, pattern_bytes(32 << 20, 9)).status, 200);
  // A download nobody reads, a body that never comes and a long delay.
  int reader = raw_connect(server_.port());
  ASSERT_TRUE(raw_send(reader, head("GET", "large")));
  int writer = raw_connect(server_.port());
  ASSERT_TRUE(raw_send(writer, head("PUT", "never", "Content-Length: 100000\r\n") + "ab"));
  ASSERT_TRUE(server_.add_fault(R"({"path":"details$","delay_ms":60000})"));
  HttpResult stalled;
  std::thread waiter([&] { stalled = http("GET", server_.api() + "/buckets/hard/details", {kAuthHeader}); });
  usleep(500 * 1000);
  // The request held by the delay holds nothing the others need.
  auto t0 = Clock::now();
  EXPECT_EQ(http("GET", server_.api() + "/buckets", {kAuthHeader}).status, 200);
  EXPECT_TRUE(server_.add_fault(R"({"path":"^/later$","status":500})"));
  EXPECT_LT(elapsed_ms(t0), 2000);

  t0 = Clock::now();
  server_.stop();  // SIGTERM
  EXPECT_LT(elapsed_ms(t0), 1000) << "the stop cuts the delay short";
  EXPECT_TRUE(WIFEXITED(server_.last_wait_status()) && WEXITSTATUS(server_.last_wait_status()) == 0);
  EXPECT_EQ(read_file(scratch_.file("log")).find("still running"), std::string::npos)
      << "every request thread ended";
  waiter.join();
  EXPECT_EQ(stalled.status, 503);
  close(reader);
  close(writer);
}

}  // namespace
