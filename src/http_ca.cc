// The CA bundle that ships beside the host application. Installations that
// carry their own bundle keep working where the system store is missing or
// outdated; without one, libcurl's default store is used.
#include <pthread.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>

#include "http.h"
#include "log.h"

namespace {
constexpr const char* kLogTag = "src\\http";
constexpr const char* kBundleName = "Tumbleframe/cacert.pem";

pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
bool g_resolved = false;
char g_bundle[kCaPathMax + 1];
bool g_found = false;
char g_override[PATH_MAX];
bool g_overridden = false;

// Appends `length` bytes of `piece` at *used; false when it would not fit.
bool put(char* out, size_t* used, const char* piece, size_t length) {
  if (*used + length > kCaPathMax) return false;
  std::memcpy(out + *used, piece, length);
  *used += length;
  return true;
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

void resolve() {
  char exe[PATH_MAX] = {0};
  g_found = false;
  if (!executable_path(exe, sizeof exe)) {
    ZLOG("Cannot read the executable's path; using the default CA store");
  } else if (http_ca_bundle_path(exe, g_bundle) != 0) {
    ZLOG("The executable's directory is too long for the CA bundle path; using the default CA store");
  } else if (access(g_bundle, R_OK) != 0) {
    ZLOG("No CA bundle at %s; using the default CA store", g_bundle);
  } else {
    g_found = true;
  }
  g_resolved = true;
}
}  // namespace

int http_ca_bundle_path(const char* exe_path, char* out) {
  std::memset(out, 0, kCaPathMax + 1);
  if (exe_path == nullptr) return -1;
  size_t used = 0;
  bool fits = true;
  // Dropping the empty piece before a POSIX root would make the path
  // relative to the working directory, so the root is kept.
  if (exe_path[0] == '/') fits = put(out, &used, "/", 1);
  const char* cursor = exe_path;
  cursor += std::strspn(cursor, "/\\");
  while (fits && *cursor != '\0') {
    size_t length = std::strcspn(cursor, "/\\");
    const char* next = cursor + length;
    next += std::strspn(next, "/\\");
    if (*next == '\0') break;  // the last piece is the executable itself
    fits = put(out, &used, cursor, length) && put(out, &used, "/", 1);
    cursor = next;
  }
  if (fits) fits = put(out, &used, kBundleName, std::strlen(kBundleName));
  if (!fits) std::memset(out, 0, kCaPathMax + 1);
  return fits ? 0 : -1;
}

const char* http_ca_bundle() {
  pthread_mutex_lock(&g_lock);
  if (!g_resolved) resolve();
  const char* bundle = g_found ? g_bundle : nullptr;
  pthread_mutex_unlock(&g_lock);
  return bundle;
}

void http_ca_bundle_override(const char* exe_path) {
  pthread_mutex_lock(&g_lock);
  g_overridden = exe_path != nullptr;
  if (g_overridden) {
    std::strncpy(g_override, exe_path, sizeof g_override - 1);
    g_override[sizeof g_override - 1] = '\0';
  }
  g_resolved = false;
  pthread_mutex_unlock(&g_lock);
}
