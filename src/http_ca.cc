// The CA bundle that ships beside the host application. Installations that
// carry their own bundle keep working where the system store is missing or
// outdated; without one, libcurl's default store is used. That is the normal
// case on systems with a CA store of their own, so only a bundle that is
// there but cannot be used is logged.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "http.h"
#include "log.h"
#include "thread.h"

namespace {
constexpr const char* kLogTag = "src\\http";
constexpr const char* kBundleName = "Tumbleframe/cacert.pem";

zel::mtx_t g_lock = ZEL_MTX_INIT;
bool g_resolved = false;
char g_bundle[kCaPathMax + 1];
bool g_found = false;
char g_override[PATH_MAX];
bool g_overridden = false;

// Room for the bundle path of any executable path readlink can give.
constexpr size_t kFullPathMax = PATH_MAX + 32;

// Appends `length` bytes of `piece` at *used; false when more than `limit`
// bytes would be used.
bool put(char* out, size_t limit, size_t* used, const char* piece, size_t length) {
  if (*used + length > limit) return false;
  std::memcpy(out + *used, piece, length);
  *used += length;
  return true;
}

// The bundle path for `exe_path` in `out` (limit + 1 bytes, zeroed first);
// false, and `out` left empty, when it would take more than `limit` bytes.
bool build_path(const char* exe_path, char* out, size_t limit) {
  std::memset(out, 0, limit + 1);
  size_t used = 0;
  bool fits = true;
  // Dropping the empty piece before a POSIX root would make the path
  // relative to the working directory, so the root is kept.
  if (exe_path[0] == '/') fits = put(out, limit, &used, "/", 1);
  const char* cursor = exe_path;
  cursor += std::strspn(cursor, "/\\");
  while (fits && *cursor != '\0') {
    size_t length = std::strcspn(cursor, "/\\");
    const char* next = cursor + length;
    next += std::strspn(next, "/\\");
    if (*next == '\0') break;  // the last piece is the executable itself
    fits = put(out, limit, &used, cursor, length) && put(out, limit, &used, "/", 1);
    cursor = next;
  }
  if (fits) fits = put(out, limit, &used, kBundleName, std::strlen(kBundleName));
  if (!fits) std::memset(out, 0, limit + 1);
  return fits;
}

// Whether anything is at `path`: a missing file (or directory on the way)
// is the usual case of no bundle.
bool present(const char* path) {
  struct stat info;
  return stat(path, &info) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

// A regular file this process may read.
bool readable_file(const char* path) {
  struct stat info;
  return stat(path, &info) == 0 && S_ISREG(info.st_mode) && access(path, R_OK) == 0;
}

// Path of the running executable: the file of the process, not of this
// library, since the bundle belongs to the application.
bool executable_path(char* out, size_t size) {
  if (g_overridden) {
    snprintf(out, size, "%s", g_override);
    return true;
  }
  ssize_t n = readlink("/proc/self/exe", out, size - 1);
  if (n <= 0) return false;
  out[n] = '\0';
  return true;
}

// Without a bundle, quietly the default store; a bundle that is there but
// cannot be used is noted in `note` (empty otherwise), since its owner meant
// it to be used. The note is logged by the caller once the lock is released:
// the log sink is the caller's code and must never run under a library lock.
void resolve(char* note, size_t size) {
  char exe[PATH_MAX] = {0};
  note[0] = '\0';
  g_found = false;
  g_resolved = true;
  if (!executable_path(exe, sizeof exe)) {
    snprintf(note, size, "Cannot read the executable's path; using the default CA store");
    return;
  }
  if (!build_path(exe, g_bundle, kCaPathMax)) {
    char full[kFullPathMax + 1];
    if (build_path(exe, full, kFullPathMax) && present(full))
      snprintf(note, size,
               "The executable's directory is too long for the CA bundle path; using the default CA store");
    return;
  }
  if (readable_file(g_bundle)) {
    g_found = true;
  } else if (present(g_bundle)) {
    snprintf(note, size, "The CA bundle at %s cannot be read; using the default CA store", g_bundle);
  }
}
}  // namespace

int http_ca_bundle_path(const char* exe_path, char* out) {
  if (exe_path == nullptr) {
    std::memset(out, 0, kCaPathMax + 1);
    return -1;
  }
  return build_path(exe_path, out, kCaPathMax) ? 0 : -1;
}

const char* http_ca_bundle() {
  char note[kCaPathMax + 128];
  note[0] = '\0';
  const char* bundle = nullptr;
  {
    zel::LockGuard lock(g_lock);
    if (!g_resolved) resolve(note, sizeof note);
    bundle = g_found ? g_bundle : nullptr;
  }
  if (note[0] != '\0') ZLOG("%s", note);
  return bundle;
}

void http_ca_bundle_override(const char* exe_path) {
  zel::LockGuard lock(g_lock);
  g_overridden = exe_path != nullptr;
  if (g_overridden) {
    std::strncpy(g_override, exe_path, sizeof g_override - 1);
    g_override[sizeof g_override - 1] = '\0';
  }
  g_resolved = false;
}
