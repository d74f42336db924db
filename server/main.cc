// zel-server: a local emulator of the storage service.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "app.h"
#include "delta.h"
#include "router.h"
#include "util.h"

using namespace zelsrv;

namespace {

std::string make_temp_dir() {
  const char* base = std::getenv("TMPDIR");
  std::string tmpl = std::string(base && *base ? base : "/tmp") + "/zel-server-XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  return mkdtemp(buf.data()) ? std::string(buf.data()) : std::string();
}

bool load_faults(App& app, std::string& err) {
  if (app.opts.faults_file.empty()) return true;
  std::ifstream in(app.opts.faults_file);
  if (!in) {
    err = "cannot read " + app.opts.faults_file;
    return false;
  }
  std::stringstream ss;
  ss << in.rdbuf();
  std::string why;
  if (app.faults.add_json(ss.str(), why)) return true;
  err = app.opts.faults_file + ": " + why;
  return false;
}

bool prepare(App& app, std::string& err) {
  for (const auto& t : app.opts.tokens) app.auth.add(t.first, t.second);
  if (!app.store.open(app.opts.data, err) || !load_faults(app, err)) return false;
  app.objects.check_files();
  app.sessions.recover();
  app.objects.remove_orphans();
  return start_delta_engine(app, err);
}

int bind_server(WireServer& server, const Options& opts) {
  if (opts.port == 0) return server.bind_to_any_port(opts.host);
  return server.bind_to_port(opts.host, opts.port) ? opts.port : -1;
}

WireLimits limits_of(const Options& opts) {
  WireLimits l;
  l.threads = opts.threads;
  l.head_timeout_ms = opts.client_timeout_sec * 1000;
  l.body_window_ms = opts.client_timeout_sec * 1000;
  l.body_floor_bytes = 1024 * static_cast<uint64_t>(opts.client_timeout_sec);
  return l;
}

// Removed at exit, also when the process ends before serve() returns.
std::string g_temporary_data;

// Waits for SIGINT or SIGTERM (or for the server to end by itself), then
// stops the server. Requests still running a moment later (the hash of a
// large file, say) do not hold the exit up: the process ends without them,
// which loses nothing that was acknowledged.
void stop_on_signal(App& app, WireServer& server, const std::atomic<bool>& done) {
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  timespec tick{0, 100 * 1000 * 1000};
  for (;;) {
    if (done) return;
    int sig = sigtimedwait(&stop_signals, nullptr, &tick);
    if (sig == SIGINT || sig == SIGTERM) break;
  }
  app.stop.raise();
  server.halt();
  // Requests in progress get a moment to finish, then their connections are
  // cut, then the process goes whatever still runs.
  for (int i = 0; i < 70; ++i) {
    if (done) return;
    if (i == 30) server.cut();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::fprintf(stderr, "zel-server: requests still running at the stop signal; exiting without them\n");
  if (!g_temporary_data.empty()) remove_tree(g_temporary_data);
  _exit(0);
}

// Drops idle upload sessions now and then, until the server stops.
void sweep_sessions(App& app) {
  int64_t ttl_ms = app.opts.session_ttl_sec * 1000;
  int64_t period_ms = std::min<int64_t>(60 * 1000, std::max<int64_t>(200, ttl_ms / 4));
  do app.sessions.expire(ttl_ms);
  while (app.stop.sleep_ms(period_ms));
}

int serve(App& app) {
  WireServer server(limits_of(app.opts));
  install_routes(server, app);
  int port = bind_server(server, app.opts);
  int bind_errno = errno;
  if (port <= 0) {
    std::fprintf(stderr, "zel-server: cannot listen on %s:%d: %s\n", app.opts.host.c_str(), app.opts.port,
                 bind_errno ? std::strerror(bind_errno) : "unknown error");
    return 1;
  }
  server.deepen_backlog();
  app.opts.port = port;
  std::atomic<bool> done{false};
  std::thread waiter([&] { stop_on_signal(app, server, done); });
  std::thread sweeper([&app] { sweep_sessions(app); });
  std::printf("listening on http://%s:%d\n", app.opts.host.c_str(), port);
  std::fflush(stdout);
  bool ok = server.run();
  bool signalled = app.stop.raised();
  done = true;
  app.stop.raise();
  waiter.join();
  sweeper.join();
  return ok || signalled ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  Options opts;
  std::string err;
  if (!parse_options(argc, argv, opts, err)) {
    std::fprintf(stderr, "zel-server: %s\n%s", err.c_str(), usage_text());
    return 2;
  }
  if (!opts.print_and_exit.empty()) {
    std::fputs(opts.print_and_exit.c_str(), stdout);
    return 0;
  }
  bool temporary = opts.data.empty();
  if (temporary && (opts.data = make_temp_dir()).empty()) {
    std::perror("zel-server: cannot create a temporary directory");
    return 1;
  }
  if (temporary) g_temporary_data = opts.data;
  int rc = 1;
  {
    App app(opts);
    if (prepare(app, err))
      rc = serve(app);
    else
      std::fprintf(stderr, "zel-server: %s\n", err.c_str());
  }
  if (temporary) remove_tree(opts.data);
  return rc;
}
