// End-to-end tests of the zel command-line tool: the real binary against an
// emulator, checking what it prints, its exit status and what it sent.
#include "cli_support.h"

namespace {

using namespace zeltest;

TEST_F(CliTest, BucketCommandsPrintTextAndJson) {
  Ran mb = zel({"mb", "photos", "--policy", "persistent", "--grant", "svc-a:read", "--grant", "svc-b:full"});
  ASSERT_EQ(mb.status, 0) << describe(mb);
  EXPECT_NE(mb.out.find("created bucket photos"), std::string::npos) << mb.out;
  EXPECT_NE(mb.out.find("policy:   persistent"), std::string::npos) << mb.out;
  EXPECT_NE(mb.out.find("access:   svc-a:read, svc-b:full"), std::string::npos)
      << "grants in the order given";
  EXPECT_EQ(mb.err, "");

  Ran info = zel({"--json", "info", "photos"});
  ASSERT_EQ(info.status, 0) << describe(info);
  auto d = result(info);
  EXPECT_EQ(str(d, "bucket"), "photos");
  EXPECT_EQ(str(d, "policy"), "persistent");
  EXPECT_EQ(str(d, "owner"), "local");
  json_t* perms = json_object_get(d.get(), "permissions");
  ASSERT_EQ(json_array_size(perms), 2u);
  EXPECT_EQ(json_str(json_array_get(perms, 1), "access"), "full");

  Ran grant = zel({"grant", "photos", "svc-c:read"});
  ASSERT_EQ(grant.status, 0) << describe(grant);
  EXPECT_NE(grant.out.find("svc-c\tread"), std::string::npos)
      << "the whole list after the grant: " << grant.out;
  EXPECT_NE(grant.out.find("svc-a\tread"), std::string::npos) << grant.out;
  Ran revoke = zel({"--json", "revoke", "photos", "svc-a", "svc-c"});
  ASSERT_EQ(revoke.status, 0) << describe(revoke);
  EXPECT_EQ(json_array_size(json_object_get(result(revoke).get(), "revoked")), 2u);
  Ran after = zel({"info", "photos"});
  EXPECT_NE(after.out.find("access:   svc-b:full\n"), std::string::npos) << after.out;
}

TEST_F(CliTest, BucketListingFollowsEveryPageUnlessLimited) {
  for (int i = 0; i < 105; ++i) {
    char key[16];
    std::snprintf(key, sizeof key, "b%03d", i);
    ASSERT_EQ(http("POST", server_.api(2) + "/buckets", {kAuthHeader, "Content-Type: application/json"},
                   std::string(R"({"bucketKey":")") + key + R"(","policyKey":"temporary","allow":[]})")
                  .status,
              200);
  }
  server_.clear_requests();
  Ran all = zel({"--json", "buckets"});
  ASSERT_EQ(all.status, 0) << describe(all);
  auto listing = result(all);
  json_t* list = json_object_get(listing.get(), "buckets");
  ASSERT_EQ(json_array_size(list), 106u) << "105 made here and the fixture's";
  EXPECT_EQ(json_str(json_array_get(list, 0), "bucket"), "b000") << "service order";
  EXPECT_EQ(zeltest::matching(server_.requests(), "GET", "/buckets?").size(), 2u) << "two pages";

  server_.clear_requests();
  Ran some = zel({"buckets", "--limit", "3"});
  ASSERT_EQ(some.status, 0) << describe(some);
  EXPECT_EQ(some.out.rfind("b000\ttemporary\t20", 0), 0u) << some.out;
  EXPECT_EQ(std::count(some.out.begin(), some.out.end(), '\n'), 3);
  auto sent = zeltest::matching(server_.requests(), "GET", "/buckets?");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_NE(sent[0].target.find("limit=3"), std::string::npos) << sent[0].target;
}

TEST_F(CliTest, ObjectCommandsWithSlashesAndNonAsciiKeys) {
  const std::string key = "dir/sub/ünï ☃.bin";
  const std::string escaped = "dir%2Fsub%2F%C3%BCn%C3%AF%20%E2%98%83.bin";
  std::string data = pattern_bytes(1000, 7);
  std::string file = dir_.write("small", data);
  Ran put = zel({"put", file, "bkt/" + key, "--content-type", "text/plain"});
  ASSERT_EQ(put.status, 0) << describe(put);
  EXPECT_NE(put.out.find("uploaded " + file + " to bkt/" + key + ": 1000 B in "), std::string::npos)
      << put.out;
  EXPECT_NE(put.out.find("sha1 " + sha1_hex(data)), std::string::npos) << put.out;
  EXPECT_EQ(put.err, "") << "no progress bar when standard error is not a terminal";
  EXPECT_EQ(stored(escaped), data);

  Ran stat = zel({"--json", "stat", "bkt/" + key});
  ASSERT_EQ(stat.status, 0) << describe(stat);
  auto d = result(stat);
  EXPECT_EQ(str(d, "key"), key);
  EXPECT_EQ(str(d, "sha1"), sha1_hex(data));
  EXPECT_EQ(str(d, "content_type"), "text/plain");
  EXPECT_EQ(num(d, "size"), 1000);
  Ran text = zel({"stat", "bkt/" + key});
  EXPECT_NE(text.out.find("object:   bkt/" + key + "\nsize:     1000 (1000 B)\n"), std::string::npos)
      << text.out;

  Ran cp = zel({"cp", "bkt/" + key, "bkt/copy/ß.bin"});
  ASSERT_EQ(cp.status, 0) << describe(cp);
  EXPECT_EQ(cp.out, "copied bkt/" + key + " to bkt/copy/ß.bin (sha1 " + sha1_hex(data) + ")\n");
  EXPECT_EQ(stored("copy%2F%C3%9F.bin"), data);

  Ran rm = zel({"rm", "bkt/copy/ß.bin"});
  EXPECT_EQ(rm.out, "deleted bkt/copy/ß.bin\n") << describe(rm);
  EXPECT_EQ(zel({"stat", "bkt/copy/ß.bin"}).status, 1) << "gone after rm";
  Ran restore = zel({"--json", "restore", "bkt/copy/ß.bin"});
  ASSERT_EQ(restore.status, 0) << describe(restore);
  EXPECT_EQ(str(result(restore), "action"), "restored");
  EXPECT_EQ(zel({"stat", "bkt/copy/ß.bin"}).status, 0) << "back after restore";
  Ran touch = zel({"touch", "bkt/copy/ß.bin"});
  ASSERT_EQ(touch.status, 0) << describe(touch);
  EXPECT_EQ(touch.out.rfind("expiration reset for bkt/copy/ß.bin\n", 0), 0u) << touch.out;
  EXPECT_EQ(zeltest::matching(server_.requests(), "POST", "resetexpiration").size(), 1u);
}

TEST_F(CliTest, TransfersInChunksWithRangesAndByUrl) {
  std::string data = pattern_bytes(300000, 9);
  std::string file = dir_.write("big", data);
  Ran put = zel({"--json", "put", file, "bkt/big"});
  ASSERT_EQ(put.status, 0) << describe(put);
  auto d = result(put);
  EXPECT_EQ(str(d, "action"), "uploaded");
  EXPECT_EQ(num(d, "size"), 300000);
  EXPECT_EQ(str(d, "sha1"), sha1_hex(data));
  EXPECT_EQ(str(zeltest::JsonPtr(json_incref(json_object_get(d.get(), "object"))), "key"), "big");
  EXPECT_EQ(zeltest::matching(server_.requests(), "PUT", "/resumable").size(), 5u) << "65536-byte chunks";

  Ran get = zel({"get", "bkt/big", dir_.file("back")});
  ASSERT_EQ(get.status, 0) << describe(get);
  EXPECT_EQ(zeltest::read_file(dir_.file("back")), data);
  EXPECT_NE(get.out.find("downloaded bkt/big to " + dir_.file("back") + ": 293.0 KiB in "), std::string::npos)
      << get.out;
  EXPECT_NE(get.out.find("sha1 " + sha1_hex(data)), std::string::npos) << "the local file's SHA-1";

  Ran part = zel({"--json", "get", "bkt/big", dir_.file("part"), "--range", "100-199"});
  ASSERT_EQ(part.status, 0) << describe(part);
  EXPECT_EQ(zeltest::read_file(dir_.file("part")), data.substr(100, 100));
  EXPECT_EQ(num(result(part), "size"), 100);

  Ran ranged = zel({"put", file, "bkt/ranged", "--range", "0-99", "--session", "s-r"});
  ASSERT_EQ(ranged.status, 0) << describe(ranged);
  EXPECT_EQ(ranged.out,
            "sent 100 bytes to bkt/ranged in session s-r; the service still misses other ranges\n");
  EXPECT_EQ(zel({"session", "bkt/ranged", "s-r"}).out, "session s-r of bkt/ranged holds bytes: 0-99\n");

  Ran no_bucket = zel({"put", file, "newbkt/big"});
  EXPECT_EQ(no_bucket.status, 1) << describe(no_bucket);
  Ran create = zel({"-q", "put", file, "newbkt/big", "--create-bucket"});
  ASSERT_EQ(create.status, 0) << describe(create);
  EXPECT_EQ(create.err, "");
  EXPECT_EQ(http("GET", server_.api(2) + "/buckets/newbkt/details", {kAuthHeader}).status, 200);

  std::string url = server_.api(2) + "/buckets/bkt/objects/big";
  Ran anonymous = zel({"get-url", url, dir_.file("anon")});
  EXPECT_EQ(anonymous.status, 1) << "the emulator wants a token: " << describe(anonymous);
  Ran by_url = zel({"get-url", url, dir_.file("url"), "--auth"});
  ASSERT_EQ(by_url.status, 0) << describe(by_url);
  EXPECT_EQ(zeltest::read_file(dir_.file("url")), data);
}

TEST_F(CliTest, ResumeSendsOnlyWhatTheServiceMisses) {
  std::string data = pattern_bytes(4 * 65536 + 500, 3);
  std::string file = dir_.write("resume", data);
  ASSERT_TRUE(
      server_.add_fault(R"({"method":"PUT","path":"resumable","header":"Content-Range: bytes 65536-",)"
                        R"("status":503,"times":1})"));
  Ran first = zel({"--retries", "0", "put", file, "bkt/r/ü", "--session", "s-0001"});
  ASSERT_EQ(first.status, 1) << describe(first);
  EXPECT_NE(first.err.find("zel put: bkt/r/ü: 503 Resumable upload failed or was cancelled\n"),
            std::string::npos)
      << first.err;
  EXPECT_NE(first.err.find("zel resume " + file + " bkt/r/ü --session s-0001"), std::string::npos)
      << first.err;

  Ran session = zel({"session", "bkt/r/ü", "s-0001"});
  EXPECT_EQ(session.out, "session s-0001 of bkt/r/ü holds bytes: 0-65535, 131072-262643\n")
      << describe(session);

  server_.clear_requests();
  Ran resume = zel({"resume", file, "bkt/r/ü", "--session", "s-0001"});
  ASSERT_EQ(resume.status, 0) << describe(resume);
  EXPECT_NE(resume.err.find("the service holds 197108 of 262644 bytes; sending 1 missing range(s)"),
            std::string::npos)
      << resume.err;
  EXPECT_NE(resume.out.find("uploaded " + file + " to bkt/r/ü: 64.0 KiB in"), std::string::npos)
      << resume.out;
  EXPECT_NE(resume.out.find("sha1 " + sha1_hex(data)), std::string::npos) << resume.out;
  auto sent = zeltest::matching(server_.requests(), "PUT", "/objects/");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].header("Content-Range"), "bytes 65536-131071/262644");
  EXPECT_EQ(sent[0].header("Session-Id"), "s-0001");
  EXPECT_EQ(stored("r%2F%C3%BC"), data);

