// Match, patch upload and patch download end to end against zel-server,
// with the delta engine's test controls and the fault rules driving every
// outcome; plus the signature SHA-1 reader and the match handlers' checks.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <zel/diff.h>
#include <zel/zel.h>

#include <atomic>
#include <functional>
#include <set>

#include "captured_log.h"
#include "match_object.h"
#include "signature.h"
#include "thread.h"
#include "threadpool.h"
#include "threads.h"
#include "transfer_support.h"

using namespace zeltest;

namespace {

struct DeltaOutcome : zeltest::Outcome {
  int32_t match_result = -99;
  std::atomic<bool> abort{false};
  // Run once by the abort check, on the worker, while the patch goes up.
  std::function<void()> during_upload;
  std::once_flag upload_seen;
};

void on_match(int32_t result, void* user_data) {
  auto* o = static_cast<DeltaOutcome*>(user_data);
  std::lock_guard<std::mutex> lock(o->mutex);
  o->match_result = result;
  o->finish();
}

int32_t on_abort(void* user_data) {
  auto* o = static_cast<DeltaOutcome*>(user_data);
  if (o->during_upload) std::call_once(o->upload_seen, o->during_upload);
  return o->abort.load() ? 1 : 0;
}

bool soon(const std::function<bool()>& ready) { return eventually(ready, std::chrono::seconds(30)); }

class DeltaOps : public LibTest {
 protected:
  void SetUp() override {
    LibTest::SetUp();
    ASSERT_EQ(kri_set_environment_url(ZEL_ENV_LOCAL, server_.base_url().c_str()), 0);
    make_bucket("dlt");
    base_ = pattern_bytes(300000, 1);
    next_ = base_;  // a few short runs of bytes changed
    for (size_t at : {size_t(10000), next_.size() / 2, next_.size() - 5000})
      for (size_t i = 0; i < 64; ++i) next_[at + i] = static_cast<char>(next_[at + i] ^ 0x5a);
    put_object("dlt", "base", base_);
    dir_.write("base", base_);
    dir_.write("next", next_);
    dir_.write("other", pattern_bytes(300000, 99));
  }

  void TearDown() override {
    LibTest::TearDown();
    kri_set_environment_url(ZEL_ENV_LOCAL, nullptr);
  }

  std::u16string w(const std::string& name) const { return wide(dir_.file(name)); }

  // Files in the scratch directory besides the inputs.
  std::set<std::string> leftovers() const {
    std::vector<std::string> all = dir_entries(dir_.file(""));
    std::set<std::string> names(all.begin(), all.end());
    for (const char* known : {"base", "next", "other"}) names.erase(known);
    return names;
  }

  HttpResult controls(const std::string& method, const std::string& route, const std::string& body = "") {
    return http(method, server_.base_url() + "/_emulator/delta" + route, {kAuthHeader}, body);
  }
  // The engine's jobs of `kind`, oldest first; valid until the next call.
  std::vector<json_t*> jobs(const std::string& kind) {
    jobs_ = parse_json(controls("GET", "").body);
    std::vector<json_t*> found;
    size_t i;
    json_t* job;
    json_array_foreach(json_object_get(jobs_.get(), "jobs"), i, job) {
      if (kind == json_str(job, "Kind")) found.push_back(job);
    }
    return found;
  }
  bool delta_finished() {
    return soon([&] {
      std::vector<json_t*> all = jobs("createdelta");
      return !all.empty() && json_int(all[0], "Code") == KRI_JOB_FINISHED;
    });
  }

  // Runs a patch upload of `derv_file` over the object "base" into "next".
  void put_patch(DeltaOutcome* out, double ratio, const std::string& origin_file = "base",
                 const std::string& derv_file = "next") {
    ZELHeaders* headers = zel_headers_append(nullptr, "x-pmw-acm-namespace", "team-ns");
    std::u16string origin = w(origin_file), derv = w(derv_file), sig = w("sig"), patch = w("patch");
    ZELStream* origin_stream = zel_stream_init(origin.c_str());
    ZELStream* derv_stream = zel_stream_init(derv.c_str());
    ZELPutPatchOpt opt{
        origin_stream, derv_stream,  sig.c_str(), patch.c_str(), u"dlt",  u"base",
        u"next",       tmp_.c_str(), 0,           ratio,         headers, outcome_status<ZELPutPatchResp>,
        on_details,    on_abort};
    zel_put_patch(handle(), &opt, out);
    zel_headers_cleanup(headers);
    zel_stream_cleanup(origin_stream);
    zel_stream_cleanup(derv_stream);
  }

