// The delta-engine client against a scripted server: what each request puts
// on the wire, how answers are judged and parsed, and the refusals that
// happen before any exchange.
#include <gtest/gtest.h>
#include <zel/zel.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "alloc.h"
#include "captured_log.h"
#include "raw_http_server.h"

using zeltest::CapturedLog;
using zeltest::RawHttpServer;
using zeltest::RawRequest;

namespace {

std::atomic<int> g_tokens_freed{0};
char* token_fn() { return strdup("tok-1"); }
char* no_token_fn() { return nullptr; }
void free_token_fn(char* token) {
  g_tokens_freed++;
  free(token);
}

const char kJobBody[] = "{\"Progress\":7,\"Code\":1,\"Description\":\"http://h/s/1\",\"DocumentID\":\"d-1\"}";

std::string ok(const std::string& body) {
  return RawHttpServer::reply(200, "OK", body, {"Content-Type: application/json", "Connection: close"});
}

// Frees the texts a successful call left in a job record.
template <class Resp>
struct Owned {
  Resp r{};
  ~Owned() {
    free(r.description);
    free(r.document_id);
  }
};

class KriClient : public ::testing::Test {
 protected:
  void SetUp() override {
    g_tokens_freed = 0;
    ASSERT_EQ(kri_set_environment_url(ZEL_ENV_LOCAL,
                                      ("http://127.0.0.1:" + std::to_string(server_.port())).c_str()),
              0);
    kri_ = kri_init(ZEL_ENV_LOCAL, 1, token_fn, free_token_fn);
    ASSERT_NE(kri_, nullptr);
  }
  void TearDown() override {
    kri_cleanup(kri_);
    kri_set_environment_url(ZEL_ENV_LOCAL, nullptr);
  }
  std::string base() const { return "http://127.0.0.1:" + std::to_string(server_.port()) + "/kri/api/v1"; }
  RawRequest only_request() {
    EXPECT_TRUE(server_.wait_for(1));
    std::vector<RawRequest> all = server_.requests();
    EXPECT_EQ(all.size(), 1u);
    return all.empty() ? RawRequest{} : all.front();
  }

