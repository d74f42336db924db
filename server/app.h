// Everything one running emulator owns, and its command line.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "auth.h"
#include "buckets.h"
#include "delta_store.h"
#include "faults.h"
#include "jobs.h"
#include "journal.h"
#include "objects.h"
#include "sessions.h"
#include "store.h"
#include "util.h"

namespace zelsrv {

struct Options {
  std::string host = "127.0.0.1";
  int port = 9000;
  std::string data;  // empty: a fresh temporary directory, removed at exit
  bool test_api = false;
  std::string faults_file;
  size_t threads = 64;       // requests served at once
  size_t delta_threads = 2;  // delta-engine jobs run at once
  std::vector<std::pair<std::string, std::string>> tokens;
  bool log_requests = false;
  int client_timeout_sec = 10;          // request head deadline; body floor-rate window
  int64_t session_ttl_sec = 7 * 86400;  // idle upload sessions are dropped after this
  std::string print_and_exit;           // --help or --version: this text, exit 0
};

// False with a message (or the usage text) when the command line is wrong.
bool parse_options(int argc, char** argv, Options& out, std::string& err);
const char* usage_text();

struct App {
  explicit App(const Options& o)
      : opts(o), buckets(store), objects(store), sessions(store, objects), deltas(store), jobs(store) {}
  Options opts;
  Store store;
  Buckets buckets;
  Objects objects;
  Sessions sessions;
  Auth auth;
  Journal journal;
  Faults faults;
  StopFlag stop;
  DeltaStore deltas;
  Jobs jobs;  // last: its threads stop before anything they use goes
};

}  // namespace zelsrv
