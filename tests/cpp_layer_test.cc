// The C++ layer over the C interface: text conversions, results that
// outlive the library's records, and completions that arrive exactly once.
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <map>
#include <set>
#include <thread>
#include <zel/zel.hpp>

#include "frame.h"
#include "threads.h"
#include "transfer_support.h"
#include "zel_server.h"

namespace zeltest {
namespace {

TEST(CppText, ConversionsRoundTripAndRefuseMalformedInput) {
  const std::string key = "dir/ünï ☃/\xF0\x9D\x84\x9E.bin";  // U+1D11E needs a surrogate pair
  std::u16string wide = zel::to_utf16(key);
  EXPECT_EQ(wide, u"dir/ünï ☃/\U0001D11E.bin");
  EXPECT_EQ(zel::to_utf8(wide), key);
  EXPECT_EQ(zel::to_utf8(nullptr), "");

  for (const char* text : {"\x80", "a\xC3", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80",
                           "\xF8\x88\x80\x80\x80", "\xE2\x98"}) {
    std::u16string out;
    EXPECT_FALSE(zel::utf8_to_utf16(text, out)) << "accepted " << ::testing::PrintToString(std::string(text));
    EXPECT_THROW(zel::to_utf16(text), std::invalid_argument);
  }
  const char16_t lone[] = {u'a', 0xD800, u'b', 0xDC00, 0};
  EXPECT_EQ(zel::to_utf8(lone),
            "a\xEF\xBF\xBD"
            "b\xEF\xBF\xBD")
      << "unpaired surrogates become U+FFFD";
}

// A result's error code; 0 for success.
template <class T>
int32_t code_of(const zel::Result<T>& r) {
  return r.ok() ? 0 : r.error().code;
}

class CppLayerTest : public EmulatorTest {
 protected:
  void SetUp() override {
    EmulatorTest::SetUp();
    library_.emplace();
    ASSERT_TRUE(zel::set_environment_url(ZEL_ENV_LOCAL, server_.base_url()));
    zel::set_token("local-dev-token");
    zel::set_token_provider(nullptr);
    client_.emplace();
    client_->settings().chunk_size = 65536;
    ASSERT_TRUE(client_->create_bucket("bkt", ZEL_BUCKET_POLICY_TRANSIENT, {}).get().ok());
  }
  void TearDown() override {
    client_.reset();
    // Detached single-request threads may still be unwinding after their
    // report; the library must outlive them.
    eventually([] { return frame_running_workers() == 0; }, std::chrono::seconds(30));
    library_.reset();
    zel::set_environment_url(ZEL_ENV_LOCAL, "");
    EmulatorTest::TearDown();
  }

