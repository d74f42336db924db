#pragma once
// Counting the process's threads, for tests that check no library thread
// outlives its work.
#include <dirent.h>

#include <chrono>
#include <thread>

namespace zeltest {

// Threads of this process now. The first call starts and joins one thread
// so that a sanitizer runtime which spawns its own helper thread on the
// first thread creation has done so before any baseline is taken.
inline int thread_count() {
  static const bool warmed = [] {
    std::thread([] {}).join();
    return true;
  }();
  (void)warmed;
  int count = 0;
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return -1;
  while (dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
  closedir(dir);
  return count;
}

// Polls `done` every millisecond; false when `limit` passed first.
template <typename Predicate>
bool eventually(Predicate done, std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) {
  auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace zeltest
