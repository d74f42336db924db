#pragma once
// Process-wide pool of worker threads for transfers. Workers start on
// demand up to the limit and end as soon as the queue is empty, so an idle
// library holds no threads.

// A task's argument is released by the function itself: dropped tasks (at
// cleanup) never run, and the pool does not release their arguments.
using ThreadTaskFn = void (*)(void* argument);

// Creates the pool, or on an existing one clears the stop flag and sets the
// limit. The limit, or -1.
int thread_pool_init(int limit);
// The limit, or -1 without a pool or for a limit below 1 (which would leave
// queued work without a worker for good). Lowering it never stops a
// running worker; it only keeps new ones from starting.
int thread_pool_set_size(int limit);
// Queue at the tail / at the head. 0 when queued, -1 when refused (no pool,
// stopping, no memory). A task that finds no free worker slot waits for a
// running worker.
int thread_pool_append(ThreadTaskFn function, void* argument);
int thread_pool_push(ThreadTaskFn function, void* argument);
// The stop flag, read without the lock; running transfers poll it to abort
// while the library shuts down.
int thread_pool_stopping();
// Workers running, and how many more may start; -1 without a pool.
int thread_pool_running();
int thread_pool_free_slots();
// Test seam: a worker that has found the queue empty and given its slot
// back calls the hook on its way out. nullptr removes it.
void thread_pool_set_leave_hook(void (*hook)());
// Drops every queued task, waits for running workers, removes the pool.
// Must not race with new queueing.
void thread_pool_cleanup();
