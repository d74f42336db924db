// Single-request object operations end to end against the emulator: delete,
// undelete, reset expiration, details, session status and copy, in both API
// versions, with what they report and what they put on the wire.
#include <atomic>
#include <string>

#include "captured_log.h"
#include "lib_fixture.h"
#include "thread.h"

namespace zeltest {
namespace {

void on_details(const ZELObjectDetails* d, void* user_data) {
  char buffer[512];
  // Keys come back as UTF-16; a compact rendering is enough to compare.
  std::string rendered;
  for (const char16_t* p = d->object_key; p && *p; ++p) {
    rendered += *p < 128 ? static_cast<char>(*p) : '?';
  }
  snprintf(buffer, sizeof buffer, "%s|%llu|%s|%s", rendered.c_str(), (unsigned long long)d->size,
           d->sha1 ? d->sha1 : "", d->content_type ? d->content_type : "");
  static_cast<Recorder*>(user_data)->add({"details", 0, buffer});
}

void on_session(const ZELObjectSession* s, void* user_data) {
  std::string ranges;
  for (const ZELByteRangeItem* r = s->ranges->head; r; r = r->next) {
    ranges += std::to_string(r->start) + "-" + std::to_string(r->end) + ";";
  }
  static_cast<Recorder*>(user_data)->add(
      {"session", static_cast<int32_t>(s->ranges->count), std::string(s->session_id) + "|" + ranges});
}

class ObjectOps : public LibTest, public ::testing::WithParamInterface<uint32_t> {
 protected:
  ObjectOps() : LibTest({"--token", "bob-token=bob"}) {}
  uint32_t version() const { return GetParam(); }
};

// One object through details, copy, reset, delete and undelete, with what
// each reports and what each puts on the wire. The key needs escaping.
TEST_P(ObjectOps, LifecycleOfOneObjectAndItsWireFormat) {
  make_bucket("wire");
  std::string data = pattern_bytes(1000, 7);
  put_object("wire", "a%2Fb%20c%C3%A9", data);
  ZEL* h = handle(version());
  server_.clear_requests();
  const char16_t* key = u"a/b c\u00e9";
  auto details_of = [&] {
    Recorder rec;
    ZELGetObjectDetailsOpt opt{u"wire", key, nullptr, on_status<ZELGetObjectDetailsResp>, on_details};
    zel_get_object_details(h, &opt, &rec);
    return rec.only();
  };
  Event e = details_of();
  EXPECT_EQ(e.kind, "details");
  EXPECT_EQ(e.message, "a/b c?|1000|" + sha1_hex(data) + "|application/octet-stream");

  Recorder copied, reset, deleted, restored;
  ZELCopyObjectOpt copt{u"wire", key, u"\u65e5 2", on_status<ZELCopyObjectResp>, on_details, nullptr};
  zel_copy_object(h, &copt, &copied);
  EXPECT_EQ(copied.only().message.substr(0, 9), "? 2|1000|");
  ZELResetExpirationOpt ropt{u"wire", key, nullptr, on_status<ZELResetExpirationResp>, on_details};
  zel_reset_object_expiration(h, &ropt, &reset);
  EXPECT_EQ(reset.only().kind, "details");
  ZELDeleteObjectOpt del{u"wire", key, nullptr, on_status<ZELDeleteObjectResp>, on_done};
  zel_delete_object(h, &del, &deleted);
  EXPECT_EQ(deleted.only().kind, "done");
  e = details_of();  // a deleted object is not found, with the service's reason
  EXPECT_EQ(e.code, 404);
  EXPECT_NE(e.message.find('{'), 0u) << "the reason, not the raw body: " << e.message;
  ZELHeaders* extra = zel_headers_append(nullptr, "X-Trace", "t1");
  ZELUndeleteObjectOpt undel{u"wire", key, extra, on_status<ZELUndeleteObjectResp>, on_done};
  zel_undelete_object(h, &undel, &restored);
  zel_headers_cleanup(extra);  // the call made its own copy
  EXPECT_EQ(restored.only().kind, "done");
  EXPECT_EQ(details_of().kind, "details");

  auto req = server_.requests();
  ASSERT_EQ(req.size(), 7u);
  const std::string base = "/zel/v" + std::to_string(version()) + "/buckets/wire/objects/a%2Fb%20c%C3%A9";
  EXPECT_EQ(req[0].method, "GET");
  EXPECT_EQ(req[0].target, base + "/details?with=createdDate&with=lastAccessedDate&with=lastModifiedDate");
  EXPECT_EQ(req[1].method, "PUT");
  EXPECT_EQ(req[1].target, base + "/copyto/%E6%97%A5%202");
  EXPECT_EQ(req[1].header("Content-Type"), "application/octet-stream");
  EXPECT_EQ(req[2].method, "POST");
  EXPECT_EQ(req[2].target, base + "/resetexpiration");
  EXPECT_EQ(req[2].header("Content-Type"), "application/json");
  EXPECT_EQ(req[2].header("Content-Length"), "0");
  EXPECT_EQ(req[3].method, "DELETE");
  EXPECT_EQ(req[3].target, base);
  EXPECT_EQ(req[5].method, "POST");
  EXPECT_EQ(req[5].target, base + "/undelete");
  EXPECT_EQ(req[5].header("Content-Length"), "0");
  EXPECT_EQ(req[5].header("Content-Type"), "") << "undelete sends no Content-Type line";
  EXPECT_EQ(req[5].header("X-Trace"), "t1");
  for (const auto& r : req) {
    EXPECT_EQ(r.header("Authorization"), "Bearer <redacted>") << r.target;
    EXPECT_EQ(r.principal, "local") << r.target;
    EXPECT_EQ(r.header("User-Agent"), "zel-c-sdk/2.7.3") << r.target;
  }
}

TEST_P(ObjectOps, SessionStatusListsHeldRangesNewestFirst) {
  make_bucket("sess");
  const std::string url = server_.api(2) + "/buckets/sess/objects/big.bin/resumable";
  for (const char* range : {"bytes 0-99/1000", "bytes 200-299/1000"}) {
    HttpResult r =
        http("PUT", url, {kAuthHeader, "Session-Id: abc-def_1", std::string("Content-Range: ") + range},
             std::string(100, 'x'));
    ASSERT_EQ(r.status, 202) << r.body;
  }
  Recorder rec;
  ZELGetObjectSessionOpt opt{u"sess",   u"big.bin", "abc-def_1", nullptr, on_status<ZELGetObjectSessionResp>,
                             on_session};
  server_.clear_requests();
  zel_get_object_session(handle(version()), &opt, &rec);
  Event e = rec.only();
  EXPECT_EQ(e.kind, "session");
  EXPECT_EQ(e.code, 2);
  EXPECT_EQ(e.message, "abc-def_1|200-299;0-99;");
  auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].target,
            "/zel/v" + std::to_string(version()) + "/buckets/sess/objects/big.bin/status/abc-def_1");

