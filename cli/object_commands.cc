// Single-request object commands: stat, session, cp, rm, restore, touch.
#include <CLI/CLI.hpp>

#include "cli.h"

namespace zelcli {
namespace {

// Registers a command whose only argument is BUCKET/KEY.
CLI::App* object_command(CLI::App& app, Context& ctx, const char* name, const char* help, const char* example,
                         std::function<int(Context&, const Target&)> run) {
  auto target = std::make_shared<std::string>();
  CLI::App* cmd = app.add_subcommand(name, help);
  cmd->add_option("BUCKET/KEY", *target, "The object (the key may hold further '/')")->required();
  cmd->footer(std::string("Example:\n  ") + example);
  cmd->callback([&ctx, target, run] {
    ctx.action = [target, run](Context& c) { return run(c, parse_target(*target)); };
  });
  return cmd;
}

int run_stat(Context& c, const Target& t) {
  auto result = c.client->object_details(t.bucket, t.key).get();
  if (!result) return c.fail(t.text(), result.error());
  c.out.result(json_object(result.value()), text_object(result.value()));
  return 0;
}

int run_rm(Context& c, const Target& t) {
  auto result = c.client->delete_object(t.bucket, t.key).get();
  if (!result) return c.fail(t.text(), result.error());
  c.out.result(
      json_pack("{s:s, s:s, s:s}", "action", "deleted", "bucket", t.bucket.c_str(), "key", t.key.c_str()),
      "deleted " + t.text());
  return 0;
}

int run_restore(Context& c, const Target& t) {
  auto result = c.client->undelete_object(t.bucket, t.key).get();
  if (!result) return c.fail(t.text(), result.error());
  c.out.result(
      json_pack("{s:s, s:s, s:s}", "action", "restored", "bucket", t.bucket.c_str(), "key", t.key.c_str()),
      "restored " + t.text());
  return 0;
}

int run_touch(Context& c, const Target& t) {
  auto result = c.client->reset_expiration(t.bucket, t.key).get();
  if (!result) return c.fail(t.text(), result.error());
  c.out.result(json_object(result.value()),
               "expiration reset for " + t.text() + "\n" + text_object(result.value()));
  return 0;
}

void add_session(CLI::App& app, Context& ctx) {
  struct Args {
    std::string target, id;
  };
  auto args = std::make_shared<Args>();
  CLI::App* cmd = app.add_subcommand("session", "Show which bytes an upload session holds");
  cmd->add_option("BUCKET/KEY", args->target, "The object being uploaded")->required();
  cmd->add_option("ID", args->id, "The upload session id")->required();
  cmd->footer("Example:\n  zel session photos/big.bin 4f1c0d2e9a7b4c55");
  cmd->callback([&ctx, args] {
    ctx.action = [args](Context& c) {
      Target t = parse_target(args->target);
      auto result = c.client->upload_session(t.bucket, t.key, args->id).get();
      if (!result) return c.fail(t.text() + " " + args->id, result.error());
      json_t* ranges = json_array();
      std::string text;
      for (const zel::ByteRange& r : result.value().ranges) {
        json_array_append_new(ranges, json_pack("{s:I, s:I}", "start", static_cast<json_int_t>(r.start),
                                                "end", static_cast<json_int_t>(r.end)));
        text += (text.empty() ? "" : ", ") + std::to_string(r.start) + "-" + std::to_string(r.end);
      }
      c.out.result(
          json_pack("{s:s, s:s, s:s, s:o}", "bucket", t.bucket.c_str(), "key", t.key.c_str(), "session",
                    args->id.c_str(), "ranges", ranges),
          "session " + args->id + " of " + t.text() + " holds bytes: " + (text.empty() ? "none" : text));
      return 0;
    };
  });
}

// The service copies within one bucket: DST is BUCKET/KEY in the source's
// bucket, or a KEY there; a trailing "/" keeps the source's name.
std::string copy_key(const Target& source, const std::string& destination) {
  if (destination.empty()) throw UsageError("the destination is empty");
  std::string key = destination;
  size_t slash = destination.find('/');
  if (slash != std::string::npos) {
    Target d = parse_target_prefix(destination);
    if (d.bucket != source.bucket)
      throw UsageError("cannot copy to bucket '" + d.bucket + "': the service copies within one bucket ('" +
                       source.bucket + "')");
    key = d.key;
  }
  if (key.empty() || key.back() == '/') key += last_segment(source.key);
  return parse_target(source.bucket + "/" + key).key;  // the same UTF-8 check
}

void add_cp(CLI::App& app, Context& ctx) {
  struct Args {
    std::string source, destination;
  };
  auto args = std::make_shared<Args>();
  CLI::App* cmd = app.add_subcommand("cp", "Copy an object within its bucket (on the service)");
  cmd->add_option("BUCKET/SRC", args->source, "The object to copy")->required();
  cmd->add_option("DST", args->destination, "BUCKET/KEY in the same bucket, or a KEY there")->required();
  cmd->footer("Example:\n  zel cp photos/2024/cat.jpg photos/backup/cat.jpg");
  cmd->callback([&ctx, args] {
    ctx.action = [args](Context& c) {
      Target t = parse_target(args->source);
      std::string key = copy_key(t, args->destination);
      auto result = c.client->copy_object(t.bucket, t.key, key).get();
      if (!result) return c.fail(t.text(), result.error());
      c.out.result(json_object(result.value()), "copied " + escape_text(t.text()) + " to " +
                                                    escape_text(t.bucket + "/" + key) + " (sha1 " +
                                                    escape_text(result.value().sha1) + ")");
      return 0;
    };
  });
}

}  // namespace

void add_object_commands(CLI::App& app, Context& ctx) {
  object_command(app, ctx, "stat", "Show an object's details", "zel stat photos/2024/cat.jpg", run_stat);
  add_session(app, ctx);
  add_cp(app, ctx);
  object_command(app, ctx, "rm", "Delete an object (restore undoes it)", "zel rm photos/2024/cat.jpg",
                 run_rm);
  object_command(app, ctx, "restore", "Undelete a deleted object", "zel restore photos/2024/cat.jpg",
                 run_restore);
  object_command(app, ctx, "touch", "Restart an object's expiration period", "zel touch photos/2024/cat.jpg",
                 run_touch);
}

}  // namespace zelcli
