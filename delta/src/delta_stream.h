#pragma once
// The delta stream inside a patch file: the instructions that rebuild the
// new file from the base, written by the encoder and run by the applier.
//
//   0x00                     end of the stream
//   0x01 n data[n]           n new bytes (n >= 1)
//   0x02 d n                 n bytes (n >= 1) of the base, starting d bytes
//                            after the end of the previous copy (d signed,
//                            zigzag-coded; the first copy counts from 0)
// n and d are LEB128 varints of at most 10 bytes. Runs of consecutive
// blocks become one copy, and a copy that follows on from the previous one
// has d = 0, which the compressor shrinks to almost nothing.
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "compress.h"
#include "diff_internal.h"
#include "sig_index.h"

namespace zeldiff {

// Collects instructions and hands them to `sink` in large pieces.
class DeltaWriter {
 public:
  explicit DeltaWriter(Sink sink);
  void literal(const uint8_t* data, size_t n);
  // Extends the previous copy when it ends at `offset`.
  void copy(uint64_t offset, uint64_t n);
  // Writes the end instruction and everything still held.
  void finish();

 private:
  void flush_copy();
  void put_varint(uint64_t v);
  void put(const uint8_t* data, size_t n);
  void flush();
  Sink sink_;
  std::vector<uint8_t> buffer_;
  size_t used_ = 0;
  uint64_t copy_offset_ = 0, copy_len_ = 0, last_end_ = 0;
};

// Encodes `input` against `index` into `out` (without finishing it).
// Returns the number of bytes of `input` read: the file's length unless it
// changed while it was read.
uint64_t delta_encode(const SigIndex& index, const File& input, DeltaWriter& out);

// The result of an apply, built in place in a ring of buffers: each full
// buffer goes to a hashing thread and to the output file, so hashing
// overlaps both the writing and the building of the next buffer, and no
// byte is copied for the hash.
class ResultWriter {
 public:
  // `size` is the size the result should have (it only sizes the block
  // reservations); with `durable`, writeback starts while the result is
  // still being built.
  ResultWriter(OutputFile& out, uint64_t size, bool durable);
  ResultWriter(const ResultWriter&) = delete;
  ResultWriter& operator=(const ResultWriter&) = delete;
  ~ResultWriter();
  // Free space (at least one byte) at the write position; *n is its size.
  uint8_t* room(size_t* n);
  // Marks the next n bytes of the room as written.
  void advance(size_t n) { fill_ += n, written_ += n; }
  uint64_t written() const { return written_; }
  // Writes what is left and waits for the SHA-1 of everything.
  void finish(uint8_t digest[kSha1Size]);

 private:
  void send();
  void run();
  OutputFile& out_;
  std::vector<std::unique_ptr<uint8_t[]>> buffers_;
  std::vector<size_t> sizes_;
  size_t fill_ = 0;
  uint64_t written_ = 0;
  uint64_t size_;
  bool durable_;
  uint64_t reserved_ = 0;      // blocks allocated ahead up to here
  uint64_t written_back_ = 0;  // writeback started up to here
  uint64_t sent_ = 0;          // buffers handed over, in order
  uint64_t hashed_ = 0;        // buffers the thread is done with
  bool closed_ = false, abandoned_ = false;
  bool writer_waits_ = false, hasher_waits_ = false;
  std::exception_ptr error_;
  Sha1 sha_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::thread thread_;  // last: starts once the members above exist
};

// Runs the instructions read from `source` against `base` (of `base_size`
// bytes) into `out`, which may receive at most `new_size` bytes. Throws a
// message for a damaged, truncated or overlong stream.
void delta_decode(const Source& source, const File& base, uint64_t base_size, uint64_t new_size,
                  ResultWriter& out);

}  // namespace zeldiff
