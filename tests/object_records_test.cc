// Object records: stream defaults, byte range lists, details and sessions,
// the deep copies of the transfer options (order of the copies and the
// message of each failure), the decorators, and the Range header value.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
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

const char* kTag = "src\\object";

using Range = std::pair<uint64_t, uint64_t>;

std::vector<Range> ranges_of(const ZELByteRanges* list) {
  std::vector<Range> out;
  for (const ZELByteRangeItem* item = list->head; item != nullptr; item = item->next) {
    out.emplace_back(item->start, item->end);
  }
  return out;
}

template <class Attempt>
std::vector<std::string> failure_messages(Attempt attempt) {
  return zeltest::walk_failure_messages(kTag, attempt);
}

void nop_resp(const ZELPutObjectResp*, void*) {}
void nop_chunk_failed(const ZELPutObjectResp*, const ZELPutObjectOpt*, void*) {}
void nop_details(const ZELObjectDetails*, void*) {}
void nop_chunk_done(const ZELPutObjectOpt*, void*) {}
int32_t nop_progress(uint64_t, uint64_t, void*) { return 0; }
void nop_stats(double, double, double, double, double, void*) {}
void nop_get_resp(const ZELGetObjectResp*, void*) {}
void nop_url_resp(const ZELGetObjectByURLResp*, void*) {}
void nop_done(void*) {}

TEST(Stream, DefaultsReadWriteAndSeekTheOpenFile) {
  const char16_t name[] = u"name";
  ZELStream* stream = zel_stream_init(name);
  ASSERT_NE(stream, nullptr);
  EXPECT_NE(stream->filename, name);
  EXPECT_EQ(std::u16string(stream->filename), u"name");
  FILE* file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(stream->write("hello world", 1, 11, file), 11u);
  EXPECT_EQ(stream->seek(file, 6, 0), 0);
  char buffer[8] = {0};
  EXPECT_EQ(stream->read(buffer, 1, 5, file), 5u);
  EXPECT_STREQ(buffer, "world");
  EXPECT_LT(stream->seek(file, -100, 0), 0) << "a failed seek is negative";
  std::fclose(file);
  zel_stream_cleanup(stream);
  zel_stream_cleanup(nullptr);

  zeltest::CapturedLog log;
  for (long step : {1L, 2L}) {
    mem_fail_at(step);
    EXPECT_EQ(zel_stream_init(u"name"), nullptr) << "step " << step;
  }
  mem_fail_at(0);
  EXPECT_TRUE(zeltest::CapturedLog::messages(kTag).empty()) << "stream init fails silently";
}

TEST(Stream, CloneIsDeepAndLogsEachFailure) {
  ZELStream* stream = zel_stream_init(u"data.bin");
  stream->read = [](void*, size_t, size_t, FILE*) -> size_t { return 0; };
  ZELStream* copy = stream_clone(stream);
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy->filename, stream->filename);
  EXPECT_EQ(std::u16string(copy->filename), u"data.bin");
  EXPECT_EQ(copy->read, stream->read);
  EXPECT_EQ(copy->write, stream->write);
  EXPECT_EQ(copy->seek, stream->seek);
  zel_stream_cleanup(copy);
  EXPECT_EQ(stream_clone(nullptr), nullptr);
  auto messages = failure_messages([&] {
    ZELStream* attempt = stream_clone(stream);
    zel_stream_cleanup(attempt);
    return attempt != nullptr;
  });
  EXPECT_EQ(messages, (std::vector<std::string>{"Cannot allocate memory for ZELStream clone",
                                                "Cannot allocate memory for the ZELStream filename"}));
  zel_stream_cleanup(stream);

  ZELByteRange range{3, 9};
  ZELByteRange* range_copy = byte_range_clone(&range);
  ASSERT_NE(range_copy, nullptr);
  EXPECT_EQ(range_copy->start, 3u);
  EXPECT_EQ(range_copy->end, 9u);
  byte_range_cleanup(range_copy);
  byte_range_cleanup(nullptr);
  EXPECT_EQ(byte_range_clone(nullptr), nullptr);
  EXPECT_EQ(failure_messages([&] {
              ZELByteRange* attempt = byte_range_clone(&range);
              byte_range_cleanup(attempt);
              return attempt != nullptr;
            }),
            (std::vector<std::string>{"Cannot allocate memory for ZELByteRange clone"}));
}

