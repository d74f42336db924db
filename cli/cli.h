// Shared pieces of the zel command-line tool.
#pragma once

#include <jansson.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>
#include <zel/zel.hpp>

namespace CLI {
class App;
}

namespace zelcli {

// Exit statuses, one per kind of failure (documented in the README).
constexpr int kServiceFailed = 1;  // the service refused, or its bytes failed verification
constexpr int kUsage = 2;
constexpr int kLocalFailed = 3;      // a local file or resource
constexpr int kTransportFailed = 4;  // the endpoint could not be reached or the exchange broke
constexpr int kNoPatch = 5;  // --no-fallback: no patch could be used (files too different, none ready)
constexpr int kInterruptedBase = 128;  // plus the signal number, for a second signal
// A transfer stopped by SIGINT or SIGTERM ends with one status, whichever
// signal it was, so scripts can tell an interruption from a failure.
constexpr int kInterrupted = 130;

// A command line the tool cannot act on; ends with exit status 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Global {
  std::string endpoint = "http://localhost:9000";
  int api = 2;
  std::string token = "local-dev-token";
  uint32_t parallel = 0;   // 0: the library's defaults
  std::string chunk_size;  // with units; empty: the library's default
  int retries = -1;
  double timeout = 0;         // seconds per attempt; 0: none
  double stall_timeout = 60;  // seconds below 1 KiB/s before an attempt is retried; 0: never
  std::string proxy;
  bool insecure = false;
  bool json = false;
  bool quiet = false;
  bool verbose = false;
};

struct JsonFree {
  void operator()(json_t* j) const { json_decref(j); }
};
using Json = std::unique_ptr<json_t, JsonFree>;

// What went wrong, sorted by who can fix it.
enum class FailureKind { kLocal, kTransport, kService, kVerification, kUsage, kInterrupted, kNoPatch };

struct Failure {
  FailureKind kind = FailureKind::kService;
  std::string target;   // the local path, the endpoint or BUCKET/KEY
  std::string message;  // already escaped for a terminal
  int status = 0;       // HTTP status for service failures, else 0
  std::string hint;     // one line of advice, or empty
};
int exit_status(FailureKind kind);

// Sorts a library error into the three kinds; `endpoint` names a transport
// failure, `target` a service one.
Failure classify(const zel::Error& error, const std::string& endpoint, const std::string& target);
Failure local_failure(const std::string& path, int error_number);
// Control characters and invalid UTF-8 from the service shown as escapes.
std::string escape_text(const std::string& text);

// Prints results and failures: text, or exactly one JSON document with
// --json ({"ok", "command", "result"|"error"}, see the README).
class Output {
 public:
  explicit Output(const Global& global) : global_(global) {}
  bool json() const { return global_.json; }
  bool quiet() const { return global_.quiet; }
  // Standard output carries downloaded bytes: results and notes go to
  // standard error.
  void data_on_stdout() { data_on_stdout_ = true; }
  void set_command(std::string command) { command_ = std::move(command); }
  const std::string& command() const { return command_; }
  // Prints `doc` (owned) as the result with --json, else `text` unless -q
  // silences summaries (`summary` true).
  void result(json_t* doc, const std::string& text, bool summary = false) const;
  // Progress notes on standard error; silent with --quiet or --json.
  void note(const std::string& text) const;
  // Reports a failure and returns its exit status.
  int fail(const Failure& failure) const;
  int fail(const std::string& target, const zel::Error& error, const std::string& endpoint) const;

 private:
  FILE* result_stream() const { return data_on_stdout_ ? stderr : stdout; }
  const Global& global_;
  std::string command_;
  bool data_on_stdout_ = false;
};

// Everything a command needs once the command line is parsed.
struct Context {
  Global global;
  std::string command;
  std::string endpoint;                 // normalised --endpoint
  std::function<int(Context&)> action;  // set by the chosen command
  std::unique_ptr<zel::Client> client;
  Output out{global};
  int fail(const std::string& target, const zel::Error& error) const {
    return out.fail(target, error, endpoint);
  }
};

// BUCKET/KEY, split at the first "/".
struct Target {
  std::string bucket;
  std::string key;
  std::string text() const { return bucket + "/" + key; }
};
Target parse_target(const std::string& text);
// BUCKET/KEY where the key may be left out ("BUCKET/" or "BUCKET").
Target parse_target_prefix(const std::string& text);
zel::ByteRange parse_range(const std::string& text);   // "S-E", inclusive
zel::Permission parse_grant(const std::string& text);  // "AUTH_ID:read|full"
uint32_t parse_policy(const std::string& text);
uint64_t parse_chunk_size(const std::string& text);  // "5MiB", "8M", "65536"
std::string normalise_endpoint(const std::string& text);
std::string new_session_id();
std::string last_segment(const std::string& path);

