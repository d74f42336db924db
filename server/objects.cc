#include "objects.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <vector>

#include "util.h"

namespace zelsrv {
namespace {

const int64_t kDayMs = 24LL * 3600 * 1000;

bool copy_file(const std::string& from, const std::string& to) {
  int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) return false;
  int out = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  bool ok = out >= 0;
  struct stat st;
  if (ok && fstat(in, &st) == 0) {
    off_t off = 0;
    while (ok && off < st.st_size) ok = sendfile(out, in, &off, static_cast<size_t>(st.st_size - off)) > 0;
    ok = ok && fsync(out) == 0;
  }
  if (out >= 0) close(out);
  close(in);
  if (!ok) unlink(to.c_str());
  return ok;
}

}  // namespace

bool Objects::read_row(const std::string& bucket, const std::string& key, bool deleted, ObjectMeta& out) {
  Stmt st(store_,
          "SELECT blob, size, sha1, content_type, created, modified, accessed FROM objects"
          " WHERE bucket = ? AND key = ? AND deleted = ?");
  if (!st.bind(1, bucket).bind(2, key).bind(3, int64_t(deleted)).row()) return false;
  out.bucket = bucket;
  out.key = key;
  out.blob = st.text(0);
  out.size = static_cast<uint64_t>(st.i64(1));
  out.sha1 = st.text(2);
  out.content_type = st.text(3);
  out.created = st.i64(4);
  out.modified = st.i64(5);
  out.accessed = st.i64(6);
  return true;
}

int64_t Objects::expiry(const std::string& bucket, int64_t from) {
  Stmt st(store_, "SELECT policy FROM buckets WHERE key = ?");
  std::string policy = st.bind(1, bucket).row() ? st.text(0) : "persistent";
  if (policy == "transient") return from + kDayMs;
  if (policy == "temporary") return from + 30 * kDayMs;
  return 0;
}

bool Objects::get(const std::string& bucket, const std::string& key, ObjectMeta& out) {
  std::lock_guard<std::mutex> lock(store_.mutex());
  return read_row(bucket, key, false, out);
}

