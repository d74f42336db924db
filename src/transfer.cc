// Pieces both transfer engines share.
#include "transfer.h"

#include <pthread.h>

#include <cstring>

#include "alloc.h"
#include "httppool.h"
#include "log.h"

namespace {
constexpr const char* kLogTag = "src\\transfer";

// Large enough that a 5 MiB chunk moves in a handful of file calls, small
// enough that eight requests in flight stay far below the memory budget.
constexpr long kDownloadBuffer = 512L * 1024;
constexpr long kUploadBuffer = 512L * 1024;

// One queued task that has not started. The worker pool frees its own task
// records when it drops them at shutdown, but not their arguments; this
// list is how the arguments are found again.
struct Pending {
  ThreadTaskFn function;
  void* argument;
  TransferDropFn drop;
  Pending* prev;
  Pending* next;
};

pthread_mutex_t g_pending_lock = PTHREAD_MUTEX_INITIALIZER;
Pending* g_pending = nullptr;
int g_pending_count = 0;

void pending_link(Pending* node) {
  pthread_mutex_lock(&g_pending_lock);
  node->prev = nullptr;
  node->next = g_pending;
  if (g_pending != nullptr) g_pending->prev = node;
  g_pending = node;
  g_pending_count++;
  pthread_mutex_unlock(&g_pending_lock);
}

void pending_unlink(Pending* node) {
  pthread_mutex_lock(&g_pending_lock);
  if (node->prev != nullptr) node->prev->next = node->next;
  if (node->next != nullptr) node->next->prev = node->prev;
  if (g_pending == node) g_pending = node->next;
  g_pending_count--;
  pthread_mutex_unlock(&g_pending_lock);
}

// The task the worker pool actually runs: once started, the argument is
// the function's to release, so it leaves the list first.
void pending_start(void* raw) {
  auto* node = static_cast<Pending*>(raw);
  pending_unlink(node);
  ThreadTaskFn function = node->function;
  void* argument = node->argument;
  mem_free(node);
  function(argument);
}
}  // namespace

int transfer_enqueue(ThreadTaskFn function, void* argument, TransferDropFn drop, bool at_head) {
  auto* node = static_cast<Pending*>(mem_malloc(sizeof(Pending)));
  if (node == nullptr) return -1;
  node->function = function;
  node->argument = argument;
  node->drop = drop;
  // Linked before it is queued: a worker may start it at once.
  pending_link(node);
  int queued = at_head ? thread_pool_push(pending_start, node) : thread_pool_append(pending_start, node);
  if (queued < 0) {
    pending_unlink(node);
    mem_free(node);
    return -1;
  }
  return 0;
}

void transfer_release_dropped() {
  pthread_mutex_lock(&g_pending_lock);
  Pending* node = g_pending;
  g_pending = nullptr;
  g_pending_count = 0;
  pthread_mutex_unlock(&g_pending_lock);
  // Dropping one argument may finish a transfer whose other tasks are
  // further down the list; each release only touches its own argument and
  // the transfer it counts into.
  while (node != nullptr) {
    Pending* next = node->next;
    if (node->drop != nullptr) node->drop(node->argument);
    mem_free(node);
    node = next;
  }
}

int transfer_pending_count() {
  pthread_mutex_lock(&g_pending_lock);
  int count = g_pending_count;
  pthread_mutex_unlock(&g_pending_lock);
  return count;
}

const char* transfer_status_text(int status) {
  switch (status) {
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 504:
      http_pool_shrink(1);
      return "Gateway Timeout";
    default:
      return nullptr;
  }
}

bool transfer_may_retry(int status, uint32_t attempt, uint32_t max_retries) {
  if (status == 401 || status == 403 || status == 404 || status == kStatusAborted) return false;
  if (thread_pool_stopping()) return false;
  return attempt < max_retries;
}

int transfer_progress_step(ZELTransferProgress* data, uint64_t count, bool may_shrink) {
  if (data == nullptr || data->progress_callback == nullptr || data->retry) return thread_pool_stopping();
  ProgressFigures figures{};
  if (!progress_report(data, count, may_shrink, &figures)) return thread_pool_stopping();
  return data->progress_callback(figures.transferred, figures.total, data->user_data);
}

const char* transfer_attach_hook(HttpRequest* request, curl_xferinfo_callback hook,
                                 ZELTransferProgress* data) {
  HttpProgress* progress = http_progress_init();
  if (progress == nullptr) {
    mem_free(data);
    return "Cannot initialize http progress";
  }
  progress->data = data;
  progress->function = hook;
  request->progress = progress;
  return nullptr;
}

void transfer_tune_upload(HttpRequest* request) {
  if (curl_easy_setopt(request->curl, CURLOPT_UPLOAD_BUFFERSIZE, kUploadBuffer) != CURLE_OK) {
    ZLOG("Cannot enlarge the upload buffer");
  }
}

void transfer_tune_download(HttpRequest* request) {
  if (curl_easy_setopt(request->curl, CURLOPT_BUFFERSIZE, kDownloadBuffer) != CURLE_OK) {
    ZLOG("Cannot enlarge the download buffer");
  }
}

const char* transfer_error_text(int error) { return error != 0 ? std::strerror(error) : nullptr; }
