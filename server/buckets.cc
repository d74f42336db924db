#include "buckets.h"

#include "util.h"

namespace zelsrv {

bool valid_bucket_key(const std::string& key) {
  if (key.size() < 3 || key.size() > 128) return false;
  for (char c : key)
    if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.')) return false;
  return true;
}

bool valid_policy(const std::string& p) { return p == "transient" || p == "temporary" || p == "persistent"; }

bool valid_access(const std::string& a) { return a == "read" || a == "full"; }

bool Buckets::create(Bucket& bucket) {
  std::lock_guard<std::mutex> lock(store_.mutex());
  store_.set_durable(true);
  store_.exec("BEGIN IMMEDIATE");
  bool ok = Stmt(store_, "INSERT OR IGNORE INTO buckets(key, owner, policy, created) VALUES(?,?,?,?)")
                .bind(1, bucket.key)
                .bind(2, bucket.owner)
                .bind(3, bucket.policy)
                .bind(4, bucket.created)
                .done() &&
            sqlite3_changes(store_.db()) == 1;
  if (ok) put_permissions(bucket.key, bucket.owner, bucket.permissions);
  store_.exec(ok ? "COMMIT" : "ROLLBACK");
  if (ok) load_permissions(bucket);
  return ok;
}

bool Buckets::get(const std::string& key, Bucket& out) {
  std::lock_guard<std::mutex> lock(store_.mutex());
  Stmt st(store_, "SELECT owner, policy, created FROM buckets WHERE key = ?");
  if (!st.bind(1, key).row()) return false;
  out.key = key;
  out.owner = st.text(0);
  out.policy = st.text(1);
  out.created = st.i64(2);
  load_permissions(out);
  return true;
}

Access Buckets::access(const Bucket& bucket, const std::string& principal) {
  if (bucket.owner == principal) return Access::kFull;
  for (const auto& p : bucket.permissions)
    if (p.auth_id == principal) return p.access == "full" ? Access::kFull : Access::kRead;
  return Access::kNone;
}

std::vector<Bucket> Buckets::list(const std::string& principal, const std::string& start_at, size_t limit) {
  std::lock_guard<std::mutex> lock(store_.mutex());
  Stmt st(store_,
          "SELECT key, owner, policy, created FROM buckets WHERE key >= ? AND (owner = ? OR key IN"
          " (SELECT bucket FROM grants WHERE auth_id = ?)) ORDER BY key LIMIT ?");
  st.bind(1, start_at).bind(2, principal).bind(3, principal).bind(4, static_cast<int64_t>(limit));
  std::vector<Bucket> out;
  while (st.row()) {
    Bucket b;
    b.key = st.text(0);
    b.owner = st.text(1);
    b.policy = st.text(2);
    b.created = st.i64(3);
    out.push_back(b);
  }
  return out;
}

void Buckets::grant(const std::string& key, const std::string& owner, const std::vector<Permission>& perms) {
  std::lock_guard<std::mutex> lock(store_.mutex());
  store_.set_durable(true);
  store_.exec("BEGIN IMMEDIATE");
  put_permissions(key, owner, perms);
  store_.exec("COMMIT");
}

void Buckets::revoke(const std::string& key, const std::vector<std::string>& auth_ids) {
  std::lock_guard<std::mutex> lock(store_.mutex());
  store_.set_durable(true);
  store_.exec("BEGIN IMMEDIATE");
  for (const auto& id : auth_ids)
    Stmt(store_, "DELETE FROM grants WHERE bucket = ? AND auth_id = ?").bind(1, key).bind(2, id).done();
  store_.exec("COMMIT");
}

void Buckets::load_permissions(Bucket& bucket) {
  bucket.permissions.clear();
  Stmt st(store_, "SELECT auth_id, access FROM grants WHERE bucket = ? ORDER BY rowid");
  st.bind(1, bucket.key);
  while (st.row()) bucket.permissions.push_back({st.text(0), st.text(1)});
}

void Buckets::put_permissions(const std::string& key, const std::string& owner,
                              const std::vector<Permission>& perms) {
  for (const auto& p : perms) {
    if (p.auth_id == owner) continue;  // the owner always keeps full access
    // An update keeps the entry's place in the list; a new id goes last.
    Stmt(store_,
         "INSERT INTO grants(bucket, auth_id, access) VALUES(?,?,?)"
         " ON CONFLICT(bucket, auth_id) DO UPDATE SET access = excluded.access")
        .bind(1, key)
        .bind(2, p.auth_id)
        .bind(3, p.access)
        .done();
  }
}

}  // namespace zelsrv
