// The delta-engine client against a scripted server: what requests put on
// the wire, how answers are judged and parsed, refusals before any exchange.
#include <gtest/gtest.h>
#include <zel/zel.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "alloc.h"
#include "raw_http_server.h"

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
    ASSERT_EQ(kri_set_environment_url(ZEL_ENV_LOCAL, server_.url("").c_str()), 0);
    kri_ = kri_init(ZEL_ENV_LOCAL, 1, token_fn, free_token_fn);
    ASSERT_NE(kri_, nullptr);
  }
  void TearDown() override {
    kri_cleanup(kri_);
    kri_set_environment_url(ZEL_ENV_LOCAL, nullptr);
  }
  // The requests once `n` have arrived.
  std::vector<RawRequest> sent(size_t n) {
    EXPECT_TRUE(server_.wait_for(n));
    std::vector<RawRequest> all = server_.requests();
    EXPECT_EQ(all.size(), n);
    all.resize(n);
    return all;
  }

  RawHttpServer server_;
  KRI* kri_ = nullptr;
};

// Only what is the delta client's own: its path under the base, the missing
// local base, the length it reports. Base-URL checks are the
// storage service's (the same code).
TEST(KriHandle, ProxyUrlsAndMissingHandle) {
  KRI* kri = kri_init(ZEL_ENV_PRODUCTION, 3, token_fn, nullptr);
  ASSERT_NE(kri, nullptr);
  kri_set_proxy(kri, "http://p:1", "u", "pw");
  kri_set_proxy(kri, nullptr, "v", nullptr);  // replaces all three texts
  EXPECT_TRUE(kri->proxy == nullptr && std::string(kri->proxy_username) == "v" &&
              kri->proxy_password == nullptr);

  char url[ZEL_URL_SIZE];
  ASSERT_EQ(kri_set_environment_url(ZEL_ENV_PRODUCTION, "http://127.0.0.1:5"), 0);
  EXPECT_EQ(kri_api_url(kri, url, "/%s/%s", "applypatch", "abc"), 44);
  EXPECT_STREQ(url, "http://127.0.0.1:5/kri/api/v3/applypatch/abc");
  ASSERT_EQ(kri_set_environment_url(ZEL_ENV_PRODUCTION, nullptr), 0);
  for (uint32_t env : {0u, 4u, 7u}) {
    kri->environment = env;
    EXPECT_EQ(kri_api_url(kri, url, "/health"), 7);
    EXPECT_STREQ(url, "/health") << "environment " << env << " has no base";
  }
  EXPECT_EQ(kri_health(kri), 0) << "a bare path reaches no service";
  std::string long_path(5000, 'a');
  EXPECT_EQ(kri_api_url(kri, url, "/%s", long_path.c_str()), 5001) << "length of the whole URL";
  EXPECT_EQ(std::strlen(url), static_cast<size_t>(ZEL_URL_SIZE - 1));
  kri_cleanup(kri);

  mem_fail_at(1);
  EXPECT_EQ(kri_init(ZEL_ENV_LOCAL, 1, token_fn, nullptr), nullptr);
  mem_fail_at(0);
  EXPECT_EQ(kri_api_url(nullptr, url, "/health"), -1);
  EXPECT_EQ(kri_health(nullptr), 0);
}

// The create-delta and apply-patch bodies are checked end to end by the
// delta operations' tests; the signature request is this client's alone.
TEST_F(KriClient, CreateSignatureWireFormatAndParse) {
  server_.script(ok(kJobBody));
  KRICreateSignatureOpt opt{u"bkt", u"caf\u00e9", 2048, 5, 3, "ns1", "g1,g2", "chk"};
  Owned<KRICreateSignatureResp> resp;
  resp.r.code = 99;
  ASSERT_EQ(kri_create_signature(kri_, &opt, &resp.r), nullptr);
  EXPECT_TRUE(resp.r.progress == 7 && resp.r.code == 1);
  EXPECT_STREQ(resp.r.description, "http://h/s/1");
  EXPECT_STREQ(resp.r.document_id, "d-1");

  RawRequest rq = sent(1)[0];
  EXPECT_EQ(rq.request_line, "POST /kri/api/v1/createsignature HTTP/1.1");
  EXPECT_EQ(rq.body,
            "{\"BucketName\":\"bkt\",\"ObjectName\":\"caf\xc3\xa9\",\"MaximumAttempts\":5,"
            "\"BlockSize\":2048,\"ProcessType\":3}");
  EXPECT_EQ(std::make_tuple(rq.header("Authorization"), rq.header("x-pmw-acm-namespace"),
                            rq.header("x-pmw-acm-groups"), rq.header("x-pmw-acm-check-groups"),
                            rq.header("Content-Type")),
            std::make_tuple("Bearer tok-1", "ns1", "g1,g2", "chk", "application/json"));
  EXPECT_EQ(g_tokens_freed.load(), 1);
}

