#pragma once
// Process-wide pool of reusable HTTP requests. It bounds how many requests
// transfers have out at once and keeps idle ones, with their libcurl handles
// and open connections, for the next chunk.
#include "http.h"

// Creates the pool, or on an existing pool only sets its capacity. The
// capacity, or -1 (capacity below 1, no memory, no lock).
int http_pool_init(int capacity);
// The capacity, or -1 without a pool or for a capacity below 1.
int http_pool_set_size(int capacity);
// Moves the capacity by `delta`, never below 1: a pool of zero would stall
// every transfer for good. The new capacity, or -1 without a pool.
int http_pool_adjust(int delta);
int http_pool_shrink(int n);
// A request ready for configuration, or nullptr. Waits while no request may
// be taken. Without a pool, a fresh request outside all counting.
HttpRequest* http_pool_acquire();
// Takes back a request from http_pool_acquire; it is reset and kept for
// reuse, or destroyed when the pool has no room for it (or no pool exists).
void http_pool_release(HttpRequest* request);
// capacity - in use as the pool counts it, or -1 without a pool.
int http_pool_available();
// Requests handed out and not returned, and idle requests kept; -1 without
// a pool.
int http_pool_in_use();
int http_pool_idle_count();
// Destroys the idle requests and the pool. Requests still out are destroyed
// when they come back.
void http_pool_cleanup();
