// Transfer commands: put, resume, get, get-url.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <optional>

#include "cli.h"

namespace zelcli {
namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

struct PutArgs {
  std::string file, target, content_type, range, session;
  bool create_bucket = false;
};

void resume_hint(const Context& c, const PutArgs& a, const std::string& session) {
  c.out.note("to send only what is missing: zel resume " + a.file + " " + a.target + " --session " + session);
}

// The report of an upload the service accepted without assembling the
// object yet: other ranges are still missing.
int report_partial(Context& c, const Target& t, const std::string& session, uint64_t sent) {
  c.out.result(json_pack("{s:s, s:s, s:s, s:s, s:I}", "result", "accepted", "bucket", t.bucket.c_str(), "key",
                         t.key.c_str(), "session", session.c_str(), "sent", static_cast<json_int_t>(sent)),
               "sent " + std::to_string(sent) + " bytes to " + t.text() + " in session " + session +
                   "; the service still misses other ranges");
  return 0;
}

int run_put(Context& c, const PutArgs& a) {
  Target t = parse_target(a.target);
  zel::PutOptions options;
  options.content_type = a.content_type;
  options.session_id = a.session.empty() ? new_session_id() : a.session;
  if (!a.range.empty()) options.range = parse_range(a.range);
  if (a.create_bucket) c.client->settings().auto_create_bucket = 1;
  ProgressBar bar(!c.out.quiet(), "put");
  options.progress = [&bar](uint64_t done, uint64_t total) { return bar.update(0, done, total); };
  Clock::time_point start = Clock::now();
  auto result = c.client->put_object(a.file, t.bucket, t.key, options).get();
  bar.finish();
  if (!result) {
    c.out.fail("put", t.text(), result.error());
    uint64_t size = 0;
    if (file_size(a.file, size)) resume_hint(c, a, options.session_id);
    return kFailed;
  }
  uint64_t sent = 0;
  if (options.range) sent = options.range->end - options.range->start + 1;
  if (!result.value().details) return report_partial(c, t, options.session_id, sent);
  const zel::ObjectDetails& d = *result.value().details;
  Summary s{"uploaded", a.file, t.text(), options.range ? sent : d.size, seconds_since(start), d.sha1};
  print_summary(c.out, s, json_object(d));
  return 0;
}

void add_put(CLI::App& app, Context& ctx) {
  auto args = std::make_shared<PutArgs>();
  CLI::App* cmd = app.add_subcommand("put", "Upload a file (in parallel chunks when large)");
  cmd->add_option("FILE", args->file, "Local file")->required();
  cmd->add_option("BUCKET/KEY", args->target, "Where it goes (the key may hold further '/')")->required();
  cmd->add_option("--content-type", args->content_type, "Content type (default application/octet-stream)");
  cmd->add_option("--range", args->range, "Send only bytes S-E of the file (inclusive)");
  cmd->add_option("--session", args->session, "Upload session id (default: a new one)");
  cmd->add_flag("--create-bucket", args->create_bucket, "Create the bucket when it does not exist");
  cmd->footer("Example:\n  zel put holiday.mp4 videos/2024/holiday.mp4 --content-type video/mp4");
  cmd->callback([&ctx, args] { ctx.action = [args](Context& c) { return run_put(c, *args); }; });
}

// The byte ranges of [0, size) that `held` (ascending) does not cover.
std::vector<zel::ByteRange> missing_ranges(const std::vector<zel::ByteRange>& held, uint64_t size) {
  std::vector<zel::ByteRange> out;
  uint64_t next = 0;
  for (const zel::ByteRange& r : held) {
    if (next >= size) break;
    if (r.start > next) out.push_back({next, std::min(r.start, size) - 1});
    if (r.end + 1 > next) next = r.end + 1;
  }
  if (next < size) out.push_back({next, size - 1});
  return out;
}

// Sends each missing range; the answer to the one that completes the
// object carries its details.
int send_missing(Context& c, const PutArgs& a, const Target& t, const std::vector<zel::ByteRange>& missing) {
  uint64_t total = 0, offset = 0;
  for (const auto& r : missing) total += r.end - r.start + 1;
  ProgressBar bar(!c.out.quiet(), "resume");
  std::optional<zel::ObjectDetails> details;
  Clock::time_point start = Clock::now();
  for (const zel::ByteRange& r : missing) {
    zel::PutOptions options;
    options.session_id = a.session;
    options.content_type = a.content_type;
    options.range = r;
    options.progress = [&bar, &offset, total](uint64_t done, uint64_t) {
      return bar.update(offset, done, total);
    };
    auto result = c.client->put_object(a.file, t.bucket, t.key, options).get();
    if (!result) {
      bar.finish();
      return c.out.fail("resume", t.text(), result.error());
    }
    if (result.value().details) details = result.value().details;
    offset += r.end - r.start + 1;
  }
  bar.finish();
  if (!details) return report_partial(c, t, a.session, total);
  print_summary(c.out, {"uploaded", a.file, t.text(), total, seconds_since(start), details->sha1},
                json_object(*details));
  return 0;
}

int run_resume(Context& c, const PutArgs& a) {
  Target t = parse_target(a.target);
  uint64_t size = 0;
  if (!file_size(a.file, size)) return c.out.fail("resume", a.file, {errno, std::strerror(errno)});
  auto status = c.client->upload_session(t.bucket, t.key, a.session).get();
  std::vector<zel::ByteRange> missing;
  if (status) {
    missing = missing_ranges(status.value().ranges, size);
  } else if (status.error().code == 404) {
    c.out.note("the service knows no session " + a.session + "; sending the whole file");
    PutArgs whole = a;
    return run_put(c, whole);
  } else {
    return c.out.fail("resume", t.text() + " " + a.session, status.error());
  }
  uint64_t held = size;
  for (const auto& r : missing) held -= r.end - r.start + 1;
  c.out.note("the service holds " + std::to_string(held) + " of " + std::to_string(size) +
             " bytes; sending " + std::to_string(missing.size()) + " missing range(s)");
  if (!missing.empty()) return send_missing(c, a, t, missing);
  auto details = c.client->object_details(t.bucket, t.key).get();
  if (!details) return c.out.fail("resume", t.text(), details.error());
  print_summary(c.out, {"uploaded", a.file, t.text(), 0, 0, details.value().sha1},
                json_object(details.value()));
  return 0;
}

void add_resume(CLI::App& app, Context& ctx) {
  auto args = std::make_shared<PutArgs>();
  CLI::App* cmd =
      app.add_subcommand("resume", "Finish an interrupted upload, sending only the missing bytes");
  cmd->add_option("FILE", args->file, "The same local file")->required();
  cmd->add_option("BUCKET/KEY", args->target, "Where it goes")->required();
  cmd->add_option("--session", args->session, "The interrupted upload's session id")->required();
  cmd->add_option("--content-type", args->content_type, "Content type (default application/octet-stream)");
  cmd->footer("Example:\n  zel resume holiday.mp4 videos/2024/holiday.mp4 --session 4f1c0d2e9a7b4c55");
  cmd->callback([&ctx, args] { ctx.action = [args](Context& c) { return run_resume(c, *args); }; });
}

struct GetArgs {
  std::string source, file, range;
  bool auth = false;
  bool by_url = false;
};

int run_get(Context& c, const GetArgs& a) {
  zel::GetOptions options;
  if (!a.range.empty()) options.range = parse_range(a.range);
  std::optional<Target> t;
  if (!a.by_url) t = parse_target(a.source);
  const char* name = a.by_url ? "get-url" : "get";
  ProgressBar bar(!c.out.quiet(), name);
  options.progress = [&bar](uint64_t done, uint64_t total) { return bar.update(0, done, total); };
  Clock::time_point start = Clock::now();
  auto result = a.by_url ? c.client->get_object_by_url(a.source, a.file, a.auth, options).get()
                         : c.client->get_object(t->bucket, t->key, a.file, options).get();
  bar.finish();
  if (!result) return c.out.fail(name, a.source, result.error());
  uint64_t size = 0;
  file_size(a.file, size);
  print_summary(c.out, {"downloaded", a.source, a.file, size, seconds_since(start), hex_sha1_of_file(a.file)},
                nullptr);
  return 0;
}

void add_get(CLI::App& app, Context& ctx, bool by_url) {
  auto args = std::make_shared<GetArgs>();
  args->by_url = by_url;
  CLI::App* cmd = by_url ? app.add_subcommand("get-url", "Download from a complete URL")
                         : app.add_subcommand("get", "Download an object (in parallel chunks when large)");
  if (by_url) {
    cmd->add_option("URL", args->source, "Download URL")->required();
  } else {
    cmd->add_option("BUCKET/KEY", args->source, "The object")->required();
  }
  cmd->add_option("FILE", args->file, "Local file, created or emptied")->required();
  cmd->add_option("--range", args->range, "Fetch only bytes S-E (inclusive), written from offset 0");
  if (by_url) cmd->add_flag("--auth", args->auth, "Send the bearer token");
  cmd->footer(by_url ? "Example:\n  zel get-url https://cdn.example.com/f/holiday.mp4 holiday.mp4"
                     : "Example:\n  zel get videos/2024/holiday.mp4 holiday.mp4");
  cmd->callback([&ctx, args] { ctx.action = [args](Context& c) { return run_get(c, *args); }; });
}

}  // namespace

void add_transfer_commands(CLI::App& app, Context& ctx) {
  add_put(app, ctx);
  add_resume(app, ctx);
  add_get(app, ctx, false);
  add_get(app, ctx, true);
}

}  // namespace zelcli