  std::optional<zel::Library> library_;
  std::optional<zel::Client> client_;
  ScratchDir dir_;
};

TEST_F(CppLayerTest, TheEndpointReachesBothServices) {
  KRI* kri = kri_init(ZEL_ENV_LOCAL, 1, nullptr, nullptr);
  ASSERT_NE(kri, nullptr);
  EXPECT_EQ(kri_health(kri), 200) << "the delta engine shares the storage service's endpoint";
  kri_cleanup(kri);
}

TEST_F(CppLayerTest, EveryCallCompletesExactlyOnceAndResultsOutliveTheCallbacks) {
  std::string data = pattern_bytes(1000, 8);
  ASSERT_TRUE(client_->put_object(dir_.write("one", data), "bkt", "present").get().ok());
  constexpr int kCalls = 24;
  std::vector<std::atomic<int>> counts(2 * kCalls);
  std::mutex mutex;
  std::vector<zel::Result<zel::ObjectDetails>> kept;
  std::vector<zel::Result<zel::Done>> downloads;
  auto keep = [&](int slot, auto& into) {
    return [&, &into = into, slot](auto r) {
      counts[slot]++;
      std::lock_guard<std::mutex> lock(mutex);
      into.push_back(std::move(r));
    };
  };
  for (int i = 0; i < kCalls; ++i) {
    std::string n = std::to_string(i);
    client_->object_details("bkt", "present", keep(i, kept));
    // A failed size query reports twice in the C layer; the C++ caller
    // still hears once.
    client_->get_object("bkt", "absent", dir_.file("a" + n), {}, keep(kCalls + i, downloads));
  }
  EXPECT_TRUE(eventually(
      [&] {
        std::lock_guard<std::mutex> lock(mutex);
        return kept.size() + downloads.size() == 2u * kCalls;
      },
      std::chrono::seconds(30)));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // room for stray second reports
  for (size_t i = 0; i < counts.size(); ++i) EXPECT_EQ(counts[i].load(), 1) << "call " << i;
  std::lock_guard<std::mutex> lock(mutex);
  // Texts copied before the library freed its record; a failed download
  // keeps the first report, with the service's reason.
  std::map<std::string, int> seen;
  for (const auto& r : kept) seen[r.ok() ? r.value().sha1 + " " + r.value().object_key : "failed"]++;
  for (const auto& r : downloads)
    seen[r.ok() ? "ok" : std::to_string(code_of(r)) + " " + r.error().message]++;
  EXPECT_EQ(seen, (std::map<std::string, int>{{sha1_hex(data) + " present", kCalls},
                                              {"404 Object not found", kCalls}}));
}

TEST_F(CppLayerTest, TransferCallbacksCancelAndCallerExceptionsStayInside) {
  std::string data = pattern_bytes(5 * 65536, 6);
  std::string file = dir_.write("five", data);
  ASSERT_TRUE(
      server_.add_fault(R"({"method":"PUT","path":"resumable","header":"Content-Range: bytes 131072-",)"
                        R"("status":403,"times":1})"));
  zel::PutOptions options;
  std::mutex mutex;
  std::multiset<std::string> chunks;
  options.chunk_done = [&](zel::ByteRange r) {
    std::lock_guard<std::mutex> lock(mutex);
    chunks.insert(std::to_string(r.start) + "-" + std::to_string(r.end));
  };
  options.chunk_failed = [&](zel::ByteRange r, const zel::Error& e) {
    std::lock_guard<std::mutex> lock(mutex);
    chunks.insert(std::to_string(r.start) + " " + e.message);
  };
  EXPECT_EQ(code_of(client_->put_object(file, "bkt", "five", options).get()), 403);
  EXPECT_EQ(chunks, (std::multiset<std::string>{"0-65535", "65536-131071", "131072 Forbidden",
                                                "196608-262143", "262144-327679"}));

  // A progress callback that throws cancels instead of letting the exception
  // into the library's thread. (One that says stop is the command-line
  // tool's Ctrl-C.)
  zel::GetOptions throwing;
  throwing.progress = [](uint64_t, uint64_t) -> bool { throw std::runtime_error("observer broke"); };
  ASSERT_TRUE(client_->put_object(file, "bkt", "whole").get().ok());
  EXPECT_EQ(code_of(client_->get_object("bkt", "whole", dir_.file("cancel"), throwing).get()), 42);
  std::promise<void> reached;
  client_->delete_object("bkt", "whole", [&](zel::Result<zel::Done> r) {
    EXPECT_TRUE(r.ok());
    reached.set_value();
    throw std::runtime_error("the caller's callback fails");
  });
  EXPECT_EQ(reached.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_FALSE(client_->object_details("bkt", "whole").get().ok()) << "still working after the throw";
}

TEST_F(CppLayerTest, TheTokenIsProcessWide) {
  zel::set_token("wrong");
  EXPECT_EQ(code_of(client_->bucket_details("bkt").get()), 401);
  zel::Client other;  // a second handle sees the same holder
  zel::set_token_provider([] { return std::string("local-dev-token"); });
  EXPECT_TRUE(other.bucket_details("bkt").get().ok());
  zel::set_token_provider([]() -> std::string { throw std::runtime_error("no token today"); });
  EXPECT_EQ(code_of(client_->bucket_details("bkt").get()), 401);
  EXPECT_EQ(server_.requests().back().header("Authorization"), "") << "a failing provider sends no token";
}

// A base that is not there is an error, not an outcome, with the service's
// code or the library's own; scratch files never outlive a call. (The
// outcomes themselves reach the command-line tool's patch transfers.)
TEST_F(CppLayerTest, DeltaFailuresAreErrorsNotOutcomes) {
  std::string old_file = dir_.write("old", pattern_bytes(40000, 21));
  zel::DeltaOptions options;
  options.temp_dir = dir_.file("scratch");
  ASSERT_EQ(mkdir(options.temp_dir.c_str(), 0700), 0);
  EXPECT_EQ(code_of(client_->match("bkt", "nothing", old_file, options).get()), 404);
  auto no_base = client_->get_patch("bkt", "v0", "v2", old_file, dir_.file("out"), options).get();
  ASSERT_FALSE(no_base.ok());
  EXPECT_EQ(no_base.error().code, ZEL_PATCH_NO_DETAILS);
  EXPECT_EQ(no_base.error().message, "Cannot get original object details");
  std::error_code error;
  EXPECT_TRUE(std::filesystem::is_empty(options.temp_dir, error));
}

}  // namespace
}  // namespace zeltest
