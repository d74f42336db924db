#include "direct_write.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "alloc.h"
#include "util.h"

namespace {
// Large enough that the device sees few requests, small enough that the
// worker threads' blocks together stay a few MiB.
constexpr size_t kDirectBlock = 1024 * 1024;

// One aligned block per worker thread, reused by every chunk it writes.
struct AlignedBlock {
  char* data = nullptr;
  ~AlignedBlock() { mem_free(data); }
};

char* thread_block() {
  static thread_local AlignedBlock block;
  if (block.data == nullptr) block.data = static_cast<char*>(mem_aligned(kDirectAlign, kDirectBlock));
  return block.data;
}

int open_by_wide_name(const char16_t* path, int flags) {
  char* name = wide_to_utf8(path);
  if (name == nullptr) {
    errno = path == nullptr ? EINVAL : (errno == ENOMEM ? ENOMEM : EINVAL);
    return -1;
  }
  int fd = ::open(name, flags | O_CLOEXEC);
  int saved = errno;
  mem_free(name);
  errno = saved;
  return fd;
}

// The descriptor writes through the cache from now on.
bool stop_direct(DirectWrite* w) {
#ifdef O_DIRECT
  int flags = fcntl(w->fd, F_GETFL);
  if (flags < 0 || fcntl(w->fd, F_SETFL, flags & ~O_DIRECT) < 0) return false;
#endif
  w->direct = false;
  return true;
}

// Writes `n` bytes of the block at w->offset. A file system that refuses a
// direct write (EINVAL) gets the same bytes through the cache.
bool write_out(DirectWrite* w, size_t n) {
  size_t done = 0;
  while (done < n) {
    // A direct write takes aligned lengths only; an unaligned rest goes
    // through the cache.
    if (w->direct && (n - done) % kDirectAlign != 0 && (n - done) < kDirectAlign && !stop_direct(w)) {
      w->error = errno;
      return false;
    }
    size_t length = n - done;
    if (w->direct) length -= length % kDirectAlign;
    ssize_t wrote = pwrite(w->fd, w->block + done, length, static_cast<off_t>(w->offset + done));
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote < 0 && errno == EINVAL && w->direct) {
      if (!stop_direct(w)) {
        w->error = errno;
        return false;
      }
      continue;
    }
    if (wrote <= 0) {
      w->error = wrote < 0 ? errno : EIO;
      return false;
    }
    done += static_cast<size_t>(wrote);
    // A short direct write leaves the rest unaligned in memory.
    if (w->direct && done % kDirectAlign != 0 && !stop_direct(w)) {
      w->error = errno;
      return false;
    }
  }
  w->offset += n;
  w->fill = 0;
  return true;
}
}  // namespace

bool direct_open(DirectWrite* w, const char16_t* path, uint64_t offset) {
  *w = DirectWrite{};
  w->offset = offset;
  w->block = thread_block();
  if (w->block == nullptr) {
    errno = ENOMEM;
    return false;
  }
#ifdef O_DIRECT
  if (offset % kDirectAlign == 0) {
    w->fd = open_by_wide_name(path, O_WRONLY | O_DIRECT);
    w->direct = w->fd >= 0;
    // Refused direct: try again through the cache.
    if (w->fd < 0 && errno != EINVAL) return false;
  }
#endif
  if (w->fd < 0) w->fd = open_by_wide_name(path, O_WRONLY);
  return w->fd >= 0;
}

size_t direct_append(DirectWrite* w, const char* bytes, size_t n) {
  size_t taken = 0;
  while (w->error == 0 && taken < n) {
    size_t step = n - taken < kDirectBlock - w->fill ? n - taken : kDirectBlock - w->fill;
    std::memcpy(w->block + w->fill, bytes + taken, step);
    w->fill += step;
    taken += step;
    if (w->fill == kDirectBlock) write_out(w, w->fill);
  }
  return w->error == 0 ? n : 0;
}

int direct_close(DirectWrite* w) {
  if (w->error == 0 && w->fill > 0) write_out(w, w->fill);
  if (w->fd >= 0 && ::close(w->fd) != 0 && w->error == 0) w->error = errno;
  w->fd = -1;
  return w->error;
}

void direct_reserve(const char16_t* path, uint64_t size) {
#if defined(__linux__) && defined(FALLOC_FL_KEEP_SIZE)
  int fd = open_by_wide_name(path, O_WRONLY);
  if (fd < 0) return;
  (void)fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(size));
  ::close(fd);
#else
  (void)path;
  (void)size;
#endif
}

void direct_release_reserve(const char16_t* path) {
  int fd = open_by_wide_name(path, O_WRONLY);
  if (fd < 0) return;
  // Truncating to the size the file has frees the blocks reserved past it.
  off_t end = lseek(fd, 0, SEEK_END);
  if (end >= 0) (void)ftruncate(fd, end);
  ::close(fd);
}
