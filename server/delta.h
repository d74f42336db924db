// The delta engine of the emulator: its REST API under /kri/api/v1, the
// storage service's delta headers on downloads, details and uploads, the
// job runs, and the test API's job controls.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "router.h"

namespace zelsrv {

// The body of a create or apply request.
struct DeltaRequest {
  std::string bucket;
  std::string object;    // "ObjectName" or "ObjectName1": the base
  std::string other;     // "ObjectName2" (target) or "NewObjectName"
  std::string new_sha1;  // "NewObjectSHA1", lower-cased
  uint64_t block_size = 0;
};

// False with a reason for the client when the body does not fit `kind`.
bool parse_delta_request(const std::string& kind, const std::string& body, DeltaRequest& out,
                         std::string& why);
bool valid_sha1(const std::string& text);

// Address of an object's download, as a client reaching `host` uses it.
std::string object_location(const std::string& host, int version, const std::string& bucket,
                            const std::string& key);

// Runs one job; called on a job thread with no lock held.
JobOutcome run_delta_job(App& app, const JobOrder& order, JobControl& control);

// Starts the job threads once the stores are open.
bool start_delta_engine(App& app, std::string& err);

// Serves a request whose path starts with /kri/.
void serve_delta_api(Ctx& c, const std::vector<std::string>& raw);

// Storage-side hooks. Each of the first two answers the request and returns
// true when it carried "x-pmw-delta-object"; delta_upload_refused answers
// 400 for a malformed patch upload; delta_uploaded marks a stored patch.
bool delta_download(Ctx& c);
bool delta_details(Ctx& c);
bool delta_upload_refused(Ctx& c);
void delta_uploaded(Ctx& c, const ObjectMeta& m);

// Test API under /_emulator/delta.
void serve_delta_test_api(Ctx& c, const std::string& path);

}  // namespace zelsrv
