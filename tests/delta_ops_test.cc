// Match, patch upload and patch download end to end against zel-server,
// with the delta engine's test controls and the fault rules driving every
// outcome; plus the signature SHA-1 reader and the match handlers' checks.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <zel/diff.h>
#include <zel/zel.h>

#include <atomic>
#include <cmath>
#include <functional>
#include <set>

#include "captured_log.h"
#include "match_object.h"
#include "signature.h"
#include "thread.h"
#include "threadpool.h"
#include "transfer_support.h"

using namespace zeltest;

namespace {

struct DeltaOutcome : zeltest::Outcome {
  int matches = 0;
  int32_t match_result = -99;
  std::atomic<bool> abort{false};
  // Run once by the abort check, on the worker, while the patch goes up.
  std::function<void()> during_upload;
  std::once_flag upload_seen;
};

void on_match(int32_t result, void* user_data) {
  auto* o = static_cast<DeltaOutcome*>(user_data);
  std::lock_guard<std::mutex> lock(o->mutex);
  o->matches++;
  o->match_result = result;
  o->finish();
}

int32_t on_abort(void* user_data) {
  auto* o = static_cast<DeltaOutcome*>(user_data);
  if (o->during_upload) std::call_once(o->upload_seen, o->during_upload);
  return o->abort.load() ? 1 : 0;
}

// `data` with a few short runs of bytes changed.
std::string edited(std::string data) {
  for (size_t at : {size_t(10000), data.size() / 2, data.size() - 5000})
    for (size_t i = 0; i < 64; ++i) data[at + i] = static_cast<char>(data[at + i] ^ 0x5a);
  return data;
}

class DeltaOps : public LibTest {
 protected:
  void SetUp() override {
    LibTest::SetUp();
    ASSERT_EQ(kri_set_environment_url(ZEL_ENV_LOCAL, server_.base_url().c_str()), 0);
    make_bucket("dlt");
    base_ = pattern_bytes(300000, 1);
    next_ = edited(base_);
    put_object("dlt", "base", base_);
    dir_.write("base", base_);
    dir_.write("next", next_);
  }
  void TearDown() override {
    LibTest::TearDown();
    kri_set_environment_url(ZEL_ENV_LOCAL, nullptr);
  }

  std::u16string w(const std::string& name) const { return wide(dir_.file(name)); }

  // Files in the scratch directory besides the two inputs.
  std::set<std::string> leftovers() const {
    std::vector<std::string> all = dir_entries(dir_.file(""));
    std::set<std::string> names(all.begin(), all.end());
    for (const char* known : {"base", "next"}) names.erase(known);
    return names;
  }

  HttpResult controls(const std::string& method, const std::string& route, const std::string& body = "") {
    return http(method, server_.base_url() + "/_emulator/delta" + route, {kAuthHeader}, body);
  }
  // Calls `each` with every job of `kind` the engine holds, oldest first.
  void for_jobs(const std::string& kind, const std::function<void(json_t*)>& each) {
    JsonPtr all = parse_json(controls("GET", "").body);
    size_t i;
    json_t* job;
    json_array_foreach(json_object_get(all.get(), "jobs"), i, job) {
      if (kind == json_str(job, "Kind")) each(job);
    }
  }
  // Each job's (Code, Polls).
  std::vector<std::pair<long long, long long>> jobs(const std::string& kind) {
    std::vector<std::pair<long long, long long>> out;
    for_jobs(kind, [&](json_t* job) { out.emplace_back(json_int(job, "Code"), json_int(job, "Polls")); });
    return out;
  }
  // One key of the newest job as compact JSON ("Acm", "Request").
  std::string last_job(const std::string& kind, const char* key) {
    std::string found;
    for_jobs(kind, [&](json_t* job) {
      char* text = json_dumps(json_object_get(job, key), JSON_COMPACT | JSON_SORT_KEYS | JSON_ENCODE_ANY);
      found = text != nullptr ? text : "";
      free(text);
    });
    return found;
  }
  bool wait_until(const std::function<bool()>& ready) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!ready()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
  }

