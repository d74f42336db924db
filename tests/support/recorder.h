#pragma once
// Turns callbacks from library threads into events a test can wait for.
// Pass the Recorder as user_data and on_status<Resp> / on_done as the
// options' callbacks. Header-only: the support library does not link zel.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace zeltest {

struct Event {
  std::string kind;  // "callback", "done", "details", ...
  int32_t code = 0;
  std::string message;
};

// Collects callback events; safe to call from any thread.
class Recorder {
 public:
  void add(Event event) {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(std::move(event));
    changed_.notify_all();
  }
  // Waits until at least `count` events arrived; false on timeout.
  bool wait_for(size_t count, std::chrono::seconds timeout = std::chrono::seconds(30)) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return events_.size() >= count; });
  }
  std::vector<Event> events() {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }
  // The single event of a finished call; fails the test when there is not
  // exactly one after a short grace period for stray second reports.
  Event only() {
    EXPECT_TRUE(wait_for(1)) << "no callback arrived";
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::vector<Event> all = events();
    EXPECT_EQ(all.size(), 1u) << "expected exactly one report";
    return all.empty() ? Event{"none", -999, ""} : all.front();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Event> events_;
};

template <class Resp>
void on_status(const Resp* resp, void* user_data) {
  static_cast<Recorder*>(user_data)->add({"callback", resp->code, resp->message ? resp->message : "<null>"});
}
inline void on_done(void* user_data) { static_cast<Recorder*>(user_data)->add({"done", 0, ""}); }

}  // namespace zeltest
