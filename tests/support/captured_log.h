#pragma once
// Collects the library's log lines for the lifetime of one object, so a
// test can check which messages were written (and how often). Header-only:
// the support library does not link zel itself.
#include <zel/zel.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace zeltest {

class CapturedLog {
 public:
  CapturedLog() {
    std::lock_guard<std::mutex> guard(mutex());
    lines().clear();
    zel_logger_init(&CapturedLog::sink);
  }
  ~CapturedLog() { zel_logger_init(nullptr); }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  std::vector<std::string> all() const {
    std::lock_guard<std::mutex> guard(mutex());
    return lines();
  }
  // Lines whose message (the text after "<tag>:<line>: ") is exactly `message`.
  int count(const std::string& message) const {
    std::lock_guard<std::mutex> guard(mutex());
    return static_cast<int>(std::count_if(lines().begin(), lines().end(), [&](const std::string& line) {
      return message_of(line) == message;
    }));
  }
  // Lines holding `text` anywhere.
  int count_containing(const std::string& text) const {
    std::lock_guard<std::mutex> guard(mutex());
    return static_cast<int>(std::count_if(lines().begin(), lines().end(), [&](const std::string& line) {
      return line.find(text) != std::string::npos;
    }));
  }
  // The tag of the first line with exactly `message`, e.g. "src\\http".
  std::string tag_of(const std::string& message) const {
    std::lock_guard<std::mutex> guard(mutex());
    for (const std::string& line : lines()) {
      if (message_of(line) != message) continue;
      size_t space = line.find(' ');
      size_t colon = line.find(':', space);
      return line.substr(space + 1, colon - space - 1);
    }
    return std::string();
  }
  void clear() {
    std::lock_guard<std::mutex> guard(mutex());
    lines().clear();
  }
  // Messages logged under `tag` ("src\\json"), oldest first, without the
  // time stamp, the source line and the closing line feed.
  static std::vector<std::string> messages(const std::string& tag) {
    std::lock_guard<std::mutex> guard(mutex());
    std::vector<std::string> out;
    for (const std::string& line : lines()) {
      size_t space = line.find(' ');
      if (space == std::string::npos || line.compare(space + 1, tag.size() + 1, tag + ":") != 0) continue;
      out.push_back(message_of(line));
    }
    return out;
  }
  // The last message under `tag`, or "" when none was logged.
  static std::string last(const std::string& tag) {
    std::vector<std::string> all = messages(tag);
    return all.empty() ? std::string() : all.back();
  }

 private:
  static std::mutex& mutex() {
    static std::mutex m;
    return m;
  }
  static std::vector<std::string>& lines() {
    static std::vector<std::string> v;
    return v;
  }
  static void sink(const char* line) {
    std::lock_guard<std::mutex> guard(mutex());
    lines().emplace_back(line);
  }
  // "<time> <tag>:<line>: <message>\n" -> "<message>"
  static std::string message_of(const std::string& line) {
    size_t space = line.find(' ');
    size_t mark = line.find(": ", space == std::string::npos ? 0 : space);
    if (mark == std::string::npos) return std::string();
    std::string message = line.substr(mark + 2);
    if (!message.empty() && message.back() == '\n') message.pop_back();
    return message;
  }
};

}  // namespace zeltest
