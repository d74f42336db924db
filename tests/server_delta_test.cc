// zel-server's delta engine over plain HTTP: signatures on download, patch
// uploads and the apply job, create-delta with patch details and download,
// the job API, and jobs across a killed server. The library's delta
// operations run the successful flows end to end; here, what only the
// service's answers show.
#include <zel/diff.h>

#include <thread>

#include "zel_server.h"

using namespace zeltest;

namespace {

std::u16string wide(const std::string& ascii) { return std::u16string(ascii.begin(), ascii.end()); }

class DeltaServerTest : public EmulatorTest {
 protected:
  void SetUp() override {
    EmulatorTest::SetUp();
    ASSERT_TRUE(server_.make_bucket("dlt"));
    put("base", base_);
  }
  std::string object(const std::string& key) const { return server_.api() + "/buckets/dlt/objects/" + key; }
  void put(const std::string& key, const std::string& data, std::vector<std::string> headers = {},
           int version = 2) {
    headers.push_back(kAuthHeader);
    HttpResult r = http("PUT", server_.api(version) + "/buckets/dlt/objects/" + key, headers, data);
    ASSERT_EQ(r.status, 200) << r.body;
  }
  HttpResult get(const std::string& key, const std::string& mark = "", const std::string& suffix = "") {
    std::vector<std::string> headers{kAuthHeader};
    if (!mark.empty()) headers.push_back("x-pmw-delta-object: " + mark);
    return http("GET", object(key) + suffix, headers);
  }
  // The patch from `from` to `to` (or the signature of `from` when `to` is
  // empty), made locally with the delta library.
  std::string local(const std::string& from, const std::string& to = "", uint32_t block = 2048) {
    std::u16string f = wide(scratch_.write("from", from)), sig = wide(scratch_.file("sig")),
                   dir = wide(scratch_.file("")), out = wide(scratch_.file("patch"));
    char* msg = nullptr;
    EXPECT_GE(diff_create_signature(f.c_str(), sig.c_str(), dir.c_str(), block, 1, 0, &msg), 0);
    free_err_msg(&msg);
    if (to.empty()) return read_file(scratch_.file("sig"));
    DiffFileList* list = file_list_append(file_list_init(), sig.c_str());
    EXPECT_GE(diff_create_patch(wide(scratch_.write("to", to)).c_str(), list, out.c_str(), dir.c_str(), 1, 0,
                                6, 1, &msg),
              0);
    free_err_msg(&msg);
    file_list_cleanup(list);
    return read_file(scratch_.file("patch"));
  }
  // Uploads the patch from base to next as `key`.
  void put_patch(int version = 2) {
    put("next", local(base_, next_), {mark_, "x-pmw-delta-processtype: 0"}, version);
  }
  HttpResult controls(const std::string& method, const std::string& route, const std::string& body = "") {
    return http(method, server_.base_url() + "/_emulator/delta" + route, {kAuthHeader}, body);
  }
  std::string kri(const std::string& route) const { return server_.base_url() + "/kri/api/v1" + route; }
  HttpResult post(const std::string& route, const std::string& body) {
    return http("POST", kri(route), {kAuthHeader, "Content-Type: application/json"}, body);
  }
  // Registers a job; its answer.
  JsonPtr submit(const std::string& route, const std::string& body) {
    HttpResult r = post(route, body);
    EXPECT_EQ(r.status, 200) << r.body;
    return parse_json(r.body);
  }
  // Polls a job by id until it ends (or reaches `until`); its last status.
  JsonPtr wait_job(const std::string& kind, const std::string& id, long long until = 5) {
    for (auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
         std::chrono::steady_clock::now() < deadline;
         std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
      HttpResult r = http("GET", kri("/" + kind + "/" + id), {kAuthHeader});
      JsonPtr status = parse_json(r.body);
      long long code = json_int(status.get(), "Code");
      if (r.status != 200 || !status || code == until || code == 5 || code == -1) return status;
    }
    return nullptr;
  }
  // Registers a job and waits for its end; "CODE DESCRIPTION".
  std::string run(const std::string& kind, const std::string& body) {
    JsonPtr done = wait_job(kind, json_str(submit("/" + kind, body).get(), "DocumentID"));
    return std::to_string(json_int(done.get(), "Code")) + " " + json_str(done.get(), "Description");
  }
  std::string apply_body(const std::string& new_sha1, const std::string& target = "next") const {
    return R"({"BucketName":"dlt","ObjectName":"base","MaximumAttempts":5,"NewObjectName":")" + target +
           R"(","NewObjectSHA1":")" + new_sha1 + R"(","ProcessType":0})";
  }

  ScratchDir scratch_;
  const std::string base_ = pattern_bytes(20000, 1);
  const std::string next_ = base_.substr(0, 9000) + "inserted bytes" + base_.substr(9000) + "tail";
  const std::string mark_ = "x-pmw-delta-object: patch:" + sha1_hex(base_) + "->" + sha1_hex(next_);
};

