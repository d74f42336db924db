// End-to-end tests of the zel tool's transfers: nothing unverified reaches a
// user's file, interruptions leave a way forward, streams and destinations.
#include <fstream>
#include <thread>

#include "cli_support.h"

namespace {

using namespace zeltest;

class CliTransferTest : public CliTest {
 protected:
  // A file that must survive every failed download.
  std::string precious() { return dir_.write("keep.txt", "precious bytes\n"); }
  void expect_untouched(const std::string& path, const Ran& r) {
    EXPECT_EQ(zeltest::read_file(path), "precious bytes\n") << describe(r);
    EXPECT_TRUE(leftovers(".zel-").empty()) << "a temporary file was left: " << leftovers(".zel-")[0];
  }
  void interrupt_put(int signal);
};

TEST_F(CliTransferTest, GetReplacesTheTargetOnlyWithVerifiedBytes) {
  std::string data = pattern_bytes(200000, 1);
  store("obj", data);
  std::string keep = precious();

  // The stored bytes changed behind the service's back: same size, other SHA-1.
  std::string good = zeltest::read_file(blob_of("obj"));
  std::ofstream(blob_of("obj"), std::ios::binary | std::ios::trunc) << pattern_bytes(200000, 2);
  Ran corrupt = zel({"get", "bkt/obj", keep});
  EXPECT_EQ(corrupt.status, 1) << describe(corrupt);
  EXPECT_NE(corrupt.err.find("but the object's is " + sha1_hex(data)), std::string::npos) << corrupt.err;
  EXPECT_NE(corrupt.err.find("left untouched"), std::string::npos) << corrupt.err;
  expect_untouched(keep, corrupt);
  std::ofstream(blob_of("obj"), std::ios::binary | std::ios::trunc) << good;

  // One chunk refused, a range the service cannot satisfy, and a server
  // that is gone.
  ASSERT_TRUE(server_.add_fault(R"({"method":"GET","path":"objects/obj$","header":"Range: bytes=65536-",)"
                                R"("status":403,"times":1})"));
  Ran refused = zel({"get", "bkt/obj", keep});
  EXPECT_EQ(refused.status, 1) << describe(refused);
  EXPECT_NE(refused.err.find("403"), std::string::npos) << refused.err;
  expect_untouched(keep, refused);
  Ran beyond = zel({"get", "bkt/obj", keep, "--range", "300000-300010"});
  EXPECT_EQ(beyond.status, 1) << describe(beyond);
  expect_untouched(keep, beyond);

  Ran ok = zel({"get", "bkt/obj", keep, "--range", "100-199"});
  ASSERT_EQ(ok.status, 0) << describe(ok);
  EXPECT_EQ(zeltest::read_file(keep), data.substr(100, 100));
  Ran whole = zel({"get", "bkt/obj", keep});
  ASSERT_EQ(whole.status, 0) << describe(whole);
  EXPECT_EQ(zeltest::read_file(keep), data);
  EXPECT_TRUE(leftovers(".zel-").empty());

  precious();
  server_.kill9();
  Ran gone = zel({"get", "bkt/obj", keep});
  EXPECT_EQ(gone.status, 4) << describe(gone);
  expect_untouched(keep, gone);
}

TEST_F(CliTransferTest, PutFailsWhenTheServiceStoredOtherBytes) {
  std::string file = dir_.write("up.bin", pattern_bytes(5000, 3));
  // An answer that claims another SHA-1 than the file's.
  ASSERT_TRUE(server_.add_fault(
      R"({"method":"PUT","path":"objects/lie$","status":200,"body":{"bucketKey":"bkt","objectId":"x",)"
      R"("objectKey":"lie","sha1":"0000000000000000000000000000000000000000","size":5000,)"
      R"("contentType":"application/octet-stream","location":"l"}})"));
  Ran lie = zel({"put", file, "bkt/lie"});
  EXPECT_EQ(lie.status, 1) << describe(lie);
  EXPECT_NE(lie.err.find("SHA-1 0000000000000000000000000000000000000000 but " + file), std::string::npos)
      << lie.err;
  Ran truth = zel({"--json", "put", file, "bkt/truth"});
  ASSERT_EQ(truth.status, 0) << describe(truth);
  EXPECT_EQ(str(result(truth), "sha1"), sha1_hex(pattern_bytes(5000, 3)));
}

TEST_F(CliTransferTest, ResumeRefusesAFileThatIsNotTheSessions) {
  std::string data = pattern_bytes(300000, 4);
  std::string file = dir_.write("a.bin", data);
  std::string other = dir_.write("b.bin", pattern_bytes(300000, 5));
  std::string tiny = dir_.write("tiny.bin", "sixby!");
  ASSERT_EQ(zel({"-q", "put", file, "bkt/half", "--range", "0-149999", "--session", "s-half"}).status, 0);

  server_.clear_requests();
  Ran shorter = zel({"resume", tiny, "bkt/half", "--session", "s-half"});
  EXPECT_EQ(shorter.status, 3) << describe(shorter);
  EXPECT_NE(shorter.err.find("is not the file session s-half was started with"), std::string::npos)
      << shorter.err;
  Ran unnoted =
      zel({"resume", tiny, "bkt/half", "--session", "s-half"}, {"XDG_STATE_HOME=" + dir_.file("elsewhere")});
  EXPECT_EQ(unnoted.status, 3) << describe(unnoted);
  EXPECT_NE(unnoted.err.find("holds bytes up to 149999: it is not the file of this session"),
            std::string::npos)
      << unnoted.err;
  EXPECT_TRUE(zeltest::matching(server_.requests(), "PUT", "/objects/").empty()) << "nothing sent";

  // Same size, other bytes: the note of the session's start tells; without
  // it (another machine) only the final SHA-1 can.
  Ran other_file = zel({"resume", other, "bkt/half", "--session", "s-half"});
  EXPECT_EQ(other_file.status, 3) << describe(other_file);
  EXPECT_NE(other_file.err.find("is not the file session s-half was started with (300000 bytes, SHA-1 " +
                                sha1_hex(data) + ")"),
            std::string::npos)
      << other_file.err;
  EXPECT_TRUE(zeltest::matching(server_.requests(), "PUT", "/objects/").empty()) << "nothing sent";
  Ran mixed =
      zel({"resume", other, "bkt/half", "--session", "s-half"}, {"XDG_STATE_HOME=" + dir_.file("elsewhere")});
  EXPECT_EQ(mixed.status, 1) << describe(mixed);
  EXPECT_NE(mixed.err.find("but " + other + " has 300000 bytes with SHA-1"), std::string::npos) << mixed.err;

  // A finished session and a file that is not its object.
  ASSERT_EQ(zel({"-q", "put", file, "bkt/done", "--session", "s-done"}).status, 0);
  Ran finished = zel({"resume", tiny, "bkt/done", "--session", "s-done"});
  EXPECT_EQ(finished.status, 3) << describe(finished);
  Ran same = zel({"resume", file, "bkt/done", "--session", "s-done"});
  EXPECT_EQ(same.status, 0) << describe(same);
}

// Ctrl-C is typed on a terminal (or SIGTERM sent) once the upload is under
// way and a chunk stalls; the command printed then finishes the upload.
void CliTransferTest::interrupt_put(int signal) {
  std::string data = pattern_bytes(6 * 65536, 6);
  std::string file = dir_.write("big.bin", data);
  ASSERT_TRUE(
      server_.add_fault(R"({"method":"PUT","path":"resumable","header":"Content-Range: bytes 131072-",)"
                        R"("delay_ms":4000})"));
  auto started = std::chrono::steady_clock::now();
  PtyRun run = run_on_pty(
      command({"--parallel", "1", "put", file, "bkt/big", "--session", "s-int"}), 80,
      [&](const std::string&) {
        return std::chrono::steady_clock::now() - started > std::chrono::milliseconds(1000) &&
               !zeltest::matching(server_.requests(), "PUT", "resumable").empty();
      },
      signal == SIGINT ? 0 : signal);
  EXPECT_EQ(run.status, 130) << run.screen;
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(3500))
      << "the stall was awaited";
  std::string hint = "to send only what is missing: zel resume " + file + " bkt/big --session s-int";
  size_t at = run.screen.find(hint);
  ASSERT_NE(at, std::string::npos) << run.screen;
  EXPECT_NE(run.screen.find("zel put: interrupted"), std::string::npos) << run.screen;
  size_t bar = run.screen.rfind("% [", at);
  if (bar != std::string::npos) {
    EXPECT_NE(run.screen.find("\r\033[K", bar), std::string::npos)
        << "the bar was not cleared: " << run.screen;
  }
  ASSERT_TRUE(server_.clear_faults());
  Ran resume = zel({"resume", file, "bkt/big", "--session", "s-int"});
  ASSERT_EQ(resume.status, 0) << describe(resume);
  EXPECT_EQ(stored("big"), data);
}