int Objects::open_live(const std::string& bucket, const std::string& key, ObjectMeta& out) {
  std::lock_guard<std::mutex> lock(store_.mutex());
  if (!read_row(bucket, key, false, out)) return -1;
  int fd = open(store_.blob_path(out.blob).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  out.accessed = now_ms();
  // The access time is informative: losing it in a crash is harmless.
  store_.set_durable(false);
  Stmt(store_, "UPDATE objects SET accessed = ? WHERE bucket = ? AND key = ?")
      .bind(1, out.accessed)
      .bind(2, bucket)
      .bind(3, key)
      .done();
  return fd;
}

void Objects::publish(ObjectMeta& m, int64_t session_row) {
  std::lock_guard<std::mutex> lock(store_.mutex());
  std::string old_blob;
  m.modified = m.accessed = now_ms();
  m.created = m.modified;
  {
    Stmt old(store_, "SELECT blob, created, deleted FROM objects WHERE bucket = ? AND key = ?");
    if (old.bind(1, m.bucket).bind(2, m.key).row()) {
      old_blob = old.text(0);
      if (old.i64(2) == 0) m.created = old.i64(1);  // a replaced live object keeps its birth date
    }
  }
  store_.set_durable(true);
  store_.exec("BEGIN IMMEDIATE");
  Stmt(store_,
       "INSERT OR REPLACE INTO objects(bucket, key, blob, size, sha1, content_type, created, modified,"
       " accessed, expires, deleted) VALUES(?,?,?,?,?,?,?,?,?,?,0)")
      .bind(1, m.bucket)
      .bind(2, m.key)
      .bind(3, m.blob)
      .bind(4, static_cast<int64_t>(m.size))
      .bind(5, m.sha1)
      .bind(6, m.content_type)
      .bind(7, m.created)
      .bind(8, m.modified)
      .bind(9, m.accessed)
      .bind(10, expiry(m.bucket, m.modified))
      .done();
  if (session_row) Stmt(store_, "UPDATE sessions SET complete = 1 WHERE id = ?").bind(1, session_row).done();
  store_.exec("COMMIT");
  if (!old_blob.empty() && old_blob != m.blob) unlink(store_.blob_path(old_blob).c_str());
}

bool Objects::remove(const std::string& bucket, const std::string& key) {
  std::lock_guard<std::mutex> lock(store_.mutex());
  store_.set_durable(true);
  Stmt(store_, "UPDATE objects SET deleted = 1, modified = ? WHERE bucket = ? AND key = ? AND deleted = 0")
      .bind(1, now_ms())
      .bind(2, bucket)
      .bind(3, key)
      .done();
  return sqlite3_changes(store_.db()) == 1;
}

bool Objects::undelete(const std::string& bucket, const std::string& key) {
  std::lock_guard<std::mutex> lock(store_.mutex());
  store_.set_durable(true);
  Stmt(store_, "UPDATE objects SET deleted = 0, modified = ? WHERE bucket = ? AND key = ? AND deleted = 1")
      .bind(1, now_ms())
      .bind(2, bucket)
      .bind(3, key)
      .done();
  return sqlite3_changes(store_.db()) == 1;
}

bool Objects::clone_blob(const std::string& from, const std::string& to) {
  // A hard link shares the bytes; object files are never written in place.
  if (link(store_.blob_path(from).c_str(), store_.blob_path(to).c_str()) == 0) return true;
  return copy_file(store_.blob_path(from), store_.blob_path(to));
}

bool Objects::copy(const std::string& bucket, const std::string& src, const std::string& dst,
                   ObjectMeta& out) {
  {
    std::lock_guard<std::mutex> lock(store_.mutex());
    if (!read_row(bucket, src, false, out)) return false;
    std::string blob = random_hex_id();
    if (!clone_blob(out.blob, blob)) return false;
    out.blob = blob;
  }
  sync_dir(store_.objects_dir());
  out.key = dst;
  publish(out);
  return true;
}

bool Objects::reset_expiration(const std::string& bucket, const std::string& key, ObjectMeta& out) {
  std::lock_guard<std::mutex> lock(store_.mutex());
  if (!read_row(bucket, key, false, out)) return false;
  store_.set_durable(true);
  Stmt(store_, "UPDATE objects SET expires = ? WHERE bucket = ? AND key = ? AND deleted = 0")
      .bind(1, expiry(bucket, now_ms()))
      .bind(2, bucket)
      .bind(3, key)
      .done();
  return true;
}

void Objects::remove_orphans() {
  std::set<std::string> known;
  {
    std::lock_guard<std::mutex> lock(store_.mutex());
    Stmt st(store_, "SELECT blob FROM objects");
    while (st.row()) known.insert(st.text(0));
  }
  if (DIR* d = opendir(store_.objects_dir().c_str())) {
    while (dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name != "." && name != ".." && !known.count(name)) unlink(store_.blob_path(name).c_str());
    }
    closedir(d);
  }
  remove_tree(store_.tmp_dir());
  make_dirs(store_.tmp_dir());
}

void Objects::check_files() {
  struct Found {
    std::string bucket, key, blob;
    int64_t size;
  };
  std::vector<Found> all;
  {
    std::lock_guard<std::mutex> lock(store_.mutex());
    Stmt st(store_, "SELECT bucket, key, blob, size FROM objects");
    while (st.row()) all.push_back(Found{st.text(0), st.text(1), st.text(2), st.i64(3)});
  }
  for (const auto& f : all) {
    struct stat st;
    int64_t on_disk =
        stat(store_.blob_path(f.blob).c_str(), &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
    if (on_disk == f.size) continue;
    std::string kept = store_.damaged_dir() + "/" + f.blob;
    bool moved = on_disk >= 0 && make_dirs(store_.damaged_dir()) &&
                 rename(store_.blob_path(f.blob).c_str(), kept.c_str()) == 0;
    std::fprintf(stderr, "zel-server: object %s/%s has %lld of its %lld bytes on disk; withdrawn%s%s\n",
                 f.bucket.c_str(), f.key.c_str(), static_cast<long long>(std::max<int64_t>(on_disk, 0)),
                 static_cast<long long>(f.size), moved ? ", its file kept as " : "",
                 moved ? kept.c_str() : "");
    std::lock_guard<std::mutex> lock(store_.mutex());
    store_.set_durable(true);
    Stmt(store_, "DELETE FROM objects WHERE bucket = ? AND key = ? AND blob = ?")
        .bind(1, f.bucket)
        .bind(2, f.key)
        .bind(3, f.blob)
        .done();
  }
}

}  // namespace zelsrv
