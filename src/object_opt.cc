// Copies of the transfer options and the decorators that carry them to the
// worker pool. A queued transfer may start long after its entry point has
// returned and the caller has freed its own records, so everything the
// worker reads is copied here.
#include <cstring>

#include "alloc.h"
#include "log.h"
#include "object.h"
#include "util.h"

namespace {
constexpr const char* kLogTag = "src\\object";

// Each copier leaves an absent source absent and reports false only when
// memory ran out.
bool dup_wide(const char16_t* source, const char16_t** target) {
  *target = wide_dup(source);
  return source == nullptr || *target != nullptr;
}

bool dup_text(const char* source, const char** target) {
  *target = mem_strdup(source);
  return source == nullptr || *target != nullptr;
}

bool dup_range(const ZELByteRange* source, ZELByteRange** target) {
  *target = byte_range_clone(source);
  return source == nullptr || *target != nullptr;
}

bool dup_stream(const ZELStream* source, ZELStream** target) {
  *target = stream_clone(source);
  return source == nullptr || *target != nullptr;
}

size_t header_count(const ZELHeaders* list) {
  size_t count = 0;
  for (; list != nullptr; list = list->next) ++count;
  return count;
}

// The header-list copy skips lines it cannot allocate; a transfer whose
// requests silently lost a caller's header line would misbehave, so a short
// copy counts as a failure.
bool dup_headers(const ZELHeaders* source, ZELHeaders** target) {
  *target = zel_headers_clone(source);
  if (header_count(*target) == header_count(source)) return true;
  zel_headers_cleanup(*target);
  *target = nullptr;
  return false;
}

void free_wide(const char16_t* text) { mem_free(const_cast<char16_t*>(text)); }
void free_text(const char* text) { mem_free(const_cast<char*>(text)); }

// Message of the first failed field copy, or none.
const char* copy_put_fields(const ZELPutObjectOpt* opt, ZELPutObjectOpt* copy) {
  if (!dup_wide(opt->bucket_key, &copy->bucket_key))
    return "Cannot allocate memory for ZELPutObjectOpt bucket_key";
  if (!dup_wide(opt->key, &copy->key)) return "Cannot allocate memory for ZELPutObjectOpt key";
  if (!dup_text(opt->session_id, &copy->session_id))
    return "Cannot allocate memory for ZELPutObjectOpt session_id";
  if (!dup_text(opt->content_type, &copy->content_type)) {
    return "Cannot allocate memory for ZELPutObjectOpt content_type";
  }
  if (!dup_range(opt->range, &copy->range)) return "Cannot allocate memory for ZELByteRanges list";
  if (!dup_stream(opt->stream, &copy->stream)) return "Cannot allocate memory for ZELPutObjectOpt stream";
  if (!dup_headers(opt->headers, &copy->headers)) return "Cannot allocate memory for ZELPutObjectOpt headers";
  return nullptr;
}

const char* copy_get_fields(const ZELGetObjectOpt* opt, ZELGetObjectOpt* copy) {
  if (!dup_wide(opt->bucket_key, &copy->bucket_key)) {
    return "Cannot allocate memory for the ZELGetObjectOpt bucket_key";
  }
  if (!dup_wide(opt->key, &copy->key)) return "Cannot allocate memory for the ZELGetObjectOpt key";
  if (!dup_range(opt->range, &copy->range)) return "Cannot allocate memory for the ZELGetObjectOpt range";
  if (!dup_stream(opt->stream, &copy->stream)) return "Cannot allocate for the ZELGetObjectOpt stream";
  if (!dup_headers(opt->headers, &copy->headers))
    return "Cannot allocate memory for the ZELGetObjectOpt headers";
  return nullptr;
}

const char* copy_get_by_url_fields(const ZELGetObjectByURLOpt* opt, ZELGetObjectByURLOpt* copy) {
  if (!dup_wide(opt->download_url, &copy->download_url)) {
    return "Cannot allocate memory for the ZELGetObjectByURLOpt download_url";
  }
  copy->authenticate = opt->authenticate;
  if (!dup_range(opt->range, &copy->range))
    return "Cannot allocate memory for the ZELGetObjectByURLOpt range";
  if (!dup_stream(opt->stream, &copy->stream)) return "Cannot allocate for the ZELGetObjectByURLOpt stream";
  if (!dup_headers(opt->headers, &copy->headers)) {
    return "Cannot allocate memory for the ZELGetObjectByURLOpt headers";
  }
  return nullptr;
}

// The three decorators share one shape around their options copy.
template <class Decorator, class Opt>
Decorator* decorator_init(const ZEL* handle, const Opt* opt, void* user_data, Opt* (*clone)(const Opt*),
                          void (*cleanup)(Decorator*), const char* message) {
  auto* decorator = static_cast<Decorator*>(mem_calloc(1, sizeof(Decorator)));
  if (decorator == nullptr) {
    ZLOG("%s", message);
    return nullptr;
  }
  if ((handle != nullptr && (decorator->handle = zel_clone(handle)) == nullptr) ||
      (opt != nullptr && (decorator->opt = clone(opt)) == nullptr)) {
    cleanup(decorator);
    return nullptr;
  }
  decorator->user_data = user_data;
  return decorator;
}

template <class Decorator>
void decorator_cleanup(Decorator* decorator, void (*opt_cleanup)(decltype(decorator->opt))) {
  if (decorator == nullptr) return;
  zel_cleanup(decorator->handle);
  opt_cleanup(decorator->opt);
  mem_free(decorator);
}

}  // namespace

