// zel-server: whole uploads, downloads and ranges, object keys, and the
// operations on stored objects.
#include <dirent.h>
#include <sys/stat.h>

#include <set>
#include <string>
#include <vector>

#include "zel_server.h"

using namespace zeltest;

namespace {

std::string encode(const std::string& key) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : key) {
    if (isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~')
      out += static_cast<char>(c);
    else
      out += {'%', kHex[c >> 4], kHex[c & 15]};
  }
  return out;
}

class ObjectsTest : public EmulatorTest {
 protected:
  void SetUp() override {
    EmulatorTest::SetUp();
    ASSERT_TRUE(server_.make_bucket("objs"));
  }
  std::string url(const std::string& encoded_key, int version = 2) {
    return server_.api(version) + "/buckets/objs/objects/" + encoded_key;
  }
  HttpResult put(const std::string& encoded_key, const std::string& data, int version = 2) {
    std::string range =
        "Content-Range: bytes 0-" + std::to_string(data.size() - 1) + "/" + std::to_string(data.size());
    return http(
        "PUT", url(encoded_key, version),
        {kAuthHeader, "Session-Id: s-" + std::to_string(data.size()), range, "Content-Type: text/x-zel"},
        data);
  }
  HttpResult get(const std::string& encoded_key, std::vector<std::string> headers = {}) {
    headers.push_back(kAuthHeader);
    return http("GET", url(encoded_key), headers);
  }
};

void expect_error(const HttpResult& r, long status) {
  EXPECT_EQ(r.status, status) << r.body;
  JsonPtr j = parse_json(r.body);
  EXPECT_EQ(json_keys(j.get()), std::vector<std::string>{"reason"}) << "body: " << r.body;
}

TEST_F(ObjectsTest, WholeUploadRoundTripsInBothVersions) {
  const std::string data = pattern_bytes((1 << 20) + 3, 1);
  HttpResult r = put("blob.bin", data);
  ASSERT_EQ(r.status, 200) << r.body;
  JsonPtr j = parse_json(r.body);
  EXPECT_EQ(json_keys(j.get()), (std::vector<std::string>{"bucketKey", "contentType", "location", "objectId",
                                                          "objectKey", "sha1", "size"}));
  EXPECT_EQ(json_str(j.get(), "sha1"), sha1_hex(data));
  EXPECT_EQ(json_int(j.get(), "size"), static_cast<json_int_t>(data.size()));
  EXPECT_EQ(json_str(j.get(), "contentType"), "text/x-zel");
  std::string location = json_str(j.get(), "location");
  EXPECT_EQ(location, url("blob.bin"));
  HttpResult g = http("GET", location, {kAuthHeader});
  ASSERT_EQ(g.status, 200);
  EXPECT_TRUE(g.body == data) << "downloaded bytes differ";
  EXPECT_EQ(g.header("Content-Type"), "text/x-zel");
  EXPECT_EQ(g.header("Content-Length"), std::to_string(data.size()));

  r = put("v1.bin", "version one", 1);
  ASSERT_EQ(r.status, 200) << r.body;
  j = parse_json(r.body);
  EXPECT_EQ(json_keys(j.get()), (std::vector<std::string>{"bucket-key", "objects"}));
  json_t* o = json_array_get(json_object_get(j.get(), "objects"), 0);
  EXPECT_EQ(json_keys(o),
            (std::vector<std::string>{"content-type", "id", "key", "location", "sha-1", "size"}));
  EXPECT_EQ(json_str(o, "sha-1"), sha1_hex("version one"));
}

TEST_F(ObjectsTest, WholeUploadChecksContentRangeAgainstTheBody) {
  // An empty file is announced with an end that wrapped around below zero.
  HttpResult r =
      http("PUT", url("empty"), {kAuthHeader, "Content-Range: bytes 0-18446744073709551615/0"}, "");
  ASSERT_EQ(r.status, 200) << r.body;
  EXPECT_EQ(json_str(parse_json(r.body).get(), "sha1"), sha1_hex(""));
  HttpResult g = get("empty");
  EXPECT_EQ(g.status, 200);
  EXPECT_EQ(g.body, "");

  expect_error(http("PUT", url("short"), {kAuthHeader, "Content-Range: bytes 0-9/10"}, "12345"), 400);
  expect_error(http("PUT", url("long"), {kAuthHeader, "Content-Range: bytes 0-2/3"}, "12345"), 400);
  expect_error(http("PUT", url("part"), {kAuthHeader, "Content-Range: bytes 0-4/10"}, "12345"), 400);
  expect_error(http("PUT", url("junk"), {kAuthHeader, "Content-Range: items 0-4/5"}, "12345"), 400);
  for (const char* k : {"short", "long", "part", "junk"}) EXPECT_EQ(get(k).status, 404) << k << " was stored";
}

