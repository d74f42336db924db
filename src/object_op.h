#pragma once
// Worker shared by the single-request object operations that address one
// object by bucket key and object key (delete, undelete, reset expiration,
// object details): checks, URL, exchange, status judgement.
#include <cstdio>

#include "frame.h"
#include "zel_internal.h"

struct KeyPairWorker {
  const char* tag;
  const char* decorator_name;  // logged "<name> pointer is (null)"
  const char* opt_name;        // logged "<name> pointer is (null)"
  const char* bucket_missing;  // reported when bucket_key is missing
  const char* key_missing;     // reported when key is missing
  const char* suffix;          // appended to "/buckets/%s/objects/%s"
  HttpMethod method;
  const char* content_type;
};

// Runs the exchange for `decorator`; returns the HTTP status, or -1 when no
// exchange took place. `on_success` handles status 200.
template <class Opt, class Resp, void (*FreeOpt)(Opt*)>
int run_key_pair_worker(void* raw, const KeyPairWorker& w,
                        void (*on_success)(const Exchange&, const OpDecorator<Opt>&)) {
  WorkerScope scope;
  auto* decorator = static_cast<OpDecorator<Opt>*>(raw);
  DecoratorGuard<Opt, FreeOpt> guard{decorator};
  const Opt* opt = worker_options(w.tag, decorator, w.decorator_name, w.opt_name);
  if (opt == nullptr) return -1;
  const char* missing = opt->bucket_key == nullptr ? w.bucket_missing
                        : opt->key == nullptr      ? w.key_missing
                                                   : nullptr;
  if (missing != nullptr) {
    report(opt->callback, 0, missing, decorator->user_data);
    return -1;
  }
  EscapedName bucket(opt->bucket_key), key(opt->key);
  if (!bucket.ok() || !key.ok()) {
    // Ill-formed UTF-16 never reaches a URL in an altered form.
    report(opt->callback, 0, kCannotEscapeKeys, decorator->user_data);
    return -1;
  }
  char url[kUrlBuffer] = {0};
  const long url_length =
      zel_api_url(decorator->handle, url, "/buckets/%s/objects/%s%s", bucket.get(), key.get(), w.suffix);
  Exchange exchange;
  ExchangePlan plan{decorator->handle, opt->headers, w.method, url, w.content_type, nullptr, url_length};
  if (exchange.run(plan) && exchange.status() == 200) {
    on_success(exchange, *decorator);
  } else {
    report_failure(opt->callback, exchange, decorator->user_data);
  }
  return exchange.error() != nullptr && exchange.setup_failed() ? -1 : exchange.status();
}
