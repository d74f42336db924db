// SHA-1 of a resumable session's bytes, computed while the chunks arrive:
// whenever the run of bytes held from offset 0 grows, a helper thread hashes
// the new part from the session's file, so that the request completing the
// session only hashes what the helper has not reached. No chunk's answer
// waits for the hashing: a request that hashed the bytes others brought
// would keep its client's connection busy for the whole upload. The state
// lives in memory; after a restart, or when a chunk rewrote bytes already
// hashed, the hash starts again from offset 0.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "digest.h"
#include "util.h"

namespace zelsrv {

struct Session;

class SessionHashes {
 public:
  SessionHashes() = default;
  ~SessionHashes();
  SessionHashes(const SessionHashes&) = delete;
  SessionHashes& operator=(const SessionHashes&) = delete;

  // Has the helper hash the session's file (at `path`) up to the end of the
  // bytes held from offset 0, from where its hash stands; returns at once.
  void advance(const Session& s, const std::string& path);
  // Call after writing `span` into the session's file and before recording
  // it: a hash that may have read those bytes before the write is dropped.
  void written(const Session& s, ByteSpan span);
  // The SHA-1 of the first s.total bytes of `fd`, reusing the bytes hashed
  // so far; forgets the session. False on a read error.
  bool finish(const Session& s, int fd, std::string& hex);
  void forget(int64_t row);

 private:
  struct State {
    std::string owner;  // bucket, key and session id: rows are reused
    std::unique_ptr<Sha1> sha{new Sha1};
    uint64_t done = 0;     // bytes hashed
    uint64_t target = 0;   // bytes known held from offset 0
    uint64_t claimed = 0;  // bytes a hashing request may have read
    std::string path;
    bool busy = false;
    bool queued = false;
    bool stale = false;  // a write hit bytes being hashed
    bool gone = false;   // finished or forgotten: the helper leaves it
  };
  // The session's state, with mu_ held. A request hashing keeps its own
  // reference: a state dropped or replaced meanwhile (its session expired
  // and the row was reused) is then no one else's.
  std::shared_ptr<State> state(const Session& s);
  static void restart(State& st);
  void helper();
  void hash_state(std::unique_lock<std::mutex>& lock, const std::shared_ptr<State>& st);

  std::mutex mu_;
  std::condition_variable cv_;
  std::map<int64_t, std::shared_ptr<State>> states_;
  std::deque<std::shared_ptr<State>> work_;  // for the helper, each once
  bool stopping_ = false;
  std::thread helper_;  // started by the first advance
};

}  // namespace zelsrv