  // A finished session needs nothing more; an unknown one sends everything.
  server_.clear_requests();
  Ran again = zel({"--json", "resume", file, "bkt/r/ü", "--session", "s-0001"});
  ASSERT_EQ(again.status, 0) << describe(again);
  EXPECT_EQ(str(result(again), "sha1"), sha1_hex(data));
  EXPECT_TRUE(zeltest::matching(server_.requests(), "PUT", "/objects/").empty());
  Ran fresh = zel({"resume", file, "bkt/fresh", "--session", "s-0002"});
  ASSERT_EQ(fresh.status, 0) << describe(fresh);
  EXPECT_EQ(stored("fresh"), data);
}

TEST_F(CliTest, FailuresSayWhatHappenedByKind) {
  std::string f = dir_.write("f", "x");
  const std::string absent = dir_.file("absent");
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string err;  // exact, or (when `part`) a piece of it
    bool part;
  } cases[] = {
      {{"stat", "bkt/nothing/here"}, 1, "zel stat: bkt/nothing/here: 404 Object not found\n", false},
      {{"--token", "wrong", "put", f, "bkt/k"},
       1,
       "zel put: bkt/k: 401 Unauthorized\n",
       false},                                                                // no resume hint
      {{"mb", "bkt"}, 1, "zel mb: bkt: 409 Bucket already exists\n", false},  // the reason, never raw JSON
      {{"put", f, "nob/k"},
       1,
       "zel put: nob/k: 404 no bucket nob\nhint: add --create-bucket to create it\n",
       false},
      {{"--api", "1", "buckets"}, 1, "the service's answer could not be read\nhint: check --api", true},
      {{"put", absent, "bkt/k"}, 3, "zel put: cannot use " + absent + ": No such file or directory\n", false},
      {{"put", dir_.file(""), "bkt/k"}, 3, ": Is a directory\n", true},
  };
  for (const Case& c : cases) {
    Ran r = zel(c.args);
    EXPECT_EQ(r.status, c.status) << describe(r);
    if (c.part) {
      EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
    } else {
      EXPECT_EQ(r.err, c.err);
    }
    EXPECT_EQ(r.out, "");
  }
  Ran no_server = zel({"--endpoint", "http://127.0.0.1:1", "buckets"}, {}, false);
  EXPECT_EQ(no_server.status, 4);
  EXPECT_EQ(no_server.err,
            "zel buckets: cannot reach http://127.0.0.1:1: Couldn't connect to server\n"
            "hint: is zel-server running? start it with: zel-server --port 1\n");
  // Text from the service cannot steer the terminal.
  ASSERT_TRUE(server_.add_fault(
      R"({"method":"GET","path":"details","status":500,"body":{"reason":"bad\u001b[2J\nnext\u0085"}})"));
  EXPECT_EQ(zel({"stat", "bkt/k"}).err, "zel stat: bkt/k: 500 bad\\x1b[2J\\nnext\\u0085\n");
}

