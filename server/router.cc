#include "router.h"

#include <strings.h>

#include <cinttypes>
#include <cstdio>
#include <ctime>

#include "bodies.h"
#include "delta.h"
#include "test_api.h"
#include "util.h"

namespace zelsrv {

std::vector<std::string> split_path(const std::string& path) {
  std::vector<std::string> out;
  size_t p = 1;
  while (p <= path.size()) {
    size_t e = path.find('/', p);
    if (e == std::string::npos) e = path.size();
    out.push_back(path.substr(p, e - p));
    p = e + 1;
  }
  return out;
}

namespace {

bool match_route(const Route& r, const std::vector<std::string>& segs, std::vector<std::string>& args) {
  std::vector<std::string> pat = split_path(std::string("/") + r.pattern);
  if (pat.size() != segs.size()) return false;
  args.clear();
  for (size_t i = 0; i < pat.size(); ++i) {
    if (pat[i] == "*")
      args.push_back(segs[i]);
    else if (pat[i] != segs[i])
      return false;
  }
  return true;
}

}  // namespace

std::string decode_segments(const std::vector<std::string>& raw, std::vector<std::string>& out) {
  for (const auto& s : raw) {
    // Dot segments mean nothing here and are refused rather than resolved.
    if (s == "." || s == ".." || s.empty()) return "Invalid path segment";
    std::string d;
    if (!percent_decode(s, d)) return "Invalid percent-encoding in the path";
    if (!valid_utf8(d) || d.find('\0') != std::string::npos) return "Names must be UTF-8 text without NUL";
    out.push_back(d);
  }
  return std::string();
}

namespace {

const std::vector<Route>& all_routes() {
  static const std::vector<Route> routes = [] {
    std::vector<Route> r = bucket_routes();
    for (const auto& o : object_routes()) r.push_back(o);
    return r;
  }();
  return routes;
}

bool load_bucket(Ctx& c, Access need) {
  if (!valid_bucket_key(c.args[0])) {
    c.error(400, "A bucket key has 3 to 128 characters of [-_.a-z0-9]");
    return false;
  }
  if (!c.app.buckets.get(c.args[0], c.bucket)) {
    c.error(404, "Bucket not found");
    return false;
  }
  Access has = Buckets::access(c.bucket, c.principal);
  if (has == Access::kNone || (need == Access::kFull && has != Access::kFull)) {
    c.error(403, "No access to this bucket");
    return false;
  }
  return true;
}

void serve_api(Ctx& c, const std::string& path) {
  std::vector<std::string> raw = split_path(path);
  if (!raw.empty() && raw[0] == "kri") return serve_delta_api(c, raw);
  if (raw.size() < 3 || raw[0] != "zel" || (raw[1] != "v1" && raw[1] != "v2"))
    return c.error(404, "No such endpoint");
  c.version = raw[1] == "v1" ? 1 : 2;
  std::vector<std::string> segs;
  std::string why = decode_segments(std::vector<std::string>(raw.begin() + 2, raw.end()), segs);
  if (!why.empty()) return c.error(400, why);
  const Route* found = nullptr;
  bool path_known = false;
  for (const auto& r : all_routes()) {
    if (!match_route(r, segs, c.args)) continue;
    path_known = true;
    if (c.req.method == r.method || (c.req.method == "HEAD" && std::string(r.method) == "GET")) {
      found = &r;
      break;
    }
  }
  if (!found) return c.error(path_known ? 405 : 404, path_known ? "Method not allowed" : "No such endpoint");
  c.principal = c.app.auth.principal(wire_header("Authorization"));
  if (c.principal.empty()) return c.error(401, "Missing or unknown bearer token");
  wire_set_principal(c.principal);
  if (found->need != Access::kNone && !load_bucket(c, found->need)) return;
  found->fn(c);
}

std::string status_text(int status) {
  switch (status) {
    case 400:
      return "Bad Request";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 413:
      return "Payload Too Large";
    case 414:
      return "URI Too Long";
    case 416:
      return "Range Not Satisfiable";
    default:
      return "HTTP status " + std::to_string(status);
  }
}

// Replaces the answer's body by one that stops after `limit` bytes, and has
// the connection closed there.
void cut_answer(httplib::Response& res, int64_t limit) {
  wire_close_after_response();
  size_t cap = static_cast<size_t>(limit);
  if (res.content_provider_) {
    auto inner = res.content_provider_;
    auto sent = std::make_shared<size_t>(0);
    res.content_provider_ = [inner, sent, cap](size_t offset, size_t length, httplib::DataSink& sink) {
      httplib::DataSink cut;
      cut.is_writable = sink.is_writable;
      cut.write = [&](const char* d, size_t n) {
        size_t allowed = cap > *sent ? cap - *sent : 0;
        size_t k = std::min(n, allowed);
        if (k && !sink.write(d, k)) return false;
        *sent += k;
        return k == n;
      };
      return inner(offset, length, cut) && *sent < cap;
    };
  } else if (!res.body.empty()) {
    std::string body;
    body.swap(res.body);
    std::string type = res.get_header_value("Content-Type");
    res.headers.erase("Content-Type");
    size_t len = body.size();
    res.set_content_provider(len, type, [body, cap](size_t offset, size_t, httplib::DataSink& sink) {
      size_t end = std::min(body.size(), cap);
      if (offset < end) sink.write(body.data() + offset, end - offset);
      return false;
    });
  }
}

// Set when a fault rule asked for an answer with an empty body, so the
// error handler (same thread, same request) leaves it empty.
thread_local bool t_fault_without_body = false;

void handle(App& app, const httplib::Request& req, httplib::Response& res,
            const httplib::ContentReader* reader) {
  t_fault_without_body = false;
  Ctx c{app, req, res, reader};
  std::string path = req.target.substr(0, req.target.find('?'));
  if (app.opts.test_api && path.compare(0, 11, "/_emulator/") == 0) {
    // The journal and the rules are as private as the store: known tokens only.
    c.principal = app.auth.principal(wire_header("Authorization"));
    wire_set_principal(c.principal);
    if (c.principal.empty())
      c.error(401, "Missing or unknown bearer token");
    else
      serve_test_api(c, path);
    c.drain();
    return;
  }
  FaultAction fault;
  bool faulty = app.faults.match(req.method, path, wire_request().headers, fault);
  if (faulty && fault.delay_ms > 0 && !app.stop.sleep_ms(fault.delay_ms)) {
    c.drain();
    return c.error(503, "The server is stopping");
  }
  if (faulty && fault.status) {
    c.drain();
    if (fault.content_type.empty() && fault.status >= 400) return c.error(fault.status, "Injected fault");
    res.status = fault.status;
    if (!fault.body.empty()) res.set_content(fault.body, fault.content_type.c_str());
    t_fault_without_body = fault.body.empty();
    return;
  }
  serve_api(c, path);
  c.drain();
  if (faulty && fault.reset_after_bytes >= 0) cut_answer(res, fault.reset_after_bytes);
}

// Bytes that would break the line (controls, non-ASCII) show as %XX.
std::string printable(const std::string& s) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char ch : s) {
    if (ch > 0x20 && ch < 0x7f) {
      out += static_cast<char>(ch);
    } else {
      out += '%';
      out += kHex[ch >> 4];
      out += kHex[ch & 15];
    }
  }
  return out;
}

