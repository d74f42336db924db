// Service handle, URL building and header lists.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "alloc.h"
#include "environment.h"
#include "log.h"
#include "zel_internal.h"

namespace {
constexpr const char* kLogTag = "src\\zel";

constexpr uint32_t kDefaultPoolSize = 8;
constexpr uint64_t kDefaultChunkSize = 5242880;
constexpr uint32_t kDefaultRetries = 5;
constexpr uint32_t kDefaultTimeoutMs = 1800000;

// Replaces *field by a copy of value; a failed copy leaves the field empty.
void replace_text(char** field, const char* value) {
  mem_free(*field);
  *field = value != nullptr ? mem_strdup(value) : nullptr;
}
}  // namespace

extern "C" ZEL_EXPORT ZEL* zel_init(uint32_t environment, uint32_t api_version, ZELGetTokenFn get_token,
                                    ZELFreeTokenFn free_token) {
  auto* handle = static_cast<ZEL*>(mem_calloc(1, sizeof(ZEL)));
  if (handle == nullptr) {
    ZLOG("Cannot allocate memory for the ZEL handler");
    return nullptr;
  }
  handle->environment = environment;
  handle->api_version = api_version;
  handle->http_pool_size = kDefaultPoolSize;
  handle->thread_pool_size = kDefaultPoolSize;
  handle->chunk_size = kDefaultChunkSize;
  handle->max_retries = kDefaultRetries;
  handle->timeout_ms = kDefaultTimeoutMs;
  handle->ssl_verify_peer = 1;
  handle->get_token = get_token;
  handle->free_token = free_token;
  return handle;
}

extern "C" ZEL_EXPORT ZEL* zel_clone(const ZEL* handle) {
  if (handle == nullptr) return nullptr;
  auto* copy = static_cast<ZEL*>(mem_calloc(1, sizeof(ZEL)));
  if (copy == nullptr) {
    ZLOG("Cannot allocate memory for the ZEL clone");
    return nullptr;
  }
  *copy = *handle;
  copy->proxy = mem_strdup(handle->proxy);
  copy->proxy_username = mem_strdup(handle->proxy_username);
  copy->proxy_password = mem_strdup(handle->proxy_password);
  return copy;
}

extern "C" ZEL_EXPORT void zel_cleanup(ZEL* handle) {
  if (handle == nullptr) return;
  mem_free(handle->proxy);
  mem_free(handle->proxy_username);
  mem_free(handle->proxy_password);
  mem_free(handle);
}

extern "C" ZEL_EXPORT void zel_set_proxy(ZEL* handle, const char* proxy) {
  if (handle == nullptr) return;
  replace_text(&handle->proxy, proxy);
  replace_text(&handle->proxy_username, nullptr);
  replace_text(&handle->proxy_password, nullptr);
}

extern "C" ZEL_EXPORT void zel_set_proxy_with_credentials(ZEL* handle, const char* proxy,
                                                          const char* username, const char* password) {
  if (handle == nullptr) return;
  replace_text(&handle->proxy, proxy);
  replace_text(&handle->proxy_username, username);
  replace_text(&handle->proxy_password, password);
}

extern "C" ZEL_EXPORT void zel_set_low_speed_limit(ZEL* handle, uint32_t limit, uint32_t time) {
  if (handle == nullptr) return;
  handle->low_speed_limit = limit;
  handle->low_speed_time = time;
}

int url_build(const ZEL* handle, char* buffer, size_t size, const char* format, va_list args) {
  if (handle == nullptr) {
    ZLOG("ZEL handler is not initialized");
    return -1;
  }
  if (buffer == nullptr || size == 0 || format == nullptr) return -1;
  char base[ZEL_URL_SIZE] = {0};
  env_base_url(EnvService::storage, handle->environment, base, sizeof base);
  int n = snprintf(buffer, size, "%s/zel/v%u", base, handle->api_version);
  if (n < 0) return -1;
  // Only a caller buffer smaller than the base itself can cut it; the path
  // then starts at the terminator.
  size_t used = static_cast<size_t>(n) < size ? static_cast<size_t>(n) : size - 1;
  int m = vsnprintf(buffer + used, size - used, format, args);
  return n + m;
}