TEST(ByteRanges, AppendPushesAtTheHead) {
  EXPECT_EQ(zel_byte_ranges_append(nullptr, 1, 2), nullptr);
  ZELByteRanges* list = zel_byte_ranges_init();
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->count, 0u);
  EXPECT_EQ(zel_byte_ranges_append(list, 1, 2), list);
  EXPECT_EQ(zel_byte_ranges_append(list, 5, 9), list);
  EXPECT_EQ(list->count, 2u);
  EXPECT_EQ(ranges_of(list), (std::vector<Range>{{5, 9}, {1, 2}}));

  zeltest::CapturedLog log;
  mem_fail_at(1);
  EXPECT_EQ(zel_byte_ranges_append(list, 20, 30), list) << "the list comes back unchanged";
  mem_fail_at(0);
  EXPECT_EQ(list->count, 2u);
  EXPECT_EQ(ranges_of(list), (std::vector<Range>{{5, 9}, {1, 2}}));
  EXPECT_EQ(zeltest::CapturedLog::last(kTag), "Cannot allocate memory for ZELByteRangeItem");
  zel_byte_ranges_cleanup(list);
  zel_byte_ranges_cleanup(nullptr);
}

TEST(DetailsAndSession, InitCleanupAndFailures) {
  ZELObjectSession* session = zel_object_session_init();
  ASSERT_NE(session, nullptr);
  ASSERT_NE(session->ranges, nullptr) << "a session starts with an empty list, never none";
  EXPECT_EQ(session->ranges->count, 0u);
  zel_object_session_cleanup(session);
  zel_object_session_cleanup(nullptr);
  zel_object_details_cleanup(nullptr);

  EXPECT_EQ(failure_messages([] {
              ZELObjectDetails* attempt = zel_object_details_init();
              zel_object_details_cleanup(attempt);
              return attempt != nullptr;
            }),
            (std::vector<std::string>{"Cannot allocate memory for ZELObjectDetails"}));
  // The record itself fails silently; its range list does not.
  EXPECT_EQ(failure_messages([] {
              ZELObjectSession* attempt = zel_object_session_init();
              zel_object_session_cleanup(attempt);
              return attempt != nullptr;
            }),
            (std::vector<std::string>{"", "Cannot allocate memory for ZELByteRanges"}));
}

struct PutFixture {
  ZELByteRange range{100, 199};
  ZELStream* stream = zel_stream_init(u"upload.bin");
  ZELHeaders* headers = zel_headers_append(zel_headers_append(nullptr, "A", "1"), "B", "2");
  ZELPutObjectOpt opt{};
  PutFixture() {
    opt.bucket_key = u"bucket";
    opt.key = u"dir/objét";
    opt.session_id = "session-1";
    opt.range = &range;
    opt.content_type = "text/plain";
    opt.stream = stream;
    opt.headers = headers;
    opt.callback = nop_resp;
    opt.chunk_failed_callback = nop_chunk_failed;
    opt.details_callback = nop_details;
    opt.chunk_done_callback = nop_chunk_done;
    opt.progress_callback = nop_progress;
    opt.stats_callback = nop_stats;
  }
  ~PutFixture() {
    zel_stream_cleanup(stream);
    zel_headers_cleanup(headers);
  }
};

