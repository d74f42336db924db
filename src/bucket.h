#pragma once
// Internal face of the bucket records: the copies the bucket operations make
// of a caller's permission list, and the listing page the listing operation
// fills and frees itself (callers never free a page).
#include <zel/zel.h>

#include <cstdint>

// Deep copy in reverse order, so that the copy of a list built by appending
// X, Y, Z reads X, Y, Z from head. NULL for NULL or when memory runs out
// (nothing is left allocated then).
ZELBucketPermissions* permissions_clone(const ZELBucketPermissions* list);

// Empty page: no items, no next_page, count 0. NULL when memory runs out.
ZELListBucketsDetails* list_buckets_details_init();
// Puts {copy of key, created, copy of policy_key} in front and increases
// count. Either text may be NULL and then stays absent in the item. NULL when
// memory runs out, with the page unchanged; otherwise the page.
ZELListBucketsDetails* list_buckets_details_append(ZELListBucketsDetails* page, const char16_t* key,
                                                   int64_t created, const char* policy_key);
// Frees every item with its texts, next_page and the page; NULL is ignored.
void list_buckets_details_cleanup(ZELListBucketsDetails* page);
