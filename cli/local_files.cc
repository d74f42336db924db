// Local files of transfers: readable sources, standard input spooled to a
// file, and the temporary file a download is written to before it replaces
// its target.
#include "local_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace zelcli {
std::string temp_dir() {
  const char* dir = std::getenv("TMPDIR");
  return dir != nullptr && *dir != '\0' ? dir : "/tmp";
}

namespace {

std::string dir_of(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool copy_fd(int from, int to) {
  char buffer[1 << 16];
  for (;;) {
    ssize_t got = read(from, buffer, sizeof buffer);
    if (got == 0) return true;
    if (got < 0 && errno == EINTR && interrupted() == 0) continue;
    if (got < 0) return false;
    for (ssize_t put = 0; put < got;) {
      ssize_t n = write(to, buffer + put, static_cast<size_t>(got - put));
      if (n < 0 && errno == EINTR && interrupted() == 0) continue;
      if (n < 0) return false;
      put += n;
    }
  }
}

}  // namespace

TempFile::~TempFile() { remove(); }

void TempFile::remove() {
  if (path_.empty()) return;
  set_cleanup_file("");
  unlink(path_.c_str());
  path_.clear();
}

std::optional<Failure> TempFile::create(const std::string& beside) {
  std::string name = last_segment(beside);
  std::string pattern = dir_of(beside) + "/." + (name.empty() ? "zel" : name) + ".zel-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  int fd = mkstemp(buffer.data());
  if (fd < 0) return local_failure(dir_of(beside), errno);
  close(fd);
  path_ = buffer.data();
  set_cleanup_file(path_);
  return std::nullopt;
}

std::optional<Failure> TempFile::replace(const std::string& target) {
  int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  bool synced = fd >= 0 && fsync(fd) == 0;
  if (fd >= 0) close(fd);
  // Like a fresh file: the umask decides, not mkstemp's 0600.
  mode_t mask = umask(0);
  umask(mask);
  struct stat st;
  chmod(path_.c_str(), stat(target.c_str(), &st) == 0 ? st.st_mode & 07777 : 0666 & ~mask);
  if (!synced || rename(path_.c_str(), target.c_str()) != 0) return local_failure(target, errno);
  set_cleanup_file("");
  path_.clear();
  return std::nullopt;
}

std::optional<Failure> TempFile::spool_stdin() {
  if (auto failure = create(temp_dir() + "/stdin")) return failure;
  int fd = open(path_.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  bool ok = fd >= 0 && copy_fd(STDIN_FILENO, fd);
  int error = errno;
  if (fd >= 0 && close(fd) != 0 && ok) ok = false, error = errno;
  if (!ok) return local_failure("standard input", error);
  return std::nullopt;
}

std::optional<Failure> TempFile::copy_to_stdout() const {
  int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return local_failure(path_, errno);
  bool ok = copy_fd(fd, STDOUT_FILENO);
  int error = errno;
  close(fd);
  if (!ok) return local_failure("standard output", error);
  return std::nullopt;
}

std::optional<Failure> readable_file(const std::string& path, uint64_t& size) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return local_failure(path, errno);
  if (S_ISDIR(st.st_mode)) return local_failure(path, EISDIR);
  if (!S_ISREG(st.st_mode)) return Failure{FailureKind::kLocal, path, "not a regular file", 0, ""};
  if (access(path.c_str(), R_OK) != 0) return local_failure(path, errno);
  size = static_cast<uint64_t>(st.st_size);
  return std::nullopt;
}

}  // namespace zelcli
