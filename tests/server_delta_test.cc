// zel-server's delta engine over plain HTTP: signatures on download, patch
// uploads and the apply job, create-delta with patch details and download,
// the job API, and jobs across a killed server. The test controls (held,
// failed and counted polls) drive the delta operations' tests.
#include <unistd.h>
#include <zel/diff.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "zel_server.h"

using namespace zeltest;

namespace {

std::u16string wide(const std::string& ascii) { return std::u16string(ascii.begin(), ascii.end()); }

class DeltaServerTest : public EmulatorTest {
 protected:
  void SetUp() override {
    EmulatorTest::SetUp();
    ASSERT_TRUE(server_.make_bucket("dlt"));
    base_ = pattern_bytes(20000, 1);
    next_ = base_.substr(0, 9000) + "inserted bytes" + base_.substr(9000) + "tail";
  }
  HttpResult post_json(const std::string& url, const std::string& body,
                       std::vector<std::string> headers = {}) {
    headers.push_back(kAuthHeader);
    headers.push_back("Content-Type: application/json");
    return http("POST", url, headers, body);
  }
  std::string object(const std::string& key, int version = 2) const {
    return server_.api(version) + "/buckets/dlt/objects/" + key;
  }
  void put(const std::string& key, const std::string& data, std::vector<std::string> headers = {},
           int version = 2) {
    headers.push_back(kAuthHeader);
    HttpResult r = http("PUT", object(key, version), headers, data);
    ASSERT_EQ(r.status, 200) << r.body;
  }
  std::string path(const std::string& name) const { return scratch_.file(name); }

  // The patch from `from` to `to`, made locally with the delta library.
  std::string local_patch(const std::string& from, const std::string& to) {
    scratch_.write("from", from);
    scratch_.write("to", to);
    char* msg = nullptr;
    EXPECT_GE(diff_create_signature(wide(path("from")).c_str(), wide(path("from.sig")).c_str(),
                                    wide(dir_).c_str(), 2048, 1, 0, &msg),
              0);
    free_err_msg(&msg);
    DiffFileList* list = file_list_append(file_list_init(), wide(path("from.sig")).c_str());
    EXPECT_GE(diff_create_patch(wide(path("to")).c_str(), list, wide(path("patch")).c_str(),
                                wide(dir_).c_str(), 1, 0, 6, 1, &msg),
              0);
    free_err_msg(&msg);
    file_list_cleanup(list);
    return read_file(path("patch"));
  }

  // The delta engine's test controls.
  HttpResult controls(const std::string& method, const std::string& route, const std::string& body = "") {
    return http(method, server_.base_url() + "/_emulator/delta" + route, {kAuthHeader}, body);
  }

  std::string kri(const std::string& route) const { return server_.base_url() + "/kri/api/v1" + route; }

  // Registers a job; its answer.
  JsonPtr submit(const std::string& route, const std::string& body, std::vector<std::string> headers = {}) {
    HttpResult r = post_json(kri(route), body, headers);
    EXPECT_EQ(r.status, 200) << r.body;
    return parse_json(r.body);
  }

  // Polls a job by id until it ends; its last status.
  JsonPtr wait_job(const std::string& kind, const std::string& id) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
      HttpResult r = http("GET", kri("/" + kind + "/" + id), {kAuthHeader});
      JsonPtr status = parse_json(r.body);
      if (r.status != 200 || !status) return status;
      long long code = json_int(status.get(), "Code");
      if (code == 5 || code == -1) return status;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return nullptr;
  }

  std::string apply_body(const std::string& new_sha1) const {
    return R"({"BucketName":"dlt","ObjectName":"base","MaximumAttempts":5,"NewObjectName":"next","NewObjectSHA1":")" +
           new_sha1 + R"(","ProcessType":0})";
  }
  std::string patch_header(const std::string& from, const std::string& to) const {
    return "x-pmw-delta-object: patch:" + sha1_hex(from) + "->" + sha1_hex(to);
  }

  ScratchDir scratch_;
  const std::string dir_ = scratch_.file("");
  std::string base_;
  std::string next_;
};

