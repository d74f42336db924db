// zel-server: whole uploads, downloads and ranges, object keys, and the
// operations on stored objects.

#include <cstring>
#include <filesystem>

#include "zel_server.h"

using namespace zeltest;

namespace {

using Keys = std::vector<std::string>;

std::string encode(const std::string& key) {
  std::string out;
  char hex[4];
  for (unsigned char c : key)
    out += isalnum(c) || strchr("-_.~", c) ? std::string(1, c) : (snprintf(hex, 4, "%%%02X", c), hex);
  return out;
}

class ObjectsTest : public EmulatorTest {
 protected:
  void SetUp() override {
    EmulatorTest::SetUp();
    ASSERT_TRUE(server_.make_bucket("objs"));
  }
  std::string url(const std::string& encoded_key) {
    return server_.api() + "/buckets/objs/objects/" + encoded_key;
  }
  HttpResult put(const std::string& encoded_key, const std::string& data) {
    std::string size = std::to_string(data.size());
    return http("PUT", url(encoded_key),
                {kAuthHeader, "Session-Id: s-" + size, "Content-Type: text/x-zel",
                 "Content-Range: bytes 0-" + std::to_string(data.size() - 1) + "/" + size},
                data);
  }
  HttpResult call(const char* method, const std::string& path, std::vector<std::string> headers = {}) {
    headers.push_back(kAuthHeader);
    return http(method, url(path), headers);
  }
};

void expect_error(const HttpResult& r, long status) {
  EXPECT_EQ(r.status, status) << r.body;
  EXPECT_EQ(json_keys(parse_json(r.body).get()), Keys{"reason"}) << "body: " << r.body;
}

// Dots are unreserved, so a key made only of dots needs them escaped to
// stay a name rather than a path step.
TEST_F(ObjectsTest, UploadsRoundTripUnderPercentEncodedUtf8Keys) {
  const std::string big = pattern_bytes((1 << 20) + 3, 1);
  for (const std::string& key :
       Keys{"blob.bin", "a/b c", "dir/sub/file.txt", "\xc3\xbcn\xc3\xaf/c\xc3\xb8 \xe2\x9c\x93", "100%", "..",
            "q?x=1#h", "a%2Fb"}) {
    SCOPED_TRACE(key);
    std::string enc = key == ".." ? "%2E%2E" : encode(key),
                data = key == "blob.bin" ? big : "content of " + key;
    JsonPtr j = parse_json(put(enc, data).body);
    EXPECT_EQ(json_str(j.get(), "objectKey") + " " + json_str(j.get(), "sha1") + " " +
                  json_str(j.get(), "contentType") + " " + std::to_string(json_int(j.get(), "size")),
              key + " " + sha1_hex(data) + " text/x-zel " + std::to_string(data.size()));
    EXPECT_TRUE(call("GET", enc).body == data);
    HttpResult g = http("GET", json_str(j.get(), "location"), {kAuthHeader});
    EXPECT_TRUE(g.body == data) << "the location leads back to the object";
    EXPECT_EQ(g.header("Content-Type") + " " + g.header("Content-Length"),
              "text/x-zel " + std::to_string(data.size()));
  }
  // "a/b c" and the literal "a%2Fb" are different keys from "a/b".
  EXPECT_EQ(call("GET", encode("a/b")).status, 404);
  EXPECT_EQ(server_.requests().back().target, "/zel/v2/buckets/objs/objects/a%2Fb")
      << "the journal keeps escapes";
}

TEST_F(ObjectsTest, ContentRangesAndRanges) {
  // An empty file is announced with an end that wrapped around below zero.
  HttpResult r =
      http("PUT", url("empty"), {kAuthHeader, "Content-Range: bytes 0-18446744073709551615/0"}, "");
  EXPECT_EQ(json_str(parse_json(r.body).get(), "sha1"), sha1_hex("")) << r.body;
  EXPECT_EQ(call("GET", "empty").status, 200);
  for (const char* range : {"bytes 0-9/10", "bytes 0-2/3", "bytes 0-4/10", "items 0-4/5"}) {
    expect_error(http("PUT", url("bad"), {kAuthHeader, std::string("Content-Range: ") + range}, "12345"),
                 400);
    EXPECT_EQ(call("GET", "bad").status, 404) << range << " was stored";
  }

  const std::string data = pattern_bytes(1000, 2);
  ASSERT_EQ(put("r", data).status, 200);
  struct Case {
    const char* range;
    size_t start, end;
  } cases[] = {{"bytes=100-199", 100, 199}, {"bytes=990-2000", 990, 999}, {"bytes=-10", 990, 999},
               {"bytes=995-", 995, 999},    {"bytes=0-0", 0, 0},          {"bytes=-5000", 0, 999}};
  for (const auto& c : cases) {
    r = call("GET", "r", {std::string("Range: ") + c.range});
    EXPECT_EQ(std::to_string(r.status) + " " + r.header("Content-Range"),
              "206 bytes " + std::to_string(c.start) + "-" + std::to_string(c.end) + "/1000");
    EXPECT_TRUE(r.body == data.substr(c.start, c.end - c.start + 1)) << c.range;
  }
  for (const char* bad : {"bytes=1000-1001", "bytes=5000-"}) {
    r = call("GET", "r", {std::string("Range: ") + bad});
    expect_error(r, 416);
    EXPECT_EQ(r.header("Content-Range"), "bytes */1000") << bad;
  }
  // A ranged read of a missing object keeps its whole error body.
  expect_error(call("GET", "missing", {"Range: bytes=0-3"}), 404);
}

TEST_F(ObjectsTest, PathTraversalIsRefused) {
  namespace fs = std::filesystem;
  const std::string dir = server_.data_dir(), dir_name = dir.substr(dir.rfind('/') + 1);
  // Decoded dots are only a key; raw dot segments are refused outright.
  for (const std::string& key : Keys{"../../escape", "../" + dir_name + "/meta.db", "/objects/../meta.db"})
    EXPECT_EQ(put(encode(key), "x").status, 200) << key;
  expect_error(http("PUT", url("../../../../escape2"), {kAuthHeader}, "x"), 400);
  expect_error(http("PUT", url("./x"), {kAuthHeader}, "x"), 400);
  expect_error(http("GET", server_.api() + "/buckets/..%2F..%2Fetc/details", {kAuthHeader}), 400);
  expect_error(call("GET", encode("../../../../../../etc/passwd")), 404);
  expect_error(call("GET", "bad%00nul"), 400);
  expect_error(call("GET", "bad%zz"), 400);

  for (const std::string& p :
       {dir + "/../escape", dir + "/../../escape", dir + "/../escape2", dir + "/escape"})
    EXPECT_FALSE(fs::exists(fs::symlink_status(p))) << p << " was created";
  for (const auto& e : fs::recursive_directory_iterator(dir)) {
    std::string f = fs::relative(e.path(), dir).string();
    if (e.is_directory()) continue;
    EXPECT_TRUE(
        f.rfind("meta.db", 0) == 0 ||
        (f.rfind("objects/", 0) == 0 && f.find_first_not_of("0123456789abcdef", 8) == std::string::npos))
        << "unexpected file " << f;
  }
  EXPECT_EQ(http("GET", server_.api() + "/buckets/objs/details", {kAuthHeader}).status, 200)
      << "the metadata survived keys that name it";
  EXPECT_EQ(call("GET", encode("../" + dir_name + "/meta.db")).body, "x");
}

// The command-line tests go through the lifecycle; here, what only the
// service's answers show.
TEST_F(ObjectsTest, CopyDeleteUndeleteAndResetExpiration) {
  const std::string data = pattern_bytes(5000, 3);
  ASSERT_EQ(put("src", data).status, 200);
  JsonPtr copy = parse_json(call("PUT", "src/copyto/" + encode("dst/copy")).body);
  EXPECT_EQ(json_str(copy.get(), "objectKey") + " " + json_str(copy.get(), "sha1"),
            "dst/copy " + sha1_hex(data));
  ASSERT_EQ(call("DELETE", "src").status, 200);
  EXPECT_TRUE(call("GET", encode("dst/copy")).body == data) << "the copy outlives its source";
  ASSERT_EQ(call("POST", "src/undelete").status, 200);
  EXPECT_TRUE(call("GET", "src").body == data);
  for (const Keys& c : std::vector<Keys>{{"PUT", "nothing/copyto/x"},
                                         {"POST", "src/undelete"},
                                         {"POST", "never/undelete"},
                                         {"POST", "never/resetexpiration"}})
    expect_error(call(c[0].c_str(), c[1]), 404);
  ASSERT_EQ(call("DELETE", "src").status, 200);
  expect_error(call("DELETE", "src"), 404);
  // Version 1 answers with the object in its own shape.
  JsonPtr v1 = parse_json(
      http("POST", server_.api(1) + "/buckets/objs/objects/dst%2Fcopy/resetexpiration", {kAuthHeader}).body);
  json_t* o = json_array_get(json_object_get(v1.get(), "objects"), 0);
  EXPECT_EQ(json_keys(o), (Keys{"content-type", "id", "key", "location", "sha-1", "size"}));
  EXPECT_EQ(json_str(o, "sha-1"), sha1_hex(data));
}

TEST_F(ObjectsTest, DetailsCarryDatesAndReplacingKeepsTheBirth) {
  ASSERT_EQ(put("dated", "abc").status, 200);
  auto dates = [&] {
    return parse_json(
        call("GET", "dated/details?with=createdDate&with=lastAccessedDate&with=lastModifiedDate").body);
  };
  JsonPtr dated = dates();
  for (const char* k : {"createdDate", "lastAccessedDate", "lastModifiedDate"})
    EXPECT_GT(json_int(dated.get(), k), 1600000000000LL) << k;
  ASSERT_EQ(put("dated", "abcd").status, 200);
  EXPECT_EQ(json_int(dates().get(), "createdDate"), json_int(dated.get(), "createdDate"));
}

}  // namespace
