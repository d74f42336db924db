// Bucket records: permission list and listing page order through append and
// clone, ownership of the copied texts, value names, and the allocation
// failures with their messages.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "alloc.h"
#include "alloc_walk.h"
#include "bucket.h"

namespace {

using Entry = std::pair<std::string, uint32_t>;

std::vector<Entry> entries(const ZELBucketPermissions* list) {
  std::vector<Entry> out;
  for (const ZELBucketPermissionItem* item = list->head; item != nullptr; item = item->next)
    out.emplace_back(item->auth_id != nullptr ? item->auth_id : "<none>", item->access);
  return out;
}

// Entries go in front, out-of-range values and missing ids are kept, texts
// are copied; a clone restores the order. A failed append leaves the list
// as it was, a failed clone leaves nothing and logs its message.
TEST(Permissions, AppendCloneAndTheirFailures) {
  ZELBucketPermissions* list = zel_permissions_init();
  std::string x = "X";
  EXPECT_EQ(zel_permissions_append(list, x.c_str(), ZEL_BUCKET_ACCESS_READ), list);
  zel_permissions_append(list, "Y", ZEL_BUCKET_ACCESS_FULL);
  zel_permissions_append(list, "Z", 7);
  zel_permissions_append(list, nullptr, 1);
  x = "changed";
  EXPECT_EQ(list->count, 4u);
  EXPECT_EQ(entries(list), (std::vector<Entry>{{"<none>", 1}, {"Z", 7}, {"Y", 1}, {"X", 0}}));
  ZELBucketPermissions* copy = permissions_clone(list);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->count, 4u);
  zel_permissions_cleanup(list);
  EXPECT_EQ(entries(copy), (std::vector<Entry>{{"X", 0}, {"Y", 1}, {"Z", 7}, {"<none>", 1}}));

  ZELBucketPermissionItem* head = copy->head;
  EXPECT_EQ(zeltest::walk_allocations(5,
                                      [&](long) {
                                        if (zel_permissions_append(copy, "B", 1) != nullptr) return true;
                                        EXPECT_EQ(copy->head, head);
                                        EXPECT_EQ(copy->count, 4u);
                                        return false;
                                      }),
            3);
  EXPECT_EQ(zeltest::walk_failure_messages("src\\bucket",
                                           [&] {
                                             ZELBucketPermissions* attempt = permissions_clone(copy);
                                             zel_permissions_cleanup(attempt);
                                             return attempt != nullptr;
                                           }),
            (std::vector<std::string>{"Cannot allocate memory for the cloned ZELBucketPermissions"}));
  zel_permissions_cleanup(copy);
  long before = mem_allocation_count();
  EXPECT_EQ(zel_permissions_append(nullptr, "A", ZEL_BUCKET_ACCESS_READ), nullptr);
  EXPECT_EQ(mem_allocation_count(), before) << "appending to no list must allocate nothing";
}

TEST(BucketDetails, InitGivesAnEmptyListAndLogsEachFailure) {
  ZELBucketDetails* details = zel_bucket_details_init();
  ASSERT_NE(details->permissions, nullptr);
  zel_permissions_append(details->permissions, "A", 0);  // freed with the record
  zel_bucket_details_cleanup(details);
  EXPECT_EQ(zeltest::walk_failure_messages("src\\bucket",
                                           [] {
                                             ZELBucketDetails* attempt = zel_bucket_details_init();
                                             zel_bucket_details_cleanup(attempt);
                                             return attempt != nullptr;
                                           }),
            (std::vector<std::string>{"Cannot allocate memory for ZELBucketDetails",
                                      "Cannot allocate memory for ZELBucketDetails.permissions"}));
}

TEST(BucketNames, KnownValuesAndEverythingElseUndefined) {
  const std::pair<uint32_t, const char*> policies[] = {
      {0, "transient"}, {1, "temporary"}, {2, "persistent"}, {3, "undefined"}, {UINT32_MAX, "undefined"}};
  for (const auto& [value, name] : policies) EXPECT_STREQ(zel_bucket_policy_tostr(value), name) << value;
  const std::pair<uint32_t, const char*> accesses[] = {{0, "read"}, {1, "full"}, {2, "undefined"}};
  for (const auto& [value, name] : accesses) EXPECT_STREQ(zel_bucket_access_tostr(value), name) << value;
}

// Items go in front with their own copies; each failed allocation (item,
// key, policy name) leaves the page as it was.
TEST(ListingPage, AppendCopiesAndFailures) {
  ZELListBucketsDetails* page = list_buckets_details_init();
  std::u16string first = u"first";
  std::string policy = "temporary";
  EXPECT_EQ(list_buckets_details_append(page, first.c_str(), 10, policy.c_str()), page);
  list_buckets_details_append(page, u"second", -5, nullptr);
  first[0] = u'X';
  policy[0] = 'X';
  ASSERT_EQ(page->count, 2u);
  EXPECT_EQ(page->head->created_date, -5);
  EXPECT_EQ(page->head->policy_key, nullptr);
  EXPECT_EQ(std::u16string(page->head->next->bucket_key), u"first");
  EXPECT_STREQ(page->head->next->policy_key, "temporary");
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
}

}  // namespace
