#include <cstdlib>
#include <cstring>

#include "app.h"

namespace zelsrv {
namespace {

bool parse_int(const char* s, long lo, long hi, long& out) {
  char* end = nullptr;
  out = std::strtol(s, &end, 10);
  return end && *end == '\0' && end != s && out >= lo && out <= hi;
}

bool take_token(const std::string& v, Options& out, std::string& err) {
  size_t eq = v.find('=');
  if (eq == std::string::npos || eq == 0 || eq + 1 == v.size()) {
    err = "--token wants TOKEN=AUTH_ID, got '" + v + "'";
    return false;
  }
  out.tokens.emplace_back(v.substr(0, eq), v.substr(eq + 1));
  return true;
}

// Options that take a number; false when `a` is none of them or the value
// is out of range.
bool take_number(const std::string& a, const char* v, Options& out) {
  long n = 0;
  if (a == "--port" && parse_int(v, 0, 65535, n)) {
    out.port = static_cast<int>(n);
  } else if (a == "--threads" && parse_int(v, 16, 4096, n)) {
    out.threads = static_cast<size_t>(n);
  } else if (a == "--delta-threads" && parse_int(v, 1, 64, n)) {
    out.delta_threads = static_cast<size_t>(n);
  } else if (a == "--client-timeout" && parse_int(v, 1, 3600, n)) {
    out.client_timeout_sec = static_cast<int>(n);
  } else if (a == "--session-ttl" && parse_int(v, 1, 10L * 365 * 86400, n)) {
    out.session_ttl_sec = n;
  } else {
    return false;
  }
  return true;
}

}  // namespace

const char* usage_text() {
  return "usage: zel-server [--host 127.0.0.1] [--port 9000] [--data DIR] [--token TOKEN=AUTH_ID]...\n"
         "                  [--test-api] [--faults FILE] [--threads N] [--delta-threads N]\n"
         "                  [--log-requests] [--client-timeout SECONDS] [--session-ttl SECONDS]\n"
         "                  [--version] [--help]\n"
         "  --port 0 picks a free port; the line 'listening on http://HOST:PORT' tells which.\n"
         "  Without --data the state lives in a temporary directory removed at exit.\n"
         "  The token 'local-dev-token' (auth id 'local') is always accepted; --token adds more.\n"
         "  --test-api serves /_emulator/requests and /_emulator/faults to known tokens.\n"
         "  --log-requests writes one line per request to standard error.\n"
         "  --client-timeout: a request head must arrive within it (default 10), and a body\n"
         "    must move at least 1 KiB/s over each such period.\n"
         "  --session-ttl: upload sessions untouched for this long are dropped (default 604800).\n";
}

bool parse_options(int argc, char** argv, Options& out, std::string& err) {
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    bool has_value = i + 1 < argc;
    if (a == "--test-api") {
      out.test_api = true;
    } else if (a == "--log-requests") {
      out.log_requests = true;
    } else if (a == "--help" || a == "-h") {
      out.print_and_exit = usage_text();
      return true;
    } else if (a == "--version") {
      out.print_and_exit = std::string("zel-server ") + ZEL_SERVER_VERSION + "\n";
      return true;
    } else if (!has_value) {
      err = "missing value or unknown option: " + a;
      return false;
    } else if (a == "--host") {
      out.host = argv[++i];
    } else if (take_number(a, argv[i + 1], out)) {
      ++i;
    } else if (a == "--data") {
      out.data = argv[++i];
    } else if (a == "--faults") {
      out.faults_file = argv[++i];
    } else if (a == "--token") {
      if (!take_token(argv[++i], out, err)) return false;
    } else {
      err = "bad option or value: " + a + " " + argv[i + 1];
      return false;
    }
  }
  return true;
}

}  // namespace zelsrv