// Status codes and bodies judged (any status not named is a server error): a 200 needs Code and Description
// (no duplicates, no wrong types; DocumentID optional, other keys ignored).
TEST_F(KriClient, AnswersAreJudgedAndParsed) {
  struct Row {
    int status;
    std::string body;
    const char* message;  // nullptr: parsed
    int code = 0;
    const char* description = nullptr;
    const char* document_id = nullptr;
  };
  std::vector<Row> rows = {
      {200, "{\"Code\":5,\"Description\":\"d\"}", nullptr, 5, "d", ""},
      {200, "{\"Code\":-1,\"Description\":\"\",\"Extra\":[1],\"DocumentID\":\"x\"}", nullptr, -1, "", "x"},
      {201, "{\"x\":1}", "Internal Server Error"},
      {401, "{\"x\":1}", "Unauthorized"},
      {403, "{\"x\":1}", "Forbidden"},
      {404, "{\"x\":1}", "Not Found"},
  };
  // Code and Description are required; no duplicates, no wrong types.
  for (const char* body :
       {"{\"Progress\":50,\"Description\":\"d\"}", "{\"Progress\":50,\"Code\":1}",
        "{\"Code\":1,\"Code\":2,\"Description\":\"d\"}", "{\"Code\":\"1\",\"Description\":\"d\"}",
        "{\"Code\":1,\"Description\":\"d\",\"DocumentID\":7}", "not json", ""})
    rows.push_back({200, body, "Cannot unmarshal json response"});
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.status) + " " + row.body);
    server_.script(RawHttpServer::reply(row.status, "X", row.body, {"Connection: close"}));
    KRIApplyPatchResp job{0, 0, nullptr, const_cast<char*>("job-9")};
    Owned<KRIStatusResp> status;
    status.r.code = 4;
    EXPECT_STREQ(kri_apply_patch_status(kri_, &job, &status.r), row.message);
    EXPECT_TRUE(status.r.progress == 0 && status.r.code == row.code) << "a failure leaves the record zeroed";
    EXPECT_STREQ(status.r.description, row.description);
    EXPECT_STREQ(status.r.document_id, row.document_id) << "an absent id is an empty text, never none";
  }
}

// A job is asked for by id with the token, else at its public address
// without; a handle without a token (or token function) sends none.
TEST_F(KriClient, JobAddressingAndTokens) {
  for (int i = 0; i < 4; i++) server_.script(ok(kJobBody));
  server_.script(RawHttpServer::reply(204, "No Content", "", {"Connection: close"}));
  KRICreateDeltaResp by_id{0, 0, const_cast<char*>("ignored"), const_cast<char*>("abc123")};
  Owned<KRIStatusResp> first, second, third, fourth;
  ASSERT_EQ(kri_create_delta_status(kri_, &by_id, &first.r), nullptr);
  std::string public_url = server_.url("/kri/public/jobs/tok?x=1");
  KRICreateSignatureResp by_url{0, 0, const_cast<char*>(public_url.c_str()), const_cast<char*>("")};
  ASSERT_EQ(kri_create_signature_status(kri_, &by_url, &second.r), nullptr);
  KRIApplyPatchResp nothing{0, 0, const_cast<char*>(""), nullptr};
  third.r.code = 4;
  EXPECT_STREQ(kri_apply_patch_status(kri_, &nothing, &third.r),
               "DocumentId and Status Public URL are not defined");
  EXPECT_EQ(third.r.code, 0) << "the status record is zeroed first";
  std::string huge(ZEL_URL_SIZE, 'x');
  KRIApplyPatchResp too_long{0, 0, nullptr, const_cast<char*>(huge.c_str())};
  EXPECT_STREQ(kri_apply_patch_status(kri_, &too_long, &third.r),
               "The status URL does not fit in 4096 bytes");

  KRI* anonymous = kri_init(ZEL_ENV_LOCAL, 1, no_token_fn, free_token_fn);
  KRIApplyPatchOpt opt{u"b", u"o", u"n", "00", 5, 0, nullptr, nullptr, nullptr};
  Owned<KRIApplyPatchResp> resp;
  ASSERT_EQ(kri_apply_patch(anonymous, &opt, &resp.r), nullptr);
  kri_cleanup(anonymous);
  KRI* tokenless = kri_init(ZEL_ENV_LOCAL, 1, nullptr, nullptr);
  EXPECT_STREQ(kri_apply_patch(tokenless, &opt, &resp.r),
               "One of the kri_apply_patch parameters (kri, opt, resp) are not initialized");
  EXPECT_EQ(kri_apply_patch_status(tokenless, &resp.r, &fourth.r), nullptr)
      << "status needs no token function";
  EXPECT_EQ(kri_health(tokenless), 204);
  kri_cleanup(tokenless);

  std::vector<RawRequest> all = sent(5);
  EXPECT_EQ(all[0].request_line, "GET /kri/api/v1/createdelta/abc123 HTTP/1.1");
  EXPECT_EQ(all[0].header("Authorization"), "Bearer tok-1");
  EXPECT_EQ(all[1].request_line, "GET /kri/public/jobs/tok?x=1 HTTP/1.1");
  for (size_t i = 1; i < all.size(); i++) EXPECT_EQ(all[i].count("Authorization"), 0) << all[i].request_line;
  EXPECT_EQ(all[2].count("x-pmw-acm-namespace") + all[2].count("x-pmw-acm-groups") +
                all[2].count("x-pmw-acm-check-groups"),
            0)
      << "an absent value leaves its header out";
  EXPECT_EQ(all[4].request_line, "GET /kri/api/v1/health HTTP/1.1");
  EXPECT_EQ(g_tokens_freed.load(), 1) << "free_token is called only for a token that came";
}

