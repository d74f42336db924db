#include "environment.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "alloc.h"
#include "thread.h"
#include "zel_config.h"

namespace {

constexpr int kSlots = 4;  // local, development, staging, production

// Overrides are plain heap copies (none: the built-in value), so setting one
// never throws across the exported setter.
struct Table {
  zel::mtx_t lock = ZEL_MTX_INIT;
  char* overrides[2][kSlots] = {};
};

Table g_table;
Table& table() { return g_table; }

int slot_of(uint32_t environment) { return environment >= 1 && environment <= 3 ? int(environment) : 0; }

const char* builtin(EnvService service, int slot) {
  static const char* const storage[kSlots] = {ZEL_DEFAULT_URL_LOCAL, ZEL_DEFAULT_URL_DEVELOPMENT,
                                              ZEL_DEFAULT_URL_STAGING, ZEL_DEFAULT_URL_PRODUCTION};
  static const char* const delta[kSlots] = {"", ZEL_DEFAULT_URL_DEVELOPMENT, ZEL_DEFAULT_URL_STAGING,
                                            ZEL_DEFAULT_URL_PRODUCTION};
  return service == EnvService::storage ? storage[slot] : delta[slot];
}

bool valid_host(const char* begin, const char* end) {
  if (begin == end) return false;
  if (*begin == '[') {  // IPv6 literal
    if (end[-1] != ']' || end - begin < 3) return false;
    for (const char* p = begin + 1; p < end - 1; ++p) {
      if (!std::isxdigit(static_cast<unsigned char>(*p)) && *p != ':' && *p != '.') return false;
    }
    return true;
  }
  for (const char* p = begin; p < end; ++p) {
    if (!std::isalnum(static_cast<unsigned char>(*p)) && *p != '-' && *p != '.') return false;
  }
  return true;
}

bool valid_port(const char* begin, const char* end) {
  if (begin == end || end - begin > 5) return false;
  long port = 0;
  for (const char* p = begin; p < end; ++p) {
    if (!std::isdigit(static_cast<unsigned char>(*p))) return false;
    port = port * 10 + (*p - '0');
  }
  return port >= 1 && port <= 65535;
}

}  // namespace

bool env_url_is_valid(const char* base_url) {
  if (base_url == nullptr) return false;
  const char* rest;
  if (std::strncmp(base_url, "http://", 7) == 0) {
    rest = base_url + 7;
  } else if (std::strncmp(base_url, "https://", 8) == 0) {
    rest = base_url + 8;
  } else {
    return false;
  }
  const char* end = rest + std::strlen(rest);
  const char* host_end = end;
  if (*rest == '[') {
    const char* close = std::strchr(rest, ']');
    if (close == nullptr) return false;
    host_end = close + 1;
  } else {
    const char* colon = std::strchr(rest, ':');
    if (colon != nullptr) host_end = colon;
  }
  if (!valid_host(rest, host_end)) return false;
  if (host_end == end) return true;
  return *host_end == ':' && valid_port(host_end + 1, end);
}

int env_set_url(EnvService service, uint32_t environment, const char* base_url) {
  if (base_url != nullptr && !env_url_is_valid(base_url)) return -1;
  Table& t = table();
  int s = static_cast<int>(service);
  int slot = slot_of(environment);
  char* copy = nullptr;
  if (base_url != nullptr && (copy = mem_strdup(base_url)) == nullptr) return -1;
  char* old = nullptr;
  {
    zel::LockGuard guard(t.lock);
    old = t.overrides[s][slot];
    t.overrides[s][slot] = copy;
  }
  mem_free(old);
  return 0;
}

size_t env_base_url(EnvService service, uint32_t environment, char* out, size_t size) {
  Table& t = table();
  int s = static_cast<int>(service);
  int slot = slot_of(environment);
  zel::LockGuard guard(t.lock);
  const char* base = t.overrides[s][slot] != nullptr ? t.overrides[s][slot] : builtin(service, slot);
  size_t length = std::strlen(base);
  if (out != nullptr && size > 0) {
    size_t n = length < size - 1 ? length : size - 1;
    std::memcpy(out, base, n);
    out[n] = '\0';
  }
  return length;
}
