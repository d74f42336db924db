// Bucket operations against the emulator: listing in both API versions,
// refusals, and automatic creation through the bucket cache. (Create,
// details, grant and revoke round trips are the command-line tests'.)
#include <string>

#include "cache.h"
#include "captured_log.h"
#include "create_bucket.h"
#include "lib_fixture.h"

namespace zeltest {
namespace {

std::string narrow(const char16_t* text) {
  std::string out;
  for (; text && *text; ++text) out += *text < 128 ? static_cast<char>(*text) : '?';
  return out;
}

void on_bucket(const ZELBucketDetails* d, void* user_data) {
  static_cast<Recorder*>(user_data)->add({"details", 0, narrow(d->bucket_key)});
}
void on_page(const ZELListBucketsDetails* page, void* user_data) {
  std::string keys;
  for (const ZELListBucketItem* i = page->head; i; i = i->next) keys += narrow(i->bucket_key) + ",";
  static_cast<Recorder*>(user_data)->add({"page", 0, keys + "|" + narrow(page->next_page)});
}

// Runs one operation and gives its single report.
template <class Opt>
Event run(void (*call)(ZEL*, const Opt*, void*), ZEL* h, const Opt& opt) {
  Recorder rec;
  call(h, &opt, &rec);
  return rec.only();
}
std::string code_and_message(const Event& e) { return std::to_string(e.code) + " " + e.message; }

class BucketOps : public LibTest, public ::testing::WithParamInterface<uint32_t> {
 protected:
  void SetUp() override {
    LibTest::SetUp();
    h_ = handle(GetParam());
  }
  std::string api_path() const { return "/zel/v" + std::to_string(GetParam()); }
  Event create(const char16_t* key) {
    ZELCreateBucketOpt opt{key,     ZEL_BUCKET_POLICY_PERSISTENT,   nullptr,
                           nullptr, on_status<ZELCreateBucketResp>, on_bucket};
    return run(zel_create_bucket, h_, opt);
  }
  Event list(const char16_t* region, uint32_t limit, const char16_t* start_at) {
    return run(zel_list_buckets, h_,
               ZELListBucketsOpt{region, limit, start_at, nullptr, on_status<ZELListBucketsResp>, on_page});
  }
  ZEL* h_ = nullptr;
};

TEST_P(BucketOps, ListingPagesAndQueries) {
  for (const char16_t* key : {u"list-a", u"list-b", u"list-c"}) ASSERT_EQ(create(key).kind, "details");
  server_.clear_requests();
  Event e = list(nullptr, 2, nullptr);
  if (GetParam() == 1) {  // there is no listing body in version 1
    EXPECT_EQ(code_and_message(e), "200 Cannot unmarshall json response");
  } else {
    EXPECT_EQ(e.message, "list-b,list-a,|list-c") << "items arrive newest first";
    EXPECT_EQ(list(nullptr, 2, u"list-c").message, "list-c,|") << "no next: an empty next_page";
  }
  list(u"eu west", 0, u"");
  auto sent = server_.requests();
  ASSERT_GE(sent.size(), 2u);
  EXPECT_EQ(sent.front().target, api_path() + "/buckets?limit=2");
  EXPECT_EQ(sent.back().target, api_path() + "/buckets?limit=10&region=eu%20west");
}

INSTANTIATE_TEST_SUITE_P(ApiVersions, BucketOps, ::testing::Values(1u, 2u));

class BucketFrame : public LibTest {};

TEST_F(BucketFrame, AutomaticCreationUsesTheCache) {
  ZEL* h = handle();
  h->auto_create_bucket = 1;
  ZELPutObjectOpt put{};
  put.bucket_key = u"auto-bucket";
  server_.clear_requests();
  EXPECT_EQ(ensure_bucket_exists(h, &put, nullptr), 0);
  EXPECT_EQ(ensure_bucket_exists(h, &put, nullptr), 1) << "the second upload finds it in the cache";
  EXPECT_EQ(server_.requests().size(), 1u);
  EXPECT_EQ(cache_get("auto-bucket"), ZEL_ENV_LOCAL);

  // Known in another environment only: created again (409 counts as there).
  cache_put("other-env", ZEL_ENV_PRODUCTION);
  make_bucket("other-env");
  put.bucket_key = u"other-env";
  EXPECT_EQ(ensure_bucket_exists(h, &put, nullptr), 0);
  EXPECT_EQ(cache_get("other-env"), ZEL_ENV_LOCAL);

  Recorder refused;
  put.callback = on_status<ZELPutObjectResp>;
  put.bucket_key = u"x";  // too short for the service
  EXPECT_EQ(ensure_bucket_exists(h, &put, &refused), -1);
  EXPECT_EQ(code_and_message(refused.only()), "400 Invalid server response for auto_create_bucket request");

  h->auto_create_bucket = 0;
  put.bucket_key = u"never-created";
  EXPECT_EQ(ensure_bucket_exists(h, &put, nullptr), 0);
  EXPECT_EQ(cache_get("never-created"), 0xFFFFFFFFu);
}

// Missing names are refused, and without a handle an operation still
// reports, once: its copy of the handle fails.
TEST_F(BucketFrame, RefusalsAreReportedOnce) {
  CapturedLog capture;
  ZEL* h = handle();
  ZELGrantBucketAccessOpt gopt{nullptr, nullptr, nullptr, on_status<ZELGrantBucketAccessResp>, nullptr};
  ZELGetBucketDetailsOpt dopt{nullptr, nullptr, on_status<ZELGetBucketDetailsResp>, on_bucket};
  ZELCreateBucketOpt copt{nullptr, 0, nullptr, nullptr, on_status<ZELCreateBucketResp>, on_bucket};
  ZELListBucketsOpt lopt{nullptr, 0, nullptr, nullptr, on_status<ZELListBucketsResp>, on_page};
  EXPECT_EQ(run(zel_grant_bucket_access, h, gopt).message, "ZELGrantBucketAccessOpt key is (null)");
  EXPECT_EQ(run(zel_get_bucket_details, h, dopt).message, "ZELGetBucketDetailsOpt key is (null)");
  EXPECT_EQ(run(zel_create_bucket, h, copt).message, "Cannot marshal http request body to json");
  EXPECT_EQ(code_and_message(run(zel_list_buckets, nullptr, lopt)),
            "0 Cannot allocate memory for ZELListBucketsDecorator");
}

}  // namespace
}  // namespace zeltest
