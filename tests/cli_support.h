// Test support for the zel command-line tool: runs the real binary against an
// emulator, with pipes or on a pseudo-terminal.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "transfer_support.h"
#include "zel_server.h"

extern char** environ;

namespace zeltest {

using zeltest::http;
using zeltest::kAuthHeader;
using zeltest::pattern_bytes;
using zeltest::sha1_hex;

struct Ran {
  int status = -1;
  std::string out;
  std::string err;
};

// The environment without the variables zel reads, plus `extra`.
inline std::vector<std::string> clean_env(std::vector<std::string> extra) {
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry = *e;
    if (entry.rfind("ZEL_", 0) != 0 && entry.rfind("COLUMNS=", 0) != 0) extra.push_back(entry);
  }
  return extra;
}

inline std::vector<char*> c_strings(const std::vector<std::string>& in) {
  std::vector<char*> out;
  for (const auto& s : in) out.push_back(const_cast<char*>(s.c_str()));
  out.push_back(nullptr);
  return out;
}

// Output of a program run on a pseudo-terminal (standard output and error
// both go to it).
struct PtyRun {
  int status = -1;  // exit status, or -1 when killed by a signal
  std::string screen;
};

// Runs `argv` on a new pseudo-terminal `columns` wide. `press_ctrl_c` sees
// the output so far; once it returns true, Ctrl-C is typed (once), or
// `signal` is sent instead when given.
inline PtyRun run_on_pty(const std::vector<std::string>& argv, int columns,
                         std::function<bool(const std::string&)> press_ctrl_c = {}, int signal = 0) {
  struct winsize size {};
  size.ws_col = static_cast<unsigned short>(columns);
  size.ws_row = 24;
  auto args = c_strings(argv);
  auto envs_text = clean_env({});
  auto envs = c_strings(envs_text);
  int master = -1;
  PtyRun run;
  pid_t pid = forkpty(&master, nullptr, nullptr, &size);
  if (pid == 0) {
    execve(args[0], args.data(), envs.data());
    _exit(127);
  }
  if (pid < 0) return run;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  bool pressed = false;
  for (;;) {
    struct pollfd p {
      master, POLLIN, 0
    };
    if (std::chrono::steady_clock::now() > deadline) kill(pid, SIGKILL);
    if (poll(&p, 1, 50) > 0) {
      char buffer[4096];
      ssize_t got = read(master, buffer, sizeof buffer);
      if (got <= 0) break;  // EIO: the child and its terminal are gone
      run.screen.append(buffer, static_cast<size_t>(got));
    }
    if (!pressed && press_ctrl_c && press_ctrl_c(run.screen)) {
      pressed = signal != 0 ? kill(pid, signal) == 0 : write(master, "\x03", 1) == 1;
    }
  }
  int wait_status = 0;
  waitpid(pid, &wait_status, 0);
  close(master);
  run.status = WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : -1;
  return run;
}

class CliTest : public zeltest::EmulatorTest {
 protected:
  using HttpResult = zeltest::HttpResult;

  void SetUp() override {
    if (access(ZEL_BIN_DIR "/zel", X_OK) != 0) GTEST_SKIP() << "zel is not built (ZEL_BUILD_CLI=OFF)";
    EmulatorTest::SetUp();
    // zel keeps notes of started uploads there; never in the real home.
    setenv("XDG_STATE_HOME", dir_.file("state").c_str(), 1);
    ASSERT_TRUE(server_.make_bucket("bkt"));
  }

  std::vector<std::string> command(const std::vector<std::string>& args, bool with_endpoint = true) const {
    std::vector<std::string> argv{std::string(ZEL_BIN_DIR) + "/zel"};
    if (with_endpoint) argv.insert(argv.end(), {"--endpoint", server_.base_url(), "--chunk-size", "64KiB"});
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
  }

  // Runs zel with the emulator's endpoint, small chunks and `args`;
  // `env` entries ("NAME=value") are added to the environment, `input`
  // is standard input.
  Ran zel(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
          bool with_endpoint = true, const std::string& input = "") {
    return spawn(command(args, with_endpoint), env, input);
  }

  Ran spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env,
            const std::string& input = "") {
    std::string in_path = dir_.write("stdin", input);
    std::string out_path = dir_.file("stdout"), err_path = dir_.file("stderr");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, in_path.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    auto args = c_strings(argv);
    auto envs_text = clean_env(env);
    auto envs = c_strings(envs_text);
    pid_t pid = -1;
    Ran run;
    if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envs.data()) == 0) {
      int wait_status = 0;
      waitpid(pid, &wait_status, 0);
      run.status = WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    run.out = zeltest::read_file(out_path);
    run.err = zeltest::read_file(err_path);
    return run;
  }

  static std::string describe(const Ran& r) {
    return "status " + std::to_string(r.status) + "\nstdout: " + r.out + "\nstderr: " + r.err;
  }

  // The single JSON document zel printed.
  static zeltest::JsonPtr doc(const std::string& text) {
    zeltest::JsonPtr parsed = zeltest::parse_json(text);
    EXPECT_TRUE(parsed != nullptr) << "not one JSON document: " << text;
    return parsed;
  }
  static zeltest::JsonPtr doc(const Ran& r) { return doc(r.out); }
  // The "result" of a successful command's document.
  static zeltest::JsonPtr result(const Ran& r) { return result(r.out); }
  static zeltest::JsonPtr result(const std::string& text) {
    zeltest::JsonPtr d = doc(text);
    return zeltest::JsonPtr(d ? json_incref(json_object_get(d.get(), "result")) : nullptr);
  }
  static std::string str(const zeltest::JsonPtr& d, const char* key) {
    const char* value = d ? json_string_value(json_object_get(d.get(), key)) : nullptr;
    return value != nullptr ? value : "<missing>";
  }
  static long long num(const zeltest::JsonPtr& d, const char* key) { return d ? json_int(d.get(), key) : -1; }

  std::string stored(const std::string& escaped_key) {
    return http("GET", server_.api(2) + "/buckets/bkt/objects/" + escaped_key, {kAuthHeader}).body;
  }
  // Uploads `data` as bkt/KEY straight to the emulator.
  void store(const std::string& key, const std::string& data) {
    ASSERT_EQ(http("PUT", server_.api(2) + "/buckets/bkt/objects/" + key, {kAuthHeader}, data).status, 200);
  }
  // The emulator's file of an object: changing it changes the object
  // behind the service's back (its SHA-1 stays).
  std::string blob_of(const std::string& key) {
    auto d = zeltest::parse_json(
        http("GET", server_.api(2) + "/buckets/bkt/objects/" + key + "/details", {kAuthHeader}).body);
    std::string id = d ? json_str(d.get(), "objectId") : "";
    return server_.data_dir() + "/objects/" + id.substr(id.rfind(':') + 1);
  }
  // Files of the scratch directory whose names contain `part`.
  std::vector<std::string> leftovers(const std::string& part) {
    std::vector<std::string> out;
    for (const std::string& name : zeltest::dir_entries(dir_.file("")))
      if (name.find(part) != std::string::npos) out.push_back(name);
    return out;
  }

  zeltest::ScratchDir dir_;
};

}  // namespace zeltest