TEST_F(CliTransferTest, CtrlCDuringPutPrintsTheResumeCommand) { interrupt_put(SIGINT); }
TEST_F(CliTransferTest, SigtermDuringPutPrintsTheResumeCommand) { interrupt_put(SIGTERM); }

TEST_F(CliTransferTest, CtrlCDuringGetLeavesTheTargetAlone) {
  store("slow", pattern_bytes(4 * 65536, 7));
  std::string keep = precious();
  ASSERT_TRUE(server_.add_fault(R"({"method":"GET","path":"objects/slow$","header":"Range: bytes=65536-",)"
                                R"("delay_ms":4000})"));
  auto started = std::chrono::steady_clock::now();
  PtyRun run = run_on_pty(command({"get", "bkt/slow", keep}), 80, [&](const std::string&) {
    return std::chrono::steady_clock::now() - started > std::chrono::milliseconds(1000);
  });
  EXPECT_EQ(run.status, 130) << run.screen;
  EXPECT_NE(run.screen.find("zel get: interrupted; " + keep + " left untouched"), std::string::npos)
      << run.screen;
  EXPECT_EQ(zeltest::read_file(keep), "precious bytes\n");
  EXPECT_TRUE(leftovers(".zel-").empty());
}

TEST_F(CliTransferTest, ProgressBarFitsTheTerminalAndIsCleared) {
  std::string file = dir_.write("bar.bin", pattern_bytes(8 * 65536, 8));
  ASSERT_TRUE(server_.add_fault(R"({"method":"PUT","path":"resumable","delay_ms":150,"times":-1})"));
  for (int columns : {80, 40}) {
    PtyRun run =
        run_on_pty(command({"--parallel", "1", "put", file, "bkt/bar" + std::to_string(columns)}), columns);
    ASSERT_EQ(run.status, 0) << run.screen;
    int redraws = 0;
    for (size_t at = 0; (at = run.screen.find("\r\033[K", at)) != std::string::npos; ++redraws) {
      at += 4;
      size_t end = run.screen.find_first_of("\r\n", at);
      std::string drawn = run.screen.substr(at, end == std::string::npos ? std::string::npos : end - at);
      if (drawn.rfind("uploaded ", 0) == 0) continue;  // the summary, after the bar was cleared
      EXPECT_LT(drawn.size(), static_cast<size_t>(columns)) << "wraps at " << columns << ": " << drawn;
    }
    EXPECT_GE(redraws, 3) << run.screen;
    if (columns == 80) {
      EXPECT_NE(run.screen.find("/s 0:"), std::string::npos) << "rate and time left: " << run.screen;
      EXPECT_NE(run.screen.find("\r\033[Kput "), std::string::npos) << run.screen;
      EXPECT_NE(run.screen.find("% ["), std::string::npos) << run.screen;
      EXPECT_NE(run.screen.find("/512.0 KiB"), std::string::npos) << "bytes of the total: " << run.screen;
    }
    size_t summary = run.screen.find("uploaded ");
    ASSERT_NE(summary, std::string::npos) << run.screen;
    EXPECT_EQ(run.screen.rfind("\r\033[K", summary), summary - 4) << "cleared before the summary";
  }
  PtyRun quiet = run_on_pty(command({"--quiet", "put", file, "bkt/quiet"}), 80);
  ASSERT_EQ(quiet.status, 0) << quiet.screen;
  EXPECT_EQ(quiet.screen.find("% ["), std::string::npos) << "--quiet draws nothing: " << quiet.screen;
}