TEST_F(KriClient, RefusalsBeforeAnyExchange) {
  KRICreateSignatureOpt sig{u"b", u"o", 2048, 5, 0, nullptr, nullptr, nullptr};
  KRICreateDeltaOpt delta{u"b", u"o", u"p", 2048, 5, 0, nullptr, nullptr, nullptr};
  KRIApplyPatchOpt apply{u"b", u"o", u"n", "00", 5, 0, nullptr, nullptr, nullptr};
  KRICreateSignatureResp sresp{};
  KRICreateDeltaResp dresp{};
  KRIApplyPatchResp aresp{};
  KRIStatusResp status{};
  const std::pair<const char*, const char*> refusals[] = {
      {kri_create_signature(nullptr, &sig, &sresp), "kri_create_signature parameters (kri, opt, resp) is"},
      {kri_create_delta(kri_, nullptr, &dresp), "kri_create_delta parameters (kri, opt, resp) are"},
      {kri_create_signature_status(kri_, nullptr, &status),
       "kri_create_signature_status parameters (kri, opt, sigresp, statusresp) are"},
      {kri_create_delta_status(nullptr, &dresp, &status),
       "kri_create_delta_status parameters (kri, opt, deltaresp, statusresp) are"},
      {kri_apply_patch_status(kri_, &aresp, nullptr),
       "kri_apply_patch_status parameters (kri, opt, patchresp, statusresp) are"},
  };
  for (const auto& [message, names] : refusals)
    EXPECT_EQ(std::string(message), std::string("One of the ") + names + " not initialized");

  // A name that is not well-formed UTF-16 cannot be put into the body.
  const char16_t lone[] = {u'a', 0xD800, 0};
  sig.object_name = lone;
  EXPECT_STREQ(kri_create_signature(kri_, &sig, &sresp), "Cannot marshall the json");
  delta.object_name2 = nullptr;
  EXPECT_STREQ(kri_create_delta(kri_, &delta, &dresp), "Cannot create json for create delta");
  apply.new_object_sha1 = nullptr;
  EXPECT_STREQ(kri_apply_patch(kri_, &apply, &aresp), "Cannot create json for apply patch");

  apply.new_object_sha1 = "00";
  apply.acm_groups = "g\r\nX-Forged: 1";
  EXPECT_STREQ(kri_apply_patch(kri_, &apply, &aresp), "An access-control header value holds CR or LF");
  EXPECT_EQ(server_.requests().size(), 0u);
}

TEST_F(KriClient, TransportFailures) {
  server_.set_mode(RawHttpServer::Mode::close_at_once);
  KRICreateSignatureOpt opt{u"b", u"o", 2048, 5, 0, nullptr, nullptr, nullptr};
  Owned<KRICreateSignatureResp> resp;
  resp.r.code = 99;
  const char* message = kri_create_signature(kri_, &opt, &resp.r);
  ASSERT_NE(message, nullptr);
  EXPECT_EQ(resp.r.code, 0) << "a failure leaves the record zeroed";
  EXPECT_STRNE(message, "Internal Server Error") << "libcurl's own text comes back unchanged";
  EXPECT_EQ(kri_health(kri_), 0);

  kri_->timeout_ms = 200;
  server_.set_mode(RawHttpServer::Mode::silent);
  EXPECT_EQ(kri_health(kri_), 0) << "a stalled service ends by the timeout";
}

}  // namespace
