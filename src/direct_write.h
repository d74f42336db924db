#pragma once
// Writes one chunk of a download at its place in the output file, past the
// page cache where the file system allows it.
//
// Buffered writes from the many chunks of one download all take the file's
// lock in the kernel and copy every byte into freshly allocated cache pages;
// on small machines that copy and the spinning on the lock cost more than
// the network. Direct writes hand the device whole aligned blocks instead.
// Where the file system refuses them (tmpfs, network file systems) the
// writer falls back to ordinary writes on the same descriptor.
#include <cstddef>
#include <cstdint>

struct DirectWrite {
  int fd = -1;
  bool direct = false;    // the descriptor bypasses the page cache
  uint64_t offset = 0;    // file offset of the block's first byte
  size_t fill = 0;        // bytes waiting in the block
  char* block = nullptr;  // the calling thread's aligned block
  int error = 0;          // first failure, as an errno value
};

// Offsets and lengths of direct writes are multiples of this.
constexpr uint64_t kDirectAlign = 4096;
// Chunks shorter than this are written through the cache: the device's
// round trip would cost more than the copy saves.
constexpr uint64_t kDirectMinimum = 1024 * 1024;

// Opens the file named by `path` (which must exist) for writing at `offset`,
// directly when `offset` is aligned and the system allows it. false with
// errno set when the file cannot be opened or memory runs out.
bool direct_open(DirectWrite* w, const char16_t* path, uint64_t offset);
// Appends bytes; n, or 0 once a write has failed (w->error says why).
size_t direct_append(DirectWrite* w, const char* bytes, size_t n);
// Writes what is left and closes the file: 0, or the errno value of the
// first failure. The writer is closed either way.
int direct_close(DirectWrite* w);

// Reserves `size` bytes of disk for a file about to be written directly,
// without changing its size; allocating blocks one direct write at a time
// is several times slower. Best effort: nothing happens where it is not
// supported.
void direct_reserve(const char16_t* path, uint64_t size);
// Gives back reserved blocks the file did not use (after a failed
// download). Best effort.
void direct_release_reserve(const char16_t* path);
