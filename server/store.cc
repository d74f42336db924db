#include "store.h"

#include <cstdio>

#include "util.h"

namespace zelsrv {
namespace {

const char kSchema[] =
    "CREATE TABLE IF NOT EXISTS buckets(key TEXT PRIMARY KEY, owner TEXT NOT NULL,"
    " policy TEXT NOT NULL, created INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS grants(bucket TEXT NOT NULL, auth_id TEXT NOT NULL,"
    " access TEXT NOT NULL, UNIQUE(bucket, auth_id));"
    "CREATE TABLE IF NOT EXISTS objects(bucket TEXT NOT NULL, key TEXT NOT NULL,"
    " blob TEXT NOT NULL, size INTEGER NOT NULL, sha1 TEXT NOT NULL,"
    " content_type TEXT NOT NULL, created INTEGER NOT NULL, modified INTEGER NOT NULL,"
    " accessed INTEGER NOT NULL, expires INTEGER NOT NULL, deleted INTEGER NOT NULL,"
    " PRIMARY KEY(bucket, key));"
    "CREATE TABLE IF NOT EXISTS sessions(id INTEGER PRIMARY KEY, bucket TEXT NOT NULL,"
    " key TEXT NOT NULL, session TEXT NOT NULL, total INTEGER NOT NULL,"
    " content_type TEXT NOT NULL, complete INTEGER NOT NULL, touched INTEGER NOT NULL DEFAULT 0,"
    " UNIQUE(bucket, key, session));"
    "CREATE TABLE IF NOT EXISTS session_ranges(session INTEGER NOT NULL,"
    " start INTEGER NOT NULL, last INTEGER NOT NULL, PRIMARY KEY(session, start));";

// Adds a column that older data directories lack. Call with the mutex held.
bool add_column(Store& store, const char* table, const char* column, const char* decl) {
  std::string probe = std::string("SELECT ") + column + " FROM " + table + " LIMIT 0";
  sqlite3_stmt* st = nullptr;
  bool present = sqlite3_prepare_v2(store.db(), probe.c_str(), -1, &st, nullptr) == SQLITE_OK;
  sqlite3_finalize(st);
  if (present) return true;
  std::string sql = std::string("ALTER TABLE ") + table + " ADD COLUMN " + column + " " + decl;
  return store.exec(sql.c_str());
}

}  // namespace

Store::~Store() {
  if (db_) sqlite3_close(db_);
}

bool Store::open(const std::string& root, std::string& err) {
  root_ = root;
  if (!make_dirs(objects_dir()) || !make_dirs(sessions_dir()) || !make_dirs(tmp_dir())) {
    err = "cannot create the data directory " + root;
    return false;
  }
  std::string path = root + "/meta.db";
  if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                      nullptr) != SQLITE_OK) {
    err = "cannot open " + path + ": " + (db_ ? sqlite3_errmsg(db_) : "out of memory");
    return false;
  }
  sqlite3_busy_timeout(db_, 5000);
  std::lock_guard<std::mutex> lock(mu_);
  if (!exec("PRAGMA journal_mode=WAL") || !exec(kSchema) ||
      !add_column(*this, "sessions", "touched", "INTEGER NOT NULL DEFAULT 0")) {
    err = std::string("cannot prepare the metadata: ") + sqlite3_errmsg(db_);
    return false;
  }
  set_durable(true);
  return true;
}

void Store::set_durable(bool durable) {
  if (durable_ == static_cast<int>(durable)) return;
  exec(durable ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL");
  durable_ = durable;
}

bool Store::exec(const char* sql) {
  char* msg = nullptr;
  int rc = sqlite3_exec(db_, sql, nullptr, nullptr, &msg);
  if (rc != SQLITE_OK) {
    std::fprintf(stderr, "zel-server: sqlite: %s\n", msg ? msg : "error");
    sqlite3_free(msg);
    return false;
  }
  return true;
}

Stmt::Stmt(Store& store, const char* sql) {
  if (sqlite3_prepare_v2(store.db(), sql, -1, &st_, nullptr) != SQLITE_OK) {
    std::fprintf(stderr, "zel-server: sqlite: %s\n", sqlite3_errmsg(store.db()));
    st_ = nullptr;
  }
}

Stmt::~Stmt() { sqlite3_finalize(st_); }

Stmt& Stmt::bind(int i, const std::string& v) {
  if (st_) sqlite3_bind_text(st_, i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
  return *this;
}

Stmt& Stmt::bind(int i, int64_t v) {
  if (st_) sqlite3_bind_int64(st_, i, v);
  return *this;
}

bool Stmt::row() { return st_ && sqlite3_step(st_) == SQLITE_ROW; }

bool Stmt::done() {
  if (!st_) return false;
  int rc = sqlite3_step(st_);
  return rc == SQLITE_DONE || rc == SQLITE_ROW;
}

std::string Stmt::text(int col) {
  const unsigned char* p = sqlite3_column_text(st_, col);
  return p ? std::string(reinterpret_cast<const char*>(p), sqlite3_column_bytes(st_, col)) : std::string();
}

int64_t Stmt::i64(int col) { return sqlite3_column_int64(st_, col); }

}  // namespace zelsrv
