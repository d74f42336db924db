// Log lines, sink switching under concurrent logging, a thread's exit value.
#include <gtest/gtest.h>
#include <zel/zel.h>

#include <atomic>
#include <ctime>
#include <thread>

#include "captured_log.h"
#include "thread.h"

namespace {

std::atomic<int> g_second_sink{0};

// "[<prefix> ]<time> <tag>:<line>: <message>\n"; nothing without a tag or a
// format; cut to 1023 characters; standard error without a sink.
TEST(Log, LineFormatPrefixBoundsAndStandardError) {
  zeltest::CapturedLog log;
  long before = static_cast<long>(time(nullptr));
  zel_log(nullptr, "src\\http", 42, "failed %d times: %s", 3, "boom");
  zel_log("PFX", "src\\zel", 7, "%s", "hello");
  long after = static_cast<long>(time(nullptr));
  zel_log(nullptr, nullptr, 1, "x");
  zel_log(nullptr, "src\\zel", 1, nullptr);
  zel_log(nullptr, "src\\json", 9, "%s", std::string(2000, 'm').c_str());
  std::vector<std::string> all = log.all();
  ASSERT_EQ(all.size(), 3u);
  std::string stamp = all[0].substr(0, all[0].find(' '));
  EXPECT_TRUE(std::stol(stamp) >= before && std::stol(stamp) <= after) << stamp;
  EXPECT_EQ(all[0], stamp + " src\\http:42: failed 3 times: boom\n");
  EXPECT_EQ(all[1], "PFX " + all[1].substr(4, stamp.size()) + " src\\zel:7: hello\n");
  EXPECT_EQ(all[2].size(), 1023u);
  EXPECT_EQ(all[2].back(), 'm');

  zel_logger_init(nullptr);
  testing::internal::CaptureStderr();
  zel_log(nullptr, "src\\util", 5, "to stderr");
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find(" src\\util:5: to stderr\n"), std::string::npos) << err;
}

TEST(Log, SinkSwitchWhileThreadsLogLosesAndTearsNothing) {
  zeltest::CapturedLog log;
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  constexpr int kThreads = 4, kLines = 500;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      while (!go) std::this_thread::yield();
      for (int i = 0; i < kLines; ++i) zel_log(nullptr, "src\\threadpool", t, "line %d", i);
    });
  }
  go = true;
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  zel_logger_init([](const char*) { g_second_sink++; });
  for (auto& th : threads) th.join();
  EXPECT_EQ(static_cast<int>(log.all().size()) + g_second_sink.load(), kThreads * kLines);
  for (const auto& line : log.all())
    ASSERT_TRUE(line.find(" src\\threadpool:") != std::string::npos && line.back() == '\n') << line;
}

int exit_with(void* arg) { return *static_cast<int*>(arg); }

// The texts of the results a start can give are checked where operations report them.
TEST(ThreadLayer, JoinReturnsTheExitValue) {
  int value = 37, result = 0;
  zel::thrd_t thread;
  ASSERT_EQ(zel::thrd_create(&thread, exit_with, &value), zel::thrd_success);
  EXPECT_EQ(zel::thrd_join(thread, &result), zel::thrd_success);
  EXPECT_EQ(result, 37) << "the thread's exit value comes back from join";
}

}  // namespace
