#include "ingest.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace zelsrv {
namespace {

const size_t kBlock = 1u << 20;
// Blocks per body: one being received, the others queued or being written.
const size_t kBuffers = 4;
// Direct writes need buffer address, length and file offset aligned to the
// device's logical block; the page size covers every common one.
const size_t kAlign = 4096;

int direct_flag() {
#ifdef O_DIRECT
  return O_DIRECT;
#else
  return 0;
#endif
}

}  // namespace

int open_for_ingest(const std::string& path, int extra) {
  int flags = O_WRONLY | O_CREAT | O_CLOEXEC | extra;
  int fd = direct_flag() ? ::open(path.c_str(), flags | direct_flag(), 0644) : -1;
  // Some file systems (tmpfs among them) refuse direct access.
  if (fd < 0) fd = ::open(path.c_str(), flags, 0644);
  return fd;
}

void BlockWriter::FreeDeleter::operator()(char* p) const { std::free(p); }

BlockWriter::BlockWriter(int fd, uint64_t offset, uint64_t cap, Sha1* sha)
    : fd_(fd), next_offset_(offset), cap_(cap), sha_(sha) {
  void* p = nullptr;
  if (posix_memalign(&p, kAlign, kBlock) == 0) {
    cur_.data.reset(static_cast<char*>(p));
    cur_.offset = offset;
    cur_ok_ = true;
    buffers_ = 1;
  }
  int fl = fcntl(fd_, F_GETFL);
  direct_ = direct_flag() && fl >= 0 && (fl & direct_flag());
}

BlockWriter::~BlockWriter() { stop_helper(); }

void BlockWriter::stop_helper() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    closing_ = true;
  }
  cv_.notify_all();
  if (helper_.joinable()) helper_.join();
}

size_t BlockWriter::room() const { return kBlock - static_cast<size_t>(cur_.offset % kAlign) - cur_.used; }

bool BlockWriter::add(const char* d, size_t n) {
  if (!cur_ok_) return false;
  uint64_t room_left = received_ < cap_ ? cap_ - received_ : 0;
  size_t keep = static_cast<size_t>(std::min<uint64_t>(n, room_left));
  received_ += n;
  while (keep > 0) {
    size_t k = std::min(keep, room());
    std::copy(d, d + k, cur_.data.get() + cur_.used);
    cur_.used += k;
    d += k;
    keep -= k;
    if (room() == 0 && !hand_off()) return false;
  }
  return true;
}

bool BlockWriter::hand_off() {
  uint64_t next = cur_.offset + cur_.used;
  Buffer fresh;
  {
    std::unique_lock<std::mutex> lock(mu_);
    if (failed_) return cur_ok_ = false;
    full_.push_back(std::move(cur_));
    if (!helper_.joinable()) helper_ = std::thread([this] { drain(); });
    cv_.notify_all();
    if (spare_.empty() && buffers_ < kBuffers) {
      void* p = nullptr;
      if (posix_memalign(&p, kAlign, kBlock) == 0) {
        fresh.reset(static_cast<char*>(p));
        ++buffers_;
      }
    }
    if (!fresh) {
      cv_.wait(lock, [&] { return !spare_.empty() || failed_; });
      if (failed_) return cur_ok_ = false;
      fresh = std::move(spare_.back());
      spare_.pop_back();
    }
  }
  cur_ = Block{std::move(fresh), 0, next};
  return true;
}

void BlockWriter::drain() {
  std::unique_lock<std::mutex> lock(mu_);
  for (;;) {
    cv_.wait(lock, [&] { return !full_.empty() || closing_; });
    if (full_.empty()) return;
    Block b = std::move(full_.front());
    full_.pop_front();
    busy_ = true;
    bool skip = failed_;
    lock.unlock();
    bool ok = skip || store(b);
    lock.lock();
    busy_ = false;
    if (!ok) failed_ = true;
    spare_.push_back(std::move(b.data));
    cv_.notify_all();
  }
}

bool BlockWriter::store(const Block& b) {
  if (sha_) sha_->update(b.data.get(), b.used);
  return write_out(b.data.get(), b.used, b.offset);
}

void BlockWriter::go_buffered() {
  int fl = fcntl(fd_, F_GETFL);
  if (fl >= 0) fcntl(fd_, F_SETFL, fl & ~direct_flag());
  direct_ = false;
}

bool BlockWriter::write_out(const char* d, size_t n, uint64_t at) {
  size_t done = 0;
  while (done < n) {
    // Only whole aligned blocks may go direct; the ends of an unaligned
    // range go through the page cache.
    bool aligned = (at + done) % kAlign == 0 && (n - done) % kAlign == 0;
    if (direct_ && !aligned) go_buffered();
    ssize_t w = pwrite(fd_, d + done, n - done, static_cast<off_t>(at + done));
    if (w < 0 && errno == EINTR) continue;
    if (w < 0 && errno == EINVAL && direct_) {
      go_buffered();  // the device wants a coarser alignment
      continue;
    }
    if (w <= 0) return false;
    done += static_cast<size_t>(w);
  }
  return true;
}

bool BlockWriter::flush() {
  if (!cur_ok_) {
    stop_helper();
    return false;
  }
  {
    // The helper's queue empties before the last block is stored here, so
    // the hash sees the bytes in order.
    std::unique_lock<std::mutex> lock(mu_);
    cv_.wait(lock, [&] { return (full_.empty() && !busy_) || failed_; });
  }
  stop_helper();
  if (failed_) return cur_ok_ = false;
  bool ok = cur_.used == 0 || store(cur_);
  cur_.offset += cur_.used;
  cur_.used = 0;
  return cur_ok_ = ok;
}

}  // namespace zelsrv
