// The service's JSON bodies: exact request bytes, strictness of each response format, optional keys and their
// defaults, list orders, name tables, version dispatch and log messages.
#include "json.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <string>
#include <utility>
#include <vector>

#include "alloc.h"
#include "alloc_walk.h"
#include "bucket.h"
#include "captured_log.h"

namespace {

const char* kTag = "src\\json";

// Owns a body returned by a builder.
struct Body {
  char* text;
  explicit Body(char* t) : text(t) {}
  ~Body() { mem_free(text); }
  std::string str() const { return text != nullptr ? text : "<none>"; }
};

ZELBucketPermissions* appended(const std::vector<std::pair<const char*, uint32_t>>& entries) {
  ZELBucketPermissions* list = zel_permissions_init();
  for (const auto& entry : entries) zel_permissions_append(list, entry.first, entry.second);
  return list;
}

using Entry = std::pair<std::string, uint32_t>;
std::vector<Entry> entries(const ZELBucketPermissions* list) {
  std::vector<Entry> out;
  for (const ZELBucketPermissionItem* item = list->head; item != nullptr; item = item->next) {
    out.emplace_back(item->auth_id != nullptr ? item->auth_id : "<none>", item->access);
  }
  return out;
}

bool starts_with(const std::string& text, const std::string& prefix) { return text.rfind(prefix, 0) == 0; }

TEST(RequestBodies, CreateBodyBytes) {
  // The operation serialises its clone of the caller's list: A before B.
  ZELBucketPermissions* caller = appended({{"A", ZEL_BUCKET_ACCESS_READ}, {"B", ZEL_BUCKET_ACCESS_FULL}});
  ZELBucketPermissions* copy = permissions_clone(caller);
  ZELCreateBucketOpt opt{};
  opt.key = u"bücket-✓";
  opt.policy = ZEL_BUCKET_POLICY_TEMPORARY;
  opt.permissions = copy;

  Body v1(create_bucket_tojson(&opt, 1));
  EXPECT_EQ(v1.str(),
            "{\"bucketKey\":\"bücket-✓\",\"policy\":\"temporary\",\"servicesAllowed\":"
            "[{\"serviceId\":\"A\",\"access\":\"read\"},{\"serviceId\":\"B\",\"access\":\"full\"}]}");

  opt.policy = 9;  // outside the table
  zel_permissions_append(copy, "C", 7);
  Body v2(create_bucket_tojson(&opt, 2));
  EXPECT_EQ(v2.str(),
            "{\"bucketKey\":\"bücket-✓\",\"policyKey\":\"undefined\",\"allow\":"
            "[{\"authId\":\"C\",\"access\":\"undefined\"},{\"authId\":\"A\",\"access\":\"read\"},"
            "{\"authId\":\"B\",\"access\":\"full\"}]}");

  opt.permissions = nullptr;
  opt.policy = ZEL_BUCKET_POLICY_PERSISTENT;
  EXPECT_EQ(Body(create_bucket_v1_tojson(&opt)).str(),
            "{\"bucketKey\":\"bücket-✓\",\"policy\":\"persistent\",\"servicesAllowed\":[]}");
  EXPECT_EQ(Body(create_bucket_v2_tojson(&opt)).str(),
            "{\"bucketKey\":\"bücket-✓\",\"policyKey\":\"persistent\",\"allow\":[]}");
  EXPECT_EQ(create_bucket_tojson(&opt, 3), nullptr);
  EXPECT_EQ(create_bucket_tojson(&opt, 0), nullptr);
  zel_permissions_cleanup(copy);
  zel_permissions_cleanup(caller);
}

TEST(RequestBodies, CreateFailuresAreLogged) {
  zeltest::CapturedLog log;
  ZELCreateBucketOpt opt{};
  opt.policy = ZEL_BUCKET_POLICY_TRANSIENT;
  EXPECT_EQ(create_bucket_v2_tojson(&opt), nullptr) << "no key";
  EXPECT_TRUE(starts_with(zeltest::CapturedLog::last(kTag), "Error create_bucket_v2_tojson: "))
      << zeltest::CapturedLog::last(kTag);

  opt.key = u"k";
  ZELBucketPermissions* list = appended({{"A", 0}, {nullptr, 1}});
  opt.permissions = list;
  log.clear();
  EXPECT_EQ(create_bucket_v1_tojson(&opt), nullptr) << "an entry without id cannot be sent";
  std::vector<std::string> messages = zeltest::CapturedLog::messages(kTag);
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_TRUE(starts_with(messages[0], "Error permission_list_v1_tojson: ")) << messages[0];

  log.clear();
  EXPECT_EQ(create_bucket_v2_tojson(&opt), nullptr);
  EXPECT_TRUE(starts_with(zeltest::CapturedLog::last(kTag), "Error permission_list_v2_tojson: "));

  opt.key = u"bad\xD800";  // a lone surrogate has no UTF-8 form
  opt.permissions = nullptr;
  log.clear();
  EXPECT_EQ(create_bucket_v1_tojson(&opt), nullptr);
  EXPECT_TRUE(starts_with(zeltest::CapturedLog::last(kTag), "Error create_bucket_v1_tojson: "));
  zel_permissions_cleanup(list);
}

TEST(RequestBodies, GrantAndRevokeBodies) {
  ZELBucketPermissions* caller = appended({{"A", ZEL_BUCKET_ACCESS_FULL}, {"B", ZEL_BUCKET_ACCESS_READ}});
  ZELBucketPermissions* list = permissions_clone(caller);
  ZELGrantBucketAccessOpt grant{};
  grant.permissions = list;
  EXPECT_EQ(Body(grant_bucket_access_tojson(&grant, 1)).str(),
            "{\"servicesAllowed\":[{\"serviceId\":\"A\",\"access\":\"full\"},"
            "{\"serviceId\":\"B\",\"access\":\"read\"}]}");
  EXPECT_EQ(Body(grant_bucket_access_tojson(&grant, 2)).str(),
            "{\"allow\":[{\"authId\":\"A\",\"access\":\"full\"},{\"authId\":\"B\",\"access\":\"read\"}]}");
  ZELRevokeBucketAccessOpt revoke{};
  revoke.permissions = list;
  EXPECT_EQ(Body(revoke_bucket_access_tojson(&revoke, 1)).str(),
            "{\"servicesAllowed\":[{\"serviceId\":\"A\"},{\"serviceId\":\"B\"}]}");
  EXPECT_EQ(Body(revoke_bucket_access_tojson(&revoke, 2)).str(),
            "{\"revoke\":[{\"authId\":\"A\"},{\"authId\":\"B\"}]}");

  grant.permissions = nullptr;
  revoke.permissions = nullptr;
  EXPECT_EQ(Body(grant_bucket_access_v2_tojson(&grant)).str(), "{\"allow\":[]}");
  EXPECT_EQ(Body(revoke_bucket_access_v1_tojson(&revoke)).str(), "{\"servicesAllowed\":[]}");
  EXPECT_EQ(grant_bucket_access_tojson(&grant, 7), nullptr);
  EXPECT_EQ(revoke_bucket_access_tojson(&revoke, 7), nullptr);

  zeltest::CapturedLog log;
  ZELBucketPermissions* without_id = appended({{nullptr, 0}});
  revoke.permissions = without_id;
  grant.permissions = without_id;
  EXPECT_EQ(revoke_bucket_access_v2_tojson(&revoke), nullptr);
  EXPECT_TRUE(starts_with(zeltest::CapturedLog::last(kTag), "Error revoke_bucket_access_v2_tojson: "));
  EXPECT_EQ(grant_bucket_access_v1_tojson(&grant), nullptr);
  EXPECT_TRUE(starts_with(zeltest::CapturedLog::last(kTag), "Error permission_list_v1_tojson: "));
  zel_permissions_cleanup(without_id);
  zel_permissions_cleanup(list);
  zel_permissions_cleanup(caller);
}

TEST(BucketDetails, BothVersionsReadTheSameRecord) {
  const char* v1 =
      "{\"key\":\"b\xC3\xBC\",\"owner\":\"me\",\"createDate\":1700000000123,\"permissions\":"
      "[{\"serviceId\":\"A\",\"access\":\"read\"},{\"serviceId\":\"B\",\"access\":\"full\"}],"
      "\"policyKey\":\"persistent\"}";
  const char* v2 =
      "{\"bucketKey\":\"b\xC3\xBC\",\"bucketOwner\":\"me\",\"createdDate\":1700000000123,\"permissions\":"
      "[{\"authId\":\"A\",\"access\":\"read\"},{\"authId\":\"B\",\"access\":\"full\"}],"
      "\"policyKey\":\"persistent\",\"region\":\"eu\"}";  // a further key is accepted in version 2
  for (auto [text, version] : {std::pair{v1, 1u}, std::pair{v2, 2u}}) {
    ZELBucketDetails* details = zel_bucket_details_init();
    ASSERT_EQ(bucket_details_fromjson(text, details, version), 0) << text;
    EXPECT_EQ(std::u16string(details->bucket_key), u"bü");
    EXPECT_STREQ(details->bucket_owner, "me");
    EXPECT_EQ(details->created_date, 1700000000123);
    EXPECT_EQ(details->policy, ZEL_BUCKET_POLICY_PERSISTENT);
    ASSERT_NE(details->permissions, nullptr);
    EXPECT_EQ(details->permissions->count, 2u);
    EXPECT_EQ(entries(details->permissions), (std::vector<Entry>{{"B", 1}, {"A", 0}}));
    zel_bucket_details_cleanup(details);
  }
  ZELBucketDetails* details = zel_bucket_details_init();
  EXPECT_EQ(bucket_details_fromjson(v1, details, 3), -1);
  EXPECT_EQ(details->bucket_key, nullptr);
  zel_bucket_details_cleanup(details);
}

TEST(BucketDetails, StrictnessDuplicatesAndUnknownNames) {
  zeltest::CapturedLog log;
  ZELBucketDetails* details = zel_bucket_details_init();
  const char* extra =
      "{\"key\":\"b\",\"owner\":\"o\",\"createDate\":1,\"permissions\":[],\"policyKey\":\"transient\",\"x\":"
      "1}";
  EXPECT_LT(bucket_details_v1_fromjson(extra, details), 0);
  EXPECT_TRUE(starts_with(zeltest::CapturedLog::last(kTag), "Cannot parse bucket details from json: "));
  EXPECT_EQ(details->bucket_key, nullptr) << "no field is set when the unpack fails";

  const char* duplicate =
      "{\"key\":\"b\",\"key\":\"c\",\"owner\":\"o\",\"createDate\":1,\"permissions\":[],"
      "\"policyKey\":\"transient\"}";
  EXPECT_EQ(bucket_details_v1_fromjson(duplicate, details), -1);
  EXPECT_TRUE(starts_with(zeltest::CapturedLog::last(kTag), "Error bucket_details_v1_fromjson: "));
  EXPECT_EQ(bucket_details_v2_fromjson("not json", details), -1);
  EXPECT_TRUE(starts_with(zeltest::CapturedLog::last(kTag), "Error bucket_details_v2_fromjson: "));

  const char* odd_names =
      "{\"bucketKey\":\"b\",\"bucketOwner\":\"o\",\"createdDate\":-4,\"permissions\":"
      "[{\"authId\":\"A\",\"access\":\"Full\"}],\"policyKey\":\"Temporary\"}";
  ASSERT_EQ(bucket_details_v2_fromjson(odd_names, details), 0);
  EXPECT_EQ(details->policy, ZEL_BUCKET_POLICY_UNDEFINED);  // names compare case-sensitively
  EXPECT_EQ(details->created_date, -4);
  ASSERT_NE(details->permissions->head, nullptr);
  EXPECT_EQ(details->permissions->head->access, ZEL_BUCKET_ACCESS_UNDEFINED);
  EXPECT_STREQ(zel_bucket_access_tostr(details->permissions->head->access), "undefined");
  zel_bucket_details_cleanup(details);

  const char* names[] = {"transient", "temporary", "persistent", "read", "full", nullptr};
  const uint32_t policies[] = {0, 1, 2, 255, 255, 255}, accesses[] = {255, 255, 255, 0, 1, 255};
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(bucket_policy_fromstr(names[i]), policies[i]) << i;
    EXPECT_EQ(bucket_access_fromstr(names[i]), accesses[i]) << i;
  }
}

