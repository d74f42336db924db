// Single-request object operations end to end against the emulator, in both
// API versions: what each reports and what each puts on the wire.
#include <string>

#include "captured_log.h"
#include "lib_fixture.h"
#include "thread.h"

namespace zeltest {
namespace {

// Keys come back as UTF-16; a compact rendering is enough to compare.
void on_details(const ZELObjectDetails* d, void* user_data) {
  std::string key;
  for (const char16_t* p = d->object_key; p && *p; ++p) key += *p < 128 ? static_cast<char>(*p) : '?';
  static_cast<Recorder*>(user_data)->add({"details", 0,
                                          key + "|" + std::to_string(d->size) + "|" +
                                              (d->sha1 ? d->sha1 : "") + "|" +
                                              (d->content_type ? d->content_type : "")});
}

// Runs one operation and gives its single report.
template <class Opt>
Event run(void (*call)(ZEL*, const Opt*, void*), ZEL* h, const Opt& opt) {
  Recorder rec;
  call(h, &opt, &rec);
  return rec.only();
}

ZELDeleteObjectOpt del(const char16_t* bucket, const char16_t* key, ZELHeaders* headers = nullptr) {
  return {bucket, key, headers, on_status<ZELDeleteObjectResp>, on_done};
}
ZELGetObjectDetailsOpt details(const char16_t* bucket, const char16_t* key, ZELHeaders* headers = nullptr) {
  return {bucket, key, headers, on_status<ZELGetObjectDetailsResp>, on_details};
}
std::string code_and_message(const Event& e) { return std::to_string(e.code) + " " + e.message; }

class ObjectOps : public LibTest, public ::testing::WithParamInterface<uint32_t> {
 protected:
  uint32_t version() const { return GetParam(); }
};

// A key made only of dots goes out percent-encoded, or URL normalisation
// would fold it into another path; the caller's extra headers go along.
// (Each operation's round trip is the command-line tests'.)
TEST_P(ObjectOps, DotKeysAreEncodedAndExtraHeadersSent) {
  make_bucket("wire");
  std::string data = pattern_bytes(1000, 7);
  put_object("wire", "a%2Fb%20c%C3%A9", data);
  ZEL* h = handle(version());
  server_.clear_requests();
  const char16_t* key = u"a/b c\u00e9";
  ZELHeaders* extra = zel_headers_append(nullptr, "X-Trace", "t1");
  ZELCopyObjectOpt copy{u"wire", key, u"..", on_status<ZELCopyObjectResp>, on_details, extra};
  EXPECT_EQ(run(zel_copy_object, h, copy).message, "..|1000|" + sha1_hex(data) + "|application/octet-stream");
  zel_headers_cleanup(extra);
  EXPECT_EQ(run(zel_get_object_details, h, details(u"wire", u"..")).message.substr(0, 8), "..|1000|");
  auto req = server_.requests();
  ASSERT_EQ(req.size(), 2u);
  EXPECT_EQ(req[0].method + " " + req[0].target,
            "PUT /zel/v" + std::to_string(version()) + "/buckets/wire/objects/a%2Fb%20c%C3%A9/copyto/%2E%2E");
  EXPECT_EQ(req[0].header("X-Trace"), "t1");
}

TEST_P(ObjectOps, StatusRowsAndTheirMessages) {
  ZEL* h = handle(version());  // the emulator's rules answer, whatever the bucket
  // Only 200 counts as success; a body without a reason is passed on as it
  // is. (A 200 whose body does not read is the bucket listing test's.)
  struct Row {
    const char16_t* key;
    const char* rule;  // the emulator's answer instead of its own
    const char* expected;
  } rows[] = {{u"k1", R"("status":404,"body":"oops")", "404 oops"},
              {u"k2", R"("status":404,"body":"")", "404 (null)"},
              {u"k3", R"("status":204)", "204 (null)"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.expected);
    std::string key(row.key, row.key + 2);
    ASSERT_TRUE(
        server_.add_fault(R"({"method":"DELETE","path":"/objects/)" + key + R"($",)" + row.rule + "}"));
    Event e = run(zel_delete_object, h, del(u"rows", row.key));
    EXPECT_EQ(e.kind + " " + code_and_message(e), std::string("callback ") + row.expected);
  }
}

TEST_P(ObjectOps, MissingNamesAreRefusedBeforeAnyRequest) {
  ZEL* h = handle(version());
  server_.clear_requests();
  ZELUndeleteObjectOpt undel{u"b", nullptr, nullptr, on_status<ZELUndeleteObjectResp>, on_done};
  ZELResetExpirationOpt reset{nullptr, u"k", nullptr, on_status<ZELResetExpirationResp>, nullptr};
  ZELGetObjectSessionOpt ses{u"b", u"k", nullptr, nullptr, on_status<ZELGetObjectSessionResp>, nullptr};
  ZELCopyObjectOpt cp{u"b", u"s", nullptr, on_status<ZELCopyObjectResp>, on_details, nullptr};
  const std::pair<Event, const char*> cases[] = {
      {run(zel_delete_object, h, del(nullptr, u"k")), "ZELDeleteObjectOpt bucket_key is (null)"},
      {run(zel_delete_object, h, del(u"b", nullptr)), "ZELDeleteObjectOpt object_key is (null)"},
      {run(zel_undelete_object, h, undel), "ZELUndeleteObjectOpt object_key is (null)"},
      {run(zel_reset_object_expiration, h, reset), "ZELResetExpirationOpt bucket_key is (null)"},
      {run(zel_get_object_details, h, details(u"b", nullptr)), "ZELGetObjectDetailsOpt object key is (null)"},
      {run(zel_get_object_session, h, ses), "ZELGetObjectSessionOpt session id is (null)"},
      {run(zel_copy_object, h, cp), "ZELCopyObjectOpt destination_key is (null)"}};
  for (const auto& c : cases) EXPECT_EQ(code_and_message(c.first), std::string("0 ") + c.second);
  EXPECT_TRUE(server_.requests().empty());
}

INSTANTIATE_TEST_SUITE_P(ApiVersions, ObjectOps, ::testing::Values(1u, 2u));

using ObjectFrame = LibTest;

// Every copy the call makes before its thread starts can fail: the failure
// is reported before the call returns, and a header list copy that lost any
// line (node or text) fails the call rather than send the request without
// it. A thread that cannot start is reported once, with its result.
TEST_F(ObjectFrame, FailuresBeforeTheRequestAreReportedOnce) {
  CapturedLog capture;
  ZEL* h = handle();
  ZELDeleteObjectOpt opt = del(u"b", u"k");
  opt.headers = zel_headers_append(zel_headers_append(nullptr, "A", "1"), "B", "2");
  // The decorator; then, after decorator, handle, record and both keys, the
  // header list's nodes and texts.
  for (long step : {1, 6, 7, 8, 9}) {
    SCOPED_TRACE(step);
    Recorder rec;
    mem_fail_at(step);
    zel_delete_object(h, &opt, &rec);
    mem_fail_at(0);
    EXPECT_EQ(rec.events().size(), 1u) << "reported before the call returned";
    EXPECT_EQ(rec.only().message, "Cannot allocate memory for ZELDeleteObjectDecorator");
  }
  wait_for_workers();
  EXPECT_TRUE(server_.requests().empty());
  zel_headers_cleanup(opt.headers);
  zel::thrd_set_create_hook([] { return int(zel::thrd_error); });
  Event e = run(zel_delete_object, h, del(u"b", u"k"));
  zel::thrd_set_create_hook(nullptr);
  EXPECT_EQ(code_and_message(e), std::to_string(zel::thrd_error) + " The requested operation failed");
}

}  // namespace
}  // namespace zeltest
