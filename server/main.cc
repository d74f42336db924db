// zel-server: a local emulator of the storage service.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
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
  const char *base = std::getenv("TMPDIR");
  std::string tmpl = std::string(base && *base ? base : "/tmp") + "/zel-server-XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  return mkdtemp(buf.data()) ? std::string(buf.data()) : std::string();
}

bool load_faults(App &app, std::string &err) {
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

bool prepare(App &app, std::string &err) {
  for (const auto &t : app.opts.tokens) app.auth.add(t.first, t.second);
  if (!app.store.open(app.opts.data, err) || !load_faults(app, err)) return false;
  app.sessions.recover();
  app.objects.remove_orphans();
  return start_delta_engine(app, err);
}

int bind_server(WireServer &server, const Options &opts) {
  if (opts.port == 0) return server.bind_to_any_port(opts.host);
  return server.bind_to_port(opts.host, opts.port) ? opts.port : -1;
}

int serve(App &app) {
  WireServer server;
  size_t threads = app.opts.threads;
  server.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
  install_routes(server, app);
  int port = bind_server(server, app.opts);
  server.deepen_backlog();
  if (port <= 0) {
    std::fprintf(stderr, "zel-server: cannot listen on %s:%d\n", app.opts.host.c_str(), app.opts.port);
    return 1;
  }
  app.opts.port = port;
  // SIGINT and SIGTERM are taken by one thread, which stops the server; the
  // others never see them.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  std::thread waiter([&server, stop_signals] {
    int sig = 0;
    sigwait(&stop_signals, &sig);
    server.stop();
  });
  std::printf("listening on http://%s:%d\n", app.opts.host.c_str(), port);
  std::fflush(stdout);
  server.listen_after_bind();
  waiter.join();
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  Options opts;
  std::string err;
  if (!parse_options(argc, argv, opts, err)) {
    std::fprintf(stderr, "%s%s", err.c_str(), err == usage_text() ? "" : "\n");
    return 2;
  }
  bool temporary = opts.data.empty();
  if (temporary && (opts.data = make_temp_dir()).empty()) {
    std::perror("zel-server: cannot create a temporary directory");
    return 1;
  }
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