  // The session id is sent as it stands, not percent-encoded: the service
  // issued it.
  Recorder unknown;
  opt.session_id = "id.x~1";
  server_.clear_requests();
  zel_get_object_session(handle(version()), &opt, &unknown);
  e = unknown.only();
  EXPECT_EQ(e.kind, "callback");
  requests = server_.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].target.substr(requests[0].target.size() - 7), "/id.x~1");
}

TEST_P(ObjectOps, KeysMadeOfDotsAreNotFoldedAway) {
  // URL normalisation would turn ".../objects/.." into ".../buckets/dots":
  // another resource. Such keys go out percent-encoded.
  make_bucket("dots");
  put_object("dots", "%2E%2E", "two dots");
  server_.clear_requests();
  Recorder rec;
  ZELGetObjectDetailsOpt opt{u"dots", u"..", nullptr, on_status<ZELGetObjectDetailsResp>, on_details};
  zel_get_object_details(handle(version()), &opt, &rec);
  EXPECT_EQ(rec.only().message.substr(0, 5), "..|8|");
  auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_NE(requests[0].target.find("/objects/%2E%2E/details?"), std::string::npos) << requests[0].target;
}

TEST_P(ObjectOps, StatusRowsAndTheirMessages) {
  make_bucket("rows");
  put_object("rows", "k", "data");
  ZEL* h = handle(version());
  struct Row {
    const char* key;
    const char* fault;  // answer the emulator gives instead (none: its own)
    const char* token;
    int32_t code;
    const char* message;  // none: anything but "(null)"
  };
  const Row rows[] = {
      {"missing", nullptr, "local-dev-token", 404, nullptr},
      {"k1", R"("status":404,"body":"oops")", "local-dev-token", 404, "oops"},
      {"k2", R"("status":404,"body":"")", "local-dev-token", 404, "(null)"},
      {"k3", R"("status":404,"body":"{\"reason\":\"Object not found\"}")", "local-dev-token", 404,
       "Object not found"},
      // A body with other keys is passed on whole.
      {"k4", R"("status":404,"body":"{\"reason\":\"x\",\"more\":1}")", "local-dev-token", 404,
       R"({"reason":"x","more":1})"},
      {"k5", R"("status":204)", "local-dev-token", 204, "(null)"},  // only 200 counts as success
      {"k", nullptr, "wrong-token", 401, "Unauthorized"},
      {"k", nullptr, "bob-token", 403, "Forbidden"},  // a valid principal without access
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.key);
    if (row.fault != nullptr) {
      ASSERT_TRUE(server_.add_fault(std::string(R"({"method":"DELETE","path":"/objects/)") + row.key +
                                    R"($",)" + row.fault + "}"));
    }
    set_token(row.token);
    Recorder rec;
    std::u16string key(row.key, row.key + strlen(row.key));
    ZELDeleteObjectOpt del{u"rows", key.c_str(), nullptr, on_status<ZELDeleteObjectResp>, on_done};
    zel_delete_object(h, &del, &rec);
    Event e = rec.only();
    EXPECT_EQ(e.kind, "callback");
    EXPECT_EQ(e.code, row.code);
    if (row.message != nullptr) {
      EXPECT_EQ(e.message, row.message);
    } else {
      EXPECT_NE(e.message, "(null)");
    }
  }
  set_token("local-dev-token");
  ASSERT_TRUE(server_.add_fault(R"({"method":"POST","path":"resetexpiration$","status":200,"body":"[1]"})"));
  Recorder bad_json;
  ZELResetExpirationOpt ropt{u"rows", u"k", nullptr, on_status<ZELResetExpirationResp>, on_details};
  zel_reset_object_expiration(h, &ropt, &bad_json);
  Event e = bad_json.only();
  EXPECT_EQ(e.code, 200);
  EXPECT_EQ(e.message, "Cannot unmarshall json response");
}

