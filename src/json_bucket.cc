// Bucket bodies: create, grant and revoke requests, and the details,
// permission and listing answers.
#include <cstdio>

#include "alloc.h"
#include "bucket.h"
#include "json.h"
#include "json_internal.h"
#include "log.h"
#include "util.h"

namespace {
constexpr const char* kLogTag = "src\\json";

// Everything that differs between the two versions of a body.
struct Keys {
  const char* version;      // "v1" or "v2", for the function names in logs
  const char* id;           // permission entry: id of the service
  const char* policy;       // create body: policy name
  const char* allow;        // create and grant bodies: permission array
  const char* revoke;       // revoke body: permission array
  const char* granted;      // grant answer: permission array
  const char* details_fmt;  // bucket details answer
  const char* details_key;
  const char* details_owner;
  const char* details_created;
};

constexpr Keys kV1 = {"v1",
                      "serviceId",
                      "policy",
                      "servicesAllowed",
                      "servicesAllowed",
                      "servicesAllowed",
                      "{s:s, s:s, s:I, s:o, s:s}",
                      "key",
                      "owner",
                      "createDate"};
constexpr Keys kV2 = {"v2",
                      "authId",
                      "policyKey",
                      "allow",
                      "revoke",
                      "permissions",
                      "{s:s, s:s, s:I, s:o, s:s, *}",
                      "bucketKey",
                      "bucketOwner",
                      "createdDate"};

// One object per entry; `with_access` false packs the id only (revoke).
int append_entries(const ZELBucketPermissions* list, json_t* array, const Keys& keys, bool with_access,
                   const char* function) {
  if (list == nullptr) return 0;
  for (const ZELBucketPermissionItem* item = list->head; item != nullptr; item = item->next) {
    json_error_t error;
    json_t* entry = with_access ? json_pack_ex(&error, 0, "{s:s, s:s}", keys.id, item->auth_id, "access",
                                               zel_bucket_access_tostr(item->access))
                                : json_pack_ex(&error, 0, "{s:s}", keys.id, item->auth_id);
    if (entry == nullptr) {
      ZLOG("Error %s: %s", function, error.text);
      return -1;
    }
    if (json_array_append_new(array, entry) != 0) {  // takes the entry even on failure
      ZLOG("Error %s: %s", function, "cannot append to the array");
      return -1;
    }
  }
  return 0;
}

int permission_list_tojson(const ZELBucketPermissions* list, json_t* array, const Keys& keys) {
  char function[64];
  snprintf(function, sizeof(function), "permission_list_%s_tojson", keys.version);
  return append_entries(list, array, keys, true, function);
}

// Wraps the permission array of a grant or revoke body as {array_key: [...]}.
char* wrap_array(json_t* array, const char* array_key, const char* function) {
  json_error_t error;
  json_t* root = json_pack_ex(&error, 0, "{s:o}", array_key, array);  // takes the array, even on failure
  if (root == nullptr) {
    ZLOG("Error %s: %s", function, error.text);
    return nullptr;
  }
  return json_dump_body(root, function);
}

char* create_bucket_body(const ZELCreateBucketOpt* opt, const Keys& keys) {
  char function[64];
  snprintf(function, sizeof(function), "create_bucket_%s_tojson", keys.version);
  json_t* array = json_array();
  if (array == nullptr || (opt != nullptr && permission_list_tojson(opt->permissions, array, keys) != 0)) {
    json_decref(array);
    return nullptr;
  }
  // A key that is missing or does not convert packs as a NULL string, which
  // fails the pack below with jansson's own explanation.
  char* key = opt != nullptr ? wide_to_utf8(opt->key) : nullptr;
  const char* policy = zel_bucket_policy_tostr(opt != nullptr ? opt->policy : ZEL_BUCKET_POLICY_UNDEFINED);
  json_error_t error;
  json_t* root =
      json_pack_ex(&error, 0, "{s:s, s:s, s:o}", "bucketKey", key, keys.policy, policy, keys.allow, array);
  mem_free(key);
  if (root == nullptr) {
    ZLOG("Error %s: %s", function, error.text);
    return nullptr;
  }
  return json_dump_body(root, function);
}

char* grant_body(const ZELGrantBucketAccessOpt* opt, const Keys& keys) {
  char function[64];
  snprintf(function, sizeof(function), "grant_bucket_access_%s_tojson", keys.version);
  json_t* array = json_array();
  if (array == nullptr || (opt != nullptr && permission_list_tojson(opt->permissions, array, keys) != 0)) {
    json_decref(array);
    return nullptr;
  }
  return wrap_array(array, keys.allow, function);
}

char* revoke_body(const ZELRevokeBucketAccessOpt* opt, const Keys& keys) {
  char function[64];
  snprintf(function, sizeof(function), "revoke_bucket_access_%s_tojson", keys.version);
  json_t* array = json_array();
  if (array == nullptr) {
    ZLOG("Error %s: %s", function, "cannot create the array");
    return nullptr;
  }
  if (opt != nullptr && append_entries(opt->permissions, array, keys, false, function) != 0) {
    json_decref(array);
    return nullptr;
  }
  return wrap_array(array, keys.revoke, function);
}

// The service sends complete entries; an entry missing its id or access
// name fails the whole answer rather than reach the caller half-filled.
int permission_list_fromjson(ZELBucketPermissions* list, json_t* array, const Keys& keys) {
  if (list == nullptr) {
    ZLOG("Permissions instance is not initialized");
    return -1;
  }
  if (!json_is_array(array)) {
    ZLOG("Cannot parse permission from json: %s", "the permissions are not an array");
    return -1;
  }
  for (size_t i = 0; i < json_array_size(array); ++i) {
    json_t* element = json_array_get(array, i);
    if (element == nullptr) break;
    const char* id = nullptr;
    const char* access = nullptr;
    json_error_t error;
    if (json_unpack_ex(element, &error, 0, "{s:s, s:s}", keys.id, &id, "access", &access) != 0) {
      ZLOG("Cannot parse permission from json: %s", error.text);
      return -1;
    }
    if (zel_permissions_append(list, id, bucket_access_fromstr(access)) == nullptr) {
      ZLOG("Cannot append new permission to the list");
      return -1;
    }
  }
  return 0;
}

// Fills the record from an unpacked details body; the tree stays the
// caller's.
int bucket_details_fill(ZELBucketDetails* details, const char* key, const char* owner, json_t* permissions,
                        const char* policy, const Keys& keys) {
  if (json_set_wide(&details->bucket_key, key) != 0 || json_set_text(&details->bucket_owner, owner) != 0) {
    ZLOG("Cannot allocate memory for ZELBucketDetails fields");
    return -1;
  }
  int result = permission_list_fromjson(details->permissions, permissions, keys);
  if (result != 0) {
    // No half-read permission list reaches a caller.
    zel_permissions_cleanup(details->permissions);
    details->permissions = nullptr;
    if (&keys == &kV1) ZLOG("Cannot parse permissions from json");
    return result;
  }
  details->policy = bucket_policy_fromstr(policy);
  return 0;
}

int bucket_details_parse(const char* text, ZELBucketDetails* details, const Keys& keys) {
  json_error_t error;
  json_t* root = json_load_body(text, &error);
  if (root == nullptr) {
    ZLOG("Error bucket_details_%s_fromjson: %s", keys.version, error.text);
    return -1;
  }
  const char* key = nullptr;
  const char* owner = nullptr;
  const char* policy = nullptr;
  json_int_t created = 0;
  json_t* permissions = nullptr;
  int result = json_unpack_ex(root, &error, JSON_STRICT, keys.details_fmt, keys.details_key, &key,
                              keys.details_owner, &owner, keys.details_created, &created, "permissions",
                              &permissions, "policyKey", &policy);
  if (result != 0 || details == nullptr) {
    ZLOG("Cannot parse bucket details from json: %s", result != 0 ? error.text : "no record to fill");
    json_decref(root);
    return result != 0 ? result : -1;
  }
  details->created_date = created;
  result = bucket_details_fill(details, key, owner, permissions, policy, keys);
  json_decref(root);
  return result;
}

int bucket_permissions_parse(const char* text, ZELBucketPermissions* list, const Keys& keys,
                             const char* unpack_message) {
  json_error_t error;
  json_t* root = json_load_body(text, &error);
  if (root == nullptr) {
    ZLOG("Error bucket_permissions_%s_fromjson: %s", keys.version, error.text);
    return -1;
  }
  json_t* array = nullptr;
  int result = json_unpack_ex(root, &error, JSON_STRICT, "{s:o}", keys.granted, &array);
  if (result != 0) {
    ZLOG("%s%s", unpack_message, error.text);
    json_decref(root);
    return result;
  }
  result = permission_list_fromjson(list, array, keys);
  json_decref(root);
  return result;
}

}  // namespace

