#pragma once
// Process-wide start-up and shut-down (zel_global_init and
// zel_global_cleanup, declared in the public header).

// Start-up steps, in the order they run.
enum GlobalStep {
  kStepLocale = 1,
  kStepCache = 2,
  kStepTransport = 3,
  kStepHttpPool = 4,
  kStepThreadPool = 5,
};

// Test seam: while installed, the hook is asked before each step; a non-zero
// answer makes that step fail as if its service had refused. nullptr
// removes it.
using GlobalStepHook = int (*)(int step);
void global_set_step_hook(GlobalStepHook hook);
