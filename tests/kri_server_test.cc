// The delta-engine client against zel-server: every request function end
// to end, jobs polled to their end by id and by public address, and the
// service's refusals as the client reports them.
#include <gtest/gtest.h>
#include <zel/zel.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "lib_fixture.h"

using namespace zeltest;

namespace {

struct Status {
  KRIStatusResp r{};
  void reset() {
    free(r.description);
    free(r.document_id);
    r = KRIStatusResp{};
  }
  ~Status() { reset(); }
};

template <class Resp>
struct Job {
  Resp r{};
  ~Job() {
    free(r.description);
    free(r.document_id);
  }
};

class KriServerTest : public LibTest {
 protected:
  void SetUp() override {
    LibTest::SetUp();
    ASSERT_EQ(kri_set_environment_url(ZEL_ENV_LOCAL, server_.base_url().c_str()), 0);
    kri_ = kri_init(ZEL_ENV_LOCAL, 1, get_token, free_token);
    ASSERT_NE(kri_, nullptr);
    make_bucket("kribkt");
    put_object("kribkt", "base", pattern_bytes(10000, 3));
    put_object("kribkt", "target", pattern_bytes(10000, 3) + "appended");
  }
  void TearDown() override {
    kri_cleanup(kri_);
    kri_set_environment_url(ZEL_ENV_LOCAL, nullptr);
    LibTest::TearDown();
  }

  // Polls with `status_fn` until the job ends; its final code.
  template <class Resp, class Fn>
  int32_t poll(const Resp& job, Fn status_fn, Status& status) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
      status.reset();
      const char* message = status_fn(kri_, &job, &status.r);
      EXPECT_EQ(message, nullptr) << message;
      if (message != nullptr) return -999;
      EXPECT_NE(status.r.description, nullptr);
      if (status.r.code == KRI_JOB_FINISHED || status.r.code == KRI_JOB_FAILED) return status.r.code;
    }
    return -998;
  }

  KRI* kri_ = nullptr;
};

TEST_F(KriServerTest, HealthAndSignatureJob) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(kri_health(kri_), 200);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "the answer's body stays inside the library";
  KRICreateSignatureOpt opt{u"kribkt", u"base", 2048, 5, 0, "ns", nullptr, nullptr};
  Job<KRICreateSignatureResp> job;
  ASSERT_EQ(kri_create_signature(kri_, &opt, &job.r), nullptr);
  EXPECT_EQ(job.r.code, KRI_JOB_QUEUED);
  EXPECT_NE(std::string(job.r.description).find("/kri/api/v1/public/"), std::string::npos);
  Status status;
  EXPECT_EQ(poll(job.r, kri_create_signature_status, status), KRI_JOB_FINISHED);
  EXPECT_EQ(status.r.progress, 100);
  EXPECT_STREQ(status.r.document_id, job.r.document_id);

  // The same job through its public address, without a token.
  KRICreateSignatureResp by_url{0, 0, job.r.description, const_cast<char*>("")};
  ASSERT_TRUE(server_.clear_requests());
  EXPECT_EQ(poll(by_url, kri_create_signature_status, status), KRI_JOB_FINISHED);
  std::vector<RecordedRequest> sent = server_.requests();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].header("Authorization"), "");
}

TEST_F(KriServerTest, CreateDeltaThenApplyAnUploadedPatch) {
  KRICreateDeltaOpt delta{u"kribkt", u"base", u"target", 2048, 5, 0, nullptr, nullptr, nullptr};
  Job<KRICreateDeltaResp> djob;
  ASSERT_EQ(kri_create_delta(kri_, &delta, &djob.r), nullptr);
  Status status;
  ASSERT_EQ(poll(djob.r, kri_create_delta_status, status), KRI_JOB_FINISHED) << status.r.description;

  // The service's patch, uploaded as a pending patch of a new object, then
  // applied by the delta engine.
  std::string base = pattern_bytes(10000, 3), target = base + "appended";
  std::string orig = sha1_hex(base), dest = sha1_hex(target);
  HttpResult patch = http("GET", server_.api(2) + "/buckets/kribkt/objects/target",
                          {kAuthHeader, "x-pmw-delta-object: patch:" + orig});
  ASSERT_EQ(patch.status, 200);
  HttpResult up =
      http("PUT", server_.api(2) + "/buckets/kribkt/objects/made",
           {kAuthHeader, "x-pmw-delta-object: patch:" + orig + "->" + dest, "x-pmw-delta-processtype: 0"},
           patch.body);
  ASSERT_EQ(up.status, 200) << up.body;

  KRIApplyPatchOpt apply{u"kribkt", u"base", u"made", dest.c_str(), 5, 0, nullptr, "grp", nullptr};
  Job<KRIApplyPatchResp> ajob;
  ASSERT_EQ(kri_apply_patch(kri_, &apply, &ajob.r), nullptr);
  ASSERT_EQ(poll(ajob.r, kri_apply_patch_status, status), KRI_JOB_FINISHED) << status.r.description;
  JsonPtr details = parse_json(status.r.description);
  ASSERT_TRUE(details) << status.r.description;
  EXPECT_EQ(json_string_value(json_object_get(details.get(), "sha1")), dest);
  EXPECT_EQ(http("GET", server_.api(2) + "/buckets/kribkt/objects/made", {kAuthHeader}).body, target);

  apply.new_object_sha1 = orig.c_str();  // the object no longer holds a patch
  Job<KRIApplyPatchResp> again;
  ASSERT_EQ(kri_apply_patch(kri_, &apply, &again.r), nullptr);
  EXPECT_EQ(poll(again.r, kri_apply_patch_status, status), KRI_JOB_FAILED);
  EXPECT_STRNE(status.r.description, "");
}

TEST_F(KriServerTest, RefusalsAsTheClientReportsThem) {
  KRICreateSignatureOpt opt{u"kribkt", u"base", 2048, 5, 0, nullptr, nullptr, nullptr};
  Job<KRICreateSignatureResp> job;
  set_token("unknown-token");
  EXPECT_STREQ(kri_create_signature(kri_, &opt, &job.r), "Unauthorized");
  set_token("local-dev-token");
  opt.bucket_name = u"nobucket";
  EXPECT_STREQ(kri_create_signature(kri_, &opt, &job.r), "Not Found");
  opt.block_size = 0;
  EXPECT_STREQ(kri_create_signature(kri_, &opt, &job.r), "Internal Server Error") << "a 400 answer";

  KRICreateDeltaResp unknown{0, 0, nullptr, const_cast<char*>("0123abcd")};
  Status status;
  EXPECT_STREQ(kri_create_delta_status(kri_, &unknown, &status.r), "Not Found");

  ASSERT_TRUE(server_.add_fault(R"({"path":"^/kri/api/v1/createsignature$","status":403,"times":1})"));
  opt.bucket_name = u"kribkt";
  opt.block_size = 2048;
  EXPECT_STREQ(kri_create_signature(kri_, &opt, &job.r), "Forbidden");
}

}  // namespace