TEST(BucketDetails, IncompletePermissionEntryFailsAndDropsTheList) {
  zeltest::CapturedLog log;
  const char* v1 =
      "{\"key\":\"b\",\"owner\":\"o\",\"createDate\":1,\"permissions\":"
      "[{\"serviceId\":\"A\",\"access\":\"read\"},{\"serviceId\":\"B\"}],\"policyKey\":\"transient\"}";
  ZELBucketDetails* details = zel_bucket_details_init();
  EXPECT_EQ(bucket_details_v1_fromjson(v1, details), -1);
  EXPECT_EQ(details->permissions, nullptr) << "a half-read list must not reach the caller";
  std::vector<std::string> messages = zeltest::CapturedLog::messages(kTag);
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_TRUE(starts_with(messages[0], "Cannot parse permission from json: ")) << messages[0];
  EXPECT_EQ(messages[1], "Cannot parse permissions from json");
  zel_bucket_details_cleanup(details);

  log.clear();
  const char* v2 =
      "{\"bucketKey\":\"b\",\"bucketOwner\":\"o\",\"createdDate\":1,\"permissions\":"
      "[{\"authId\":5,\"access\":\"read\"}],\"policyKey\":\"transient\"}";
  details = zel_bucket_details_init();
  EXPECT_EQ(bucket_details_v2_fromjson(v2, details), -1) << "an id of the wrong type fails too";
  EXPECT_EQ(details->permissions, nullptr);
  EXPECT_EQ(zeltest::CapturedLog::messages(kTag).size(), 1u) << "version 2 adds no line of its own";
  zel_bucket_details_cleanup(details);

  log.clear();
  EXPECT_EQ(permission_list_v1_fromjson(nullptr, nullptr), -1);
  EXPECT_EQ(zeltest::CapturedLog::last(kTag), "Permissions instance is not initialized");
}