TEST_F(DeltaServerTest, SignatureDownloadIsTheLibrarysSignature) {
  put("base", base_);
  scratch_.write("base", base_);
  for (uint32_t block : {2048u, 512u}) {
    char* msg = nullptr;
    ASSERT_GE(diff_create_signature(wide(path("base")).c_str(), wide(path("local.sig")).c_str(),
                                    wide(dir_).c_str(), block, 1, 0, &msg),
              0);
    free_err_msg(&msg);
    std::string header = "x-pmw-delta-object: signature:@" + std::to_string(block);
    HttpResult first = http("GET", object("base"), {kAuthHeader, header});
    ASSERT_EQ(first.status, 200) << first.body;
    EXPECT_EQ(first.body, read_file(path("local.sig"))) << "block size " << block;
    EXPECT_EQ(http("GET", object("base"), {kAuthHeader, header}).body, first.body) << "the kept signature";
  }
  for (const char* bad : {"signature:@", "signature:@0", "signature:@x1", "signature:2048", "sig:@2048"}) {
    HttpResult r = http("GET", object("base"), {kAuthHeader, std::string("x-pmw-delta-object: ") + bad});
    EXPECT_EQ(r.status, 400) << bad;
  }
  EXPECT_EQ(http("GET", object("none"), {kAuthHeader, "x-pmw-delta-object: signature:@2048"}).status, 404);
  EXPECT_EQ(http("GET", object("base"), {kAuthHeader}).body, base_) << "a plain download is untouched";
}

TEST_F(DeltaServerTest, PatchUploadThenApply) {
  put("base", base_);
  std::string patch = local_patch(base_, next_);
  put("next", patch, {patch_header(base_, next_), "x-pmw-delta-processtype: 0"}, 1);
  JsonPtr job = submit("/applypatch", apply_body(sha1_hex(next_)));
  ASSERT_TRUE(job);
  EXPECT_EQ(json_int(job.get(), "Code"), 0);
  std::string id = json_str(job.get(), "DocumentID");
  std::string public_url = json_str(job.get(), "Description");
  EXPECT_EQ(public_url.find(kri("/public/")), 0u) << public_url;

  JsonPtr done = wait_job("applypatch", id);
  ASSERT_TRUE(done);
  ASSERT_EQ(json_int(done.get(), "Code"), 5) << json_str(done.get(), "Description");
  EXPECT_EQ(json_int(done.get(), "Progress"), 100);
  JsonPtr details = parse_json(json_str(done.get(), "Description"));
  ASSERT_TRUE(details) << "a finished apply describes the new object";
  EXPECT_EQ(json_keys(details.get()), (std::vector<std::string>{"bucket-key", "objects"}))
      << "in the API version the patch was uploaded with";
  const json_t* entry = json_array_get(json_object_get(details.get(), "objects"), 0);
  EXPECT_EQ(json_str(entry, "sha-1"), sha1_hex(next_));
  EXPECT_EQ(json_int(entry, "size"), static_cast<long long>(next_.size()));
  EXPECT_EQ(http("GET", object("next"), {kAuthHeader}).body, next_);

  HttpResult by_url = http("GET", public_url);
  EXPECT_EQ(by_url.status, 200) << "the public address needs no token";
  EXPECT_EQ(http("GET", kri("/applypatch/" + id)).status, 401);
  EXPECT_EQ(http("GET", kri("/applypatch/" + id), {"Authorization: Bearer nope"}).status, 401);
  EXPECT_EQ(http("GET", kri("/createdelta/" + id), {kAuthHeader}).status, 404)
      << "the kind is part of the address";
  EXPECT_EQ(http("GET", kri("/public/" + id)).status, 404) << "the id is not the public token";
}

TEST_F(DeltaServerTest, ResumablePatchUploadThenApply) {
  put("base", base_);
  std::string patch = local_patch(base_, next_);
  size_t half = patch.size() / 2;
  std::string total = std::to_string(patch.size());
  struct Piece {
    size_t from, to;
  };
  for (Piece p : {Piece{half, patch.size()}, Piece{0, half}}) {
    HttpResult r = http(
        "PUT", object("next") + "/resumable",
        {kAuthHeader, "Session-Id: patch-session", patch_header(base_, next_), "x-pmw-delta-processtype: 2",
         "Content-Range: bytes " + std::to_string(p.from) + "-" + std::to_string(p.to - 1) + "/" + total},
        patch.substr(p.from, p.to - p.from));
    ASSERT_TRUE(r.status == 200 || r.status == 202) << r.status << " " << r.body;
  }
  JsonPtr done = wait_job("applypatch",
                          json_str(submit("/applypatch", apply_body(sha1_hex(next_))).get(), "DocumentID"));
  ASSERT_TRUE(done);
  EXPECT_EQ(json_int(done.get(), "Code"), 5) << json_str(done.get(), "Description");
  EXPECT_EQ(http("GET", object("next"), {kAuthHeader}).body, next_);
}

