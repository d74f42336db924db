// Patch transfers: the --base options of put and get, and match, which
// tells whether a local file is close enough to a stored object for a patch
// to pay off.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "local_files.h"

namespace zelcli {

void add_delta_options(CLI::App* cmd, DeltaArgs& args, const char* direction) {
  bool up = std::string(direction) == "upload";
  CLI::Option* base = cmd->add_option(
      "--base", args.base,
      up ? "Send only a patch against this local file, which must equal --base-key's object"
         : "Fetch only a patch and apply it to this local file, which must equal --base-key's object");
  CLI::Option* key =
      cmd->add_option("--base-key", args.base_key, "The stored object --base equals (same bucket)");
  base->needs(key);
  key->needs(base);
  cmd->add_option("--ratio", args.ratio,
                  up ? "With --base: largest share of changed bytes for which a patch is made (default 0.5)"
                     : "With --base: refuse patches this share of the object's size or larger (default 0.5)")
      ->check(CLI::Range(0.0, 1.0));
  cmd->add_flag("--no-fallback", args.no_fallback,
                std::string("With --base: fail (status 5) instead of a whole ") + direction +
                    " when no patch can be used");
}

void check_delta_args(const DeltaArgs& args, const Target& target) {
  if (args.base == "-") throw UsageError("--base must name a file, not standard input");
  if (args.base_key.empty()) throw UsageError("--base-key must not be empty");
  parse_target(target.bucket + "/" + args.base_key);  // UTF-8 check
  // The patch travels as the new object's content, so the base cannot be
  // the same object.
  if (args.base_key == target.key)
    throw UsageError("--base-key must name another object than " + target.text());
}

zel::DeltaOptions delta_options(const DeltaArgs& args) {
  zel::DeltaOptions options;
  options.ratio = args.ratio;
  options.temp_dir = temp_dir();
  options.abort = [] { return interrupted() != 0; };
  return options;
}

Failure no_patch(const Context& c, const DeltaArgs& args, const std::string& target,
                 const zel::Result<zel::DeltaResult>& result, bool upload) {
  if (!result) return classify(result.error(), c.endpoint, target);
  char ratio[32];
  std::snprintf(ratio, sizeof ratio, "%g", args.ratio);
  std::string base = escape_text(target.substr(0, target.find('/') + 1) + args.base_key);
  Failure f{FailureKind::kNoPatch, target, "", 0, ""};
  if (result.value().outcome == zel::DeltaOutcome::kPatchNotReady) {
    f.message = "the service has no patch from " + base + " yet; it was asked to make one";
    f.hint = "try again later, or leave out --no-fallback for a whole download";
  } else if (upload) {
    f.message = "the file differs from " + base + " by more than --ratio " + ratio + ": no patch made";
  } else {
    f.message = "the service's patch from " + base + " is --ratio " + ratio + " of the object's size or more";
  }
  return f;
}

namespace {

struct MatchArgs {
  std::string target, file;
  double ratio = 0.5;
};

int run_match(Context& c, const MatchArgs& a) {
  Target t = parse_target(a.target);
  uint64_t size = 0;
  if (auto failure = readable_file(a.file, size)) return c.out.fail(*failure);
  zel::DeltaOptions options;
  options.ratio = a.ratio;
  options.temp_dir = temp_dir();
  auto asked = c.client->match(t.bucket, t.key, a.file, options);
  auto waited = wait_for(asked);
  if (!waited || interrupted() != 0) exit_interrupted(c.out, "interrupted");
  if (!*waited) return c.fail(t.text(), waited->error());
  bool close = waited->value().outcome == zel::DeltaOutcome::kMatched;
  c.out.result(json_pack("{s:b, s:f, s:s, s:s}", "match", close, "ratio", a.ratio, "object", t.text().c_str(),
                         "file", a.file.c_str()),
               close ? "match" : "differs");
  return 0;
}

}  // namespace

void add_match_command(CLI::App& app, Context& ctx) {
  auto args = std::make_shared<MatchArgs>();
  CLI::App* cmd = app.add_subcommand(
      "match", "Tell whether FILE is close enough to a stored object for a patch transfer (match/differs)");
  cmd->add_option("BUCKET/KEY", args->target, "The stored object")->required();
  cmd->add_option("FILE", args->file, "The local file")->required();
  cmd->add_option("--ratio", args->ratio, "Largest share of changed bytes that still matches (default 0.5)")
      ->check(CLI::Range(0.0, 1.0));
  cmd->footer(
      "Only the object's signature is downloaded.\nExample:\n  zel match videos/cut-v1.mp4 cut-v2.mp4");
  cmd->callback([&ctx, args] { ctx.action = [args](Context& c) { return run_match(c, *args); }; });
}

}  // namespace zelcli