// One line per answered request: time, principal, method, target, status,
// body bytes received and sent (head included), duration.
void log_request(const httplib::Request& req, const httplib::Response& res) {
  const WireRequest& w = wire_request();
  int64_t now = now_ms();
  time_t secs = static_cast<time_t>(now / 1000);
  tm utc;
  gmtime_r(&secs, &utc);
  char stamp[32];
  strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%S", &utc);
  long long ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - w.began)
          .count();
  std::fprintf(stderr, "%s.%03dZ %s %s %s %d in=%" PRIu64 " out=%" PRIu64 " %lldms\n", stamp,
               static_cast<int>(now % 1000), w.principal.empty() ? "-" : printable(w.principal).c_str(),
               printable(req.method).c_str(), printable(req.target).c_str(), res.status, w.body_bytes,
               w.sent_bytes, ms);
}

}  // namespace

bool Ctx::read_body(const std::function<bool(const char*, size_t)>& sink) {
  if (body_taken) return true;
  body_taken = true;
  if (!reader) return req.body.empty() || sink(req.body.data(), req.body.size());
  bool ok = (*reader)([&](const char* d, size_t n) { return sink(d, n); });
  if (!ok) wire_close_after_response();
  return ok;
}

bool Ctx::body_text(std::string& out, size_t limit) {
  bool too_big = false;
  bool ok = read_body([&](const char* d, size_t n) {
    if (out.size() + n > limit) return !(too_big = true);
    out.append(d, n);
    return true;
  });
  if (too_big) error(413, "The body is too large");
  return ok && !too_big;
}

void Ctx::drain() {
  read_body([](const char*, size_t) { return true; });
}

void Ctx::reply(int status, const std::string& json_body) {
  res.status = status;
  res.set_content(json_body, "application/json");
}

void Ctx::error(int status, const std::string& reason) { reply(status, reason_json(reason)); }

std::string Ctx::location(const std::string& bucket_key, const std::string& key) const {
  std::string host = wire_header("Host");
  if (host.empty()) host = app.opts.host + ":" + std::to_string(app.opts.port);
  return "http://" + host + "/zel/v" + std::to_string(version) + "/buckets/" + percent_encode(bucket_key) +
         "/objects/" + percent_encode(key);
}

void install_routes(WireServer& server, App& app) {
  const char* any = "[\\s\\S]*";
  auto plain = [&app](const httplib::Request& req, httplib::Response& res) {
    handle(app, req, res, nullptr);
  };
  auto streamed = [&app](const httplib::Request& req, httplib::Response& res,
                         const httplib::ContentReader& r) { handle(app, req, res, &r); };
  server.Get(any, plain).Post(any, plain).Put(any, plain).Delete(any, plain);
  server.Post(any, streamed).Put(any, streamed).Delete(any, streamed);
  // Answers cpp-httplib gives by itself (bad request lines, unknown methods)
  // get the same error body as the emulator's own.
  server.set_error_handler(
      httplib::Server::HandlerWithResponse([](const httplib::Request&, httplib::Response& res) {
        bool keep_empty = t_fault_without_body;
        t_fault_without_body = false;
        if (!res.body.empty() || res.content_provider_ || keep_empty) {
          return httplib::Server::HandlerResponse::Unhandled;
        }
        res.set_content(reason_json(status_text(res.status)), "application/json");
        return httplib::Server::HandlerResponse::Handled;
      }));
  // Recorded before the answer leaves, so a client that got its answer finds
  // its request in the journal.
  server.set_post_routing_handler([&app](const httplib::Request& req, httplib::Response& res) {
    if (req.target.compare(0, 11, "/_emulator/") == 0 && app.opts.test_api) return;
    const WireRequest& w = wire_request();
    app.journal.add(JournalEntry{req.method, req.target, w.headers, w.body_bytes, res.status, w.principal});
  });
  if (app.opts.log_requests)
    server.set_logger(
        [](const httplib::Request& req, const httplib::Response& res) { log_request(req, res); });
}

}  // namespace zelsrv