int permission_list_v1_tojson(const ZELBucketPermissions* list, json_t* array) {
  return permission_list_tojson(list, array, kV1);
}
int permission_list_v2_tojson(const ZELBucketPermissions* list, json_t* array) {
  return permission_list_tojson(list, array, kV2);
}
int permission_list_v1_fromjson(ZELBucketPermissions* list, json_t* array) {
  return permission_list_fromjson(list, array, kV1);
}
int permission_list_v2_fromjson(ZELBucketPermissions* list, json_t* array) {
  return permission_list_fromjson(list, array, kV2);
}
char* create_bucket_v1_tojson(const ZELCreateBucketOpt* opt) { return create_bucket_body(opt, kV1); }
char* create_bucket_v2_tojson(const ZELCreateBucketOpt* opt) { return create_bucket_body(opt, kV2); }
char* grant_bucket_access_v1_tojson(const ZELGrantBucketAccessOpt* opt) { return grant_body(opt, kV1); }
char* grant_bucket_access_v2_tojson(const ZELGrantBucketAccessOpt* opt) { return grant_body(opt, kV2); }
char* revoke_bucket_access_v1_tojson(const ZELRevokeBucketAccessOpt* opt) { return revoke_body(opt, kV1); }
char* revoke_bucket_access_v2_tojson(const ZELRevokeBucketAccessOpt* opt) { return revoke_body(opt, kV2); }
int bucket_details_v1_fromjson(const char* text, ZELBucketDetails* details) {
  return bucket_details_parse(text, details, kV1);
}
int bucket_details_v2_fromjson(const char* text, ZELBucketDetails* details) {
  return bucket_details_parse(text, details, kV2);
}