TEST_F(CliTransferTest, StandardInputAndOutputCarryData) {
  std::string data = pattern_bytes(200000, 9);
  Ran put = zel({"put", "-", "bkt/piped"}, {}, true, data);
  ASSERT_EQ(put.status, 0) << describe(put);
  EXPECT_EQ(stored("piped"), data);
  EXPECT_NE(put.out.find("uploaded - to bkt/piped"), std::string::npos) << put.out;

  Ran get = zel({"get", "bkt/piped", "-"});
  ASSERT_EQ(get.status, 0) << describe(get);
  EXPECT_TRUE(get.out == data) << "standard output holds exactly the object's bytes";
  EXPECT_NE(get.err.find("downloaded bkt/piped to standard output"), std::string::npos) << get.err;
  Ran json = zel({"--json", "get", "bkt/piped", "-"});
  EXPECT_TRUE(json.out == data);
  EXPECT_EQ(str(result(json.err), "action"), "downloaded") << "the summary on standard error";
  Ran quiet = zel({"-q", "get", "bkt/piped", "-"});
  EXPECT_EQ(quiet.err, "");
  EXPECT_EQ(zel({"-q", "put", "-", "bkt/"}, {}, true, data).status, 2) << "standard input has no name";
}

TEST_F(CliTransferTest, DestinationsAsPeopleExpect) {
  std::string data = pattern_bytes(1000, 10);
  std::string file = dir_.write("photo.jpg", data);
  ASSERT_EQ(zel({"-q", "put", file, "bkt/"}).status, 0);
  EXPECT_EQ(stored("photo.jpg"), data);
  ASSERT_EQ(zel({"-q", "put", file, "bkt/2024/"}).status, 0);
  EXPECT_EQ(stored("2024%2Fphoto.jpg"), data);

  ASSERT_EQ(mkdir(dir_.file("down").c_str(), 0755), 0);
  ASSERT_EQ(zel({"-q", "get", "bkt/2024/photo.jpg", dir_.file("down")}).status, 0);
  EXPECT_EQ(zeltest::read_file(dir_.file("down/photo.jpg")), data);

  ASSERT_EQ(zel({"-q", "cp", "bkt/photo.jpg", "bkt/h5.jpg"}).status, 0);
  EXPECT_EQ(stored("h5.jpg"), data) << "BUCKET/DST stays in the bucket, not bkt/bkt/...";
  ASSERT_EQ(zel({"-q", "cp", "bkt/photo.jpg", "h6.jpg"}).status, 0);
  EXPECT_EQ(stored("h6.jpg"), data);
  Ran other = zel({"cp", "bkt/photo.jpg", "other/h4.jpg"});
  EXPECT_EQ(other.status, 2) << describe(other);
  EXPECT_NE(other.err.find("copies within one bucket"), std::string::npos) << other.err;
  EXPECT_EQ(http("GET", server_.api(2) + "/buckets/bkt/objects/other%2Fh4.jpg/details", {kAuthHeader}).status,
            404);
}

