// End-to-end tests of the zel command-line tool: the real binary against an
// emulator, checking what it prints, its exit status and what it sent.
#include <sstream>

#include "cli_support.h"

namespace {

using namespace zeltest;

// Whether `text` holds every one of `pieces`.
::testing::AssertionResult has(const std::string& text, std::initializer_list<std::string> pieces) {
  for (const std::string& piece : pieces)
    if (text.find(piece) == std::string::npos)
      return ::testing::AssertionFailure() << "no '" << piece << "' in: " << text;
  return ::testing::AssertionSuccess();
}

TEST_F(CliTest, BucketCommandsPrintTextAndJson) {
  Ran mb = zel({"mb", "photos", "--policy", "persistent", "--grant", "svc-a:read", "--grant", "svc-b:full"});
  EXPECT_EQ(mb.status, 0) << describe(mb);
  // Grants in the order given.
  EXPECT_TRUE(
      has(mb.out, {"created bucket photos", "policy:   persistent", "access:   svc-a:read, svc-b:full"}));
  EXPECT_EQ(mb.err, "");
  auto d = result(zel({"--json", "info", "photos"}));
  EXPECT_EQ(str(d, "bucket") + " " + str(d, "policy") + " " + str(d, "owner"), "photos persistent local");
  EXPECT_TRUE(has(zel({"grant", "photos", "svc-c:read"}).out, {"svc-c\tread", "svc-a\tread"}))
      << "the whole list after the grant";
  Ran revoke = zel({"--json", "revoke", "photos", "svc-a", "svc-c"});
  EXPECT_EQ(json_array_size(json_object_get(result(revoke).get(), "revoked")), 2u) << describe(revoke);
  EXPECT_TRUE(has(zel({"info", "photos"}).out, {"access:   svc-b:full\n"}));
}

TEST_F(CliTest, BucketListingFollowsEveryPageUnlessLimited) {
  for (int i = 1000; i < 1105; ++i)
    ASSERT_TRUE(server_.make_bucket("b" + std::to_string(i).substr(1), "temporary"));
  server_.clear_requests();
  auto listing = result(zel({"--json", "buckets"}));
  json_t* list = json_object_get(listing.get(), "buckets");
  ASSERT_EQ(json_array_size(list), 106u) << "105 made here and the fixture's";
  EXPECT_EQ(json_str(json_array_get(list, 0), "bucket"), "b000") << "service order";
  EXPECT_EQ(matching(server_.requests(), "GET", "/buckets?").size(), 2u) << "two pages";

  server_.clear_requests();
  Ran some = zel({"buckets", "--limit", "3"});
  EXPECT_EQ(some.out.rfind("b000\ttemporary\t20", 0), 0u) << describe(some);
  EXPECT_EQ(std::count(some.out.begin(), some.out.end(), '\n'), 3);
  auto sent = matching(server_.requests(), "GET", "/buckets?");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_TRUE(has(sent[0].target, {"limit=3"}));
}

TEST_F(CliTest, ObjectCommandsWithSlashesAndNonAsciiKeys) {
  const std::string key = "bkt/dir/sub/ünï ☃.bin", copy = "bkt/copy/ß.bin", data = pattern_bytes(1000, 7);
  std::string file = dir_.write("small", data);
  Ran put = zel({"put", file, key, "--content-type", "text/plain"});
  EXPECT_TRUE(has(put.out, {"uploaded " + file + " to " + key + ": 1000 B in ", "sha1 " + sha1_hex(data)}));
  EXPECT_EQ(put.err, "") << "no progress bar when standard error is not a terminal";
  EXPECT_EQ(stored("dir%2Fsub%2F%C3%BCn%C3%AF%20%E2%98%83.bin"), data);

  auto d = result(zel({"--json", "stat", key}));
  EXPECT_EQ(str(d, "key") + " " + str(d, "sha1") + " " + str(d, "content_type") + " " +
                std::to_string(num(d, "size")),
            key.substr(4) + " " + sha1_hex(data) + " text/plain 1000");
  EXPECT_TRUE(has(zel({"stat", key}).out, {"object:   " + key + "\nsize:     1000 (1000 B)\n"}));

  EXPECT_EQ(zel({"cp", key, copy}).out, "copied " + key + " to " + copy + " (sha1 " + sha1_hex(data) + ")\n");
  EXPECT_EQ(stored("copy%2F%C3%9F.bin"), data);
  EXPECT_EQ(zel({"rm", copy}).out, "deleted " + copy + "\n");
  EXPECT_EQ(zel({"stat", copy}).status, 1) << "gone after rm";
  EXPECT_EQ(str(result(zel({"--json", "restore", copy})), "action"), "restored");
  EXPECT_EQ(zel({"stat", copy}).status, 0) << "back after restore";
  EXPECT_EQ(zel({"touch", copy}).out.rfind("expiration reset for " + copy + "\n", 0), 0u);
  EXPECT_EQ(matching(server_.requests(), "POST", "resetexpiration").size(), 1u);
}

TEST_F(CliTest, TransfersInChunksWithRangesAndByUrl) {
  std::string data = pattern_bytes(300000, 9), file = dir_.write("big", data);
  Ran put = zel({"--json", "put", file, "bkt/big"});
  auto d = result(put);
  EXPECT_EQ(str(d, "action") + " " + std::to_string(num(d, "size")) + " " + str(d, "sha1"),
            "uploaded 300000 " + sha1_hex(data))
      << describe(put);
  EXPECT_EQ(matching(server_.requests(), "PUT", "/resumable").size(), 5u) << "65536-byte chunks";

  Ran get = zel({"get", "bkt/big", dir_.file("back")});
  EXPECT_EQ(read_file(dir_.file("back")), data) << describe(get);
  // The SHA-1 is the local file's.
  EXPECT_TRUE(has(
      get.out, {"downloaded bkt/big to " + dir_.file("back") + ": 293.0 KiB in ", "sha1 " + sha1_hex(data)}));
  Ran part = zel({"--json", "get", "bkt/big", dir_.file("part"), "--range", "100-199"});
  EXPECT_EQ(read_file(dir_.file("part")), data.substr(100, 100)) << describe(part);

  EXPECT_EQ(zel({"put", file, "bkt/ranged", "--range", "0-99", "--session", "s-r"}).out,
            "sent 100 bytes to bkt/ranged in session s-r; the service still misses other ranges\n");
  EXPECT_EQ(zel({"session", "bkt/ranged", "s-r"}).out, "session s-r of bkt/ranged holds bytes: 0-99\n");

  Ran create = zel({"-q", "put", file, "newbkt/big", "--create-bucket"});
  EXPECT_TRUE(create.status == 0 && create.err.empty()) << describe(create);
  EXPECT_EQ(http("GET", server_.api(2) + "/buckets/newbkt/details", {kAuthHeader}).status, 200);

  std::string url = server_.api(2) + "/buckets/bkt/objects/big";
  EXPECT_EQ(zel({"get-url", url, dir_.file("anon")}).status, 1) << "the emulator wants a token";
  Ran by_url = zel({"get-url", url, dir_.file("url"), "--auth"});
  EXPECT_EQ(read_file(dir_.file("url")), data) << describe(by_url);
}

TEST_F(CliTest, ResumeSendsOnlyWhatTheServiceMisses) {
  std::string data = pattern_bytes(4 * 65536 + 500, 3), file = dir_.write("resume", data);
  ASSERT_TRUE(
      server_.add_fault(R"({"method":"PUT","path":"resumable","header":"Content-Range: bytes 65536-",)"
                        R"("status":503,"times":1})"));
  Ran first = zel({"--retries", "0", "put", file, "bkt/r/ü", "--session", "s-0001"});
  EXPECT_EQ(first.status, 1) << describe(first);
  EXPECT_TRUE(has(first.err, {"zel put: bkt/r/ü: 503 Resumable upload failed or was cancelled\n",
                              "zel resume " + file + " bkt/r/ü --session s-0001"}));
  EXPECT_EQ(zel({"session", "bkt/r/ü", "s-0001"}).out,
            "session s-0001 of bkt/r/ü holds bytes: 0-65535, 131072-262643\n");

  server_.clear_requests();
  Ran resume = zel({"resume", file, "bkt/r/ü", "--session", "s-0001"});
  EXPECT_EQ(resume.status, 0) << describe(resume);
  EXPECT_TRUE(has(resume.err, {"the service holds 197108 of 262644 bytes; sending 1 missing range(s)"}));
  EXPECT_TRUE(has(resume.out, {"uploaded " + file + " to bkt/r/ü: 64.0 KiB in", "sha1 " + sha1_hex(data)}));
  auto sent = matching(server_.requests(), "PUT", "/objects/");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].header("Content-Range") + " " + sent[0].header("Session-Id"),
            "bytes 65536-131071/262644 s-0001");
  EXPECT_EQ(stored("r%2F%C3%BC"), data);

  // A finished session needs nothing more; an unknown one sends everything.
  server_.clear_requests();
  EXPECT_EQ(str(result(zel({"--json", "resume", file, "bkt/r/ü", "--session", "s-0001"})), "sha1"),
            sha1_hex(data));
  EXPECT_TRUE(matching(server_.requests(), "PUT", "/objects/").empty());
  EXPECT_EQ(zel({"resume", file, "bkt/fresh", "--session", "s-0002"}).status, 0);
  EXPECT_EQ(stored("fresh"), data);
}

