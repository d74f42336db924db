// Resumable upload sessions. Chunks land in one sparse file per session and
// the ranges held are recorded as they complete; the request that supplies
// the last missing byte assembles and publishes the object.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "objects.h"
#include "session_hash.h"
#include "store.h"
#include "util.h"

namespace zelsrv {

struct Session {
  int64_t row = 0;
  std::string bucket;
  std::string key;
  std::string id;
  std::string content_type;
  uint64_t total = 0;
  bool complete = false;
  std::vector<ByteSpan> ranges;  // merged, ascending
};

bool spans_cover(const std::vector<ByteSpan>& ranges, ByteSpan span);

class Sessions {
 public:
  Sessions(Store& store, Objects& objects) : store_(store), objects_(objects) {}

  // Finds the session or starts it; false when it exists with another total.
  bool open(const std::string& bucket, const std::string& key, const std::string& id, uint64_t total,
            const std::string& content_type, Session& out);
  bool find(const std::string& bucket, const std::string& key, const std::string& id, Session& out);

  enum class After { kPartial, kAssemble, kAssembling, kComplete, kGone, kUnsynced };
  // Makes a received span durable and records it, then says what the caller
  // does next: kAssemble goes to exactly one request per session; kGone
  // means the session expired meanwhile; kUnsynced, that the session's file
  // could not be synced and nothing was recorded. `fd` is the session's file
  // the span was written through, -1 when no bytes were written.
  //
  // Syncing and committing cost the same for one chunk as for many, so the
  // spans that arrive while one group is being synced and committed wait
  // and go together in the next: one fdatasync per session file, then one
  // transaction. Every caller returns only once its own span is committed.
  After commit(Session& s, ByteSpan span, int fd);
  After record(Session& s, ByteSpan span) { return commit(s, span, -1); }
  // Hashes the bytes the session now holds from offset 0 (see SessionHashes).
  void advance_hash(const Session& s) { hashes_.advance(s, store_.session_path(s.row)); }
  // Call once a chunk's bytes are in the session's file, before record().
  void chunk_written(const Session& s, ByteSpan span) { hashes_.written(s, span); }
  // Makes the object of a session that holds every byte; fills `out`.
  bool assemble(const Session& s, ObjectMeta& out);
  // Blocks while another request assembles the session.
  void wait_assembled(int64_t row);
  // Remembers a whole-object upload under its session id, so that the
  // session's status reads complete.
  void record_whole(const ObjectMeta& m, const std::string& id);
  // After a restart: forgets ranges beyond the end of a session's file,
  // finishes sessions that got every byte, drops leftovers.
  void recover();
  // Drops the sessions not touched (opened or sent a chunk) in `ttl_ms`,
  // with their files.
  void expire(int64_t ttl_ms);

 private:
  bool read(const char* where, const std::string& a, const std::string& b, const std::string& c,
            Session& out);
  struct Pending {
    Session* session;
    ByteSpan span;
    int fd;
    bool synced = true;
    bool gone = false;
    bool done = false;
  };
  void commit_group(const std::vector<Pending*>& group);
  bool add_range(int64_t row, ByteSpan span);
  std::vector<ByteSpan> load_ranges(int64_t row);
  void done_assembling(int64_t row);
  bool still_open(const Session& s);
  void clip_to_file(Session& s);

  Store& store_;
  Objects& objects_;
  std::mutex mu_;
  std::condition_variable cv_;
  std::set<int64_t> assembling_;
  std::mutex group_mu_;  // never held with store_.mutex() or mu_
  std::condition_variable group_cv_;
  std::vector<Pending*> waiting_;  // for the next group
  bool committing_ = false;        // a caller is syncing and committing a group
  SessionHashes hashes_;
};

}  // namespace zelsrv
