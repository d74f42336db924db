// HTTP faces of the delta engine: its own API, the storage service's delta
// headers, and the test API's job controls.
#include <fcntl.h>
#include <jansson.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <memory>

#include "bodies.h"
#include "delta.h"
#include "util.h"

namespace zelsrv {
namespace {

const char kDeltaHeader[] = "x-pmw-delta-object";
const char kProcessHeader[] = "x-pmw-delta-processtype";
const char* const kAcmHeaders[] = {"x-pmw-acm-namespace", "x-pmw-acm-groups", "x-pmw-acm-check-groups"};

// A parsed "x-pmw-delta-object" value.
struct DeltaHeader {
  enum Kind { kSignature, kPatchFrom, kPatchPair } kind = kSignature;
  uint32_t block = 0;
  std::string from;  // SHA-1s, lower-cased
  std::string to;
};

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

bool parse_delta_header(const std::string& value, DeltaHeader& out) {
  if (value.compare(0, 11, "signature:@") == 0) {
    std::string digits = value.substr(11);
    if (digits.empty() || digits.size() > 8 || digits.find_first_not_of("0123456789") != std::string::npos)
      return false;
    long block = std::stol(digits);
    out = DeltaHeader{DeltaHeader::kSignature, static_cast<uint32_t>(block), "", ""};
    return block >= 1 && block <= (16 << 20);
  }
  if (value.compare(0, 6, "patch:") != 0) return false;
  std::string rest = value.substr(6);
  size_t arrow = rest.find("->");
  out.kind = arrow == std::string::npos ? DeltaHeader::kPatchFrom : DeltaHeader::kPatchPair;
  out.from = lower(rest.substr(0, arrow));
  out.to = arrow == std::string::npos ? "" : lower(rest.substr(arrow + 2));
  return valid_sha1(out.from) && (out.kind == DeltaHeader::kPatchFrom || valid_sha1(out.to));
}

void serve_kept(Ctx& c, const KeptFile& k) {
  int fd = open(k.path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return c.error(500, "Cannot open the kept file");
  if (k.size == 0) {
    close(fd);
    c.res.status = 200;
    return c.res.set_content("", "application/octet-stream");
  }
  auto file = std::shared_ptr<int>(new int(fd), [](int* p) {
    close(*p);
    delete p;
  });
  c.res.status = 200;
  c.res.set_header("ETag", "\"" + k.sha1 + "\"");
  c.res.set_content_provider(static_cast<size_t>(k.size), "application/octet-stream",
                             [file](size_t offset, size_t length, httplib::DataSink& sink) {
                               char buf[1 << 16];
                               size_t n = std::min(length, sizeof buf);
                               ssize_t got = pread(*file, buf, n, static_cast<off_t>(offset));
                               return got > 0 && sink.write(buf, static_cast<size_t>(got));
                             });
}

void serve_signature(Ctx& c, uint32_t block) {
  ObjectMeta m;
  int fd = c.app.objects.open_live(c.args[0], c.args[1], m);
  if (fd < 0) return c.error(404, "Object not found");
  KeptFile sig;
  std::string why;
  bool ok = c.app.deltas.signature(m.sha1, "/proc/self/fd/" + std::to_string(fd), block, sig, why);
  close(fd);
  if (!ok) return c.error(500, why);
  serve_kept(c, sig);
}

std::string acm_json() {
  json_t* o = json_object();
  for (const char* name : kAcmHeaders) {
    if (wire_has_header(name)) json_object_set_new(o, name, json_string(wire_header(name).c_str()));
  }
  char* text = json_dumps(o, JSON_COMPACT | JSON_PRESERVE_ORDER);
  json_decref(o);
  std::string out = text ? text : "{}";
  free(text);
  return out;
}

std::string request_host(const Ctx& c) {
  std::string host = wire_header("Host");
  return host.empty() ? c.app.opts.host + ":" + std::to_string(c.app.opts.port) : host;
}

// The bucket must exist and the principal may use it (fully for an apply).
bool may_use(Ctx& c, const std::string& kind, const DeltaRequest& r) {
  Bucket b;
  if (!c.app.buckets.get(r.bucket, b)) return c.error(404, "Bucket not found"), false;
  Access has = Buckets::access(b, c.principal);
  if (has == Access::kNone || (kind == "applypatch" && has != Access::kFull))
    return c.error(403, "No access to this bucket"), false;
  return true;
}

// Two create-delta requests for the same pair of contents make the same
// patch; the key names that work (empty for other kinds).
std::string same_work(Ctx& c, const std::string& kind, const DeltaRequest& r) {
  ObjectMeta from, to;
  if (kind != "createdelta" || !c.app.objects.get(r.bucket, r.object, from) ||
      !c.app.objects.get(r.bucket, r.other, to))
    return "";
  return c.principal + '\n' + r.bucket + '\n' + r.object + '\n' + r.other + '\n' + from.sha1 + '\n' +
         to.sha1 + '\n' + std::to_string(r.block_size);
}

void create_job(Ctx& c, const std::string& kind) {
  std::string body, why;
  if (!c.body_text(body)) return;
  DeltaRequest r;
  if (!parse_delta_request(kind, body, r, why)) return c.error(400, why);
  if (!may_use(c, kind, r)) return;
  JobOrder order;
  order.kind = kind;
  order.request = body;
  order.principal = c.principal;
  order.host = request_host(c);
  order.acm = acm_json();
  if (!c.app.jobs.submit(order, "http://" + order.host + "/kri/api/v1/public/", same_work(c, kind, r)))
    return c.error(500, "Cannot register the job");
  c.reply(200, Jobs::answer_json(0, kJobQueued, order.public_url, order.id));
}

bool job_kind(const std::string& s) {
  return s == "createsignature" || s == "createdelta" || s == "applypatch";
}

void serve_authorized(Ctx& c, const std::vector<std::string>& segs) {
  c.principal = c.app.auth.principal(wire_header("Authorization"));
  if (c.principal.empty()) return c.error(401, "Missing or unknown bearer token");
  std::string json;
  if (segs.size() == 1 && c.req.method == "POST") return create_job(c, segs[0]);
  if (segs.size() == 2 && c.req.method == "GET") {
    if (!c.app.jobs.status_by_id(segs[0], segs[1], json)) return c.error(404, "Job not found");
    return c.reply(200, json);
  }
  c.error(405, "Method not allowed");
}

}  // namespace

std::string object_location(const std::string& host, int version, const std::string& bucket,
                            const std::string& key) {
  return "http://" + host + "/zel/v" + std::to_string(version) + "/buckets/" + percent_encode(bucket) +
         "/objects/" + percent_encode(key);
}

void serve_delta_api(Ctx& c, const std::vector<std::string>& raw) {
  if (raw.size() < 4 || raw[1] != "api" || raw[2] != "v1") return c.error(404, "No such endpoint");
  std::vector<std::string> segs(raw.begin() + 3, raw.end());
  std::string json;
  if (segs.size() == 1 && segs[0] == "health") return c.reply(200, "{\"status\":\"ok\"}");
  if (segs.size() == 2 && segs[0] == "public") {
    if (c.req.method != "GET" && c.req.method != "HEAD") return c.error(405, "Method not allowed");
    if (!c.app.jobs.status_by_token(segs[1], json)) return c.error(404, "Job not found");
    return c.reply(200, json);
  }
  if (segs.empty() || segs.size() > 2 || !job_kind(segs[0])) return c.error(404, "No such endpoint");
  serve_authorized(c, segs);
}

bool delta_download(Ctx& c) {
  if (!wire_has_header(kDeltaHeader)) return false;
  DeltaHeader h;
  if (!parse_delta_header(wire_header(kDeltaHeader), h) || h.kind == DeltaHeader::kPatchPair) {
    c.error(400, "x-pmw-delta-object must read signature:@N or patch:<SHA-1>");
    return true;
  }
  if (h.kind == DeltaHeader::kSignature) {
    serve_signature(c, h.block);
    return true;
  }
  ObjectMeta dest;
  KeptFile patch;
  if (!c.app.objects.get(c.args[0], c.args[1], dest)) {
    c.error(404, "Object not found");
  } else if (!c.app.deltas.find_patch(h.from, dest.sha1, patch)) {
    c.error(404, "Patch not found");
  } else {
    serve_kept(c, patch);
  }
  return true;
}

bool delta_details(Ctx& c) {
  if (!wire_has_header(kDeltaHeader)) return false;
  DeltaHeader h;
  ObjectMeta m;
  KeptFile patch;
  if (!parse_delta_header(wire_header(kDeltaHeader), h) || h.kind != DeltaHeader::kPatchPair) {
    c.error(400, "x-pmw-delta-object must read patch:<SHA-1>-><SHA-1>");
  } else if (!c.app.objects.get(c.args[0], c.args[1], m)) {
    c.error(404, "Object not found");
  } else if (!c.app.deltas.find_patch(h.from, h.to, patch)) {
    c.error(404, "Patch not found");
  } else {
    m.size = patch.size;
    m.sha1 = patch.sha1;
    m.content_type = "application/octet-stream";
    c.reply(200, object_details_json(m, c.location(m.bucket, m.key), c.version));
  }
  return true;
}

bool delta_upload_refused(Ctx& c) {
  if (!wire_has_header(kDeltaHeader) && !wire_has_header(kProcessHeader)) return false;
  DeltaHeader h;
  std::string type = wire_header(kProcessHeader);
  bool type_ok =
      type.empty() || (type.size() <= 9 && type.find_first_not_of("0123456789") == std::string::npos);
  if (parse_delta_header(wire_header(kDeltaHeader), h) && h.kind == DeltaHeader::kPatchPair && type_ok)
    return false;
  c.drain();
  c.error(400, "A patch upload needs x-pmw-delta-object: patch:<SHA-1>-><SHA-1> and a numeric process type");
  return true;
}

void delta_uploaded(Ctx& c, const ObjectMeta& m) {
  DeltaHeader h;
  if (!wire_has_header(kDeltaHeader) || !parse_delta_header(wire_header(kDeltaHeader), h)) return;
  std::string type = wire_header(kProcessHeader);
  PendingPatch p{m.blob, h.from, h.to, type.empty() ? 0 : std::stoi(type), c.version};
  c.app.deltas.mark_pending(m, p);
}

bool start_delta_engine(App& app, std::string& err) {
  if (!app.deltas.open(err) || !app.jobs.open(err)) return false;
  app.jobs.start(app.opts.delta_threads, [&app](const JobOrder& order, JobControl& control) {
    return run_delta_job(app, order, control);
  });
  return true;
}

}  // namespace zelsrv
