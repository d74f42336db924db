#pragma once
// The thread layer the library is written against: the operations and
// result codes of the standard C threads interface, over pthreads. The names
// live in namespace zel so they never meet the C library's own thrd_* and
// mtx_* symbols, which may be linked into the same process.
#include <locale.h>
#include <pthread.h>
#include <time.h>

namespace zel {

enum {
  thrd_error = 0,
  thrd_success = 1,
  thrd_timedout = 2,
  thrd_busy = 3,
  thrd_nomem = 4,
};

enum { mtx_plain = 0 };

struct thrd_t {
  pthread_t id;
  bool valid;
};

struct mtx_t {
  pthread_mutex_t native;
};

struct cnd_t {
  pthread_cond_t native;
};

// Static initialisers for a mutex and a condition variable that live for
// the whole process (no init or destroy call needed).
#define ZEL_MTX_INIT \
  { PTHREAD_MUTEX_INITIALIZER }
#define ZEL_CND_INIT \
  { PTHREAD_COND_INITIALIZER }

using thrd_start_t = int (*)(void*);

// thrd_success; thrd_nomem when the start record cannot be allocated (the
// handle is not written); thrd_error when the system refuses the thread
// (the handle is written as invalid).
int thrd_create(thrd_t* thread, thrd_start_t function, void* argument);
int thrd_detach(thrd_t thread);
int thrd_join(thrd_t thread, int* result);
void thrd_yield();

int mtx_init(mtx_t* mutex, int type);
int mtx_lock(mtx_t* mutex);
int mtx_trylock(mtx_t* mutex);
int mtx_unlock(mtx_t* mutex);
void mtx_destroy(mtx_t* mutex);

int cnd_init(cnd_t* cond);
int cnd_signal(cnd_t* cond);
int cnd_broadcast(cnd_t* cond);
int cnd_wait(cnd_t* cond, mtx_t* mutex);
// thrd_timedout when the absolute CLOCK_REALTIME time `until` passed first.
int cnd_timedwait(cnd_t* cond, mtx_t* mutex, const struct timespec* until);
void cnd_destroy(cnd_t* cond);

// The one way library code holds a lock: for the guard's scope.
class LockGuard {
 public:
  explicit LockGuard(mtx_t& mutex) : mutex_(mutex) { mtx_lock(&mutex_); }
  ~LockGuard() { mtx_unlock(&mutex_); }
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;
  // Waits on `cond`, releasing the lock meanwhile.
  void wait(cnd_t& cond) { cnd_wait(&cond, &mutex_); }
  int wait_until(cnd_t& cond, const struct timespec& until) { return cnd_timedwait(&cond, &mutex_, &until); }

 private:
  mtx_t& mutex_;
};

// Test seam: while a hook is installed, thrd_create first asks it; a result
// other than thrd_success is returned as if the system had refused, and no
// thread starts. nullptr removes the hook.
using thrd_create_hook_t = int (*)();
void thrd_set_create_hook(thrd_create_hook_t hook);

// The locale every thread started from now on runs on (its own setting,
// never the process's); (locale_t)0 leaves new threads on the global one.
void thrd_set_locale(locale_t locale);

}  // namespace zel

// Message for a thread-layer result code; unknown codes read as success.
const char* thread_result_message(int code);