// Text helpers.
std::string human_bytes(double bytes);
std::string format_time(int64_t stamp);
std::string iso_time(int64_t stamp_ms);
std::string hex_sha1_of_file(const std::string& path);  // empty on failure
bool file_size(const std::string& path, uint64_t& size);
bool is_directory(const std::string& path);

// JSON forms of the records.
json_t* json_real_rounded(double value, double unit);
void json_set_date(json_t* doc, const char* name, int64_t stamp_ms);
json_t* json_bucket(const zel::BucketDetails& d);
json_t* json_object(const zel::ObjectDetails& d);
json_t* json_permissions(const std::vector<zel::Permission>& list);
std::string text_bucket(const zel::BucketDetails& d);
std::string text_object(const zel::ObjectDetails& d);

// A progress bar on standard error, drawn only on a terminal, always within
// its width; safe to feed from several threads.
class ProgressBar {
 public:
  ProgressBar(bool enabled, std::string label);
  ~ProgressBar();
  // The bar's total may differ from the transfer's when several transfers
  // make up one (resume): `offset` bytes were done before this one.
  // False once the tool was interrupted, which cancels the transfer.
  bool update(uint64_t offset, uint64_t done, uint64_t total);
  void finish();
  // The line drawn for a width of `columns`; exposed for tests.
  static std::string line(const std::string& label, uint64_t done, uint64_t total, double seconds,
                          int columns);

 private:
  std::atomic<bool> enabled_;
  std::string label_;
  std::mutex mutex_;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point last_draw_;
  uint64_t done_ = 0;
  uint64_t total_ = 0;
  bool drawn_ = false;
};

// Summary of a finished transfer: text line and JSON document.
struct Summary {
  std::string verb;  // "uploaded", "downloaded"
  std::string from;
  std::string to;
  uint64_t size = 0;
  double seconds = 0;
  std::string sha1;
  // With --base: "patch" or "full", and the bytes that went over the wire
  // (the patch, or the whole file); empty for a plain transfer.
  std::string how;
  std::optional<uint64_t> wire;
};
void print_summary(const Output& out, const Summary& s, json_t* extra);

// Interruption: outside a transfer SIGINT and SIGTERM end the tool as usual.
// During one they set a flag that the transfer polls; a second signal ends
// the process at once after removing the registered file.
void install_signal_handlers();
struct TransferScope {
  TransferScope();
  ~TransferScope();
  TransferScope(const TransferScope&) = delete;
  TransferScope& operator=(const TransferScope&) = delete;
};
int interrupted();  // the signal number, or 0
// A file removed if the process is ended by a second signal (one at a time).
void set_cleanup_file(const std::string& path);

// Waits for an operation, and gives up waiting when the tool is
// interrupted (the transfer is cancelled through its progress callback).
template <class T>
std::optional<zel::Result<T>> wait_for(std::future<zel::Result<T>>& future) {
  using namespace std::chrono_literals;
  auto deadline = std::chrono::steady_clock::time_point::max();
  while (future.wait_for(50ms) != std::future_status::ready) {
    if (interrupted() == 0) continue;
    // A cancelled transfer ends at its next progress report; a retry in
    // flight may not report, so waiting is bounded.
    if (deadline == std::chrono::steady_clock::time_point::max())
      deadline = std::chrono::steady_clock::now() + 2s;
    if (std::chrono::steady_clock::now() > deadline) return std::nullopt;
  }
  return future.get();
}
// Ends the process for an interruption, without waiting for library threads.
[[noreturn]] void exit_interrupted(const Output& out, const std::string& message);

// Registration of command groups: each adds its subcommands to the app.
// A new group needs one line in main.cc's list.
void add_bucket_commands(CLI::App& app, Context& ctx);
void add_object_commands(CLI::App& app, Context& ctx);
void add_put_commands(CLI::App& app, Context& ctx);
void add_get_commands(CLI::App& app, Context& ctx);
void add_diff_commands(CLI::App& app, Context& ctx);
void add_match_command(CLI::App& app, Context& ctx);

// The options that turn a put or get into a patch transfer.
struct DeltaArgs {
  std::string base;      // local file equal to the stored base object
  std::string base_key;  // that object's key, in the same bucket
  double ratio = 0.5;
  bool no_fallback = false;
  bool on() const { return !base.empty(); }
};
void add_delta_options(CLI::App* cmd, DeltaArgs& args, const char* direction);
// Usage errors of a patch transfer to or from `target`.
void check_delta_args(const DeltaArgs& args, const Target& target);
zel::DeltaOptions delta_options(const DeltaArgs& args);
// Why a patch transfer did not happen: the failure to report with
// --no-fallback, whose message is also the note before a whole transfer.
Failure no_patch(const Context& c, const DeltaArgs& args, const std::string& target,
                 const zel::Result<zel::DeltaResult>& result, bool upload);

}  // namespace zelcli
