#include "frame.h"

#include <curl/curl.h>
#include <pthread.h>

#include <atomic>
#include <cstring>

#include "alloc.h"
#include "json.h"
#include "object.h"
#include "thread.h"
#include "util.h"

namespace {

std::atomic<int> g_running_workers{0};
pthread_mutex_t g_workers_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_workers_done = PTHREAD_COND_INITIALIZER;

}  // namespace

bool Exchange::run(const ExchangePlan& p) {
  HttpPlan plan;
  plan.method = p.method;
  plan.url = p.url;
  plan.url_length = p.url_length;
  plan.settings = http_settings_from(p.handle);
  plan.get_token = p.handle->get_token;
  plan.free_token = p.handle->free_token;
  plan.headers = p.headers;
  plan.content_type = p.content_type;
  plan.body = p.body;
  plan.body_size = p.body != nullptr ? strlen(p.body) : 0;
  return HttpExchange::run(plan);
}

EscapedName::EscapedName(const char16_t* name) : text_(http_url_escape(name)) {}

EscapedName::~EscapedName() {
  if (text_ != nullptr) http_text_free(text_);
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
                       void (*report_fn)(int32_t, const char*, void*, void*), void* callback, void* user_data,
                       bool code_is_result) {
  // The worker may finish and free the decorator before thrd_create returns:
  // everything needed for a later report was copied into the arguments.
  g_running_workers.fetch_add(1);
  zel::thrd_t thread;
  int result = zel::thrd_create(&thread, worker, decorator);
  if (result != zel::thrd_success) {
    pthread_mutex_lock(&g_workers_lock);
    if (g_running_workers.fetch_sub(1) == 1) pthread_cond_broadcast(&g_workers_done);
    pthread_mutex_unlock(&g_workers_lock);
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

void frame_wait_workers() {
  pthread_mutex_lock(&g_workers_lock);
  while (g_running_workers.load() > 0) pthread_cond_wait(&g_workers_done, &g_workers_lock);
  pthread_mutex_unlock(&g_workers_lock);
}

WorkerScope::~WorkerScope() {
  // The count changes under the lock so that a waiter cannot miss the
  // wake-up between its test and its wait.
  pthread_mutex_lock(&g_workers_lock);
  if (g_running_workers.fetch_sub(1) == 1) pthread_cond_broadcast(&g_workers_done);
  pthread_mutex_unlock(&g_workers_lock);
}

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
