// Stored objects: metadata rows and their files. A deleted object keeps its
// file until something replaces it, so that it can be restored.
#pragma once

#include <cstdint>
#include <string>

#include "store.h"

namespace zelsrv {

struct ObjectMeta {
  std::string bucket;
  std::string key;
  std::string blob;  // file name under the objects directory
  std::string sha1;
  std::string content_type;
  uint64_t size = 0;
  int64_t created = 0;
  int64_t modified = 0;
  int64_t accessed = 0;
};

class Objects {
 public:
  explicit Objects(Store& store) : store_(store) {}

  bool get(const std::string& bucket, const std::string& key, ObjectMeta& out);
  // Opens the live object's file with the store locked, so that a concurrent
  // replace cannot unlink it in between; -1 when there is no such object.
  int open_live(const std::string& bucket, const std::string& key, ObjectMeta& out);
  // Makes `m`, whose file is already durable in the objects directory, the
  // object at its key; `session_row`, when not 0, is marked complete in the
  // same transaction.
  void publish(ObjectMeta& m, int64_t session_row = 0);
  bool remove(const std::string& bucket, const std::string& key);
  bool undelete(const std::string& bucket, const std::string& key);
  // False when there is no live source object.
  bool copy(const std::string& bucket, const std::string& src, const std::string& dst, ObjectMeta& out);
  bool reset_expiration(const std::string& bucket, const std::string& key, ObjectMeta& out);
  // Removes files that no row names: leftovers of uploads cut short.
  void remove_orphans();
  // At start: an object whose file is missing or not of its recorded size is
  // withdrawn (its row removed, so it answers 404) and its file moved to the
  // damaged directory; each is logged.
  void check_files();

 private:
  bool read_row(const std::string& bucket, const std::string& key, bool deleted, ObjectMeta& out);
  int64_t expiry(const std::string& bucket, int64_t from);
  bool clone_blob(const std::string& from, const std::string& to);

  Store& store_;
};

}  // namespace zelsrv
