// Bucket operations end to end against the emulator: create (with automatic
// creation and the bucket cache), details, listing, grant and revoke, in
// both API versions, with their bodies on the wire and their messages.
#include <string>

#include "cache.h"
#include "captured_log.h"
#include "create_bucket.h"
#include "lib_fixture.h"
#include "thread.h"

namespace zeltest {
namespace {

std::string narrow(const char16_t* text) {
  std::string out;
  for (; text && *text; ++text) out += *text < 128 ? static_cast<char>(*text) : '?';
  return out;
}

std::string render(const ZELBucketPermissions* list) {
  std::string out;
  for (const ZELBucketPermissionItem* p = list->head; p; p = p->next) {
    out += std::string(p->auth_id ? p->auth_id : "-") + ":" + zel_bucket_access_tostr(p->access) + ";";
  }
  return out;
}

void on_bucket(const ZELBucketDetails* d, void* user_data) {
  static_cast<Recorder*>(user_data)->add(
      {"details", static_cast<int32_t>(d->policy),
       narrow(d->bucket_key) + "|" + d->bucket_owner + "|" + render(d->permissions)});
}

void on_permissions(const ZELBucketPermissions* list, void* user_data) {
  static_cast<Recorder*>(user_data)->add({"permissions", static_cast<int32_t>(list->count), render(list)});
}

void on_page(const ZELListBucketsDetails* page, void* user_data) {
  std::string keys;
  for (const ZELListBucketItem* i = page->head; i; i = i->next) keys += narrow(i->bucket_key) + ",";
  static_cast<Recorder*>(user_data)->add(
      {"page", static_cast<int32_t>(page->count), keys + "|" + narrow(page->next_page)});
}

class BucketOps : public LibTest, public ::testing::WithParamInterface<uint32_t> {
 protected:
  BucketOps() : LibTest({"--token", "bob-token=bob"}) {}
  uint32_t version() const { return GetParam(); }
  std::string api_path() const { return "/zel/v" + std::to_string(version()); }

  Event create(const char16_t* key, ZELBucketPermissions* permissions = nullptr) {
    Recorder rec;
    ZELCreateBucketOpt opt{key,     ZEL_BUCKET_POLICY_PERSISTENT,   permissions,
                           nullptr, on_status<ZELCreateBucketResp>, on_bucket};
    zel_create_bucket(handle(version()), &opt, &rec);
    return rec.only();
  }
};

TEST_P(BucketOps, CreateReadGrantRevoke) {
  ZELBucketPermissions* permissions = zel_permissions_init();
  zel_permissions_append(permissions, "alice", ZEL_BUCKET_ACCESS_READ);
  zel_permissions_append(permissions, "bob", ZEL_BUCKET_ACCESS_FULL);
  server_.clear_requests();
  Event e = create(u"team-bucket", permissions);
  zel_permissions_cleanup(permissions);
  EXPECT_EQ(e.kind, "details");
  EXPECT_EQ(e.code, static_cast<int32_t>(ZEL_BUCKET_POLICY_PERSISTENT));
  EXPECT_NE(e.message.find("team-bucket|local|"), std::string::npos) << e.message;
  auto sent = server_.requests();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].method, "POST");
  EXPECT_EQ(sent[0].target, api_path() + "/buckets");
  EXPECT_EQ(sent[0].header("Content-Type"), "application/json");

  e = create(u"team-bucket");
  EXPECT_EQ(e.code, 409);
  EXPECT_NE(e.message.find("reason"), std::string::npos) << "409 passes the raw body on: " << e.message;

  Recorder details;
  ZELGetBucketDetailsOpt dopt{u"team-bucket", nullptr, on_status<ZELGetBucketDetailsResp>, on_bucket};
  zel_get_bucket_details(handle(version()), &dopt, &details);
  e = details.only();
  EXPECT_EQ(e.kind, "details");
  EXPECT_NE(e.message.find("alice:read;"), std::string::npos) << e.message;
  EXPECT_NE(e.message.find("bob:full;"), std::string::npos) << e.message;
  // The service keeps the permissions in the order of the create body,
  // which must be the order the caller appended them in.
  HttpResult raw = http("GET", server_.api(2) + "/buckets/team-bucket/details", {kAuthHeader});
  EXPECT_LT(raw.body.find("\"alice\""), raw.body.find("\"bob\"")) << raw.body;