#define ZEL_URL_FUNCTIONS(name)                                                                              \
  extern "C" ZEL_EXPORT int name(const ZEL* handle, char* buffer, const char* format, ...) {                 \
    va_list args;                                                                                            \
    va_start(args, format);                                                                                  \
    int length = url_build(handle, buffer, ZEL_URL_SIZE, format, args);                                      \
    va_end(args);                                                                                            \
    return length;                                                                                           \
  }                                                                                                          \
  extern "C" ZEL_EXPORT int name##_bounded(const ZEL* handle, char* buffer, size_t size, const char* format, \
                                           ...) {                                                            \
    va_list args;                                                                                            \
    va_start(args, format);                                                                                  \
    int length = url_build(handle, buffer, size, format, args);                                              \
    va_end(args);                                                                                            \
    return length;                                                                                           \
  }

// The three services share one base today; separate names let uploads and
// downloads move to their own hosts without touching any operation.
ZEL_URL_FUNCTIONS(zel_api_url)
ZEL_URL_FUNCTIONS(zel_upload_url)
ZEL_URL_FUNCTIONS(zel_download_url)

extern "C" ZEL_EXPORT int zel_set_environment_url(uint32_t environment, const char* base_url) {
  return env_set_url(EnvService::storage, environment, base_url);
}

extern "C" ZEL_EXPORT ZELHeaders* zel_headers_append(ZELHeaders* list, const char* name, const char* value) {
  if (name == nullptr || value == nullptr) return list;
  int full = snprintf(nullptr, 0, "%s:%s", name, value);
  if (full < 0) return list;
  size_t length = static_cast<size_t>(full) < kHeaderLineMax ? static_cast<size_t>(full) : kHeaderLineMax;
  auto* node = static_cast<ZELHeaders*>(mem_calloc(1, sizeof(ZELHeaders)));
  char* line = node != nullptr ? static_cast<char*>(mem_calloc(length + 1, 1)) : nullptr;
  if (line == nullptr) {
    ZLOG("Cannot allocate memory for ZELHeaders");
    mem_free(node);
    return list;
  }
  snprintf(line, length + 1, "%s:%s", name, value);
  node->line = line;
  node->next = list;
  return node;
}

extern "C" ZEL_EXPORT void zel_headers_cleanup(ZELHeaders* list) {
  while (list != nullptr) {
    ZELHeaders* next = list->next;
    mem_free(list->line);
    mem_free(list);
    list = next;
  }
}

extern "C" ZEL_EXPORT ZELHeaders* zel_headers_clone(const ZELHeaders* list) {
  ZELHeaders* copy = nullptr;
  for (const ZELHeaders* node = list; node != nullptr; node = node->next) {
    auto* fresh = static_cast<ZELHeaders*>(mem_calloc(1, sizeof(ZELHeaders)));
    char* line = fresh != nullptr ? mem_strdup(node->line) : nullptr;
    if (fresh == nullptr || (line == nullptr && node->line != nullptr)) {
      mem_free(fresh);  // skipped without a message; callers judge the result
      continue;
    }
    fresh->line = line;
    fresh->next = copy;
    copy = fresh;
  }
  return copy;
}

extern "C" ZEL_EXPORT const char* zel_headers_find(const ZELHeaders* list, const char* name) {
  if (name == nullptr || list == nullptr) return nullptr;
  size_t n = std::strlen(name);
  if (n == 0) return nullptr;
  for (const ZELHeaders* node = list; node != nullptr; node = node->next) {
    const char* line = node->line;
    if (line == nullptr || std::strncmp(line, name, n) != 0) continue;
    const char* colon = std::strchr(line + n - 1, ':');
    if (colon != nullptr && colon[1] != '\0') return colon + 1;
  }
  return nullptr;
}
