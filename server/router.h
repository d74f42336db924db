// Request context and the route table of the service's REST API.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "app.h"
#include "wire.h"

namespace zelsrv {

struct Ctx {
  Ctx(App& a, const httplib::Request& rq, httplib::Response& rs, const httplib::ContentReader* rd)
      : app(a), req(rq), res(rs), reader(rd) {}

  App& app;
  const httplib::Request& req;
  httplib::Response& res;
  const httplib::ContentReader* reader;  // none when cpp-httplib read the body already
  int version = 2;
  std::vector<std::string> args;  // decoded path segments matched by '*'
  std::string principal;
  Bucket bucket;  // loaded for routes that act on an existing bucket
  bool body_taken = false;

  // Feeds the request body to `sink` once; false when it could not be read
  // whole (the connection is then closed after the answer).
  bool read_body(const std::function<bool(const char*, size_t)>& sink);
  // False (and an error answer) when the body exceeds `limit`.
  bool body_text(std::string& out, size_t limit = 1 << 20);
  void drain();

  void reply(int status, const std::string& json_body);
  void error(int status, const std::string& reason);
  // URL that downloads the object from this server, as the client reached it.
  std::string location(const std::string& bucket_key, const std::string& key) const;
};

using RouteFn = void (*)(Ctx&);

struct Route {
  const char* method;
  const char* pattern;  // segments after /zel/vN; '*' matches one segment
  Access need;          // kNone: no bucket is loaded before the call
  RouteFn fn;
};

// The segments of a path that starts with '/', undecoded.
std::vector<std::string> split_path(const std::string& path);
// Decodes path segments into `out`; a reason for the client when one is
// refused (dot segments, broken escapes, NUL or text that is not UTF-8).
std::string decode_segments(const std::vector<std::string>& raw, std::vector<std::string>& out);

std::vector<Route> bucket_routes();
std::vector<Route> object_routes();

// Sends every request of the server through the emulator.
void install_routes(WireServer& server, App& app);

}  // namespace zelsrv