  RawHttpServer server_;
  KRI* kri_ = nullptr;
};

TEST(KriHandle, DefaultsProxyAndUrls) {
  KRI* kri = kri_init(7, 3, token_fn, nullptr);
  ASSERT_NE(kri, nullptr);
  EXPECT_EQ(std::make_tuple(kri->environment, kri->api_version, kri->timeout_ms, kri->ssl_verify_peer,
                            kri->max_send_speed, kri->max_recv_speed, kri->proxy, kri->free_token),
            std::make_tuple(7u, 3u, 10000u, 1u, int64_t{0}, int64_t{0}, nullptr, nullptr));

  kri_set_proxy(kri, "http://p:1", "u", "pw");
  EXPECT_STREQ(kri->proxy, "http://p:1");
  EXPECT_STREQ(kri->proxy_password, "pw");
  kri_set_proxy(kri, nullptr, "v", nullptr);
  EXPECT_EQ(kri->proxy, nullptr);
  EXPECT_STREQ(kri->proxy_username, "v");
  EXPECT_EQ(kri->proxy_password, nullptr);
  kri_set_proxy(nullptr, "x", "y", "z");

  char url[ZEL_URL_SIZE];
  for (uint32_t env : {0u, 4u, 7u}) {
    kri->environment = env;
    EXPECT_EQ(kri_api_url(kri, url, "/health"), 7);
    EXPECT_STREQ(url, "/health") << "environment " << env << " has no base";
  }
  kri->environment = ZEL_ENV_PRODUCTION;
  int n = kri_api_url(kri, url, "/%s/%s", "applypatch", "abc");
  EXPECT_EQ(n, static_cast<int>(std::strlen(url)));
  EXPECT_EQ(std::string(url).find("https://"), 0u);
  EXPECT_NE(std::string(url).find("/kri/api/v3/applypatch/abc"), std::string::npos) << url;

  ASSERT_EQ(kri_set_environment_url(ZEL_ENV_PRODUCTION, "http://127.0.0.1:5"), 0);
  kri_api_url(kri, url, "/health");
  EXPECT_STREQ(url, "http://127.0.0.1:5/kri/api/v3/health");
  EXPECT_EQ(kri_set_environment_url(ZEL_ENV_PRODUCTION, "ftp://x"), -1);
  EXPECT_EQ(kri_set_environment_url(ZEL_ENV_PRODUCTION, "http://h/path"), -1);
  kri_api_url(kri, url, "/health");
  EXPECT_STREQ(url, "http://127.0.0.1:5/kri/api/v3/health") << "a refused value leaves the setting";
  ASSERT_EQ(kri_set_environment_url(ZEL_ENV_PRODUCTION, nullptr), 0);
  kri_api_url(kri, url, "/health");
  EXPECT_STRNE(url, "http://127.0.0.1:5/kri/api/v3/health");

  kri->environment = 4;
  EXPECT_EQ(kri_health(kri), 0) << "a bare path reaches no service";

  std::string long_path(5000, 'a');
  kri->environment = 0;
  EXPECT_EQ(kri_api_url(kri, url, "/%s", long_path.c_str()), 5001) << "length of the whole URL";
  EXPECT_EQ(std::strlen(url), static_cast<size_t>(ZEL_URL_SIZE - 1));
  kri_cleanup(kri);
  kri_cleanup(nullptr);

  CapturedLog log;
  mem_fail_at(1);
  EXPECT_EQ(kri_init(ZEL_ENV_LOCAL, 1, token_fn, nullptr), nullptr);
  mem_fail_at(0);
  EXPECT_EQ(log.count("Cannot initialize KRI hanlder"), 1);
  EXPECT_EQ(kri_api_url(nullptr, url, "/health"), -1);
  EXPECT_EQ(kri_health(nullptr), 0);
  EXPECT_EQ(log.count("KRI handler is not initialized"), 2);
  EXPECT_EQ(log.tag_of("KRI handler is not initialized"), "src\\kri");
}

TEST_F(KriClient, CreateSignatureWireFormatAndParse) {
  server_.script(ok(kJobBody));
  KRICreateSignatureOpt opt{u"bkt", u"caf\u00e9", 2048, 5, 3, "ns1", nullptr, "chk"};
  Owned<KRICreateSignatureResp> resp;
  resp.r.code = 99;
  ASSERT_EQ(kri_create_signature(kri_, &opt, &resp.r), nullptr);
  EXPECT_EQ(resp.r.progress, 7);
  EXPECT_EQ(resp.r.code, 1);
  EXPECT_STREQ(resp.r.description, "http://h/s/1");
  EXPECT_STREQ(resp.r.document_id, "d-1");

  RawRequest rq = only_request();
  EXPECT_EQ(rq.request_line, "POST /kri/api/v1/createsignature HTTP/1.1");
  EXPECT_EQ(rq.body,
            "{\"BucketName\":\"bkt\",\"ObjectName\":\"caf\xc3\xa9\",\"MaximumAttempts\":5,"
            "\"BlockSize\":2048,\"ProcessType\":3}");
  std::vector<std::string> expected_lines = {"Authorization:Bearer tok-1", "x-pmw-acm-namespace:ns1",
                                             "x-pmw-acm-check-groups:chk", "Content-Type: application/json"};
  std::vector<std::string> ours;
  for (const std::string& line : rq.headers) {
    if (line.rfind("Authorization", 0) == 0 || line.rfind("x-pmw", 0) == 0 ||
        line.rfind("Content-Type", 0) == 0)
      ours.push_back(line);
  }
  EXPECT_EQ(ours, expected_lines) << "header lines in the order they are added";
  EXPECT_EQ(rq.count("x-pmw-acm-groups"), 0) << "an absent value leaves its header out";
  EXPECT_EQ(rq.header("User-Agent"), "zel-c-sdk/2.7.3");
  EXPECT_EQ(g_tokens_freed.load(), 1);
}

TEST_F(KriClient, CreateDeltaAndApplyPatchBodies) {
  server_.script(ok(kJobBody));
  server_.script(ok(kJobBody));
  KRICreateDeltaOpt delta{u"b", u"one", u"two", 4096, 2, 0, nullptr, "g1,g2", nullptr};
  Owned<KRICreateDeltaResp> dresp;
  ASSERT_EQ(kri_create_delta(kri_, &delta, &dresp.r), nullptr);
  KRIApplyPatchOpt apply{u"b",    u"base", u"new", "0123456789abcdef0123456789abcdef01234567", -1, 1,
                         nullptr, nullptr, nullptr};
  Owned<KRIApplyPatchResp> aresp;
  ASSERT_EQ(kri_apply_patch(kri_, &apply, &aresp.r), nullptr);
  EXPECT_STREQ(aresp.r.document_id, "d-1");

  ASSERT_TRUE(server_.wait_for(2));
  std::vector<RawRequest> all = server_.requests();
  EXPECT_EQ(all[0].request_line, "POST /kri/api/v1/createdelta HTTP/1.1");
  EXPECT_EQ(all[0].body,
            "{\"BucketName\":\"b\",\"MaximumAttempts\":2,\"ObjectName1\":\"one\",\"ObjectName2\":\"two\","
            "\"BlockSize\":4096,\"ProcessType\":0}");
  EXPECT_EQ(all[0].header("x-pmw-acm-groups"), "g1,g2");
  EXPECT_EQ(all[1].request_line, "POST /kri/api/v1/applypatch HTTP/1.1");
  EXPECT_EQ(all[1].body,
            "{\"BucketName\":\"b\",\"ObjectName\":\"base\",\"MaximumAttempts\":-1,\"NewObjectName\":\"new\","
            "\"NewObjectSHA1\":\"0123456789abcdef0123456789abcdef01234567\",\"ProcessType\":1}");
  EXPECT_EQ(all[1].count("x-pmw-acm-namespace") + all[1].count("x-pmw-acm-groups") +
                all[1].count("x-pmw-acm-check-groups"),
            0);
}

TEST_F(KriClient, StatusMapping) {
  struct Row {
    int status;
    const char* message;  // nullptr: success
    const char* logged;   // a log line that must appear, or nullptr
  };
  const Row rows[] = {
      {200, nullptr, nullptr},
      {201, "Internal Server Error", "Unknown error(201): {\"x\":1}"},
      {202, "Internal Server Error", "Unknown error(202): {\"x\":1}"},
      {401, "Unauthorized", nullptr},
      {403, "Forbidden", nullptr},
      {404, "Not Found", nullptr},
      {500, "Internal Server Error", "Unknown error(500): {\"x\":1}"},
  };
  KRICreateSignatureOpt opt{u"b", u"o", 2048, 5, 0, nullptr, nullptr, nullptr};
  for (const Row& row : rows) {
    CapturedLog log;
    server_.script(row.status == 200
                       ? ok(kJobBody)
                       : RawHttpServer::reply(row.status, "X", "{\"x\":1}", {"Connection: close"}));
    Owned<KRICreateSignatureResp> resp;
    const char* message = kri_create_signature(kri_, &opt, &resp.r);
    if (row.message == nullptr) {
      EXPECT_EQ(message, nullptr) << row.status;
    } else {
      EXPECT_STREQ(message, row.message) << row.status;
      EXPECT_EQ(resp.r.description, nullptr) << "a failure leaves the record zeroed";
      EXPECT_EQ(resp.r.code, 0);
    }
    if (row.logged != nullptr) {
      EXPECT_EQ(log.count(row.logged), 1) << row.status;
    }
    if (row.status == 404) {
      EXPECT_EQ(log.count("Not Found: " + base() + "/createsignature"), 1);
    }
  }
}

TEST_F(KriClient, ResponseParseEdgeCases) {
  struct Row {
    const char* body;
    bool parses;
    int progress;
    int code;
    const char* description;
    const char* document_id;
  };
  const Row rows[] = {
      {"{\"Code\":5,\"Description\":\"d\"}", true, 0, 5, "d", ""},
      {"{\"Code\":-1,\"Description\":\"\",\"Extra\":[1],\"DocumentID\":\"x\"}", true, 0, -1, "", "x"},
      {"{\"Progress\":50,\"Description\":\"d\"}", false, 0, 0, "", ""},
      {"{\"Progress\":50,\"Code\":1}", false, 0, 0, "", ""},
      {"{\"Code\":1,\"Code\":2,\"Description\":\"d\"}", false, 0, 0, "", ""},
      {"{\"Code\":\"1\",\"Description\":\"d\"}", false, 0, 0, "", ""},
      {"{\"Code\":1,\"Description\":\"d\",\"DocumentID\":7}", false, 0, 0, "", ""},
      {"not json", false, 0, 0, "", ""},
      {"", false, 0, 0, "", ""},
  };
  for (const Row& row : rows) {
    CapturedLog log;
    server_.script(ok(row.body));
    KRIApplyPatchResp job{0, 0, nullptr, const_cast<char*>("job-9")};
    Owned<KRIStatusResp> status;
    const char* message = kri_apply_patch_status(kri_, &job, &status.r);
    if (!row.parses) {
      EXPECT_STREQ(message, "Cannot unmarshal json response") << row.body;
      EXPECT_EQ(log.count(std::string("Cannot unmarshal json response: ") + row.body), 1) << row.body;
      EXPECT_EQ(status.r.description, nullptr);
      continue;
    }
    ASSERT_EQ(message, nullptr) << row.body;
    EXPECT_EQ(status.r.progress, row.progress);
    EXPECT_EQ(status.r.code, row.code);
    EXPECT_STREQ(status.r.description, row.description);
    EXPECT_STREQ(status.r.document_id, row.document_id) << "an absent id is an empty text, never none";
  }
}

TEST_F(KriClient, StatusAddressing) {
  server_.script(ok(kJobBody));
  server_.script(ok(kJobBody));
  KRICreateDeltaResp by_id{0, 0, const_cast<char*>("ignored"), const_cast<char*>("abc123")};
  Owned<KRIStatusResp> status;
  ASSERT_EQ(kri_create_delta_status(kri_, &by_id, &status.r), nullptr);
  std::string public_url = "http://127.0.0.1:" + std::to_string(server_.port()) + "/kri/public/jobs/tok?x=1";
  KRICreateSignatureResp by_url{0, 0, const_cast<char*>(public_url.c_str()), const_cast<char*>("")};
  Owned<KRIStatusResp> second;
  ASSERT_EQ(kri_create_signature_status(kri_, &by_url, &second.r), nullptr);

  ASSERT_TRUE(server_.wait_for(2));
  std::vector<RawRequest> all = server_.requests();
  EXPECT_EQ(all[0].request_line, "GET /kri/api/v1/createdelta/abc123 HTTP/1.1");
  EXPECT_EQ(all[0].header("Authorization"), "Bearer tok-1");
  EXPECT_EQ(all[1].request_line, "GET /kri/public/jobs/tok?x=1 HTTP/1.1");
  EXPECT_EQ(all[1].count("Authorization"), 0) << "the public address goes without the token";
  for (const RawRequest& rq : all) EXPECT_EQ(rq.count("x-pmw-acm-namespace"), 0);
  EXPECT_EQ(g_tokens_freed.load(), 1);

  KRIApplyPatchResp nothing{0, 0, const_cast<char*>(""), nullptr};
  Owned<KRIStatusResp> third;
  third.r.code = 4;
  EXPECT_STREQ(kri_apply_patch_status(kri_, &nothing, &third.r),
               "DocumentId and Status Public URL are not defined");
  EXPECT_EQ(third.r.code, 0) << "the status record is zeroed first";
  std::string huge(ZEL_URL_SIZE, 'x');
  KRIApplyPatchResp too_long{0, 0, nullptr, const_cast<char*>(huge.c_str())};
  EXPECT_STREQ(kri_apply_patch_status(kri_, &too_long, &third.r),
               "The status URL does not fit in 4096 bytes");
  EXPECT_EQ(server_.requests().size(), 2u) << "no exchange without a usable job address";
}

TEST_F(KriClient, TokenRules) {
  server_.script(ok(kJobBody));
  server_.script(ok(kJobBody));
  server_.script(RawHttpServer::reply(204, "No Content", "", {"Connection: close"}));
  KRI* anonymous = kri_init(ZEL_ENV_LOCAL, 1, no_token_fn, free_token_fn);
  KRIApplyPatchOpt opt{u"b", u"o", u"n", "00", 5, 0, nullptr, nullptr, nullptr};
  Owned<KRIApplyPatchResp> resp;
  ASSERT_EQ(kri_apply_patch(anonymous, &opt, &resp.r), nullptr);
  kri_cleanup(anonymous);

  KRI* tokenless = kri_init(ZEL_ENV_LOCAL, 1, nullptr, nullptr);
  EXPECT_STREQ(kri_apply_patch(tokenless, &opt, &resp.r),
               "One of the kri_apply_patch parameters (kri, opt, resp) are not initialized");
  Owned<KRIStatusResp> status;
  EXPECT_EQ(kri_apply_patch_status(tokenless, &resp.r, &status.r), nullptr)
      << "status needs no token function";
  EXPECT_EQ(kri_health(tokenless), 204);
  kri_cleanup(tokenless);

  ASSERT_TRUE(server_.wait_for(3));
  for (const RawRequest& rq : server_.requests()) EXPECT_EQ(rq.count("Authorization"), 0) << rq.request_line;
  EXPECT_EQ(server_.requests()[2].request_line, "GET /kri/api/v1/health HTTP/1.1");
  EXPECT_EQ(g_tokens_freed.load(), 0) << "free_token is not called for a missing token";
}

TEST_F(KriClient, RefusalsBeforeAnyExchange) {
  CapturedLog log;
  KRICreateSignatureOpt sig{u"b", u"o", 2048, 5, 0, nullptr, nullptr, nullptr};
  KRICreateDeltaOpt delta{u"b", u"o", u"p", 2048, 5, 0, nullptr, nullptr, nullptr};
  KRIApplyPatchOpt apply{u"b", u"o", u"n", "00", 5, 0, nullptr, nullptr, nullptr};
  KRICreateSignatureResp sresp{};
  KRICreateDeltaResp dresp{};
  KRIApplyPatchResp aresp{};
  KRIStatusResp status{};
  EXPECT_STREQ(kri_create_signature(nullptr, &sig, &sresp),
               "One of the kri_create_signature parameters (kri, opt, resp) is not initialized");
  EXPECT_STREQ(kri_create_signature(kri_, &sig, nullptr),
               "One of the kri_create_signature parameters (kri, opt, resp) is not initialized");
  EXPECT_STREQ(kri_create_delta(kri_, nullptr, &dresp),
               "One of the kri_create_delta parameters (kri, opt, resp) are not initialized");
  EXPECT_STREQ(kri_apply_patch(kri_, nullptr, &aresp),
               "One of the kri_apply_patch parameters (kri, opt, resp) are not initialized");
  EXPECT_STREQ(kri_create_signature_status(kri_, nullptr, &status),
               "One of the kri_create_signature_status parameters (kri, opt, sigresp, statusresp) are not "
               "initialized");
  EXPECT_STREQ(kri_create_delta_status(nullptr, &dresp, &status),
               "One of the kri_create_delta_status parameters (kri, opt, deltaresp, statusresp) are not "
               "initialized");
  EXPECT_STREQ(kri_apply_patch_status(kri_, &aresp, nullptr),
               "One of the kri_apply_patch_status parameters (kri, opt, patchresp, statusresp) are not "
               "initialized");
  EXPECT_TRUE(log.all().empty()) << "parameter refusals are not logged";

  // A name that is not well-formed UTF-16 cannot be put into the body.
  const char16_t lone[] = {u'a', 0xD800, 0};
  sig.object_name = lone;
  EXPECT_STREQ(kri_create_signature(kri_, &sig, &sresp), "Cannot marshall the json");
  delta.object_name2 = nullptr;
  EXPECT_STREQ(kri_create_delta(kri_, &delta, &dresp), "Cannot create json for create delta");
  apply.new_object_sha1 = nullptr;
  EXPECT_STREQ(kri_apply_patch(kri_, &apply, &aresp), "Cannot create json for apply patch");
  EXPECT_EQ(log.count_containing("Failed to create json format in create signature request"), 1);
  EXPECT_EQ(log.count_containing("Failed to create json format in create delta request"), 1);
  EXPECT_EQ(log.count_containing("Failed to create json format in apply patch request"), 1);

  apply.new_object_sha1 = "00";
  apply.acm_groups = "g\r\nX-Forged: 1";
  EXPECT_STREQ(kri_apply_patch(kri_, &apply, &aresp), "An access-control header value holds CR or LF");
  EXPECT_EQ(server_.requests().size(), 0u);
}

TEST_F(KriClient, TransportFailures) {
  server_.set_mode(RawHttpServer::Mode::close_at_once);
  KRICreateSignatureOpt opt{u"b", u"o", 2048, 5, 0, nullptr, nullptr, nullptr};
  Owned<KRICreateSignatureResp> resp;
  const char* message = kri_create_signature(kri_, &opt, &resp.r);
  ASSERT_NE(message, nullptr);
  EXPECT_STRNE(message, "Internal Server Error") << "libcurl's own text comes back unchanged";

  CapturedLog log;
  EXPECT_EQ(kri_health(kri_), 0);
  EXPECT_EQ(log.all().size(), 1u) << "the transfer's error text is logged";

  kri_->timeout_ms = 200;
  server_.set_mode(RawHttpServer::Mode::silent);
  EXPECT_EQ(kri_health(kri_), 0) << "a stalled service ends by the timeout";
}

}  // namespace
