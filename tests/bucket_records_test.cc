// Bucket records: permission list order through append and clone, ownership
// of the copied texts, the names of policy and access values, listing pages,
// and the allocation failures with their messages.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "alloc.h"
#include "bucket.h"
#include "captured_log.h"

namespace {

const char* kTag = "src\\bucket";

using Entry = std::pair<std::string, uint32_t>;

std::vector<Entry> entries(const ZELBucketPermissions* list) {
  std::vector<Entry> out;
  for (const ZELBucketPermissionItem* item = list->head; item != nullptr; item = item->next) {
    out.emplace_back(item->auth_id != nullptr ? item->auth_id : "<none>", item->access);
  }
  return out;
}

TEST(Permissions, AppendGrowsAtTheFrontAndCloneRestoresTheOrder) {
  ZELBucketPermissions* list = zel_permissions_init();
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->head, nullptr);
  EXPECT_EQ(list->count, 0u);
  std::string x = "X";
  EXPECT_EQ(zel_permissions_append(list, x.c_str(), ZEL_BUCKET_ACCESS_READ), list);
  EXPECT_EQ(zel_permissions_append(list, "Y", ZEL_BUCKET_ACCESS_FULL), list);
  EXPECT_EQ(zel_permissions_append(list, "Z", 7), list);  // out of range is kept as given
  x = "changed";                                          // the list holds its own copy
  EXPECT_EQ(list->count, 3u);
  EXPECT_EQ(entries(list), (std::vector<Entry>{{"Z", 7}, {"Y", 1}, {"X", 0}}));

  ZELBucketPermissions* copy = permissions_clone(list);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->count, 3u);
  EXPECT_EQ(entries(copy), (std::vector<Entry>{{"X", 0}, {"Y", 1}, {"Z", 7}}));
  EXPECT_NE(copy->head->auth_id, list->head->next->next->auth_id);  // texts duplicated
  zel_permissions_cleanup(list);
  EXPECT_EQ(entries(copy), (std::vector<Entry>{{"X", 0}, {"Y", 1}, {"Z", 7}}));  // survives the source
  zel_permissions_cleanup(copy);
  EXPECT_EQ(permissions_clone(nullptr), nullptr);
}

TEST(Permissions, EntryWithoutIdAndNoListCases) {
  long before = mem_allocation_count();
  EXPECT_EQ(zel_permissions_append(nullptr, "A", ZEL_BUCKET_ACCESS_READ), nullptr);
  EXPECT_EQ(mem_allocation_count(), before) << "appending to no list must allocate nothing";

  ZELBucketPermissions* list = zel_permissions_init();
  ASSERT_EQ(zel_permissions_append(list, nullptr, ZEL_BUCKET_ACCESS_FULL), list);
  ASSERT_NE(list->head, nullptr);
  EXPECT_EQ(list->head->auth_id, nullptr);
  ZELBucketPermissions* copy = permissions_clone(list);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->head->auth_id, nullptr);
  EXPECT_EQ(copy->head->access, ZEL_BUCKET_ACCESS_FULL);
  zel_permissions_cleanup(copy);
  zel_permissions_cleanup(list);
  zel_permissions_cleanup(nullptr);
  zel_bucket_details_cleanup(nullptr);
}

TEST(Permissions, FailedAppendLeavesTheListUnchanged) {
  ZELBucketPermissions* list = zel_permissions_append(zel_permissions_init(), "A", ZEL_BUCKET_ACCESS_READ);
  ZELBucketPermissionItem* head = list->head;
  for (long step : {1L, 2L}) {  // the item, then its id
    mem_fail_at(step);
    EXPECT_EQ(zel_permissions_append(list, "B", ZEL_BUCKET_ACCESS_FULL), nullptr) << "step " << step;
    EXPECT_EQ(list->head, head);
    EXPECT_EQ(list->count, 1u);
  }
  mem_fail_at(0);
  zel_permissions_cleanup(list);
}

TEST(Permissions, CloneFailuresLogAndLeaveNothing) {
  zeltest::CapturedLog log;
  ZELBucketPermissions* list = zel_permissions_init();
  zel_permissions_append(list, "A", 0);
  zel_permissions_append(list, "B", 1);
  for (long step = 1; step <= 5; ++step) {  // list, then item and id per entry
    log.clear();
    mem_fail_at(step);
    EXPECT_EQ(permissions_clone(list), nullptr) << "step " << step;
    mem_fail_at(0);
    EXPECT_EQ(zeltest::CapturedLog::last(kTag), "Cannot allocate memory for the cloned ZELBucketPermissions");
  }
  zel_permissions_cleanup(list);
}

