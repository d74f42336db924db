// End-to-end tests of the zel tool's transfers: nothing unverified reaches a
// user's file, interruptions leave a way forward, streams and destinations.
#include <fstream>
#include <thread>

#include "cli_support.h"

namespace {

using namespace zeltest;
using Clock = std::chrono::steady_clock;

// Whether `text` holds every one of `pieces`.
::testing::AssertionResult has(const std::string& text, std::initializer_list<std::string> pieces) {
  for (const std::string& piece : pieces)
    if (text.find(piece) == std::string::npos)
      return ::testing::AssertionFailure() << "no '" << piece << "' in: " << text;
  return ::testing::AssertionSuccess();
}

class CliTransferTest : public CliTest {
 protected:
  // A file that must survive every failed download.
  std::string precious() { return dir_.write("keep.txt", "precious bytes\n"); }
  void expect_untouched(const Ran& r) {
    EXPECT_EQ(read_file(dir_.file("keep.txt")), "precious bytes\n") << describe(r);
    EXPECT_EQ(leftovers(".zel-"), std::vector<std::string>{}) << "a temporary file was left";
  }
  // Runs zel, which must end with `status`, say every one of `pieces` and
  // leave the precious file untouched.
  void expect_refusal(const std::vector<std::string>& args, int status,
                      std::initializer_list<std::string> pieces) {
    Ran r = zel(args, {"TMPDIR=" + dir_.file("")});
    EXPECT_EQ(r.status, status) << describe(r);
    EXPECT_TRUE(has(r.err, pieces));
    expect_untouched(r);
  }
  // Ctrl-C (or `signal`) once `ready` says so, at least `after_ms` in.
  PtyRun interrupt(
      const std::vector<std::string>& args, int after_ms, int signal = 0,
      std::function<bool()> ready = [] { return true; }) {
    auto started = Clock::now();
    PtyRun run = run_on_pty(
        command(args), 80, [&](const std::string&) { return elapsed_ms(started) > after_ms && ready(); },
        signal);
    ended_ms_ = elapsed_ms(started);
    return run;
  }
  long ended_ms_ = 0;
};

TEST_F(CliTransferTest, GetReplacesTheTargetOnlyWithVerifiedBytes) {
  std::string data = pattern_bytes(200000, 1), keep = precious();
  store("obj", data);
  // The stored bytes changed behind the service's back: same size, other SHA-1.
  std::string good = read_file(blob_of("obj"));
  std::ofstream(blob_of("obj"), std::ios::binary | std::ios::trunc) << pattern_bytes(200000, 2);
  expect_refusal({"get", "bkt/obj", keep}, 1, {"but the object's is " + sha1_hex(data), "left untouched"});
  std::ofstream(blob_of("obj"), std::ios::binary | std::ios::trunc) << good;

  // One chunk refused, and a range the service cannot satisfy.
  ASSERT_TRUE(server_.add_fault(R"({"method":"GET","path":"objects/obj$","header":"Range: bytes=65536-",)"
                                R"("status":403,"times":1})"));
  expect_refusal({"get", "bkt/obj", keep}, 1, {"403"});
  expect_refusal({"get", "bkt/obj", keep, "--range", "300000-300010"}, 1, {});
  Ran whole = zel({"get", "bkt/obj", keep});
  EXPECT_EQ(read_file(keep), data) << describe(whole);
  EXPECT_TRUE(leftovers(".zel-").empty());

  // A server that is gone.
  precious();
  server_.kill9();
  expect_refusal({"get", "bkt/obj", keep}, 4, {});
}

TEST_F(CliTransferTest, PutFailsWhenTheServiceStoredOtherBytes) {
  std::string file = dir_.write("up.bin", pattern_bytes(5000, 3));
  // An answer that claims another SHA-1 than the file's.
  ASSERT_TRUE(server_.add_fault(
      R"({"method":"PUT","path":"objects/lie$","status":200,"body":{"bucketKey":"bkt","objectId":"x",)"
      R"("objectKey":"lie","sha1":"0000000000000000000000000000000000000000","size":5000,)"
      R"("contentType":"application/octet-stream","location":"l"}})"));
  Ran lie = zel({"put", file, "bkt/lie"});
  EXPECT_EQ(lie.status, 1);
  EXPECT_TRUE(has(lie.err, {"SHA-1 0000000000000000000000000000000000000000 but " + file}));
}

TEST_F(CliTransferTest, ResumeRefusesAFileThatIsNotTheSessions) {
  std::string data = pattern_bytes(300000, 4), file = dir_.write("a.bin", data);
  std::string other = dir_.write("b.bin", pattern_bytes(300000, 5)), tiny = dir_.write("tiny.bin", "sixby!");
  ASSERT_EQ(zel({"-q", "put", file, "bkt/half", "--range", "0-149999", "--session", "s-half"}).status, 0);
  server_.clear_requests();
  // Without the note of the session's start (another machine), only the
  // service's ranges, and at the end the SHA-1, can tell.
  const std::vector<std::string> here, elsewhere = {"XDG_STATE_HOME=" + dir_.file("elsewhere")};
  struct Case {
    std::string file;
    std::vector<std::string> env;
    std::string err;
    int status;
  } cases[] = {
      {tiny, here, "is not the file session s-half was started with", 3},
      {tiny, elsewhere, "holds bytes up to 149999: it is not the file of this session", 3},
      {other, here,
       "is not the file session s-half was started with (300000 bytes, SHA-1 " + sha1_hex(data) + ")", 3},
      {other, elsewhere, "but " + other + " has 300000 bytes with SHA-1", 1},
  };
  for (const Case& c : cases) {
    Ran r = zel({"resume", c.file, "bkt/half", "--session", "s-half"}, c.env);
    EXPECT_EQ(r.status, c.status) << describe(r);
    EXPECT_TRUE(has(r.err, {c.err}));
    EXPECT_TRUE(c.status != 3 || matching(server_.requests(), "PUT", "/objects/").empty()) << "nothing sent";
  }
  // A finished session and a file that is not its object.
  ASSERT_EQ(zel({"-q", "put", file, "bkt/done", "--session", "s-done"}).status, 0);
  EXPECT_EQ(zel({"resume", tiny, "bkt/done", "--session", "s-done"}).status, 3);
  EXPECT_EQ(zel({"resume", file, "bkt/done", "--session", "s-done"}).status, 0);
}

// Ctrl-C is typed on a terminal (or SIGTERM sent) once the upload is under
// way and a chunk stalls; the command printed then finishes the upload.
TEST_F(CliTransferTest, CtrlCOrSigtermDuringPutPrintsTheResumeCommand) {
  std::string data = pattern_bytes(6 * 65536, 6), file = dir_.write("big.bin", data);
  for (int signal : {0, SIGTERM}) {
    SCOPED_TRACE(signal);
    std::string key = "bkt/big" + std::to_string(signal), session = "s-int" + std::to_string(signal);
    ASSERT_TRUE(
        server_.add_fault(R"({"method":"PUT","path":"resumable","header":"Content-Range: bytes 131072-",)"
                          R"("delay_ms":4000})"));
    server_.clear_requests();
    PtyRun run = interrupt({"--parallel", "1", "put", file, key, "--session", session}, 1000, signal,
                           [&] { return !matching(server_.requests(), "PUT", "resumable").empty(); });
    EXPECT_EQ(run.status, 130) << run.screen;
    EXPECT_LT(ended_ms_, 3500) << "the stall was awaited";
    std::string hint =
        "to send only what is missing: zel resume " + file + " " + key + " --session " + session;
    EXPECT_TRUE(has(run.screen, {"zel put: interrupted", hint}));
    ASSERT_TRUE(server_.clear_faults());
    EXPECT_EQ(zel({"resume", file, key, "--session", session}).status, 0);
    EXPECT_EQ(stored(key.substr(4)), data);
  }
}

TEST_F(CliTransferTest, CtrlCDuringGetLeavesTheTargetAloneAndOutsideATransferEndsTheTool) {
  store("slow", pattern_bytes(4 * 65536, 7));
  std::string keep = precious();
  ASSERT_TRUE(server_.add_fault(R"({"method":"GET","path":"objects/slow$","header":"Range: bytes=65536-",)"
                                R"("delay_ms":4000})"));
  PtyRun run = interrupt({"get", "bkt/slow", keep}, 1000);
  EXPECT_EQ(run.status, 130) << run.screen;
  EXPECT_TRUE(has(run.screen, {"zel get: interrupted; " + keep + " left untouched"}));
  expect_untouched({});

  ASSERT_TRUE(server_.add_fault(R"({"method":"GET","path":"details","delay_ms":4000})"));
  run = interrupt({"stat", "bkt/k"}, 500);
  EXPECT_EQ(run.status, -1) << "ended by the signal: " << run.screen;
  EXPECT_LT(ended_ms_, 3000);
}

// A bar narrower than the terminal, redrawn in place and cleared before the
// summary; none with --quiet.
TEST_F(CliTransferTest, ProgressBarFitsTheTerminalAndIsCleared) {
  std::string file = dir_.write("bar.bin", pattern_bytes(8 * 65536, 8));
  ASSERT_TRUE(server_.add_fault(R"({"method":"PUT","path":"resumable","delay_ms":150,"times":-1})"));
  PtyRun run = run_on_pty(command({"--parallel", "1", "put", file, "bkt/bar"}), 40);
  ASSERT_EQ(run.status, 0) << run.screen;
  int redraws = 0;
  for (size_t at = 0; (at = run.screen.find("\r\033[K", at)) != std::string::npos; ++redraws) {
    at += 4;
    std::string drawn = run.screen.substr(at, run.screen.find_first_of("\r\n", at) - at);
    EXPECT_TRUE(drawn.rfind("uploaded ", 0) == 0 || drawn.size() < 40u) << "wraps: " << drawn;
  }
  EXPECT_GE(redraws, 3) << run.screen;
  size_t summary = run.screen.find("uploaded ");
  ASSERT_NE(summary, std::string::npos) << run.screen;
  EXPECT_EQ(run.screen.rfind("\r\033[K", summary), summary - 4) << "cleared before the summary";
  PtyRun quiet = run_on_pty(command({"--quiet", "put", file, "bkt/quiet"}), 80);
  EXPECT_EQ(quiet.status, 0);
  EXPECT_EQ(quiet.screen.find("% ["), std::string::npos) << "--quiet draws nothing: " << quiet.screen;
}

TEST_F(CliTransferTest, StandardInputAndOutputCarryData) {
  std::string data = pattern_bytes(200000, 9);
  zel({"put", "-", "bkt/piped"}, {}, true, data);
  EXPECT_EQ(stored("piped"), data);
  Ran get = zel({"get", "bkt/piped", "-"});
  EXPECT_TRUE(get.out == data) << "standard output holds exactly the object's bytes";
  EXPECT_TRUE(has(get.err, {"downloaded bkt/piped to standard output"}));
  EXPECT_TRUE(zel({"--json", "get", "bkt/piped", "-"}).out == data) << "the summary is not in the data";
  EXPECT_EQ(zel({"-q", "put", "-", "bkt/"}, {}, true, data).status, 2) << "standard input has no name";
}

TEST_F(CliTransferTest, DestinationsAsPeopleExpect) {
  std::string data = pattern_bytes(1000, 10), file = dir_.write("photo.jpg", data);
  ASSERT_EQ(mkdir(dir_.file("down").c_str(), 0755), 0);
  const std::vector<std::string> commands[] = {{"put", file, "bkt/"},
                                               {"put", file, "bkt/2024/"},
                                               {"get", "bkt/2024/photo.jpg", dir_.file("down")},
                                               {"cp", "bkt/photo.jpg", "bkt/h5.jpg"},
                                               {"cp", "bkt/photo.jpg", "h6.jpg"}};
  for (auto args : commands) {
    args.insert(args.begin(), "-q");
    EXPECT_EQ(zel(args).status, 0) << args[1] << " " << args[3];
  }
  // BUCKET/DST stays in the bucket, not bkt/bkt/...
  for (const char* key : {"photo.jpg", "2024%2Fphoto.jpg", "h5.jpg", "h6.jpg"})
    EXPECT_EQ(stored(key), data) << key;
  EXPECT_EQ(read_file(dir_.file("down/photo.jpg")), data);
  Ran other = zel({"cp", "bkt/photo.jpg", "other/h4.jpg"});
  EXPECT_EQ(other.status, 2);
  EXPECT_TRUE(has(other.err, {"copies within one bucket"}));
  EXPECT_EQ(http("GET", server_.api(2) + "/buckets/bkt/objects/other%2Fh4.jpg/details", {kAuthHeader}).status,
            404);
}

// Patch transfers with --base: the summary states the bytes on the wire,
// every fallback is a whole verified transfer, --no-fallback ends with 5.
TEST_F(CliTransferTest, PatchTransfersFallBackToWholeOnesUnlessTold) {
  std::string old_data = pattern_bytes(300000, 31), new_data = old_data,
              other_data = pattern_bytes(300000, 33);
  for (size_t at : {5000u, 200000u}) new_data.replace(at, 500, pattern_bytes(500, 32));
  std::string old_file = dir_.write("old.bin", old_data), new_file = dir_.write("new.bin", new_data);
  std::string other_file = dir_.write("other.bin", other_data), keep = precious();
  store("v1", old_data);
  auto base = [&](std::vector<std::string> args) {
    args.insert(args.end(), {"--base", old_file, "--base-key", "v1"});
    return zel(args, {"TMPDIR=" + dir_.file("")});
  };
  auto few_kb = [&](const Ran& r) {  // a patch of a few KB, not the whole file
    return num(result(r), "wire_bytes") > 1000 && num(result(r), "wire_bytes") < 30000 &&
           str(result(r), "transfer") == "patch";
  };

  Ran patched = base({"--json", "put", new_file, "bkt/v2", "--ratio", "0.2"});
  EXPECT_TRUE(few_kb(patched)) << describe(patched);
  EXPECT_EQ(stored("v2"), new_data);
  EXPECT_TRUE(has(base({"put", new_file, "bkt/v2b"}).out,
                  {"uploaded " + new_file + " to bkt/v2b by patch: ", " over the wire for 293.0 KiB ("}));
  Ran refused = base({"put", other_file, "bkt/v3", "--ratio", "0.2", "--no-fallback"});
  EXPECT_EQ(refused.status, 5);
  EXPECT_TRUE(has(refused.err, {"differs from bkt/v1 by more than --ratio 0.2"}));
  EXPECT_EQ(http("GET", server_.api(2) + "/buckets/bkt/objects/v3/details", {kAuthHeader}).status, 404);
  JsonPtr whole = result(base({"--json", "put", other_file, "bkt/v3", "--ratio", "0.2"}));
  EXPECT_EQ(str(whole, "transfer") + " " + std::to_string(num(whole, "wire_bytes")), "full 300000");
  EXPECT_EQ(stored("v3"), other_data);

  // No patch on the service yet: it is asked for one; meanwhile the object
  // comes whole, and the target stays untouched with --no-fallback.
  expect_refusal({"get", "bkt/v2", keep, "--no-fallback", "--base", old_file, "--base-key", "v1"}, 5,
                 {"no patch from bkt/v1 yet"});
  Ran got = base({"--json", "get", "bkt/v2", keep});
  for (int i = 0; i < 100 && got.status == 0 && str(result(got), "transfer") == "full"; ++i) {
    EXPECT_EQ(read_file(keep), new_data);
    precious();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    got = base({"--json", "get", "bkt/v2", keep});
  }
  EXPECT_TRUE(few_kb(got)) << describe(got);
  EXPECT_EQ(read_file(keep), new_data);
  EXPECT_TRUE(leftovers(".zel-").empty());

  EXPECT_EQ(zel({"match", "bkt/v1", new_file, "--ratio", "0.2"}).out, "match\n");
  EXPECT_EQ(zel({"match", "bkt/v1", other_file, "--ratio", "0.2"}).out, "differs\n");
  for (const auto& args : {std::vector<std::string>{"put", new_file, "bkt/v1"},
                           {"get", "bkt/v2", keep, "--range", "0-9"},
                           {"put", new_file, "bkt/v4", "--session", "s"}})
    EXPECT_EQ(base(args).status, 2) << args[0] << " " << args[2];
}

TEST_F(CliTransferTest, StalledAttemptsAreAbortedAndTimeoutsApply) {
  store("stall", pattern_bytes(1000, 11));
  ASSERT_TRUE(server_.add_fault(R"({"method":"GET","path":"objects/stall$","delay_ms":3000,"times":-1})"));
  for (const char* option : {"--stall-timeout", "--timeout"}) {
    auto started = Clock::now();
    Ran r = zel({option, "1", "--retries", "0", "get", "bkt/stall", dir_.file("stall")});
    EXPECT_EQ(r.status, 4) << option << ": " << describe(r);
    EXPECT_LT(elapsed_ms(started), 2800) << option;
    EXPECT_FALSE(file_exists(dir_.file("stall")));
  }
}

}  // namespace