int bucket_permissions_v1_fromjson(const char* text, ZELBucketPermissions* list) {
  return bucket_permissions_parse(text, list, kV1, "Cannot parse bucket permissions form json: ");
}

int bucket_permissions_v2_fromjson(const char* text, ZELBucketPermissions* list) {
  return bucket_permissions_parse(text, list, kV2, "Cannot parse bucket permissions from json: ");
}

int list_bucket_items_fromjson(ZELListBucketsDetails* page, json_t* items) {
  if (page == nullptr || items == nullptr) {
    ZLOG("ListBucketItem instance is not initialized");
    return -1;
  }
  if (!json_is_array(items)) {
    ZLOG("Cannot parse bucket list item from json: %s", "the items are not an array");
    return -1;
  }
  int added = 0;
  for (size_t i = 0; i < json_array_size(items); ++i) {
    const char* key = nullptr;
    json_int_t created = 0;
    const char* policy = nullptr;
    json_error_t error;
    if (json_unpack_ex(json_array_get(items, i), &error, 0, "{s:s, s:I, s:s}", "bucketKey", &key,
                       "createdDate", &created, "policyKey", &policy) != 0) {
      ZLOG("Cannot parse bucket list item from json: %s", error.text);
      return -1;
    }
    char16_t* wide_key = utf8_to_wide(key);
    bool added_item =
        wide_key != nullptr && list_buckets_details_append(page, wide_key, created, policy) != nullptr;
    mem_free(wide_key);
    if (!added_item) {
      ZLOG("Cannot append new permission to the list");
      return -1;
    }
    ++added;
  }
  return added;
}

int list_buckets_v2_fromjson(const char* text, ZELListBucketsDetails* page) {
  json_error_t error;
  json_t* root = json_load_body(text, &error);
  if (root == nullptr) {
    json_log_load_failure(text, error);
    return -1;
  }
  json_t* items = nullptr;
  const char* next = "";
  int result = json_unpack_ex(root, &error, JSON_STRICT, "{s:o, s?:s, *}", "items", &items, "next", &next);
  if (result != 0 || page == nullptr) {
    ZLOG("Error parsing object details v2 json: %s", result != 0 ? error.text : "no page to fill");
    json_decref(root);
    return result != 0 ? result : -1;
  }
  if (json_set_wide(&page->next_page, next) != 0) {
    ZLOG("Cannot allocate memory for ZELListBucketsDetails next_page");
    json_decref(root);
    return -1;
  }
  result = list_bucket_items_fromjson(page, items);
  json_decref(root);
  return result;
}
