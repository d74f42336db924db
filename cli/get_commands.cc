// Download commands: get and get-url. Bytes land in a temporary file beside
// the target, which replaces the target only once its length (and, for a
// whole object, its SHA-1) match the object's details.
#include <strings.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <variant>

#include "local_files.h"

namespace zelcli {
namespace {

using Clock = std::chrono::steady_clock;

struct GetArgs {
  std::string source, file, range;
  bool auth = false;
  bool by_url = false;
  DeltaArgs delta;
};

// "-" is standard output; a directory (or a name ending in "/") receives
// the object under its own name.
std::string destination(const std::string& file, const std::string& source_name) {
  if (file == "-" || (!is_directory(file) && file.back() != '/')) return file;
  if (source_name.empty()) throw UsageError("'" + file + "' is a directory and the source names no file");
  return file + (file.back() == '/' ? "" : "/") + source_name;
}

std::string url_file_name(const std::string& url) {
  std::string path = url.substr(0, url.find_first_of("?#"));
  size_t scheme = path.find("://");
  if (scheme != std::string::npos && path.find('/', scheme + 3) == std::string::npos) return "";
  return last_segment(path);
}

std::string untouched(const std::string& to) {
  return to == "-" ? "nothing written" : escape_text(to) + " left untouched";
}

// What the downloaded bytes must be.
struct Expected {
  std::optional<uint64_t> length;
  std::string sha1;  // empty: no SHA-1 to compare with
};

std::optional<Failure> verify(const std::string& path, const Expected& want, const std::string& target,
                              std::string& sha1) {
  uint64_t size = 0;
  if (!file_size(path, size)) return local_failure(path, errno);
  sha1 = hex_sha1_of_file(path);
  if (sha1.empty()) return local_failure(path, errno != 0 ? errno : EIO);
  std::string why;
  if (want.length && size != *want.length)
    why = "received " + std::to_string(size) + " bytes instead of " + std::to_string(*want.length);
  else if (!want.sha1.empty() && strcasecmp(sha1.c_str(), want.sha1.c_str()) != 0)
    why = "the bytes received have SHA-1 " + sha1 + " but the object's is " + escape_text(want.sha1);
  if (why.empty()) return std::nullopt;
  return Failure{FailureKind::kVerification, target, why, 0, ""};
}

// The length a ranged download of an object of `size` bytes must have.
std::optional<uint64_t> range_length(const zel::ByteRange& r, uint64_t size) {
  if (r.start >= size) return std::nullopt;  // the service refuses it
  return std::min(r.end, size - 1) - r.start + 1;
}

std::optional<zel::Result<zel::Done>> download(Context& c, const GetArgs& a, const std::string& path,
                                               const zel::GetOptions& options) {
  if (a.by_url) {
    auto future = c.client->get_object_by_url(a.source, path, a.auth, options);
    return wait_for(future);
  }
  Target t = parse_target(a.source);
  auto future = c.client->get_object(t.bucket, t.key, path, options);
  return wait_for(future);
}

// How the bytes came: with --base, "patch" (and the patch's size) or "full".
struct Via {
  std::string how;
  std::optional<uint64_t> wire;
};

int finish(Context& c, const GetArgs& a, TempFile& temp, const std::string& to, const Expected& want,
           Clock::time_point start, json_t* details, const Via& via = {}) {
  Json owned(details);
  std::string sha1;
  if (auto failure = verify(temp.path(), want, a.source, sha1)) {
    failure->message += "; " + untouched(to);
    return c.out.fail(*failure);
  }
  uint64_t size = 0;
  file_size(temp.path(), size);
  auto failure = to == "-" ? temp.copy_to_stdout() : temp.replace(to);
  if (failure) return c.out.fail(*failure);
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::optional<uint64_t> wire = via.how == "full" ? std::optional<uint64_t>(size) : via.wire;
  print_summary(
      c.out, {"downloaded", a.source, to == "-" ? "standard output" : to, size, seconds, sha1, via.how, wire},
      owned.release());
  return 0;
}

// What the download must deliver: the object's size and SHA-1, or the
// length of the range. Fills `details` with the object's record; a failure
// to learn them ends the command with its status.
std::optional<int> expect(Context& c, const GetArgs& a, const std::string& to,
                          const std::optional<zel::ByteRange>& range, Expected& want, Json& details) {
  if (a.by_url) {
    if (range) want.length = range->end - range->start + 1;
    return std::nullopt;
  }
  Target t = parse_target(a.source);
  auto asked = c.client->object_details(t.bucket, t.key);
  auto waited = wait_for(asked);
  if (!waited || interrupted() != 0) exit_interrupted(c.out, "interrupted; " + untouched(to));
  const zel::Result<zel::ObjectDetails>& d = *waited;
  if (!d) return c.fail(t.text(), d.error());
  details.reset(json_object(d.value()));
  want.length = range ? range_length(*range, d.value().size) : d.value().size;
  if (!range) want.sha1 = d.value().sha1;
  return std::nullopt;
}

// Fetches only the service's patch and applies it to --base, into `temp`.
// True when it did; false (after a note) when the whole object is to be
// downloaded instead; an exit status when the command ends here.
std::variant<bool, int> get_by_patch(Context& c, const GetArgs& a, TempFile& temp, const std::string& to,
                                     Via& via) {
  Target t = parse_target(a.source);
  auto asked = c.client->get_patch(t.bucket, a.delta.base_key, t.key, a.delta.base, temp.path(),
                                   delta_options(a.delta));
  auto result = wait_for(asked);
  if (!result || interrupted() != 0) {
    temp.remove();
    exit_interrupted(c.out, "interrupted; " + untouched(to));
  }
  if (*result && result->value().outcome == zel::DeltaOutcome::kPatched) {
    via = {"patch", result->value().patch_size};
    return true;
  }
  Failure why = no_patch(c, a.delta, t.text(), *result, false);
  if (a.delta.no_fallback) {
    why.message += "; " + untouched(to);
    return c.out.fail(why);
  }
  c.out.note("no patch download (" + why.message + "); fetching the whole object");
  via = {"full", {}};
  return false;
}

int run_get(Context& c, const GetArgs& a) {
  TransferScope scope;
  zel::GetOptions options;
  if (!a.range.empty()) options.range = parse_range(a.range);
  if (a.delta.on()) {
    if (options.range) throw UsageError("--range cannot be combined with --base");
    check_delta_args(a.delta, parse_target(a.source));
    uint64_t base_size = 0;
    if (auto failure = readable_file(a.delta.base, base_size)) return c.out.fail(*failure);
  }
  std::string name = a.by_url ? url_file_name(a.source) : last_segment(parse_target(a.source).key);
  std::string to = destination(a.file, name);
  if (to == "-") c.out.data_on_stdout();
  Expected want;
  Json details;
  if (auto failed = expect(c, a, to, options.range, want, details)) return *failed;
  TempFile temp;
  if (auto failure = temp.create(to == "-" ? temp_dir() + "/stdout" : to)) return c.out.fail(*failure);
  Clock::time_point patch_start = Clock::now();
  Via via;
  if (a.delta.on()) {
    auto patched = get_by_patch(c, a, temp, to, via);
    if (std::holds_alternative<int>(patched)) return std::get<int>(patched);
    if (std::get<bool>(patched)) return finish(c, a, temp, to, want, patch_start, details.release(), via);
  }
  ProgressBar bar(!c.out.quiet(), a.by_url ? "get-url" : "get");
  options.progress = [&bar](uint64_t done, uint64_t total) { return bar.update(0, done, total); };
  Clock::time_point start = Clock::now();
  auto result = download(c, a, temp.path(), options);
  bar.finish();
  if (!result || interrupted() != 0) {
    temp.remove();
    exit_interrupted(c.out, "interrupted; " + untouched(to));
  }
  if (!*result) return c.fail(a.source, result->error());
  return finish(c, a, temp, to, want, start, details.release(), via);
}

void add_get(CLI::App& app, Context& ctx, bool by_url) {
  auto args = std::make_shared<GetArgs>();
  args->by_url = by_url;
  CLI::App* cmd =
      by_url ? app.add_subcommand("get-url", "Download from a complete URL")
             : app.add_subcommand("get", "Download an object (in parallel chunks when large), verified");
  if (by_url) {
    cmd->add_option("URL", args->source, "Download URL")->required();
  } else {
    cmd->add_option("BUCKET/KEY", args->source, "The object")->required();
  }
  cmd->add_option("FILE", args->file,
                  "Local file (replaced only by verified bytes), a directory, or - for standard output")
      ->required();
  cmd->add_option("--range", args->range, "Fetch only bytes S-E (inclusive), written from offset 0");
  if (by_url) cmd->add_flag("--auth", args->auth, "Send the bearer token");
  if (!by_url) add_delta_options(cmd, args->delta, "download");
  cmd->footer(by_url ? "Example:\n  zel get-url https://cdn.example.com/f/holiday.mp4 holiday.mp4"
                     : "Example:\n  zel get videos/2024/holiday.mp4 ~/Videos/\n"
                       "Patch download: only the service's patch comes down and is applied to --base.\n"
                       "When the service has no patch yet it is asked to make one and the whole object\n"
                       "is fetched (unless --no-fallback); a later get can use the patch:\n"
                       "  zel get videos/cut-v2.mp4 cut-v2.mp4 --base cut-v1.mp4 --base-key cut-v1.mp4");
  cmd->callback([&ctx, args] { ctx.action = [args](Context& c) { return run_get(c, *args); }; });
}

}  // namespace

void add_get_commands(CLI::App& app, Context& ctx) {
  add_get(app, ctx, false);
  add_get(app, ctx, true);
}

}  // namespace zelcli
