// Bucket records: permission list order through append and clone, ownership
// of the copied texts, the names of policy and access values, listing pages,
// and the allocation failures with their messages.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "alloc.h"
#include "alloc_walk.h"
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
  EXPECT_EQ(list->count, 0u);
  std::string x = "X";
  EXPECT_EQ(zel_permissions_append(list, x.c_str(), ZEL_BUCKET_ACCESS_READ), list);
  EXPECT_EQ(zel_permissions_append(list, "Y", ZEL_BUCKET_ACCESS_FULL), list);
  EXPECT_EQ(zel_permissions_append(list, "Z", 7), list);      // out of range is kept as given
  EXPECT_EQ(zel_permissions_append(list, nullptr, 1), list);  // an entry without id is kept too
  x = "changed";                                              // the list holds its own copy
  EXPECT_EQ(list->count, 4u);
  EXPECT_EQ(entries(list), (std::vector<Entry>{{"<none>", 1}, {"Z", 7}, {"Y", 1}, {"X", 0}}));

  ZELBucketPermissions* copy = permissions_clone(list);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->count, 4u);
  zel_permissions_cleanup(list);  // the copy owns its texts and survives the source
  EXPECT_EQ(entries(copy), (std::vector<Entry>{{"X", 0}, {"Y", 1}, {"Z", 7}, {"<none>", 1}}));
  zel_permissions_cleanup(copy);
  EXPECT_EQ(permissions_clone(nullptr), nullptr);
  zel_permissions_cleanup(nullptr);
  zel_bucket_details_cleanup(nullptr);

  long before = mem_allocation_count();
  EXPECT_EQ(zel_permissions_append(nullptr, "A", ZEL_BUCKET_ACCESS_READ), nullptr);
  EXPECT_EQ(mem_allocation_count(), before) << "appending to no list must allocate nothing";
}

// Every failed allocation of an append (item, id) leaves the list as it was;
// every failed allocation of a clone (list, then item and id per entry)
// leaves nothing and logs the clone's message.
TEST(Permissions, FailedAppendsAndClonesLeaveNothingBehind) {
  ZELBucketPermissions* list = zel_permissions_append(zel_permissions_init(), "A", ZEL_BUCKET_ACCESS_READ);
  ZELBucketPermissionItem* head = list->head;
  EXPECT_EQ(zeltest::walk_allocations(5,
                                      [&](long) {
                                        if (zel_permissions_append(list, "B", 1) != nullptr) return true;
                                        EXPECT_EQ(list->head, head);
                                        EXPECT_EQ(list->count, 1u);
                                        return false;
                                      }),
            3);
  EXPECT_EQ(zeltest::walk_failure_messages(kTag,
                                           [&] {
                                             ZELBucketPermissions* copy = permissions_clone(list);
                                             zel_permissions_cleanup(copy);
                                             return copy != nullptr;
                                           }),
            (std::vector<std::string>{"Cannot allocate memory for the cloned ZELBucketPermissions"}));
  zel_permissions_cleanup(list);
}

TEST(BucketDetails, InitGivesAnEmptyListAndLogsEachFailure) {
  ZELBucketDetails* details = zel_bucket_details_init();
  ASSERT_NE(details, nullptr);
  ASSERT_NE(details->permissions, nullptr);
  EXPECT_EQ(details->permissions->count, 0u);
  EXPECT_EQ(details->bucket_key, nullptr);
  EXPECT_EQ(details->created_date, 0);
  zel_permissions_append(details->permissions, "A", 0);
  zel_bucket_details_cleanup(details);

  EXPECT_EQ(zeltest::walk_failure_messages(kTag,
                                           [] {
                                             ZELBucketDetails* attempt = zel_bucket_details_init();
                                             zel_bucket_details_cleanup(attempt);
                                             return attempt != nullptr;
                                           }),
            (std::vector<std::string>{"Cannot allocate memory for ZELBucketDetails",
                                      "Cannot allocate memory for ZELBucketDetails.permissions"}));
  EXPECT_EQ(zeltest::walk_failure_messages(kTag,
                                           [] {
                                             ZELBucketPermissions* attempt = zel_permissions_init();
                                             zel_permissions_cleanup(attempt);
                                             return attempt != nullptr;
                                           }),
            (std::vector<std::string>{""}))
      << "permission list init logs nothing";
}

TEST(BucketNames, KnownValuesAndEverythingElseUndefined) {
  const std::pair<uint32_t, const char*> policies[] = {
      {ZEL_BUCKET_POLICY_TRANSIENT, "transient"},   {ZEL_BUCKET_POLICY_TEMPORARY, "temporary"},
      {ZEL_BUCKET_POLICY_PERSISTENT, "persistent"}, {3, "undefined"},
      {ZEL_BUCKET_POLICY_UNDEFINED, "undefined"},   {UINT32_MAX, "undefined"}};
  for (const auto& [value, name] : policies) EXPECT_STREQ(zel_bucket_policy_tostr(value), name) << value;
  const std::pair<uint32_t, const char*> accesses[] = {{ZEL_BUCKET_ACCESS_READ, "read"},
                                                       {ZEL_BUCKET_ACCESS_FULL, "full"},
                                                       {2, "undefined"},
                                                       {ZEL_BUCKET_ACCESS_UNDEFINED, "undefined"}};
  for (const auto& [value, name] : accesses) EXPECT_STREQ(zel_bucket_access_tostr(value), name) << value;
}

TEST(ListingPage, ItemsGoInFrontWithTheirOwnCopies) {
  ZELListBucketsDetails* page = list_buckets_details_init();
  ASSERT_NE(page, nullptr);
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

  // Item, key, policy name: each failure leaves the page as it was.
  EXPECT_EQ(zeltest::walk_allocations(5,
                                      [&](long) {
                                        if (list_buckets_details_append(page, u"third", 1, "transient"))
                                          return true;
                                        EXPECT_EQ(page->count, 2u);
                                        EXPECT_EQ(std::u16string(page->head->bucket_key), u"second");
                                        return false;
                                      }),
            4);
  EXPECT_EQ(list_buckets_details_append(nullptr, u"x", 0, "y"), nullptr);
  list_buckets_details_cleanup(page);
  list_buckets_details_cleanup(nullptr);
}

}  // namespace
