// The request journal of the test API: what clients sent, as they sent it.
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

#include "wire.h"

namespace zelsrv {

struct JournalEntry {
  std::string method;
  std::string target;  // as received, percent-encoding and query intact
  HeaderLines headers;
  uint64_t body_size = 0;
  int status = 0;
  std::string principal;  // the auth id the token stood for; empty when none
};

class Journal {
 public:
  explicit Journal(size_t capacity = 4096) : capacity_(capacity) {}
  // Credentials are redacted as the entry is taken: "Bearer <redacted>".
  void add(JournalEntry entry);
  void clear();
  // A JSON array, oldest first.
  std::string json();

 private:
  std::mutex mu_;
  std::deque<JournalEntry> entries_;
  size_t capacity_;
};

}  // namespace zelsrv
