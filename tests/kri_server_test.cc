// The delta-engine client against zel-server: a job polled to its end, and
// refusals of the real service as the client reports them. The wire format
// and every status mapping are pinned against a scripted server
// (kri_client_test); create-delta and apply run end to end under the delta
// operations (delta_ops_test).
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
}

TEST_F(KriServerTest, RefusalsAsTheClientReportsThem) {
  KRICreateSignatureOpt opt{u"kribkt", u"base", 2048, 5, 0, nullptr, nullptr, nullptr};
  Job<KRICreateSignatureResp> job;
  set_token("unknown-token");
  EXPECT_STREQ(kri_create_signature(kri_, &opt, &job.r), "Unauthorized");
  set_token("local-dev-token");
  opt.bucket_name = u"nobucket";
  EXPECT_STREQ(kri_create_signature(kri_, &opt, &job.r), "Not Found");
  KRICreateDeltaResp unknown{0, 0, nullptr, const_cast<char*>("0123abcd")};
  Status status;
  EXPECT_STREQ(kri_create_delta_status(kri_, &unknown, &status.r), "Not Found");
}

}  // namespace
