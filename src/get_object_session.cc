#include <cstdio>
#include <cstring>

#include "frame.h"
#include "object.h"
#include "zel_internal.h"

namespace {
constexpr const char* kLogTag = "src\\get_object_session";
using Decorator = OpDecorator<ZELGetObjectSessionOpt>;

void free_opt(ZELGetObjectSessionOpt* opt) {
  if (opt == nullptr) return;
  free_wide(opt->bucket_key);
  free_wide(opt->key);
  free_text(opt->session_id);
  zel_headers_cleanup(opt->headers);
  mem_free(opt);
}

ZELGetObjectSessionOpt* clone_opt(const ZELGetObjectSessionOpt* source) {
  auto* copy = static_cast<ZELGetObjectSessionOpt*>(mem_calloc(1, sizeof(ZELGetObjectSessionOpt)));
  if (copy == nullptr) {
    ZLOG("Cannot allocate memory for ZELGetObjectSessionOpt");
    return nullptr;
  }
  *copy = *source;
  copy->bucket_key = copy->key = nullptr;
  copy->session_id = nullptr;
  copy->headers = nullptr;
  const char* failure = nullptr;
  if (!copy_wide(source->bucket_key, &copy->bucket_key)) {
    failure = "Cannot allocate memory for ZELGetObjectSessionOpt bucket_key";
  } else if (!copy_wide(source->key, &copy->key)) {
    failure = "Cannot allocate memory for ZELGetObjectSessionOpt key";
  } else if (!copy_text(source->session_id, &copy->session_id)) {
    failure = "Cannot allocate memory for ZELGetObjectSessionOpt session_id";
  } else if (!copy_headers(source->headers, &copy->headers)) {
    failure = "Cannot clone the ZELGetObjectSessionOpt headers";
  }
  if (failure != nullptr) {
    ZLOG("%s", failure);
    free_opt(copy);
    return nullptr;
  }
  return copy;
}

// Fills the session from the answer's range header and hands it over.
void deliver_session(const Exchange& exchange, const Decorator& decorator) {
  const ZELGetObjectSessionOpt* opt = decorator.opt;
  if (opt->session_callback == nullptr) return;
  ZELObjectSession* session = zel_object_session_init();
  if (session == nullptr) {
    report(opt->callback, 0, "Cannot allocate memory for ZELObjectSession", decorator.user_data);
    return;
  }
  char* value = http_response_range(exchange.response());
  bool filled = copy_wide(opt->bucket_key, const_cast<const char16_t**>(&session->bucket_key)) &&
                copy_wide(opt->key, const_cast<const char16_t**>(&session->key)) &&
                copy_text(opt->session_id, const_cast<const char**>(&session->session_id));
  if (!filled) {
    report(opt->callback, 0, "Cannot allocate memory for ZELObjectSession", decorator.user_data);
  } else if (byte_ranges_from_header(value, session->ranges) != 0) {
    ZLOG("Cannot parse range header response: %s", value != nullptr ? value : "(null)");
    report(opt->callback, exchange.status(), "Cannot parse range header", decorator.user_data);
  } else {
    opt->session_callback(session, decorator.user_data);
  }
  mem_free(value);
  zel_object_session_cleanup(session);
}

const char* missing_field(const ZELGetObjectSessionOpt* opt) {
  if (opt->bucket_key == nullptr) return "ZELGetObjectSessionOpt bucket_key is (null)";
  if (opt->key == nullptr) return "ZELGetObjectSessionOpt object key is (null)";
  if (opt->session_id == nullptr) return "ZELGetObjectSessionOpt session id is (null)";
  // The id goes into the path as it stands; one that would end the path,
  // start a query or fragment, or read as an escape would address
  // something else.
  for (const char* c = opt->session_id; *c != '\0'; c++) {
    auto byte = static_cast<unsigned char>(*c);
    if (byte <= 0x20 || byte == 0x7f || std::strchr("/?#%", byte) != nullptr)
      return "The session id holds characters a URL path cannot carry as they are";
  }
  return nullptr;
}

int worker(void* raw) {
  WorkerScope scope;
  auto* decorator = static_cast<Decorator*>(raw);
  DecoratorGuard<ZELGetObjectSessionOpt, free_opt> guard{decorator};
  const ZELGetObjectSessionOpt* opt =
      worker_options(kLogTag, decorator, "ZELGetObjectSessionDecorator", "ZELGetObjectSessionOpt");
  if (opt == nullptr) return -1;
  if (const char* missing = missing_field(opt)) {
    report(opt->callback, 0, missing, decorator->user_data);
    return -1;
  }
  EscapedName bucket(opt->bucket_key), key(opt->key);
  if (!bucket.ok() || !key.ok()) {
    report(opt->callback, 0, kCannotEscapeKeys, decorator->user_data);
    return -1;
  }
  char url[kUrlBuffer] = {0};
  const long url_length = zel_api_url(decorator->handle, url, "/buckets/%s/objects/%s/status/%s",
                                      bucket.get(), key.get(), opt->session_id);
  Exchange exchange;
  ExchangePlan plan{decorator->handle, opt->headers, HttpMethod::get, url, nullptr, nullptr, url_length};
  bool answered = exchange.run(plan);
  if (answered && (exchange.status() == 200 || exchange.status() == 202)) {
    deliver_session(exchange, *decorator);
  } else {
    report_failure(opt->callback, exchange, decorator->user_data);
  }
  return answered ? exchange.status() : -1;
}
}  // namespace

extern "C" ZEL_EXPORT void zel_get_object_session(ZEL* handle, const ZELGetObjectSessionOpt* opt,
                                                  void* user_data) {
  static const EntryConfig cfg{"src\\object",
                               "ZELGetObjectSessionOpt",
                               "ZELGetObjectSessionDecorator",
                               "Cannot allocate memory for ZELGetObjectSessionDecorator",
                               true,
                               false,
                               false};
  start_operation<ZELGetObjectSessionOpt, ZELGetObjectSessionResp, clone_opt, free_opt>(cfg, handle, opt,
                                                                                        user_data, worker);
}
