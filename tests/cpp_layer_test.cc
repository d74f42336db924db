// The C++ layer over the C interface: text conversions, results that
// outlive the library's records, and completions that arrive exactly once.
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>
#include <zel/zel.hpp>

#include "frame.h"
#include "transfer_support.h"
#include "zel_server.h"

namespace {

using zeltest::http;
using zeltest::kAuthHeader;
using zeltest::pattern_bytes;
using zeltest::sha1_hex;

TEST(CppText, ConversionsRoundTripAndRefuseMalformedInput) {
  const std::string key = "dir/ünï ☃/\xF0\x9D\x84\x9E.bin";  // U+1D11E needs a surrogate pair
  std::u16string wide = zel::to_utf16(key);
  EXPECT_EQ(wide, u"dir/ünï ☃/\U0001D11E.bin");
  EXPECT_EQ(wide[10], 0xD834);
  EXPECT_EQ(wide[11], 0xDD1E);
  EXPECT_EQ(zel::to_utf8(wide), key);
  EXPECT_EQ(zel::to_utf8(nullptr), "");
  EXPECT_EQ(zel::to_utf16(""), u"");

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

class CppLayerTest : public zeltest::EmulatorTest {
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
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (frame_running_workers() > 0 && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    library_.reset();
    zel::set_environment_url(ZEL_ENV_LOCAL, "");
    EmulatorTest::TearDown();
  }

  std::optional<zel::Library> library_;
  std::optional<zel::Client> client_;
  zeltest::ScratchDir dir_;
};

TEST_F(CppLayerTest, TheEndpointReachesBothServices) {
  KRI* kri = kri_init(ZEL_ENV_LOCAL, 1, nullptr, nullptr);
  ASSERT_NE(kri, nullptr);
  testing::internal::CaptureStdout();
  EXPECT_EQ(kri_health(kri), 200) << "the delta engine shares the storage service's endpoint";
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "the answer's body stays inside the library";
  kri_cleanup(kri);
}

TEST_F(CppLayerTest, NonAsciiKeysTravelAsUtf8AndComeBackUnchanged) {
  const std::string key = "dir/ünï ☃/\xF0\x9D\x84\x9E.bin";
  std::string data = pattern_bytes(150000, 4);
  auto put = client_->put_object(dir_.write("up", data), "bkt", key).get();
  ASSERT_TRUE(put.ok()) << put.error().code << " " << put.error().message;
  ASSERT_TRUE(put.value().details.has_value());
  EXPECT_EQ(put.value().details->object_key, key);
  EXPECT_EQ(put.value().details->sha1, sha1_hex(data));
  EXPECT_EQ(zeltest::matching(server_.requests(), "PUT", "/resumable").size(), 3u);

  auto details = client_->object_details("bkt", key).get();
  ASSERT_TRUE(details.ok());
  EXPECT_EQ(details.value().object_key, key);
  EXPECT_EQ(details.value().size, data.size());
  ASSERT_TRUE(client_->get_object("bkt", key, dir_.file("down")).get().ok());
  EXPECT_EQ(zeltest::read_file(dir_.file("down")), data);

  auto copy = client_->copy_object("bkt", key, "kopie/ß").get();
  ASSERT_TRUE(copy.ok()) << copy.error().message;
  EXPECT_EQ(copy.value().object_key, "kopie/ß");
  EXPECT_EQ(copy.value().bucket_key, "bkt");
}

TEST_F(CppLayerTest, RecordsAreCopiedInTheServicesOrder) {
  std::vector<zel::Permission> wanted{{"svc-z", ZEL_BUCKET_ACCESS_READ}, {"svc-a", ZEL_BUCKET_ACCESS_FULL}};
  auto made = client_->create_bucket("ordered", ZEL_BUCKET_POLICY_PERSISTENT, wanted).get();
  ASSERT_TRUE(made.ok()) << made.error().message;
  ASSERT_EQ(made.value().permissions.size(), 2u);
  EXPECT_EQ(made.value().permissions[0].auth_id, "svc-z") << "the order given, not the C list's";
  EXPECT_EQ(made.value().permissions[1].access, ZEL_BUCKET_ACCESS_FULL);
  EXPECT_EQ(made.value().policy, ZEL_BUCKET_POLICY_PERSISTENT);

  auto granted = client_->grant("ordered", {{"svc-m", ZEL_BUCKET_ACCESS_READ}}).get();
  ASSERT_TRUE(granted.ok());
  ASSERT_EQ(granted.value().size(), 3u);
  EXPECT_EQ(granted.value()[2].auth_id, "svc-m");
  ASSERT_TRUE(client_->revoke("ordered", {"svc-z", "svc-m"}).get().ok());
  auto after = client_->bucket_details("ordered").get();
  ASSERT_TRUE(after.ok());
  ASSERT_EQ(after.value().permissions.size(), 1u);
  EXPECT_EQ(after.value().permissions[0].auth_id, "svc-a");

  auto page = client_->list_buckets("", 1, "").get();
  ASSERT_TRUE(page.ok());
  ASSERT_EQ(page.value().buckets.size(), 1u);
  EXPECT_EQ(page.value().buckets[0].bucket_key, "bkt");
  EXPECT_EQ(page.value().next_page, "ordered");
  auto last = client_->list_buckets("", 10, page.value().next_page).get();
  ASSERT_TRUE(last.ok());
  ASSERT_EQ(last.value().buckets.size(), 1u);
  EXPECT_EQ(last.value().buckets[0].policy, "persistent");
  EXPECT_EQ(last.value().next_page, "");
}

TEST_F(CppLayerTest, EveryCallCompletesExactlyOnceAndResultsOutliveTheCallbacks) {
  std::string data = pattern_bytes(1000, 8);
  ASSERT_TRUE(client_->put_object(dir_.write("one", data), "bkt", "present").get().ok());
  constexpr int kCalls = 24;
  std::vector<std::atomic<int>> counts(4 * kCalls);
  std::mutex mutex;
  std::vector<zel::Result<zel::ObjectDetails>> kept;
  std::vector<zel::Result<zel::Done>> downloads;
  for (int i = 0; i < kCalls; ++i) {
    auto keep = [&, i](int slot) {
      return [&, i, slot](zel::Result<zel::ObjectDetails> r) {
        counts[slot * kCalls + i]++;
        std::lock_guard<std::mutex> lock(mutex);
        kept.push_back(std::move(r));
      };
    };
    client_->object_details("bkt", "present", keep(0));
    client_->object_details("bkt", "absent" + std::to_string(i), keep(1));
    auto get = [&, i](int slot) {
      return [&, i, slot](zel::Result<zel::Done> r) {
        counts[slot * kCalls + i]++;
        std::lock_guard<std::mutex> lock(mutex);
        downloads.push_back(std::move(r));
      };
    };
    client_->get_object("bkt", "present", dir_.file("d" + std::to_string(i)), {}, get(2));
    // A failed size query reports twice in the C layer; the C++ caller
    // still hears once.
    client_->get_object("bkt", "absent", dir_.file("a" + std::to_string(i)), {}, get(3));
  }
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  auto finished = [&] {
    std::lock_guard<std::mutex> lock(mutex);
    return kept.size() + downloads.size() == 4u * kCalls;
  };
  while (!finished() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // room for stray second reports
  for (size_t i = 0; i < counts.size(); ++i) EXPECT_EQ(counts[i].load(), 1) << "call " << i;

  std::lock_guard<std::mutex> lock(mutex);
  int found = 0, missing = 0;
  for (const auto& r : kept) {
    if (r.ok()) {
      ++found;
      EXPECT_EQ(r.value().sha1, sha1_hex(data)) << "copied before the library freed its record";
      EXPECT_EQ(r.value().object_key, "present");
    } else {
      ++missing;
      EXPECT_EQ(r.error().code, 404);
      EXPECT_EQ(r.error().message, "Object not found");
    }
  }
  EXPECT_EQ(found, kCalls);
  EXPECT_EQ(missing, kCalls);
  int failed = 0;
  for (const auto& r : downloads) {
    if (r.ok()) continue;
    ++failed;
    EXPECT_EQ(r.error().code, 404) << "the first report, with the service's reason: " << r.error().message;
  }
  EXPECT_EQ(failed, kCalls);
}

TEST_F(CppLayerTest, TransferCallbacksCancelAndCallerExceptionsStayInside) {
  std::string data = pattern_bytes(5 * 65536, 6);
  std::string file = dir_.write("five", data);
  ASSERT_TRUE(
      server_.add_fault(R"({"method":"PUT","path":"resumable","header":"Content-Range: bytes 131072-",)"
                        R"("status":403,"times":1})"));
  zel::PutOptions options;
  options.session_id = "cpp-session-1";
  std::mutex mutex;
  std::vector<zel::ByteRange> done;
  std::vector<std::pair<zel::ByteRange, zel::Error>> failed;
  options.chunk_done = [&](zel::ByteRange r) {
    std::lock_guard<std::mutex> lock(mutex);
    done.push_back(r);
  };
  options.chunk_failed = [&](zel::ByteRange r, const zel::Error& e) {
    std::lock_guard<std::mutex> lock(mutex);
    failed.push_back({r, e});
  };
  auto first = client_->put_object(file, "bkt", "five", options).get();
  ASSERT_FALSE(first.ok());
  EXPECT_EQ(first.error().code, 403);
  ASSERT_EQ(failed.size(), 1u);
  EXPECT_EQ(failed[0].first.start, 131072u);
  EXPECT_EQ(failed[0].second.message, "Forbidden");
  EXPECT_EQ(done.size(), 4u);

  auto session = client_->upload_session("bkt", "five", "cpp-session-1").get();
  ASSERT_TRUE(session.ok()) << session.error().message;
  ASSERT_EQ(session.value().ranges.size(), 2u);
  EXPECT_EQ(session.value().ranges[0].end, 131071u) << "ascending order";
  EXPECT_EQ(session.value().ranges[1].start, 196608u);

  // A progress callback that says stop cancels; one that throws cancels too
  // instead of letting the exception into the library's thread.
  zel::GetOptions stop;
  stop.progress = [](uint64_t, uint64_t) { return false; };
  zel::GetOptions throwing;
  throwing.progress = [](uint64_t, uint64_t) -> bool { throw std::runtime_error("observer broke"); };
  ASSERT_TRUE(client_->put_object(file, "bkt", "whole").get().ok());
  for (const zel::GetOptions* o : {&stop, &throwing}) {
    auto r = client_->get_object("bkt", "whole", dir_.file("cancel"), *o).get();
    ASSERT_FALSE(r.ok());
    EXPECT_EQ(r.error().code, 42) << r.error().message;
  }
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
  auto refused = client_->bucket_details("bkt").get();
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, 401);
  EXPECT_EQ(refused.error().message, "Unauthorized");
  zel::Client other;  // a second handle sees the same holder
  zel::set_token_provider([] { return std::string("local-dev-token"); });
  EXPECT_TRUE(other.bucket_details("bkt").get().ok());
  zel::set_token_provider([]() -> std::string { throw std::runtime_error("no token today"); });
  auto none = client_->bucket_details("bkt").get();
  ASSERT_FALSE(none.ok());
  EXPECT_EQ(none.error().code, 401);
  EXPECT_EQ(server_.requests().back().header("Authorization"), "") << "a failing provider sends no token";
  zel::set_token_provider(nullptr);
  zel::set_token("local-dev-token");
  EXPECT_TRUE(client_->bucket_details("bkt").get().ok());
}

// The outcomes a caller branches on, the bytes that arrive, and scratch
// files that never outlive a call.
TEST_F(CppLayerTest, DeltaOperationsSayWhichOutcomeHappened) {
  std::string old_data = pattern_bytes(400000, 21), new_data = old_data;
  for (size_t at : {1000u, 150000u, 390000u}) new_data.replace(at, 300, pattern_bytes(300, 22));
  std::string old_file = dir_.write("old", old_data), new_file = dir_.write("new", new_data);
  std::string other_file = dir_.write("other", pattern_bytes(400000, 23));
  ASSERT_TRUE(client_->put_object(old_file, "bkt", "v1").get().ok());
  zel::DeltaOptions options;
  options.temp_dir = dir_.file("scratch");
  ASSERT_EQ(mkdir(options.temp_dir.c_str(), 0700), 0);
  auto scratch_is_empty = [&] {
    std::error_code error;
    return std::filesystem::is_empty(options.temp_dir, error);
  };

  options.ratio = 0.1;
  struct {
    const std::string* file;
    zel::DeltaOutcome want;
  } matches[] = {{&new_file, zel::DeltaOutcome::kMatched}, {&other_file, zel::DeltaOutcome::kTooDifferent}};
  for (const auto& m : matches) {
    auto r = client_->match("bkt", "v1", *m.file, options).get();
    ASSERT_TRUE(r.ok()) << r.error().code << " " << r.error().message;
    EXPECT_EQ(r.value().outcome, m.want) << *m.file;
    EXPECT_EQ(r.value().match_value > 0, m.want == zel::DeltaOutcome::kMatched);
  }
  auto missing = client_->match("bkt", "nothing", new_file, options).get();
  ASSERT_FALSE(missing.ok()) << "a failed signature download is an error, not an outcome";
  EXPECT_EQ(missing.error().code, 404);

  auto different = client_->put_patch(old_file, other_file, "bkt", "v1", "v2", options).get();
  ASSERT_TRUE(different.ok()) << different.error().message;
  EXPECT_EQ(different.value().outcome, zel::DeltaOutcome::kTooDifferent);
  auto patched = client_->put_patch(old_file, new_file, "bkt", "v1", "v2", options).get();
  ASSERT_TRUE(patched.ok()) << patched.error().code << " " << patched.error().message;
  ASSERT_EQ(patched.value().outcome, zel::DeltaOutcome::kPatched);
  ASSERT_TRUE(patched.value().details.has_value());
  EXPECT_EQ(patched.value().details->sha1, sha1_hex(new_data));
  ASSERT_TRUE(patched.value().patch_size.has_value()) << "the patch's size is seen while it goes up";
  EXPECT_GT(*patched.value().patch_size, 900u);
  EXPECT_LT(*patched.value().patch_size, new_data.size() / 10);
  EXPECT_EQ(http("GET", server_.api(2) + "/buckets/bkt/objects/v2", {kAuthHeader}).body, new_data);
  EXPECT_TRUE(scratch_is_empty());

  // The first download asks the service for the patch; a later one uses it.
  std::string out = dir_.file("out");
  zel::Result<zel::DeltaResult> got = zel::Error{};
  for (int attempt = 0; attempt < 200; ++attempt) {
    got = client_->get_patch("bkt", "v1", "v2", old_file, out, options).get();
    ASSERT_TRUE(got.ok()) << got.error().code << " " << got.error().message;
    if (got.value().outcome != zel::DeltaOutcome::kPatchNotReady) break;
    EXPECT_FALSE(zeltest::file_exists(out));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  ASSERT_EQ(got.value().outcome, zel::DeltaOutcome::kPatched);
  EXPECT_EQ(zeltest::read_file(out), new_data);
  ASSERT_TRUE(got.value().patch_size.has_value());
  EXPECT_LT(*got.value().patch_size, new_data.size() / 10);
  options.ratio = 0.0;
  auto too_large = client_->get_patch("bkt", "v1", "v2", old_file, dir_.file("out2"), options).get();
  ASSERT_TRUE(too_large.ok());
  EXPECT_EQ(too_large.value().outcome, zel::DeltaOutcome::kTooDifferent);
  auto no_base = client_->get_patch("bkt", "v0", "v2", old_file, dir_.file("out2"), options).get();
  ASSERT_FALSE(no_base.ok());
  EXPECT_EQ(no_base.error().code, ZEL_PATCH_NO_DETAILS);
  EXPECT_EQ(no_base.error().message, "Cannot get original object details");
  EXPECT_TRUE(scratch_is_empty());
}

}  // namespace