  ZELGetPatchOpt get_opt(double ratio) {
    return ZELGetPatchOpt{
        u"dlt",       u"base", u"next", orig_.c_str(), patch_.c_str(), dest_.c_str(),
        tmp_.c_str(), 0,       0,       ratio,         nullptr,        outcome_status<ZELGetPatchResp>,
        outcome_done};
  }
  // The one report of a patch download: (done, code, message).
  std::tuple<int, int32_t, std::string> get_patch(const ZELGetPatchOpt& opt) {
    DeltaOutcome out;
    zel_get_patch(handle(), &opt, &out);
    EXPECT_TRUE(out.wait_once()) << "expected exactly one report";
    std::lock_guard<std::mutex> lock(out.mutex);
    return {out.done, out.code, out.message};
  }

  zeltest::ScratchDir dir_;
  std::string base_, next_;
  std::u16string orig_ = w("base"), patch_ = w("patch"), dest_ = w("out"), tmp_ = wide(dir_.file(""));
  JsonPtr jobs_;
};

// The digest itself is read for every patch mark (see PutPatchOutcomes).
// The match handler's own field checks sit behind the entry's (below), so
// only its refusal of missing records is reachable and checked.
TEST_F(DeltaOps, SignatureSha1AndMatchHandlerRefuseWhatIsMissing) {
  dir_.write("short", std::string(23, 'x'));
  EXPECT_EQ(signature_sha1(w("short").c_str()), nullptr);
  EXPECT_EQ(signature_sha1(w("absent").c_str()), nullptr);
  ZELMatchObjectDecorator empty{handle(), nullptr, nullptr};
  EXPECT_FALSE(match_decorator_check(nullptr));
  EXPECT_FALSE(match_decorator_check(&empty));
}

// One report each time; the signature is removed unless the options were
// refused (then it is the caller's).
TEST_F(DeltaOps, MatchReportsOnceAndRemovesTheSignature) {
  const struct {
    const char* file;
    double ratio;
    const char* message;  // callback message (code 0), or none: a positive match result
  } rows[] = {{"next", 0.5, nullptr},
              {"next", 1.01, "ZELMatchObjectOpt ratio is invalid"},
              {"absent", 0.5, "Failed to find file match"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.file) + " ratio " + std::to_string(row.ratio));
    std::u16string dest = w(row.file), sig = w("sig");
    ZELMatchObjectOpt opt{u"dlt",       u"base",   sig.c_str(), dest.c_str(),
                          tmp_.c_str(), row.ratio, nullptr,     outcome_status<ZELMatchObjectResp>,
                          on_match};
    DeltaOutcome out;
    zel_match_object(handle(), &opt, &out);
    ASSERT_TRUE(out.wait_once());
    std::string want = row.message != nullptr ? row.message : "";
    EXPECT_EQ(std::make_tuple(out.match_result > 0, out.code, out.message),
              std::make_tuple(row.message == nullptr, 0, want));
    bool refused = row.ratio < 0.0 || row.ratio > 1.0;
    EXPECT_EQ(leftovers(), refused ? std::set<std::string>{"sig"} : std::set<std::string>{});
    remove(dir_.file("sig").c_str());
  }
}

