// Process-wide start-up and shut-down: what each brings up and takes down,
// the undo of every failing start-up step, and that no worker or request
// outlives the shut-down.
#include "global.h"

#include <gtest/gtest.h>
#include <locale.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <filesystem>
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

using zeltest::CapturedLog;
using zeltest::RawHttpServer;

namespace {

using namespace std::chrono_literals;

int g_failing_step = 0;
int fail_selected_step(int step) { return step == g_failing_step ? 1 : 0; }

class GlobalStartUp : public ::testing::Test {
 protected:
  void TearDown() override {
    global_set_step_hook(nullptr);
    mem_fail_at(0);
    zel_global_cleanup();
  }
};

bool locale_is_global() { return uselocale(static_cast<locale_t>(0)) == LC_GLOBAL_LOCALE; }

// True when no service of the library is left.
::testing::AssertionResult nothing_left() {
  if (http_pool_available() != -1) return ::testing::AssertionFailure() << "HTTP pool left";
  if (thread_pool_running() != -1) return ::testing::AssertionFailure() << "thread pool left";
  if (cache_count() != -1) return ::testing::AssertionFailure() << "bucket cache left";
  if (http_global_ready()) return ::testing::AssertionFailure() << "libcurl state left";
  if (!locale_is_global()) return ::testing::AssertionFailure() << "thread locale left";
  return ::testing::AssertionSuccess();
}

using zeltest::thread_count;

using zeltest::eventually;

}  // namespace

TEST_F(GlobalStartUp, BringsUpEveryServiceAndTakesThemDown) {
  ASSERT_TRUE(nothing_left());
  ASSERT_EQ(zel_global_init(), 0);
  EXPECT_TRUE(locale_is_global()) << "start-up leaves the caller's thread on the process locale";
  EXPECT_TRUE(http_global_ready());
  EXPECT_EQ(http_pool_available(), 8);
  EXPECT_EQ(thread_pool_free_slots(), 8);
  EXPECT_EQ(thread_pool_running(), 0);
  for (int i = 0; i < 130; i++) cache_put(("b" + std::to_string(i)).c_str(), 1);
  EXPECT_EQ(cache_count(), 128);
  zel_global_cleanup();
  EXPECT_TRUE(nothing_left());
  zel_global_cleanup();  // a second shut-down finds nothing to do
  EXPECT_TRUE(nothing_left());
}

TEST_F(GlobalStartUp, CallerLocaleStaysTheCallersAndLibraryThreadsUseC) {
  ASSERT_EQ(zel_global_init(), 0);
  // setlocale on the caller's thread must still change that thread.
  ASSERT_NE(setlocale(LC_ALL, "C.UTF-8"), nullptr);
  EXPECT_GT(MB_CUR_MAX, 1u);
  setlocale(LC_ALL, "C");
  EXPECT_EQ(MB_CUR_MAX, 1u);
  // A library thread runs on a locale of its own, so an application's
  // locale never reaches the library's formatting.
  std::atomic<int> own{-1};
  ASSERT_EQ(thread_pool_push(
                [](void* raw) {
                  static_cast<std::atomic<int>*>(raw)->store(uselocale(static_cast<locale_t>(0)) !=
                                                             LC_GLOBAL_LOCALE);
                },
                &own),
            0);
  EXPECT_TRUE(eventually([&] { return own.load() != -1; }));
  EXPECT_EQ(own.load(), 1);
  zel_global_cleanup();
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
    if (messages[step] == nullptr) {
      EXPECT_TRUE(log.all().empty()) << "the locale step fails silently";
    } else {
      ASSERT_EQ(log.all().size(), 1u);
      EXPECT_EQ(log.count(messages[step]), 1);
      EXPECT_EQ(log.tag_of(messages[step]), "src\\zel");
    }
  }
  g_failing_step = 0;
  ASSERT_EQ(zel_global_init(), 0) << "start-up works once nothing fails";
}