TEST(GrantAnswer, PermissionsInReverseOrderWithVersionMessages) {
  zeltest::CapturedLog log;
  ZELBucketPermissions* list = zel_permissions_init();
  ASSERT_EQ(
      bucket_permissions_fromjson(
          "{\"servicesAllowed\":[{\"serviceId\":\"A\",\"access\":\"read\"},"
          "{\"serviceId\":\"B\",\"access\":\"full\"},{\"serviceId\":\"C\",\"access\":\"none\",\"x\":0}]}",
          list, 1),
      0);
  EXPECT_EQ(list->count, 3u);
  EXPECT_EQ(entries(list), (std::vector<Entry>{{"C", 255}, {"B", 1}, {"A", 0}}));
  zel_permissions_cleanup(list);

  list = zel_permissions_init();
  ASSERT_EQ(
      bucket_permissions_v2_fromjson("{\"permissions\":[{\"authId\":\"Z\",\"access\":\"full\"}]}", list), 0);
  EXPECT_EQ(entries(list), (std::vector<Entry>{{"Z", 1}}));
  EXPECT_LT(bucket_permissions_v1_fromjson("{\"servicesAllowed\":[],\"more\":1}", list), 0);
  EXPECT_TRUE(starts_with(zeltest::CapturedLog::last(kTag), "Cannot parse bucket permissions form json: "));
  EXPECT_LT(bucket_permissions_v2_fromjson("{\"servicesAllowed\":[]}", list), 0);
  EXPECT_TRUE(starts_with(zeltest::CapturedLog::last(kTag), "Cannot parse bucket permissions from json: "));
  EXPECT_EQ(bucket_permissions_v1_fromjson("[", list), -1);
  EXPECT_TRUE(starts_with(zeltest::CapturedLog::last(kTag), "Error bucket_permissions_v1_fromjson: "));
  EXPECT_EQ(bucket_permissions_v2_fromjson("{\"permissions\":{}}", list), -1) << "not an array";
  EXPECT_EQ(bucket_permissions_fromjson("{\"permissions\":[]}", list, 0), -1);
  EXPECT_EQ(entries(list), (std::vector<Entry>{{"Z", 1}}));
  zel_permissions_cleanup(list);
}

