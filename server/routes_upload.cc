// Upload endpoints: whole-object PUT, resumable chunks and session status.
#include <fcntl.h>
#include <unistd.h>

#include <vector>

#include "bodies.h"
#include "delta.h"
#include "digest.h"
#include "ingest.h"
#include "router.h"
#include "util.h"

namespace zelsrv {
namespace {

std::string content_type_of() {
  std::string t = wire_header("Content-Type");
  return t.empty() ? "application/octet-stream" : t;
}

void reply_details(Ctx& c, const ObjectMeta& m) {
  c.reply(200, object_details_json(m, c.location(m.bucket, m.key), c.version));
}

bool whole_length(Ctx& c, bool& known, uint64_t& length) {
  std::string cr = wire_header("Content-Range");
  known = !cr.empty();
  if (!known) return true;
  ByteSpan s;
  if (!parse_content_range(cr, s, length) || (length > 0 && (s.start != 0 || s.end != length - 1))) {
    c.drain();
    c.error(400, "Content-Range must read bytes 0-(N-1)/N for a whole object");
    return false;
  }
  return true;
}

// Streams the body to a new file; the object is published only whole.
void put_whole(Ctx& c) {
  bool known = false;
  uint64_t length = 0;
  if (delta_upload_refused(c) || !whole_length(c, known, length)) return;
  std::string tmp = c.app.store.tmp_dir() + "/" + random_hex_id();
  int fd = open_for_ingest(tmp, O_EXCL);
  if (fd < 0) return c.error(500, "Cannot create a file for the upload");
  Sha1 sha;
  BlockWriter w(fd, 0, known ? length : UINT64_MAX, &sha);
  bool got = c.read_body([&](const char* d, size_t n) { return w.add(d, n); });
  // Flushed even after a failed read: the writer's helper must be done with
  // the file and the hash before either is used.
  bool ok = w.flush() && got;
  bool agree = !known || w.received() == length;
  ok = ok && agree && fsync(fd) == 0;
  close(fd);
  ObjectMeta m{c.args[0], c.args[1], random_hex_id(), sha.hex(), content_type_of(), w.received()};
  if (!ok || rename(tmp.c_str(), c.app.store.blob_path(m.blob).c_str()) != 0) {
    unlink(tmp.c_str());
    return c.error(agree ? 500 : 400, agree ? "The upload could not be stored"
                                            : "The body's length does not agree with Content-Range");
  }
  sync_dir(c.app.store.objects_dir());
  c.app.objects.publish(m);
  delta_uploaded(c, m);
  std::string sid = wire_header("Session-Id");
  if (!sid.empty()) c.app.sessions.record_whole(m, sid);
  reply_details(c, m);
}

void reply_session_done(Ctx& c, const Session& s) {
  ObjectMeta m;
  if (!c.app.objects.get(s.bucket, s.key, m)) return c.error(404, "The session's object no longer exists");
  c.res.set_header("Range", s.total ? "bytes=0-" + std::to_string(s.total - 1) : "bytes=");
  reply_details(c, m);
}

// Receives one chunk into the session's file, leaving `fd` open on it when
// bytes were written (-1 otherwise); false after an error answer.
bool receive_chunk(Ctx& c, const Session& s, ByteSpan span, int& fd) {
  uint64_t len = s.total == 0 ? 0 : span.end - span.start + 1;
  bool ok = true;
  uint64_t got = 0;
  fd = -1;
  if (s.total == 0 || spans_cover(s.ranges, span)) {
    // A repeat: the bytes are held already and may be being hashed.
    ok = c.read_body([&](const char*, size_t n) { return (got += n), true; });
  } else {
    fd = open_for_ingest(c.app.store.session_path(s.row), 0);
    if (fd < 0) return c.error(500, "Cannot open the session's file"), false;
    BlockWriter w(fd, span.start, len, nullptr);
    ok = c.read_body([&](const char* d, size_t n) { return w.add(d, n); });
    ok = w.flush() && ok;  // always: the writer is done with fd only then
    got = w.received();
    // Even a chunk cut short may have replaced bytes already hashed.
    c.app.sessions.chunk_written(s, span);
  }
  if (ok && got == len) return true;
  c.error(400, "The body's length does not agree with Content-Range");
  return false;
}

void put_chunk(Ctx& c) {
  std::string sid = wire_header("Session-Id");
  ByteSpan span;
  uint64_t total = 0;
  if (delta_upload_refused(c)) return;
  if (sid.empty() || sid.size() > 256)
    return c.drain(), c.error(400, "A resumable upload needs a Session-Id");
  if (!parse_content_range(wire_header("Content-Range"), span, total))
    return c.drain(), c.error(400, "Content-Range must read bytes S-E/TOTAL");
  Session s;
  if (!c.app.sessions.open(c.args[0], c.args[1], sid, total, content_type_of(), s))
    return c.drain(), c.error(400, "The total " + std::to_string(total) + " disagrees with the session's " +
                                       std::to_string(s.total));
  if (s.complete) return c.drain(), reply_session_done(c, s);
  int fd = -1;
  bool received = receive_chunk(c, s, span, fd);
  // Answered only once the chunk is synced and its range committed.
  Sessions::After after = received ? c.app.sessions.commit(s, span, fd) : Sessions::After::kGone;
  if (fd >= 0) close(fd);
  if (!received) return;
  ObjectMeta m;
  switch (after) {
    case Sessions::After::kPartial:
      c.app.sessions.advance_hash(s);
      c.res.status = 202;
      c.res.set_header("Range", format_ranges(s.ranges));
      return;
    case Sessions::After::kAssemble:
      if (!c.app.sessions.assemble(s, m)) return c.error(500, "The object could not be assembled");
      delta_uploaded(c, m);
      return reply_details(c, m);
    case Sessions::After::kAssembling:
      c.app.sessions.wait_assembled(s.row);
      return reply_session_done(c, s);
    case Sessions::After::kComplete:
      return reply_session_done(c, s);
    case Sessions::After::kGone:
      return c.error(404, "Upload session not found");
    case Sessions::After::kUnsynced:
      return c.error(500, "The chunk could not be stored");
  }
}

void session_status(Ctx& c) {
  Session s;
  if (!c.app.sessions.find(c.args[0], c.args[1], c.args[2], s))
    return c.error(404, "Upload session not found");
  if (s.complete) return reply_session_done(c, s);
  c.res.status = 202;
  c.res.set_header("Range", format_ranges(s.ranges));
}

}  // namespace

std::vector<Route> upload_routes() {
  return {
      {"PUT", "buckets/*/objects/*", Access::kFull, put_whole},
      {"PUT", "buckets/*/objects/*/resumable", Access::kFull, put_chunk},
      {"GET", "buckets/*/objects/*/status/*", Access::kRead, session_status},
  };
}

}  // namespace zelsrv