// One field table drives each copy and its free, so one deep-copy check
// stands for all three; what each record keeps is its copy order and the
// message of each failure, and that a failed copy frees what it made (the
// sanitizer build checks the frees). A decorator's own failure is named
// first; its copies then fail with the record's messages.
template <class Opt, class Decorator>
struct CopyCase {
  const char* name;
  Opt* (*clone)(const Opt*);
  void (*cleanup)(Opt*);
  std::vector<std::string> failures;
  std::function<Decorator*(const ZEL*, const Opt*)> decorate;
  void (*decorator_cleanup)(Decorator*);
};

template <class Opt, class Decorator>
void check_copies(const CopyCase<Opt, Decorator>& c, const Opt& opt, const ZEL* handle) {
  SCOPED_TRACE(c.name);
  EXPECT_EQ(failure_messages([&] {
              Opt* copy = c.clone(&opt);
              c.cleanup(copy);
              return copy != nullptr;
            }),
            c.failures);
  std::vector<std::string> seen = failure_messages([&] {
    Decorator* decorator = c.decorate(handle, &opt);
    c.decorator_cleanup(decorator);
    return decorator != nullptr;
  });
  ASSERT_FALSE(seen.empty());
  EXPECT_EQ(seen.front(), std::string("Cannot allocate memory for ") + c.name + "Decorator");
  EXPECT_EQ(seen.back(), c.failures.back());
  EXPECT_EQ(c.clone(nullptr), nullptr);
}

char* token() { return nullptr; }

TEST(OptionsCopy, CopiesOwnTheirFieldsAndFailInCopyOrder) {
  PutFixture put;
  ZEL* handle = zel_init(ZEL_ENV_LOCAL, 2, token, nullptr);
  ZELPutObjectOpt* c = put_object_opt_clone(&put.opt);
  ASSERT_NE(c, nullptr);
  EXPECT_TRUE(c->key != put.opt.key && std::u16string(c->key) == u"dir/objét" &&
              c->session_id != put.opt.session_id && c->range != &put.range && c->range->end == 199 &&
              c->stream != put.stream && c->headers != put.headers &&
              std::string(zel_headers_find(c->headers, "B")) == "2" &&
              c->chunk_done_callback == nop_chunk_done && c->stats_callback == nop_stats);
  put_object_opt_cleanup(c);
  ZELPutObjectOpt sparse{};
  ZELPutObjectOpt* sparse_copy = put_object_opt_clone(&sparse);
  ASSERT_NE(sparse_copy, nullptr) << "absent fields stay absent";
  EXPECT_EQ(sparse_copy->headers, nullptr);
  put_object_opt_cleanup(sparse_copy);

  check_copies(
      CopyCase<ZELPutObjectOpt, ZELPutObjectDecorator>{
          "ZELPutObject",
          put_object_opt_clone,
          put_object_opt_cleanup,
          {"Cannot allocate memory for the cloned ZELPutObjectOpt",
           "Cannot allocate memory for ZELPutObjectOpt bucket_key",
           "Cannot allocate memory for ZELPutObjectOpt key",
           "Cannot allocate memory for ZELPutObjectOpt session_id",
           "Cannot allocate memory for ZELPutObjectOpt content_type",
           "Cannot allocate memory for ZELByteRanges list",
           "Cannot allocate memory for ZELPutObjectOpt stream",
           "Cannot allocate memory for ZELPutObjectOpt headers"},
          [](const ZEL* h, const ZELPutObjectOpt* o) { return put_object_decorator_init(h, o, 1, nullptr); },
          put_object_decorator_cleanup},
      put.opt, handle);
  ZELGetObjectOpt get{u"bucket", u"key",       &put.range, put.stream,   put.headers,
                      1,         nop_get_resp, nop_done,   nop_progress, nop_stats};
  check_copies(
      CopyCase<ZELGetObjectOpt, ZELGetObjectDecorator>{
          "ZELGetObject",
          get_object_opt_clone,
          get_object_opt_cleanup,
          {"Cannot allocate memory for the cloned ZELGetObjectOpt",
           "Cannot allocate memory for the ZELGetObjectOpt bucket_key",
           "Cannot allocate memory for the ZELGetObjectOpt key",
           "Cannot allocate memory for the ZELGetObjectOpt range",
           "Cannot allocate for the ZELGetObjectOpt stream",
           "Cannot allocate memory for the ZELGetObjectOpt headers"},
          [](const ZEL* h, const ZELGetObjectOpt* o) { return get_object_decorator_init(h, o, nullptr); },
          get_object_decorator_cleanup},
      get, handle);
  ZELGetObjectByURLOpt by_url{u"https://example.test/o",
                              true,
                              &put.range,
                              put.stream,
                              put.headers,
                              0,
                              nop_url_resp,
                              nop_done,
                              nop_progress,
                              nop_stats};
  check_copies(
      CopyCase<ZELGetObjectByURLOpt, ZELGetObjectByURLDecorator>{
          "ZELGetObjectByURL",
          get_object_by_url_opt_clone,
          get_object_by_url_opt_cleanup,
          {"Cannot allocate memory for the cloned ZELGetObjectByURLOpt",
           "Cannot allocate memory for the ZELGetObjectByURLOpt download_url",
           "Cannot allocate memory for the ZELGetObjectByURLOpt range",
           "Cannot allocate for the ZELGetObjectByURLOpt stream",
           "Cannot allocate memory for the ZELGetObjectByURLOpt headers"},
          [](const ZEL* h, const ZELGetObjectByURLOpt* o) {
            return get_object_by_url_decorator_init(h, o, nullptr);
          },
          get_object_by_url_decorator_cleanup},
      by_url, handle);
  zel_cleanup(handle);
}

