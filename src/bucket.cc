// Bucket records: details, permission lists, listing pages and the names of
// the policy and access values.
#include "bucket.h"

#include "alloc.h"
#include "log.h"
#include "util.h"

namespace {
constexpr const char* kLogTag = "src\\bucket";

void free_permission_items(ZELBucketPermissions* list) {
  while (list->head != nullptr) {
    ZELBucketPermissionItem* item = list->head;
    list->head = item->next;
    mem_free(item->auth_id);
    mem_free(item);
  }
  list->count = 0;
}

}  // namespace

extern "C" ZEL_EXPORT ZELBucketPermissions* zel_permissions_init(void) {
  return static_cast<ZELBucketPermissions*>(mem_calloc(1, sizeof(ZELBucketPermissions)));
}

extern "C" ZEL_EXPORT ZELBucketPermissions* zel_permissions_append(ZELBucketPermissions* list,
                                                                   const char* auth_id, uint32_t access) {
  if (list == nullptr) return nullptr;
  auto* item = static_cast<ZELBucketPermissionItem*>(mem_calloc(1, sizeof(ZELBucketPermissionItem)));
  if (item == nullptr) return nullptr;
  if (auth_id != nullptr) {
    item->auth_id = mem_strdup(auth_id);
    if (item->auth_id == nullptr) {
      mem_free(item);
      return nullptr;
    }
  }
  // Stored as given: a value outside the enumeration is the caller's to send.
  item->access = access;
  item->next = list->head;
  list->head = item;
  list->count++;
  return list;
}

extern "C" ZEL_EXPORT void zel_permissions_cleanup(ZELBucketPermissions* list) {
  if (list == nullptr) return;
  free_permission_items(list);
  mem_free(list);
}

extern "C" ZEL_EXPORT ZELBucketDetails* zel_bucket_details_init(void) {
  auto* details = static_cast<ZELBucketDetails*>(mem_calloc(1, sizeof(ZELBucketDetails)));
  if (details == nullptr) {
    ZLOG("Cannot allocate memory for ZELBucketDetails");
    return nullptr;
  }
  details->permissions = zel_permissions_init();
  if (details->permissions == nullptr) {
    ZLOG("Cannot allocate memory for ZELBucketDetails.permissions");
    mem_free(details);
    return nullptr;
  }
  return details;
}

extern "C" ZEL_EXPORT void zel_bucket_details_cleanup(ZELBucketDetails* details) {
  if (details == nullptr) return;
  // A details parse that failed in the permission array leaves no list.
  zel_permissions_cleanup(details->permissions);
  mem_free(details->bucket_key);
  mem_free(details->bucket_owner);
  mem_free(details);
}

extern "C" ZEL_EXPORT const char* zel_bucket_policy_tostr(uint32_t policy) {
  switch (policy) {
    case ZEL_BUCKET_POLICY_TRANSIENT:
      return "transient";
    case ZEL_BUCKET_POLICY_TEMPORARY:
      return "temporary";
    case ZEL_BUCKET_POLICY_PERSISTENT:
      return "persistent";
    default:
      return "undefined";
  }
}

extern "C" ZEL_EXPORT const char* zel_bucket_access_tostr(uint32_t access) {
  switch (access) {
    case ZEL_BUCKET_ACCESS_READ:
      return "read";
    case ZEL_BUCKET_ACCESS_FULL:
      return "full";
    default:
      return "undefined";
  }
}

ZELBucketPermissions* permissions_clone(const ZELBucketPermissions* list) {
  if (list == nullptr) return nullptr;
  ZELBucketPermissions* copy = zel_permissions_init();
  if (copy == nullptr) {
    ZLOG("Cannot allocate memory for the cloned ZELBucketPermissions");
    return nullptr;
  }
  for (const ZELBucketPermissionItem* item = list->head; item != nullptr; item = item->next) {
    // A copy missing an entry would grant or revoke less than asked: give
    // none rather than a shorter list.
    if (zel_permissions_append(copy, item->auth_id, item->access) == nullptr) {
      ZLOG("Cannot allocate memory for the cloned ZELBucketPermissions");
      zel_permissions_cleanup(copy);
      return nullptr;
    }
  }
  return copy;
}

ZELListBucketsDetails* list_buckets_details_init() {
  return static_cast<ZELListBucketsDetails*>(mem_calloc(1, sizeof(ZELListBucketsDetails)));
}

ZELListBucketsDetails* list_buckets_details_append(ZELListBucketsDetails* page, const char16_t* key,
                                                   int64_t created, const char* policy_key) {
  if (page == nullptr) return nullptr;
  auto* item = static_cast<ZELListBucketItem*>(mem_calloc(1, sizeof(ZELListBucketItem)));
  if (item == nullptr) return nullptr;
  item->bucket_key = wide_dup(key);
  item->policy_key = mem_strdup(policy_key);
  if ((key != nullptr && item->bucket_key == nullptr) ||
      (policy_key != nullptr && item->policy_key == nullptr)) {
    mem_free(item->bucket_key);
    mem_free(item->policy_key);
    mem_free(item);
    return nullptr;
  }
  item->created_date = created;
  item->next = page->head;
  page->head = item;
  page->count++;
  return page;
}

void list_buckets_details_cleanup(ZELListBucketsDetails* page) {
  if (page == nullptr) return;
  while (page->head != nullptr) {
    ZELListBucketItem* item = page->head;
    page->head = item->next;
    mem_free(item->bucket_key);
    mem_free(item->policy_key);
    mem_free(item);
  }
  mem_free(page->next_page);
  mem_free(page);
}
