// Process-wide start-up and shut-down: what each brings up and takes down,
// the undo of every failing start-up step, and that no worker or request
// outlives the shut-down.
#include "global.h"

#include <gtest/gtest.h>
#include <locale.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "alloc.h"
#include "alloc_walk.h"
#include "cache.h"
#include "captured_log.h"
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
  ASSERT_TRUE(nothing_left());
  ASSERT_EQ(zel_global_init(), 0);
  EXPECT_TRUE(http_global_ready() && http_pool_available() > 0 && thread_pool_running() == 0 &&
              cache_count() == 0);
  // Start-up leaves the caller's thread on the process locale, so setlocale
  // there still works; a library thread runs on a locale of its own, so an
  // application's locale never reaches the library's formatting.
  EXPECT_TRUE(locale_is_global());
  ASSERT_NE(setlocale(LC_ALL, "C.UTF-8"), nullptr);
  EXPECT_GT(MB_CUR_MAX, 1u);
  setlocale(LC_ALL, "C");
  std::atomic<int> own{-1};
  auto probe = [](void* raw) {
    static_cast<std::atomic<int>*>(raw)->store(uselocale(static_cast<locale_t>(0)) != LC_GLOBAL_LOCALE);
  };
  ASSERT_EQ(thread_pool_push(probe, &own), 0);
  EXPECT_TRUE(eventually([&] { return own.load() != -1; }));
  EXPECT_EQ(own.load(), 1);
  zel_global_cleanup();
  EXPECT_TRUE(nothing_left());
  zel_global_cleanup();  // a second shut-down finds nothing to do
  EXPECT_TRUE(nothing_left());
}

TEST_F(GlobalStartUp, EachFailingStepUndoesTheEarlierOnes) {
  const char* messages[] = {nullptr,
                            nullptr,
                            "Cannot initialize ZEL Bucket LRU Cache",
                            "Cannot initialize CURL",
                            "Cannot initialize HTTP Pool",
                            "Cannot initialize Thread Pool"};
  global_set_step_hook(fail_selected_step);
  for (int step = kStepLocale; step <= kStepThreadPool; step++) {
    SCOPED_TRACE("failing step " + std::to_string(step));
    CapturedLog log;
    g_failing_step = step;
    EXPECT_EQ(zel_global_init(), -1);
    EXPECT_TRUE(nothing_left());
    // The locale step fails silently.
    EXPECT_EQ(log.all().size(), messages[step] ? 1u : 0u);
    EXPECT_EQ(log.tag_of(messages[step] ? messages[step] : "-"), messages[step] ? "src\\zel" : "");
  }
  global_set_step_hook(nullptr);
  // The same undo, reached through real allocation failures: every
  // allocation of start-up fails in turn until start-up succeeds.
  auto attempt = [] {
    if (zel_global_init() == 0) return true;
    EXPECT_TRUE(nothing_left());
    return false;
  };
  EXPECT_EQ(
      walk_failure_messages("src\\zel", attempt),
      (std::vector<std::string>{messages[kStepCache], messages[kStepHttpPool], messages[kStepThreadPool]}));
}

char* silent_token() { return nullptr; }
void count_report(const ZELDeleteObjectResp* resp, void* raw) {
  static_cast<std::atomic<int>*>(raw)->store(resp->code);
}
double cpu_seconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// A delete hanging on a server that never answers: shut-down stops the
// exchange in flight, waits without spinning, and is back within a second;
// the delete reports once, as aborted, and no thread outlives the shut-down.
// (Shut-down amid pooled transfers is the stress test's.)
TEST_F(GlobalStartUp, ShutDownStopsExchangesInFlightWithoutSpinning) {
  RawHttpServer silent;
  silent.set_mode(RawHttpServer::Mode::silent);
  int baseline = thread_count();
  ASSERT_EQ(zel_global_init(), 0);
  ASSERT_EQ(zel_set_environment_url(ZEL_ENV_LOCAL, silent.url("").c_str()), 0);
  ZEL* handle = zel_init(ZEL_ENV_LOCAL, 2, silent_token, nullptr);
  std::atomic<int> code{-1};
  ZELDeleteObjectOpt opt{u"b", u"k", nullptr, count_report, nullptr};
  zel_delete_object(handle, &opt, &code);
  ASSERT_TRUE(silent.wait_for(1, 5000)) << "the delete never reached the server";
  double cpu_before = cpu_seconds();
  auto start = std::chrono::steady_clock::now();
  zel_global_cleanup();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1500ms);
  EXPECT_LT(cpu_seconds() - cpu_before, 0.3) << "shut-down must wait, not spin";
  EXPECT_EQ(code.load(), 42);
  EXPECT_TRUE(nothing_left());
  EXPECT_TRUE(eventually([&] { return thread_count() == baseline; }, 2000ms))
      << thread_count() << " threads, " << baseline << " before start-up";
  zel_cleanup(handle);
  zel_set_environment_url(ZEL_ENV_LOCAL, nullptr);
}

}  // namespace
}  // namespace zeltest