// Patch transfers with --base: the summary states the bytes on the wire,
// every fallback is a whole verified transfer, --no-fallback ends with 5.
TEST_F(CliTransferTest, PatchTransfersFallBackToWholeOnesUnlessTold) {
  std::string old_data = pattern_bytes(300000, 31), new_data = old_data;
  for (size_t at : {5000u, 200000u}) new_data.replace(at, 500, pattern_bytes(500, 32));
  std::string old_file = dir_.write("old.bin", old_data), new_file = dir_.write("new.bin", new_data);
  std::string other_file = dir_.write("other.bin", pattern_bytes(300000, 33));
  store("v1", old_data);
  std::vector<std::string> env{"TMPDIR=" + dir_.file("")};
  auto base = [&](std::vector<std::string> args) {
    args.insert(args.end(), {"--base", old_file, "--base-key", "v1"});
    return args;
  };

  Ran patched = zel(base({"--json", "put", new_file, "bkt/v2", "--ratio", "0.2"}), env);
  ASSERT_EQ(patched.status, 0) << describe(patched);
  EXPECT_EQ(stored("v2"), new_data);
  EXPECT_EQ(str(result(patched), "transfer"), "patch");
  EXPECT_GT(num(result(patched), "wire_bytes"), 1000);
  EXPECT_LT(num(result(patched), "wire_bytes"), 30000) << "a few KB of patch, not the whole file";
  Ran text = zel(base({"put", new_file, "bkt/v2b"}), env);
  ASSERT_EQ(text.status, 0) << describe(text);
  EXPECT_NE(text.out.find("uploaded " + new_file + " to bkt/v2b by patch: "), std::string::npos) << text.out;
  EXPECT_NE(text.out.find(" over the wire for 293.0 KiB ("), std::string::npos) << text.out;

  Ran refused = zel(base({"put", other_file, "bkt/v3", "--ratio", "0.2", "--no-fallback"}), env);
  EXPECT_EQ(refused.status, 5) << describe(refused);
  EXPECT_NE(refused.err.find("differs from bkt/v1 by more than --ratio 0.2"), std::string::npos)
      << refused.err;
  EXPECT_EQ(http("GET", server_.api(2) + "/buckets/bkt/objects/v3/details", {kAuthHeader}).status, 404);
  Ran whole = zel(base({"--json", "put", other_file, "bkt/v3", "--ratio", "0.2"}), env);
  ASSERT_EQ(whole.status, 0) << describe(whole);
  EXPECT_EQ(stored("v3"), pattern_bytes(300000, 33));
  EXPECT_EQ(str(result(whole), "transfer"), "full");
  EXPECT_EQ(num(result(whole), "wire_bytes"), 300000);

  // No patch on the service yet: it is asked for one; meanwhile the object
  // comes whole, and the target stays untouched with --no-fallback.
  std::string keep = precious();
  Ran not_ready = zel(base({"get", "bkt/v2", keep, "--no-fallback"}), env);
  EXPECT_EQ(not_ready.status, 5) << describe(not_ready);
  EXPECT_NE(not_ready.err.find("no patch from bkt/v1 yet"), std::string::npos) << not_ready.err;
  expect_untouched(keep, not_ready);
  Ran got = zel(base({"--json", "get", "bkt/v2", keep}), env);
  for (int i = 0; i < 100 && got.status == 0 && str(result(got), "transfer") == "full"; ++i) {
    EXPECT_EQ(zeltest::read_file(keep), new_data);
    precious();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    got = zel(base({"--json", "get", "bkt/v2", keep}), env);
  }
  ASSERT_EQ(got.status, 0) << describe(got);
  EXPECT_EQ(str(result(got), "transfer"), "patch");
  EXPECT_LT(num(result(got), "wire_bytes"), 30000);
  EXPECT_EQ(zeltest::read_file(keep), new_data);
  EXPECT_TRUE(leftovers(".zel-").empty()) << "left behind: " << leftovers(".zel-")[0];

  Ran close = zel({"match", "bkt/v1", new_file, "--ratio", "0.2"});
  EXPECT_EQ(close.status, 0) << describe(close);
  EXPECT_EQ(close.out, "match\n");
  EXPECT_EQ(zel({"match", "bkt/v1", other_file, "--ratio", "0.2"}).out, "differs\n");

  for (const auto& args : {std::vector<std::string>{"put", new_file, "bkt/v4", "--base", old_file},
                           base({"put", new_file, "bkt/v1"}), base({"get", "bkt/v2", keep, "--range", "0-9"}),
                           base({"put", new_file, "bkt/v4", "--session", "s"})}) {
    Ran usage = zel(args);
    EXPECT_EQ(usage.status, 2) << describe(usage);
  }
}