TEST(Listing, ItemsReversedNextDefaultsAndVersionOneFails) {
  zeltest::CapturedLog log;
  const char* body =
      "{\"items\":[{\"bucketKey\":\"one\",\"createdDate\":1,\"policyKey\":\"transient\"},"
      "{\"bucketKey\":\"twö\",\"createdDate\":2,\"policyKey\":\"Mystery\",\"region\":\"x\"}],"
      "\"extra\":true}";
  ZELListBucketsDetails* page = list_buckets_details_init();
  EXPECT_EQ(list_buckets_fromjson(body, page, 2), 2);
  EXPECT_EQ(page->count, 2u);
  ASSERT_NE(page->next_page, nullptr) << "an absent next is an empty text, not a missing one";
  EXPECT_EQ(page->next_page[0], u'\0');
  ASSERT_NE(page->head, nullptr);
  EXPECT_EQ(std::u16string(page->head->bucket_key), u"twö");
  EXPECT_STREQ(page->head->policy_key, "Mystery");  // kept as sent
  EXPECT_EQ(page->head->created_date, 2);
  ASSERT_NE(page->head->next, nullptr);
  EXPECT_EQ(std::u16string(page->head->next->bucket_key), u"one");
  list_buckets_details_cleanup(page);

  page = list_buckets_details_init();
  EXPECT_EQ(list_buckets_v2_fromjson("{\"items\":[],\"next\":\"bucket-77\"}", page), 0);
  EXPECT_EQ(std::u16string(page->next_page), u"bucket-77");
  EXPECT_EQ(list_buckets_fromjson("{\"items\":[]}", page, 1), -1);
  EXPECT_LT(list_buckets_v2_fromjson("{\"next\":\"x\"}", page), 0);
  EXPECT_TRUE(starts_with(zeltest::CapturedLog::last(kTag), "Error parsing object details v2 json: "));
  EXPECT_EQ(list_buckets_v2_fromjson("{oops", page), -1);
  EXPECT_TRUE(starts_with(zeltest::CapturedLog::last(kTag), "json_loads({oops)\nerror.text: "))
      << zeltest::CapturedLog::last(kTag);
  EXPECT_EQ(list_buckets_v2_fromjson("{\"items\":[{\"bucketKey\":\"a\",\"policyKey\":\"t\"}]}", page), -1);
  EXPECT_TRUE(starts_with(zeltest::CapturedLog::last(kTag), "Cannot parse bucket list item from json: "));
  EXPECT_EQ(page->count, 0u);
  EXPECT_EQ(list_bucket_items_fromjson(page, nullptr), -1);
  EXPECT_EQ(zeltest::CapturedLog::last(kTag), "ListBucketItem instance is not initialized");
  list_buckets_details_cleanup(page);
}