// The same undo, reached through real allocation failures: every
// allocation of start-up fails in turn (the cache record first, then the
// HTTP pool record, then the worker pool record) until start-up succeeds.
TEST_F(GlobalStartUp, AllocationFailuresUndoToo) {
  std::vector<std::vector<std::string>> logged;
  zeltest::walk_allocations(50, [&](long) {
    CapturedLog log;
    if (zel_global_init() == 0) return true;
    EXPECT_TRUE(nothing_left());
    std::vector<std::string> lines;
    for (const std::string& line : log.all()) {  // "<tag> <message>"
      size_t space = line.find(' '), colon = line.find(':', space), mark = line.find(": ", colon);
      lines.push_back(line.substr(space + 1, colon - space - 1) + " " +
                      line.substr(mark + 2, line.size() - mark - 3));
    }
    logged.push_back(lines);
    return false;
  });
  zel_global_cleanup();
  EXPECT_EQ(
      logged,
      (std::vector<std::vector<std::string>>{
          {"src\\zel Cannot initialize ZEL Bucket LRU Cache"},
          {"src\\httppool Cannot initialize HTTP pool", "src\\zel Cannot initialize HTTP Pool"},
          {"src\\threadpool Cannot initialize thread pool", "src\\zel Cannot initialize Thread Pool"}}));
}

namespace {
struct Work {
  std::string url;
  std::atomic<int> started{0};
  std::atomic<int> finished{0};
  std::atomic<int> exchanged{0};
};

// A transfer-like task: borrow a pooled request, talk to the server, give
// the request back.
void pooled_exchange(void* raw) {
  auto* work = static_cast<Work*>(raw);
  work->started++;
  HttpRequest* request = http_pool_acquire();
  HttpResponse* response = http_response_init();
  if (request != nullptr && response != nullptr && http_request_get(request, work->url.c_str()) == nullptr &&
      http_perform(request, response) == nullptr && response->status == 200) {
    work->exchanged++;
  }
  std::this_thread::sleep_for(30ms);
  http_response_cleanup(response);
  http_pool_release(request);
  work->finished++;
}
}  // namespace

TEST_F(GlobalStartUp, NoWorkerOrRequestOutlivesShutDown) {
  RawHttpServer server;
  server.set_fallback(RawHttpServer::reply(200, "OK", "{}", {"Connection: close"}));
  int baseline = thread_count();
  ASSERT_EQ(zel_global_init(), 0);
  Work work;
  work.url = server.url("/zel/v2/buckets");
  for (int i = 0; i < 24; i++) ASSERT_EQ(thread_pool_push(pooled_exchange, &work), 0);
  ASSERT_TRUE(eventually([&] { return work.started.load() > 0; }));
  zel_global_cleanup();
  EXPECT_EQ(work.started.load(), work.finished.load()) << "shut-down returned while a worker still ran";
  EXPECT_GT(work.exchanged.load(), 0);
  EXPECT_TRUE(nothing_left());
  EXPECT_EQ(thread_pool_push(pooled_exchange, &work), -1);
  EXPECT_TRUE(eventually([&] { return thread_count() == baseline; }, 2000ms))
      << thread_count() << " threads, " << baseline << " before start-up";
}

namespace {
char* silent_token() { return nullptr; }
void count_report(const ZELDeleteObjectResp* resp, void* raw) {
  static_cast<std::atomic<int>*>(raw)->store(resp->code);
}

double cpu_seconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}
}  // namespace

// A delete hanging on a server that never answers: shut-down stops the
// exchange in flight, waits without spinning, and is back within a second.
TEST_F(GlobalStartUp, CleanupStopsExchangesInFlightWithoutSpinning) {
  RawHttpServer server;
  server.set_mode(RawHttpServer::Mode::silent);
  ASSERT_EQ(zel_global_init(), 0);
  ASSERT_EQ(
      zel_set_environment_url(ZEL_ENV_LOCAL, ("http://127.0.0.1:" + std::to_string(server.port())).c_str()),
      0);
  ZEL* handle = zel_init(ZEL_ENV_LOCAL, 2, silent_token, nullptr);
  std::atomic<int> code{-1};
  ZELDeleteObjectOpt opt{u"b", u"k", nullptr, count_report, nullptr};
  zel_delete_object(handle, &opt, &code);
  ASSERT_TRUE(server.wait_for(1, 5000)) << "the delete never reached the server";
  double cpu_before = cpu_seconds();
  auto start = std::chrono::steady_clock::now();
  zel_global_cleanup();
  auto took = std::chrono::steady_clock::now() - start;
  double cpu = cpu_seconds() - cpu_before;
  EXPECT_LT(took, 1500ms);
  EXPECT_LT(cpu, 0.3) << "shut-down must wait, not spin";
  EXPECT_EQ(code.load(), 42) << "the stopped delete reports once, as aborted";
  EXPECT_TRUE(nothing_left());
  zel_cleanup(handle);
  zel_set_environment_url(ZEL_ENV_LOCAL, nullptr);
}
