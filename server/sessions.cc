#include "sessions.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>

#include "digest.h"

namespace zelsrv {

bool spans_cover(const std::vector<ByteSpan>& ranges, ByteSpan span) {
  for (const auto& r : ranges)
    if (r.start <= span.start && span.end <= r.end) return true;
  return false;
}

std::vector<ByteSpan> Sessions::load_ranges(int64_t row) {
  std::vector<ByteSpan> out;
  Stmt st(store_, "SELECT start, last FROM session_ranges WHERE session = ? ORDER BY start");
  st.bind(1, row);
  while (st.row()) {
    ByteSpan s{static_cast<uint64_t>(st.i64(0)), static_cast<uint64_t>(st.i64(1))};
    if (!out.empty() && s.start <= out.back().end + 1) {
      if (s.end > out.back().end) out.back().end = s.end;
    } else {
      out.push_back(s);
    }
  }
  return out;
}

bool Sessions::read(const char* where, const std::string& a, const std::string& b, const std::string& c,
                    Session& out) {
  std::string sql =
      std::string("SELECT id, bucket, key, session, total, content_type, complete FROM sessions ") + where;
  Stmt st(store_, sql.c_str());
  if (!st.bind(1, a).bind(2, b).bind(3, c).row()) return false;
  out.row = st.i64(0);
  out.bucket = st.text(1);
  out.key = st.text(2);
  out.id = st.text(3);
  out.total = static_cast<uint64_t>(st.i64(4));
  out.content_type = st.text(5);
  out.complete = st.i64(6) != 0;
  out.ranges = load_ranges(out.row);
  return true;
}

bool Sessions::find(const std::string& bucket, const std::string& key, const std::string& id, Session& out) {
  std::lock_guard<std::mutex> lock(store_.mutex());
  return read("WHERE bucket = ? AND key = ? AND session = ?", bucket, key, id, out);
}

bool Sessions::open(const std::string& bucket, const std::string& key, const std::string& id, uint64_t total,
                    const std::string& content_type, Session& out) {
  std::lock_guard<std::mutex> lock(store_.mutex());
  if (!read("WHERE bucket = ? AND key = ? AND session = ?", bucket, key, id, out)) {
    store_.set_durable(true);
    Stmt(store_,
         "INSERT INTO sessions(bucket, key, session, total, content_type, complete) VALUES(?,?,?,?,?,0)")
        .bind(1, bucket)
        .bind(2, key)
        .bind(3, id)
        .bind(4, static_cast<int64_t>(total))
        .bind(5, content_type)
        .done();
    read("WHERE bucket = ? AND key = ? AND session = ?", bucket, key, id, out);
  }
  store_.set_durable(false);
  Stmt(store_, "UPDATE sessions SET touched = ? WHERE id = ?").bind(1, now_ms()).bind(2, out.row).done();
  return out.total == total;
}

// The row may have been expired, and its number even reused, since the
// session was read. Call with the store locked.
bool Sessions::still_open(const Session& s) {
  Stmt st(store_, "SELECT 1 FROM sessions WHERE id = ? AND bucket = ? AND key = ? AND session = ?");
  return st.bind(1, s.row).bind(2, s.bucket).bind(3, s.key).bind(4, s.id).row();
}

// Adjacent and overlapping ranges are kept as one row: a session of tens of
// thousands of chunks keeps a handful of rows, and reading them back after
// every chunk stays cheap. Call with the store locked, in a transaction,
// which must be rolled back on false: the rows merged into the new one are
// already deleted then.
bool Sessions::add_range(int64_t row, ByteSpan span) {
  auto first = static_cast<int64_t>(span.start), last = static_cast<int64_t>(span.end);
  const char* touching = " FROM session_ranges WHERE session = ?1 AND start <= ?3 + 1 AND last + 1 >= ?2";
  {
    Stmt st(store_, (std::string("SELECT count(*), min(start), max(last)") + touching).c_str());
    if (st.bind(1, row).bind(2, first).bind(3, last).row() && st.i64(0) > 0) {
      first = std::min(first, st.i64(1));
      last = std::max(last, st.i64(2));
    }
  }
  return Stmt(store_, (std::string("DELETE") + touching).c_str())
             .bind(1, row)
             .bind(2, first)
             .bind(3, last)
             .done() &&
         Stmt(store_, "INSERT INTO session_ranges(session, start, last) VALUES(?,?,?)")
             .bind(1, row)
             .bind(2, first)
             .bind(3, last)
             .done();
}

void Sessions::commit_group(const std::vector<Pending*>& group) {
  // The chunks' bytes reach the disk before the rows that name them: neither
  // a killed process nor a power cut leaves a range recorded that was not
  // received. One fdatasync covers every write to the file that ended before
  // it began, whichever descriptor made it.
  std::map<int64_t, bool> synced;
  for (Pending* p : group) {
    if (p->fd < 0) continue;
    auto it = synced.find(p->session->row);
    if (it == synced.end()) it = synced.emplace(p->session->row, fdatasync(p->fd) == 0).first;
    p->synced = it->second;
  }
  std::lock_guard<std::mutex> lock(store_.mutex());
  store_.set_durable(true);
  bool began = store_.exec("BEGIN IMMEDIATE"), stored = began;
  try {
    for (Pending* p : group) {
      Session& s = *p->session;
      if (!stored) break;
      if (!p->synced) continue;
      if (!still_open(s)) {
        p->gone = true;
        continue;
      }
      stored = s.total == 0 || add_range(s.row, p->span);
      Stmt(store_, "UPDATE sessions SET touched = ? WHERE id = ?").bind(1, now_ms()).bind(2, s.row).done();
    }
    stored = stored && store_.exec("COMMIT");
  } catch (...) {
    stored = false;  // out of memory half way: nothing of the group counts
  }
  if (!stored) {
    // A chunk is only answered as stored once its row is: the whole group
    // is refused, and the clients send it again.
    if (began) store_.exec("ROLLBACK");
    for (Pending* p : group) p->synced = false;
    return;
  }
  for (Pending* p : group) {
    if (!p->synced || p->gone) continue;
    Session& s = *p->session;
    s.ranges = load_ranges(s.row);
    Stmt st(store_, "SELECT complete FROM sessions WHERE id = ?");
    s.complete = st.bind(1, s.row).row() && st.i64(0) != 0;
  }
}

Sessions::After Sessions::commit(Session& s, ByteSpan span, int fd) {
  Pending p{&s, span, fd};
  {
    std::unique_lock<std::mutex> lock(group_mu_);
    waiting_.push_back(&p);
    while (!p.done) {
      if (committing_) {
        group_cv_.wait(lock);
        continue;
      }
      // No group is in progress: this caller commits everyone waiting.
      committing_ = true;
      std::vector<Pending*> group;
      group.swap(waiting_);
      lock.unlock();
      try {
        commit_group(group);
      } catch (...) {
        // Out of memory before the transaction (nothing stored) or after
        // it (the rows are stored, but the answers cannot be worked out):
        // either way the chunks are refused and sent again, which stores
        // nothing twice.
        for (Pending* q : group) q->synced = false;
      }
      lock.lock();
      committing_ = false;
      for (Pending* q : group) q->done = true;
      group_cv_.notify_all();
    }
  }
  if (!p.synced) return After::kUnsynced;
  if (p.gone) return After::kGone;
  if (s.complete) return After::kComplete;
  if (s.total > 0 && !spans_cover(s.ranges, ByteSpan{0, s.total - 1})) return After::kPartial;
  std::lock_guard<std::mutex> lock(mu_);
  return assembling_.insert(s.row).second ? After::kAssemble : After::kAssembling;
}

void Sessions::done_assembling(int64_t row) {
  std::lock_guard<std::mutex> lock(mu_);
  assembling_.erase(row);
  cv_.notify_all();
}

void Sessions::wait_assembled(int64_t row) {
  std::unique_lock<std::mutex> lock(mu_);
  cv_.wait(lock, [&] { return !assembling_.count(row); });
}

bool Sessions::assemble(const Session& s, ObjectMeta& out) {
  std::string path = store_.session_path(s.row);
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  struct stat st;
  // Never publish an object whose file does not hold every byte it claims.
  bool ok = fd >= 0 && fstat(fd, &st) == 0 && static_cast<uint64_t>(st.st_size) == s.total &&
            fsync(fd) == 0 && hashes_.finish(s, fd, out.sha1);
  if (fd >= 0) close(fd);
  out.blob = random_hex_id();
  // Linking first keeps the session's bytes in place until the object's row
  // is committed; a crash in between is finished by recover().
  ok = ok && link(path.c_str(), store_.blob_path(out.blob).c_str()) == 0;
  if (ok) {
    sync_dir(store_.objects_dir());
    out.bucket = s.bucket;
    out.key = s.key;
    out.size = s.total;
    out.content_type = s.content_type;
    objects_.publish(out, s.row);
    unlink(path.c_str());
  }
  done_assembling(s.row);
  return ok;
}

void Sessions::record_whole(const ObjectMeta& m, const std::string& id) {
  std::lock_guard<std::mutex> lock(store_.mutex());
  store_.set_durable(false);
  Stmt(store_,
       "INSERT OR REPLACE INTO sessions(bucket, key, session, total, content_type, complete)"
       " VALUES(?,?,?,?,?,1)")
      .bind(1, m.bucket)
      .bind(2, m.key)
      .bind(3, id)
      .bind(4, static_cast<int64_t>(m.size))
      .bind(5, m.content_type)
      .done();
}

// Ranges recorded beyond the end of the session's file were lost (written by
// a version that acknowledged chunks before syncing them): they are
// forgotten, so the client's resume sends them again.
void Sessions::clip_to_file(Session& s) {
  struct stat st;
  uint64_t size = stat(store_.session_path(s.row).c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
  std::lock_guard<std::mutex> lock(store_.mutex());
  store_.set_durable(true);
  Stmt del(store_, "DELETE FROM session_ranges WHERE session = ? AND last >= ?");
  if (!del.bind(1, s.row).bind(2, static_cast<int64_t>(size)).done() || sqlite3_changes(store_.db()) == 0)
    return;
  std::fprintf(
      stderr,
      "zel-server: upload session %s of %s/%s: ranges past byte %llu were lost; they must be sent again\n",
      s.id.c_str(), s.bucket.c_str(), s.key.c_str(), static_cast<unsigned long long>(size));
  s.ranges = load_ranges(s.row);
}

void Sessions::recover() {
  std::vector<Session> open_sessions;
  std::set<std::string> keep;
  {
    std::lock_guard<std::mutex> lock(store_.mutex());
    store_.set_durable(true);
    // Sessions from before touch times were kept start their clock now.
    Stmt(store_, "UPDATE sessions SET touched = ? WHERE touched = 0").bind(1, now_ms()).done();
    Stmt st(store_, "SELECT bucket, key, session FROM sessions WHERE complete = 0");
    std::vector<Session> found;
    while (st.row()) found.push_back(Session{0, st.text(0), st.text(1), st.text(2), "", 0, false, {}});
    for (auto& s : found)
      if (read("WHERE bucket = ? AND key = ? AND session = ?", s.bucket, s.key, s.id, s)) {
        open_sessions.push_back(s);
        keep.insert(std::to_string(s.row));
      }
  }
  if (DIR* d = opendir(store_.sessions_dir().c_str())) {
    while (dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name != "." && name != ".." && !keep.count(name))
        unlink((store_.sessions_dir() + "/" + name).c_str());
    }
    closedir(d);
  }
  for (auto& s : open_sessions) {
    clip_to_file(s);
    if (s.total > 0 && !spans_cover(s.ranges, ByteSpan{0, s.total - 1})) continue;
    if (record(s, ByteSpan{0, 0}) != After::kAssemble) continue;
    ObjectMeta m;
    assemble(s, m);
  }
}

// Files are removed with the store locked: no session can take a freed row
// number and its file name meanwhile. Files without a row are left by chunks
// that arrived as their session expired.
void Sessions::expire(int64_t ttl_ms) {
  std::vector<std::string> files;
  if (DIR* d = opendir(store_.sessions_dir().c_str())) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') files.push_back(e->d_name);
    closedir(d);
  }
  std::lock_guard<std::mutex> lock(store_.mutex());
  int64_t before = now_ms() - ttl_ms;
  store_.set_durable(false);
  std::vector<int64_t> dropped;
  {
    Stmt st(store_, "SELECT id FROM sessions WHERE touched < ?");
    st.bind(1, before);
    while (st.row()) dropped.push_back(st.i64(0));
  }
  store_.exec("BEGIN IMMEDIATE");
  Stmt(store_, "DELETE FROM session_ranges WHERE session IN (SELECT id FROM sessions WHERE touched < ?)")
      .bind(1, before)
      .done();
  Stmt(store_, "DELETE FROM sessions WHERE touched < ?").bind(1, before).done();
  store_.exec("COMMIT");
  for (int64_t row : dropped) hashes_.forget(row);
  for (const auto& name : files) {
    Stmt st(store_, "SELECT 1 FROM sessions WHERE id = ?");
    if (!st.bind(1, static_cast<int64_t>(std::atoll(name.c_str()))).row())
      unlink((store_.sessions_dir() + "/" + name).c_str());
  }
}

}  // namespace zelsrv
