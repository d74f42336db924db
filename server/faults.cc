#include "faults.h"

#include <jansson.h>
#include <re2/re2.h>
#include <strings.h>

#include <algorithm>
#include <cstdlib>

namespace zelsrv {
namespace {

bool read_action(json_t* o, FaultAction& a, std::string& why) {
  json_t *status = json_object_get(o, "status"), *delay = json_object_get(o, "delay_ms");
  json_t *reset = json_object_get(o, "reset_after_bytes"), *body = json_object_get(o, "body");
  int actions = (status != nullptr) + (delay != nullptr) + (reset != nullptr);
  if (actions != 1) {
    why = "A rule needs exactly one of \"status\", \"delay_ms\" and \"reset_after_bytes\"";
    return false;
  }
  if (status) {
    a.status = static_cast<int>(json_integer_value(status));
    if (!json_is_integer(status) || a.status < 100 || a.status > 599) {
      why = "\"status\" must be an HTTP status code";
      return false;
    }
    if (json_is_string(body)) {
      a.body = json_string_value(body);
      a.content_type = "text/plain";
    } else if (body) {
      char* text = json_dumps(body, JSON_COMPACT | JSON_ENCODE_ANY);
      a.body = text ? text : "";
      free(text);
      a.content_type = "application/json";
    }
  }
  if (delay) a.delay_ms = json_integer_value(delay);
  if (reset) a.reset_after_bytes = json_integer_value(reset);
  if ((delay && (!json_is_integer(delay) || a.delay_ms < 0)) ||
      (reset && (!json_is_integer(reset) || a.reset_after_bytes < 0))) {
    why = "\"delay_ms\" and \"reset_after_bytes\" must be non-negative integers";
    return false;
  }
  if (a.delay_ms > Faults::kMaxDelayMs) {
    why = "\"delay_ms\" may be at most " + std::to_string(Faults::kMaxDelayMs);
    return false;
  }
  return true;
}

bool read_header_condition(json_t* o, FaultRule& r, std::string& why) {
  json_t* header = json_object_get(o, "header");
  if (!header) return true;
  std::string h = json_is_string(header) ? json_string_value(header) : "";
  size_t colon = h.find(':');
  if (colon == std::string::npos || colon == 0) {
    why = "\"header\" must read \"Name: substring\"";
    return false;
  }
  r.header_name = h.substr(0, colon);
  size_t b = h.find_first_not_of(' ', colon + 1);
  r.header_part = b == std::string::npos ? "" : h.substr(b);
  return true;
}

bool read_rule(json_t* o, FaultRule& r, std::string& why) {
  if (!json_is_object(o)) {
    why = "A rule must be a JSON object";
    return false;
  }
  json_t *method = json_object_get(o, "method"), *path = json_object_get(o, "path");
  json_t *times = json_object_get(o, "times"), *prob = json_object_get(o, "probability");
  json_t* seed = json_object_get(o, "seed");
  r.method = json_is_string(method) ? json_string_value(method) : "";
  RE2::Options opts;
  opts.set_log_errors(false);
  std::string pattern =
      json_is_string(path) ? std::string(json_string_value(path), json_string_length(path)) : "";
  r.path = std::make_unique<RE2>(pattern, opts);
  if (!r.path->ok()) {
    why = "\"path\" is not a valid regular expression: " + r.path->error();
    return false;
  }
  if (times) r.times = json_integer_value(times);
  if (prob) r.probability = json_number_value(prob);
  if ((times && (!json_is_integer(times) || r.times == 0)) || (prob && !json_is_number(prob))) {
    why = "\"times\" must be a non-zero integer and \"probability\" a number";
    return false;
  }
  r.rng.seed(seed && json_is_integer(seed) ? static_cast<uint64_t>(json_integer_value(seed))
                                           : std::random_device()());
  return read_header_condition(o, r, why) && read_action(o, r.action, why);
}

bool header_matches(const FaultRule& r, const HeaderLines& headers) {
  if (r.header_name.empty()) return true;
  for (const auto& h : headers)
    if (strcasecmp(h.first.c_str(), r.header_name.c_str()) == 0 &&
        h.second.find(r.header_part) != std::string::npos)
      return true;
  return false;
}

}  // namespace

bool Faults::add_json(const std::string& text, std::string& why) {
  json_error_t err;
  json_t* root = json_loadb(text.data(), text.size(), 0, &err);
  if (!root) {
    why = std::string("Malformed JSON: ") + err.text;
    return false;
  }
  std::vector<std::shared_ptr<FaultRule>> added;
  bool ok = true;
  if (json_is_array(root)) {
    size_t i;
    json_t* e;
    json_array_foreach(root, i, e) {
      added.push_back(std::make_shared<FaultRule>());
      if (!(ok = read_rule(e, *added.back(), why))) break;
    }
  } else {
    added.push_back(std::make_shared<FaultRule>());
    ok = read_rule(root, *added.back(), why);
  }
  json_decref(root);
  if (!ok) return false;
  std::lock_guard<std::mutex> lock(mu_);
  if (rules_.size() + added.size() > kMaxRules) {
    why = "At most " + std::to_string(kMaxRules) + " fault rules may be held at once";
    return false;
  }
  for (auto& r : added) rules_.push_back(std::move(r));
  return true;
}

void Faults::clear() {
  std::lock_guard<std::mutex> lock(mu_);
  for (auto& r : rules_) r->times = 0;  // a snapshot taken before must not fire them
  rules_.clear();
}

bool Faults::match(const std::string& method, const std::string& path, const HeaderLines& headers,
                   FaultAction& out) {
  std::vector<std::shared_ptr<FaultRule>> rules;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (rules_.empty()) return false;
    rules = rules_;
  }
  // The conditions never change after a rule is added, so they are tested
  // on a snapshot; only the firing (times, random draw) needs the lock.
  std::vector<FaultRule*> matching;
  for (const auto& p : rules) {
    const FaultRule& r = *p;
    if (!r.method.empty() && strcasecmp(r.method.c_str(), method.c_str()) != 0) continue;
    if (RE2::PartialMatch(path, *r.path) && header_matches(r, headers)) matching.push_back(p.get());
  }
  if (matching.empty()) return false;
  std::lock_guard<std::mutex> lock(mu_);
  for (FaultRule* r : matching) {
    if (r->times == 0) continue;  // used up, or cleared, since the snapshot
    if (r->probability < 1.0 && std::uniform_real_distribution<double>(0.0, 1.0)(r->rng) >= r->probability)
      continue;
    out = r->action;
    if (r->times > 0 && --r->times == 0)
      rules_.erase(std::remove_if(rules_.begin(), rules_.end(), [r](const auto& p) { return p.get() == r; }),
                   rules_.end());
    return true;
  }
  return false;
}

FaultRule::FaultRule() = default;
FaultRule::~FaultRule() = default;

}  // namespace zelsrv
