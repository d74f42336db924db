// zel-server: the test API (request journal, fault rules) and start-up
// options.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "zel_server.h"

using namespace zeltest;

namespace {

class TestApiTest : public EmulatorTest {
 protected:
  void SetUp() override {
    EmulatorTest::SetUp();
    url_ = server_.api() + "/buckets/tapi/objects/f1";
    ASSERT_TRUE(server_.make_bucket("tapi"));
    ASSERT_EQ(http("PUT", url_, {kAuthHeader}, std::string(1000, 'k')).status, 200);
  }
  HttpResult get(const std::string& suffix = "") { return http("GET", url_ + suffix, {kAuthHeader}); }
  std::string url_;
};

// Other tests rely on the journal's targets, statuses and principals, and
// on fault rules that fail, stall and wear out; here, what no other test uses.
TEST_F(TestApiTest, FaultRulesCutAndReadWholeBodies) {
  ASSERT_TRUE(server_.add_fault(R"({"path":"f1$","reset_after_bytes":100})"));
  HttpResult cut = get();
  EXPECT_FALSE(cut.error.empty()) << "the transfer must end early";
  EXPECT_EQ(cut.body.size(), 100u);
  EXPECT_EQ(cut.header("Content-Length"), "1000");

  // A failed upload still had its body read: the journal saw all of it.
  ASSERT_TRUE(server_.add_fault(R"({"method":"PUT","path":"/objects/","status":500})"));
  ASSERT_TRUE(server_.clear_requests());
  HttpResult put = http("PUT", url_, {kAuthHeader}, std::string(70000, 'p'));
  EXPECT_EQ(put.status, 500);
  EXPECT_EQ(server_.requests().at(0).body_size, 70000u);
  EXPECT_EQ(get().body, std::string(1000, 'k')) << "the failed PUT changed nothing; each rule served once";

  for (const char* bad : {R"({"path":"x","status":500,"delay_ms":5})", R"({"path":"x"})",
                          R"({"path":"x","status":42})", "nope"})
    EXPECT_FALSE(server_.add_fault(bad)) << bad;
}

TEST_F(TestApiTest, ProbabilityRulesAreRepeatableWithASeed) {
  auto run = [&] {
    server_.clear_faults();
    EXPECT_TRUE(server_.add_fault(R"({"path":"f1$","status":500,"probability":0.5,"seed":7,"times":-1})"));
    std::string pattern;
    for (int i = 0; i < 30; ++i) pattern += get().status == 500 ? 'x' : '.';
    return pattern;
  };
  std::string first = run();
  EXPECT_EQ(run(), first) << "the same seed fails the same requests";
  auto fails = std::count(first.begin(), first.end(), 'x');
  EXPECT_TRUE(fails > 3 && fails < 27) << first;
}

TEST(ServerStartTest, FaultsFileTokensAndTemporaryData) {
  ScratchDir dir;
  std::string rules =
      dir.write("faults.json", R"([{"path":"^/zel/v2/buckets$","method":"GET","status":418}])");
  ServerProcess server({"--faults", rules, "--token", "t2=other"});
  ASSERT_TRUE(server.start()) << server.error();
  EXPECT_EQ(http("GET", server.api() + "/buckets", {kAuthHeader}).status, 418);
  EXPECT_EQ(http("GET", server.api() + "/buckets", {"Authorization: Bearer t2"}).status, 200);
  EXPECT_EQ(http("GET", server.api() + "/buckets", {kAuthHeader}).status, 200) << "the default token stays";
  EXPECT_FALSE(ServerProcess({"--faults", dir.file("missing.json")}).start());

  // Without --data the state lives in a temporary directory that goes at exit.
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  pid_t pid = fork();
  if (pid == 0) {
    setenv("TMPDIR", dir.file("").c_str(), 1);
    dup2(out[1], 1);
    execl(ZEL_SERVER_BIN, ZEL_SERVER_BIN, "--port", "0", static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  char line[128] = {0};
  ASSERT_GT(read(out[0], line, sizeof(line) - 1), 0);
  close(out[0]);
  std::string url = std::string(line).substr(13, std::string(line).find('\n') - 13);
  EXPECT_EQ(http("GET", url + "/_emulator/requests").status, 404) << "no test API without --test-api";
  EXPECT_EQ(http("GET", url + "/zel/v2/buckets", {kAuthHeader}).status, 200);
  kill(pid, SIGINT);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(dir_entries(dir.file("")), std::vector<std::string>{"faults.json"}) << "temporary data left";
}

}  // namespace
