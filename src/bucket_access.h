#pragma once
// Shared by grant and revoke: the same options shape, a JSON body built per
// API version, one POST, and the same judgement of failures.
#include "bucket.h"
#include "frame.h"
#include "zel_internal.h"

struct AccessNames {
  const char* tag;
  const char* record;          // options copy: record allocation failed
  const char* key;             // options copy: key copy failed
  const char* permissions;     // options copy: permission list copy failed
  const char* headers;         // options copy: header list copy failed
  const char* decorator_name;  // logged "<name> pointer is (null)"
  const char* opt_name;        // logged "<name> pointer is (null)"
  const char* key_missing;     // reported when the key is missing
  const char* path;            // "/buckets/%s/grant"
};

template <class Opt>
void free_access_opt(Opt* opt) {
  if (opt == nullptr) return;
  free_wide(opt->key);
  zel_permissions_cleanup(opt->permissions);
  zel_headers_cleanup(opt->headers);
  mem_free(opt);
}

template <class Opt>
Opt* clone_access_opt(const AccessNames& n, const Opt* source) {
  auto* copy = static_cast<Opt*>(mem_calloc(1, sizeof(Opt)));
  if (copy == nullptr) {
    zel_log(nullptr, n.tag, __LINE__, "%s", n.record);
    return nullptr;
  }
  *copy = *source;
  copy->key = nullptr;
  copy->permissions = nullptr;
  copy->headers = nullptr;
  const char* failure = nullptr;
  if (!copy_wide(source->key, &copy->key)) {
    failure = n.key;
  } else if (source->permissions != nullptr &&
             (copy->permissions = permissions_clone(source->permissions)) == nullptr) {
    failure = n.permissions;
  } else if (!copy_headers(source->headers, &copy->headers)) {
    failure = n.headers;
  }
  if (failure != nullptr) {
    zel_log(nullptr, n.tag, __LINE__, "%s", failure);
    free_access_opt(copy);
    return nullptr;
  }
  return copy;
}

template <class Opt, class Resp, void (*FreeOpt)(Opt*)>
int run_access_worker(void* raw, const AccessNames& n, char* (*to_json)(const Opt*, uint32_t),
                      void (*on_success)(const Exchange&, const OpDecorator<Opt>&)) {
  WorkerScope scope;
  auto* decorator = static_cast<OpDecorator<Opt>*>(raw);
  DecoratorGuard<Opt, FreeOpt> guard{decorator};
  const Opt* opt = worker_options(n.tag, decorator, n.decorator_name, n.opt_name);
  if (opt == nullptr) return -1;
  if (opt->key == nullptr) {
    report(opt->callback, 0, n.key_missing, decorator->user_data);
    return -1;
  }
  EscapedName key(opt->key);
  if (!key.ok()) {
    report(opt->callback, 0, kCannotEscapeKeys, decorator->user_data);
    return -1;
  }
  char* body = to_json(opt, decorator->handle->api_version);
  if (body == nullptr) {
    report(opt->callback, 0, "Cannot marshall http request body to json", decorator->user_data);
    return -1;
  }
  char url[kUrlBuffer] = {0};
  const long url_length = zel_api_url(decorator->handle, url, n.path, key.get());
  Exchange exchange;
  ExchangePlan plan{decorator->handle,  opt->headers, HttpMethod::post, url,
                    "application/json", body,         url_length};
  bool answered = exchange.run(plan);
  mem_free(body);
  if (answered && exchange.status() == 200) {
    on_success(exchange, *decorator);
  } else {
    report_failure(opt->callback, exchange, decorator->user_data);
  }
  return answered ? exchange.status() : -1;
}
