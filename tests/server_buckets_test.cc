// zel-server: bucket endpoints, JSON shapes of both API versions, tokens and
// access control.
#include <string>
#include <vector>

#include "zel_server.h"

using namespace zeltest;

namespace {

using Keys = std::vector<std::string>;
const char kBob[] = "Authorization: Bearer bob-token";
const char kCarol[] = "Authorization: Bearer carol-token";

class BucketsTest : public EmulatorTest {
 protected:
  BucketsTest() : EmulatorTest({"--token", "bob-token=bob", "--token", "carol-token=carol"}) {}

  HttpResult post(const std::string& path, const std::string& body, int version = 2,
                  const char* auth = kAuthHeader) {
    return http("POST", server_.api(version) + path, {auth, "Content-Type: application/json"}, body);
  }
  HttpResult create(const std::string& key, const char* auth = kAuthHeader) {
    return post("/buckets", R"({"policyKey":"transient","allow":[],"bucketKey":")" + key + "\"}", 2, auth);
  }
  HttpResult get(const std::string& path, const char* auth = kAuthHeader, int version = 2) {
    return http("GET", server_.api(version) + path, {auth});
  }
  // The bucket keys of a listing's page, then "|" and its next key if it has one.
  std::string page(const std::string& query, const char* auth = kAuthHeader) {
    JsonPtr j = parse_json(get("/buckets" + query, auth).body);
    std::string keys;
    json_t* items = json_object_get(j.get(), "items");
    for (size_t i = 0; i < json_array_size(items); ++i)
      keys += json_str(json_array_get(items, i), "bucketKey") + ",";
    return keys + (json_object_get(j.get(), "next") ? "|" + json_str(j.get(), "next") : "");
  }
};

// An error answer is JSON holding exactly one "reason" string.
void expect_reason(const HttpResult& r, long status) {
  EXPECT_EQ(r.status, status) << r.body;
  JsonPtr j = parse_json(r.body);
  EXPECT_EQ(json_keys(j.get()), Keys{"reason"}) << r.body;
  EXPECT_TRUE(json_is_string(json_object_get(j.get(), "reason"))) << r.body;
  EXPECT_EQ(r.header("Content-Type"), "application/json");
}

// Details follow the version of the request, not of the creation; a
// version 1 body's grants are kept.
TEST_F(BucketsTest, DetailsFollowTheRequestsVersion) {
  HttpResult r =
      post("/buckets",
           R"({"bucketKey":"shape-v2","policyKey":"temporary","allow":[{"authId":"bob","access":"read"}]})");
  ASSERT_EQ(r.status, 200) << r.body;
  EXPECT_GT(json_int(parse_json(r.body).get(), "createdDate"), 1600000000000LL) << "milliseconds";
  JsonPtr j = parse_json(get("/buckets/shape-v2/details", kAuthHeader, 1).body);
  EXPECT_EQ(json_keys(j.get()), (Keys{"createDate", "key", "owner", "permissions", "policyKey"}));
  EXPECT_EQ(json_str(j.get(), "key") + " " + json_str(j.get(), "policyKey"), "shape-v2 temporary");
  r = post(
      "/buckets",
      R"({"bucketKey":"shape-v1","policy":"persistent","servicesAllowed":[{"serviceId":"carol","access":"full"}]})",
      1);
  ASSERT_EQ(r.status, 200) << r.body;
  j = parse_json(get("/buckets/shape-v1/details").body);
  json_t* perm = json_array_get(json_object_get(j.get(), "permissions"), 0);
  EXPECT_EQ(json_str(j.get(), "policyKey") + " " + json_str(perm, "authId") + ":" + json_str(perm, "access"),
            "persistent carol:full");
  expect_reason(get("/buckets/no-such-bucket/details"), 404);
}

