#include "journal.h"

#include <jansson.h>
#include <strings.h>

#include <cstdlib>

#include "util.h"

namespace zelsrv {
namespace {

// JSON holds only UTF-8; other bytes a client sent show as '?'.
json_t* text(const std::string& s) {
  if (valid_utf8(s)) return json_stringn(s.data(), s.size());
  std::string clean = s;
  for (char& c : clean)
    if (static_cast<unsigned char>(c) >= 0x80) c = '?';
  return json_stringn(clean.data(), clean.size());
}

// Keeps the scheme, so tests still see which kind of credential was sent.
void redact(HeaderLines& headers) {
  for (auto& h : headers) {
    if (strcasecmp(h.first.c_str(), "Authorization") != 0 &&
        strcasecmp(h.first.c_str(), "Proxy-Authorization") != 0)
      continue;
    size_t space = h.second.find(' ');
    h.second = space == std::string::npos ? "<redacted>" : h.second.substr(0, space) + " <redacted>";
  }
}

}  // namespace

void Journal::add(JournalEntry entry) {
  redact(entry.headers);
  std::lock_guard<std::mutex> lock(mu_);
  entries_.push_back(std::move(entry));
  while (entries_.size() > capacity_) entries_.pop_front();
}

void Journal::clear() {
  std::lock_guard<std::mutex> lock(mu_);
  entries_.clear();
}

std::string Journal::json() {
  json_t* arr = json_array();
  {
    std::lock_guard<std::mutex> lock(mu_);
    for (const auto& e : entries_) {
      json_t* headers = json_array();
      for (const auto& h : e.headers)
        json_array_append_new(headers, json_pack("[oo]", text(h.first), text(h.second)));
      json_array_append_new(
          arr, json_pack("{s:o, s:o, s:o, s:I, s:i, s:o}", "method", text(e.method), "target", text(e.target),
                         "headers", headers, "body_size", static_cast<json_int_t>(e.body_size), "status",
                         e.status, "principal", text(e.principal)));
    }
  }
  char* text = json_dumps(arr, JSON_COMPACT);
  json_decref(arr);
  std::string out = text ? text : "[]";
  free(text);
  return out;
}

}  // namespace zelsrv
