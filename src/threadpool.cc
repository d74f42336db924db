// The worker-thread pool.
#include "threadpool.h"

#include <atomic>

#include "alloc.h"
#include "log.h"
#include "thread.h"

namespace {
constexpr const char* kLogTag = "src\\threadpool";

struct Task {
  ThreadTaskFn function;
  void* argument;
  Task* next;
};

struct ThreadPool;

// One started worker. Workers are joined rather than detached, so that
// shut-down returns only once every one of them has really ended.
struct WorkerRecord {
  ThreadPool* pool;
  zel::thrd_t thread;
  WorkerRecord* next;
};

struct ThreadPool {
  zel::mtx_t lock;  // guards the queue and the counters
  zel::cnd_t idle;  // signalled when the last running worker leaves
  Task* first;
  Task* last;
  unsigned limit;
  int running;
  int free_slots;
  WorkerRecord* finished;  // workers that have left, still to be joined
};

std::atomic<ThreadPool*> g_pool{nullptr};
std::atomic<int> g_stopping{0};
std::atomic<void (*)()> g_leave_hook{nullptr};

// With the lock held: slots follow the limit and the running count, so a
// lowered limit keeps new workers out until enough have ended.
void recount(ThreadPool* pool) {
  long free_slots = static_cast<long>(pool->limit) - pool->running;
  pool->free_slots = free_slots > 0 ? static_cast<int>(free_slots) : 0;
}

// With the lock held.
void leave(ThreadPool* pool, WorkerRecord* self) {
  self->next = pool->finished;
  pool->finished = self;
  pool->running--;
  recount(pool);
  if (pool->running == 0) zel::cnd_broadcast(&pool->idle);
}

// With the lock held: the next task, or nullptr when the queue is empty.
Task* take(ThreadPool* pool) {
  Task* task = pool->first;
  if (task == nullptr) return nullptr;
  pool->first = task->next;
  if (pool->first == nullptr) pool->last = nullptr;
  return task;
}

int worker(void* raw) {
  auto* self = static_cast<WorkerRecord*>(raw);
  ThreadPool* pool = self->pool;
  for (;;) {
    Task* task = nullptr;
    {
      zel::LockGuard lock(pool->lock);
      task = g_stopping.load() ? nullptr : take(pool);
      // The slot goes back in the same hold of the lock in which the queue
      // was found empty, so a task queued right after finds the slot free and
      // starts a worker of its own instead of waiting for the next one.
      if (task == nullptr) leave(pool, self);
    }
    if (task == nullptr) {
      void (*hook)() = g_leave_hook.load();
      if (hook != nullptr) hook();
      return 0;
    }
    ThreadTaskFn function = task->function;
    void* argument = task->argument;
    mem_free(task);
    function(argument);
  }
}

// With the lock held.
void link(ThreadPool* pool, Task* task, bool at_head) {
  if (at_head) {
    task->next = pool->first;
    pool->first = task;
    if (pool->last == nullptr) pool->last = task;
  } else {
    if (pool->last != nullptr) pool->last->next = task;
    pool->last = task;
    if (pool->first == nullptr) pool->first = task;
  }
}

// With the lock held: starts a worker when a slot is free. A worker that
// cannot start leaves the task queued for the running ones; its thread
// result is returned for the caller to log once the lock is released (the
// log sink is the application's code).
int start_worker(ThreadPool* pool) {
  if (pool->free_slots <= 0) return zel::thrd_success;
  auto* record = static_cast<WorkerRecord*>(mem_calloc(1, sizeof(WorkerRecord)));
  if (record == nullptr) return zel::thrd_nomem;
  record->pool = pool;
  // The worker can only leave under the lock this caller holds, so the
  // record is complete before anyone reads its thread.
  int result = zel::thrd_create(&record->thread, worker, record);
  if (result != zel::thrd_success) {
    mem_free(record);
    return result;
  }
  pool->running++;
  recount(pool);
  return zel::thrd_success;
}

// Joins the workers taken off the finished list (each has left already, so
// the joins are short) and frees their records. Called without the lock.
void join_finished(WorkerRecord* list) {
  while (list != nullptr) {
    WorkerRecord* next = list->next;
    zel::thrd_join(list->thread, nullptr);
    mem_free(list);
    list = next;
  }
}

int enqueue(ThreadTaskFn function, void* argument, bool at_head) {
  ThreadPool* pool = g_pool.load();
  if (pool == nullptr || g_stopping.load() || function == nullptr) return -1;
  auto* task = static_cast<Task*>(mem_malloc(sizeof(Task)));
  if (task == nullptr) {
    ZLOG("Cannot allocate memory for thread task");
    return -1;
  }
  task->function = function;
  task->argument = argument;
  task->next = nullptr;
  WorkerRecord* finished = nullptr;
  bool stopping = false;
  int started = zel::thrd_success;
  {
    zel::LockGuard lock(pool->lock);
    // A worker's own task may race the shut-down; the flag is written under
    // this lock, so this check cannot miss it and no task outlives the pool.
    stopping = g_stopping.load() != 0;
    if (!stopping) {
      link(pool, task, at_head);
      started = start_worker(pool);
      finished = pool->finished;
      pool->finished = nullptr;
    }
  }
  if (stopping) {
    mem_free(task);
    return -1;
  }
  if (started != zel::thrd_success) ZLOG("Cannot create a new thread: %s", thread_result_message(started));
  join_finished(finished);
  return 0;
}

int read_counter(int ThreadPool::*field) {
  ThreadPool* pool = g_pool.load();
  if (pool == nullptr) return -1;
  zel::LockGuard lock(pool->lock);
  int value = pool->*field;
  return value;
}
}  // namespace

