// Scripted failures of the test API: rules that make matching requests fail,
// stall or lose their connection, so clients' error paths can be exercised.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "wire.h"

namespace re2 {
class RE2;
}

namespace zelsrv {

struct FaultAction {
  int status = 0;  // answer with this status instead of handling the request
  std::string body;
  std::string content_type;
  int64_t delay_ms = 0;            // handle the request after this pause
  int64_t reset_after_bytes = -1;  // cut the connection after this much body
};

struct FaultRule {
  FaultRule();
  ~FaultRule();
  std::string method;  // empty: any
  // Matched in linear time: a rule's pattern cannot stall the requests
  // that are tested against it.
  std::unique_ptr<re2::RE2> path;
  std::string header_name;  // empty: no header condition
  std::string header_part;
  int64_t times = 1;  // negative: every matching request; 0: used up
  double probability = 1.0;
  std::mt19937_64 rng;
  FaultAction action;
};

class Faults {
 public:
  static constexpr int64_t kMaxDelayMs = 60 * 1000;
  static constexpr size_t kMaxRules = 1000;

  // Adds one rule (a JSON object) or several (an array); all or none.
  bool add_json(const std::string& text, std::string& why);
  void clear();
  // The action of the first rule that matches and fires; each firing uses
  // one of the rule's times. Patterns are evaluated without the lock.
  bool match(const std::string& method, const std::string& path, const HeaderLines& headers,
             FaultAction& out);

 private:
  std::mutex mu_;  // guards rules_ and each rule's times and rng
  std::vector<std::shared_ptr<FaultRule>> rules_;
};

}  // namespace zelsrv
