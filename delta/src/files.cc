// Files by wide name, temporary-then-rename output, SHA-1 and messages.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <vector>

#include "alloc.h"
#include "diff_internal.h"
#include "util.h"

namespace zeldiff {

void diff_set_message(char** err_msg, const char* message) {
  if (err_msg != nullptr) *err_msg = mem_strdup(message);
}

std::string diff_errno_message(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

namespace {

// UTF-8 form of a wide name for the calls the file layer does not wrap.
std::string narrow_name(const std::u16string& name) {
  char* text = wide_to_utf8(name.c_str());
  if (text == nullptr) throw DiffError("A file name is not valid UTF-16");
  std::string copy(text);
  mem_free(text);
  return copy;
}

}  // namespace

File::~File() {
  if (file_ != nullptr) std::fclose(file_);
}

void File::open_read(File& file, const char16_t* path, const char* what) {
  file.what_ = what;
  file.file_ = file_open(path, "rb");
  if (file.file_ == nullptr)
    throw DiffError(diff_errno_message((std::string("Cannot open the ") + what).c_str()));
}

int File::fd() const { return fileno(file_); }

uint64_t File::size() const {
  struct stat st;
  if (fstat(fd(), &st) != 0) throw DiffError(diff_errno_message("Cannot read the file size"));
  return static_cast<uint64_t>(st.st_size);
}

size_t File::read_at(void* buffer, size_t n, uint64_t offset) const {
  size_t done = 0;
  char* out = static_cast<char*>(buffer);
  while (done < n) {
    ssize_t got = pread(fd(), out + done, n - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw DiffError(diff_errno_message((std::string("Cannot read the ") + what_).c_str()));
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  return done;
}

void File::read_exact(void* buffer, size_t n, uint64_t offset) const {
  if (read_at(buffer, n, offset) != n) throw DiffError(std::string("The ") + what_ + " is truncated");
}

OutputFile::OutputFile(const char16_t* target, const char* what) : target_(target), what_(what) {
  std::random_device rng;
  static const char16_t kDigits[] = u"0123456789abcdef";
  for (int attempt = 0; attempt < 16 && file_ == nullptr; ++attempt) {
    temp_ = target_ + u".zeltmp-";
    for (int i = 0; i < 12; ++i) temp_ += kDigits[rng() & 15];
    file_ = file_open(temp_.c_str(), "wbx");  // never reuse a file someone else made
    if (file_ == nullptr && errno != EEXIST) break;
  }
  if (file_ == nullptr)
    throw DiffError(diff_errno_message((std::string("Cannot create the ") + what).c_str()));
  // Every writer hands over large pieces already; a stream buffer would
  // only split and copy them.
  std::setvbuf(file_, nullptr, _IONBF, 0);
}

OutputFile::~OutputFile() {
  if (file_ == nullptr) return;
  std::fclose(file_);
  try {
    std::remove(narrow_name(temp_).c_str());
  } catch (...) {
  }
}

void OutputFile::fail(const char* action) {
  throw DiffError(diff_errno_message((std::string("Cannot ") + action + " the " + what_).c_str()));
}

void OutputFile::write(const void* data, size_t n) {
  if (n != 0 && std::fwrite(data, 1, n, file_) != n) fail("write");
}

void OutputFile::write_at(const void* data, size_t n, uint64_t offset) {
  if (std::fflush(file_) != 0) fail("write");
  if (pwrite(fileno(file_), data, n, static_cast<off_t>(offset)) != static_cast<ssize_t>(n)) fail("write");
}

void OutputFile::reserve(uint64_t offset, uint64_t n) {
  (void)fallocate(fileno(file_), FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset), static_cast<off_t>(n));
}

void OutputFile::start_writeback(uint64_t offset, uint64_t n) {
  (void)sync_file_range(fileno(file_), static_cast<off64_t>(offset), static_cast<off64_t>(n),
                        SYNC_FILE_RANGE_WRITE);
}

void OutputFile::commit(bool sync, int mode) {
  std::string temp = narrow_name(temp_);
  std::string target = narrow_name(target_);
  if (std::fflush(file_) != 0) fail("write");
  if (sync && fsync(fileno(file_)) != 0) fail("flush");
  if (mode >= 0 && fchmod(fileno(file_), static_cast<mode_t>(mode)) != 0) fail("set the permissions of");
  FILE* file = file_;
  file_ = nullptr;
  if (std::fclose(file) != 0) {
    std::remove(temp.c_str());
    fail("write");
  }
  if (std::rename(temp.c_str(), target.c_str()) != 0) {
    int saved = errno;
    std::remove(temp.c_str());
    errno = saved;
    fail("rename into place");
  }
  // The rename is only durable once the directory that holds it is.
  if (sync) {
    size_t slash = target.find_last_of('/');
    std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : target.substr(0, slash);
    int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    bool ok = fd >= 0 && fsync(fd) == 0;
    int saved = errno;
    if (fd >= 0) close(fd);
    errno = saved;
    if (!ok) fail("flush the directory of");
  }
}

Sha1::Sha1() : ctx_(EVP_MD_CTX_new()) {
  if (ctx_ == nullptr || EVP_DigestInit_ex(ctx_, EVP_sha1(), nullptr) != 1) {
    EVP_MD_CTX_free(ctx_);
    throw DiffError("Cannot start a SHA-1 computation");
  }
}

Sha1::~Sha1() { EVP_MD_CTX_free(ctx_); }

void Sha1::update(const void* data, size_t n) {
  if (EVP_DigestUpdate(ctx_, data, n) != 1) throw DiffError("SHA-1 computation failed");
}

void Sha1::final(uint8_t digest[20]) {
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(ctx_, digest, &length) != 1 || length != kSha1Size)
    throw DiffError("SHA-1 computation failed");
}

void sha1_of_file(const File& file, uint8_t digest[kSha1Size]) {
  constexpr size_t kChunk = 1 << 20;
  std::string buffer(kChunk, '\0');
  Sha1 sha;
  uint64_t offset = 0;
  for (;;) {
    size_t got = file.read_at(&buffer[0], kChunk, offset);
    if (got == 0) break;
    sha.update(buffer.data(), got);
    offset += got;
  }
  sha.final(digest);
}

FileHasher::FileHasher(const File& file) {
  thread_ = std::thread([this, &file] {
    try {
      hash(file);
    } catch (...) {
      error_ = std::current_exception();
    }
  });
}

FileHasher::~FileHasher() {
  stop_.store(true);
  if (thread_.joinable()) thread_.join();
}

const uint8_t* FileHasher::wait() {
  if (thread_.joinable()) thread_.join();
  if (error_) std::rethrow_exception(error_);
  return digest_;
}

void FileHasher::hash(const File& file) {
  std::vector<uint8_t> buffer(1 << 20);
  Sha1 sha;
  while (!stop_.load()) {
    size_t got = file.read_at(buffer.data(), buffer.size(), bytes_);
    if (got == 0) break;
    sha.update(buffer.data(), got);
    bytes_ += got;
  }
  sha.final(digest_);
}

void sha1_to_hex(const uint8_t digest[kSha1Size], char hex[2 * kSha1Size + 1]) {
  static const char kDigits[] = "0123456789abcdef";
  for (size_t i = 0; i < kSha1Size; ++i) {
    hex[2 * i] = kDigits[digest[i] >> 4];
    hex[2 * i + 1] = kDigits[digest[i] & 15];
  }
  hex[2 * kSha1Size] = '\0';
}

bool sha1_from_hex(const char* hex, uint8_t digest[kSha1Size]) {
  if (hex == nullptr) return false;
  auto value = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  for (size_t i = 0; i < kSha1Size; ++i) {
    int high = value(hex[2 * i]);
    int low = high < 0 ? -1 : value(hex[2 * i + 1]);
    if (high < 0 || low < 0) return false;
    digest[i] = static_cast<uint8_t>(high << 4 | low);
  }
  return hex[2 * kSha1Size] == '\0';
}

}  // namespace zeldiff
