#include "thread.h"

#include <sched.h>

#include <atomic>
#include <cerrno>

#include "alloc.h"

namespace zel {
namespace {

std::atomic<thrd_create_hook_t> g_create_hook{nullptr};
std::atomic<locale_t> g_locale{static_cast<locale_t>(0)};

struct StartRecord {
  thrd_start_t function;
  void* argument;
};

void* trampoline(void* raw) {
  StartRecord start = *static_cast<StartRecord*>(raw);
  mem_free(raw);
  locale_t locale = g_locale.load();
  if (locale != static_cast<locale_t>(0)) uselocale(locale);
  int result = start.function(start.argument);
  return reinterpret_cast<void*>(static_cast<intptr_t>(result));
}

}  // namespace

void thrd_set_create_hook(thrd_create_hook_t hook) { g_create_hook.store(hook); }

void thrd_set_locale(locale_t locale) { g_locale.store(locale); }

int thrd_create(thrd_t* thread, thrd_start_t function, void* argument) {
  if (thread == nullptr || function == nullptr) return thrd_error;
  thrd_create_hook_t hook = g_create_hook.load();
  if (hook != nullptr) {
    int injected = hook();
    if (injected == thrd_nomem) return thrd_nomem;
    if (injected != thrd_success) {
      thread->valid = false;
      return injected;
    }
  }
  auto* start = static_cast<StartRecord*>(mem_malloc(sizeof(StartRecord)));
  if (start == nullptr) return thrd_nomem;
  start->function = function;
  start->argument = argument;
  pthread_t id;
  int rc = pthread_create(&id, nullptr, trampoline, start);
  if (rc != 0) {
    mem_free(start);
    thread->valid = false;
    return rc == ENOMEM ? thrd_nomem : thrd_error;
  }
  thread->id = id;
  thread->valid = true;
  return thrd_success;
}

int thrd_detach(thrd_t thread) {
  if (!thread.valid) return thrd_error;
  return pthread_detach(thread.id) == 0 ? thrd_success : thrd_error;
}

int thrd_join(thrd_t thread, int* result) {
  if (!thread.valid) return thrd_error;
  void* exit_value = nullptr;
  if (pthread_join(thread.id, &exit_value) != 0) return thrd_error;
  if (result != nullptr) *result = static_cast<int>(reinterpret_cast<intptr_t>(exit_value));
  return thrd_success;
}

void thrd_yield() { sched_yield(); }

int mtx_init(mtx_t* mutex, int type) {
  if (mutex == nullptr || type != mtx_plain) return thrd_error;
  return pthread_mutex_init(&mutex->native, nullptr) == 0 ? thrd_success : thrd_error;
}

int mtx_lock(mtx_t* mutex) {
  if (mutex == nullptr) return thrd_error;
  return pthread_mutex_lock(&mutex->native) == 0 ? thrd_success : thrd_error;
}

int mtx_trylock(mtx_t* mutex) {
  if (mutex == nullptr) return thrd_error;
  int rc = pthread_mutex_trylock(&mutex->native);
  if (rc == 0) return thrd_success;
  return rc == EBUSY ? thrd_busy : thrd_error;
}

int mtx_unlock(mtx_t* mutex) {
  if (mutex == nullptr) return thrd_error;
  return pthread_mutex_unlock(&mutex->native) == 0 ? thrd_success : thrd_error;
}

void mtx_destroy(mtx_t* mutex) {
  if (mutex != nullptr) pthread_mutex_destroy(&mutex->native);
}

int cnd_init(cnd_t* cond) {
  if (cond == nullptr) return thrd_error;
  return pthread_cond_init(&cond->native, nullptr) == 0 ? thrd_success : thrd_error;
}

int cnd_signal(cnd_t* cond) { return pthread_cond_signal(&cond->native) == 0 ? thrd_success : thrd_error; }

int cnd_broadcast(cnd_t* cond) {
  return pthread_cond_broadcast(&cond->native) == 0 ? thrd_success : thrd_error;
}

int cnd_wait(cnd_t* cond, mtx_t* mutex) {
  return pthread_cond_wait(&cond->native, &mutex->native) == 0 ? thrd_success : thrd_error;
}

int cnd_timedwait(cnd_t* cond, mtx_t* mutex, const struct timespec* until) {
  int rc = pthread_cond_timedwait(&cond->native, &mutex->native, until);
  if (rc == ETIMEDOUT) return thrd_timedout;
  return rc == 0 ? thrd_success : thrd_error;
}

void cnd_destroy(cnd_t* cond) {
  if (cond != nullptr) pthread_cond_destroy(&cond->native);
}

}  // namespace zel

const char* thread_result_message(int code) {
  switch (code) {
    case zel::thrd_error:
      return "The requested operation failed";
    case zel::thrd_timedout:
      return "The time specified in the call was reached without acquiring the requested resource";
    case zel::thrd_busy:
      return "The requested operation failed because a return function is already in use";
    case zel::thrd_nomem:
      return "The requested operation failed because it was unable to allocate memory";
    default:
      return "The requested operation succeeded";
  }
}