TEST(ObjectDetails, VersionOneDescribesTheLastObject) {
  zeltest::CapturedLog log;
  const char* body =
      "{\"bucket-key\":\"bk\",\"objects\":["
      "{\"id\":\"first\",\"key\":\"a\",\"sha-1\":\"s1\",\"size\":1,\"content-type\":\"t1\",\"location\":"
      "\"l1\"},"
      "{\"key\":\"dir/é\",\"size\":18446744073709,\"content-type\":\"t2\",\"location\":\"l2\"}]}";
  ZELObjectDetails* details = zel_object_details_init();
  ASSERT_EQ(object_details_fromjson(body, details, 1), 0);
  EXPECT_EQ(std::u16string(details->bucket_key), u"bk");
  EXPECT_EQ(std::u16string(details->object_key), u"dir/é");
  // Optional texts are defaulted once, before the first object, so a later
  // object without them keeps the earlier object's values.
  EXPECT_STREQ(details->object_id, "first");
  EXPECT_STREQ(details->sha1, "s1");
  EXPECT_EQ(details->size, 18446744073709u);
  EXPECT_STREQ(details->content_type, "t2");
  EXPECT_STREQ(details->location, "l2");
  EXPECT_EQ(details->created_date, 0);
  zel_object_details_cleanup(details);

  details = zel_object_details_init();
  ASSERT_EQ(object_details_v1_fromjson("{\"bucket-key\":\"bk\",\"objects\":[{\"key\":\"k\",\"size\":0,"
                                       "\"content-type\":\"c\",\"location\":\"l\"}]}",
                                       details),
            0);
  EXPECT_STREQ(details->object_id, "");
  EXPECT_STREQ(details->sha1, "");
  zel_object_details_cleanup(details);

  details = zel_object_details_init();
  ASSERT_EQ(object_details_v1_fromjson("{\"bucket-key\":\"only\",\"objects\":[]}", details), 0);
  EXPECT_EQ(std::u16string(details->bucket_key), u"only");
  EXPECT_EQ(details->object_key, nullptr);
  EXPECT_LT(object_details_v1_fromjson("{\"bucket-key\":\"b\",\"objects\":[],\"more\":0}", details), 0);
  EXPECT_TRUE(starts_with(zeltest::CapturedLog::last(kTag), "Error parsing object details v1 json: "));
  EXPECT_LT(object_details_v1_fromjson("{\"bucket-key\":\"b\",\"objects\":[{\"key\":\"k\",\"size\":0,"
                                       "\"content-type\":\"c\",\"location\":\"l\",\"extra\":1}]}",
                                       details),
            0)
      << "objects are unpacked strictly as well";
  EXPECT_TRUE(starts_with(zeltest::CapturedLog::last(kTag), "Error parsing object details v1 json: "));
  EXPECT_EQ(object_details_v1_fromjson("", details), -1);
  EXPECT_TRUE(starts_with(zeltest::CapturedLog::last(kTag), "json_loads()\nerror.text: "));
  zel_object_details_cleanup(details);
}

