// Object details and error bodies, the name tables, the version
// dispatchers and the helpers every json source file shares.
#include "json.h"

#include <cstdlib>
#include <cstring>

#include "alloc.h"
#include "json_internal.h"
#include "log.h"
#include "util.h"

namespace {
constexpr const char* kLogTag = "src\\json";

// The fields one object of a details body carries, pointing into the tree.
struct ObjectFields {
  const char* id = "";
  const char* key = nullptr;
  const char* sha1 = "";
  json_int_t size = 0;
  const char* content_type = nullptr;
  const char* location = "";
};

// Copies one object's fields into the record; -1 (logged) when memory runs
// out.
int set_object_fields(ZELObjectDetails* details, const ObjectFields& fields) {
  if (json_set_text(&details->object_id, fields.id) != 0 ||
      json_set_wide(&details->object_key, fields.key) != 0 ||
      json_set_text(&details->sha1, fields.sha1) != 0 ||
      json_set_text(&details->content_type, fields.content_type) != 0 ||
      json_set_text(&details->location, fields.location) != 0) {
    ZLOG("Cannot allocate memory for ZELObjectDetails fields");
    return -1;
  }
  details->size = static_cast<uint64_t>(fields.size);
  return 0;
}

// Each element replaces the values of the one before, so the record ends
// up describing the last object. The optional texts keep the previous
// element's value when an element leaves them out.
int read_v1_objects(json_t* objects, ZELObjectDetails* details) {
  if (!json_is_array(objects)) {
    ZLOG("Error parsing object details v1 json: %s", "\"objects\" is not an array");
    return -1;
  }
  ObjectFields fields;
  for (size_t i = 0; i < json_array_size(objects); ++i) {
    json_error_t error;
    int result =
        json_unpack_ex(json_array_get(objects, i), &error, JSON_STRICT, "{s?:s, s:s, s?:s, s:I, s:s, s:s}",
                       "id", &fields.id, "key", &fields.key, "sha-1", &fields.sha1, "size", &fields.size,
                       "content-type", &fields.content_type, "location", &fields.location);
    if (result != 0) {
      ZLOG("Error parsing object details v1 json: %s", error.text);
      return result;
    }
    if (set_object_fields(details, fields) != 0) return -1;
  }
  return 0;
}

}  // namespace

json_t* json_load_body(const char* text, json_error_t* error) {
  return json_loads(text, JSON_REJECT_DUPLICATES, error);
}

char* json_dump_body(json_t* root, const char* function) {
  char* text = json_dumps(root, JSON_COMPACT);
  json_decref(root);
  if (text == nullptr) {
    ZLOG("Error %s: %s", function, "cannot serialise the body");
    return nullptr;
  }
  char* copy = mem_strdup(text);
  std::free(text);  // jansson's own allocation
  if (copy == nullptr) ZLOG("Error %s: %s", function, "cannot copy the body");
  return copy;
}

int json_set_text(char** field, const char* value) {
  char* copy = mem_strdup(value);
  if (value != nullptr && copy == nullptr) return -1;
  mem_free(*field);
  *field = copy;
  return 0;
}

int json_set_wide(char16_t** field, const char* value) {
  char16_t* copy = utf8_to_wide(value);
  if (value != nullptr && copy == nullptr) return -1;
  mem_free(*field);
  *field = copy;
  return 0;
}

void json_log_load_failure(const char* text, const json_error_t& error) {
  ZLOG("json_loads(%s)\nerror.text: %s", text != nullptr ? text : "(null)", error.text);
}

uint32_t bucket_policy_fromstr(const char* name) {
  if (name == nullptr) return ZEL_BUCKET_POLICY_UNDEFINED;
  if (std::strcmp(name, "transient") == 0) return ZEL_BUCKET_POLICY_TRANSIENT;
  if (std::strcmp(name, "temporary") == 0) return ZEL_BUCKET_POLICY_TEMPORARY;
  if (std::strcmp(name, "persistent") == 0) return ZEL_BUCKET_POLICY_PERSISTENT;
  return ZEL_BUCKET_POLICY_UNDEFINED;
}

uint32_t bucket_access_fromstr(const char* name) {
  if (name == nullptr) return ZEL_BUCKET_ACCESS_UNDEFINED;
  if (std::strcmp(name, "read") == 0) return ZEL_BUCKET_ACCESS_READ;
  if (std::strcmp(name, "full") == 0) return ZEL_BUCKET_ACCESS_FULL;
  return ZEL_BUCKET_ACCESS_UNDEFINED;
}