TEST(Decorators, OwnCopiesOfHandleAndOptions) {
  PutFixture fixture;
  ZEL* handle = zel_init(ZEL_ENV_LOCAL, 2, token, nullptr);
  ASSERT_NE(handle, nullptr);
  int marker = 0;
  ZELPutObjectDecorator* put = put_object_decorator_init(handle, &fixture.opt, 12345, &marker);
  ASSERT_NE(put, nullptr);
  ASSERT_NE(put->handle, nullptr);
  EXPECT_NE(put->handle, handle);
  EXPECT_EQ(put->handle->api_version, 2u);
  ASSERT_NE(put->opt, nullptr);
  EXPECT_EQ(put->size, 12345u);
  EXPECT_EQ(put->user_data, &marker);
  zel_cleanup(handle);  // the caller may free its handle while the copy lives on
  EXPECT_EQ(std::u16string(put->opt->key), u"dir/objét");
  put_object_decorator_cleanup(put);
  put_object_decorator_cleanup(nullptr);

  ZELGetObjectDecorator* get = get_object_decorator_init(nullptr, nullptr, &marker);
  ASSERT_NE(get, nullptr) << "missing handle and options give no copies, not a failure";
  EXPECT_EQ(get->handle, nullptr);
  EXPECT_EQ(get->opt, nullptr);
  get_object_decorator_cleanup(get);
  get_object_decorator_cleanup(nullptr);
  get_object_by_url_decorator_cleanup(nullptr);
}