TEST_F(CliTest, FailuresSayWhatHappenedByKind) {
  std::string f = dir_.write("f", "x");
  const std::string absent = dir_.file("absent");
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string err;
  } cases[] = {
      {{"stat", "bkt/nothing/here"}, 1, "zel stat: bkt/nothing/here: 404 Object not found\n"},
      {{"--token", "wrong", "put", f, "bkt/k"}, 1, "zel put: bkt/k: 401 Unauthorized\n"},  // no resume hint
      {{"mb", "bkt"}, 1, "zel mb: bkt: 409 Bucket already exists\n"},  // the reason, never raw JSON
      {{"put", f, "nob/k"}, 1, "zel put: nob/k: 404 no bucket nob\nhint: add --create-bucket to create it\n"},
      {{"put", absent, "bkt/k"}, 3, "zel put: cannot use " + absent + ": No such file or directory\n"},
      {{"put", dir_.file(""), "bkt/k"}, 3, "zel put: cannot use " + dir_.file("") + ": Is a directory\n"},
      {{"--endpoint", "http://127.0.0.1:1", "buckets"},
       4,
       "zel buckets: cannot reach http://127.0.0.1:1: Couldn't connect to server\n"
       "hint: is zel-server running? start it with: zel-server --port 1\n"},
  };
  for (const Case& c : cases) {
    Ran r = zel(c.args, {}, c.status != 4);
    EXPECT_EQ(r.status, c.status) << describe(r);
    EXPECT_EQ(r.err, c.err);
    EXPECT_EQ(r.out, "");
  }
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
      {{"get", "bkt/k", "f", "--range", "9-3"}, "zel get: '9-3' is not a byte range"},
      {{"grant", "bkt", "svc:write"}, "zel grant: 'svc:write' is not AUTH_ID:read or AUTH_ID:full"},
      {{"mb", "b2", "--policy", "forever"}, "zel mb: 'forever' is not a policy"},
      {{"stat", "bkt/\xff\xfe"}, "zel stat: the object key is not valid UTF-8"},
      {{"--api", "3", "buckets"}, "--api"},
      {{"put", "only-a-file"}, "BUCKET/KEY is required"},
      {{"--chunk-size", "1", "buckets"}, "--chunk-size '1' must be 64KiB to 4GiB"},
      {{"--chunk-size", "99999999999999999999999", "buckets"}, "must be 64KiB to 4GiB"},
      {{"--parallel", "many", "buckets"}, "--parallel"},
      {{"--timeout", "-1", "buckets"}, "--timeout"},
      {{"--endpoint", "not a url", "buckets"}, "zel buckets: 'not a url' is not an endpoint URL"},
  };
  for (const Case& c : cases) {
    Ran r = zel(c.args);
    EXPECT_EQ(r.status, 2) << describe(r);
    EXPECT_TRUE(has(r.err, {c.message}));
    EXPECT_LT(r.err.find('\n'), 100u) << "one short line: " << r.err;
  }
  EXPECT_TRUE(matching(server_.requests(), "", "/buckets/b2").empty()) << "nothing sent on usage errors";
  for (const char* size : {"5MiB", "8M", "65536", "64k"})
    EXPECT_EQ(
        zel({"-q", "--chunk-size", size, "put", dir_.write("c", pattern_bytes(70000, 1)), "bkt/c"}).status, 0)
        << size;
  Ran slash = zel({"--endpoint", server_.base_url() + "/", "info", "bkt"}, {}, false);
  EXPECT_EQ(slash.status, 0) << "a trailing slash is fine: " << describe(slash);
}