  // Runs a patch upload of `derv_file` over the object "base" into "next".
  void put_patch(DeltaOutcome* out, double ratio, const std::string& origin_file = "base",
                 const std::string& derv_file = "next", int32_t process_type = 0) {
    ZELHeaders* headers = zel_headers_append(nullptr, "x-pmw-acm-namespace", "team-ns");
    std::u16string origin = w(origin_file), derv = w(derv_file), sig = w("sig"), patch = w("patch"),
                   tmp = wide(dir_.file(""));
    ZELStream* origin_stream = zel_stream_init(origin.c_str());
    ZELStream* derv_stream = zel_stream_init(derv.c_str());
    ZELPutPatchOpt opt{origin_stream, derv_stream, sig.c_str(), patch.c_str(),
                       u"dlt",        u"base",     u"next",     tmp.c_str(),
                       process_type,  ratio,       headers,     outcome_status<ZELPutPatchResp>,
                       on_details,    on_abort};
    zel_put_patch(handle(), &opt, out);
    zel_headers_cleanup(headers);
    zel_stream_cleanup(origin_stream);
    zel_stream_cleanup(derv_stream);
  }

  ZELGetPatchOpt get_opt(double ratio) {
    ZELGetPatchOpt opt{
        u"dlt",       u"base", u"next", orig_.c_str(), patch_.c_str(), dest_.c_str(),
        tmp_.c_str(), 0,       0,       ratio,         nullptr,        outcome_status<ZELGetPatchResp>,
        outcome_done};
    return opt;
  }
  struct Report {
    int done;
    int32_t code;
    std::string message;
  };
  Report get_patch(const ZELGetPatchOpt& opt) {
    DeltaOutcome out;
    zel_get_patch(handle(), &opt, &out);
    EXPECT_TRUE(out.wait_once()) << "expected exactly one report";
    std::lock_guard<std::mutex> lock(out.mutex);
    return Report{out.done, out.code, out.message};
  }

  zeltest::ScratchDir dir_;
  std::string base_, next_;
  std::u16string orig_ = w("base"), patch_ = w("patch"), dest_ = w("out"), tmp_ = wide(dir_.file(""));
};

// ---------------------------------------------------------------------------
// Signature SHA-1 reader and the match handlers' checks.

TEST_F(DeltaOps, SignatureSha1ReadsTheDigestOrRefusesShortFiles) {
  char* message = nullptr;
  ASSERT_GE(diff_create_signature(w("base").c_str(), w("sig").c_str(), tmp_.c_str(), 2048, 1, 0, &message),
            0);
  free_err_msg(&message);
  char* sha1 = signature_sha1(w("sig").c_str());
  ASSERT_NE(sha1, nullptr);
  EXPECT_EQ(std::string(sha1), sha1_hex(base_));
  free(sha1);

  CapturedLog log;
  dir_.write("short", std::string(23, 'x'));
  EXPECT_EQ(signature_sha1(w("short").c_str()), nullptr);
  EXPECT_EQ(log.count("Cannot get sha1 from signature file"), 1);
  EXPECT_EQ(signature_sha1(w("absent").c_str()), nullptr);
  EXPECT_EQ(log.count("Cannot open the signature file"), 1);
  EXPECT_EQ(log.tag_of("Cannot open the signature file"), "src\\util");
}