TEST(BucketDetails, InitGivesAnEmptyListAndLogsEachFailure) {
  ZELBucketDetails* details = zel_bucket_details_init();
  ASSERT_NE(details, nullptr);
  ASSERT_NE(details->permissions, nullptr);
  EXPECT_EQ(details->permissions->count, 0u);
  EXPECT_EQ(details->bucket_key, nullptr);
  EXPECT_EQ(details->bucket_owner, nullptr);
  EXPECT_EQ(details->created_date, 0);
  zel_permissions_append(details->permissions, "A", 0);
  zel_bucket_details_cleanup(details);

  zeltest::CapturedLog log;
  mem_fail_at(1);
  EXPECT_EQ(zel_bucket_details_init(), nullptr);
  EXPECT_EQ(zeltest::CapturedLog::last(kTag), "Cannot allocate memory for ZELBucketDetails");
  mem_fail_at(2);
  EXPECT_EQ(zel_bucket_details_init(), nullptr);
  EXPECT_EQ(zeltest::CapturedLog::last(kTag), "Cannot allocate memory for ZELBucketDetails.permissions");
  mem_fail_at(1);
  EXPECT_EQ(zel_permissions_init(), nullptr);
  EXPECT_EQ(zeltest::CapturedLog::messages(kTag).size(), 2u) << "permission list init logs nothing";
  mem_fail_at(0);
}

TEST(BucketNames, KnownValuesAndEverythingElseUndefined) {
  EXPECT_STREQ(zel_bucket_policy_tostr(ZEL_BUCKET_POLICY_TRANSIENT), "transient");
  EXPECT_STREQ(zel_bucket_policy_tostr(ZEL_BUCKET_POLICY_TEMPORARY), "temporary");
  EXPECT_STREQ(zel_bucket_policy_tostr(ZEL_BUCKET_POLICY_PERSISTENT), "persistent");
  EXPECT_STREQ(zel_bucket_policy_tostr(3), "undefined");
  EXPECT_STREQ(zel_bucket_policy_tostr(ZEL_BUCKET_POLICY_UNDEFINED), "undefined");
  EXPECT_STREQ(zel_bucket_policy_tostr(UINT32_MAX), "undefined");
  EXPECT_STREQ(zel_bucket_access_tostr(ZEL_BUCKET_ACCESS_READ), "read");
  EXPECT_STREQ(zel_bucket_access_tostr(ZEL_BUCKET_ACCESS_FULL), "full");
  EXPECT_STREQ(zel_bucket_access_tostr(2), "undefined");
  EXPECT_STREQ(zel_bucket_access_tostr(ZEL_BUCKET_ACCESS_UNDEFINED), "undefined");
}

TEST(ListingPage, ItemsGoInFrontWithTheirOwnCopies) {
  ZELListBucketsDetails* page = list_buckets_details_init();
  ASSERT_NE(page, nullptr);
  EXPECT_EQ(page->head, nullptr);
  EXPECT_EQ(page->next_page, nullptr);
  EXPECT_EQ(page->count, 0u);
  std::u16string first = u"first";
  std::string policy = "temporary";
  EXPECT_EQ(list_buckets_details_append(page, first.c_str(), 10, policy.c_str()), page);
  EXPECT_EQ(list_buckets_details_append(page, u"second", -5, nullptr), page);
  first[0] = u'X';
  policy[0] = 'X';
  ASSERT_EQ(page->count, 2u);
  EXPECT_EQ(std::u16string(page->head->bucket_key), u"second");
  EXPECT_EQ(page->head->created_date, -5);
  EXPECT_EQ(page->head->policy_key, nullptr);
  const ZELListBucketItem* older = page->head->next;
  ASSERT_NE(older, nullptr);
  EXPECT_EQ(std::u16string(older->bucket_key), u"first");
  EXPECT_STREQ(older->policy_key, "temporary");
  EXPECT_EQ(older->next, nullptr);

  for (long step : {1L, 2L, 3L}) {  // item, key, policy name
    mem_fail_at(step);
    EXPECT_EQ(list_buckets_details_append(page, u"third", 1, "transient"), nullptr) << "step " << step;
    EXPECT_EQ(page->count, 2u);
    EXPECT_EQ(std::u16string(page->head->bucket_key), u"second");
  }
  mem_fail_at(0);
  EXPECT_EQ(list_buckets_details_append(nullptr, u"x", 0, "y"), nullptr);
  list_buckets_details_cleanup(page);
  list_buckets_details_cleanup(nullptr);
}

}  // namespace
