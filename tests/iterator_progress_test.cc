// The chunk iterator's boundaries and the progress counter's sums, alone
// and shared by concurrent workers.
#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "alloc.h"
#include "captured_log.h"
#include "iterator.h"
#include "object.h"
#include "progress.h"

namespace zeltest {
namespace {

using Range = std::pair<uint64_t, uint64_t>;

// Every chunk the iterator hands out, in order; checks has_next agrees.
std::vector<Range> drain(ZELByteRangeIterator* iterator) {
  std::vector<Range> out;
  while (iterator_has_next(iterator)) {
    ZELByteRange* range = iterator_next(iterator);
    if (range == nullptr) break;  // caught below: has_next promised a chunk
    out.emplace_back(range->start, range->end);
    byte_range_cleanup(range);
  }
  EXPECT_EQ(iterator_next(iterator), nullptr) << "nothing after has_next said 0";
  return out;
}

TEST(Iterator, ChunkBoundariesAndRefusals) {
  struct IteratorCase {
    uint64_t start, step, length;
    std::vector<Range> chunks;
  };
  // (Whole chunks, one byte more and nothing at all are the transfer tests'.)
  const std::vector<IteratorCase> cases = {
      {10, 10, 25, {{10, 19}, {20, 29}, {30, 34}}},  // end is start + length
      {5, UINT64_MAX, 10, {{5, 14}}},                // a step that would wrap
      {UINT64_MAX - 4, 3, 4, {{UINT64_MAX - 4, UINT64_MAX - 2}, {UINT64_MAX - 1, UINT64_MAX - 1}}},
  };
  for (const IteratorCase& c : cases) {
    SCOPED_TRACE(std::to_string(c.start) + "+" + std::to_string(c.length) + "/" + std::to_string(c.step));
    ZELByteRangeIterator* iterator = iterator_init(c.start, c.step, c.length);
    ASSERT_NE(iterator, nullptr);
    EXPECT_EQ(drain(iterator), c.chunks);
    iterator_cleanup(iterator);
  }
  CapturedLog log;
  EXPECT_EQ(iterator_init(0, 0, 100), nullptr);
  EXPECT_EQ(iterator_init(UINT64_MAX, 1, 2), nullptr) << "a range beyond the largest offset";
  mem_fail_at(1);
  EXPECT_EQ(iterator_init(0, 1, 1), nullptr);
  mem_fail_at(0);

  // A chunk whose range cannot be allocated is handed out on the next call.
  ZELByteRangeIterator* iterator = iterator_init(0, 4, 8);
  mem_fail_at(1);
  EXPECT_EQ(iterator_next(iterator), nullptr);
  mem_fail_at(0);
  EXPECT_EQ(drain(iterator), (std::vector<Range>{{0, 3}, {4, 7}}));
  iterator_cleanup(iterator);
}

TEST(Progress, ReportsAddOnlyNewBytesAndDownloadsMayShrink) {
  CapturedLog log;
  mem_fail_at(1);
  EXPECT_EQ(progress_init(1), nullptr);
  mem_fail_at(0);
  ZELProgress* progress = progress_init(500);
  ZELTransferProgress* upload = transfer_progress_init(progress, nullptr, 0, 0, nullptr);
  ZELTransferProgress* download = transfer_progress_init(progress, nullptr, 0, 1, nullptr);
  auto report = [](ZELTransferProgress* request, uint64_t count, bool may_shrink) {
    ProgressFigures f{};
    return progress_report(request, count, may_shrink, &f)
               ? std::to_string(f.transferred) + "/" + std::to_string(f.total)
               : "none";
  };
  EXPECT_EQ(report(upload, 100, false), "100/500") << "the total given at init";
  EXPECT_EQ(report(upload, 40, false), "none") << "an upload never goes back";
  EXPECT_EQ(report(download, 30, true), "130/500") << "requests of one transfer add up";
  progress_set_total(progress, 900);
  EXPECT_EQ(report(download, 10, true), "110/900") << "a restarted download subtracts";
  EXPECT_EQ(report(nullptr, 5, false), "none");
  for (ZELTransferProgress* request : {upload, download}) mem_free(request);
  progress_cleanup(progress);
}

// Workers share one iterator and one progress record, as a transfer's
// requests do: each chunk is handed out once, and the counts sum exactly.
TEST(Concurrency, EachChunkOnceAndExactSums) {
  const uint64_t start = 3, step = 7, length = 70001;
  ZELByteRangeIterator* iterator = iterator_init(start, step, length);
  ZELProgress* progress = progress_init(length);
  std::mutex mutex;
  std::multiset<uint64_t> starts;
  uint64_t highest = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      ZELTransferProgress* mine = transfer_progress_init(progress, nullptr, 0, 0, nullptr);
      uint64_t count = 0;
      // has_next may say 1 just before another thread takes the last chunk.
      while (iterator_has_next(iterator)) {
        ZELByteRange* range = iterator_next(iterator);
        if (range == nullptr) continue;
        count += range->end - range->start + 1;
        ProgressFigures figures{};
        bool reported = progress_report(mine, count, false, &figures);
        std::lock_guard<std::mutex> lock(mutex);
        starts.insert(range->start);
        if (reported) highest = std::max(highest, figures.transferred);
        byte_range_cleanup(range);
      }
      mem_free(mine);
    });
  }
  for (std::thread& thread : threads) thread.join();
  iterator_cleanup(iterator);
  EXPECT_EQ(starts.size(), (length + step - 1) / step);
  EXPECT_EQ(std::set<uint64_t>(starts.begin(), starts.end()).size(), starts.size())
      << "a chunk handed out twice";
  EXPECT_EQ(progress->transferred, length) << "every byte counted once";
  EXPECT_EQ(highest, length) << "the last report sees the full sum";
  progress_cleanup(progress);
}

}  // namespace
}  // namespace zeltest
