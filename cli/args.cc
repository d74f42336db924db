// Parsing of command arguments, and the text and JSON forms of records.
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cmath>
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

Target parse_target_prefix(const std::string& text) {
  size_t slash = text.find('/');
  if (slash == 0 || text.empty()) throw UsageError("'" + text + "' is not BUCKET/ or BUCKET/KEY");
  Target t{text.substr(0, slash), slash == std::string::npos ? "" : text.substr(slash + 1)};
  require_utf8(t.bucket, "the bucket key");
  require_utf8(t.key, "the object key");
  return t;
}

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

// Binary units: K, M and G (with or without "i" and "B") are powers of 1024.
uint64_t parse_chunk_size(const std::string& text) {
  constexpr uint64_t kMin = 64 * 1024, kMax = 4ULL << 30;
  size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
  uint64_t value = 0;
  std::string unit = text.substr(digits);
  for (char& c : unit) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  static const struct {
    const char* name;
    uint64_t scale;
  } kUnits[] = {{"", 1},
                {"B", 1},
                {"K", 1ULL << 10},
                {"KI", 1ULL << 10},
                {"KB", 1ULL << 10},
                {"KIB", 1ULL << 10},
                {"M", 1ULL << 20},
                {"MI", 1ULL << 20},
                {"MB", 1ULL << 20},
                {"MIB", 1ULL << 20},
                {"G", 1ULL << 30},
                {"GI", 1ULL << 30},
                {"GB", 1ULL << 30},
                {"GIB", 1ULL << 30}};
  uint64_t scale = 0;
  for (const auto& u : kUnits)
    if (unit == u.name) scale = u.scale;
  bool ok = digits != 0 && scale != 0 && digits <= 10 && parse_u64(text.substr(0, digits), value);
  if (!ok || value * scale < kMin || value * scale > kMax)
    throw UsageError("--chunk-size '" + text + "' must be 64KiB to 4GiB (e.g. 65536, 8M, 5MiB)");
  return value * scale;
}

std::string normalise_endpoint(const std::string& text) {
  std::string out = text;
  while (out.size() > 1 && out.back() == '/') out.pop_back();
  return out;
}

std::string last_segment(const std::string& path) {
  std::string trimmed = path;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
  size_t slash = trimmed.rfind('/');
  return slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
}

bool is_directory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
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

std::string iso_time(int64_t stamp_ms) {
  time_t seconds = static_cast<time_t>(stamp_ms / 1000);
  struct tm utc;
  char text[40];
  if (stamp_ms <= 0 || gmtime_r(&seconds, &utc) == nullptr ||
      strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc) == 0)
    return "";
  char millis[8];
  std::snprintf(millis, sizeof millis, ".%03dZ", static_cast<int>(stamp_ms % 1000));
  return std::string(text) + millis;
}

json_t* json_real_rounded(double value, double unit) { return json_real(std::round(value / unit) * unit); }

// A date as "NAME": ISO 8601 UTC (null when the service gave none) and
// "NAME_ms": the raw milliseconds.
void json_set_date(json_t* doc, const char* name, int64_t stamp_ms) {
  std::string iso = iso_time(stamp_ms);
  json_object_set_new(doc, name, iso.empty() ? json_null() : json_string(iso.c_str()));
  json_object_set_new(doc, (std::string(name) + "_ms").c_str(), json_integer(stamp_ms));
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
  json_t* doc =
      json_pack("{s:s, s:s, s:s, s:o}", "bucket", d.bucket_key.c_str(), "owner", d.owner.c_str(), "policy",
                zel_bucket_policy_tostr(d.policy), "permissions", json_permissions(d.permissions));
  json_set_date(doc, "created", d.created_date);
  return doc;
}

json_t* json_object(const zel::ObjectDetails& d) {
  json_t* doc = json_pack("{s:s, s:s, s:s, s:s, s:I, s:s, s:s}", "bucket", d.bucket_key.c_str(), "key",
                          d.object_key.c_str(), "object_id", d.object_id.c_str(), "sha1", d.sha1.c_str(),
                          "size", static_cast<json_int_t>(d.size), "content_type", d.content_type.c_str(),
                          "location", d.location.c_str());
  json_set_date(doc, "created", d.created_date);
  json_set_date(doc, "last_accessed", d.last_accessed_date);
  json_set_date(doc, "last_modified", d.last_modified_date);
  return doc;
}

std::string text_bucket(const zel::BucketDetails& d) {
  std::string access;
  for (const zel::Permission& p : d.permissions)
    access += (access.empty() ? "" : ", ") + p.auth_id + ":" + zel_bucket_access_tostr(p.access);
  return "bucket:   " + escape_text(d.bucket_key) + "\nowner:    " + escape_text(d.owner) +
         "\npolicy:   " + zel_bucket_policy_tostr(d.policy) + "\ncreated:  " + format_time(d.created_date) +
         "\naccess:   " + (access.empty() ? "-" : escape_text(access)) + "\n";
}

std::string text_object(const zel::ObjectDetails& d) {
  return "object:   " + escape_text(d.bucket_key + "/" + d.object_key) +
         "\nsize:     " + std::to_string(d.size) + " (" + human_bytes(static_cast<double>(d.size)) +
         ")\nsha1:     " + escape_text(d.sha1) + "\ntype:     " + escape_text(d.content_type) +
         "\nid:       " + escape_text(d.object_id) + "\nlocation: " + escape_text(d.location) +
         "\ncreated:  " + format_time(d.created_date) + "\nmodified: " + format_time(d.last_modified_date) +
         "\n";
}

}  // namespace zelcli