TEST_F(BucketsTest, CreateRefusesMalformedBodiesAndUnknownTokens) {
  ASSERT_EQ(create("dup").status, 200);
  for (const char* bad :
       {"not json", "[]", R"({"policyKey":"transient"})", R"({"bucketKey":"ok-key","policyKey":"forever"})",
        R"({"bucketKey":"ok-key","policy":"transient"})",  // version 1 key in a version 2 body
        R"({"bucketKey":"ok-key","policyKey":"transient","allow":[{"authId":"x","access":"write"}]})",
        R"({"bucketKey":"ok-key","policyKey":"transient","allow":{}})",
        R"({"bucketKey":"ok-key","bucketKey":"ok-key","policyKey":"transient"})"}) {
    SCOPED_TRACE(bad);
    expect_reason(post("/buckets", bad), 400);
  }
  for (const std::string& key : Keys{"ab", std::string(129, 'a'), "Upper", "a b", "caf\xc3\xa9", "a/b"}) {
    SCOPED_TRACE(key);
    expect_reason(create(key), 400);
  }
  for (const std::string& key : Keys{"abc", std::string(128, 'z'), "a-_.9"})
    EXPECT_EQ(create(key).status, 200) << key;
  EXPECT_EQ(get("/buckets/ok-key/details").status, 404) << "a refused create must leave nothing behind";

  for (const char* auth : {"X-None: 1", "Authorization: Bearer nope",
                           "Authorization: Basic bG9jYWw6eA==", "Authorization: Bearer"}) {
    SCOPED_TRACE(auth);
    expect_reason(get("/buckets/dup/details", auth), 401);
  }
  EXPECT_EQ(get("/buckets/dup/details", "Authorization: bearer local-dev-token").status, 200)
      << "the scheme name is case-insensitive";
}

TEST_F(BucketsTest, GrantAndRevokeControlAccess) {
  ASSERT_EQ(create("shared").status, 200);
  const std::string object = "/buckets/shared/objects/note";
  auto put_as_bob = [&] { return http("PUT", server_.api() + object, {kBob}, "hi"); };
  expect_reason(get("/buckets/shared/details", kBob), 403);
  expect_reason(put_as_bob(), 403);

  HttpResult r = post("/buckets/shared/grant", R"({"allow":[{"authId":"bob","access":"read"}]})");
  EXPECT_EQ(r.body, R"({"permissions":[{"authId":"bob","access":"read"}]})");
  EXPECT_EQ(get("/buckets/shared/details", kBob).status, 200);
  expect_reason(put_as_bob(), 403);
  expect_reason(post("/buckets/shared/grant", R"({"allow":[{"authId":"bob","access":"full"}]})", 2, kBob),
                403);

  // An upgraded grant keeps its place in the list; version 1 keys on version 1.
  const char* v1 =
      R"({"servicesAllowed":[{"serviceId":"bob","access":"full"},{"serviceId":"carol","access":"read"}]})";
  EXPECT_EQ(post("/buckets/shared/grant", v1, 1).body, v1);
  EXPECT_EQ(put_as_bob().status, 200);
  EXPECT_EQ(get(object, kCarol).status, 200);

  ASSERT_EQ(post("/buckets/shared/revoke", R"({"revoke":[{"authId":"bob"}]})").status, 200);
  expect_reason(get("/buckets/shared/details", kBob), 403);
  expect_reason(get(object, kBob), 403);
  JsonPtr j = parse_json(get("/buckets/shared/details").body);
  json_t* perms = json_object_get(j.get(), "permissions");
  EXPECT_EQ(json_array_size(perms), 1u);
  EXPECT_EQ(json_str(json_array_get(perms, 0), "authId"), "carol");

  // Revoking the owner does not lock the owner out.
  ASSERT_EQ(post("/buckets/shared/revoke", R"({"revoke":[{"authId":"local"}]})").status, 200);
  EXPECT_EQ(get("/buckets/shared/details").status, 200);
  expect_reason(post("/buckets/missing/grant", R"({"allow":[]})"), 404);
}

TEST_F(BucketsTest, ListingPagesInKeyOrder) {
  for (const char* k : {"lb-d", "lb-a", "lb-e", "lb-c", "lb-b"}) ASSERT_EQ(create(k).status, 200);
  ASSERT_EQ(create("lb-bob", kBob).status, 200);
  EXPECT_EQ(page("?limit=2"), "lb-a,lb-b,|lb-c");
  EXPECT_EQ(page("?limit=2&region=EMEA&startAt=lb-c"), "lb-c,lb-d,|lb-e");
  EXPECT_EQ(page("?limit=2&startAt=lb-e"), "lb-e,") << "no next on the last page";
  EXPECT_EQ(page("?limit=0"), "lb-a,lb-b,lb-c,lb-d,lb-e,")
      << "the default page of 10; bob's bucket is not local's";
  EXPECT_EQ(page("", kBob), "lb-bob,");
  ASSERT_EQ(post("/buckets/lb-c/grant", R"({"allow":[{"authId":"bob","access":"read"}]})").status, 200);
  EXPECT_EQ(page("", kBob), "lb-bob,lb-c,") << "granted buckets are listed too";
  expect_reason(get("/buckets?limit=abc"), 400);
  expect_reason(get("/buckets?limit=-1"), 400);
}

}  // namespace
