// Bucket endpoints: create, details, listing, grant and revoke.
#include <cstdlib>

#include "bodies.h"
#include "router.h"
#include "util.h"

namespace zelsrv {
namespace {

const size_t kDefaultPage = 10;
const size_t kMaxPage = 1000;

void create_bucket(Ctx& c) {
  std::string body, why;
  if (!c.body_text(body)) return;
  Bucket b;
  if (!parse_create_bucket(body, c.version, b, why)) return c.error(400, why);
  b.owner = c.principal;
  b.created = now_ms();
  if (!c.app.buckets.create(b)) return c.error(409, "Bucket already exists");
  c.reply(200, bucket_details_json(b, c.version));
}

void bucket_details(Ctx& c) { c.reply(200, bucket_details_json(c.bucket, c.version)); }

bool page_size(const std::string& text, size_t& out) {
  if (text.empty()) {
    out = kDefaultPage;
    return true;
  }
  char* end = nullptr;
  unsigned long v = std::strtoul(text.c_str(), &end, 10);
  if (*end != '\0' || text[0] == '-' || v > kMaxPage) return false;
  out = v == 0 ? kDefaultPage : v;
  return true;
}

void list_buckets(Ctx& c) {
  size_t limit = 0;
  if (!page_size(c.req.get_param_value("limit"), limit))
    return c.error(400, "limit must be a number from 0 to " + std::to_string(kMaxPage));
  // The emulator has a single region: any region asked for lists everything.
  std::vector<Bucket> page = c.app.buckets.list(c.principal, c.req.get_param_value("startAt"), limit + 1);
  std::string next;
  if (page.size() > limit) {
    next = page[limit].key;
    page.resize(limit);
  }
  c.reply(200, listing_json(page, next));
}

void grant_access(Ctx& c) {
  std::string body, why;
  if (!c.body_text(body)) return;
  std::vector<Permission> perms;
  if (!parse_grant(body, c.version, perms, why)) return c.error(400, why);
  c.app.buckets.grant(c.bucket.key, c.bucket.owner, perms);
  c.app.buckets.get(c.bucket.key, c.bucket);
  c.reply(200, permissions_json(c.bucket.permissions, c.version));
}

void revoke_access(Ctx& c) {
  std::string body, why;
  if (!c.body_text(body)) return;
  std::vector<std::string> ids;
  if (!parse_revoke(body, c.version, ids, why)) return c.error(400, why);
  c.app.buckets.revoke(c.bucket.key, ids);
  c.app.buckets.get(c.bucket.key, c.bucket);
  c.reply(200, permissions_json(c.bucket.permissions, c.version));
}

}  // namespace

std::vector<Route> bucket_routes() {
  return {
      {"POST", "buckets", Access::kNone, create_bucket},
      {"GET", "buckets", Access::kNone, list_buckets},
      {"GET", "buckets/*/details", Access::kRead, bucket_details},
      {"POST", "buckets/*/grant", Access::kFull, grant_access},
      {"POST", "buckets/*/revoke", Access::kFull, revoke_access},
  };
}

}  // namespace zelsrv