// Without the process-wide start-up there is no worker pool: each entry
// point reports that it cannot queue its task, on the caller's thread and
// once, and frees its copies (the sanitizer build checks). An upload first
// measures its file and reports the system's error when it cannot.
TEST(TransferEntry, RefusalsAreReportedOnTheCallersThread) {
  zeltest::CapturedLog log;
  ZEL* handle = zel_init(ZEL_ENV_LOCAL, 2, token, nullptr);
  PutFixture put;
  put.opt.callback = zeltest::on_status<ZELPutObjectResp>;
  zeltest::Recorder missing, queued[3];
  zel_put_object(handle, &put.opt, &missing);
  ASSERT_EQ(missing.events().size(), 1u);
  EXPECT_EQ(missing.events()[0].code, ENOENT);

  std::string path = ::testing::TempDir() + "zel_entry.bin";
  std::fclose(std::fopen(path.c_str(), "wb"));
  char16_t* wide = utf8_to_wide(path.c_str());
  ZELStream* stream = zel_stream_init(wide);
  put.opt.stream = stream;
  zel_put_object(handle, &put.opt, &queued[0]);
  ZELGetObjectOpt get{u"b",    u"k",    nullptr, stream, nullptr, 0, zeltest::on_status<ZELGetObjectResp>,
                      nullptr, nullptr, nullptr};
  zel_get_object(handle, &get, &queued[1]);
  ZELGetObjectByURLOpt by_url{u"http://x.test/o",
                              false,
                              nullptr,
                              stream,
                              nullptr,
                              0,
                              zeltest::on_status<ZELGetObjectByURLResp>,
                              nullptr,
                              nullptr,
                              nullptr};
  zel_get_object_by_url(handle, &by_url, &queued[2]);
  const char* names[] = {"put_object", "get_object", "get_object_by_url"};
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(queued[i].events().size(), 1u) << names[i];
    EXPECT_EQ(queued[i].events()[0].code, 0);
    EXPECT_EQ(queued[i].events()[0].message, std::string("Cannot enqueue a new task (") + names[i] + ")");
  }
  zel_stream_cleanup(stream);
  mem_free(wide);
  std::remove(path.c_str());
  zel_cleanup(handle);
}

struct HeaderCase {
  const char* value;
  int result;
  std::vector<Range> ranges;  // from head
};

TEST(RangeHeader, ValuesIntoRangeLists) {
  const uint64_t max = UINT64_MAX;
  const std::vector<HeaderCase> cases = {
      {" bytes=0-5242879,10485760-15728639", 0, {{10485760, 15728639}, {0, 5242879}}},
      {"bytes=", 0, {}},
      {"bytes=0-99", 0, {{0, 99}}},
      {"bytes=0-99,200-299", 0, {{200, 299}, {0, 99}}},
      {"bytes=0-99,500", -1, {{0, 99}}},  // pairs before the bad piece stay
      {"bytes=0-99,", -1, {{0, 99}}},     // an empty last piece has no "-"
      {"bytes 0-99", -1, {}},
      {"", -1, {}},
      {"anything before=7-9", 0, {{7, 9}}},
      {"=5-7-9", 0, {{5, 7}}},        // the end stops at a further "-"
      {"= \t3-  4", 0, {{3, 4}}},     // leading blanks are skipped
      {"=-", 0, {{0, 0}}},            // empty text reads as 0
      {"=12ab-34cd", 0, {{12, 34}}},  // reading stops at a non-digit
      {"=a=1-2", 0, {{0, 2}}},        // only the first "=" counts
      {"=99999999999999999999999-18446744073709551615", 0, {{max, max}}},
  };
  for (const HeaderCase& c : cases) {
    ZELByteRanges* list = zel_byte_ranges_init();
    EXPECT_EQ(byte_ranges_from_header(c.value, list), c.result) << c.value;
    EXPECT_EQ(ranges_of(list), c.ranges) << c.value;
    EXPECT_EQ(list->count, c.ranges.size()) << c.value;
    zel_byte_ranges_cleanup(list);
  }
  ZELByteRanges* list = zel_byte_ranges_init();
  EXPECT_EQ(byte_ranges_from_header(nullptr, list), -1);
  EXPECT_EQ(byte_ranges_from_header("bytes=1-2", nullptr), -1);
  zeltest::CapturedLog log;
  mem_fail_at(2);  // the second range cannot be stored
  EXPECT_EQ(byte_ranges_from_header("bytes=1-2,3-4", list), -1);
  mem_fail_at(0);
  EXPECT_EQ(ranges_of(list), (std::vector<Range>{{1, 2}}));
  zel_byte_ranges_cleanup(list);
}

}  // namespace
