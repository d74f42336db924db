#include "bodies.h"

#include <jansson.h>

#include <memory>

#include "util.h"

namespace zelsrv {
namespace {

struct JsonFree {
  void operator()(json_t* j) const { json_decref(j); }
};
using Json = std::unique_ptr<json_t, JsonFree>;

std::string dump(json_t* j) {
  Json owned(j);
  char* text = json_dumps(j, JSON_COMPACT);
  std::string out = text ? text : "";
  free(text);
  return out;
}

json_t* str(const std::string& s) { return json_stringn(s.data(), s.size()); }

json_t* permission_array(const std::vector<Permission>& perms, int version) {
  json_t* arr = json_array();
  for (const auto& p : perms) {
    json_t* e = json_object();
    json_object_set_new(e, version == 1 ? "serviceId" : "authId", str(p.auth_id));
    json_object_set_new(e, "access", str(p.access));
    json_array_append_new(arr, e);
  }
  return arr;
}

// Loads a request body that must be a JSON object.
Json load_object(const std::string& body, std::string& why) {
  json_error_t err;
  Json root(json_loadb(body.data(), body.size(), JSON_REJECT_DUPLICATES, &err));
  if (!root) {
    why = std::string("Malformed JSON body: ") + err.text;
  } else if (!json_is_object(root.get())) {
    why = "The body must be a JSON object";
    root.reset();
  }
  return root;
}

bool read_permissions(json_t* arr, int version, bool need_access, std::vector<Permission>& out,
                      std::string& why) {
  if (!arr) return true;
  if (!json_is_array(arr)) {
    why = "The permission list must be an array";
    return false;
  }
  const char* id_key = version == 1 ? "serviceId" : "authId";
  size_t i;
  json_t* e;
  json_array_foreach(arr, i, e) {
    json_t *id = json_object_get(e, id_key), *access = json_object_get(e, "access");
    if (!json_is_string(id) || json_string_length(id) == 0) {
      why = std::string("Each permission needs a string \"") + id_key + "\"";
      return false;
    }
    Permission p{json_string_value(id), access && json_is_string(access) ? json_string_value(access) : ""};
    if (need_access && !valid_access(p.access)) {
      why = "Access must be \"read\" or \"full\"";
      return false;
    }
    out.push_back(p);
  }
  return true;
}

}  // namespace

std::string reason_json(const std::string& reason) {
  json_t* o = json_object();
  json_object_set_new(o, "reason", str(reason));
  return dump(o);
}

std::string bucket_details_json(const Bucket& b, int version) {
  json_t* o = json_object();
  json_object_set_new(o, version == 1 ? "key" : "bucketKey", str(b.key));
  json_object_set_new(o, version == 1 ? "owner" : "bucketOwner", str(b.owner));
  json_object_set_new(o, version == 1 ? "createDate" : "createdDate", json_integer(b.created));
  json_object_set_new(o, "permissions", permission_array(b.permissions, version));
  json_object_set_new(o, "policyKey", str(b.policy));
  return dump(o);
}

std::string permissions_json(const std::vector<Permission>& perms, int version) {
  json_t* o = json_object();
  json_object_set_new(o, version == 1 ? "servicesAllowed" : "permissions", permission_array(perms, version));
  return dump(o);
}

std::string listing_json(const std::vector<Bucket>& page, const std::string& next) {
  json_t* items = json_array();
  for (const auto& b : page) {
    json_t* e = json_object();
    json_object_set_new(e, "bucketKey", str(b.key));
    json_object_set_new(e, "createdDate", json_integer(b.created));
    json_object_set_new(e, "policyKey", str(b.policy));
    json_array_append_new(items, e);
  }
  json_t* o = json_object();
  json_object_set_new(o, "items", items);
  if (!next.empty()) json_object_set_new(o, "next", str(next));
  return dump(o);
}

std::string object_details_json(const ObjectMeta& m, const std::string& location, int version,
                                DateFields dates) {
  std::string id = "urn:zel:object:" + m.bucket + ":" + m.blob;
  json_t* o = json_object();
  if (version == 1) {
    json_t* e = json_object();
    json_object_set_new(e, "id", str(id));
    json_object_set_new(e, "key", str(m.key));
    json_object_set_new(e, "sha-1", str(m.sha1));
    json_object_set_new(e, "size", json_integer(static_cast<json_int_t>(m.size)));
    json_object_set_new(e, "content-type", str(m.content_type));
    json_object_set_new(e, "location", str(location));
    json_object_set_new(o, "bucket-key", str(m.bucket));
    json_object_set_new(o, "objects", json_pack("[o]", e));
    return dump(o);
  }
  json_object_set_new(o, "bucketKey", str(m.bucket));
  json_object_set_new(o, "objectId", str(id));
  json_object_set_new(o, "objectKey", str(m.key));
  json_object_set_new(o, "sha1", str(m.sha1));
  json_object_set_new(o, "size", json_integer(static_cast<json_int_t>(m.size)));
  json_object_set_new(o, "contentType", str(m.content_type));
  json_object_set_new(o, "location", str(location));
  if (dates.created) json_object_set_new(o, "createdDate", json_integer(m.created));
  if (dates.accessed) json_object_set_new(o, "lastAccessedDate", json_integer(m.accessed));
  if (dates.modified) json_object_set_new(o, "lastModifiedDate", json_integer(m.modified));
  return dump(o);
}

bool parse_create_bucket(const std::string& body, int version, Bucket& out, std::string& why) {
  Json root = load_object(body, why);
  if (!root) return false;
  json_t* key = json_object_get(root.get(), "bucketKey");
  json_t* policy = json_object_get(root.get(), version == 1 ? "policy" : "policyKey");
  if (!json_is_string(key)) {
    why = "The body needs a string \"bucketKey\"";
    return false;
  }
  out.key = json_string_value(key);
  if (!valid_bucket_key(out.key)) {
    why = "A bucket key has 3 to 128 characters of [-_.a-z0-9]";
    return false;
  }
  out.policy = json_is_string(policy) ? json_string_value(policy) : "";
  if (!valid_policy(out.policy)) {
    why = "The policy must be \"transient\", \"temporary\" or \"persistent\"";
    return false;
  }
  json_t* perms = json_object_get(root.get(), version == 1 ? "servicesAllowed" : "allow");
  return read_permissions(perms, version, true, out.permissions, why);
}

bool parse_grant(const std::string& body, int version, std::vector<Permission>& out, std::string& why) {
  Json root = load_object(body, why);
  if (!root) return false;
  json_t* perms = json_object_get(root.get(), version == 1 ? "servicesAllowed" : "allow");
  if (!perms) {
    why = std::string("The body needs the array \"") + (version == 1 ? "servicesAllowed" : "allow") + "\"";
    return false;
  }
  return read_permissions(perms, version, true, out, why);
}

bool parse_revoke(const std::string& body, int version, std::vector<std::string>& out, std::string& why) {
  Json root = load_object(body, why);
  if (!root) return false;
  json_t* arr = json_object_get(root.get(), version == 1 ? "servicesAllowed" : "revoke");
  if (!arr) {
    why = std::string("The body needs the array \"") + (version == 1 ? "servicesAllowed" : "revoke") + "\"";
    return false;
  }
  std::vector<Permission> perms;
  if (!read_permissions(arr, version, false, perms, why)) return false;
  for (const auto& p : perms) out.push_back(p.auth_id);
  return true;
}

}  // namespace zelsrv
