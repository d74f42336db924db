// Bucket records: permission list and listing page order through append and
// clone, ownership of the copied texts, and the allocation failures.
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
// as it was, a failed clone leaves nothing.
TEST(Permissions, AppendCloneAndTheirFailures) {
  ZELBucketPermissions* list = zel_permissions_init();
  std::string x = "X";
  EXPECT_EQ(zel_permissions_append(list, x.c_str(), ZEL_BUCKET_ACCESS_READ), list);
  zel_permissions_append(list, "Y", ZEL_BUCKET_ACCESS_FULL);
  zel_permissions_append(list, "Z", 7);
  zel_permissions_append(list, nullptr, 1);
  x = "changed";
  EXPECT_EQ(entries(list), (std::vector<Entry>{{"<none>", 1}, {"Z", 7}, {"Y", 1}, {"X", 0}}));
  ZELBucketPermissions* copy = permissions_clone(list);
  zel_permissions_cleanup(list);
  EXPECT_EQ(copy->count, 4u);
  EXPECT_EQ(entries(copy), (std::vector<Entry>{{"X", 0}, {"Y", 1}, {"Z", 7}, {"<none>", 1}}));

  ZELBucketPermissionItem* head = copy->head;
  auto append = [&](long) {
    if (zel_permissions_append(copy, "B", 1) != nullptr) return true;
    EXPECT_TRUE(copy->head == head && copy->count == 4u);
    return false;
  };
  EXPECT_EQ(zeltest::walk_allocations(5, append), 3) << "the item and its id";
  EXPECT_EQ(zeltest::walk_record([&] { return permissions_clone(copy); }, zel_permissions_cleanup), 11);
  zel_permissions_cleanup(copy);
  EXPECT_EQ(zel_permissions_append(nullptr, "A", ZEL_BUCKET_ACCESS_READ), nullptr);

  // A details record starts with an empty list of its own.
  ZELBucketDetails* details = zel_bucket_details_init();
  zel_permissions_append(details->permissions, "A", 0);  // freed with the record
  zel_bucket_details_cleanup(details);
  EXPECT_EQ(zeltest::walk_record(zel_bucket_details_init, zel_bucket_details_cleanup), 3);
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
  EXPECT_TRUE(page->head->created_date == -5 && page->head->policy_key == nullptr);
  EXPECT_EQ(std::u16string(page->head->next->bucket_key), u"first");
  EXPECT_STREQ(page->head->next->policy_key, "temporary");
  auto append = [&](long) {
    if (list_buckets_details_append(page, u"third", 1, "transient") != nullptr) return true;
    EXPECT_EQ(page->count, 2u);
    EXPECT_EQ(std::u16string(page->head->bucket_key), u"second");
    return false;
  };
  EXPECT_EQ(zeltest::walk_allocations(5, append), 4);
  EXPECT_EQ(list_buckets_details_append(nullptr, u"x", 0, "y"), nullptr);
  list_buckets_details_cleanup(page);
}

}  // namespace