TEST_P(ObjectOps, MissingNamesAreRefusedBeforeAnyRequest) {
  ZEL* h = handle(version());
  server_.clear_requests();
  Recorder r1, r2, r3, r4, r5, r6, r7;
  ZELDeleteObjectOpt del{nullptr, u"k", nullptr, on_status<ZELDeleteObjectResp>, on_done};
  zel_delete_object(h, &del, &r1);
  ZELDeleteObjectOpt del2{u"b", nullptr, nullptr, on_status<ZELDeleteObjectResp>, on_done};
  zel_delete_object(h, &del2, &r2);
  ZELUndeleteObjectOpt undel{u"b", nullptr, nullptr, on_status<ZELUndeleteObjectResp>, on_done};
  zel_undelete_object(h, &undel, &r3);
  ZELResetExpirationOpt reset{nullptr, u"k", nullptr, on_status<ZELResetExpirationResp>, nullptr};
  zel_reset_object_expiration(h, &reset, &r4);
  ZELGetObjectDetailsOpt det{u"b", nullptr, nullptr, on_status<ZELGetObjectDetailsResp>, on_details};
  zel_get_object_details(h, &det, &r5);
  ZELGetObjectSessionOpt ses{u"b", u"k", nullptr, nullptr, on_status<ZELGetObjectSessionResp>, on_session};
  zel_get_object_session(h, &ses, &r6);
  ZELCopyObjectOpt cp{u"b", u"s", nullptr, on_status<ZELCopyObjectResp>, on_details, nullptr};
  zel_copy_object(h, &cp, &r7);
  EXPECT_EQ(r1.only().message, "ZELDeleteObjectOpt bucket_key is (null)");
  EXPECT_EQ(r2.only().message, "ZELDeleteObjectOpt object_key is (null)");
  EXPECT_EQ(r3.only().message, "ZELUndeleteObjectOpt object_key is (null)");
  EXPECT_EQ(r4.only().message, "ZELResetExpirationOpt bucket_key is (null)");
  EXPECT_EQ(r5.only().message, "ZELGetObjectDetailsOpt object key is (null)");
  EXPECT_EQ(r6.only().message, "ZELGetObjectSessionOpt session id is (null)");
  EXPECT_EQ(r7.only().message, "ZELCopyObjectOpt destination_key is (null)");
  for (Recorder* r : {&r1, &r2, &r3, &r4, &r5, &r6, &r7}) EXPECT_EQ(r->events()[0].code, 0);
  EXPECT_TRUE(server_.requests().empty());
}