  Recorder granted;
  ZELBucketPermissions* more =
      zel_permissions_append(zel_permissions_init(), "carol", ZEL_BUCKET_ACCESS_FULL);
  ZELGrantBucketAccessOpt gopt{u"team-bucket", more, nullptr, on_status<ZELGrantBucketAccessResp>,
                               on_permissions};
  zel_grant_bucket_access(handle(version()), &gopt, &granted);
  zel_permissions_cleanup(more);
  e = granted.only();
  EXPECT_EQ(e.kind, "permissions");
  EXPECT_GE(e.code, 3);
  EXPECT_NE(e.message.find("carol:full;"), std::string::npos) << e.message;

  Recorder revoked;
  ZELBucketPermissions* gone =
      zel_permissions_append(zel_permissions_init(), "carol", ZEL_BUCKET_ACCESS_FULL);
  ZELRevokeBucketAccessOpt vopt{u"team-bucket", gone, nullptr, on_status<ZELRevokeBucketAccessResp>, on_done};
  server_.clear_requests();
  zel_revoke_bucket_access(handle(version()), &vopt, &revoked);
  zel_permissions_cleanup(gone);
  EXPECT_EQ(revoked.only().kind, "done");
  sent = server_.requests();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].target, api_path() + "/buckets/team-bucket/revoke");

  // bob had full access: he can read the details with his own token.
  set_token("bob-token");
  Recorder as_bob;
  zel_get_bucket_details(handle(version()), &dopt, &as_bob);
  EXPECT_EQ(as_bob.only().kind, "details");
}

TEST_P(BucketOps, ListingPagesAndQueries) {
  for (const char16_t* key : {u"list-a", u"list-b", u"list-c"}) ASSERT_EQ(create(key).kind, "details");
  server_.clear_requests();
  Recorder first;
  ZELListBucketsOpt opt{nullptr, 2, nullptr, nullptr, on_status<ZELListBucketsResp>, on_page};
  zel_list_buckets(handle(version()), &opt, &first);
  Event e = first.only();
  if (version() == 1) {
    // There is no listing body in version 1.
    EXPECT_EQ(e.code, 200);
    EXPECT_EQ(e.message, "Cannot unmarshall json response");
  } else {
    EXPECT_EQ(e.kind, "page");
    EXPECT_EQ(e.code, 2);
    EXPECT_EQ(e.message, "list-b,list-a,|list-c") << "items arrive newest first";
    Recorder second;
    opt.start_at = u"list-c";
    zel_list_buckets(handle(version()), &opt, &second);
    EXPECT_EQ(second.only().message, "list-c,|") << "no next: an empty next_page";
  }
  Recorder spaced;
  ZELListBucketsOpt q{u"eu west", 0, u"", nullptr, on_status<ZELListBucketsResp>, on_page};
  zel_list_buckets(handle(version()), &q, &spaced);
  spaced.only();
  auto sent = server_.requests();
  ASSERT_GE(sent.size(), 2u);
  EXPECT_EQ(sent.front().target, api_path() + "/buckets?limit=2");
  EXPECT_EQ(sent.back().target, api_path() + "/buckets?limit=10&region=eu%20west");
}

