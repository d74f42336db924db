#pragma once
// The allocation walk: makes the 1st, 2nd, ... allocation of `attempt` fail
// in turn until an attempt gets through. `attempt(step)` runs with the
// step's failure armed and returns true when it succeeded; it frees what it
// made either way. Returns the step that succeeded (the number of
// allocations the call needs plus one), or 0 after `max_steps` failures.
// Header-only; the test executable links the library's allocator.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "alloc.h"
#include "captured_log.h"

namespace zeltest {

template <class Attempt>
long walk_allocations(long max_steps, Attempt attempt) {
  for (long step = 1; step <= max_steps; ++step) {
    mem_fail_at(step);
    bool ok = attempt(step);
    mem_fail_at(0);
    if (ok) return step;
  }
  ADD_FAILURE() << "never succeeded within " << max_steps << " allocations";
  return 0;
}

// Walks every allocation of `make` (which returns a record or nothing),
// the record freed by `free_it` either way; the sanitizer build checks that
// a failed make frees what it made. The number of steps the walk took: one
// more than the allocations needed, fewer when a failed copy passes as made.
template <class Make, class Free>
long walk_record(Make make, Free free_it) {
  CapturedLog log;
  return walk_allocations(100, [&](long) {
    auto* made = make();
    free_it(made);
    return made != nullptr;
  });
}

// The message logged last under `tag` by each failed step of the walk;
// runs of one message (the several allocations of one list) count once.
template <class Attempt>
std::vector<std::string> walk_failure_messages(const std::string& tag, Attempt attempt) {
  CapturedLog log;
  std::vector<std::string> out;
  walk_allocations(100, [&](long) {
    log.clear();
    if (attempt()) return true;
    std::string message = CapturedLog::last(tag);
    if (out.empty() || out.back() != message) out.push_back(message);
    return false;
  });
  return out;
}

}  // namespace zeltest
