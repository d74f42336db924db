// Log line format and bounds, sink switching under concurrent logging, and
// the thread layer's result codes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <zel/zel.h>

#include "captured_log.h"
#include "thread.h"

namespace {

std::atomic<int> g_second_sink{0};
void count_only(const char*) { g_second_sink++; }

class Log : public ::testing::Test {
 protected:
  std::vector<std::string> lines() const { return log_.all(); }
  zeltest::CapturedLog log_;
};

// "<time> <tag>:<line>: <message>\n", after the prefix when one is given;
// nothing without a tag or a format; cut to 1023 characters (line feed
// included in what is cut).
TEST_F(Log, LineFormatPrefixAndBounds) {
  long before = static_cast<long>(time(nullptr));
  zel_log(nullptr, "src\\http", 42, "failed %d times: %s", 3, "boom");
  zel_log("PFX", "src\\zel", 7, "%s", "hello");
  long after = static_cast<long>(time(nullptr));
  zel_log(nullptr, nullptr, 1, "x");
  zel_log(nullptr, "src\\zel", 1, nullptr);
  zel_log(nullptr, "src\\json", 9, "%s", std::string(2000, 'm').c_str());
  std::vector<std::string> all = lines();
  ASSERT_EQ(all.size(), 3u);
  long stamp = 0;
  char rest[256] = {0};
  ASSERT_EQ(std::sscanf(all[0].c_str(), "%ld %255[^\n]", &stamp, rest), 2);
  EXPECT_GE(stamp, before);
  EXPECT_LE(stamp, after);
  EXPECT_STREQ(rest, "src\\http:42: failed 3 times: boom");
  EXPECT_EQ(all[0].back(), '\n');
  EXPECT_EQ(all[1].rfind("PFX ", 0), 0u);
  EXPECT_NE(all[1].find(" src\\zel:7: hello\n"), std::string::npos);
  EXPECT_EQ(all[2].size(), 1023u);
  EXPECT_EQ(all[2].back(), 'm');
}

TEST_F(Log, WithoutSinkLinesGoToStandardError) {
  fflush(stderr);
  int saved = dup(STDERR_FILENO);
  char path[] = "/tmp/zel_log_XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  dup2(fd, STDERR_FILENO);
  zel_logger_init(nullptr);
  zel_log(nullptr, "src\\util", 5, "to stderr");
  fflush(stderr);
  dup2(saved, STDERR_FILENO);
  close(saved);
  char buffer[256] = {0};
  ssize_t n = pread(fd, buffer, sizeof buffer - 1, 0);
  close(fd);
  unlink(path);
  ASSERT_GT(n, 0);
  EXPECT_NE(std::strstr(buffer, " src\\util:5: to stderr\n"), nullptr) << buffer;
  EXPECT_TRUE(lines().empty());
}

TEST_F(Log, SinkSwitchWhileThreadsLogLosesAndTearsNothing) {
  g_second_sink = 0;
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
  zel_logger_init(count_only);
  for (auto& th : threads) th.join();
  std::vector<std::string> all = lines();
  EXPECT_EQ(static_cast<int>(all.size()) + g_second_sink.load(), kThreads * kLines);
  for (const auto& line : all) {
    ASSERT_NE(line.find(" src\\threadpool:"), std::string::npos) << line;
    ASSERT_EQ(line.back(), '\n');
  }
}

int exit_with(void* arg) { return *static_cast<int*>(arg); }
int refuse_nomem() { return zel::thrd_nomem; }
int refuse_error() { return zel::thrd_error; }

TEST(ThreadLayer, ResultCodesAndMessages) {
  EXPECT_STREQ(thread_result_message(0), "The requested operation failed");
  EXPECT_STREQ(thread_result_message(1), "The requested operation succeeded");
  EXPECT_STREQ(thread_result_message(2),
               "The time specified in the call was reached without acquiring the requested resource");
  EXPECT_STREQ(thread_result_message(3),
               "The requested operation failed because a return function is already in use");
  EXPECT_STREQ(thread_result_message(4),
               "The requested operation failed because it was unable to allocate memory");
  EXPECT_STREQ(thread_result_message(77), "The requested operation succeeded");
}

TEST(ThreadLayer, CreateJoinDetachAndLocks) {
  int value = 37;
  zel::thrd_t thread;
  ASSERT_EQ(zel::thrd_create(&thread, exit_with, &value), zel::thrd_success);
  int result = 0;
  EXPECT_EQ(zel::thrd_join(thread, &result), zel::thrd_success);
  EXPECT_EQ(result, 37);
  ASSERT_EQ(zel::thrd_create(&thread, exit_with, &value), zel::thrd_success);
  EXPECT_EQ(zel::thrd_detach(thread), zel::thrd_success);
  zel::thrd_yield();

  // The locks themselves are exercised by every concurrent test.
  zel::mtx_t mutex;
  EXPECT_EQ(zel::mtx_init(&mutex, 5), zel::thrd_error);
}

TEST(ThreadLayer, InjectedRefusalsStartNothing) {
  std::atomic<int> ran{0};
  auto body = [](void* arg) -> int {
    ++*static_cast<std::atomic<int>*>(arg);
    return 0;
  };
  zel::thrd_t thread;
  thread.valid = true;
  zel::thrd_set_create_hook(refuse_nomem);
  EXPECT_EQ(zel::thrd_create(&thread, body, &ran), zel::thrd_nomem);
  EXPECT_TRUE(thread.valid);  // not written on thrd_nomem
  zel::thrd_set_create_hook(refuse_error);
  EXPECT_EQ(zel::thrd_create(&thread, body, &ran), zel::thrd_error);
  EXPECT_FALSE(thread.valid);  // written as none on thrd_error
  EXPECT_EQ(zel::thrd_detach(thread), zel::thrd_error);
  zel::thrd_set_create_hook(nullptr);
  ASSERT_EQ(zel::thrd_create(&thread, body, &ran), zel::thrd_success);
  zel::thrd_join(thread, nullptr);
  EXPECT_EQ(ran.load(), 1);
}

}  // namespace
