#include "delta_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zel/diff.h>

#include <cstdlib>

#include "digest.h"
#include "util.h"

namespace zelsrv {
namespace {

const char kSchema[] =
    "CREATE TABLE IF NOT EXISTS delta_kept(name TEXT PRIMARY KEY, size INTEGER NOT NULL,"
    " sha1 TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS delta_pending(bucket TEXT NOT NULL, key TEXT NOT NULL,"
    " blob TEXT NOT NULL, base_sha1 TEXT NOT NULL, new_sha1 TEXT NOT NULL,"
    " process_type INTEGER NOT NULL, version INTEGER NOT NULL, PRIMARY KEY(bucket, key));";

// Takes the delta library's message, if any.
std::string take_message(char*& msg, const char* fallback) {
  std::string out = msg ? msg : fallback;
  free_err_msg(&msg);
  return out;
}

bool hash_file(const std::string& path, uint64_t& size, std::string& sha1) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st;
  bool ok = fstat(fd, &st) == 0 && sha1_file(fd, sha1);
  size = ok ? static_cast<uint64_t>(st.st_size) : 0;
  close(fd);
  return ok;
}

bool fsync_path(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = fsync(fd) == 0;
  close(fd);
  return ok;
}

}  // namespace

std::u16string wide_path(const std::string& utf8) {
  std::u16string out;
  for (size_t i = 0; i < utf8.size();) {
    unsigned char c = static_cast<unsigned char>(utf8[i]);
    int extra = c < 0x80 ? 0 : c < 0xE0 ? 1 : c < 0xF0 ? 2 : 3;
    uint32_t cp = extra == 0 ? c : c & (0x3F >> extra);
    for (int k = 1; k <= extra && i + k < utf8.size(); ++k) cp = (cp << 6) | (utf8[i + k] & 0x3F);
    i += static_cast<size_t>(extra) + 1;
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out += static_cast<char16_t>(0xD800 + (cp >> 10));
      out += static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
    } else {
      out += static_cast<char16_t>(cp);
    }
  }
  return out;
}

bool DeltaStore::open(std::string& err) {
  if (!make_dirs(dir())) {
    err = "cannot create " + dir();
    return false;
  }
  std::lock_guard<std::mutex> lock(store_.mutex());
  if (!store_.exec(kSchema)) {
    err = std::string("cannot prepare the delta tables: ") + sqlite3_errmsg(store_.db());
    return false;
  }
  return true;
}

std::string DeltaStore::scratch_path(const std::string& tag) const {
  return store_.tmp_dir() + "/" + tag + "-" + random_hex_id();
}

bool DeltaStore::kept(const std::string& name, KeptFile& out) {
  {
    std::lock_guard<std::mutex> lock(store_.mutex());
    Stmt st(store_, "SELECT size, sha1 FROM delta_kept WHERE name = ?");
    if (!st.bind(1, name).row()) return false;
    out.size = static_cast<uint64_t>(st.i64(0));
    out.sha1 = st.text(1);
  }
  out.path = dir() + "/" + name;
  return access(out.path.c_str(), R_OK) == 0;
}

// The file is renamed in before its row is written: a row always names a
// complete file, and a file without a row is simply made again.
bool DeltaStore::keep(const std::string& name, const std::string& made, KeptFile& out, std::string& why) {
  out.path = dir() + "/" + name;
  if (!hash_file(made, out.size, out.sha1) || !fsync_path(made) ||
      rename(made.c_str(), out.path.c_str()) != 0) {
    unlink(made.c_str());
    why = "Cannot keep the delta file";
    return false;
  }
  sync_dir(dir());
  std::lock_guard<std::mutex> lock(store_.mutex());
  store_.set_durable(true);
  Stmt(store_, "INSERT OR REPLACE INTO delta_kept(name, size, sha1) VALUES(?,?,?)")
      .bind(1, name)
      .bind(2, static_cast<int64_t>(out.size))
      .bind(3, out.sha1)
      .done();
  return true;
}

bool DeltaStore::signature(const std::string& sha1, const std::string& source, uint32_t block, KeptFile& out,
                           std::string& why) {
  std::string name = "sig-" + sha1 + "-" + std::to_string(block);
  if (kept(name, out)) return true;
  std::string made = scratch_path("sig");
  char* msg = nullptr;
  int32_t rc = diff_create_signature(wide_path(source).c_str(), wide_path(made).c_str(),
                                     wide_path(store_.tmp_dir()).c_str(), block, 1, 0, &msg);
  if (rc < 0) {
    why = "Cannot make the signature: " + take_message(msg, "no reason given");
    unlink(made.c_str());
    return false;
  }
  take_message(msg, "");
  return keep(name, made, out, why);
}