TEST_F(CliTest, NumericOptionsAndUsageErrorsExitTwoWithOneLine) {
  struct Case {
    std::vector<std::string> args;
    std::string message;
  };
  const Case cases[] = {
      {{"frobnicate"}, "zel: 'frobnicate' is not a zel command\n"},
      {{"rm", "bkt"}, "zel rm: 'bkt' is not BUCKET/KEY\nhint: run 'zel rm --help' for usage\n"},
      {{"stat", "bkt/"}, "zel stat: 'bkt/' is not BUCKET/KEY"},
      {{"get", "bkt/k", "f", "--range", "9-3"}, "zel get: '9-3' is not a byte range"},
      {{"grant", "bkt", "svc:write"}, "zel grant: 'svc:write' is not AUTH_ID:read or AUTH_ID:full"},
      {{"mb", "b2", "--policy", "forever"}, "zel mb: 'forever' is not a policy"},
      {{"stat", "bkt/\xff\xfe"}, "zel stat: the object key is not valid UTF-8"},
      {{"--api", "3", "buckets"}, "--api"},
      {{"put", "only-a-file"}, "BUCKET/KEY is required"},
      {{"--chunk-size", "1", "buckets"}, "--chunk-size '1' must be 64KiB to 4GiB"},
      {{"--chunk-size", "5GiB", "buckets"}, "--chunk-size '5GiB' must be"},
      {{"--chunk-size", "99999999999999999999999", "buckets"}, "must be 64KiB to 4GiB"},
      {{"--parallel", "many", "buckets"}, "--parallel"},
      {{"--timeout", "-1", "buckets"}, "--timeout"},
      {{"help", "nope"}, "zel help: 'nope' is not a zel command"},
      {{"--endpoint", "not a url", "buckets"}, "zel buckets: 'not a url' is not an endpoint URL"},
  };
  for (const Case& c : cases) {
    Ran r = zel(c.args);
    EXPECT_EQ(r.status, 2) << describe(r);
    EXPECT_NE(r.err.find(c.message), std::string::npos) << "want '" << c.message << "' in: " << r.err;
    EXPECT_LT(r.err.find('\n'), 100u) << "one short line: " << r.err;
  }
  EXPECT_EQ(zeltest::matching(server_.requests(), "", "/buckets/b2").size(), 0u)
      << "nothing sent on usage errors";
  for (const char* size : {"5MiB", "8M", "65536", "64k"}) {
    Ran ok = zel({"-q", "--chunk-size", size, "put", dir_.write("c", pattern_bytes(70000, 1)), "bkt/c"});
    EXPECT_EQ(ok.status, 0) << size << ": " << describe(ok);
  }
  Ran slash = zel({"--endpoint", server_.base_url() + "/", "info", "bkt"}, {}, false);
  EXPECT_EQ(slash.status, 0) << "a trailing slash is fine: " << describe(slash);
}