TEST_F(ObjectsTest, RangesAnswer206Or416) {
  const std::string data = pattern_bytes(1000, 2);
  ASSERT_EQ(put("r", data).status, 200);
  struct Case {
    const char* range;
    size_t start, end;
  } cases[] = {{"bytes=100-199", 100, 199}, {"bytes=990-2000", 990, 999}, {"bytes=-10", 990, 999},
               {"bytes=995-", 995, 999},    {"bytes=0-0", 0, 0},          {"bytes=-5000", 0, 999}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.range);
    HttpResult r = get("r", {std::string("Range: ") + c.range});
    ASSERT_EQ(r.status, 206);
    EXPECT_EQ(r.header("Content-Range"),
              "bytes " + std::to_string(c.start) + "-" + std::to_string(c.end) + "/1000");
    EXPECT_TRUE(r.body == data.substr(c.start, c.end - c.start + 1));
  }
  for (const char* bad : {"bytes=1000-1001", "bytes=5000-"}) {
    SCOPED_TRACE(bad);
    HttpResult r = get("r", {std::string("Range: ") + bad});
    expect_error(r, 416);
    EXPECT_EQ(r.header("Content-Range"), "bytes */1000");
  }
  // A ranged read of a missing object keeps its whole error body.
  expect_error(get("missing", {"Range: bytes=0-3"}), 404);
}

TEST_F(ObjectsTest, KeysArePercentEncodedUtf8WithSlashes) {
  const std::vector<std::string> keys = {"a/b c",
                                         "dir/sub/file.txt",
                                         "\xc3\xbcn\xc3\xaf/c\xc3\xb8"
                                         "d\xc3\xa9 \xe2\x9c\x93",
                                         "100%",
                                         "..",
                                         "q?x=1#h",
                                         "a%2Fb"};
  for (size_t i = 0; i < keys.size(); ++i) {
    SCOPED_TRACE(keys[i]);
    std::string data = "content of " + keys[i];
    // Dots are unreserved, so a key made only of dots needs them escaped to
    // stay a name rather than a path step.
    std::string enc = keys[i] == ".." ? "%2E%2E" : encode(keys[i]);
    HttpResult r = put(enc, data);
    ASSERT_EQ(r.status, 200) << r.body;
    JsonPtr j = parse_json(r.body);
    EXPECT_EQ(json_str(j.get(), "objectKey"), keys[i]);
    EXPECT_EQ(get(enc).body, data);
    EXPECT_EQ(http("GET", json_str(j.get(), "location"), {kAuthHeader}).body, data)
        << "the location leads back to the object";
  }
  // "a/b c" and the literal "a%2Fb" are different keys from "a/b".
  EXPECT_EQ(get(encode("a/b")).status, 404);
  std::vector<RecordedRequest> log = server_.requests();
  ASSERT_GE(log.size(), 2u);
  EXPECT_EQ(log.back().target, "/zel/v2/buckets/objs/objects/a%2Fb") << "the journal keeps the escapes";
  EXPECT_EQ(log.back().status, 404);
}

// Lists every file under `dir`, relative to it.
void list_files(const std::string& dir, const std::string& prefix, std::set<std::string>& out) {
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name == "." || name == "..") continue;
      struct stat st;
      std::string path = dir + "/" + name;
      if (lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        list_files(path, prefix + name + "/", out);
      else
        out.insert(prefix + name);
    }
    closedir(d);
  }
}

TEST_F(ObjectsTest, PathTraversalIsRefused) {
  const std::string dir = server_.data_dir();
  const std::string dir_name = dir.substr(dir.rfind('/') + 1);
  // Decoded dots are only a key; raw dot segments are refused outright.
  EXPECT_EQ(put(encode("../../escape"), "x").status, 200);
  EXPECT_EQ(put(encode("../" + dir_name + "/meta.db"), "x").status, 200);
  EXPECT_EQ(put(encode("/objects/../meta.db"), "x").status, 200);
  expect_error(http("PUT", url("../../../../escape2"), {kAuthHeader}, "x"), 400);
  expect_error(http("PUT", server_.api() + "/buckets/objs/objects/./x", {kAuthHeader}, "x"), 400);
  expect_error(http("GET", server_.api() + "/buckets/..%2F..%2Fetc/details", {kAuthHeader}), 400);
  expect_error(get(encode("../../../../../../etc/passwd")), 404);
  expect_error(get("bad%00nul"), 400);
  expect_error(get("bad%zz"), 400);

  struct stat st;
  for (const std::string& p :
       {dir + "/../escape", dir + "/../../escape", dir + "/../escape2", dir + "/escape"})
    EXPECT_NE(lstat(p.c_str(), &st), 0) << p << " was created";
  std::set<std::string> files;
  list_files(dir, "", files);
  for (const auto& f : files) {
    EXPECT_TRUE(f.rfind("meta.db", 0) == 0 || f.rfind("objects/", 0) == 0) << "unexpected file " << f;
    if (f.rfind("objects/", 0) == 0) {
      EXPECT_EQ(f.find_first_not_of("0123456789abcdef", 8), std::string::npos)
          << "object files have id names: " << f;
    }
  }
  EXPECT_EQ(http("GET", server_.api() + "/buckets/objs/details", {kAuthHeader}).status, 200)
      << "the metadata survived keys that name it";
  EXPECT_EQ(get(encode("../" + dir_name + "/meta.db")).body, "x");
}