bool DeltaStore::find_patch(const std::string& orig_sha1, const std::string& dest_sha1, KeptFile& out) {
  return kept("patch-" + orig_sha1 + "-" + dest_sha1, out);
}

bool DeltaStore::keep_patch(const std::string& orig_sha1, const std::string& dest_sha1,
                            const std::string& made, KeptFile& out, std::string& why) {
  return keep("patch-" + orig_sha1 + "-" + dest_sha1, made, out, why);
}

void DeltaStore::mark_pending(const ObjectMeta& m, const PendingPatch& p) {
  std::lock_guard<std::mutex> lock(store_.mutex());
  store_.set_durable(true);
  Stmt(store_,
       "INSERT OR REPLACE INTO delta_pending(bucket, key, blob, base_sha1, new_sha1, process_type, version)"
       " VALUES(?,?,?,?,?,?,?)")
      .bind(1, m.bucket)
      .bind(2, m.key)
      .bind(3, m.blob)
      .bind(4, p.base_sha1)
      .bind(5, p.new_sha1)
      .bind(6, int64_t(p.process_type))
      .bind(7, int64_t(p.version))
      .done();
}

bool DeltaStore::pending(const std::string& bucket, const std::string& key, PendingPatch& out) {
  std::lock_guard<std::mutex> lock(store_.mutex());
  Stmt st(
      store_,
      "SELECT p.blob, p.base_sha1, p.new_sha1, p.process_type, p.version FROM delta_pending p JOIN objects o"
      " ON o.bucket = p.bucket AND o.key = p.key AND o.blob = p.blob AND o.deleted = 0"
      " WHERE p.bucket = ? AND p.key = ?");
  if (!st.bind(1, bucket).bind(2, key).row()) return false;
  out.blob = st.text(0);
  out.base_sha1 = st.text(1);
  out.new_sha1 = st.text(2);
  out.process_type = static_cast<int>(st.i64(3));
  out.version = static_cast<int>(st.i64(4));
  return true;
}

bool DeltaStore::still_holds(const std::string& bucket, const std::string& key, const std::string& blob,
                             ObjectMeta& out) {
  Stmt row(
      store_,
      "SELECT content_type, created FROM objects WHERE bucket = ? AND key = ? AND blob = ? AND deleted = 0");
  if (!row.bind(1, bucket).bind(2, key).bind(3, blob).row()) return false;
  out.content_type = row.text(0);
  out.created = row.i64(1);
  return true;
}

bool DeltaStore::publish_applied(const std::string& bucket, const std::string& key,
                                 const std::string& patch_blob, const std::string& made,
                                 const std::string& sha1, uint64_t size, ObjectMeta& out,
                                 const std::function<void(const ObjectMeta&)>& also) {
  out.blob = random_hex_id();
  if (!fsync_path(made) || rename(made.c_str(), store_.blob_path(out.blob).c_str()) != 0) return false;
  sync_dir(store_.objects_dir());
  std::lock_guard<std::mutex> lock(store_.mutex());
  if (!still_holds(bucket, key, patch_blob, out)) {
    unlink(store_.blob_path(out.blob).c_str());
    return false;
  }
  out.bucket = bucket;
  out.key = key;
  out.sha1 = sha1;
  out.size = size;
  out.modified = out.accessed = now_ms();
  store_.set_durable(true);
  store_.exec("BEGIN IMMEDIATE");
  Stmt(store_,
       "UPDATE objects SET blob = ?, size = ?, sha1 = ?, modified = ?, accessed = ?"
       " WHERE bucket = ? AND key = ?")
      .bind(1, out.blob)
      .bind(2, static_cast<int64_t>(size))
      .bind(3, sha1)
      .bind(4, out.modified)
      .bind(5, out.accessed)
      .bind(6, bucket)
      .bind(7, key)
      .done();
  Stmt(store_, "DELETE FROM delta_pending WHERE bucket = ? AND key = ?").bind(1, bucket).bind(2, key).done();
  also(out);
  store_.exec("COMMIT");
  unlink(store_.blob_path(patch_blob).c_str());
  return true;
}

}  // namespace zelsrv