TEST(ObjectDetails, VersionTwoOptionalKeysAndStrictTypes) {
  zeltest::CapturedLog log;
  ZELObjectDetails* details = zel_object_details_init();
  const char* minimal =
      "{\"bucketKey\":\"b\",\"objectKey\":\"k\",\"size\":42,\"contentType\":\"text/plain\"}";
  ASSERT_EQ(object_details_fromjson(minimal, details, 2), 0);
  EXPECT_STREQ(details->object_id, "");
  EXPECT_STREQ(details->sha1, "");
  EXPECT_STREQ(details->location, "");
  EXPECT_EQ(details->size, 42u);
  EXPECT_EQ(details->created_date, 0);
  EXPECT_EQ(details->last_accessed_date, 0);
  EXPECT_EQ(details->last_modified_date, 0);

  const char* full =
      "{\"bucketKey\":\"b2\",\"objectId\":\"id\",\"objectKey\":\"k2\",\"sha1\":\"abc\",\"size\":7,"
      "\"contentType\":\"c\",\"location\":\"https://x/y\",\"blockSizes\":[1,2],\"deltas\":null,"
      "\"createdDate\":10,\"lastAccessedDate\":11,\"lastModifiedDate\":12,\"future\":{}}";
  ASSERT_EQ(object_details_v2_fromjson(full, details), 0) << "replaces an earlier parse";
  EXPECT_EQ(std::u16string(details->bucket_key), u"b2");
  EXPECT_STREQ(details->object_id, "id");
  EXPECT_STREQ(details->sha1, "abc");
  EXPECT_STREQ(details->location, "https://x/y");
  EXPECT_EQ(details->created_date, 10);
  EXPECT_EQ(details->last_accessed_date, 11);
  EXPECT_EQ(details->last_modified_date, 12);

  EXPECT_LT(object_details_v2_fromjson("{\"bucketKey\":\"b\",\"objectKey\":\"k\",\"size\":\"7\","
                                       "\"contentType\":\"c\"}",
                                       details),
            0);
  EXPECT_TRUE(starts_with(zeltest::CapturedLog::last(kTag), "Error parsing object details v2 json: "));
  EXPECT_EQ(object_details_v2_fromjson("{\"bucketKey\":\"b\",\"bucketKey\":\"b\"}", details), -1);
  EXPECT_TRUE(starts_with(zeltest::CapturedLog::last(kTag), "json_loads("));
  EXPECT_EQ(object_details_fromjson(minimal, details, 5), -1);
  zel_object_details_cleanup(details);
}

