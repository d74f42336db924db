// Many transfers at once, every allocation failing in turn, and a shutdown
// that lands in the middle of transfers.
#include <atomic>
#include <deque>
#include <memory>

#include "alloc.h"
#include "captured_log.h"
#include "httppool.h"
#include "threads.h"
#include "transfer.h"
#include "transfer_support.h"

namespace zeltest {
namespace {

class StressTest : public LibTest {
 protected:
  void SetUp() override {
    LibTest::SetUp();
    make_bucket("bkt");
    h_ = handle();
    h_->chunk_size = 65536;
  }
  ZEL* h_ = nullptr;
  ScratchDir dir_;
};

TEST_F(StressTest, HundredSmallAndFourLargeInFlightAtOnce) {
  const int kAll = 104;  // 100 small ones, then 4 large ones
  std::vector<std::string> data;
  std::vector<std::unique_ptr<PutOptions>> puts;
  std::vector<std::unique_ptr<GetOptions>> gets;
  std::deque<Outcome> ups(kAll), downs(kAll);
  for (int i = 0; i < kAll; i++) {
    data.push_back(pattern_bytes(i < 100 ? 1000 + 97 * i : 1500000 + i, 500 + i));
    std::string key = "many" + std::to_string(i);
    puts.push_back(std::make_unique<PutOptions>("bkt", key, dir_.write(key, data.back())));
    gets.push_back(std::make_unique<GetOptions>("bkt", key, dir_.file(key + ".down")));
  }
  // Large ones first, so the small ones queue up behind their chunks.
  for (int i = kAll - 1; i >= 0; i--) zel_put_object(h_, &puts[i]->opt, &ups[i]);
  for (int i = 0; i < kAll; i++) ASSERT_TRUE(ups[i].wait()) << i;
  for (int i = 0; i < kAll; i++) zel_get_object(h_, &gets[i]->opt, &downs[i]);
  for (int i = 0; i < kAll; i++) ASSERT_TRUE(downs[i].wait()) << i;
  ASSERT_TRUE(downs[0].wait_once());  // one grace period shows any stray second report
  for (int i = 0; i < kAll; i++) {
    SCOPED_TRACE(i);
    EXPECT_EQ(std::make_pair(ups[i].finals, downs[i].finals), std::make_pair(1, 1));
    EXPECT_EQ(std::make_pair(ups[i].details, downs[i].done), std::make_pair(1, 1))
        << ups[i].message << " / " << downs[i].message;
    EXPECT_EQ(ups[i].sha1, sha1_hex(data[i]));
    EXPECT_EQ(sha1_hex(read_file(dir_.file("many" + std::to_string(i) + ".down"))), sha1_hex(data[i]));
  }
}

// Fails each allocation of a transfer in turn: whichever step runs out of
// memory, the transfer still ends with exactly one report and gives back
// every pooled request (and, under the sanitizers, every byte).
TEST_F(StressTest, EveryAllocationFailureEndsInExactlyOneReport) {
  CapturedLog log;  // the failures log a line each; keep them off the console
  std::string data = pattern_bytes(3 * 65536 + 5, 4);
  std::string path = dir_.write("torture", data);
  put_object("bkt", "torture", data);
  // A worker that cannot start leaves its task queued for the next one;
  // another transfer starts that worker.
  auto kick = [&](Outcome& stuck) {
    if (stuck.wait(std::chrono::seconds(2))) return;
    GetOptions again("bkt", "torture", dir_.file("kick"));
    Outcome other;
    zel_get_object(h_, &again.opt, &other);
    ASSERT_TRUE(other.wait());
    ASSERT_TRUE(stuck.wait());
  };
  // Outcomes stay alive to the end, where stray second reports would show.
  std::deque<Outcome> ups, downs;
  int clean_runs = 0;
  for (long n = 1; n <= 600 && clean_runs < 2; n++) {
    SCOPED_TRACE("allocation " + std::to_string(n));
    PutOptions put("bkt", "torture-up", path);
    GetOptions get("bkt", "torture", dir_.file("torture.down"));
    long before = mem_allocation_count();
    mem_fail_at(n);
    zel_put_object(h_, &put.opt, &ups.emplace_back());
    kick(ups.back());
    mem_fail_at(n);
    zel_get_object(h_, &get.opt, &downs.emplace_back());
    kick(downs.back());
    mem_fail_at(0);
    // Runs that made fewer than n allocations failed nothing.
    if (mem_allocation_count() - before < 2 * n) clean_runs++;
  }
  ASSERT_TRUE(ups.back().wait_once());
  for (size_t i = 0; i < ups.size(); i++) {
    std::lock_guard<std::mutex> lock_up(ups[i].mutex), lock_down(downs[i].mutex);
    EXPECT_EQ(ups[i].finals, 1) << "upload with allocation " << i + 1 << " failed";
    // A failed size query has a report of its own before the download's.
    EXPECT_TRUE(downs[i].finals == 1 ||
                (downs[i].finals == 2 && downs[i].message == "Cannot get object size"))
        << "download with allocation " << i + 1 << " failed: " << downs[i].finals << " reports";
  }
  EXPECT_EQ(clean_runs, 2) << "every allocation of both transfers was failed once";
  EXPECT_EQ(http_pool_in_use(), 0);
}

std::atomic<bool> g_started{false};
int32_t note_progress(uint64_t transferred, uint64_t, void*) {
  if (transferred > 0) g_started = true;
  return 0;
}

TEST_F(StressTest, ShutdownDuringTransfersLeavesNothingBehind) {
  int threads_before = thread_count();
  std::string big = pattern_bytes(2000000, 1);
  put_object("bkt", "big", big);
  // The service answers slowly, so chunks are running and queued when the
  // library shuts down.
  ASSERT_TRUE(server_.add_fault(R"({"path":"objects/","delay_ms":150,"times":-1})"));
  std::vector<std::unique_ptr<PutOptions>> puts;
  std::vector<std::unique_ptr<GetOptions>> gets;
  std::deque<Outcome> outcomes;
  for (int i = 0; i < 4; i++) {
    std::string key = "up" + std::to_string(i);
    puts.push_back(std::make_unique<PutOptions>("bkt", key, dir_.write(key, big)));
    puts.back()->opt.progress_callback = note_progress;
    zel_put_object(h_, &puts.back()->opt, &outcomes.emplace_back());
    gets.push_back(std::make_unique<GetOptions>("bkt", "big", dir_.file("down" + std::to_string(i))));
    zel_get_object(h_, &gets.back()->opt, &outcomes.emplace_back());
  }
  ASSERT_TRUE(eventually([] { return g_started.load(); }, std::chrono::seconds(30)));
  zel_global_cleanup();
  EXPECT_EQ(transfer_pending_count(), 0) << "dropped tasks were released";
  EXPECT_EQ(thread_count(), threads_before) << "no library thread outlives the shutdown";
  for (auto& o : outcomes) {
    std::lock_guard<std::mutex> lock(o.mutex);
    EXPECT_LE(o.finals, 1) << "a transfer reports at most once";
    EXPECT_EQ(o.done + o.details, 0) << "nothing finished while the service held every answer back";
  }
  // Leaks of the abandoned transfers would show under the sanitizers; the
  // fixture's own shutdown needs a library to shut down.
  ASSERT_EQ(zel_global_init(), 0);
}

}  // namespace
}  // namespace zeltest