TEST_F(CliTest, HelpAndVersion) {
  Ran version = zel({"--version"}, {}, false);
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out.rfind("zel 2.", 0), 0u) << version.out;
  for (const auto& args : {std::vector<std::string>{}, std::vector<std::string>{"help"}}) {
    Ran usage = zel(args, {}, false);
    EXPECT_EQ(usage.status, 0) << describe(usage);
    EXPECT_NE(usage.out.find("Exit status:"), std::string::npos) << usage.out;
    EXPECT_NE(usage.out.find("  resume"), std::string::npos) << usage.out;
  }
  Ran put_help = zel({"help", "put"}, {}, false);
  EXPECT_EQ(put_help.status, 0);
  EXPECT_NE(put_help.out.find("Example:\n  zel put"), std::string::npos) << put_help.out;
  for (const char* command : {"mb", "buckets", "info", "grant", "revoke", "put", "resume", "get", "get-url",
                              "stat", "session", "cp", "rm", "restore", "touch"}) {
    Ran help = zel({command, "--help"});
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_NE(help.out.find(std::string("Example:\n  zel ") + command), std::string::npos) << help.out;
  }
}

// Every document: {"ok": true, "command", "result": {...}} or {"ok": false,
// "command", "error": {"kind", "target", "message", "status", "hint"}}.
void expect_schema(const Ran& r, const std::string& command) {
  zeltest::JsonPtr d = zeltest::parse_json(r.out);
  ASSERT_TRUE(d != nullptr) << command << ": not one JSON document: " << r.out << r.err;
  json_t* ok = json_object_get(d.get(), "ok");
  ASSERT_TRUE(json_is_boolean(ok)) << r.out;
  EXPECT_EQ(json_str(d.get(), "command"), command.c_str()) << r.out;
  EXPECT_EQ(json_is_true(ok), r.status == 0) << r.out;
  if (json_is_true(ok)) {
    EXPECT_EQ(zeltest::json_keys(d.get()), (std::vector<std::string>{"command", "ok", "result"})) << r.out;
    EXPECT_TRUE(json_is_object(json_object_get(d.get(), "result"))) << r.out;
    return;
  }
  EXPECT_EQ(zeltest::json_keys(d.get()), (std::vector<std::string>{"command", "error", "ok"})) << r.out;
  json_t* error = json_object_get(d.get(), "error");
  EXPECT_EQ(zeltest::json_keys(error),
            (std::vector<std::string>{"hint", "kind", "message", "status", "target"}))
      << r.out;
  std::string kind = json_str(error, "kind");
  EXPECT_EQ(json_is_integer(json_object_get(error, "status")), kind == "service") << r.out;
}

