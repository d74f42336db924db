#pragma once
// Captures the library's log lines during a test so that failure paths can
// be checked for their exact message and module tag.
#include <zel/zel.h>

#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace record_log {

inline std::mutex& guard() {
  static std::mutex mutex;
  return mutex;
}

inline std::vector<std::string>& lines() {
  static std::vector<std::string> captured;
  return captured;
}

inline void sink(const char* line) {
  std::lock_guard<std::mutex> lock(guard());
  lines().emplace_back(line);
}

// Messages logged under `tag` ("src\\json"), oldest first, without the time
// stamp, the source line and the closing line feed.
inline std::vector<std::string> messages(const std::string& tag) {
  std::lock_guard<std::mutex> lock(guard());
  std::vector<std::string> out;
  for (const std::string& line : lines()) {
    size_t space = line.find(' ');
    if (space == std::string::npos || line.compare(space + 1, tag.size() + 1, tag + ":") != 0) continue;
    size_t number = space + tag.size() + 2;
    size_t colon = line.find(": ", number);
    if (colon == std::string::npos) continue;
    std::string message = line.substr(colon + 2);
    if (!message.empty() && message.back() == '\n') message.pop_back();
    out.push_back(message);
  }
  return out;
}

// The last message under `tag`, or "" when none was logged.
inline std::string last(const std::string& tag) {
  std::vector<std::string> all = messages(tag);
  return all.empty() ? std::string() : all.back();
}

}  // namespace record_log

// Installs the capturing sink for one test and restores standard error after.
class LogCapture {
 public:
  LogCapture() {
    clear();
    zel_logger_init(record_log::sink);
  }
  ~LogCapture() { zel_logger_init(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  void clear() {
    std::lock_guard<std::mutex> lock(record_log::guard());
    record_log::lines().clear();
  }
};
