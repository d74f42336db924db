// Bucket commands: mb, buckets, info, grant, revoke.
#include <CLI/CLI.hpp>

#include "cli.h"

namespace zelcli {
namespace {

std::string grants_text(const std::vector<zel::Permission>& list) {
  std::string text;
  for (const zel::Permission& p : list)
    text += escape_text(p.auth_id) + "\t" + zel_bucket_access_tostr(p.access) + "\n";
  return text.empty() ? "(no access granted)" : text;
}

std::vector<zel::Permission> parse_grants(const std::vector<std::string>& texts) {
  std::vector<zel::Permission> out;
  for (const std::string& t : texts) out.push_back(parse_grant(t));
  return out;
}

void add_mb(CLI::App& app, Context& ctx) {
  struct Args {
    std::string bucket, policy = "transient";
    std::vector<std::string> grants;
  };
  auto args = std::make_shared<Args>();
  CLI::App* cmd = app.add_subcommand("mb", "Create a bucket");
  cmd->add_option("BUCKET", args->bucket, "Bucket key")->required();
  cmd->add_option("--policy", args->policy, "Retention: transient, temporary or persistent")
      ->capture_default_str();
  cmd->add_option("--grant", args->grants, "Give AUTH_ID:read or AUTH_ID:full access (repeatable)");
  cmd->footer("Example:\n  zel mb photos --policy persistent --grant backup-svc:read");
  cmd->callback([&ctx, args] {
    ctx.action = [args](Context& c) {
      uint32_t policy = parse_policy(args->policy);
      auto result = c.client->create_bucket(args->bucket, policy, parse_grants(args->grants)).get();
      if (!result) return c.fail(args->bucket, result.error());
      c.out.result(json_bucket(result.value()),
                   "created bucket " + args->bucket + "\n" + text_bucket(result.value()));
      return 0;
    };
  });
}

// Follows the pages to the end, or stops after `limit` buckets.
int run_buckets(Context& c, const std::string& region, uint32_t limit) {
  std::vector<zel::BucketListItem> all;
  std::string next;
  do {
    uint32_t page_size = limit > 0 ? std::min<uint32_t>(limit - static_cast<uint32_t>(all.size()), 100) : 100;
    auto page = c.client->list_buckets(region, page_size, next).get();
    if (!page) return c.fail(region.empty() ? "(all regions)" : region, page.error());
    for (auto& b : page.value().buckets) all.push_back(b);
    next = page.value().next_page;
  } while (!next.empty() && (limit == 0 || all.size() < limit));
  if (limit > 0 && all.size() > limit) all.resize(limit);
  json_t* list = json_array();
  std::string text;
  for (const auto& b : all) {
    json_array_append_new(
        list, json_pack("{s:s, s:s}", "bucket", b.bucket_key.c_str(), "policy", b.policy.c_str()));
    json_set_date(json_array_get(list, json_array_size(list) - 1), "created", b.created_date);
    text +=
        escape_text(b.bucket_key) + "\t" + escape_text(b.policy) + "\t" + format_time(b.created_date) + "\n";
  }
  c.out.result(json_pack("{s:o}", "buckets", list), text.empty() ? "(no buckets)" : text);
  return 0;
}

void add_buckets(CLI::App& app, Context& ctx) {
  struct Args {
    std::string region;
    uint32_t limit = 0;
  };
  auto args = std::make_shared<Args>();
  CLI::App* cmd = app.add_subcommand("buckets", "List buckets (all pages unless --limit is given)");
  cmd->add_option("--region", args->region, "Only buckets of this region");
  cmd->add_option("--limit", args->limit, "At most this many buckets")->check(CLI::PositiveNumber);
  cmd->footer("Example:\n  zel buckets --limit 20");
  cmd->callback([&ctx, args] {
    ctx.action = [args](Context& c) { return run_buckets(c, args->region, args->limit); };
  });
}

void add_info(CLI::App& app, Context& ctx) {
  auto bucket = std::make_shared<std::string>();
  CLI::App* cmd = app.add_subcommand("info", "Show a bucket's details");
  cmd->add_option("BUCKET", *bucket, "Bucket key")->required();
  cmd->footer("Example:\n  zel info photos");
  cmd->callback([&ctx, bucket] {
    ctx.action = [bucket](Context& c) {
      auto result = c.client->bucket_details(*bucket).get();
      if (!result) return c.fail(*bucket, result.error());
      c.out.result(json_bucket(result.value()), text_bucket(result.value()));
      return 0;
    };
  });
}

void add_grant(CLI::App& app, Context& ctx) {
  struct Args {
    std::string bucket;
    std::vector<std::string> grants;
  };
  auto args = std::make_shared<Args>();
  CLI::App* cmd = app.add_subcommand("grant", "Give services access to a bucket");
  cmd->add_option("BUCKET", args->bucket, "Bucket key")->required();
  cmd->add_option("GRANT", args->grants, "AUTH_ID:read or AUTH_ID:full")->required();
  cmd->footer("Example:\n  zel grant photos backup-svc:read editor-app:full");
  cmd->callback([&ctx, args] {
    ctx.action = [args](Context& c) {
      auto result = c.client->grant(args->bucket, parse_grants(args->grants)).get();
      if (!result) return c.fail(args->bucket, result.error());
      c.out.result(json_pack("{s:s, s:o}", "bucket", args->bucket.c_str(), "permissions",
                             json_permissions(result.value())),
                   grants_text(result.value()));
      return 0;
    };
  });
}

void add_revoke(CLI::App& app, Context& ctx) {
  struct Args {
    std::string bucket;
    std::vector<std::string> ids;
  };
  auto args = std::make_shared<Args>();
  CLI::App* cmd = app.add_subcommand("revoke", "Withdraw services' access to a bucket");
  cmd->add_option("BUCKET", args->bucket, "Bucket key")->required();
  cmd->add_option("AUTH_ID", args->ids, "Service to withdraw")->required();
  cmd->footer("Example:\n  zel revoke photos backup-svc");
  cmd->callback([&ctx, args] {
    ctx.action = [args](Context& c) {
      auto result = c.client->revoke(args->bucket, args->ids).get();
      if (!result) return c.fail(args->bucket, result.error());
      json_t* ids = json_array();
      std::string names;
      for (const auto& id : args->ids) {
        json_array_append_new(ids, json_string(id.c_str()));
        names += (names.empty() ? "" : ", ") + id;
      }
      c.out.result(json_pack("{s:s, s:o}", "bucket", args->bucket.c_str(), "revoked", ids),
                   "revoked access to " + args->bucket + " for " + names);
      return 0;
    };
  });
}

}  // namespace

void add_bucket_commands(CLI::App& app, Context& ctx) {
  add_mb(app, ctx);
  add_buckets(app, ctx);
  add_info(app, ctx);
  add_grant(app, ctx);
  add_revoke(app, ctx);
}

}  // namespace zelcli
