// Writing received bodies to files. Large aligned blocks go to the disk
// directly, past the page cache: copying a gigabyte into freshly allocated
// cache pages and writing them back at the sync costs more than the receive
// itself. The sync before an answer stays the caller's.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "digest.h"

namespace zelsrv {

// Opens (creating it when missing, with `extra` flags such as O_EXCL) a file
// that received bytes are written to; -1 on failure. Where the file system
// allows it, the descriptor writes around the page cache.
int open_for_ingest(const std::string& path, int extra);

// Gathers body pieces into large blocks written at increasing offsets. Bytes
// beyond `cap` are counted but never written, so a chunk longer than its
// Content-Range cannot spill into its neighbours. `sha`, when given, hashes
// the bytes kept, in order.
//
// Once a body fills a block, a helper thread hashes and writes the full
// blocks in order while the request thread receives the next ones, so the
// disk's wait and the hashing overlap the network. A short body never
// starts the helper.
class BlockWriter {
 public:
  BlockWriter(int fd, uint64_t offset, uint64_t cap, Sha1* sha);
  ~BlockWriter();
  BlockWriter(const BlockWriter&) = delete;
  BlockWriter& operator=(const BlockWriter&) = delete;

  // False once a write failed; the caller stops the body then.
  bool add(const char* d, size_t n);
  // Writes and hashes everything gathered and waits for it; call once the
  // body has ended. True when every kept byte reached the file.
  bool flush();
  uint64_t received() const { return received_; }

 private:
  struct FreeDeleter {
    void operator()(char* p) const;
  };
  using Buffer = std::unique_ptr<char, FreeDeleter>;
  struct Block {
    Buffer data;
    size_t used = 0;
    uint64_t offset = 0;
  };

  // A block ends on an alignment boundary, so every block after the first
  // starts on one.
  size_t room() const;
  bool hand_off();  // queues the current block and takes a free one
  void drain();     // the helper's loop
  bool store(const Block& b);
  bool write_out(const char* d, size_t n, uint64_t at);
  void go_buffered();
  void stop_helper();

  int fd_;
  uint64_t next_offset_;  // file offset of the current block's first byte
  uint64_t cap_;
  Sha1* sha_;
  bool direct_ = false;  // touched by one thread at a time: hand-offs order it
  uint64_t received_ = 0;
  Block cur_;
  bool cur_ok_ = false;

  std::mutex mu_;
  std::condition_variable cv_;
  std::deque<Block> full_;     // waiting for the helper, in file order
  std::vector<Buffer> spare_;  // written and free again
  size_t buffers_ = 0;         // allocated, at most kBuffers
  bool busy_ = false;          // the helper holds a block
  bool closing_ = false;
  bool failed_ = false;
  std::thread helper_;
};

}  // namespace zelsrv