// Every document: {"ok": true, "command", "result": {...}} or {"ok": false,
// "command", "error": {"kind", "target", "message", "status", "hint"}}.
TEST_F(CliTest, OneJsonSchemaForEveryCommandAndFailure) {
  std::string file = dir_.write("j.txt", "json");
  const std::string url = server_.api(2) + "/buckets/bkt/objects/j";
  // One command a line; F is a local file, U the object's address, D/ the scratch directory. Commands
  // whose results other tests read back are left out.
  std::istringstream script(
      "mb jbk\ngrant jbk s:read\nrevoke jbk s\nput F bkt/j\nsession bkt/j nope\ncp bkt/j j2\nrm bkt/j2\n"
      "touch bkt/j\nget-url U D/u.out --auth\nmb jbk\nput D/none bkt/j\nrm nokey\n--chunk-size 1 buckets");
  int failures = 0;
  for (std::string line; std::getline(script, line);) {
    std::istringstream words(line);
    std::vector<std::string> args{"--json"};
    for (std::string w; words >> w;)
      args.push_back(w == "F" ? file : w == "U" ? url : w.rfind("D/", 0) == 0 ? dir_.file(w.substr(2)) : w);
    Ran r = zel(args);
    failures += r.status != 0;
    JsonPtr d = parse_json(r.out);
    ASSERT_TRUE(d != nullptr) << args[1] << ": not one JSON document: " << r.out << r.err;
    json_t* error = json_object_get(d.get(), "error");
    EXPECT_EQ(str(d, "command"), args[1] == "--chunk-size" ? "buckets" : args[1]) << r.out;
    EXPECT_EQ(json_is_true(json_object_get(d.get(), "ok")), r.status == 0) << r.out;
    EXPECT_EQ(json_keys(d.get()),
              (std::vector<std::string>{"command", r.status ? "error" : "ok", r.status ? "ok" : "result"}))
        << r.out;
    if (r.status == 0) continue;
    EXPECT_EQ(json_keys(error), (std::vector<std::string>{"hint", "kind", "message", "status", "target"}))
        << r.out;
    EXPECT_EQ(json_is_integer(json_object_get(error, "status")), json_str(error, "kind") == "service")
        << r.out;
  }
  EXPECT_EQ(failures, 5) << "the failing cases failed, the others did not";
}

