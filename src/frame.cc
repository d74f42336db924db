#include "frame.h"

#include <curl/curl.h>

#include <atomic>

#include "alloc.h"
#include "json.h"
#include "object.h"
#include "thread.h"
#include "util.h"

namespace {

std::atomic<int> g_running_workers{0};

const char* prepare_method(HttpRequest* request, const ExchangePlan& plan) {
  switch (plan.method) {
    case HttpMethod::get:
      return http_request_get(request, plan.url);
    case HttpMethod::del:
      return http_request_delete(request, plan.url);
    case HttpMethod::post:
      return http_request_post(request, plan.url, plan.content_type, plan.body);
    case HttpMethod::put:
      return http_request_put(request, plan.url, plan.content_type);
  }
  return "Unknown HTTP method";
}

}  // namespace

Exchange::~Exchange() { http_release(request_, response_); }

bool Exchange::run(const ExchangePlan& plan) {
  setup_failed_ = true;
  request_ = http_request_init();
  if (request_ == nullptr) {
    error_ = "Cannot initialize http request";
    return false;
  }
  HttpSettings settings = http_settings_from(plan.handle);
  http_request_configure(request_, &settings);
  http_request_set_auth(request_, plan.handle->get_token, plan.handle->free_token);
  for (const ZELHeaders* node = plan.headers; node != nullptr; node = node->next) {
    http_request_add_header(request_, node->line);
  }
  if ((error_ = prepare_method(request_, plan)) != nullptr) return false;
  response_ = http_response_init();
  if (response_ == nullptr) {
    error_ = "Cannot initialize http response";
    return false;
  }
  response_->body = http_body_init();
  if (response_->body == nullptr) {
    error_ = "Cannot initialize http response body";
    return false;
  }
  response_->body->callback = http_body_write;
  setup_failed_ = false;
  if ((error_ = http_perform(request_, response_)) != nullptr) {
    code_ = response_->status;
    return false;
  }
  code_ = response_->status;
  return true;
}

int32_t Exchange::status() const { return response_ != nullptr ? response_->status : -1; }

const char* Exchange::body() const {
  if (response_ == nullptr || response_->body == nullptr || response_->body->size == 0) return nullptr;
  return reinterpret_cast<const char*>(response_->body->data);
}

FailureText::FailureText(int32_t status, const char* body, bool extract_reason) {
  if (status == 401) {
    text_ = "Unauthorized";
  } else if (status == 403) {
    text_ = "Forbidden";
  } else if (extract_reason && body != nullptr && err_reason_fromjson(body, &reason_) == 0) {
    text_ = reason_ != nullptr ? reason_ : "(null)";
  } else {
    text_ = body != nullptr ? body : "(null)";
  }
}

FailureText::~FailureText() { mem_free(reason_); }

EscapedName::EscapedName(const char16_t* name) : text_(http_url_escape(name)) {}

EscapedName::~EscapedName() {
  if (text_ != nullptr) curl_free(text_);
}

bool parse_object_details(const char* tag, const char* body, uint32_t api_version,
                          void (*details_callback)(const ZELObjectDetails*, void*), void* user_data) {
  ZELObjectDetails* details = zel_object_details_init();
  if (details == nullptr) return false;
  bool parsed = body != nullptr && object_details_fromjson(body, details, api_version) == 0;
  if (parsed) {
    details_callback(details, user_data);
  } else {
    zel_log(nullptr, tag, __LINE__, "Cannot unmarshall json response: %s", body != nullptr ? body : "(null)");
  }
  zel_object_details_cleanup(details);
  return parsed;
}

void dispatch_detached(int (*worker)(void*), void* decorator, FreeFn free_decorator,
                       void (*report_fn)(int32_t, const char*, void*, void*), void* callback,
                       void* user_data, bool code_is_result) {
  // The worker may finish and free the decorator before thrd_create returns:
  // everything needed for a later report was copied into the arguments.
  g_running_workers.fetch_add(1);
  zel::thrd_t thread;
  int result = zel::thrd_create(&thread, worker, decorator);
  if (result != zel::thrd_success) {
    g_running_workers.fetch_sub(1);
    report_fn(code_is_result ? result : 0, thread_result_message(result), callback, user_data);
    free_decorator(decorator);
    return;
  }
  result = zel::thrd_detach(thread);
  if (result != zel::thrd_success) {
    report_fn(code_is_result ? result : 0, thread_result_message(result), callback, user_data);
  }
}

int frame_running_workers() { return g_running_workers.load(); }

WorkerScope::~WorkerScope() { g_running_workers.fetch_sub(1); }

bool copy_wide(const char16_t* source, const char16_t** target) {
  *target = nullptr;
  if (source == nullptr) return true;
  *target = wide_dup(source);
  return *target != nullptr;
}

bool copy_text(const char* source, const char** target) {
  *target = nullptr;
  if (source == nullptr) return true;
  *target = mem_strdup(source);
  return *target != nullptr;
}

bool copy_headers(const ZELHeaders* source, ZELHeaders** target) {
  *target = zel_headers_clone(source);
  return source == nullptr || *target != nullptr;
}

void free_wide(const char16_t* text) { mem_free(const_cast<char16_t*>(text)); }

void free_text(const char* text) { mem_free(const_cast<char*>(text)); }
