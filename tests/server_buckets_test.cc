// zel-server: bucket endpoints, JSON shapes of both API versions, tokens and
// access control.
#include <string>
#include <vector>

#include "zel_server.h"

using namespace zeltest;

namespace {

const char kBob[] = "Authorization: Bearer bob-token";
const char kCarol[] = "Authorization: Bearer carol-token";

class BucketsTest : public EmulatorTest {
 protected:
  BucketsTest() : EmulatorTest({"--token", "bob-token=bob", "--token", "carol-token=carol"}) {}

  HttpResult post(const std::string& path, const std::string& body, int version = 2,
                  const char* auth = kAuthHeader) {
    return http("POST", server_.api(version) + path, {auth, "Content-Type: application/json"}, body);
  }
  HttpResult create(const std::string& key, int version = 2, const char* auth = kAuthHeader) {
    std::string body = version == 1
                           ? "{\"bucketKey\":\"" + key + "\",\"policy\":\"transient\",\"servicesAllowed\":[]}"
                           : "{\"bucketKey\":\"" + key + "\",\"policyKey\":\"transient\",\"allow\":[]}";
    return post("/buckets", body, version, auth);
  }
  HttpResult get(const std::string& path, const char* auth = kAuthHeader, int version = 2) {
    return http("GET", server_.api(version) + path, {auth});
  }
};

// An error answer is JSON holding exactly one "reason" string.
void expect_reason(const HttpResult& r, long status) {
  EXPECT_EQ(r.status, status) << r.body;
  JsonPtr j = parse_json(r.body);
  ASSERT_TRUE(j) << "error body is not JSON: " << r.body;
  EXPECT_EQ(json_keys(j.get()), std::vector<std::string>{"reason"}) << r.body;
  EXPECT_TRUE(json_is_string(json_object_get(j.get(), "reason")));
  EXPECT_EQ(r.header("Content-Type"), "application/json");
}

TEST_F(BucketsTest, CreateAnswersDetailsInEachVersionsShape) {
  HttpResult r =
      post("/buckets",
           R"({"bucketKey":"shape-v2","policyKey":"temporary","allow":[{"authId":"bob","access":"read"}]})");
  ASSERT_EQ(r.status, 200) << r.body;
  EXPECT_EQ(r.header("Content-Type"), "application/json");
  JsonPtr j = parse_json(r.body);
  ASSERT_TRUE(j);
  EXPECT_EQ(json_keys(j.get()), (std::vector<std::string>{"bucketKey", "bucketOwner", "createdDate",
                                                          "permissions", "policyKey"}));
  EXPECT_EQ(json_str(j.get(), "bucketOwner"), "local");
  EXPECT_EQ(json_str(j.get(), "policyKey"), "temporary");
  EXPECT_GT(json_int(j.get(), "createdDate"), 1600000000000LL) << "milliseconds";
  json_t* perm = json_array_get(json_object_get(j.get(), "permissions"), 0);
  EXPECT_EQ(json_keys(perm), (std::vector<std::string>{"access", "authId"}));
  EXPECT_EQ(json_str(perm, "authId"), "bob");

  r = post(
      "/buckets",
      R"({"bucketKey":"shape-v1","policy":"persistent","servicesAllowed":[{"serviceId":"carol","access":"full"}]})",
      1);
  ASSERT_EQ(r.status, 200) << r.body;
  j = parse_json(r.body);
  EXPECT_EQ(json_keys(j.get()),
            (std::vector<std::string>{"createDate", "key", "owner", "permissions", "policyKey"}));
  perm = json_array_get(json_object_get(j.get(), "permissions"), 0);
  EXPECT_EQ(json_keys(perm), (std::vector<std::string>{"access", "serviceId"}));
  EXPECT_EQ(json_str(perm, "access"), "full");

  // Details follow the version of the request, not of the creation.
  r = get("/buckets/shape-v2/details", kAuthHeader, 1);
  ASSERT_EQ(r.status, 200);
  j = parse_json(r.body);
  EXPECT_EQ(json_str(j.get(), "key"), "shape-v2");
  EXPECT_EQ(json_str(j.get(), "policyKey"), "temporary");
  expect_reason(get("/buckets/no-such-bucket/details"), 404);
}

TEST_F(BucketsTest, CreateRefusesDuplicatesAndMalformedBodies) {
  ASSERT_EQ(create("dup").status, 200);
  expect_reason(create("dup"), 409);
  expect_reason(create("dup", 1), 409);

  for (const char* bad :
       {"not json", "[]", R"({"policyKey":"transient"})", R"({"bucketKey":"ok-key","policyKey":"forever"})",
        R"({"bucketKey":"ok-key","policy":"transient"})",  // version 1 key in a version 2 body
        R"({"bucketKey":"ok-key","policyKey":"transient","allow":[{"authId":"x","access":"write"}]})",
        R"({"bucketKey":"ok-key","policyKey":"transient","allow":{}})",
        R"({"bucketKey":"ok-key","bucketKey":"ok-key","policyKey":"transient"})"}) {
    SCOPED_TRACE(bad);
    expect_reason(post("/buckets", bad), 400);
  }
  for (const std::string& key :
       std::vector<std::string>{"ab", std::string(129, 'a'), "Upper", "a b", "caf\xc3\xa9", "a/b"}) {
    SCOPED_TRACE(key);
    expect_reason(create(key), 400);
  }
  for (const std::string& key : std::vector<std::string>{"abc", std::string(128, 'z'), "a-_.9"}) {
    SCOPED_TRACE(key);
    EXPECT_EQ(create(key).status, 200);
  }
  EXPECT_EQ(get("/buckets/ok-key/details").status, 404) << "a refused create must leave nothing behind";
}

TEST_F(BucketsTest, MissingOrUnknownTokenGets401) {
  ASSERT_EQ(create("guarded").status, 200);
  for (const char* auth : {"X-None: 1", "Authorization: Bearer nope",
                           "Authorization: Basic bG9jYWw6eA==", "Authorization: Bearer"}) {
    SCOPED_TRACE(auth);
    expect_reason(get("/buckets/guarded/details", auth), 401);
    expect_reason(create("other", 2, auth), 401);
  }
  EXPECT_EQ(get("/buckets/guarded/details", "Authorization: bearer local-dev-token").status, 200)
      << "the scheme name is case-insensitive";
}

TEST_F(BucketsTest, GrantAndRevokeControlAccess) {
  ASSERT_EQ(create("shared").status, 200);
  const std::string object = "/buckets/shared/objects/note";
  expect_reason(get("/buckets/shared/details", kBob), 403);
  expect_reason(http("PUT", server_.api() + object, {kBob}, "hi"), 403);

  HttpResult r = post("/buckets/shared/grant", R"({"allow":[{"authId":"bob","access":"read"}]})");
  ASSERT_EQ(r.status, 200) << r.body;
  EXPECT_EQ(r.body, R"({"permissions":[{"authId":"bob","access":"read"}]})");
  EXPECT_EQ(get("/buckets/shared/details", kBob).status, 200);
  expect_reason(http("PUT", server_.api() + object, {kBob}, "hi"), 403);
  expect_reason(post("/buckets/shared/grant", R"({"allow":[{"authId":"bob","access":"full"}]})", 2, kBob),
                403);

  // An upgraded grant keeps its place in the list; version 1 keys on version 1.
  r = post(
      "/buckets/shared/grant",
      R"({"servicesAllowed":[{"serviceId":"bob","access":"full"},{"serviceId":"carol","access":"read"}]})",
      1);
  ASSERT_EQ(r.status, 200) << r.body;
  EXPECT_EQ(
      r.body,
      R"({"servicesAllowed":[{"serviceId":"bob","access":"full"},{"serviceId":"carol","access":"read"}]})");
  EXPECT_EQ(http("PUT", server_.api() + object, {kBob}, "hi").status, 200);
  EXPECT_EQ(get(object, kCarol).status, 200);

  ASSERT_EQ(post("/buckets/shared/revoke", R"({"revoke":[{"authId":"bob"}]})").status, 200);
  expect_reason(get("/buckets/shared/details", kBob), 403);
  expect_reason(get(object, kBob), 403);
  JsonPtr j = parse_json(get("/buckets/shared/details").body);
  json_t* perms = json_object_get(j.get(), "permissions");
  ASSERT_EQ(json_array_size(perms), 1u);
  EXPECT_EQ(json_str(json_array_get(perms, 0), "authId"), "carol");

  // Revoking the owner does not lock the owner out.
  ASSERT_EQ(post("/buckets/shared/revoke", R"({"revoke":[{"authId":"local"}]})").status, 200);
  EXPECT_EQ(get("/buckets/shared/details").status, 200);
  expect_reason(post("/buckets/shared/grant", R"({"allow":[{"authId":"bob","access":"owner"}]})"), 400);
  expect_reason(post("/buckets/missing/grant", R"({"allow":[]})"), 404);
}

TEST_F(BucketsTest, ListingPagesInKeyOrder) {
  for (const char* k : {"lb-d", "lb-a", "lb-e", "lb-c", "lb-b"}) ASSERT_EQ(create(k).status, 200);
  ASSERT_EQ(create("lb-bob", 2, kBob).status, 200);

  HttpResult r = get("/buckets?limit=2");
  ASSERT_EQ(r.status, 200) << r.body;
  JsonPtr j = parse_json(r.body);
  EXPECT_EQ(json_keys(j.get()), (std::vector<std::string>{"items", "next"}));
  json_t* items = json_object_get(j.get(), "items");
  ASSERT_EQ(json_array_size(items), 2u);
  EXPECT_EQ(json_keys(json_array_get(items, 0)),
            (std::vector<std::string>{"bucketKey", "createdDate", "policyKey"}));
  EXPECT_EQ(json_str(json_array_get(items, 0), "bucketKey"), "lb-a");
  EXPECT_EQ(json_str(json_array_get(items, 1), "bucketKey"), "lb-b");
  EXPECT_EQ(json_str(j.get(), "next"), "lb-c");

  j = parse_json(get("/buckets?limit=2&region=EMEA&startAt=lb-c").body);
  EXPECT_EQ(json_str(json_array_get(json_object_get(j.get(), "items"), 0), "bucketKey"), "lb-c");
  EXPECT_EQ(json_str(j.get(), "next"), "lb-e");

  j = parse_json(get("/buckets?limit=2&startAt=lb-e").body);
  EXPECT_EQ(json_array_size(json_object_get(j.get(), "items")), 1u);
  EXPECT_EQ(json_object_get(j.get(), "next"), nullptr) << "no next on the last page";

  j = parse_json(get("/buckets?limit=0").body);  // 0 means the default page of 10
  EXPECT_EQ(json_array_size(json_object_get(j.get(), "items")), 5u) << "bob's bucket is not local's";

  j = parse_json(get("/buckets", kBob).body);
  ASSERT_EQ(json_array_size(json_object_get(j.get(), "items")), 1u);
  ASSERT_EQ(post("/buckets/lb-c/grant", R"({"allow":[{"authId":"bob","access":"read"}]})").status, 200);
  j = parse_json(get("/buckets", kBob).body);
  EXPECT_EQ(json_array_size(json_object_get(j.get(), "items")), 2u) << "granted buckets are listed too";
  expect_reason(get("/buckets?limit=abc"), 400);
  expect_reason(get("/buckets?limit=-1"), 400);
}

}  // namespace
