// zel: the command-line tool over the library's C++ layer.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "cli.h"

namespace zelcli {
namespace {

void discard_log(const char*) {}

void add_global_options(CLI::App& app, Global& g) {
  app.add_option("--endpoint", g.endpoint, "Service base URL (scheme://host[:port])")
      ->envname("ZEL_ENDPOINT")
      ->capture_default_str();
  app.add_option("--api", g.api, "Service API version")->check(CLI::IsMember({1, 2}))->capture_default_str();
  app.add_option("--token", g.token, "Bearer token")->envname("ZEL_TOKEN")->capture_default_str();
  app.add_option("--parallel", g.parallel, "Worker threads and HTTP connections (default 8)")
      ->check(CLI::Range(1u, 256u));
  app.add_option("--chunk-size", g.chunk_size, "Transfer chunk size in bytes (default 5242880)")
      ->check(CLI::PositiveNumber);
  app.add_option("--retries", g.retries, "Retries per chunk (default 5)")->check(CLI::Range(0, 100));
  app.add_option("--proxy", g.proxy, "HTTP proxy URL");
  app.add_flag("--insecure", g.insecure, "Do not verify the server's TLS certificate");
  app.add_flag("--json", g.json, "One JSON document per result on standard output");
  app.add_flag("-q,--quiet", g.quiet, "No progress bar or notes");
  app.add_flag("-v,--verbose", g.verbose, "The library's log lines on standard error");
}

// Applies the global options to the process and to a new handle.
void make_client(Context& ctx) {
  const Global& g = ctx.global;
  if (!zel::set_environment_url(ZEL_ENV_LOCAL, g.endpoint))
    throw UsageError("'" + g.endpoint + "' is not an endpoint URL (scheme://host[:port])");
  zel::set_token(g.token);
  ctx.client = std::make_unique<zel::Client>(ZEL_ENV_LOCAL, static_cast<uint32_t>(g.api));
  ZEL& h = ctx.client->settings();
  if (g.parallel > 0) h.http_pool_size = h.thread_pool_size = g.parallel;
  if (g.chunk_size > 0) h.chunk_size = g.chunk_size;
  if (g.retries >= 0) h.max_retries = static_cast<uint32_t>(g.retries);
  if (!g.proxy.empty()) ctx.client->set_proxy(g.proxy);
  if (g.insecure) h.ssl_verify_peer = 0;
}

int usage(const std::string& command, const std::string& message) {
  std::fprintf(stderr, "zel %s: %s\nRun 'zel %s --help' for usage.\n", command.c_str(), message.c_str(),
               command.c_str());
  return kUsage;
}

// Runs the chosen command with the library started; usage errors found
// while acting on the arguments end with status 2 like parse errors.
int run(Context& ctx) {
  zel_logger_init(ctx.global.verbose ? nullptr : discard_log);
  try {
    zel::Library library;
    make_client(ctx);
    int status = ctx.action(ctx);
    ctx.client.reset();
    return status;
  } catch (const UsageError& e) {
    return usage(ctx.command, e.what());
  } catch (const std::invalid_argument& e) {
    return usage(ctx.command, e.what());
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zel %s: %s\n", ctx.command.c_str(), e.what());
    return kFailed;
  }
}

}  // namespace
}  // namespace zelcli

int main(int argc, char** argv) {
  using namespace zelcli;
  Context ctx;
  CLI::App app{"zel: buckets and objects on the zel storage service", "zel"};
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(
      "Examples:\n  zel mb photos\n  zel put cat.jpg photos/2024/cat.jpg\n  zel get photos/2024/cat.jpg "
      "copy.jpg\n"
      "Run 'zel COMMAND --help' for a command's options.");
  add_global_options(app, ctx.global);
  add_bucket_commands(app, ctx);
  add_object_commands(app, ctx);
  add_transfer_commands(app, ctx);
  add_diff_commands(app, ctx);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int status = app.exit(e);
    return status == 0 ? 0 : kUsage;
  }
  for (CLI::App* sub : app.get_subcommands()) ctx.command = sub->get_name();
  return run(ctx);
}