int object_details_v1_fromjson(const char* text, ZELObjectDetails* details) {
  json_error_t error;
  json_t* root = json_load_body(text, &error);
  if (root == nullptr) {
    json_log_load_failure(text, error);
    return -1;
  }
  const char* bucket_key = nullptr;
  json_t* objects = nullptr;
  int result =
      json_unpack_ex(root, &error, JSON_STRICT, "{s:s, s:o}", "bucket-key", &bucket_key, "objects", &objects);
  if (result != 0 || details == nullptr) {
    ZLOG("Error parsing object details v1 json: %s", result != 0 ? error.text : "no record to fill");
    json_decref(root);
    return result != 0 ? result : -1;
  }
  if (json_set_wide(&details->bucket_key, bucket_key) != 0) {
    ZLOG("Cannot allocate memory for ZELObjectDetails fields");
    result = -1;
  } else {
    result = read_v1_objects(objects, details);
  }
  json_decref(root);
  return result;
}

int object_details_v2_fromjson(const char* text, ZELObjectDetails* details) {
  json_error_t error;
  json_t* root = json_load_body(text, &error);
  if (root == nullptr) {
    json_log_load_failure(text, error);
    return -1;
  }
  const char* bucket_key = nullptr;
  ObjectFields fields;
  json_t* ignored[2] = {nullptr, nullptr};
  json_int_t dates[3] = {0, 0, 0};
  int result = json_unpack_ex(
      root, &error, JSON_STRICT, "{s:s, s?:s, s:s, s?:s, s:I, s:s, s?:s, s?:o, s?:o, s?:I, s?:I, s?:I, *}",
      "bucketKey", &bucket_key, "objectId", &fields.id, "objectKey", &fields.key, "sha1", &fields.sha1,
      "size", &fields.size, "contentType", &fields.content_type, "location", &fields.location, "blockSizes",
      &ignored[0], "deltas", &ignored[1], "createdDate", &dates[0], "lastAccessedDate", &dates[1],
      "lastModifiedDate", &dates[2]);
  if (result != 0 || details == nullptr) {
    ZLOG("Error parsing object details v2 json: %s", result != 0 ? error.text : "no record to fill");
    json_decref(root);
    return result != 0 ? result : -1;
  }
  if (json_set_wide(&details->bucket_key, bucket_key) != 0) {
    ZLOG("Cannot allocate memory for ZELObjectDetails fields");
    result = -1;
  } else {
    result = set_object_fields(details, fields);
  }
  details->created_date = dates[0];
  details->last_accessed_date = dates[1];
  details->last_modified_date = dates[2];
  json_decref(root);
  return result;
}

int object_details_fromjson(const char* text, ZELObjectDetails* details, uint32_t version) {
  if (version == 1) return object_details_v1_fromjson(text, details);
  if (version == 2) return object_details_v2_fromjson(text, details);
  return -1;
}

int err_reason_fromjson(const char* text, char** reason) {
  if (reason == nullptr) return -1;
  *reason = nullptr;
  json_error_t error;
  json_t* root = json_load_body(text, &error);
  if (root == nullptr) {
    ZLOG("Error err_reason_fromjson: %s", error.text);
    return -1;
  }
  const char* value = nullptr;
  int result = json_unpack_ex(root, &error, JSON_STRICT, "{s: s}", "reason", &value);
  if (result != 0) {
    ZLOG("Error parsing json error.text: %s", error.text);
    json_decref(root);
    return result;
  }
  *reason = mem_strdup(value);
  json_decref(root);
  if (*reason == nullptr) {
    ZLOG("Error err_reason_fromjson: %s", "cannot copy the reason");
    return -1;
  }
  return 0;
}

int bucket_details_fromjson(const char* text, ZELBucketDetails* details, uint32_t version) {
  if (version == 1) return bucket_details_v1_fromjson(text, details);
  if (version == 2) return bucket_details_v2_fromjson(text, details);
  return -1;
}

int bucket_permissions_fromjson(const char* text, ZELBucketPermissions* list, uint32_t version) {
  if (version == 1) return bucket_permissions_v1_fromjson(text, list);
  if (version == 2) return bucket_permissions_v2_fromjson(text, list);
  return -1;
}

int list_buckets_fromjson(const char* text, ZELListBucketsDetails* page, uint32_t version) {
  // Version 1 of the service has no listing body.
  if (version == 2) return list_buckets_v2_fromjson(text, page);
  return -1;
}

char* create_bucket_tojson(const ZELCreateBucketOpt* opt, uint32_t version) {
  if (version == 1) return create_bucket_v1_tojson(opt);
  if (version == 2) return create_bucket_v2_tojson(opt);
  return nullptr;
}

char* grant_bucket_access_tojson(const ZELGrantBucketAccessOpt* opt, uint32_t version) {
  if (version == 1) return grant_bucket_access_v1_tojson(opt);
  if (version == 2) return grant_bucket_access_v2_tojson(opt);
  return nullptr;
}

char* revoke_bucket_access_tojson(const ZELRevokeBucketAccessOpt* opt, uint32_t version) {
  if (version == 1) return revoke_bucket_access_v1_tojson(opt);
  if (version == 2) return revoke_bucket_access_v2_tojson(opt);
  return nullptr;
}