TEST_F(CliTest, OneJsonSchemaForEveryCommandAndFailure) {
  std::string file = dir_.write("j.txt", "json");
  const std::vector<std::vector<std::string>> commands = {
      {"mb", "jb"},
      {"buckets"},
      {"info", "jb"},
      {"grant", "jb", "s:read"},
      {"revoke", "jb", "s"},
      {"put", file, "bkt/j"},
      {"stat", "bkt/j"},
      {"session", "bkt/j", "nope"},
      {"cp", "bkt/j", "j2"},
      {"get", "bkt/j", dir_.file("j.out")},
      {"rm", "bkt/j2"},
      {"restore", "bkt/j2"},
      {"touch", "bkt/j"},
      {"get-url", server_.api(2) + "/buckets/bkt/objects/j", dir_.file("u.out"), "--auth"},
      {"resume", file, "bkt/j", "--session", "x"},
      {"mb", "jb"},
      {"put", dir_.file("none"), "bkt/j"},
      {"rm", "nokey"},
      {"--chunk-size", "1", "buckets"}};
  int failures = 0;
  for (const auto& args : commands) {
    std::vector<std::string> with_json{"--json"};
    with_json.insert(with_json.end(), args.begin(), args.end());
    Ran r = zel(with_json);
    failures += r.status != 0;
    std::string name = args[0] == "--chunk-size" ? "buckets" : args[0];
    expect_schema(r, name);
  }
  EXPECT_GE(failures, 4) << "the failing cases failed";
  Ran stat = zel({"--json", "stat", "bkt/j"});
  zeltest::JsonPtr d = result(stat);
  json_t* created_ms = json_object_get(d.get(), "created_ms");
  ASSERT_TRUE(json_is_integer(created_ms)) << stat.out;
  if (json_integer_value(created_ms) > 0) {
    std::string iso = str(d, "created");
    EXPECT_EQ(iso.size(), 24u) << "ISO 8601 UTC with milliseconds: " << iso;
    EXPECT_EQ(iso.substr(10, 1) + iso.substr(23), "TZ") << iso;
  }
  Ran put = zel({"--json", "put", file, "bkt/j3"});
  zeltest::JsonPtr summary = result(put);
  json_t* seconds = json_object_get(summary.get(), "seconds");
  ASSERT_TRUE(json_is_real(seconds)) << put.out;
  EXPECT_LT(put.out.find("\"bytes_per_second\"") - put.out.find("\"seconds\":"), 20u)
      << "rounded: " << put.out;
}