TEST_F(CliTransferTest, StalledAttemptsAreAbortedAndTimeoutsApply) {
  store("stall", pattern_bytes(1000, 11));
  ASSERT_TRUE(server_.add_fault(R"({"method":"GET","path":"objects/stall$","delay_ms":3000,"times":-1})"));
  for (const char* option : {"--stall-timeout", "--timeout"}) {
    auto started = std::chrono::steady_clock::now();
    Ran r = zel({option, "1", "--retries", "0", "get", "bkt/stall", dir_.file("stall")});
    EXPECT_EQ(r.status, 4) << option << ": " << describe(r);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(2800)) << option;
    EXPECT_FALSE(zeltest::file_exists(dir_.file("stall")));
  }
}

}  // namespace

namespace {

TEST_F(CliTransferTest, CtrlCOutsideATransferEndsTheToolAtOnce) {
  ASSERT_TRUE(server_.add_fault(R"({"method":"GET","path":"details","delay_ms":4000})"));
  auto started = std::chrono::steady_clock::now();
  PtyRun run = run_on_pty(command({"stat", "bkt/k"}), 80, [&](const std::string&) {
    return std::chrono::steady_clock::now() - started > std::chrono::milliseconds(500);
  });
  EXPECT_EQ(run.status, -1) << "ended by the signal: " << run.screen;
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(3000));
}

}  // namespace
