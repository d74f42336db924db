// Process-wide start-up and shut-down: what each brings up and takes down,
// and the undo of every failing start-up step.
#include "global.h"

#include <gtest/gtest.h>
#include <locale.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <string>
#include <thread>

#include "alloc_walk.h"
#include "cache.h"
#include "http.h"
#include "httppool.h"
#include "raw_http_server.h"
#include "threadpool.h"
#include "threads.h"

namespace zeltest {
namespace {

using namespace std::chrono_literals;

int g_failing_step = 0;
int fail_selected_step(int step) { return step == g_failing_step ? 1 : 0; }

class GlobalStartUp : public ::testing::Test {
 protected:
  void TearDown() override {
    global_set_step_hook(nullptr);
    zel_global_cleanup();
  }
};

bool locale_is_global() { return uselocale(static_cast<locale_t>(0)) == LC_GLOBAL_LOCALE; }

// True when no service of the library is left.
::testing::AssertionResult nothing_left() {
  const char* left = http_pool_available() != -1   ? "HTTP pool"
                     : thread_pool_running() != -1 ? "thread pool"
                     : cache_count() != -1         ? "bucket cache"
                     : http_global_ready()         ? "libcurl state"
                     : !locale_is_global()         ? "thread locale"
                                                   : nullptr;
  return left ? ::testing::AssertionFailure() << left << " left" : ::testing::AssertionSuccess();
}

TEST_F(GlobalStartUp, BringsUpEveryServiceAndTakesThemDown) {
  ASSERT_EQ(zel_global_init(), 0);
  // The caller's thread stays on the process locale; a library thread runs
  // on its own, so an application's locale never reaches its formatting.
  EXPECT_TRUE(locale_is_global());
  EXPECT_TRUE(setlocale(LC_ALL, "C.UTF-8") != nullptr && MB_CUR_MAX > 1u);
  setlocale(LC_ALL, "C");
  std::atomic<int> own{-1};
  auto probe = [](void* raw) {
    static_cast<std::atomic<int>*>(raw)->store(uselocale(static_cast<locale_t>(0)) != LC_GLOBAL_LOCALE);
  };
  ASSERT_EQ(thread_pool_push(probe, &own), 0);
  EXPECT_TRUE(eventually([&] { return own.load() == 1; })) << own.load();
  zel_global_cleanup();
  EXPECT_TRUE(nothing_left());
  zel_global_cleanup();  // a second shut-down finds nothing to do
  EXPECT_TRUE(nothing_left());
}

// Each step is failed through the hook, then through real allocation
// failures until start-up gets through: every failure undoes what came
// before it.
TEST_F(GlobalStartUp, EachFailingStepUndoesTheEarlierOnes) {
  CapturedLog log;
  global_set_step_hook(fail_selected_step);
  for (g_failing_step = kStepLocale; g_failing_step <= kStepThreadPool; g_failing_step++) {
    SCOPED_TRACE("failing step " + std::to_string(g_failing_step));
    EXPECT_EQ(zel_global_init(), -1);
    EXPECT_TRUE(nothing_left());
  }
  global_set_step_hook(nullptr);
  auto attempt = [](long) {
    if (zel_global_init() == 0) return true;
    EXPECT_TRUE(nothing_left());
    return false;
  };
  EXPECT_GT(walk_allocations(100, attempt), 3) << "the cache and both pools allocate";
}

// A delete hanging on a server that never answers: shut-down stops the
// exchange, waits without spinning, and the delete reports as aborted.
TEST_F(GlobalStartUp, ShutDownStopsExchangesInFlightWithoutSpinning) {
  RawHttpServer silent;
  silent.set_mode(RawHttpServer::Mode::silent);
  int baseline = thread_count();
  ASSERT_EQ(zel_global_init(), 0);
  ASSERT_EQ(zel_set_environment_url(ZEL_ENV_LOCAL, silent.url("").c_str()), 0);
  ZEL* handle = zel_init(
      ZEL_ENV_LOCAL, 2, []() -> char* { return nullptr; }, nullptr);
  std::atomic<int> code{-1};
  auto report = [](const ZELDeleteObjectResp* r, void* raw) {
    static_cast<std::atomic<int>*>(raw)->store(r->code);
  };
  ZELDeleteObjectOpt opt{u"b", u"k", nullptr, report, nullptr};
  zel_delete_object(handle, &opt, &code);
  ASSERT_TRUE(silent.wait_for(1, 5000)) << "the delete never reached the server";
  std::clock_t cpu_before = std::clock();
  auto start = std::chrono::steady_clock::now();
  zel_global_cleanup();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1500ms);
  EXPECT_LT(std::clock() - cpu_before, CLOCKS_PER_SEC * 3 / 10) << "shut-down must wait, not spin";
  EXPECT_EQ(code.load(), 42);
  EXPECT_TRUE(nothing_left());
  EXPECT_TRUE(eventually([&] { return thread_count() == baseline; }, 2000ms))
      << thread_count() << " threads, " << baseline << " before start-up";
  zel_cleanup(handle);
  zel_set_environment_url(ZEL_ENV_LOCAL, nullptr);
}

}  // namespace
}  // namespace zeltest
