// Buckets and who may use them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "store.h"

namespace zelsrv {

enum class Access { kNone, kRead, kFull };

struct Permission {
  std::string auth_id;
  std::string access;  // "read" or "full"
};

struct Bucket {
  std::string key;
  std::string owner;
  std::string policy;  // "transient", "temporary" or "persistent"
  int64_t created = 0;
  std::vector<Permission> permissions;  // in the order they were first granted
};

bool valid_bucket_key(const std::string& key);
bool valid_policy(const std::string& policy);
bool valid_access(const std::string& access);

class Buckets {
 public:
  explicit Buckets(Store& store) : store_(store) {}

  // False when a bucket with that key exists.
  bool create(Bucket& bucket);
  bool get(const std::string& key, Bucket& out);
  static Access access(const Bucket& bucket, const std::string& principal);
  // Buckets the principal can use, in key order from `start_at` on.
  std::vector<Bucket> list(const std::string& principal, const std::string& start_at, size_t limit);
  // Both leave the owner's own access untouched.
  void grant(const std::string& key, const std::string& owner, const std::vector<Permission>& perms);
  void revoke(const std::string& key, const std::vector<std::string>& auth_ids);

 private:
  void load_permissions(Bucket& bucket);
  void put_permissions(const std::string& key, const std::string& owner,
                       const std::vector<Permission>& perms);

  Store& store_;
};

}  // namespace zelsrv