TEST(ErrorReason, OnlyAnExactReasonBody) {
  zeltest::CapturedLog log;
  char* reason = reinterpret_cast<char*>(1);
  ASSERT_EQ(err_reason_fromjson("{\"reason\": \"Object not found\"}", &reason), 0);
  ASSERT_NE(reason, nullptr);
  EXPECT_STREQ(reason, "Object not found");
  mem_free(reason);

  EXPECT_LT(err_reason_fromjson("{\"reason\":\"x\",\"code\":4}", &reason), 0);
  EXPECT_EQ(reason, nullptr);
  EXPECT_TRUE(starts_with(zeltest::CapturedLog::last(kTag), "Error parsing json error.text: "));
  EXPECT_LT(err_reason_fromjson("{\"reason\":5}", &reason), 0);
  EXPECT_EQ(err_reason_fromjson("oops", &reason), -1);
  EXPECT_EQ(reason, nullptr);
  EXPECT_TRUE(starts_with(zeltest::CapturedLog::last(kTag), "Error err_reason_fromjson: "));
  EXPECT_EQ(err_reason_fromjson(nullptr, &reason), -1);
  EXPECT_EQ(err_reason_fromjson("{\"reason\":\"x\"}", nullptr), -1);
}

TEST(ParsedRecords, FailedCopiesAreReportedNotHalfDone) {
  zeltest::CapturedLog log;
  const char* body = "{\"bucketKey\":\"b\",\"objectKey\":\"k\",\"size\":1,\"contentType\":\"c\"}";
  // Every allocation of the parse may fail; each must end in -1 without a
  // leak, and the parse must succeed once nothing fails.
  // The records are made before the step's failure is armed.
  zeltest::walk_allocations(20, [&](long step) {
    mem_fail_at(0);
    ZELObjectDetails* details = zel_object_details_init();
    mem_fail_at(step);
    int result = object_details_v2_fromjson(body, details);
    zel_object_details_cleanup(details);
    if (result == 0) return true;
    EXPECT_EQ(result, -1);
    EXPECT_EQ(zeltest::CapturedLog::last(kTag), "Cannot allocate memory for ZELObjectDetails fields");
    return false;
  });
  const char* listing = "{\"items\":[{\"bucketKey\":\"a\",\"createdDate\":1,\"policyKey\":\"t\"}]}";
  zeltest::walk_allocations(20, [&](long step) {
    mem_fail_at(0);
    ZELListBucketsDetails* page = list_buckets_details_init();
    mem_fail_at(step);
    int result = list_buckets_v2_fromjson(listing, page);
    list_buckets_details_cleanup(page);
    if (result == 1) return true;
    EXPECT_EQ(result, -1);
    return false;
  });
  EXPECT_EQ(zeltest::CapturedLog::last(kTag), "Cannot append new permission to the list");
}

}  // namespace