ZELPutObjectOpt* put_object_opt_clone(const ZELPutObjectOpt* opt) {
  if (opt == nullptr) return nullptr;
  auto* copy = static_cast<ZELPutObjectOpt*>(mem_calloc(1, sizeof(ZELPutObjectOpt)));
  if (copy == nullptr) {
    ZLOG("Cannot allocate memory for the cloned ZELPutObjectOpt");
    return nullptr;
  }
  if (const char* failure = copy_put_fields(opt, copy)) {
    ZLOG("%s", failure);
    put_object_opt_cleanup(copy);
    return nullptr;
  }
  copy->callback = opt->callback;
  copy->chunk_failed_callback = opt->chunk_failed_callback;
  copy->details_callback = opt->details_callback;
  copy->chunk_done_callback = opt->chunk_done_callback;
  copy->progress_callback = opt->progress_callback;
  copy->stats_callback = opt->stats_callback;
  return copy;
}

void put_object_opt_cleanup(ZELPutObjectOpt* opt) {
  if (opt == nullptr) return;
  free_wide(opt->bucket_key);
  free_wide(opt->key);
  free_text(opt->session_id);
  free_text(opt->content_type);
  byte_range_cleanup(opt->range);
  zel_stream_cleanup(opt->stream);
  zel_headers_cleanup(opt->headers);
  mem_free(opt);
}

ZELGetObjectOpt* get_object_opt_clone(const ZELGetObjectOpt* opt) {
  if (opt == nullptr) return nullptr;
  auto* copy = static_cast<ZELGetObjectOpt*>(mem_calloc(1, sizeof(ZELGetObjectOpt)));
  if (copy == nullptr) {
    ZLOG("Cannot allocate memory for the cloned ZELGetObjectOpt");
    return nullptr;
  }
  if (const char* failure = copy_get_fields(opt, copy)) {
    ZLOG("%s", failure);
    get_object_opt_cleanup(copy);
    return nullptr;
  }
  copy->size_unknown = opt->size_unknown;
  copy->callback = opt->callback;
  copy->done_callback = opt->done_callback;
  copy->progress_callback = opt->progress_callback;
  copy->stats_callback = opt->stats_callback;
  return copy;
}

void get_object_opt_cleanup(ZELGetObjectOpt* opt) {
  if (opt == nullptr) return;
  free_wide(opt->bucket_key);
  free_wide(opt->key);
  byte_range_cleanup(opt->range);
  zel_stream_cleanup(opt->stream);
  zel_headers_cleanup(opt->headers);
  mem_free(opt);
}

ZELGetObjectByURLOpt* get_object_by_url_opt_clone(const ZELGetObjectByURLOpt* opt) {
  if (opt == nullptr) return nullptr;
  auto* copy = static_cast<ZELGetObjectByURLOpt*>(mem_calloc(1, sizeof(ZELGetObjectByURLOpt)));
  if (copy == nullptr) {
    ZLOG("Cannot allocate memory for the cloned ZELGetObjectByURLOpt");
    return nullptr;
  }
  if (const char* failure = copy_get_by_url_fields(opt, copy)) {
    ZLOG("%s", failure);
    get_object_by_url_opt_cleanup(copy);
    return nullptr;
  }
  copy->size_unknown = opt->size_unknown;
  copy->callback = opt->callback;
  copy->done_callback = opt->done_callback;
  copy->progress_callback = opt->progress_callback;
  copy->stats_callback = opt->stats_callback;
  return copy;
}

void get_object_by_url_opt_cleanup(ZELGetObjectByURLOpt* opt) {
  if (opt == nullptr) return;
  free_wide(opt->download_url);
  byte_range_cleanup(opt->range);
  zel_stream_cleanup(opt->stream);
  zel_headers_cleanup(opt->headers);
  mem_free(opt);
}

ZELPutObjectDecorator* put_object_decorator_init(const ZEL* handle, const ZELPutObjectOpt* opt, uint64_t size,
                                                 void* user_data) {
  auto* decorator = decorator_init<ZELPutObjectDecorator>(handle, opt, user_data, put_object_opt_clone,
                                                          put_object_decorator_cleanup,
                                                          "Cannot allocate memory for ZELPutObjectDecorator");
  if (decorator != nullptr) decorator->size = size;
  return decorator;
}

void put_object_decorator_cleanup(ZELPutObjectDecorator* decorator) {
  decorator_cleanup(decorator, put_object_opt_cleanup);
}

ZELGetObjectDecorator* get_object_decorator_init(const ZEL* handle, const ZELGetObjectOpt* opt,
                                                 void* user_data) {
  return decorator_init<ZELGetObjectDecorator>(handle, opt, user_data, get_object_opt_clone,
                                               get_object_decorator_cleanup,
                                               "Cannot allocate memory for ZELGetObjectDecorator");
}

void get_object_decorator_cleanup(ZELGetObjectDecorator* decorator) {
  decorator_cleanup(decorator, get_object_opt_cleanup);
}

ZELGetObjectByURLDecorator* get_object_by_url_decorator_init(const ZEL* handle,
                                                             const ZELGetObjectByURLOpt* opt,
                                                             void* user_data) {
  return decorator_init<ZELGetObjectByURLDecorator>(handle, opt, user_data, get_object_by_url_opt_clone,
                                                    get_object_by_url_decorator_cleanup,
                                                    "Cannot allocate memory for ZELGetObjectByURLDecorator");
}

void get_object_by_url_decorator_cleanup(ZELGetObjectByURLDecorator* decorator) {
  decorator_cleanup(decorator, get_object_by_url_opt_cleanup);
}
