#pragma once
// Internals of the delta library: error handling, files by wide name, SHA-1
// and the byte order of the file formats. Every exported function runs its
// body inside diff_guard, so internal code reports failures by throwing
// DiffError and releases what it holds through RAII.
#include <openssl/evp.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace zeldiff {

// A failure with the message handed to the caller.
class DiffError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Runs `body`; returns its result, or -1 with the message stored in *err_msg
// (when err_msg is not NULL) for any failure, including memory exhaustion.
template <typename Body>
int32_t diff_guard(char** err_msg, Body body);

// Stores an allocated copy of `message` in *err_msg (NULL when memory runs
// out; nothing when err_msg is NULL). The caller set *err_msg to NULL: a
// value already there is not ours to release.
void diff_set_message(char** err_msg, const char* message);

// "<what>: <system error text>" for the current errno.
std::string diff_errno_message(const char* what);

// An open file, closed on destruction.
class File {
 public:
  File() = default;
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File();
  // Opens `path` for reading; throws "Cannot open the <what>: <reason>".
  static void open_read(File& file, const char16_t* path, const char* what);
  int fd() const;
  FILE* stream() const { return file_; }
  uint64_t size() const;
  // Reads up to n bytes at `offset`; fewer only at the end of the file.
  size_t read_at(void* buffer, size_t n, uint64_t offset) const;
  // Reads exactly n bytes at `offset` or throws "<what> is truncated".
  void read_exact(void* buffer, size_t n, uint64_t offset) const;

 private:
  FILE* file_ = nullptr;
  const char* what_ = "file";
};

// A file written under a temporary name beside `target` and renamed over it
// by commit(); removed again when destroyed uncommitted.
class OutputFile {
 public:
  OutputFile(const char16_t* target, const char* what);
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;
  ~OutputFile();
  void write(const void* data, size_t n);
  void write_at(const void* data, size_t n, uint64_t offset);
  // Allocates blocks for the n bytes at `offset` without changing the size,
  // so that the writes that follow find them in place instead of reserving
  // each page as it is written. Best effort: where the file system cannot,
  // the writes allocate as usual and report any shortage themselves.
  void reserve(uint64_t offset, uint64_t n);
  // Starts writing the n bytes at `offset` to storage without waiting, so
  // that a later sync has little left to do. Best effort as well: the sync
  // reports what failed.
  void start_writeback(uint64_t offset, uint64_t n);
  // Flushes, optionally syncs and sets the permission bits (mode < 0 keeps
  // the defaults), closes and renames over the target.
  void commit(bool sync, int mode);

 private:
  void fail(const char* action);
  std::u16string temp_;
  std::u16string target_;
  FILE* file_ = nullptr;
  const char* what_;
};

// SHA-1 over a stream of bytes.
class Sha1 {
 public:
  Sha1();
  Sha1(const Sha1&) = delete;
  Sha1& operator=(const Sha1&) = delete;
  ~Sha1();
  void update(const void* data, size_t n);
  void final(uint8_t digest[20]);

 private:
  EVP_MD_CTX* ctx_;
};

constexpr size_t kSha1Size = 20;

// SHA-1 of a whole file on a thread of its own, so that hashing overlaps
// the delta work; destroying it stops the thread early.
class FileHasher {
 public:
  explicit FileHasher(const File& file);
  FileHasher(const FileHasher&) = delete;
  FileHasher& operator=(const FileHasher&) = delete;
  ~FileHasher();
  // Waits for the digest; rethrows a read failure.
  const uint8_t* wait();
  // Bytes hashed; valid after wait().
  uint64_t bytes() const { return bytes_; }

 private:
  void hash(const File& file);
  std::atomic<bool> stop_{false};
  std::exception_ptr error_;
  uint8_t digest_[20] = {};
  uint64_t bytes_ = 0;
  std::thread thread_;  // last: starts once the members above exist
};
// Hashes the whole file; throws on a read failure.
void sha1_of_file(const File& file, uint8_t digest[kSha1Size]);
void sha1_to_hex(const uint8_t digest[kSha1Size], char hex[2 * kSha1Size + 1]);
// Parses exactly 40 hexadecimal digits (either case); false otherwise.
bool sha1_from_hex(const char* hex, uint8_t digest[kSha1Size]);

inline void put_u32be(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}
inline uint32_t get_u32be(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}
inline void put_u64le(uint8_t* p, uint64_t v) {
  for (int i = 0; i < 8; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
inline uint64_t get_u64le(const uint8_t* p) {
  uint64_t v = 0;
  for (int i = 7; i >= 0; --i) v = (v << 8) | p[i];
  return v;
}

template <typename Body>
int32_t diff_guard(char** err_msg, Body body) {
  try {
    return body();
  } catch (const DiffError& e) {
    diff_set_message(err_msg, e.what());
  } catch (const std::bad_alloc&) {
    diff_set_message(err_msg, "Out of memory");
  } catch (const std::exception& e) {
    diff_set_message(err_msg, e.what());
  } catch (...) {
    diff_set_message(err_msg, "Unexpected internal failure");
  }
  return -1;
}

}  // namespace zeldiff
