// The emulator's state on disk: SQLite metadata (meta.db) beside the object
// files, which are named by random ids and never by anything a client sent.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <mutex>
#include <string>

namespace zelsrv {

class Store {
 public:
  ~Store();
  bool open(const std::string& root, std::string& err);

  // Every statement runs with this held; file I/O happens outside it.
  std::mutex& mutex() { return mu_; }
  sqlite3* db() { return db_; }

  // Durable commits reach the disk before they return; the others survive a
  // killed process (the operating system keeps what was written) but not a
  // power loss. Call with the mutex held.
  void set_durable(bool durable);
  bool exec(const char* sql);

  std::string blob_path(const std::string& blob) const { return root_ + "/objects/" + blob; }
  std::string session_path(int64_t id) const { return root_ + "/sessions/" + std::to_string(id); }
  std::string objects_dir() const { return root_ + "/objects"; }
  std::string sessions_dir() const { return root_ + "/sessions"; }
  std::string tmp_dir() const { return root_ + "/tmp"; }
  // Files of objects found damaged at start, kept for inspection.
  std::string damaged_dir() const { return root_ + "/damaged"; }

 private:
  std::mutex mu_;
  sqlite3* db_ = nullptr;
  std::string root_;
  int durable_ = -1;
};

// One prepared statement; binds are 1-based like SQLite's, columns 0-based.
class Stmt {
 public:
  Stmt(Store& store, const char* sql);
  ~Stmt();
  Stmt(const Stmt&) = delete;
  Stmt& operator=(const Stmt&) = delete;

  Stmt& bind(int i, const std::string& v);
  Stmt& bind(int i, int64_t v);
  bool row();   // true while a row is available
  bool done();  // runs a statement that returns no rows; true on success
  std::string text(int col);
  int64_t i64(int col);

 private:
  sqlite3_stmt* st_ = nullptr;
};

}  // namespace zelsrv