TEST_P(BucketOps, FailuresAndTheirMessages) {
  Recorder no_key;
  ZELGrantBucketAccessOpt gopt{nullptr, nullptr, nullptr, on_status<ZELGrantBucketAccessResp>,
                               on_permissions};
  zel_grant_bucket_access(handle(version()), &gopt, &no_key);
  Event e = no_key.only();
  EXPECT_EQ(e.code, 0);
  EXPECT_EQ(e.message, "ZELGrantBucketAccessOpt key is (null)");
  Recorder no_details_key;
  ZELGetBucketDetailsOpt dopt{nullptr, nullptr, on_status<ZELGetBucketDetailsResp>, on_bucket};
  zel_get_bucket_details(handle(version()), &dopt, &no_details_key);
  EXPECT_EQ(no_details_key.only().message, "ZELGetBucketDetailsOpt key is (null)");
  Recorder no_create_key;
  ZELCreateBucketOpt copt{nullptr, 0, nullptr, nullptr, on_status<ZELCreateBucketResp>, on_bucket};
  zel_create_bucket(handle(version()), &copt, &no_create_key);
  EXPECT_EQ(no_create_key.only().message, "Cannot marshal http request body to json");

  Recorder missing;
  dopt.key = u"no-such-bucket";
  zel_get_bucket_details(handle(version()), &dopt, &missing);
  e = missing.only();
  EXPECT_EQ(e.code, 404);
  EXPECT_EQ(e.message.find('{'), std::string::npos) << "the reason, not the body: " << e.message;

  ASSERT_EQ(create(u"private").kind, "details");

  ASSERT_TRUE(server_.add_fault(R"({"method":"POST","path":"/grant$","status":200,"body":"{\"x\":[]}"})"));
  Recorder bad;
  gopt.key = u"private";
  zel_grant_bucket_access(handle(version()), &gopt, &bad);
  e = bad.only();
  EXPECT_EQ(e.code, 200);
  EXPECT_EQ(e.message, "Cannot unmarshall json response");
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
  Event e = refused.only();
  EXPECT_EQ(e.code, 400);
  EXPECT_EQ(e.message, "Invalid server response for auto_create_bucket request");

  h->auto_create_bucket = 0;
  put.bucket_key = u"never-created";
  EXPECT_EQ(ensure_bucket_exists(h, &put, nullptr), 0);
  EXPECT_EQ(cache_get("never-created"), 0xFFFFFFFFu);
}

TEST_F(BucketFrame, EntryPointFailures) {
  zeltest::CapturedLog capture;
  Recorder rec;
  zel_create_bucket(handle(), nullptr, &rec);
  zel_list_buckets(handle(), nullptr, &rec);
  EXPECT_TRUE(rec.events().empty());
  EXPECT_EQ(zeltest::CapturedLog::messages("src\\bucket"),
            (std::vector<std::string>{"ZELCreateBucketOpt is not initialized",
                                      "ZELListBucketsOpt is not initialized"}));

  Recorder no_handle;
  ZELListBucketsOpt lopt{nullptr, 0, nullptr, nullptr, on_status<ZELListBucketsResp>, on_page};
  zel_list_buckets(nullptr, &lopt, &no_handle);
  Event e = no_handle.only();
  EXPECT_EQ(e.code, 0);
  EXPECT_EQ(e.message, "Cannot allocate memory for ZELListBucketsDecorator");
  EXPECT_EQ(zeltest::CapturedLog::last("src\\bucket"), "Unable to clone zel");

  Recorder create_failed;
  ZELCreateBucketOpt copt{u"abc", 0, nullptr, nullptr, on_status<ZELCreateBucketResp>, nullptr};
  zel_create_bucket(nullptr, &copt, &create_failed);
  EXPECT_EQ(create_failed.only().message, "Cannot allocate memory for CreateBucketDecorator");
}

int refuse_error() { return zel::thrd_error; }

TEST_F(BucketFrame, ThreadFailureCarriesTheThreadResult) {
  Recorder rec;
  ZELRevokeBucketAccessOpt opt{u"abc", nullptr, nullptr, on_status<ZELRevokeBucketAccessResp>, on_done};
  zel::thrd_set_create_hook(refuse_error);
  zel_revoke_bucket_access(handle(), &opt, &rec);
  zel::thrd_set_create_hook(nullptr);
  Event e = rec.only();
  EXPECT_EQ(e.code, zel::thrd_error);
  EXPECT_EQ(e.message, "The requested operation failed");
}

}  // namespace
}  // namespace zeltest