TEST_F(DeltaServerTest, FailedApplyLeavesTheUploadedContent) {
  put("base", base_);
  std::string patch = local_patch(base_, next_);
  put("next", patch, {patch_header(base_, next_), "x-pmw-delta-processtype: 0"});
  JsonPtr wrong_sha = submit("/applypatch", apply_body(sha1_hex("something else")));
  JsonPtr failed = wait_job("applypatch", json_str(wrong_sha.get(), "DocumentID"));
  ASSERT_TRUE(failed);
  EXPECT_EQ(json_int(failed.get(), "Code"), -1);
  EXPECT_NE(json_str(failed.get(), "Description"), "") << "a failed job gives its reason";
  EXPECT_EQ(http("GET", object("next"), {kAuthHeader}).body, patch);

  put("base", base_ + "changed");  // the base is no longer the patch's base
  JsonPtr wrong_base = submit("/applypatch", apply_body(sha1_hex(next_)));
  failed = wait_job("applypatch", json_str(wrong_base.get(), "DocumentID"));
  ASSERT_TRUE(failed);
  EXPECT_EQ(json_int(failed.get(), "Code"), -1);
  EXPECT_NE(json_str(failed.get(), "Description").find("base"), std::string::npos)
      << json_str(failed.get(), "Description");
  EXPECT_EQ(http("GET", object("next"), {kAuthHeader}).body, patch);

  put("plain", next_);  // no pending patch at all
  std::string body = apply_body(sha1_hex(next_));
  body.replace(body.find("\"next\""), 6, "\"plain\"");
  failed = wait_job("applypatch", json_str(submit("/applypatch", body).get(), "DocumentID"));
  EXPECT_EQ(json_int(failed.get(), "Code"), -1);

  HttpResult bad = http("PUT", object("x"), {kAuthHeader, "x-pmw-delta-object: patch:12->34"}, "data");
  EXPECT_EQ(bad.status, 400) << "a malformed patch mark is refused";
  bad = http("PUT", object("x"), {kAuthHeader, patch_header(base_, next_), "x-pmw-delta-processtype: two"},
             "d");
  EXPECT_EQ(bad.status, 400);
}

TEST_F(DeltaServerTest, CreateDeltaThenPatchDetailsAndDownload) {
  put("base", base_);
  put("next", next_);
  std::string orig = sha1_hex(base_), dest = sha1_hex(next_);
  std::string pair = "x-pmw-delta-object: patch:" + orig + "->" + dest;
  EXPECT_EQ(http("GET", object("base") + "/details", {kAuthHeader, pair}).status, 404) << "no patch kept yet";
  EXPECT_EQ(http("GET", object("next"), {kAuthHeader, "x-pmw-delta-object: patch:" + orig}).status, 404);

  const std::string body =
      R"({"BucketName":"dlt","MaximumAttempts":5,"ObjectName1":"base","ObjectName2":"next",)"
      R"("BlockSize":2048,"ProcessType":0})";
  ASSERT_EQ(controls("POST", "/scripts", R"({"kind":"createdelta","delay_ms":500})").status, 200);
  JsonPtr job = submit("/createdelta", body);
  EXPECT_EQ(json_str(submit("/createdelta", body).get(), "DocumentID"), json_str(job.get(), "DocumentID"))
      << "a retry while the job is under way joins it";
  JsonPtr done = wait_job("createdelta", json_str(job.get(), "DocumentID"));
  ASSERT_TRUE(done);
  ASSERT_EQ(json_int(done.get(), "Code"), 5) << json_str(done.get(), "Description");

  HttpResult details =
      http("GET", object("base") + "/details", {kAuthHeader, pair, "x-pmw-delta-processtype: 0"});
  ASSERT_EQ(details.status, 200) << details.body;
  JsonPtr d = parse_json(details.body);
  HttpResult download = http("GET", object("next"), {kAuthHeader, "x-pmw-delta-object: patch:" + orig});
  ASSERT_EQ(download.status, 200);
  EXPECT_EQ(json_int(d.get(), "size"), static_cast<long long>(download.body.size()));
  EXPECT_EQ(json_str(d.get(), "sha1"), sha1_hex(download.body));

  put("next", next_ + "moved on");
  EXPECT_EQ(http("GET", object("next"), {kAuthHeader, "x-pmw-delta-object: patch:" + orig}).status, 404)
      << "a patch answers only for the target's current content";
  EXPECT_EQ(http("GET", object("base") + "/details", {kAuthHeader, "x-pmw-delta-object: patch:zz"}).status,
            400);

  job = submit("/createsignature",
               R"({"BucketName":"dlt","ObjectName":"base","BlockSize":1024,"MaximumAttempts":5,)"
               R"("ProcessType":0})");
  done = wait_job("createsignature", json_str(job.get(), "DocumentID"));
  EXPECT_EQ(json_int(done.get(), "Code"), 5);
}