int thread_pool_init(int limit) {
  if (limit < 1) return -1;
  if (g_pool.load() == nullptr) {
    auto* pool = static_cast<ThreadPool*>(mem_calloc(1, sizeof(ThreadPool)));
    if (pool == nullptr) {
      ZLOG("Cannot initialize thread pool");
      return -1;
    }
    if (zel::mtx_init(&pool->lock, zel::mtx_plain) != zel::thrd_success) {
      ZLOG("%s", thread_result_message(zel::thrd_error));
      mem_free(pool);
      return -1;
    }
    if (zel::cnd_init(&pool->idle) != zel::thrd_success) {
      ZLOG("%s", thread_result_message(zel::thrd_error));
      zel::mtx_destroy(&pool->lock);
      mem_free(pool);
      return -1;
    }
    g_pool.store(pool);
  }
  g_stopping.store(0);
  return thread_pool_set_size(limit);
}

int thread_pool_set_size(int limit) {
  ThreadPool* pool = g_pool.load();
  if (pool == nullptr) {
    ZLOG("Thread pool is not initialized");
    return -1;
  }
  if (limit < 1) {
    ZLOG("Thread pool size %d is below 1", limit);
    return -1;
  }
  zel::LockGuard lock(pool->lock);
  pool->limit = static_cast<unsigned>(limit);
  recount(pool);
  return limit;
}

int thread_pool_append(ThreadTaskFn function, void* argument) { return enqueue(function, argument, false); }

int thread_pool_push(ThreadTaskFn function, void* argument) { return enqueue(function, argument, true); }

void thread_pool_set_leave_hook(void (*hook)()) { g_leave_hook.store(hook); }

int thread_pool_stopping() { return g_stopping.load(); }

int thread_pool_running() { return read_counter(&ThreadPool::running); }

int thread_pool_free_slots() { return read_counter(&ThreadPool::free_slots); }

void thread_pool_cleanup() {
  ThreadPool* pool = g_pool.load();
  if (pool == nullptr) return;
  Task* task = nullptr;
  {
    zel::LockGuard lock(pool->lock);
    g_stopping.store(1);
    task = pool->first;
    pool->first = pool->last = nullptr;
  }
  while (task != nullptr) {
    Task* next = task->next;
    mem_free(task);
    task = next;
  }
  WorkerRecord* finished = nullptr;
  {
    zel::LockGuard lock(pool->lock);
    while (pool->running > 0) lock.wait(pool->idle);
    finished = pool->finished;
    pool->finished = nullptr;
  }
  join_finished(finished);
  g_pool.store(nullptr);
  zel::cnd_destroy(&pool->idle);
  zel::mtx_destroy(&pool->lock);
  mem_free(pool);
}
