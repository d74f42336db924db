#pragma once
// The storage service's JSON bodies in both API versions: builders for the
// request bodies, parsers for the response bodies, and one dispatcher per
// body that picks the version of the service handle.
//
// Builders return a new compact body (keys in a fixed order, UTF-8 written
// unescaped) that the caller frees with mem_free, or NULL (logged).
// Parsers return 0 (listing: the number of items added) or a negative
// number (logged). A parser that fails part-way leaves the fields it had
// already set in the record; the record's owner releases it.
#include <jansson.h>
#include <zel/zel.h>

#include <cstdint>

// Request bodies. The permission list is sent from head, which in an
// operation's clone of the caller's list is the order of appending. A
// version other than 1 or 2 gives NULL.
char* create_bucket_v1_tojson(const ZELCreateBucketOpt* opt);
char* create_bucket_v2_tojson(const ZELCreateBucketOpt* opt);
char* create_bucket_tojson(const ZELCreateBucketOpt* opt, uint32_t version);
char* grant_bucket_access_v1_tojson(const ZELGrantBucketAccessOpt* opt);
char* grant_bucket_access_v2_tojson(const ZELGrantBucketAccessOpt* opt);
char* grant_bucket_access_tojson(const ZELGrantBucketAccessOpt* opt, uint32_t version);
char* revoke_bucket_access_v1_tojson(const ZELRevokeBucketAccessOpt* opt);
char* revoke_bucket_access_v2_tojson(const ZELRevokeBucketAccessOpt* opt);
char* revoke_bucket_access_tojson(const ZELRevokeBucketAccessOpt* opt, uint32_t version);

// Appends one {id, access name} object per entry to `array`; a NULL list
// appends nothing. Negative when an entry cannot be packed (no id); the
// objects appended before stay in the array.
int permission_list_v1_tojson(const ZELBucketPermissions* list, json_t* array);
int permission_list_v2_tojson(const ZELBucketPermissions* list, json_t* array);
// Adds the array's entries to `list` with zel_permissions_append, so the
// list reads in the reverse order of the array. -1 for no list, a value
// that is not an array, an entry lacking its id or access name, or an entry
// that cannot be added.
int permission_list_v1_fromjson(ZELBucketPermissions* list, json_t* array);
int permission_list_v2_fromjson(ZELBucketPermissions* list, json_t* array);

// `details` comes from zel_bucket_details_init. When the permission array
// fails, the record's list is released and set to NULL.
int bucket_details_v1_fromjson(const char* text, ZELBucketDetails* details);
int bucket_details_v2_fromjson(const char* text, ZELBucketDetails* details);
int bucket_details_fromjson(const char* text, ZELBucketDetails* details, uint32_t version);
// The permissions a grant answers with, added to the caller's list.
int bucket_permissions_v1_fromjson(const char* text, ZELBucketPermissions* list);
int bucket_permissions_v2_fromjson(const char* text, ZELBucketPermissions* list);
int bucket_permissions_fromjson(const char* text, ZELBucketPermissions* list, uint32_t version);
// A listing page (version 2 only; version 1 always gives -1). next_page is
// set to an empty text when the service sent no "next".
int list_bucket_items_fromjson(ZELListBucketsDetails* page, json_t* items);
int list_buckets_v2_fromjson(const char* text, ZELListBucketsDetails* page);
int list_buckets_fromjson(const char* text, ZELListBucketsDetails* page, uint32_t version);
// Version 1 bodies list objects; the record describes the last one.
int object_details_v1_fromjson(const char* text, ZELObjectDetails* details);
int object_details_v2_fromjson(const char* text, ZELObjectDetails* details);
int object_details_fromjson(const char* text, ZELObjectDetails* details, uint32_t version);

// Exact, case-sensitive names; any other name (or NULL) gives 255.
uint32_t bucket_policy_fromstr(const char* name);
uint32_t bucket_access_fromstr(const char* name);

// Reads an error body that is exactly {"reason": text}. 0 with a new copy of
// the reason in *reason (the caller frees it with mem_free); otherwise a
// negative result and *reason NULL, and the caller reports the raw body.
int err_reason_fromjson(const char* text, char** reason);