// An answer the library cannot read is one of the few things it logs.
TEST_F(CliTest, LibraryLogLinesOnlyWithVerbose) {
  ASSERT_TRUE(
      server_.add_fault(R"({"method":"POST","path":"/grant$","status":200,"body":"not a list","times":2})"));
  const std::string refusal =
      "zel grant: bkt: the service's answer could not be read\nhint: check --api (1 or 2) and --endpoint\n";
  Ran quiet = zel({"grant", "bkt", "svc:read"});
  EXPECT_EQ(quiet.status, 1);
  EXPECT_EQ(quiet.err, refusal);
  Ran verbose = zel({"-v", "grant", "bkt", "svc:read"});
  EXPECT_EQ(verbose.status, 1);
  EXPECT_TRUE(has(verbose.err, {" src\\grant_bucket_access:", ": not a list\n", refusal}))
      << "the library's lines";
}

TEST_F(CliTest, EndpointAndTokenComeFromTheEnvironment) {
  const std::string endpoint = "ZEL_ENDPOINT=" + server_.base_url();
  EXPECT_EQ(zel({"info", "bkt"}, {endpoint, "ZEL_TOKEN=local-dev-token"}, false).status, 0);
  EXPECT_EQ(zel({"info", "bkt"}, {endpoint, "ZEL_TOKEN=nope"}, false).status, 1);
  EXPECT_EQ(zel({"--token", "local-dev-token", "info", "bkt"}, {"ZEL_TOKEN=nope"}).status, 0);
  EXPECT_EQ(server_.requests().back().principal, "local") << "the flag's token was sent";
}

}  // namespace
