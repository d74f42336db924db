// Upload commands: put and resume. An upload is done only when the SHA-1
// the service states for the object equals the local file's.
#include <strings.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <cerrno>

#include "local_files.h"

namespace zelcli {
namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

struct PutArgs {
  std::string file, target, content_type, range, session;
  bool create_bucket = false;
  DeltaArgs delta;
};

// One upload in progress: the file actually read (standard input is
// spooled), its size and SHA-1, and what the service acknowledged.
struct Upload {
  std::string shown;  // the name the user gave
  std::string path;
  uint64_t size = 0;
  std::string sha1;
  Target target;
  std::string session;
  std::atomic<uint64_t> held{0};  // bytes of acknowledged chunks
  TempFile spool;
  std::string how;  // "full" when a patch upload fell back
};

std::optional<Failure> open_source(const std::string& file, Upload& up) {
  up.shown = file;
  up.path = file;
  if (file == "-") {
    if (auto failure = up.spool.spool_stdin()) return failure;
    up.path = up.spool.path();
  }
  if (auto failure = readable_file(up.path, up.size)) return failure;
  up.sha1 = hex_sha1_of_file(up.path);
  if (up.sha1.empty()) return local_failure(up.shown, errno != 0 ? errno : EIO);
  return std::nullopt;
}

// "BUCKET/" (or "BUCKET/DIR/") takes the file's name as the last segment.
Target upload_target(const std::string& text, const std::string& file) {
  Target t = parse_target_prefix(text);
  if (t.key.empty() || t.key.back() == '/') {
    if (file == "-") throw UsageError("'" + text + "' needs a KEY when reading standard input");
    t.key += last_segment(file);
  }
  return parse_target(t.text());
}

std::string resume_command(const Upload& up) {
  return "zel resume " + up.shown + " " + up.target.text() + " --session " + up.session;
}

// Only when the session holds bytes can resume save anything.
void resume_hint(const Upload& up) {
  if (up.held > 0) std::fprintf(stderr, "to send only what is missing: %s\n", resume_command(up).c_str());
}

[[noreturn]] void interrupted_upload(Context& c, Upload& up) {
  up.spool.remove();
  std::string message = "interrupted";
  if (up.held > 0) message += "; the service holds part of the upload";
  std::fflush(stdout);
  resume_hint(up);
  exit_interrupted(c.out, message);
}

// The hint a failed upload deserves.
int upload_failed(Context& c, Upload& up, const zel::Error& error) {
  Failure f = classify(error, c.endpoint, up.target.text());
  if (f.kind == FailureKind::kService && f.status == 404) {
    auto bucket = c.client->bucket_details(up.target.bucket).get();
    if (!bucket && bucket.error().code == 404) {
      f.message = "no bucket " + escape_text(up.target.bucket);
      f.hint = "add --create-bucket to create it";
    }
  }
  int status = c.out.fail(f);
  if (f.hint.empty() && f.status != 401 && f.status != 403) resume_hint(up);
  return status;
}

// A stored object is the file only if the service's SHA-1 says so.
int verify_stored(Context& c, const Upload& up, const zel::ObjectDetails& d) {
  if (strcasecmp(d.sha1.c_str(), up.sha1.c_str()) == 0 && d.size == up.size) return 0;
  return c.out.fail({FailureKind::kVerification, up.target.text(),
                     "the service stored " + std::to_string(d.size) + " bytes with SHA-1 " +
                         escape_text(d.sha1) + " but " + escape_text(up.shown) + " has " +
                         std::to_string(up.size) + " bytes with SHA-1 " + up.sha1,
                     0, ""});
}

int report_partial(Context& c, const Upload& up, uint64_t sent) {
  c.out.result(
      json_pack("{s:s, s:s, s:s, s:s, s:I}", "action", "accepted", "bucket", up.target.bucket.c_str(), "key",
                up.target.key.c_str(), "session", up.session.c_str(), "sent", static_cast<json_int_t>(sent)),
      "sent " + std::to_string(sent) + " bytes to " + escape_text(up.target.text()) + " in session " +
          up.session + "; the service still misses other ranges",
      true);
  return 0;
}

// Sends `range` (or the whole file) and waits; none when interrupted.
std::optional<zel::Result<zel::UploadResult>> send(Context& c, Upload& up,
                                                   std::optional<zel::ByteRange> range,
                                                   const std::string& content_type, ProgressBar& bar,
                                                   uint64_t offset) {
  zel::PutOptions options;
  options.content_type = content_type;
  options.session_id = up.session;
  options.range = range;
  options.progress = [&bar, offset](uint64_t done, uint64_t) { return bar.update(offset, done, 0); };
  options.chunk_done = [&up](zel::ByteRange r) { up.held += r.end - r.start + 1; };
  auto future = c.client->put_object(up.path, up.target.bucket, up.target.key, options);
  return wait_for(future);
}

int run_put(Context& c, const PutArgs& a, Upload& up) {
  std::optional<zel::ByteRange> range;
  if (!a.range.empty()) range = parse_range(a.range);
  if (range && range->end >= up.size)
    throw UsageError("--range " + a.range + " reaches past the end of " + up.shown + " (" +
                     std::to_string(up.size) + " bytes)");
  if (a.create_bucket) c.client->settings().auto_create_bucket = 1;
  if (range || up.size > c.client->settings().chunk_size)
    note_session(up.session, {up.size, up.sha1, up.target.text()});
  ProgressBar bar(!c.out.quiet(), "put");
  bar.update(0, 0, range ? range->end - range->start + 1 : up.size);
  Clock::time_point start = Clock::now();
  auto result = send(c, up, range, a.content_type, bar, 0);
  bar.finish();
  if (!result || interrupted() != 0) interrupted_upload(c, up);
  if (!*result) return upload_failed(c, up, result->error());
  uint64_t sent = range ? range->end - range->start + 1 : up.size;
  if (!result->value().details) return report_partial(c, up, sent);
  const zel::ObjectDetails& d = *result->value().details;
  if (!range) {
    if (int failed = verify_stored(c, up, d)) return failed;
  }
  forget_session(up.session);
  Summary summary{"uploaded", up.shown, up.target.text(), sent, seconds_since(start), d.sha1, up.how, {}};
  if (!up.how.empty()) summary.wire = sent;
  print_summary(c.out, summary, json_object(d));
  return 0;
}

// Sends only a patch against --base; falls back to the whole file when no
// patch can be used, unless --no-fallback.
int run_put_patch(Context& c, const PutArgs& a, Upload& up) {
  for (const auto& [given, name] : {std::pair{!a.range.empty(), "--range"},
                                    {!a.session.empty(), "--session"},
                                    {!a.content_type.empty(), "--content-type"},
                                    {a.create_bucket, "--create-bucket"},
                                    {a.file == "-", "standard input"}})
    if (given) throw UsageError(std::string(name) + " cannot be combined with --base");
  check_delta_args(a.delta, up.target);
  uint64_t base_size = 0;
  if (auto failure = readable_file(a.delta.base, base_size)) return c.out.fail(*failure);
  if (auto failure = open_source(a.file, up)) return c.out.fail(*failure);
  Clock::time_point start = Clock::now();
  // Blocks while the signature, the patch and the SHA-1 are computed.
  auto future = c.client->put_patch(a.delta.base, up.path, up.target.bucket, a.delta.base_key, up.target.key,
                                    delta_options(a.delta));
  auto result = wait_for(future);
  if (!result || interrupted() != 0) exit_interrupted(c.out, "interrupted; the patch upload was stopped");
  if (*result && result->value().outcome == zel::DeltaOutcome::kPatched && result->value().details) {
    const zel::ObjectDetails& d = *result->value().details;
    if (int failed = verify_stored(c, up, d)) return failed;
    print_summary(c.out,
                  {"uploaded", up.shown, up.target.text(), up.size, seconds_since(start), d.sha1, "patch",
                   result->value().patch_size},
                  json_object(d));
    return 0;
  }
  Failure why = no_patch(c, a.delta, up.target.text(), *result, true);
  if (a.delta.no_fallback) return c.out.fail(why);
  c.out.note("no patch upload (" + why.message + "); sending the whole file");
  up.how = "full";
  return run_put(c, a, up);
}

int start_put(Context& c, const PutArgs& a) {
  TransferScope scope;
  Upload up;
  up.target = upload_target(a.target, a.file);
  up.session = a.session.empty() ? new_session_id() : a.session;
  if (a.delta.on()) return run_put_patch(c, a, up);
  if (auto failure = open_source(a.file, up)) return c.out.fail(*failure);
  return run_put(c, a, up);
}

void add_put(CLI::App& app, Context& ctx) {
  auto args = std::make_shared<PutArgs>();
  CLI::App* cmd =
      app.add_subcommand("put", "Upload a file (in parallel chunks when large), verified by SHA-1");
  cmd->add_option("FILE", args->file, "Local file, or - for standard input")->required();
  cmd->add_option("BUCKET/KEY", args->target, "Where it goes; BUCKET/ or BUCKET/DIR/ adds the file's name")
      ->required();
  cmd->add_option("--content-type", args->content_type, "Content type (default application/octet-stream)");
  cmd->add_option("--range", args->range, "Send only bytes S-E of the file (inclusive)");
  cmd->add_option("--session", args->session, "Upload session id (default: a new one)");
  cmd->add_flag("--create-bucket", args->create_bucket, "Create the bucket when it does not exist");
  add_delta_options(cmd, args->delta, "upload");
  cmd->footer(
      "Example:\n  zel put holiday.mp4 videos/2024/ --content-type video/mp4\n"
      "Patch upload: only a patch against --base goes up and the service builds the new\n"
      "object from --base-key; when the files differ too much or the patch fails, the\n"
      "whole file is sent (unless --no-fallback):\n"
      "  zel put cut-v2.mp4 videos/cut-v2.mp4 --base cut-v1.mp4 --base-key cut-v1.mp4");
  cmd->callback([&ctx, args] { ctx.action = [args](Context& c) { return start_put(c, *args); }; });
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
int send_missing(Context& c, const PutArgs& a, Upload& up, const std::vector<zel::ByteRange>& missing) {
  uint64_t total = 0, offset = 0;
  for (const auto& r : missing) total += r.end - r.start + 1;
  ProgressBar bar(!c.out.quiet(), "resume");
  bar.update(0, 0, total);
  std::optional<zel::ObjectDetails> details;
  Clock::time_point start = Clock::now();
  for (const zel::ByteRange& r : missing) {
    auto result = send(c, up, r, a.content_type, bar, offset);
    if (!result || interrupted() != 0) bar.finish(), interrupted_upload(c, up);
    if (!*result) return bar.finish(), upload_failed(c, up, result->error());
    if (result->value().details) details = result->value().details;
    offset += r.end - r.start + 1;
  }
  bar.finish();
  if (!details) return report_partial(c, up, total);
  if (int failed = verify_stored(c, up, *details)) return failed;
  forget_session(up.session);
  print_summary(c.out,
                {"uploaded", up.shown, up.target.text(), total, seconds_since(start), details->sha1, "", {}},
                json_object(*details));
  return 0;
}

// The file must be the session's: the one noted when the session started,
// and with no held byte past its end.
int refuse_other_file(Context& c, const Upload& up, const std::vector<zel::ByteRange>& held) {
  std::optional<SessionNote> note = read_session_note(up.session);
  if (note && note->target == up.target.text() && (note->size != up.size || note->sha1 != up.sha1))
    return c.out.fail({FailureKind::kLocal, up.shown,
                       "is not the file session " + up.session + " was started with (" +
                           std::to_string(note->size) + " bytes, SHA-1 " + note->sha1 + ")",
                       0, ""});
  for (const zel::ByteRange& r : held)
    if (r.end >= up.size)
      return c.out.fail({FailureKind::kLocal, up.shown,
                         "has " + std::to_string(up.size) + " bytes but session " + up.session +
                             " holds bytes up to " + std::to_string(r.end) +
                             ": it is not the file of this session",
                         0, ""});
  return 0;
}

int run_resume(Context& c, const PutArgs& a) {
  TransferScope scope;
  Upload up;
  up.target = upload_target(a.target, a.file);
  up.session = a.session;
  if (auto failure = open_source(a.file, up)) return c.out.fail(*failure);
  auto asked = c.client->upload_session(up.target.bucket, up.target.key, a.session);
  auto waited = wait_for(asked);
  if (!waited || interrupted() != 0) interrupted_upload(c, up);
  const auto& status = *waited;
  if (!status && status.error().code == 404) {
    c.out.note("the service knows no session " + a.session + "; sending the whole file");
    return run_put(c, a, up);
  }
  if (!status) return c.fail(up.target.text() + " " + a.session, status.error());
  const auto& held_ranges = status.value().ranges;
  if (int refused = refuse_other_file(c, up, held_ranges)) return refused;
  std::vector<zel::ByteRange> missing = missing_ranges(held_ranges, up.size);
  uint64_t held = up.size;
  for (const auto& r : missing) held -= r.end - r.start + 1;
  up.held = held;
  c.out.note("the service holds " + std::to_string(held) + " of " + std::to_string(up.size) +
             " bytes; sending " + std::to_string(missing.size()) + " missing range(s)");
  if (!missing.empty()) return send_missing(c, a, up, missing);
  auto details = c.client->object_details(up.target.bucket, up.target.key).get();
  if (!details) return c.fail(up.target.text(), details.error());
  if (int failed = verify_stored(c, up, details.value())) return failed;
  forget_session(up.session);
  print_summary(c.out, {"uploaded", up.shown, up.target.text(), 0, 0, details.value().sha1, "", {}},
                json_object(details.value()));
  return 0;
}

void add_resume(CLI::App& app, Context& ctx) {
  auto args = std::make_shared<PutArgs>();
  CLI::App* cmd =
      app.add_subcommand("resume", "Finish an interrupted upload, sending only the missing bytes");
  cmd->add_option("FILE", args->file, "The same local file (or - for the same bytes on standard input)")
      ->required();
  cmd->add_option("BUCKET/KEY", args->target, "Where it goes")->required();
  cmd->add_option("--session", args->session, "The interrupted upload's session id")->required();
  cmd->add_option("--content-type", args->content_type, "Content type (default application/octet-stream)");
  cmd->footer("Example:\n  zel resume holiday.mp4 videos/2024/holiday.mp4 --session 4f1c0d2e9a7b4c55");
  cmd->callback([&ctx, args] { ctx.action = [args](Context& c) { return run_resume(c, *args); }; });
}

}  // namespace

void add_put_commands(CLI::App& app, Context& ctx) {
  add_put(app, ctx);
  add_resume(app, ctx);
}

}  // namespace zelcli
