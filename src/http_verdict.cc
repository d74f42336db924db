// The one judgement of an exchange: success, or the code and message to
// report and whether another attempt may help.
#include "alloc.h"
#include "http_plan.h"
#include "json.h"

namespace {
const char* fixed_text(int32_t status, const HttpVerdictRules& rules) {
  switch (status) {
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
    case 404:
      return rules.not_found_text ? "Not Found" : nullptr;
    case 504:
      return rules.gateway_text ? "Gateway Timeout" : nullptr;
    default:
      return nullptr;
  }
}

bool listed(int32_t status, const HttpVerdictRules& rules) {
  for (size_t i = 0; i < rules.success_count; i++) {
    if (rules.success[i] == status) return true;
  }
  return false;
}
}  // namespace

HttpVerdict::HttpVerdict(const HttpExchange& exchange, const HttpVerdictRules& rules) {
  if (exchange.error() != nullptr) {
    code_ = exchange.code();
    message_ = exchange.error();
    retryable_ = exchange.retryable();
    return;
  }
  code_ = exchange.status();
  if (listed(code_, rules)) {
    success_ = true;
    return;
  }
  retryable_ = http_status_retryable(code_);
  const char* body = exchange.body();
  if (const char* fixed = fixed_text(code_, rules)) {
    message_ = fixed;
  } else if (rules.other_text != nullptr) {
    message_ = rules.other_text;
  } else if (rules.extract_reason && body != nullptr && err_reason_fromjson(body, &reason_) == 0) {
    message_ = reason_ != nullptr ? reason_ : "(null)";
  } else {
    message_ = body != nullptr ? body : "(null)";
  }
}

HttpVerdict::~HttpVerdict() { mem_free(reason_); }
