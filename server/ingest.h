// Writing received bodies to files. Large aligned blocks go to the disk
// directly, past the page cache: copying a gigabyte into freshly allocated
// cache pages and writing them back at the sync costs more than the receive
// itself. The sync before an answer stays the caller's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "digest.h"

namespace zelsrv {

// Opens (creating it when missing, with `extra` flags such as O_EXCL) a file
// that received bytes are written to; -1 on failure. Where the file system
// allows it, the descriptor writes around the page cache.
int open_for_ingest(const std::string &path, int extra);

// Gathers body pieces into large blocks written at increasing offsets. Bytes
// beyond `cap` are counted but never written, so a chunk longer than its
// Content-Range cannot spill into its neighbours. `sha`, when given, hashes
// the bytes kept, in order.
class BlockWriter {
 public:
  BlockWriter(int fd, uint64_t offset, uint64_t cap, Sha1 *sha);
  bool add(const char *d, size_t n);
  // Writes what is gathered; call once the body has ended.
  bool flush();
  uint64_t received() const { return received_; }

 private:
  // A block ends on an alignment boundary, so every block after the first
  // starts on one.
  size_t block_room() const;
  bool write_out(const char *d, size_t n, uint64_t at);
  void go_buffered();

  struct FreeDeleter {
    void operator()(char *p) const;
  };
  int fd_;
  uint64_t offset_;  // file offset of buf_[0]
  uint64_t cap_;
  Sha1 *sha_;
  std::unique_ptr<char, FreeDeleter> buf_;
  size_t used_ = 0;
  bool direct_ = false;
  uint64_t received_ = 0;
};

}  // namespace zelsrv