TEST_F(DeltaServerTest, SignatureDownloadIsTheLibrarysSignature) {
  for (uint32_t block : {2048u, 512u}) {
    std::string mark = "signature:@" + std::to_string(block);
    EXPECT_EQ(get("base", mark).body, local(base_, "", block)) << "block size " << block;
    EXPECT_EQ(get("base", mark).body, local(base_, "", block)) << "the kept signature";
  }
  for (const char* bad : {"signature:@", "signature:@0", "signature:@x1", "signature:2048", "sig:@2048"})
    EXPECT_EQ(get("base", bad).status, 400) << bad;
  EXPECT_EQ(get("none", "signature:@2048").status, 404);
}

TEST_F(DeltaServerTest, ApplyAnswersInTheUploadsVersionAndAtAPublicAddress) {
  put_patch(1);
  JsonPtr job = submit("/applypatch", apply_body(sha1_hex(next_)));
  std::string id = json_str(job.get(), "DocumentID"), public_url = json_str(job.get(), "Description");

  JsonPtr done = wait_job("applypatch", id);
  ASSERT_EQ(json_int(done.get(), "Code"), 5) << json_str(done.get(), "Description");
  JsonPtr details = parse_json(json_str(done.get(), "Description"));
  EXPECT_EQ(json_keys(details.get()), (std::vector<std::string>{"bucket-key", "objects"}))
      << "a finished apply describes the new object in the API version the patch was uploaded with";
  const json_t* entry = json_array_get(json_object_get(details.get(), "objects"), 0);
  EXPECT_EQ(json_str(entry, "sha-1") + " " + std::to_string(json_int(entry, "size")),
            sha1_hex(next_) + " " + std::to_string(next_.size()));
  EXPECT_EQ(get("next").body, next_);

  EXPECT_EQ(http("GET", public_url).status, 200) << "the public address needs no token";
  EXPECT_EQ(http("GET", kri("/applypatch/" + id)).status, 401);
  EXPECT_EQ(http("GET", kri("/createdelta/" + id), {kAuthHeader}).status, 404)
      << "the kind is in the address";
  EXPECT_EQ(http("GET", kri("/public/" + id)).status, 404) << "the id is not the public token";
}

TEST_F(DeltaServerTest, ResumablePatchUploadThenApply) {
  std::string patch = local(base_, next_), total = std::to_string(patch.size());
  size_t half = patch.size() / 2;
  for (std::pair<size_t, size_t> p : {std::make_pair(half, patch.size()), std::make_pair(size_t{0}, half)}) {
    HttpResult r = http("PUT", object("next") + "/resumable",
                        {kAuthHeader, "Session-Id: patch-session", mark_, "x-pmw-delta-processtype: 2",
                         "Content-Range: bytes " + std::to_string(p.first) + "-" +
                             std::to_string(p.second - 1) + "/" + total},
                        patch.substr(p.first, p.second - p.first));
    ASSERT_TRUE(r.status == 200 || r.status == 202) << r.status << " " << r.body;
  }
  EXPECT_EQ(run("applypatch", apply_body(sha1_hex(next_))).substr(0, 2), "5 ");
  EXPECT_EQ(get("next").body, next_);
}

TEST_F(DeltaServerTest, FailedApplyLeavesTheUploadedContent) {
  put_patch();
  const std::string patch = get("next").body;
  EXPECT_EQ(run("applypatch", apply_body(sha1_hex("something else"))).substr(0, 3), "-1 ")
      << "a result of another SHA-1";
  put("base", base_ + "changed");  // the base is no longer the patch's base
  std::string failed = run("applypatch", apply_body(sha1_hex(next_)));
  EXPECT_EQ(failed.substr(0, 3), "-1 ");
  EXPECT_NE(failed.find("base"), std::string::npos) << "a failed job gives its reason: " << failed;
  EXPECT_EQ(get("next").body, patch);
  put("plain", next_);  // no pending patch at all
  EXPECT_EQ(run("applypatch", apply_body(sha1_hex(next_), "plain")).substr(0, 3), "-1 ");

  // Malformed patch marks are refused.
  EXPECT_EQ(http("PUT", object("x"), {kAuthHeader, "x-pmw-delta-object: patch:12->34"}, "data").status, 400);
  EXPECT_EQ(http("PUT", object("x"), {kAuthHeader, mark_, "x-pmw-delta-processtype: two"}, "data").status,
            400);
}