// An answer the library cannot read is one of the few things it logs.
TEST_F(CliTest, LibraryLogLinesOnlyWithVerbose) {
  ASSERT_TRUE(
      server_.add_fault(R"({"method":"POST","path":"/grant$","status":200,"body":"not a list","times":2})"));
  Ran quiet = zel({"grant", "bkt", "svc:read"});
  EXPECT_EQ(quiet.status, 1);
  const std::string refusal =
      "zel grant: bkt: the service's answer could not be read\nhint: check --api (1 or 2) and --endpoint\n";
  EXPECT_EQ(quiet.err, refusal);
  Ran verbose = zel({"-v", "grant", "bkt", "svc:read"});
  EXPECT_EQ(verbose.status, 1);
  EXPECT_NE(verbose.err.find(" src\\grant_bucket_access:"), std::string::npos)
      << "the library's lines: " << verbose.err;
  EXPECT_NE(verbose.err.find(": not a list\n"), std::string::npos) << verbose.err;
  EXPECT_NE(verbose.err.find(refusal), std::string::npos) << verbose.err;
}

TEST_F(CliTest, EndpointAndTokenComeFromTheEnvironment) {
  Ran ok = zel({"info", "bkt"}, {"ZEL_ENDPOINT=" + server_.base_url(), "ZEL_TOKEN=local-dev-token"}, false);
  EXPECT_EQ(ok.status, 0) << describe(ok);
  Ran bad = zel({"info", "bkt"}, {"ZEL_ENDPOINT=" + server_.base_url(), "ZEL_TOKEN=nope"}, false);
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.err, "zel info: bkt: 401 Unauthorized\n");
  Ran flag_wins = zel({"--token", "local-dev-token", "info", "bkt"}, {"ZEL_TOKEN=nope"});
  EXPECT_EQ(flag_wins.status, 0) << describe(flag_wins);
  auto seen = server_.requests();
  ASSERT_FALSE(seen.empty());
  EXPECT_EQ(seen.back().principal, "local") << "the flag's token was sent";
}

// Bash completion reads the installed zel's help; the man page is made from
// the same texts at build time.
TEST_F(CliTest, CompletionAndManPageFollowTheHelp) {
  if (access("/bin/bash", X_OK) != 0) GTEST_SKIP() << "bash is not installed";
  auto complete = [&](const std::string& words) {
    std::string script = "PATH=" ZEL_BIN_DIR ":$PATH; source " ZEL_SOURCE_DIR
                         "/cli/zel.bash-completion; COMP_WORDS=(" +
                         words + "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _zel; echo \"${COMPREPLY[*]}\"";
    return spawn({"/bin/bash", "-c", script}, {}).out;
  };
  EXPECT_EQ(complete("zel re"), "revoke restore resume\n");
  EXPECT_EQ(complete("zel --json p"), "put\n");
  EXPECT_EQ(complete("zel put --c"), "--content-type --create-bucket\n");
  EXPECT_EQ(complete("zel --chunk-size 8M get --r"), "--range --ratio\n");
  EXPECT_EQ(complete("zel get --base"), "--base --base-key\n");
  EXPECT_EQ(complete("zel help g"), "grant get get-url\n");
  EXPECT_EQ(complete("zel --api \"\""), "1 2\n");

  std::string man = zeltest::read_file(ZEL_BIN_DIR "/../cli/zel.1");
  if (man.empty()) GTEST_SKIP() << "no man page (help2man missing)";
  EXPECT_NE(man.find(".TH ZEL \"1\""), std::string::npos);
  for (const char* text : {"stall\\-timeout", "get\\-url", "resume", "Exit status"})
    EXPECT_NE(man.find(text), std::string::npos) << text;
}

}  // namespace