TEST_F(ObjectsTest, CopyDeleteUndeleteAndResetExpiration) {
  const std::string data = pattern_bytes(5000, 3);
  JsonPtr src = parse_json(put("src", data).body);
  ASSERT_TRUE(src);
  HttpResult r = http("PUT", url("src/copyto/" + encode("dst/copy")), {kAuthHeader}, "");
  ASSERT_EQ(r.status, 200) << r.body;
  JsonPtr copy = parse_json(r.body);
  EXPECT_EQ(json_str(copy.get(), "objectKey"), "dst/copy");
  EXPECT_EQ(json_str(copy.get(), "sha1"), sha1_hex(data));
  EXPECT_NE(json_str(copy.get(), "objectId"), json_str(src.get(), "objectId"));
  expect_error(http("PUT", url("nothing/copyto/x"), {kAuthHeader}, ""), 404);

  ASSERT_EQ(http("DELETE", url("src"), {kAuthHeader}).status, 200);
  expect_error(get("src"), 404);
  expect_error(http("GET", url("src/details"), {kAuthHeader}), 404);
  expect_error(http("DELETE", url("src"), {kAuthHeader}), 404);
  EXPECT_TRUE(get(encode("dst/copy")).body == data) << "the copy outlives its source";

  ASSERT_EQ(http("POST", url("src/undelete"), {kAuthHeader}).status, 200);
  EXPECT_TRUE(get("src").body == data);
  expect_error(http("POST", url("src/undelete"), {kAuthHeader}), 404);
  expect_error(http("POST", url("never/undelete"), {kAuthHeader}), 404);

  r = http("POST", url("src/resetexpiration", 1), {kAuthHeader, "Content-Type: application/json"});
  ASSERT_EQ(r.status, 200) << r.body;
  EXPECT_EQ(json_keys(parse_json(r.body).get()), (std::vector<std::string>{"bucket-key", "objects"}));
  expect_error(http("POST", url("never/resetexpiration"), {kAuthHeader}), 404);
}

TEST_F(ObjectsTest, DetailsCarryDatesOnlyWhenAsked) {
  ASSERT_EQ(put("dated", "abc").status, 200);
  const std::string with = "?with=createdDate&with=lastAccessedDate&with=lastModifiedDate";
  JsonPtr plain = parse_json(http("GET", url("dated/details"), {kAuthHeader}).body);
  EXPECT_EQ(json_object_get(plain.get(), "createdDate"), nullptr);
  JsonPtr dated = parse_json(http("GET", url("dated/details") + with, {kAuthHeader}).body);
  for (const char* k : {"createdDate", "lastAccessedDate", "lastModifiedDate"})
    EXPECT_GT(json_int(dated.get(), k), 1600000000000LL) << k;
  JsonPtr one = parse_json(http("GET", url("dated/details") + "?with=lastModifiedDate", {kAuthHeader}).body);
  EXPECT_EQ(json_object_get(one.get(), "createdDate"), nullptr);
  EXPECT_NE(json_object_get(one.get(), "lastModifiedDate"), nullptr);
  // Version 1 keeps its strict shape whatever is asked.
  JsonPtr v1 = parse_json(http("GET", url("dated/details", 1) + with, {kAuthHeader}).body);
  EXPECT_EQ(json_keys(v1.get()), (std::vector<std::string>{"bucket-key", "objects"}));
  EXPECT_EQ(json_keys(json_array_get(json_object_get(v1.get(), "objects"), 0)).size(), 6u);
  // Replacing an object keeps its creation date and moves its modification date.
  json_int_t created = json_int(dated.get(), "createdDate");
  ASSERT_EQ(put("dated", "abcd").status, 200);
  JsonPtr again = parse_json(http("GET", url("dated/details") + with, {kAuthHeader}).body);
  EXPECT_EQ(json_int(again.get(), "createdDate"), created) << "replacing keeps the birth";
  EXPECT_GE(json_int(again.get(), "lastModifiedDate"), created);
}

}  // namespace
