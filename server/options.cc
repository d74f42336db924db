#include <cstdlib>
#include <cstring>

#include "app.h"

namespace zelsrv {
namespace {

bool parse_int(const char *s, long lo, long hi, long &out) {
  char *end = nullptr;
  out = std::strtol(s, &end, 10);
  return end && *end == '\0' && end != s && out >= lo && out <= hi;
}

bool take_token(const std::string &v, Options &out, std::string &err) {
  size_t eq = v.find('=');
  if (eq == std::string::npos || eq == 0 || eq + 1 == v.size()) {
    err = "--token wants TOKEN=AUTH_ID, got '" + v + "'";
    return false;
  }
  out.tokens.emplace_back(v.substr(0, eq), v.substr(eq + 1));
  return true;
}

}  // namespace

const char *usage_text() {
  return "usage: zel-server [--host 127.0.0.1] [--port 9000] [--data DIR] [--token TOKEN=AUTH_ID]...\n"
         "                  [--test-api] [--faults FILE] [--threads N] [--delta-threads N]\n"
         "  --port 0 picks a free port; the line 'listening on http://HOST:PORT' tells which.\n"
         "  Without --data the state lives in a temporary directory removed at exit.\n"
         "  The token 'local-dev-token' (auth id 'local') is always accepted; --token adds more.\n";
}

bool parse_options(int argc, char **argv, Options &out, std::string &err) {
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    bool has_value = i + 1 < argc;
    long n = 0;
    if (a == "--test-api") {
      out.test_api = true;
    } else if (a == "--help" || a == "-h") {
      err = usage_text();
      return false;
    } else if (!has_value) {
      err = "missing value or unknown option: " + a;
      return false;
    } else if (a == "--host") {
      out.host = argv[++i];
    } else if (a == "--port" && parse_int(argv[i + 1], 0, 65535, n)) {
      out.port = static_cast<int>(n);
      ++i;
    } else if (a == "--threads" && parse_int(argv[i + 1], 16, 4096, n)) {
      out.threads = static_cast<size_t>(n);
      ++i;
    } else if (a == "--delta-threads" && parse_int(argv[i + 1], 1, 64, n)) {
      out.delta_threads = static_cast<size_t>(n);
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