TEST_F(DeltaOps, MatchHandlerCheckNamesTheFirstMissingPiece) {
  struct Row {
    std::function<void(ZELMatchObjectDecorator&)> spoil;
    const char* message;
  } rows[] = {
      {[](ZELMatchObjectDecorator& d) { d.handle = nullptr; }, "Cannot find the zel configuration"},
      {[](ZELMatchObjectDecorator& d) { d.opt->bucket_key = nullptr; },
       "ZELMatchObjectOpt bucket key is (null)"},
      {[](ZELMatchObjectDecorator& d) { d.opt->orig_key = nullptr; }, "ZELMatchObjectOpt orig key is (null)"},
      {[](ZELMatchObjectDecorator& d) { d.opt->sig_path = nullptr; }, "ZELMatchObjectOpt sig path is (null)"},
      {[](ZELMatchObjectDecorator& d) { d.opt->dest = nullptr; }, "ZELMatchObjectOpt dest is (null)"},
      {[](ZELMatchObjectDecorator& d) { d.opt->temp_dir = nullptr; }, "ZELMatchObjectOpt temp dir is (null)"},
      {[](ZELMatchObjectDecorator& d) { d.opt->ratio = -0.01; }, "ZELMatchObjectOpt ratio is invalid"},
      {[](ZELMatchObjectDecorator& d) { d.opt->ratio = 1.01; }, "ZELMatchObjectOpt ratio is invalid"},
  };
  for (const Row& row : rows) {
    Recorder recorder;
    ZELMatchObjectOpt opt{u"b", u"k", u"s", u"d", u"t", 0.5, nullptr, on_status<ZELMatchObjectResp>, nullptr};
    ZELMatchObjectDecorator d{handle(), &opt, &recorder};
    ASSERT_TRUE(match_decorator_check(&d));
    row.spoil(d);
    EXPECT_FALSE(match_decorator_check(&d));
    std::vector<Event> events = recorder.events();
    ASSERT_EQ(events.size(), 1u) << row.message;
    EXPECT_EQ(events[0].code, 0);
    EXPECT_EQ(events[0].message, row.message);
  }
  CapturedLog log;
  ZELMatchObjectDecorator empty{handle(), nullptr, nullptr};
  EXPECT_FALSE(match_decorator_check(nullptr));
  EXPECT_FALSE(match_decorator_check(&empty));
  EXPECT_EQ(log.count("ZELMatchObjectDecorator pointer is (null)"), 1);
  EXPECT_EQ(log.count("ZELMatchObjectOpt pointer is (null)"), 1);
}

// ---------------------------------------------------------------------------
// zel_match_object

TEST_F(DeltaOps, MatchReportsOnceAndRemovesTheSignature) {
  dir_.write("other", pattern_bytes(300000, 99));
  struct Row {
    const char* key;
    const char* file;
    double ratio;
    int32_t code;         // callback code; -99 when a match result is expected
    const char* message;  // callback message, or none
    int32_t match;        // 1: positive result, 0: zero
  } rows[] = {
      {"base", "next", 0.5, -99, nullptr, 1},
      {"base", "base", 0.0, -99, nullptr, 1},
      {"base", "other", 1.0, -99, nullptr, 1},
      {"base", "other", 0.1, -99, nullptr, 0},
      {"base", "next", -0.01, 0, "ZELMatchObjectOpt ratio is invalid", 0},
      {"base", "next", 1.01, 0, "ZELMatchObjectOpt ratio is invalid", 0},
      {"base", "absent", 0.5, 0, "Failed to find file match", 0},
      {"nothing", "next", 0.5, 404, "Not Found", 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.file) + " ratio " + std::to_string(row.ratio));
    server_.clear_requests();
    std::u16string key = wide(row.key), dest = w(row.file), sig = w("sig");
    ZELMatchObjectOpt opt{u"dlt",       key.c_str(), sig.c_str(), dest.c_str(),
                          tmp_.c_str(), row.ratio,   nullptr,     outcome_status<ZELMatchObjectResp>,
                          on_match};
    DeltaOutcome out;
    zel_match_object(handle(), &opt, &out);
    ASSERT_TRUE(out.wait_once());
    if (row.message == nullptr) {
      EXPECT_EQ(out.matches, 1);
      EXPECT_EQ(out.match_result > 0, row.match == 1) << out.match_result;
    } else {
      EXPECT_EQ(out.code, row.code);
      EXPECT_EQ(out.message, row.message);
    }
    // A handler that refuses its options leaves the signature it was given.
    bool refused = row.ratio < 0.0 || row.ratio > 1.0;
    std::set<std::string> expected{"other"};
    if (refused) expected.insert("sig");
    EXPECT_EQ(leftovers(), expected);
    remove(dir_.file("sig").c_str());
    std::vector<RecordedRequest> sent = server_.requests();
    ASSERT_FALSE(sent.empty());
    EXPECT_EQ(sent.back().header("x-pmw-delta-object"), "signature:@2048");
  }
}

// ---------------------------------------------------------------------------
// zel_put_patch