INSTANTIATE_TEST_SUITE_P(ApiVersions, ObjectOps, ::testing::Values(1u, 2u));

class ObjectFrame : public LibTest {};

TEST_F(ObjectFrame, ArgumentErrorsAreOnlyLogged) {
  zeltest::CapturedLog capture;
  Recorder rec;
  ZELDeleteObjectOpt del{u"b", u"k", nullptr, on_status<ZELDeleteObjectResp>, on_done};
  ZEL* no_token = zel_init(ZEL_ENV_LOCAL, 2, nullptr, nullptr);
  zel_delete_object(no_token, &del, &rec);
  zel_delete_object(nullptr, &del, &rec);
  zel_copy_object(handle(), nullptr, &rec);
  zel_get_object_session(handle(), nullptr, &rec);
  zel_cleanup(no_token);
  wait_for_workers();
  EXPECT_TRUE(rec.events().empty());
  EXPECT_EQ(zeltest::CapturedLog::messages("src\\object"),
            (std::vector<std::string>{"ZEL is not initialized", "ZEL is not initialized",
                                      "ZELCopyObjectOpt is not initialized",
                                      "ZELGetObjectSessionOpt is not initialized"}));
}

TEST_F(ObjectFrame, DecoratorFailuresReachTheCallbackOnTheCallersThread) {
  zeltest::CapturedLog capture;
  ZEL* h = handle();
  Recorder r1, r2, r3;
  ZELDeleteObjectOpt del{u"b", u"k", nullptr, on_status<ZELDeleteObjectResp>, on_done};
  mem_fail_at(1);  // the decorator itself
  zel_delete_object(h, &del, &r1);
  EXPECT_EQ(r1.events().size(), 1u) << "reported before the call returned";
  EXPECT_EQ(r1.only().message, "Cannot allocate memory for ZELDeleteObjectDecorator");
  ZELUndeleteObjectOpt undel{u"b", u"k", nullptr, on_status<ZELUndeleteObjectResp>, on_done};
  mem_fail_at(3);  // decorator, handle copy, then the options record
  zel_undelete_object(h, &undel, &r2);
  EXPECT_EQ(r2.only().message, "Cannot allocate memory for ZELUndeleteObjectDecorator");
  ZELCopyObjectOpt cp{u"b", u"s", u"d", on_status<ZELCopyObjectResp>, on_details, nullptr};
  mem_fail_at(5);  // decorator, handle, options record, source key, destination key
  zel_copy_object(h, &cp, &r3);
  EXPECT_EQ(r3.only().message, "Cannot allocate memory for ZELCopyObjectDecorator");
  EXPECT_EQ(zeltest::CapturedLog::messages("src\\object"),
            (std::vector<std::string>{"Cannot allocate memory for ZELDeleteObjectDecorator",
                                      "Unable to clone opt", "Unable to clone opt"}));
  EXPECT_EQ(zeltest::CapturedLog::last("src\\undelete_object"),
            "Cannot allocate memory for the cloned ZELUndeleteObjectOpt");
  EXPECT_EQ(zeltest::CapturedLog::last("src\\copy_object"),
            "Cannot allocate memory for ZELCopyObjectOpt destination key");
}

