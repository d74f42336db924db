// Parsing of command arguments, and the text and JSON forms of records.
#include <sys/stat.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>

#include "cli.h"

namespace zelcli {
namespace {

bool parse_u64(const std::string& text, uint64_t& out) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
  errno = 0;
  char* end = nullptr;
  out = std::strtoull(text.c_str(), &end, 10);
  return errno == 0 && end != nullptr && *end == '\0';
}

// Keys reach the service as UTF-16, so anything that is not UTF-8 is
// refused here rather than sent altered.
void require_utf8(const std::string& text, const char* what) {
  std::u16string unused;
  if (!zel::utf8_to_utf16(text, unused)) throw UsageError(std::string(what) + " is not valid UTF-8");
}

}  // namespace

Target parse_target(const std::string& text) {
  size_t slash = text.find('/');
  if (slash == std::string::npos || slash == 0 || slash + 1 == text.size())
    throw UsageError("'" + text + "' is not BUCKET/KEY");
  Target t{text.substr(0, slash), text.substr(slash + 1)};
  require_utf8(t.bucket, "the bucket key");
  require_utf8(t.key, "the object key");
  return t;
}

zel::ByteRange parse_range(const std::string& text) {
  size_t dash = text.find('-');
  zel::ByteRange r;
  if (dash == std::string::npos || !parse_u64(text.substr(0, dash), r.start) ||
      !parse_u64(text.substr(dash + 1), r.end) || r.end < r.start)
    throw UsageError("'" + text + "' is not a byte range START-END (inclusive, START <= END)");
  return r;
}

zel::Permission parse_grant(const std::string& text) {
  size_t colon = text.rfind(':');
  std::string level = colon == std::string::npos ? "" : text.substr(colon + 1);
  if (colon == 0 || (level != "read" && level != "full"))
    throw UsageError("'" + text + "' is not AUTH_ID:read or AUTH_ID:full");
  return {text.substr(0, colon), level == "read" ? ZEL_BUCKET_ACCESS_READ : ZEL_BUCKET_ACCESS_FULL};
}

uint32_t parse_policy(const std::string& text) {
  if (text == "transient") return ZEL_BUCKET_POLICY_TRANSIENT;
  if (text == "temporary") return ZEL_BUCKET_POLICY_TEMPORARY;
  if (text == "persistent") return ZEL_BUCKET_POLICY_PERSISTENT;
  throw UsageError("'" + text + "' is not a policy (transient, temporary or persistent)");
}

std::string new_session_id() {
  std::random_device device;
  std::mt19937_64 random((static_cast<uint64_t>(device()) << 32) ^ device());
  char id[33];
  std::snprintf(id, sizeof id, "%016" PRIx64 "%016" PRIx64, random(), random());
  return id;
}

std::string human_bytes(double bytes) {
  static const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  int unit = 0;
  while (bytes >= 1024 && unit < 4) bytes /= 1024, ++unit;
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
  return text;
}

// The service's stamps are milliseconds since the epoch; anything too small
// for that is taken as seconds.
std::string format_time(int64_t stamp) {
  if (stamp == 0) return "-";
  time_t seconds = static_cast<time_t>(stamp > 100000000000LL ? stamp / 1000 : stamp);
  struct tm utc;
  char text[32];
  if (gmtime_r(&seconds, &utc) == nullptr || strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &utc) == 0)
    return std::to_string(stamp);
  return text;
}

bool file_size(const std::string& path, uint64_t& size) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  size = static_cast<uint64_t>(st.st_size);
  return true;
}

json_t* json_permissions(const std::vector<zel::Permission>& list) {
  json_t* array = json_array();
  for (const zel::Permission& p : list)
    json_array_append_new(array, json_pack("{s:s, s:s}", "auth_id", p.auth_id.c_str(), "access",
                                           zel_bucket_access_tostr(p.access)));
  return array;
}

json_t* json_bucket(const zel::BucketDetails& d) {
  return json_pack("{s:s, s:s, s:s, s:I, s:o}", "bucket", d.bucket_key.c_str(), "owner", d.owner.c_str(),
                   "policy", zel_bucket_policy_tostr(d.policy), "created_date",
                   static_cast<json_int_t>(d.created_date), "permissions", json_permissions(d.permissions));
}

json_t* json_object(const zel::ObjectDetails& d) {
  return json_pack("{s:s, s:s, s:s, s:s, s:I, s:s, s:s, s:I, s:I, s:I}", "bucket", d.bucket_key.c_str(),
                   "key", d.object_key.c_str(), "object_id", d.object_id.c_str(), "sha1", d.sha1.c_str(),
                   "size", static_cast<json_int_t>(d.size), "content_type", d.content_type.c_str(),
                   "location", d.location.c_str(), "created_date", static_cast<json_int_t>(d.created_date),
                   "last_accessed_date", static_cast<json_int_t>(d.last_accessed_date), "last_modified_date",
                   static_cast<json_int_t>(d.last_modified_date));
}

std::string text_bucket(const zel::BucketDetails& d) {
  std::string access;
  for (const zel::Permission& p : d.permissions)
    access += (access.empty() ? "" : ", ") + p.auth_id + ":" + zel_bucket_access_tostr(p.access);
  return "bucket:   " + d.bucket_key + "\nowner:    " + d.owner +
         "\npolicy:   " + zel_bucket_policy_tostr(d.policy) + "\ncreated:  " + format_time(d.created_date) +
         "\naccess:   " + (access.empty() ? "-" : access) + "\n";
}

std::string text_object(const zel::ObjectDetails& d) {
  return "object:   " + d.bucket_key + "/" + d.object_key + "\nsize:     " + std::to_string(d.size) + " (" +
         human_bytes(static_cast<double>(d.size)) + ")\nsha1:     " + d.sha1 +
         "\ntype:     " + d.content_type + "\nid:       " + d.object_id + "\nlocation: " + d.location +
         "\ncreated:  " + format_time(d.created_date) + "\nmodified: " + format_time(d.last_modified_date) +
         "\n";
}

}  // namespace zelcli
