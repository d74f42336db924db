// Object endpoints that read or rearrange stored objects: download, details,
// copy, delete, undelete and expiration reset.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "bodies.h"
#include "delta.h"
#include "router.h"
#include "util.h"

namespace zelsrv {
namespace {

// Writes leave in pieces this large, so the sender never waits long on one
// call and cancellations are seen quickly.
const size_t kSendPiece = 16u << 20;

// A read-only mapping of a whole object file. Its bytes are never touched by
// the emulator: the connection layer sends them with sendfile.
struct MappedObject {
  int fd = -1;
  char* base = nullptr;
  size_t size = 0;
  ~MappedObject() {
    if (base) munmap(base, size);
    if (fd >= 0) close(fd);
  }
};

void serve_bytes(Ctx& c, std::shared_ptr<MappedObject> obj, ByteSpan span, const std::string& type) {
  size_t length = static_cast<size_t>(span.end - span.start + 1);
  c.res.set_content_provider(length, type,
                             [obj, span](size_t offset, size_t length, httplib::DataSink& sink) {
                               wire_set_file_window(obj->base, obj->size, obj->fd, 0);
                               const char* p = obj->base + span.start + offset;
                               bool ok = true;
                               for (size_t done = 0; ok && done < length;) {
                                 size_t n = std::min(kSendPiece, length - done);
                                 ok = sink.write(p + done, n);
                                 done += n;
                               }
                               wire_clear_file_window();
                               return ok;
                             });
}

void download(Ctx& c) {
  if (delta_download(c)) return;
  ObjectMeta m;
  int fd = c.app.objects.open_live(c.args[0], c.args[1], m);
  if (fd < 0) return c.error(404, "Object not found");
  auto obj = std::make_shared<MappedObject>();
  obj->fd = fd;
  obj->size = static_cast<size_t>(m.size);
  struct stat st;
  if (fstat(fd, &st) != 0 || static_cast<uint64_t>(st.st_size) != m.size) {
    std::fprintf(stderr, "zel-server: object %s/%s: its file does not hold its %llu bytes\n",
                 m.bucket.c_str(), m.key.c_str(), static_cast<unsigned long long>(m.size));
    return c.error(500, "The object's stored file is damaged");
  }
  ByteSpan span{0, m.size ? m.size - 1 : 0};
  RangeResult rr = parse_range(wire_header("Range"), m.size, span);
  if (rr == RangeResult::kUnsatisfiable) {
    c.res.set_header("Content-Range", "bytes */" + std::to_string(m.size));
    return c.error(416, "The range is outside the object");
  }
  c.res.set_header("Accept-Ranges", "bytes");
  c.res.set_header("ETag", "\"" + m.sha1 + "\"");
  if (rr == RangeResult::kOk) {
    c.res.status = 206;
    c.res.set_header("Content-Range", "bytes " + std::to_string(span.start) + "-" + std::to_string(span.end) +
                                          "/" + std::to_string(m.size));
  } else {
    c.res.status = 200;
  }
  if (m.size == 0) return c.res.set_content("", m.content_type.c_str());
  void* map = mmap(nullptr, obj->size, PROT_READ, MAP_SHARED, fd, 0);
  if (map == MAP_FAILED) return c.error(500, "Cannot map the object's file");
  obj->base = static_cast<char*>(map);
  serve_bytes(c, obj, span, m.content_type);
}

DateFields requested_dates(const httplib::Request& req) {
  DateFields d;
  auto range = req.params.equal_range("with");
  for (auto it = range.first; it != range.second; ++it) {
    d.created |= it->second == "createdDate";
    d.accessed |= it->second == "lastAccessedDate";
    d.modified |= it->second == "lastModifiedDate";
  }
  return d;
}

void details(Ctx& c) {
  if (delta_details(c)) return;
  ObjectMeta m;
  if (!c.app.objects.get(c.args[0], c.args[1], m)) return c.error(404, "Object not found");
  c.reply(200, object_details_json(m, c.location(m.bucket, m.key), c.version, requested_dates(c.req)));
}

void copy_object(Ctx& c) {
  c.drain();
  ObjectMeta m;
  if (!c.app.objects.copy(c.args[0], c.args[1], c.args[2], m)) return c.error(404, "Source object not found");
  c.reply(200, object_details_json(m, c.location(m.bucket, m.key), c.version));
}

void delete_object(Ctx& c) {
  if (!c.app.objects.remove(c.args[0], c.args[1])) return c.error(404, "Object not found");
  c.res.status = 200;
}

void undelete_object(Ctx& c) {
  if (!c.app.objects.undelete(c.args[0], c.args[1])) return c.error(404, "No deleted object to restore");
  c.res.status = 200;
}

void reset_expiration(Ctx& c) {
  ObjectMeta m;
  if (!c.app.objects.reset_expiration(c.args[0], c.args[1], m)) return c.error(404, "Object not found");
  c.reply(200, object_details_json(m, c.location(m.bucket, m.key), c.version));
}

}  // namespace

std::vector<Route> upload_routes();

std::vector<Route> object_routes() {
  std::vector<Route> r = {
      {"GET", "buckets/*/objects/*", Access::kRead, download},
      {"GET", "buckets/*/objects/*/details", Access::kRead, details},
      {"PUT", "buckets/*/objects/*/copyto/*", Access::kFull, copy_object},
      {"DELETE", "buckets/*/objects/*", Access::kFull, delete_object},
      {"POST", "buckets/*/objects/*/undelete", Access::kFull, undelete_object},
      {"POST", "buckets/*/objects/*/resetexpiration", Access::kFull, reset_expiration},
  };
  for (const auto& u : upload_routes()) r.push_back(u);
  return r;
}

}  // namespace zelsrv