TEST_F(DeltaOps, PutPatchOutcomes) {
  dir_.write("other", pattern_bytes(300000, 99));
  const std::string fail_job = R"({"kind":"applypatch","fail":"boom"})";
  struct Row {
    const char* name;
    std::string script;  // delta engine job script
    std::string fault;   // fault rule
    const char* origin;
    const char* derv;
    double ratio;
    int32_t code;  // -1000: the patch is applied
    const char* message;
  } rows[] = {
      {"applied", "", "", "base", "next", 0.5, -1000, ""},
      {"address between empty answers", R"({"kind":"applypatch","empty_polls":8,"gap_after":4})", "", "base",
       "next", 0.5, -1000, ""},
      {"too different", "", "", "base", "other", 0.1, -101, "Difference between files is greater than ratio"},
      {"no origin file", "", "", "absent", "next", 0.5, -102, "Failed to create signature and patch"},
      {"job failed", fail_job, "", "base", "next", 0.5, -103, "Failed to apply the patch"},
      {"empty answers", R"({"kind":"applypatch","empty_polls":5})", "", "base", "next", 0.5, -301,
       "An empty response was received from the KRI server"},
      {"empty answers after one address", R"({"kind":"applypatch","empty_polls":9,"gap_after":4})", "",
       "base", "next", 0.5, -301, "An empty response was received from the KRI server"},
      {"finished without details", R"({"kind":"applypatch","description":""})", "", "base", "next", 0.5, -301,
       "Cannot unmarshal json response"},
      {"apply refused", "", R"({"method":"POST","path":"applypatch$","status":500,"body":"no"})", "base",
       "next", 0.5, -103, "Internal Server Error"},
      {"status refused", "", R"({"method":"GET","path":"applypatch/","status":404,"body":"gone"})", "base",
       "next", 0.5, 0, "Not Found"},
      {"upload refused", "", R"({"method":"PUT","path":"objects/next$","status":403,"body":"no"})", "base",
       "next", 0.5, 403, "Forbidden"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ASSERT_EQ(controls("DELETE", "/scripts").status, 200);
    ASSERT_TRUE(server_.clear_faults());
    if (!row.script.empty()) {
      ASSERT_EQ(controls("POST", "/scripts", row.script).status, 200);
    }
    if (!row.fault.empty()) {
      ASSERT_TRUE(server_.add_fault(row.fault));
    }
    server_.clear_requests();
    DeltaOutcome out;
    put_patch(&out, row.ratio, row.origin, row.derv);
    ASSERT_TRUE(out.wait_once()) << "expected exactly one report";
    if (row.code == -1000) {
      EXPECT_EQ(out.details, 1) << out.message;
      EXPECT_EQ(out.sha1, sha1_hex(next_));
      EXPECT_EQ(http("GET", server_.api(2) + "/buckets/dlt/objects/next", {kAuthHeader}).body, next_);
      bool marked = false;
      for (const RecordedRequest& r : server_.requests()) {
        if (r.method != "PUT") continue;
        marked = r.header("x-pmw-delta-object") == "patch:" + sha1_hex(base_) + "->" + sha1_hex(next_) &&
                 r.header("x-pmw-delta-processtype") == "0" && r.body_size < next_.size() / 10;
      }
      EXPECT_TRUE(marked) << "the patch went up with its two headers";
      EXPECT_EQ(last_job("applypatch", "Acm"), R"({"x-pmw-acm-namespace":"team-ns"})");
      EXPECT_EQ(last_job("applypatch", "Request"),
                R"({"BucketName":"dlt","MaximumAttempts":5,"NewObjectName":"next","NewObjectSHA1":")" +
                    sha1_hex(next_) + R"(","ObjectName":"base","ProcessType":0})");
    } else {
      EXPECT_EQ(out.callbacks, 1);
      EXPECT_EQ(out.code, row.code);
      EXPECT_EQ(out.message, row.message);
    }
    EXPECT_EQ(leftovers(), std::set<std::string>{"other"});
  }
}

