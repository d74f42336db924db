// Object records: the deep copies of streams, ranges and transfer options
// (each allocation's failure refused and freed), the decorators,
// the transfer entry points' refusals and the Range header value.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "alloc.h"
#include "alloc_walk.h"
#include "captured_log.h"
#include "object.h"
#include "recorder.h"
#include "util.h"

namespace {

using Range = std::pair<uint64_t, uint64_t>;
using Messages = std::vector<std::string>;

std::vector<Range> ranges_of(const ZELByteRanges* list) {
  std::vector<Range> out;
  for (const ZELByteRangeItem* item = list->head; item != nullptr; item = item->next)
    out.emplace_back(item->start, item->end);
  return out;
}

TEST(Records, CopiesAndInitsSurviveEachFailedAllocation) {
  ZELStream* stream = zel_stream_init(u"data.bin");
  stream->read = [](void*, size_t, size_t, FILE*) -> size_t { return 0; };
  ZELStream* copy = stream_clone(stream);
  EXPECT_NE(copy->filename, stream->filename);
  EXPECT_EQ(std::u16string(copy->filename), u"data.bin");
  EXPECT_TRUE(copy->read == stream->read && copy->write == stream->write && copy->seek == stream->seek);
  zel_stream_cleanup(copy);
  ZELByteRange range{3, 9};
  EXPECT_EQ(zeltest::walk_record([&] { return stream_clone(stream); }, zel_stream_cleanup), 3);
  EXPECT_EQ(zeltest::walk_record([&] { return byte_range_clone(&range); }, byte_range_cleanup), 2);
  EXPECT_EQ(zeltest::walk_record(zel_object_details_init, zel_object_details_cleanup), 2);
  EXPECT_EQ(zeltest::walk_record(zel_object_session_init, zel_object_session_cleanup), 3);
  zel_stream_cleanup(stream);
  // A session's range list is never absent.
  ZELObjectSession* session = zel_object_session_init();
  EXPECT_EQ(session->ranges->count, 0u);
  zel_object_session_cleanup(session);

  // A failed append returns the list unchanged.
  zeltest::CapturedLog log;
  ZELByteRanges* list = zel_byte_ranges_append(zel_byte_ranges_init(), 1, 2);
  mem_fail_at(1);
  EXPECT_EQ(zel_byte_ranges_append(list, 20, 30), list);
  mem_fail_at(0);
  EXPECT_EQ(ranges_of(list), (std::vector<Range>{{1, 2}}));
  EXPECT_EQ(list->count, 1u);
  EXPECT_EQ(zel_byte_ranges_append(nullptr, 1, 2), nullptr);
  zel_byte_ranges_cleanup(list);
}

void nop_chunk_done(const ZELPutObjectOpt*, void*) {}
void nop_stats(double, double, double, double, double, void*) {}
char* token() { return nullptr; }

struct PutFixture {
  ZELByteRange range{100, 199};
  ZELStream* stream = zel_stream_init(u"upload.bin");
  ZELHeaders* headers = zel_headers_append(zel_headers_append(nullptr, "A", "1"), "B", "2");
  ZELPutObjectOpt opt{u"bucket", u"dir/objét", "session-1", &range,         "text/plain", stream,   headers,
                      nullptr,   nullptr,      nullptr,     nop_chunk_done, nullptr,      nop_stats};
  ~PutFixture() {
    zel_stream_cleanup(stream);
    zel_headers_cleanup(headers);
  }
};

// One field table drives each copy and its free, so one deep-copy check
// stands for all three; each copy and each decorator (which copies the
// options) must survive a failure at any of its allocations.
template <class Opt, class Decorator>
void check_copies(const char* name, const Opt& opt, Opt* (*clone)(const Opt*), void (*cleanup)(Opt*),
                  long steps, std::function<Decorator*(const Opt*)> decorate,
                  void (*decorator_cleanup)(Decorator*)) {
  SCOPED_TRACE(name);
  EXPECT_EQ(zeltest::walk_record([&] { return clone(&opt); }, cleanup), steps);
  EXPECT_GT(zeltest::walk_record([&] { return decorate(&opt); }, decorator_cleanup), steps);
  EXPECT_EQ(clone(nullptr), nullptr);
}

TEST(OptionsCopy, CopiesOwnTheirFieldsAndSurviveFailedAllocations) {
  PutFixture put;
  ZEL* h = zel_init(ZEL_ENV_LOCAL, 2, token, nullptr);
  ZELPutObjectOpt* c = put_object_opt_clone(&put.opt);
  EXPECT_TRUE(c->key != put.opt.key && std::u16string(c->key) == u"dir/objét" &&
              c->session_id != put.opt.session_id && c->range != &put.range && c->range->end == 199 &&
              c->stream != put.stream && c->headers != put.headers &&
              std::string(zel_headers_find(c->headers, "B")) == "2" &&
              c->chunk_done_callback == nop_chunk_done && c->stats_callback == nop_stats);
  put_object_opt_cleanup(c);
  ZELPutObjectOpt sparse{};
  c = put_object_opt_clone(&sparse);
  EXPECT_EQ(c->headers, nullptr) << "absent fields stay absent";
  put_object_opt_cleanup(c);

  check_copies<ZELPutObjectOpt, ZELPutObjectDecorator>(
      "ZELPutObject", put.opt, put_object_opt_clone, put_object_opt_cleanup, 13,
      [&](const ZELPutObjectOpt* o) { return put_object_decorator_init(h, o, 1, nullptr); },
      put_object_decorator_cleanup);
  ZELGetObjectOpt get{u"bucket", u"key",  &put.range, put.stream, put.headers,
                      1,         nullptr, nullptr,    nullptr,    nullptr};
  check_copies<ZELGetObjectOpt, ZELGetObjectDecorator>(
      "ZELGetObject", get, get_object_opt_clone, get_object_opt_cleanup, 11,
      [&](const ZELGetObjectOpt* o) { return get_object_decorator_init(h, o, nullptr); },
      get_object_decorator_cleanup);
  ZELGetObjectByURLOpt by_url{};
  by_url.download_url = u"https://example.test/o";
  by_url.range = &put.range;
  by_url.stream = put.stream;
  by_url.headers = put.headers;
  check_copies<ZELGetObjectByURLOpt, ZELGetObjectByURLDecorator>(
      "ZELGetObjectByURL", by_url, get_object_by_url_opt_clone, get_object_by_url_opt_cleanup, 10,
      [&](const ZELGetObjectByURLOpt* o) { return get_object_by_url_decorator_init(h, o, nullptr); },
      get_object_by_url_decorator_cleanup);

  // A decorator owns copies of handle and options: the caller may free its
  // handle while the copy lives on.
  ZELPutObjectDecorator* decorator = put_object_decorator_init(h, &put.opt, 12345, nullptr);
  zel_cleanup(h);
  EXPECT_EQ(decorator->handle->api_version, 2u);
  EXPECT_EQ(std::u16string(decorator->opt->key), u"dir/objét");
  put_object_decorator_cleanup(decorator);
}

// Without the process-wide start-up there is no worker pool: each entry
// point reports that it cannot queue its task, on the caller's thread and
// once, and frees its copies (the sanitizer build checks). An upload first
// measures its file and reports the system's error when it cannot.
TEST(TransferEntry, RefusalsAreReportedOnTheCallersThread) {
  zeltest::CapturedLog log;
  ZEL* handle = zel_init(ZEL_ENV_LOCAL, 2, token, nullptr);
  std::string path = ::testing::TempDir() + "zel_entry.bin";
  std::fclose(std::fopen(path.c_str(), "wb"));  // an upload measures its file first
  char16_t* wide = utf8_to_wide(path.c_str());
  PutFixture put;  // its file does not exist
  put.opt.callback = zeltest::on_status<ZELPutObjectResp>;
  zeltest::Recorder missing, queued[3];
  zel_put_object(handle, &put.opt, &missing);
  ASSERT_EQ(missing.events().size(), 1u);
  EXPECT_EQ(missing.events()[0].code, ENOENT);
  mem_free(put.stream->filename);
  put.stream->filename = wide;
  zel_put_object(handle, &put.opt, &queued[0]);
  ZELGetObjectOpt get{u"b",    u"k",    nullptr, put.stream, nullptr, 0, zeltest::on_status<ZELGetObjectResp>,
                      nullptr, nullptr, nullptr};
  zel_get_object(handle, &get, &queued[1]);
  ZELGetObjectByURLOpt by_url{};
  by_url.download_url = u"http://x.test/o";
  by_url.stream = put.stream;
  by_url.callback = zeltest::on_status<ZELGetObjectByURLResp>;
  zel_get_object_by_url(handle, &by_url, &queued[2]);
  const char* names[] = {"put_object", "get_object", "get_object_by_url"};
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(queued[i].events().size(), 1u) << names[i];
    EXPECT_EQ(queued[i].events()[0].code, 0);
    EXPECT_EQ(queued[i].events()[0].message, std::string("Cannot enqueue a new task (") + names[i] + ")");
  }
  std::remove(path.c_str());
  zel_cleanup(handle);
}