TEST_F(DeltaOps, PutPatchOutcomes) {
  const std::string patch_mark = "patch:" + sha1_hex(base_) + "->" + sha1_hex(next_);
  auto script = [](const std::string& s) { return R"({"kind":"applypatch",)" + s + "}"; };
  auto fault = [](const std::string& method, const std::string& path, int status) {
    return R"({"method":")" + method + R"(","path":")" + path + R"(","status":)" + std::to_string(status) +
           "}";
  };
  const char* kEmpty = "An empty response was received from the KRI server";
  struct Row {
    const char* name;
    std::string rule;  // a delta engine job script, or a fault rule
    int32_t code;      // -1000: the patch is applied
    const char* message;
    const char* derv = "next";
    double ratio = 0.5;
    const char* origin = "base";
  } rows[] = {
      {"applied", "", -1000, ""},
      {"address between empty answers", script(R"("empty_polls":8,"gap_after":4)"), -1000, ""},
      {"too different", "", -101, "Difference between files is greater than ratio", "other", 0.1},
      {"no origin file", "", -102, "Failed to create signature and patch", "next", 0.5, "absent"},
      {"job failed", script(R"("fail":"boom")"), -103, "Failed to apply the patch"},
      {"empty answers after one address", script(R"("empty_polls":9,"gap_after":4)"), -301, kEmpty},
      {"finished without details", script(R"("description":"")"), -301, "Cannot unmarshal json response"},
      {"apply refused", fault("POST", "applypatch$", 500), -103, "Internal Server Error"},
      {"status refused", fault("GET", "applypatch/", 404), 0, "Not Found"},
      {"upload refused", fault("PUT", "objects/next$", 403), 403, "Forbidden"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ASSERT_EQ(controls("DELETE", "/scripts").status, 200);
    ASSERT_TRUE(server_.clear_faults());
    bool script_rule = row.rule.rfind(R"({"kind")", 0) == 0;
    ASSERT_TRUE(row.rule.empty() || (script_rule ? controls("POST", "/scripts", row.rule).status == 200
                                                 : server_.add_fault(row.rule)));
    server_.clear_requests();
    DeltaOutcome out;
    put_patch(&out, row.ratio, row.origin, row.derv);
    ASSERT_TRUE(out.wait_once()) << "expected exactly one report";
    EXPECT_TRUE(leftovers().empty());
    if (row.code != -1000) {
      EXPECT_EQ(std::make_tuple(out.callbacks, out.code, out.message),
                std::make_tuple(1, row.code, row.message));
      continue;
    }
    // The stored bytes and the reported details are checked by the C++ layer's tests.
    EXPECT_EQ(out.details, 1) << out.message;
    // The patch went up with its two headers, the apply job with the caller's
    // namespace; the engine checks the result against the requested SHA-1.
    int marked = 0, scoped = 0;
    for (const RecordedRequest& r : server_.requests()) {
      marked += r.method == "PUT" && r.header("x-pmw-delta-object") == patch_mark &&
                r.header("x-pmw-delta-processtype") == "0" && r.body_size < next_.size() / 10;
      scoped += r.method == "POST" && r.header("x-pmw-acm-namespace") == "team-ns";
    }
    EXPECT_EQ(std::make_pair(marked, scoped), std::make_pair(1, 1));
  }
}

TEST_F(DeltaOps, PutPatchStopsPollingOnAbortAndOnShutdown) {
  for (bool shutdown : {false, true}) {
    SCOPED_TRACE(shutdown ? "pool stopping" : "abort callback");
    ASSERT_EQ(controls("POST", "/scripts", R"({"kind":"applypatch","delay_ms":20000})").status, 200);
    auto polls = [&] {
      long long sum = 0;
      for (json_t* job : jobs("applypatch")) sum += json_int(job, "Polls");
      return sum;
    };
    long long before = polls();
    DeltaOutcome out;
    put_patch(&out, 0.5);
    ASSERT_TRUE(soon([&] { return polls() > before; }));
    if (shutdown) {
      thread_pool_cleanup();  // sets the stop flag and waits for the poller
      ASSERT_GE(thread_pool_init(8), 0);
    } else {
      out.abort = true;
    }
    ASSERT_TRUE(out.wait_once());
    EXPECT_EQ(out.code, -302);
    EXPECT_EQ(out.message, "Operation was aborted by an application callback");
    EXPECT_TRUE(leftovers().empty());
  }
}

TEST_F(DeltaOps, PutPatchJoinsTheFirstThreadWhenTheSecondCannotStart) {
  static std::atomic<int> creates{0};
  static int failing;
  for (int fail_at : {1, 2}) {
    SCOPED_TRACE(fail_at);
    failing = fail_at;
    creates = 0;
    zel::thrd_set_create_hook(
        [] { return ++creates == failing ? int(zel::thrd_nomem) : int(zel::thrd_success); });
    DeltaOutcome out;
    put_patch(&out, 0.5);
    zel::thrd_set_create_hook(nullptr);
    // Reported on the calling thread, before the call returned.
    EXPECT_EQ(out.finals, 1);
    EXPECT_EQ(out.code, 0);
    EXPECT_EQ(out.message, thread_result_message(zel::thrd_nomem));
    EXPECT_TRUE(leftovers().empty());
  }
}

TEST_F(DeltaOps, PutPatchAppliesNothingWhenThePatchFileCannotBeRemoved) {
  DeltaOutcome out;
  // The patch's name is taken by a non-empty directory while its bytes go up.
  std::string patch = dir_.file("patch");
  out.during_upload = [&] {
    ASSERT_EQ(rename(patch.c_str(), dir_.file("moved").c_str()), 0);
    ASSERT_EQ(mkdir(patch.c_str(), 0700), 0);
    dir_.write("patch/keep", "x");
  };
  put_patch(&out, 0.5);
  ASSERT_TRUE(out.wait_once());
  EXPECT_EQ(out.code, -104);
  EXPECT_EQ(out.message, "Cannot remove a patch file");
  EXPECT_TRUE(jobs("applypatch").empty());
}

TEST_F(DeltaOps, EntryPointsOnlyLogWithoutHandleOrOptions) {
  CapturedLog log;
  ZEL* no_token = zel_init(ZEL_ENV_LOCAL, 2, nullptr, nullptr);
  zel_match_object(no_token, nullptr, nullptr);
  zel_put_patch(nullptr, nullptr, nullptr);
  zel_get_patch(no_token, nullptr, nullptr);
  zel_cleanup(no_token);
  ZELMatchObjectOpt match{u"dlt", u"base", nullptr, u"d", u"t", 0.5, nullptr, nullptr, nullptr};
  ZELPutPatchOpt put{};
  zel_match_object(handle(), &match, nullptr);
  zel_put_patch(handle(), &put, nullptr);
  zel_get_patch(handle(), nullptr, nullptr);
  for (const char* message : {"ZEL is not initialized", "ZELMatchObjectOpt is not initialized",
                              "ZELPutPatchOpt is not initialized", "ZELGetPatchOpt is not initialized"})
    EXPECT_EQ(log.count(message), message[3] == ' ' ? 3 : 1) << message;
}

TEST_F(DeltaOps, GetPatchOptionChecksComeFirst) {
  // The field set to null (or none), ratio, preprocess, message.
  const std::tuple<const char16_t * ZELGetPatchOpt::*, double, int32_t, const char*> rows[] = {
      {&ZELGetPatchOpt::bucket_key, 0.5, 0, "ZELGetPatchOpt bucket_key is (null)"},
      {&ZELGetPatchOpt::orig_key, 0.5, 0, "ZELGetPatchOpt orig_key is (null)"},
      {&ZELGetPatchOpt::dest_key, 0.5, 0, "ZELGetPatchOpt dest_key is (null)"},
      {&ZELGetPatchOpt::orig, 0.5, 0, "ZELGetPatchOpt original stream is (null)"},
      {&ZELGetPatchOpt::patch, 0.5, 0, "ZELGetPatchOpt patch stream is (null)"},
      {&ZELGetPatchOpt::dest, 0.5, 0, "ZELGetPatchOpt resulting stream is (null)"},
      {&ZELGetPatchOpt::temp_dir, 0.5, 0, "ZELGetPatchOpt temp_dir is (null)"},
      {nullptr, 1.01, 0, "ZELGetPatchOpt ratio is invalid"},
      {nullptr, 0.5, -1, "ZELGetPatchOpt preprocess is invalid"},
  };
  for (const auto& [field, ratio, preprocess, message] : rows) {
    server_.clear_requests();
    ZELGetPatchOpt opt = get_opt(ratio);
    opt.preprocess = preprocess;
    if (field != nullptr) opt.*field = nullptr;
    EXPECT_EQ(get_patch(opt), std::make_tuple(0, 0, std::string(message)));
    EXPECT_TRUE(server_.requests().empty()) << message << ": nothing may be asked";
  }
}

TEST_F(DeltaOps, GetPatchOutcomes) {
  put_object("dlt", "next", next_);
  // No patch yet: a create-delta job is registered, and once it has run the
  // same call succeeds.
  EXPECT_EQ(get_patch(get_opt(0.5)),
            std::make_tuple(0, -203, std::string("Cannot get patch object details")));
  ASSERT_EQ(jobs("createdelta").size(), 1u);
  ASSERT_TRUE(delta_finished());
  EXPECT_EQ(std::get<0>(get_patch(get_opt(0.5))), 1);  // the bytes: see the C++ layer's tests
  ASSERT_EQ(remove(dir_.file("out").c_str()), 0);

  HttpResult patch =
      http("GET", server_.api(2) + "/buckets/dlt/objects/base/details",
           {kAuthHeader, "x-pmw-delta-object: patch:" + sha1_hex(base_) + "->" + sha1_hex(next_)});
  JsonPtr details = parse_json(patch.body);
  ASSERT_TRUE(details) << patch.body;
  const double at_limit = double(json_int(details.get(), "size")) / double(next_.size());
  const std::string patch_get =
      R"({"method":"GET","path":"objects/next$","header":"x-pmw-delta-object: patch:",)";
  struct Row {
    const char* name;
    int32_t code;
    const char* message;
    std::string fault = "";
    const char* dest_key = "next";
    double ratio = 0.5;
    bool spoil_base = false;
    size_t delta_jobs = 0;  // create-delta jobs registered by the call
  } rows[] = {
      {"no target", -203, "Cannot get dest object details", "", "nothing"},
      {"ratio at the limit", -101, "The difference between two objects is greater or equal the ratio", "",
       "next", at_limit},
      {"patch gone", -404, "Patch not found", patch_get + R"("status":404})", "next", 0.5, false, 1},
      {"download failed", -401, "Cannot download a patch", patch_get + R"("status":500})"},
      {"wrong base", -103, "Cannot apply a patch", "", "next", 0.5, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ASSERT_TRUE(server_.clear_faults());
    ASSERT_TRUE(row.fault.empty() || server_.add_fault(row.fault));
    dir_.write("base", row.spoil_base ? pattern_bytes(base_.size(), 7) : base_);
    size_t jobs_before = jobs("createdelta").size();
    std::u16string dest_key = wide(row.dest_key);
    ZELGetPatchOpt opt = get_opt(row.ratio);
    opt.dest_key = dest_key.c_str();
    EXPECT_EQ(get_patch(opt), std::make_tuple(0, row.code, std::string(row.message)));
    // The create-delta request follows the report.
    EXPECT_TRUE(soon([&] { return jobs("createdelta").size() - jobs_before == row.delta_jobs; }));
    EXPECT_TRUE(leftovers().empty()) << "no patch and no result may stay";
  }
}

TEST_F(DeltaOps, GetPatchToAnEmptyObjectSkipsTheRatio) {
  put_object("dlt", "next", "");
  EXPECT_EQ(std::get<1>(get_patch(get_opt(0.0))), -203);
  ASSERT_TRUE(delta_finished());
  EXPECT_EQ(std::get<0>(get_patch(get_opt(0.0))), 1);
  EXPECT_TRUE(zeltest::file_exists(dir_.file("out")));
  EXPECT_EQ(zeltest::read_file(dir_.file("out")), "");
  EXPECT_TRUE(leftovers() == std::set<std::string>{"out"}) << "the patch is removed";
}

}  // namespace