TEST_F(DeltaOps, PutPatchStopsPollingOnAbortAndOnShutdown) {
  for (bool shutdown : {false, true}) {
    SCOPED_TRACE(shutdown ? "pool stopping" : "abort callback");
    ASSERT_EQ(controls("POST", "/scripts", R"({"kind":"applypatch","delay_ms":20000})").status, 200);
    auto polls = [&] {
      long long sum = 0;
      for (const auto& job : jobs("applypatch")) sum += job.second;
      return sum;
    };
    long long before = polls();
    DeltaOutcome out;
    put_patch(&out, 0.5);
    ASSERT_TRUE(wait_until([&] { return polls() > before; }));
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
  for (int fail_at : {1, 2}) {
    SCOPED_TRACE(fail_at);
    static int failing;
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
  EXPECT_EQ(log.count("ZEL is not initialized"), 3);
  EXPECT_EQ(log.tag_of("ZEL is not initialized"), "src\\object");
  ZELMatchObjectOpt match{u"dlt", u"base", nullptr, u"d", u"t", 0.5, nullptr, nullptr, nullptr};
  ZELPutPatchOpt put{};
  zel_match_object(handle(), &match, nullptr);
  zel_put_patch(handle(), &put, nullptr);
  zel_get_patch(handle(), nullptr, nullptr);
  for (const char* message : {"ZELMatchObjectOpt is not initialized", "ZELPutPatchOpt is not initialized",
                              "ZELGetPatchOpt is not initialized"}) {
    EXPECT_EQ(log.count(message), 1) << message;
    EXPECT_EQ(log.tag_of(message), "src\\object") << message;
  }
  zel_cleanup(no_token);
}

// ---------------------------------------------------------------------------
// zel_get_patch

TEST_F(DeltaOps, GetPatchOptionChecksComeFirst) {
  struct Row {
    std::function<void(ZELGetPatchOpt&)> spoil;
    const char* message;
  } rows[] = {
      {[](ZELGetPatchOpt& o) { o.bucket_key = nullptr; }, "ZELGetPatchOpt bucket_key is (null)"},
      {[](ZELGetPatchOpt& o) { o.orig_key = nullptr; }, "ZELGetPatchOpt orig_key is (null)"},
      {[](ZELGetPatchOpt& o) { o.dest_key = nullptr; }, "ZELGetPatchOpt dest_key is (null)"},
      {[](ZELGetPatchOpt& o) { o.orig = nullptr; }, "ZELGetPatchOpt original stream is (null)"},
      {[](ZELGetPatchOpt& o) { o.patch = nullptr; }, "ZELGetPatchOpt patch stream is (null)"},
      {[](ZELGetPatchOpt& o) { o.dest = nullptr; }, "ZELGetPatchOpt resulting stream is (null)"},
      {[](ZELGetPatchOpt& o) { o.temp_dir = nullptr; }, "ZELGetPatchOpt temp_dir is (null)"},
      {[](ZELGetPatchOpt& o) { o.ratio = 1.01; }, "ZELGetPatchOpt ratio is invalid"},
      {[](ZELGetPatchOpt& o) { o.ratio = -0.01; }, "ZELGetPatchOpt ratio is invalid"},
      {[](ZELGetPatchOpt& o) { o.preprocess = -1; }, "ZELGetPatchOpt preprocess is invalid"},
  };
  for (const Row& row : rows) {
    server_.clear_requests();
    ZELGetPatchOpt opt = get_opt(0.5);
    row.spoil(opt);
    Report out = get_patch(opt);
    EXPECT_EQ(out.code, 0);
    EXPECT_EQ(out.message, row.message);
    EXPECT_TRUE(server_.requests().empty()) << row.message << ": nothing may be asked";
  }
}

TEST_F(DeltaOps, GetPatchOutcomes) {
  put_object("dlt", "next", next_);
  // No patch yet: a create-delta job is registered, and once it has run the
  // same call succeeds.
  Report first = get_patch(get_opt(0.5));
  EXPECT_EQ(first.code, -203);
  EXPECT_EQ(first.message, "Cannot get patch object details");
  ASSERT_EQ(jobs("createdelta").size(), 1u);
  EXPECT_EQ(last_job("createdelta", "Request"),
            R"({"BlockSize":2048,"BucketName":"dlt","MaximumAttempts":5,"ObjectName1":"base",)"
            R"("ObjectName2":"next","ProcessType":0})");
  ASSERT_TRUE(wait_until([&] { return jobs("createdelta")[0].first == KRI_JOB_FINISHED; }));
  Report second = get_patch(get_opt(0.5));
  EXPECT_EQ(second.done, 1) << second.message;
  EXPECT_EQ(zeltest::read_file(dir_.file("out")), next_);
  ASSERT_EQ(remove(dir_.file("out").c_str()), 0);

  HttpResult patch =
      http("GET", server_.api(2) + "/buckets/dlt/objects/base/details",
           {kAuthHeader, "x-pmw-delta-object: patch:" + sha1_hex(base_) + "->" + sha1_hex(next_)});
  JsonPtr details = parse_json(patch.body);
  ASSERT_TRUE(details) << patch.body;
  json_t* size = json_object_get(details.get(), "size");
  const double at_limit = double(json_integer_value(size)) / double(next_.size());

  struct Row {
    const char* name;
    std::string fault;
    const char* orig_key;
    const char* dest_key;
    double ratio;
    bool spoil_base;
    int32_t code;
    const char* message;
    size_t delta_jobs;  // create-delta jobs registered by the call
  } rows[] = {
      {"no original", "", "nothing", "next", 0.5, false, -203, "Cannot get original object details", 0},
      {"no target", "", "base", "nothing", 0.5, false, -203, "Cannot get dest object details", 0},
      {"ratio at the limit", "", "base", "next", at_limit, false, -101,
       "The difference between two objects is greater or equal the ratio", 0},
      {"patch gone",
       R"({"method":"GET","path":"objects/next$","header":"x-pmw-delta-object: patch:","status":404})",
       "base", "next", 0.5, false, -404, "Patch not found", 1},
      {"download failed",
       R"({"method":"GET","path":"objects/next$","header":"x-pmw-delta-object: patch:","status":500})",
       "base", "next", 0.5, false, -401, "Cannot download a patch", 0},
      {"wrong base", "", "base", "next", 0.5, true, -103, "Cannot apply a patch", 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ASSERT_TRUE(server_.clear_faults());
    if (!row.fault.empty()) {
      ASSERT_TRUE(server_.add_fault(row.fault));
    }
    dir_.write("base", row.spoil_base ? pattern_bytes(base_.size(), 7) : base_);
    size_t jobs_before = jobs("createdelta").size();
    std::u16string orig_key = wide(row.orig_key), dest_key = wide(row.dest_key);
    ZELGetPatchOpt opt = get_opt(row.ratio);
    opt.orig_key = orig_key.c_str();
    opt.dest_key = dest_key.c_str();
    Report out = get_patch(opt);
    EXPECT_EQ(out.code, row.code);
    EXPECT_EQ(out.message, row.message);
    // The create-delta request follows the report.
    EXPECT_TRUE(wait_until([&] { return jobs("createdelta").size() - jobs_before == row.delta_jobs; }));
    EXPECT_TRUE(leftovers().empty()) << "no patch and no result may stay";
  }
  // With a ratio just above the patch's share the same patch is accepted.
  ASSERT_TRUE(server_.clear_faults());
  dir_.write("base", base_);
  Report under = get_patch(get_opt(std::nextafter(at_limit, 1.0)));
  EXPECT_EQ(under.done, 1) << under.message;
}

TEST_F(DeltaOps, GetPatchToAnEmptyObjectSkipsTheRatio) {
  put_object("dlt", "next", "");
  EXPECT_EQ(get_patch(get_opt(0.0)).code, -203);
  ASSERT_TRUE(wait_until([&] {
    auto all = jobs("createdelta");
    return !all.empty() && all[0].first == KRI_JOB_FINISHED;
  }));
  Report out = get_patch(get_opt(0.0));
  EXPECT_EQ(out.done, 1) << out.message;
  EXPECT_TRUE(zeltest::file_exists(dir_.file("out")));
  EXPECT_EQ(zeltest::read_file(dir_.file("out")), "");
  EXPECT_FALSE(zeltest::file_exists(dir_.file("patch")));
}

}  // namespace
