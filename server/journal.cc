#include "journal.h"

#include <jansson.h>

#include <cstdlib>

namespace zelsrv {

void Journal::add(JournalEntry entry) {
  std::lock_guard<std::mutex> lock(mu_);
  entries_.push_back(std::move(entry));
  while (entries_.size() > capacity_) entries_.pop_front();
}

void Journal::clear() {
  std::lock_guard<std::mutex> lock(mu_);
  entries_.clear();
}

std::string Journal::json() {
  json_t *arr = json_array();
  {
    std::lock_guard<std::mutex> lock(mu_);
    for (const auto &e : entries_) {
      json_t *headers = json_array();
      for (const auto &h : e.headers)
        json_array_append_new(headers, json_pack("[s#s#]", h.first.data(), h.first.size(), h.second.data(),
                                                 h.second.size()));
      json_array_append_new(arr, json_pack("{s:s#, s:s#, s:o, s:I, s:i}", "method", e.method.data(),
                                           e.method.size(), "target", e.target.data(), e.target.size(),
                                           "headers", headers, "body_size", static_cast<json_int_t>(e.body_size),
                                           "status", e.status));
    }
  }
  char *text = json_dumps(arr, JSON_COMPACT);
  json_decref(arr);
  std::string out = text ? text : "[]";
  free(text);
  return out;
}

}  // namespace zelsrv
