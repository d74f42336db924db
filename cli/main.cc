// zel: the command-line tool over the library's C++ layer.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstring>

#include "cli.h"

#ifndef ZEL_VERSION
#define ZEL_VERSION "unknown"
#endif

namespace zelcli {
namespace {

void discard_log(const char*) {}

void add_global_options(CLI::App& app, Global& g) {
  // A later value wins, so scripts and aliases can override a setting.
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.add_option("--endpoint", g.endpoint, "Service base URL (scheme://host[:port])")
      ->envname("ZEL_ENDPOINT")
      ->capture_default_str();
  app.add_option("--api", g.api, "Service API version")->check(CLI::IsMember({1, 2}))->capture_default_str();
  app.add_option("--token", g.token, "Bearer token")->envname("ZEL_TOKEN")->capture_default_str();
  app.add_option("--parallel", g.parallel, "Worker threads and HTTP connections (default 8)")
      ->check(CLI::Range(1u, 256u));
  app.add_option("--chunk-size", g.chunk_size,
                 "Transfer chunk size, 64KiB to 4GiB: 65536, 8M, 5MiB (default 5MiB)");
  app.add_option("--retries", g.retries, "Retries per chunk (default 5)")->check(CLI::Range(0, 100));
  app.add_option("--timeout", g.timeout, "Seconds one attempt may take in all (default: no limit)")
      ->check(CLI::Range(0.0, 86400.0));
  app.add_option("--stall-timeout", g.stall_timeout,
                 "Seconds an attempt may move under 1 KiB/s before it is retried (0: never)")
      ->check(CLI::Range(0.0, 86400.0))
      ->capture_default_str();
  app.add_option("--proxy", g.proxy, "HTTP proxy URL");
  app.add_flag("--insecure", g.insecure, "Do not verify the server's TLS certificate");
  app.add_flag("--json", g.json, "One JSON document per command on standard output (see README)");
  app.add_flag("-q,--quiet", g.quiet, "No progress bar, notes or summaries");
  app.add_flag("-v,--verbose", g.verbose, "The library's log lines on standard error");
  app.set_version_flag("--version", std::string("zel ") + ZEL_VERSION);
  app.set_help_all_flag("--help-all", "Print the help of zel and of every command, and exit");
}

// Applies the global options to the process and to a new handle.
void make_client(Context& ctx) {
  const Global& g = ctx.global;
  ctx.endpoint = normalise_endpoint(g.endpoint);
  if (!zel::set_environment_url(ZEL_ENV_LOCAL, ctx.endpoint))
    throw UsageError("'" + g.endpoint + "' is not an endpoint URL (scheme://host[:port])");
  zel::set_token(g.token);
  ctx.client = std::make_unique<zel::Client>(ZEL_ENV_LOCAL, static_cast<uint32_t>(g.api));
  ZEL& h = ctx.client->settings();
  if (g.parallel > 0) h.http_pool_size = h.thread_pool_size = g.parallel;
  if (!g.chunk_size.empty()) h.chunk_size = parse_chunk_size(g.chunk_size);
  if (g.retries >= 0) h.max_retries = static_cast<uint32_t>(g.retries);
  h.timeout_ms = static_cast<uint32_t>(g.timeout * 1000);
  h.low_speed_limit = g.stall_timeout > 0 ? 1024 : 0;
  h.low_speed_time = g.stall_timeout > 0 ? std::max(1u, static_cast<uint32_t>(g.stall_timeout + 0.5)) : 0;
  if (!g.proxy.empty()) ctx.client->set_proxy(g.proxy);
  if (g.insecure) h.ssl_verify_peer = 0;
}

int usage(const Context& ctx, const std::string& message) {
  std::string command = ctx.command.empty() ? "" : ctx.command + " ";
  ctx.out.fail({FailureKind::kUsage, "", message, 0, "run 'zel " + command + "--help' for usage"});
  return kUsage;
}

// Runs the chosen command with the library started; usage errors found
// while acting on the arguments end with status 2 like parse errors.
int run(Context& ctx) {
  zel_logger_init(ctx.global.verbose ? nullptr : discard_log);
  install_signal_handlers();
  try {
    zel::Library library;
    make_client(ctx);
    int status = ctx.action(ctx);
    ctx.client.reset();
    return status;
  } catch (const UsageError& e) {
    return usage(ctx, e.what());
  } catch (const std::invalid_argument& e) {
    return usage(ctx, e.what());
  } catch (const std::exception& e) {
    return ctx.out.fail({FailureKind::kLocal, "", e.what(), 0, ""});
  }
}

void add_help(CLI::App& app, Context& ctx, std::string& topic) {
  CLI::App* cmd = app.add_subcommand("help", "Show the usage of zel or of one command");
  cmd->add_option("COMMAND", topic, "The command");
  cmd->callback([&ctx] { ctx.command = "help"; });
}

int show_help(CLI::App& app, const Context& ctx, const std::string& topic) {
  // App::help() would describe the chosen subcommand, "help" itself.
  if (topic.empty())
    return std::fputs(app.get_formatter()->make_help(&app, "zel", CLI::AppFormatMode::Normal).c_str(),
                      stdout),
           0;
  for (CLI::App* sub : app.get_subcommands({}))
    if (sub->get_name() == topic && topic != "help") return std::fputs(sub->help("zel").c_str(), stdout), 0;
  return usage(ctx, "'" + topic + "' is not a zel command");
}

bool wants_json(int argc, char** argv) {
  for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i)
    if (std::strcmp(argv[i], "--json") == 0) return true;
  return false;
}

int parse_failed(CLI::App& app, Context& ctx, const CLI::ParseError& e) {
  if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
  for (CLI::App* sub : app.get_subcommands()) ctx.command = sub->get_name();
  ctx.out.set_command(ctx.command);
  std::string message = e.what();
  auto missing = app.remaining();
  if (ctx.command.empty() && !missing.empty() && dynamic_cast<const CLI::ExtrasError*>(&e) != nullptr)
    message = "'" + missing.front() + "' is not a zel command";
  return usage(ctx, message);
}

}  // namespace
}  // namespace zelcli

