// The chunk iterator's boundaries and its hand-out under concurrency, and
// the progress counter's sums under concurrent reports.
#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "alloc.h"
#include "captured_log.h"
#include "iterator.h"
#include "object.h"
#include "progress.h"

namespace {

using Range = std::pair<uint64_t, uint64_t>;

// Every chunk the iterator hands out, in order; checks has_next agrees.
std::vector<Range> drain(ZELByteRangeIterator* iterator) {
  std::vector<Range> out;
  while (iterator_has_next(iterator)) {
    ZELByteRange* range = iterator_next(iterator);
    if (range == nullptr) {
      ADD_FAILURE() << "has_next promised a chunk that next did not give";
      break;
    }
    out.emplace_back(range->start, range->end);
    byte_range_cleanup(range);
  }
  EXPECT_EQ(iterator_next(iterator), nullptr) << "nothing after has_next said 0";
  return out;
}

struct IteratorCase {
  uint64_t start, step, length;
  std::vector<Range> chunks;
};

TEST(Iterator, ChunkBoundaries) {
  const uint64_t mib5 = 5242880;
  const std::vector<IteratorCase> cases = {
      {0, mib5, 2 * mib5, {{0, mib5 - 1}, {mib5, 2 * mib5 - 1}}},  // exact multiple
      {0, mib5, mib5 + 1, {{0, mib5 - 1}, {mib5, mib5}}},          // one byte more
      {10, 10, 25, {{10, 19}, {20, 29}, {30, 34}}},                // end is start + length
      {20, 10, 5, {{20, 24}}},                                     // start beyond length
      {0, mib5, 0, {}},                                            // zero length
      {7, 1, 3, {{7, 7}, {8, 8}, {9, 9}}},
      {5, UINT64_MAX, 10, {{5, 14}}},  // a step that would wrap
      {UINT64_MAX - 4, 3, 4, {{UINT64_MAX - 4, UINT64_MAX - 2}, {UINT64_MAX - 1, UINT64_MAX - 1}}},
  };
  for (const IteratorCase& c : cases) {
    ZELByteRangeIterator* iterator = iterator_init(c.start, c.step, c.length);
    ASSERT_NE(iterator, nullptr) << c.start << "+" << c.length << "/" << c.step;
    EXPECT_EQ(drain(iterator), c.chunks) << c.start << "+" << c.length << "/" << c.step;
    iterator_cleanup(iterator);
  }
  EXPECT_EQ(iterator_has_next(nullptr), 0);
  EXPECT_EQ(iterator_next(nullptr), nullptr);
  iterator_cleanup(nullptr);
}

TEST(Iterator, RefusalsAndFailedAllocations) {
  zeltest::CapturedLog log;
  EXPECT_EQ(iterator_init(0, 0, 100), nullptr);
  EXPECT_EQ(zeltest::CapturedLog::last("src\\iterator"), "Cannot initialize iterator with step equal 0");
  EXPECT_EQ(iterator_init(UINT64_MAX, 1, 2), nullptr);
  EXPECT_EQ(zeltest::CapturedLog::last("src\\iterator"),
            "Cannot initialize iterator with a range beyond the largest offset");
  log.clear();
  mem_fail_at(1);
  EXPECT_EQ(iterator_init(0, 1, 1), nullptr);
  mem_fail_at(0);
  EXPECT_TRUE(zeltest::CapturedLog::messages("src\\iterator").empty())
      << "a failed record allocation is silent";

  // A chunk whose range cannot be allocated is handed out on the next call.
  ZELByteRangeIterator* iterator = iterator_init(0, 4, 8);
  mem_fail_at(1);
  EXPECT_EQ(iterator_next(iterator), nullptr);
  mem_fail_at(0);
  EXPECT_EQ(drain(iterator), (std::vector<Range>{{0, 3}, {4, 7}}));
  iterator_cleanup(iterator);
}

TEST(Iterator, ConcurrentCallersGetEachChunkOnce) {
  const uint64_t start = 3, step = 7, length = 70001;
  ZELByteRangeIterator* iterator = iterator_init(start, step, length);
  ASSERT_NE(iterator, nullptr);
  std::mutex mutex;
  std::vector<Range> seen;
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      std::vector<Range> mine;
      // has_next may say 1 just before another thread takes the last chunk.
      while (iterator_has_next(iterator)) {
        if (ZELByteRange* range = iterator_next(iterator)) {
          mine.emplace_back(range->start, range->end);
          byte_range_cleanup(range);
        }
      }
      std::lock_guard<std::mutex> lock(mutex);
      seen.insert(seen.end(), mine.begin(), mine.end());
    });
  }
  for (std::thread& thread : threads) thread.join();
  iterator_cleanup(iterator);
  std::sort(seen.begin(), seen.end());
  ASSERT_EQ(seen.size(), (length + step - 1) / step);
  uint64_t expected = start;
  for (const Range& range : seen) {
    ASSERT_EQ(range.first, expected) << "gap or repeat";
    ASSERT_LE(range.second - range.first + 1, step);
    expected = range.second + 1;
  }
  EXPECT_EQ(expected, start + length);
}

