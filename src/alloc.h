#pragma once
// Every allocation of the library goes through here so that a test can make
// the N-th one fail and check that the failure path reports and frees
// correctly. Memory from these functions is released with mem_free (plain
// free underneath, so records may be freed by either).
#include <cstddef>

void* mem_malloc(size_t size);
void* mem_calloc(size_t count, size_t size);
void* mem_realloc(void* ptr, size_t size);
char* mem_strdup(const char* text);
void mem_free(void* ptr);

// Test seam: the n-th allocation from now on (1 = the next one) fails, once.
// 0 disarms. Counts allocations of every thread.
void mem_fail_at(long n);
// Number of allocations made since the process started.
long mem_allocation_count();