int main(int argc, char** argv) {
  using namespace zelcli;
  Context ctx;
  CLI::App app{"zel: buckets and objects on the zel storage service", "zel"};
  app.require_subcommand(0, 1);
  app.fallthrough();
  app.footer(
      "Examples:\n  zel mb photos\n  zel put cat.jpg photos/2024/\n  zel get photos/2024/cat.jpg .\n"
      "  tar c docs | zel put - backups/docs.tar\n"
      "  zel put cut-v2.mp4 videos/cut-v2.mp4 --base cut-v1.mp4 --base-key cut-v1.mp4\n"
      "Exit status: 0 done, 1 the service refused or its bytes failed verification, 2 usage,\n"
      "3 a local file, 4 the endpoint could not be reached, 5 no patch could be used\n"
      "(--no-fallback), 130 interrupted.\n"
      "Run 'zel help COMMAND' for a command's options.");
  add_global_options(app, ctx.global);
  std::string topic;
  add_help(app, ctx, topic);
  // Command groups; each lives in its own file.
  add_bucket_commands(app, ctx);
  add_object_commands(app, ctx);
  add_put_commands(app, ctx);
  add_get_commands(app, ctx);
  add_diff_commands(app, ctx);
  add_match_command(app, ctx);
  ctx.global.json = wants_json(argc, argv);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return parse_failed(app, ctx, e);
  }
  ctx.out.set_command(ctx.command);
  if (ctx.command == "help" || !ctx.action) return show_help(app, ctx, topic);
  for (CLI::App* sub : app.get_subcommands()) ctx.command = sub->get_name();
  ctx.out.set_command(ctx.command);
  return run(ctx);
}