TEST(Progress, ReportsAddOnlyNewBytesAndDownloadsMayShrink) {
  {
    zeltest::CapturedLog log;
    mem_fail_at(1);
    EXPECT_EQ(progress_init(1), nullptr);
    mem_fail_at(0);
    EXPECT_EQ(zeltest::CapturedLog::last("src\\progress"), "Cannot allocate memory for ZELProgress");
  }
  ZELProgress* progress = progress_init(500);
  ASSERT_NE(progress, nullptr);
  EXPECT_EQ(progress->transferred, 0u);
  int marker = 0;
  ZELTransferProgress* upload = transfer_progress_init(progress, &marker, 0, 0, nullptr);
  ZELTransferProgress* download = transfer_progress_init(progress, nullptr, 0, 1, nullptr);
  ASSERT_NE(upload, nullptr);
  EXPECT_EQ(upload->user_data, &marker);
  EXPECT_EQ(upload->last, 0u);
  EXPECT_EQ(download->total_from_transfer, 1);

  ProgressFigures figures{};
  EXPECT_FALSE(progress_report(upload, 0, false, &figures)) << "nothing moved yet";
  EXPECT_TRUE(progress_report(upload, 100, false, &figures));
  EXPECT_EQ(figures.transferred, 100u);
  EXPECT_EQ(figures.total, 500u) << "the total given at init";
  EXPECT_FALSE(progress_report(upload, 100, false, &figures)) << "same count adds nothing";
  EXPECT_FALSE(progress_report(upload, 40, false, &figures)) << "an upload never goes back";
  EXPECT_EQ(upload->last, 100u);
  EXPECT_TRUE(progress_report(upload, 150, false, &figures));
  EXPECT_EQ(figures.transferred, 150u);

  EXPECT_TRUE(progress_report(download, 30, true, &figures));
  EXPECT_EQ(figures.transferred, 180u);  // requests of one transfer add up
  progress_set_total(progress, 900);
  EXPECT_TRUE(progress_report(download, 10, true, &figures));  // a restarted download subtracts
  EXPECT_EQ(figures.transferred, 160u);
  EXPECT_EQ(figures.total, 900u);
  EXPECT_EQ(download->last, 10u);

  // Subtracting more than was counted stops at zero instead of wrapping.
  ZELProgress* small = progress_init(0);
  ZELTransferProgress* odd = transfer_progress_init(small, nullptr, 0, 0, nullptr);
  odd->last = 50;
  EXPECT_TRUE(progress_report(odd, 0, true, &figures));
  EXPECT_EQ(figures.transferred, 0u);
  EXPECT_FALSE(progress_report(nullptr, 5, false, &figures));
  mem_free(odd);
  progress_cleanup(small);
  mem_free(upload);
  mem_free(download);
  progress_cleanup(progress);
  progress_cleanup(nullptr);
}

TEST(Progress, ConcurrentRequestsSumExactly) {
  const int requests = 8;
  const uint64_t per_request = 100000;
  ZELProgress* progress = progress_init(requests * per_request);
  std::vector<std::thread> threads;
  std::mutex mutex;
  uint64_t highest = 0;
  for (int r = 0; r < requests; ++r) {
    threads.emplace_back([&, r] {
      ZELTransferProgress* data = transfer_progress_init(progress, nullptr, 0, 0, nullptr);
      uint64_t seen = 0;
      // Uneven increments so that the threads' reports interleave.
      for (uint64_t count = 0; count < per_request; count += 1 + (count + r) % 97) {
        ProgressFigures figures{};
        if (progress_report(data, count, false, &figures)) seen = std::max(seen, figures.transferred);
      }
      ProgressFigures figures{};
      progress_report(data, per_request, false, &figures);
      seen = std::max(seen, figures.transferred);
      mem_free(data);
      std::lock_guard<std::mutex> lock(mutex);
      highest = std::max(highest, seen);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(progress->transferred, requests * per_request);
  EXPECT_EQ(highest, requests * per_request) << "the last report sees the full sum";
  progress_cleanup(progress);
}

}  // namespace