TEST_F(DeltaServerTest, CreateDeltaThenPatchDetailsAndDownload) {
  put("next", next_);
  const std::string orig = "patch:" + sha1_hex(base_);
  EXPECT_EQ(get("base", orig + "->" + sha1_hex(next_), "/details").status, 404) << "no patch kept yet";

  const std::string body =
      R"({"BucketName":"dlt","MaximumAttempts":5,"ObjectName1":"base","ObjectName2":"next",)"
      R"("BlockSize":2048,"ProcessType":0})";
  ASSERT_EQ(controls("POST", "/scripts", R"({"kind":"createdelta","delay_ms":500})").status, 200);
  std::string id = json_str(submit("/createdelta", body).get(), "DocumentID");
  EXPECT_EQ(json_str(submit("/createdelta", body).get(), "DocumentID"), id)
      << "a retry while the job is under way joins it";
  JsonPtr done = wait_job("createdelta", id);
  ASSERT_EQ(json_int(done.get(), "Code"), 5) << json_str(done.get(), "Description");

  JsonPtr d = parse_json(get("base", orig + "->" + sha1_hex(next_), "/details").body);
  std::string patch = get("next", orig).body;
  EXPECT_EQ(json_str(d.get(), "sha1") + " " + std::to_string(json_int(d.get(), "size")),
            sha1_hex(patch) + " " + std::to_string(patch.size()));
  put("next", next_ + "moved on");
  EXPECT_EQ(get("next", orig).status, 404) << "a patch answers only for the target's current content";
  EXPECT_EQ(get("base", "patch:zz", "/details").status, 400);
  EXPECT_EQ(run("createsignature", R"({"BucketName":"dlt","ObjectName":"base","BlockSize":1024,)"
                                   R"("MaximumAttempts":5,"ProcessType":0})")
                .substr(0, 2),
            "5 ");
}

TEST_F(DeltaServerTest, JobRequestsAreChecked) {
  std::string sig = R"({"BucketName":"dlt","ObjectName":"missing","BlockSize":2048})";
  EXPECT_EQ(http("POST", kri("/createsignature"), {}, sig).status, 401);
  struct Case {
    const char* route;
    std::string body;
    long status;
  } cases[] = {{"/createsignature", R"({"BucketName":"dlt"})", 400},
               {"/createsignature", R"({"BucketName":"dlt","ObjectName":"b","BlockSize":0})", 400},
               {"/applypatch", apply_body("short"), 400},
               {"/createsignature", R"({"BucketName":"nobucket","ObjectName":"b","BlockSize":9})", 404},
               {"/nosuchjob", sig, 404}};
  for (const Case& c : cases) EXPECT_EQ(post(c.route, c.body).status, c.status) << c.route << " " << c.body;
  EXPECT_EQ(http("GET", kri("/createsignature/unknown"), {kAuthHeader}).status, 404);
  std::string failed = run("createsignature", sig);
  EXPECT_TRUE(failed.size() > 3 && failed.substr(0, 3) == "-1 ")
      << "a missing object fails the job: " << failed;
}

TEST_F(DeltaServerTest, JobsSurviveAKilledServer) {
  put_patch();
  ASSERT_EQ(controls("POST", "/scripts", R"({"delay_ms":60000})").status, 200);
  JsonPtr job = submit("/applypatch", apply_body(sha1_hex(next_)));
  std::string id = json_str(job.get(), "DocumentID");
  std::string token = json_str(job.get(), "Description").substr(kri("/public/").size());
  ASSERT_EQ(json_int(wait_job("applypatch", id, 1).get(), "Code"), 1) << "the job is under way";
  server_.kill9();
  ASSERT_TRUE(server_.restart()) << server_.error();

  JsonPtr done = wait_job("applypatch", id);
  EXPECT_EQ(json_int(done.get(), "Code"), 5)
      << "the job is known after the restart and runs again from the start";
  EXPECT_EQ(get("next").body, next_);
  EXPECT_EQ(http("GET", kri("/public/" + token)).status, 200) << "the public address outlives the restart";
  JsonPtr report = parse_json(controls("GET", "").body);
  EXPECT_EQ(json_int(json_array_get(json_object_get(report.get(), "jobs"), 0), "Runs"), 2);
}

}  // namespace
