// Shared pieces of the zel command-line tool.
#pragma once

#include <jansson.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>
#include <zel/zel.hpp>

namespace CLI {
class App;
}

namespace zelcli {

// Exit statuses: the operation failed, or the command line was wrong.
constexpr int kFailed = 1;
constexpr int kUsage = 2;

// A command line the tool cannot act on; ends with exit status 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Global {
  std::string endpoint = "http://localhost:9000";
  int api = 2;
  std::string token = "local-dev-token";
  uint32_t parallel = 0;  // 0: the library's defaults
  uint64_t chunk_size = 0;
  int retries = -1;
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

// Prints results: text, or one JSON document per result with --json.
class Output {
 public:
  explicit Output(const Global& global) : global_(global) {}
  bool json() const { return global_.json; }
  bool quiet() const { return global_.quiet; }
  // Prints `doc` with --json, else `text` (plus a line feed when missing).
  void result(json_t* doc, const std::string& text) const;
  // Progress notes on standard error; silent with --quiet or --json.
  void note(const std::string& text) const;
  // The one-line failure report; returns kFailed.
  int fail(const std::string& command, const std::string& target, const zel::Error& error) const;

 private:
  const Global& global_;
};

// Everything a command needs once the command line is parsed.
struct Context {
  Global global;
  std::string command;
  std::function<int(Context&)> action;  // set by the chosen command
  std::unique_ptr<zel::Client> client;
  Output out{global};
};

// BUCKET/KEY, split at the first "/".
struct Target {
  std::string bucket;
  std::string key;
  std::string text() const { return bucket + "/" + key; }
};
Target parse_target(const std::string& text);
zel::ByteRange parse_range(const std::string& text);   // "S-E", inclusive
zel::Permission parse_grant(const std::string& text);  // "AUTH_ID:read|full"
uint32_t parse_policy(const std::string& text);
std::string new_session_id();

// Text helpers.
std::string human_bytes(double bytes);
std::string format_time(int64_t stamp);
std::string hex_sha1_of_file(const std::string& path);  // empty on failure
bool file_size(const std::string& path, uint64_t& size);

// JSON forms of the records.
json_t* json_bucket(const zel::BucketDetails& d);
json_t* json_object(const zel::ObjectDetails& d);
json_t* json_permissions(const std::vector<zel::Permission>& list);
std::string text_bucket(const zel::BucketDetails& d);
std::string text_object(const zel::ObjectDetails& d);

// A progress bar on standard error, drawn only on a terminal; safe to feed
// from several threads.
class ProgressBar {
 public:
  ProgressBar(bool enabled, std::string label);
  ~ProgressBar();
  // The bar's total may differ from the transfer's when several transfers
  // make up one (resume): `offset` bytes were done before this one.
  bool update(uint64_t offset, uint64_t done, uint64_t total);
  void finish();

 private:
  void draw(uint64_t done, uint64_t total);

  bool enabled_;
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
};
void print_summary(const Output& out, const Summary& s, json_t* extra);

void add_bucket_commands(CLI::App& app, Context& ctx);
void add_object_commands(CLI::App& app, Context& ctx);
void add_transfer_commands(CLI::App& app, Context& ctx);
void add_diff_commands(CLI::App& app, Context& ctx);

}  // namespace zelcli