// Pairs are pushed at the head of the list; pairs before a bad piece stay.
TEST(RangeHeader, ValuesIntoRangeLists) {
  const uint64_t max = UINT64_MAX;
  const struct {
    const char* value;
    int result;
    std::vector<Range> ranges;
  } cases[] = {
      {" bytes=0-5242879,10485760-15728639", 0, {{10485760, 15728639}, {0, 5242879}}},
      {"bytes=", 0, {}},
      {"bytes=0-99,500", -1, {{0, 99}}},
      {"bytes 0-99", -1, {}},
      {"", -1, {}},
      {nullptr, -1, {}},
      {"=99999999999999999999999-18446744073709551615", 0, {{max, max}}},
  };
  for (const auto& c : cases) {
    ZELByteRanges* list = zel_byte_ranges_init();
    SCOPED_TRACE(c.value != nullptr ? c.value : "(null)");
    EXPECT_EQ(byte_ranges_from_header(c.value, list), c.result);
    EXPECT_EQ(ranges_of(list), c.ranges);
    EXPECT_EQ(list->count, c.ranges.size());
    zel_byte_ranges_cleanup(list);
  }
  ZELByteRanges* list = zel_byte_ranges_init();
  EXPECT_EQ(byte_ranges_from_header("bytes=1-2", nullptr), -1);
  zeltest::CapturedLog log;
  mem_fail_at(2);  // the second range cannot be stored
  EXPECT_EQ(byte_ranges_from_header("bytes=1-2,3-4", list), -1);
  mem_fail_at(0);
  EXPECT_EQ(ranges_of(list), (std::vector<Range>{{1, 2}}));
  zel_byte_ranges_cleanup(list);
}

}  // namespace
