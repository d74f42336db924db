// The service's JSON bodies: exact request bytes, strictness of each response format, optional keys and their
// defaults, list orders, name tables, version dispatch and allocation failures.
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
#include "util.h"

namespace {

// A built body as text, freed.
std::string body(char* text) {
  std::string out = text != nullptr ? text : "<none>";
  mem_free(text);
  return out;
}

ZELBucketPermissions* appended(const std::vector<std::pair<const char*, uint32_t>>& entries) {
  ZELBucketPermissions* list = zel_permissions_init();
  for (const auto& entry : entries) zel_permissions_append(list, entry.first, entry.second);
  return list;
}

std::string text_of(const char* text) { return text != nullptr ? text : "<none>"; }
std::string text_of(const char16_t* wide) { return body(wide_to_utf8(wide)); }

// A permission list as "id:access,..." from its head.
std::string listed(const ZELBucketPermissions* list) {
  std::string out;
  for (const ZELBucketPermissionItem* item = list->head; item != nullptr; item = item->next)
    out += text_of(item->auth_id) + ":" + std::to_string(item->access) + ",";
  return out;
}

// The grant and revoke bodies share the permission list writer; their keys
// per version are checked end to end against the emulator, which refuses
// any other.
TEST(RequestBodies, ExactBytesPerVersionAndLoggedFailures) {
  // The operation serialises its clone of the caller's list: A before B.
  ZELBucketPermissions* caller = appended({{"A", ZEL_BUCKET_ACCESS_READ}, {"B", ZEL_BUCKET_ACCESS_FULL}});
  ZELBucketPermissions* list = permissions_clone(caller);
  // The first values past each name table have no name.
  ZELBucketPermissions* odd = appended({{"A", 0}, {"C", 2}});
  ZELCreateBucketOpt create{u"bücket-✓", ZEL_BUCKET_POLICY_TEMPORARY, list, nullptr, nullptr, nullptr},
      odd_create{u"k", 3, odd, nullptr, nullptr, nullptr};
  ZELGrantBucketAccessOpt grant{nullptr, list, nullptr, nullptr, nullptr};
  ZELRevokeBucketAccessOpt revoke{nullptr, list, nullptr, nullptr, nullptr};
  const std::pair<std::string, const char*> cases[] = {
      {body(create_bucket_tojson(&create, 1)),
       R"({"bucketKey":"bücket-✓","policy":"temporary","servicesAllowed":)"
       R"([{"serviceId":"A","access":"read"},{"serviceId":"B","access":"full"}]})"},
      {body(create_bucket_tojson(&odd_create, 2)),
       R"({"bucketKey":"k","policyKey":"undefined","allow":)"
       R"([{"authId":"C","access":"undefined"},{"authId":"A","access":"read"}]})"},
      {body(create_bucket_tojson(&create, 3)), "<none>"},
      {body(grant_bucket_access_tojson(&grant, 7)), "<none>"},
      {body(revoke_bucket_access_tojson(&revoke, 0)), "<none>"},
  };
  for (const auto& [got, expected] : cases) EXPECT_EQ(got, expected);

  // A key or id that cannot be written refuses the whole body.
  zeltest::CapturedLog log;
  ZELBucketPermissions* without_id = appended({{"A", 0}, {nullptr, 1}});
  ZELCreateBucketOpt no_key{nullptr, 0, nullptr, nullptr, nullptr, nullptr},
      bad_key{u"bad\xD800", 0, nullptr, nullptr, nullptr, nullptr},
      no_id{u"k", 0, without_id, nullptr, nullptr, nullptr};
  ZELGrantBucketAccessOpt grant_no_id{nullptr, without_id, nullptr, nullptr, nullptr};
  ZELRevokeBucketAccessOpt revoke_no_id{nullptr, without_id, nullptr, nullptr, nullptr};
  for (char* refused :
       {create_bucket_v2_tojson(&no_key), create_bucket_v1_tojson(&no_id), create_bucket_v2_tojson(&no_id),
        create_bucket_v1_tojson(&bad_key), revoke_bucket_access_v2_tojson(&revoke_no_id),
        grant_bucket_access_v1_tojson(&grant_no_id)})
    EXPECT_EQ(body(refused), "<none>");
  for (ZELBucketPermissions* l : {caller, list, odd, without_id}) zel_permissions_cleanup(l);
}

ZELBucketDetails* init(ZELBucketDetails*) { return zel_bucket_details_init(); }
ZELBucketPermissions* init(ZELBucketPermissions*) { return zel_permissions_init(); }
ZELListBucketsDetails* init(ZELListBucketsDetails*) { return list_buckets_details_init(); }
ZELObjectDetails* init(ZELObjectDetails*) { return zel_object_details_init(); }
void done(ZELBucketDetails* record) { zel_bucket_details_cleanup(record); }
void done(ZELBucketPermissions* record) { zel_permissions_cleanup(record); }
void done(ZELListBucketsDetails* record) { list_buckets_details_cleanup(record); }
void done(ZELObjectDetails* record) { zel_object_details_cleanup(record); }

// Parses into a fresh record, its `fail_at`th allocation failing (0: none),
// then frees the record; the parser's result.
template <class Record, int (*Parse)(const char*, Record*)>
int parsed(const char* text, long fail_at = 0) {
  mem_fail_at(0);
  Record* record = init(static_cast<Record*>(nullptr));
  mem_fail_at(fail_at);
  int result = Parse(text, record);
  mem_fail_at(0);
  done(record);
  return result;
}
constexpr auto kBucketV1 = parsed<ZELBucketDetails, bucket_details_v1_fromjson>;
constexpr auto kBucketV2 = parsed<ZELBucketDetails, bucket_details_v2_fromjson>;
constexpr auto kGrantV1 = parsed<ZELBucketPermissions, bucket_permissions_v1_fromjson>;
constexpr auto kGrantV2 = parsed<ZELBucketPermissions, bucket_permissions_v2_fromjson>;
constexpr auto kListing = parsed<ZELListBucketsDetails, list_buckets_v2_fromjson>;
constexpr auto kObjectV1 = parsed<ZELObjectDetails, object_details_v1_fromjson>;
constexpr auto kObjectV2 = parsed<ZELObjectDetails, object_details_v2_fromjson>;

// A refused reason leaves no text behind.
int reason(const char* text, long) {
  char* out = reinterpret_cast<char*>(1);
  int result = err_reason_fromjson(text, &out);
  return out == nullptr ? result : -99;
}

// Strict formats: unknown keys, duplicate keys, wrong types, missing keys
// and broken text are refused by every parser.
TEST(Answers, MalformedOrUnexpectedBodiesAreRefused) {
  const std::pair<int (*)(const char*, long), const char*> cases[] = {
      {kBucketV1, R"({"key":"b","owner":"o","createDate":1,"permissions":[],"policyKey":"t","x":1})"},
      {kBucketV1, R"({"key":"b","key":"c","owner":"o","createDate":1,"permissions":[],"policyKey":"t"})"},
      {kGrantV1, R"({"servicesAllowed":[],"more":1})"},
      {kGrantV2, R"({"servicesAllowed":[]})"},
      {kGrantV2, R"({"permissions":{}})"},
      {kListing, R"({"next":"x"})"},
      {kListing, "{oops"},
      {kListing, R"({"items":[{"bucketKey":"a","policyKey":"t"}]})"},
      {kObjectV1, R"({"bucket-key":"b","objects":[],"more":0})"},
      {kObjectV1,
       R"({"bucket-key":"b","objects":[{"key":"k","size":0,"content-type":"c","location":"l","x":1}]})"},
      {kObjectV1, ""},
      {kObjectV2, R"({"bucketKey":"b","objectKey":"k","size":"7","contentType":"c"})"},
      {kObjectV2, R"({"bucketKey":"b","bucketKey":"b"})"},
      {reason, R"({"reason":"x","code":4})"},
      {reason, "oops"},
  };
  zeltest::CapturedLog log;
  for (const auto& [parse, text] : cases) EXPECT_EQ(parse(text, 0), -1) << text;
  EXPECT_EQ(err_reason_fromjson(nullptr, nullptr), -1);
}

// Both versions read the same record; a further key is accepted in version
// 2; names compare case-sensitively.
TEST(BucketDetails, VersionsReadTheSameRecordAndNamesAreExact) {
  const char* v1 = R"({"key":"bü","owner":"me","createDate":1700000000123,"permissions":)"
                   R"([{"serviceId":"A","access":"read"},{"serviceId":"B","access":"full"}],)"
                   R"("policyKey":"persistent"})";
  struct Case {
    uint32_t version;
    const char* text;
    const char* shown;  // key|owner|created|policy|permissions, or the failed result
  } cases[] = {
      {1, v1, "bü|me|1700000000123|2|B:1,A:0,"},
      {2,
       R"({"bucketKey":"bü","bucketOwner":"me","createdDate":1700000000123,"permissions":)"
       R"([{"authId":"A","access":"read"},{"authId":"B","access":"full"}],"policyKey":"temporary","x":0})",
       "bü|me|1700000000123|1|B:1,A:0,"},
      {2,
       R"({"bucketKey":"b","bucketOwner":"o","createdDate":-4,"permissions":)"
       R"([{"authId":"A","access":"Full"}],"policyKey":"Temporary"})",
       "b|o|-4|255|A:255,"},
      {3, v1, "-1|<none>|"},
      // A half-read permission list must not reach the caller.
      {1,
       R"({"key":"b","owner":"o","createDate":1,"permissions":)"
       R"([{"serviceId":"A","access":"read"},{"serviceId":"B"}],"policyKey":"transient"})",
       "-1|b|"},
      {2,
       R"({"bucketKey":"b","bucketOwner":"o","createdDate":1,"permissions":)"
       R"([{"authId":5,"access":"read"}],"policyKey":"transient"})",
       "-1|b|"},
  };
  zeltest::CapturedLog log;
  for (const Case& c : cases) {
    ZELBucketDetails* d = zel_bucket_details_init();
    int result = bucket_details_fromjson(c.text, d, c.version);
    EXPECT_EQ(result != 0
                  ? std::to_string(result) + "|" + text_of(d->bucket_key) + "|" +
                        (d->permissions != nullptr ? listed(d->permissions) : "")
                  : text_of(d->bucket_key) + "|" + d->bucket_owner + "|" + std::to_string(d->created_date) +
                        "|" + std::to_string(d->policy) + "|" + listed(d->permissions),
              c.shown);
    zel_bucket_details_cleanup(d);
  }
}

// Lists are read in reverse; unknown keys inside entries and after them are
// passed over; an absent next page is an empty text.
TEST(OtherAnswers, GrantAndListing) {
  ZELBucketPermissions* list = zel_permissions_init();
  ASSERT_EQ(bucket_permissions_fromjson(R"({"servicesAllowed":[{"serviceId":"A","access":"read"},)"
                                        R"({"serviceId":"C","access":"none","x":0}]})",
                                        list, 1),
            0);
  ASSERT_EQ(bucket_permissions_fromjson(R"({"permissions":[{"authId":"Z","access":"full"}]})", list, 2), 0);
  EXPECT_EQ(listed(list), "Z:1,C:255,A:0,");
  EXPECT_EQ(bucket_permissions_fromjson(R"({"permissions":[]})", list, 0), -1);
  zel_permissions_cleanup(list);

  zeltest::CapturedLog log;
  ZELListBucketsDetails* page = list_buckets_details_init();
  EXPECT_EQ(
      list_buckets_fromjson(R"({"items":[{"bucketKey":"one","createdDate":1,"policyKey":"t"},)"
                            R"({"bucketKey":"twö","createdDate":2,"policyKey":"Mystery","region":"x"}],)"
                            R"("extra":true})",
                            page, 2),
      2);
  EXPECT_EQ(text_of(page->next_page) + "|" + text_of(page->head->bucket_key) + "|" + page->head->policy_key +
                "|" + std::to_string(page->head->created_date),
            "|twö|Mystery|2");  // the policy name kept as sent
  EXPECT_EQ(list_buckets_fromjson(R"({"items":[]})", page, 1), -1);
  list_buckets_details_cleanup(page);
}

// Version 1 describes the last object; its optional texts are defaulted
// once, before the first object, so a later object without them keeps the
// earlier object's values. Each parse replaces the record's earlier values.
TEST(ObjectDetails, BothVersionsWithTheirDefaults) {
  const char* minimal = R"({"bucketKey":"b","objectKey":"k","size":42,"contentType":"text/plain"})";
  struct Case {
    uint32_t version;
    const char* text;
    const char* shown;  // keys|id|sha1|size|type|location|dates, or the failed result
  } cases[] = {
      {1,
       R"({"bucket-key":"bk","objects":[{"id":"first","key":"a","sha-1":"s1","size":1,"content-type":"t1",)"
       R"("location":"l1"},{"key":"dir/é","size":18446744073709,"content-type":"t2","location":"l2"}]})",
       "bk|dir/é|first|s1|18446744073709|t2|l2|0,0,0"},
      {2,
       R"({"bucketKey":"b2","objectId":"id","objectKey":"k2","sha1":"abc","size":7,"contentType":"c",)"
       R"("location":"https://x/y","blockSizes":[1,2],"deltas":null,"createdDate":10,)"
       R"("lastAccessedDate":11,"lastModifiedDate":12,"future":{}})",
       "b2|k2|id|abc|7|c|https://x/y|10,11,12"},
      {2, minimal, "b|k|||42|text/plain||0,0,0"},
      {5, minimal, "-1"},
  };
  ZELObjectDetails* d = zel_object_details_init();
  for (const Case& c : cases) {
    int result = object_details_fromjson(c.text, d, c.version);
    EXPECT_EQ(result != 0
                  ? std::to_string(result)
                  : text_of(d->bucket_key) + "|" + text_of(d->object_key) + "|" + d->object_id + "|" +
                        d->sha1 + "|" + std::to_string(d->size) + "|" + d->content_type + "|" + d->location +
                        "|" + std::to_string(d->created_date) + "," + std::to_string(d->last_accessed_date) +
                        "," + std::to_string(d->last_modified_date),
              c.shown);
  }
  zel_object_details_cleanup(d);
}

// Every allocation of a parse may fail; each must end in -1 without a leak,
// and the parse must succeed once nothing fails.
TEST(ParsedRecords, FailedCopiesAreReportedNotHalfDone) {
  const std::pair<int (*)(const char*, long), const char*> cases[] = {
      {kObjectV2, R"({"bucketKey":"b","objectKey":"k","size":1,"contentType":"c"})"},
      {kListing, R"({"items":[{"bucketKey":"a","createdDate":1,"policyKey":"t"}]})"}};
  zeltest::CapturedLog log;
  for (const auto& [parse, text] : cases) {
    const int ok = parse == kListing ? 1 : 0;
    EXPECT_GT(zeltest::walk_allocations(100,
                                        [&](long step) {
                                          int result = parse(text, step);
                                          EXPECT_TRUE(result == ok || result == -1) << result;
                                          return result == ok;
                                        }),
              1);
  }
}

}  // namespace
