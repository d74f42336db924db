#include "session_hash.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "sessions.h"

namespace zelsrv {
namespace {

#ifdef O_DIRECT
const int kDirect = O_DIRECT;
#else
const int kDirect = 0;
#endif

const size_t kAlign = 4096;
const size_t kPiece = 1u << 20;
const uint64_t kStep = 64u << 20;

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};

// Reads [from, to) of the file into the hash. Reading around the page cache
// (the chunks were written around it too) needs aligned offsets: a piece
// starts at the aligned offset below and its first bytes are skipped.
bool hash_range(int fd, Sha1& sha, uint64_t from, uint64_t to) {
  void* p = nullptr;
  if (posix_memalign(&p, kAlign, kPiece) != 0) return false;
  std::unique_ptr<char, FreeDeleter> buf(static_cast<char*>(p));
  while (from < to) {
    uint64_t base = from - from % kAlign;
    size_t skip = static_cast<size_t>(from - base);
    ssize_t n = pread(fd, buf.get(), kPiece, static_cast<off_t>(base));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EINVAL && (fcntl(fd, F_GETFL) & kDirect)) {
      fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~kDirect);  // cannot read direct here
      continue;
    }
    if (n <= static_cast<ssize_t>(skip)) return false;
    size_t use = static_cast<size_t>(std::min<uint64_t>(static_cast<uint64_t>(n) - skip, to - from));
    sha.update(buf.get() + skip, use);
    from += use;
  }
  return true;
}

int open_to_hash(const std::string& path) {
  int fd = kDirect ? ::open(path.c_str(), O_RDONLY | O_CLOEXEC | kDirect) : -1;
  return fd >= 0 ? fd : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
}

std::string owner_of(const Session& s) { return s.bucket + '\n' + s.key + '\n' + s.id; }

}  // namespace

std::shared_ptr<SessionHashes::State> SessionHashes::state(const Session& s) {
  std::shared_ptr<State>& st = states_[s.row];
  std::string owner = owner_of(s);
  if (!st || st->owner != owner) {
    st = std::make_shared<State>();
    st->owner = owner;
  }
  return st;
}

void SessionHashes::restart(State& st) {
  st.sha.reset(new Sha1);
  st.done = st.claimed = 0;
  st.stale = false;
}

SessionHashes::~SessionHashes() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    stopping_ = true;
  }
  cv_.notify_all();
  if (helper_.joinable()) helper_.join();
}

void SessionHashes::advance(const Session& s, const std::string& path) {
  uint64_t held = !s.ranges.empty() && s.ranges[0].start == 0 ? s.ranges[0].end + 1 : 0;
  std::lock_guard<std::mutex> lock(mu_);
  std::shared_ptr<State> st = state(s);
  if (held > st->target) st->target = held;
  if (st->queued || st->busy || st->done >= st->target) return;  // a busy helper sees the new target
  st->path = path;
  st->queued = true;
  work_.push_back(st);
  if (!helper_.joinable()) helper_ = std::thread([this] { helper(); });
  cv_.notify_all();
}

void SessionHashes::helper() {
  std::unique_lock<std::mutex> lock(mu_);
  for (;;) {
    cv_.wait(lock, [&] { return stopping_ || !work_.empty(); });
    if (stopping_) return;
    std::shared_ptr<State> st = work_.front();
    work_.pop_front();
    st->queued = false;
    if (!st->gone) hash_state(lock, st);
  }
}

// Hashes while the state's target runs ahead of it; the lock is released
// around the reading. A state that finish() takes meanwhile waits for this.
void SessionHashes::hash_state(std::unique_lock<std::mutex>& lock, const std::shared_ptr<State>& st) {
  st->busy = true;
  std::string path = st->path;
  int fd = -1;
  bool ok = true;
  while (ok && !st->gone && !stopping_ && st->done < st->target) {
    // A bounded step at a time, so that a stop or a finish is not kept
    // waiting for a whole large file.
    uint64_t from = st->done, to = std::min(st->target, from + kStep);
    if (to > st->claimed) st->claimed = to;
    Sha1* sha = st->sha.get();  // replaced only by the helper while busy
    lock.unlock();
    if (fd < 0) fd = open_to_hash(path);
    ok = fd >= 0 && hash_range(fd, *sha, from, to);
    lock.lock();
    if (st->stale || !ok) {
      restart(*st);
    } else {
      st->done = to;
    }
  }
  st->busy = false;
  cv_.notify_all();
  lock.unlock();
  if (fd >= 0) close(fd);
  lock.lock();
}

void SessionHashes::written(const Session& s, ByteSpan span) {
  std::lock_guard<std::mutex> lock(mu_);
  std::shared_ptr<State> st = state(s);
  if (span.start >= st->claimed) return;
  if (st->busy) {
    st->stale = true;
  } else {
    restart(*st);
  }
}

bool SessionHashes::finish(const Session& s, int fd, std::string& hex) {
  std::shared_ptr<State> st;
  {
    std::unique_lock<std::mutex> lock(mu_);
    st = state(s);
    cv_.wait(lock, [&] { return !st->busy; });
    st->gone = true;
    auto it = states_.find(s.row);
    if (it != states_.end() && it->second == st) states_.erase(it);
  }
  if (!hash_range(fd, *st->sha, st->done, s.total)) return false;
  hex = st->sha->hex();
  return true;
}

void SessionHashes::forget(int64_t row) {
  std::lock_guard<std::mutex> lock(mu_);
  auto it = states_.find(row);
  if (it == states_.end()) return;
  it->second->gone = true;
  states_.erase(it);
}

}  // namespace zelsrv
