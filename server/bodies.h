// JSON bodies of the service, per API version. Version 1 clients parse
// strictly, so a version 1 body carries exactly the keys listed here.
#pragma once

#include <string>
#include <vector>

#include "buckets.h"
#include "objects.h"

namespace zelsrv {

std::string reason_json(const std::string& reason);
std::string bucket_details_json(const Bucket& b, int version);
// The answer to a grant: the bucket's whole permission list.
std::string permissions_json(const std::vector<Permission>& perms, int version);
// One page of the listing; `next` empty when no bucket follows the page.
std::string listing_json(const std::vector<Bucket>& page, const std::string& next);

struct DateFields {
  bool created = false;
  bool accessed = false;
  bool modified = false;
};
std::string object_details_json(const ObjectMeta& m, const std::string& location, int version,
                                DateFields dates = DateFields());

// Request bodies; false with a reason for the client on a malformed body.
bool parse_create_bucket(const std::string& body, int version, Bucket& out, std::string& why);
bool parse_grant(const std::string& body, int version, std::vector<Permission>& out, std::string& why);
bool parse_revoke(const std::string& body, int version, std::vector<std::string>& out, std::string& why);

}  // namespace zelsrv