// A header list copy that lost any line (node or text) fails the whole
// call: the request must never go out without a line its caller gave.
TEST_F(ObjectFrame, HeaderCopyThatLosesALineFailsTheCall) {
  zeltest::CapturedLog capture;
  ZEL* h = handle();
  ZELHeaders* headers = zel_headers_append(zel_headers_append(nullptr, "A", "1"), "B", "2");
  ZELDeleteObjectOpt del{u"b", u"k", headers, on_status<ZELDeleteObjectResp>, on_done};
  for (long step = 6; step <= 9; ++step) {  // after decorator, handle, record and both keys
    SCOPED_TRACE(step);
    capture.clear();
    Recorder rec;
    mem_fail_at(step);
    zel_delete_object(h, &del, &rec);
    mem_fail_at(0);
    EXPECT_EQ(rec.only().message, "Cannot allocate memory for ZELDeleteObjectDecorator");
    EXPECT_EQ(zeltest::CapturedLog::last("src\\delete_object"),
              "Cannot clone the ZELDeleteObjectOpt headers");
  }
  wait_for_workers();
  EXPECT_TRUE(server_.requests().empty());
  zel_headers_cleanup(headers);
}

int refuse_nomem() { return zel::thrd_nomem; }

TEST_F(ObjectFrame, ThreadThatCannotStartIsReportedOnce) {
  Recorder rec;
  ZELDeleteObjectOpt del{u"b", u"k", nullptr, on_status<ZELDeleteObjectResp>, on_done};
  zel::thrd_set_create_hook(refuse_nomem);
  zel_delete_object(handle(), &del, &rec);
  zel::thrd_set_create_hook(nullptr);
  Event e = rec.only();
  EXPECT_EQ(e.code, 0);
  EXPECT_EQ(e.message, "The requested operation failed because it was unable to allocate memory");
}

TEST_F(ObjectFrame, CallerMayFreeEverythingRightAfterTheCall) {
  make_bucket("free");
  put_object("free", "k", "abc");
  Recorder rec;
  ZEL* h = zel_init(ZEL_ENV_LOCAL, 2, get_token, free_token);
  auto* opt = new ZELGetObjectDetailsOpt{};
  std::u16string bucket = u"free", key = u"k";
  opt->bucket_key = bucket.c_str();
  opt->key = key.c_str();
  opt->headers = zel_headers_append(nullptr, "X-A", "1");
  opt->callback = on_status<ZELGetObjectDetailsResp>;
  opt->details_callback = on_details;
  zel_get_object_details(h, opt, &rec);
  zel_headers_cleanup(opt->headers);
  bucket.assign(u"XXXX");
  key.assign(u"Y");
  delete opt;
  zel_cleanup(h);
  Event e = rec.only();
  EXPECT_EQ(e.kind, "details");
  EXPECT_EQ(e.message.substr(0, 4), "k|3|");
}

TEST_F(ObjectFrame, TwoHundredOperationsInFlightReportExactlyOnce) {
  make_bucket("many");
  put_object("many", "k", "x");
  ZEL* h = handle();
  constexpr int kCalls = 200;
  std::vector<Recorder> recorders(kCalls);
  for (int i = 0; i < kCalls; ++i) {
    ZELGetObjectDetailsOpt opt{u"many", i % 2 ? u"k" : u"absent", nullptr, on_status<ZELGetObjectDetailsResp>,
                               on_details};
    zel_get_object_details(h, &opt, &recorders[i]);
  }
  wait_for_workers();  // each reports before its thread ends
  for (int i = 0; i < kCalls; ++i) {
    auto events = recorders[i].events();
    ASSERT_EQ(events.size(), 1u) << i;
    EXPECT_EQ(events[0].kind, i % 2 ? "details" : "callback") << i;
  }
}

}  // namespace
}  // namespace zeltest
