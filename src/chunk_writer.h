#pragma once
// Writes the body of one download request at its place in the output file,
// when the output is the library's own file (the stream's functions are the
// defaults).
//
// The body arrives in libcurl's 16 KiB pieces. They are gathered into
// blocks of kChunkWriteBlock bytes and written with pwrite, one descriptor
// per request. The size is a measured compromise:
// - every write takes the file's lock in the kernel, and the chunks of a
//   download all write the same file: in 16 KiB writes they spend their
//   time contending for it;
// - larger writes make the kernel cache the file in larger folios, which
//   are several times slower to fill on a machine whose free memory has
//   gone back to its hypervisor (one writer, 1 GiB: 2.3 to 3.0 s in 1 MiB
//   writes, 0.4 to 0.55 s in 16 KiB writes);
// - 2 GiB downloads, 7 alternating runs each, medians: 16 KiB 735 MB/s,
//   32 KiB 999 to 1471 MB/s, 64 KiB 455 MB/s.
#include <cstddef>
#include <cstdint>

constexpr size_t kChunkWriteBlock = 32 * 1024;

struct ChunkWriter {
  int fd = -1;
  uint64_t offset = 0;    // file offset of the block's first byte
  size_t fill = 0;        // bytes waiting in the block
  char* block = nullptr;  // the calling thread's block
  int error = 0;          // first failure, as an errno value
};

// The calling thread's block of kChunkWriteBlock bytes, made on first use
// and freed when the thread ends; nullptr when memory runs out. A thread
// serves one request at a time, so one block serves them all.
char* chunk_writer_block();

// Opens the file named by `path`, which must exist, for writing at
// `offset`. false with errno set when it cannot be opened or memory runs
// out.
bool chunk_writer_open(ChunkWriter* w, const char16_t* path, uint64_t offset);
// Appends bytes: n, or 0 once a write has failed (w->error says why).
size_t chunk_writer_append(ChunkWriter* w, const char* bytes, size_t n);
// Writes what is left and closes the file: 0, or the errno value of the
// first failure. The writer is closed either way.
int chunk_writer_close(ChunkWriter* w);

// Reserves disk blocks for the first `size` bytes of a file about to be
// written in chunks, without changing its size: the file still only grows
// by bytes that arrived. Chunks then write into blocks already allocated,
// which measured faster. Best effort: nothing happens where the system
// cannot reserve.
void chunk_writer_reserve(const char16_t* path, uint64_t size);
// Gives back reserved blocks past the file's end (after a failed
// download). Best effort.
void chunk_writer_release(const char16_t* path);