TEST_F(DeltaServerTest, JobRequestsAreChecked) {
  EXPECT_EQ(http("GET", kri("/health")).status, 200);
  std::string sig = R"({"BucketName":"dlt","ObjectName":"base","BlockSize":2048})";
  EXPECT_EQ(http("POST", kri("/createsignature"), {}, sig).status, 401);
  EXPECT_EQ(post_json(kri("/createsignature"), R"({"BucketName":"dlt"})").status, 400);
  EXPECT_EQ(
      post_json(kri("/createsignature"), R"({"BucketName":"dlt","ObjectName":"b","BlockSize":0})").status,
      400);
  EXPECT_EQ(post_json(kri("/applypatch"), apply_body("short")).status, 400);
  EXPECT_EQ(post_json(kri("/createsignature"), R"({"BucketName":"nobucket","ObjectName":"b","BlockSize":9})")
                .status,
            404);
  EXPECT_EQ(post_json(kri("/nosuchjob"), sig).status, 404);
  EXPECT_EQ(http("GET", kri("/createsignature/unknown"), {kAuthHeader}).status, 404);
  EXPECT_EQ(http("GET", server_.base_url() + "/kri/api/v2/health").status, 404);
  EXPECT_EQ(controls("POST", "/scripts", R"({"unknown":1})").status, 400);

  JsonPtr job = submit("/createsignature", sig);
  JsonPtr done = wait_job("createsignature", json_str(job.get(), "DocumentID"));
  EXPECT_EQ(json_int(done.get(), "Code"), -1) << "a missing object fails the job";
  EXPECT_NE(json_str(done.get(), "Description"), "");
}

TEST_F(DeltaServerTest, JobsSurviveAKilledServer) {
  put("base", base_);
  std::string patch = local_patch(base_, next_);
  put("next", patch, {patch_header(base_, next_), "x-pmw-delta-processtype: 0"});
  ASSERT_EQ(controls("POST", "/scripts", R"({"delay_ms":60000})").status, 200);
  JsonPtr job = submit("/applypatch", apply_body(sha1_hex(next_)));
  std::string id = json_str(job.get(), "DocumentID");
  std::string token = json_str(job.get(), "Description").substr(kri("/public/").size());
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (json_int(parse_json(http("GET", kri("/applypatch/" + id), {kAuthHeader}).body).get(), "Code") != 1 &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  server_.kill9();
  ASSERT_TRUE(server_.restart()) << server_.error();

  JsonPtr done = wait_job("applypatch", id);
  ASSERT_TRUE(done) << "the job is known after the restart";
  EXPECT_EQ(json_int(done.get(), "Code"), 5) << "an interrupted job runs again from the start";
  EXPECT_EQ(http("GET", object("next"), {kAuthHeader}).body, next_);
  EXPECT_EQ(http("GET", kri("/public/" + token)).status, 200) << "the public address outlives the restart";
  JsonPtr report = parse_json(controls("GET", "").body);
  EXPECT_EQ(json_int(json_array_get(json_object_get(report.get(), "jobs"), 0), "Runs"), 2);
}

}  // namespace
