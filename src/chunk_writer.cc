#include "chunk_writer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "alloc.h"
#include "util.h"

namespace {
struct ThreadBlock {
  char* data = nullptr;
  ~ThreadBlock() { mem_free(data); }
};

bool write_out(ChunkWriter* w) {
  size_t done = 0;
  while (done < w->fill) {
    ssize_t wrote = pwrite(w->fd, w->block + done, w->fill - done, static_cast<off_t>(w->offset + done));
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) {
      w->error = wrote < 0 ? errno : EIO;
      return false;
    }
    done += static_cast<size_t>(wrote);
  }
  w->offset += w->fill;
  w->fill = 0;
  return true;
}
}  // namespace

char* chunk_writer_block() {
  static thread_local ThreadBlock block;
  if (block.data == nullptr) block.data = static_cast<char*>(mem_malloc(kChunkWriteBlock));
  return block.data;
}

bool chunk_writer_open(ChunkWriter* w, const char16_t* path, uint64_t offset) {
  *w = ChunkWriter{};
  w->offset = offset;
  w->block = chunk_writer_block();
  if (w->block == nullptr) {
    errno = ENOMEM;
    return false;
  }
  w->fd = file_open_descriptor(path, O_WRONLY);
  return w->fd >= 0;
}

size_t chunk_writer_append(ChunkWriter* w, const char* bytes, size_t n) {
  size_t taken = 0;
  while (w->error == 0 && taken < n) {
    size_t room = kChunkWriteBlock - w->fill;
    size_t step = n - taken < room ? n - taken : room;
    std::memcpy(w->block + w->fill, bytes + taken, step);
    w->fill += step;
    taken += step;
    if (w->fill == kChunkWriteBlock) write_out(w);
  }
  return w->error == 0 ? n : 0;
}

int chunk_writer_close(ChunkWriter* w) {
  if (w->error == 0 && w->fill > 0) write_out(w);
  if (w->fd >= 0 && ::close(w->fd) != 0 && w->error == 0) w->error = errno;
  w->fd = -1;
  return w->error;
}

void chunk_writer_reserve(const char16_t* path, uint64_t size) {
#if defined(__linux__) && defined(FALLOC_FL_KEEP_SIZE)
  int fd = file_open_descriptor(path, O_WRONLY);
  if (fd < 0) return;
  (void)fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(size));
  ::close(fd);
#else
  (void)path;
  (void)size;
#endif
}

void chunk_writer_release(const char16_t* path) {
  int fd = file_open_descriptor(path, O_WRONLY);
  if (fd < 0) return;
  // Truncating to the size the file has frees the blocks reserved past it.
  off_t end = lseek(fd, 0, SEEK_END);
  if (end >= 0) (void)ftruncate(fd, end);
  ::close(fd);
}
