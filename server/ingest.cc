#include "ingest.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace zelsrv {
namespace {

const size_t kBlock = 1u << 20;
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

int open_for_ingest(const std::string &path, int extra) {
  int flags = O_WRONLY | O_CREAT | O_CLOEXEC | extra;
  int fd = direct_flag() ? ::open(path.c_str(), flags | direct_flag(), 0644) : -1;
  // Some file systems (tmpfs among them) refuse direct access.
  if (fd < 0) fd = ::open(path.c_str(), flags, 0644);
  return fd;
}

void BlockWriter::FreeDeleter::operator()(char *p) const { std::free(p); }

BlockWriter::BlockWriter(int fd, uint64_t offset, uint64_t cap, Sha1 *sha)
    : fd_(fd), offset_(offset), cap_(cap), sha_(sha) {
  void *p = nullptr;
  if (posix_memalign(&p, kAlign, kBlock) == 0) buf_.reset(static_cast<char *>(p));
  int fl = fcntl(fd_, F_GETFL);
  direct_ = direct_flag() && fl >= 0 && (fl & direct_flag());
}

size_t BlockWriter::block_room() const { return kBlock - static_cast<size_t>(offset_ % kAlign) - used_; }

bool BlockWriter::add(const char *d, size_t n) {
  if (!buf_) return false;
  uint64_t room = received_ < cap_ ? cap_ - received_ : 0;
  size_t keep = static_cast<size_t>(std::min<uint64_t>(n, room));
  received_ += n;
  if (sha_) sha_->update(d, keep);
  while (keep > 0) {
    size_t k = std::min(keep, block_room());
    std::copy(d, d + k, buf_.get() + used_);
    used_ += k;
    d += k;
    keep -= k;
    if (block_room() == 0 && !flush()) return false;
  }
  return true;
}

void BlockWriter::go_buffered() {
  int fl = fcntl(fd_, F_GETFL);
  if (fl >= 0) fcntl(fd_, F_SETFL, fl & ~direct_flag());
  direct_ = false;
}

bool BlockWriter::write_out(const char *d, size_t n, uint64_t at) {
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
  if (!buf_) return false;
  if (used_ == 0) return true;
  bool ok = write_out(buf_.get(), used_, offset_);
  offset_ += used_;
  used_ = 0;
  return ok;
}

}  // namespace zelsrv
