#include "jobs.h"

#include <jansson.h>

#include <chrono>

#include "util.h"

namespace zelsrv {
namespace {

const char kSchema[] =
    "CREATE TABLE IF NOT EXISTS delta_jobs(id TEXT PRIMARY KEY, token TEXT NOT NULL UNIQUE,"
    " kind TEXT NOT NULL, state INTEGER NOT NULL, description TEXT NOT NULL, request TEXT NOT NULL,"
    " principal TEXT NOT NULL, public_url TEXT NOT NULL, host TEXT NOT NULL, acm TEXT NOT NULL,"
    " runs INTEGER NOT NULL, created INTEGER NOT NULL);";

// A job cut short by this many restarts is not tried again.
const int64_t kMaxRuns = 3;

// How long the answer for a job under way may be held back: far below any
// client's request time-out, long enough to spare the CPU.
const auto kStatusHold = std::chrono::milliseconds(250);

bool under_way(int code) { return code == kJobQueued || code == kJobRunning; }

std::string dump(json_t* j) {
  char* text = json_dumps(j, JSON_COMPACT | JSON_PRESERVE_ORDER);
  json_decref(j);
  std::string out = text ? text : "";
  free(text);
  return out;
}

json_t* json_or_string(const std::string& text) {
  json_t* j = json_loads(text.c_str(), 0, nullptr);
  return j ? j : json_string(text.c_str());
}

}  // namespace

void JobControl::progress(int percent) {
  std::lock_guard<std::mutex> lock(jobs_.mu_);
  auto it = jobs_.jobs_.find(id_);
  if (it != jobs_.jobs_.end()) it->second.progress = percent;
}

void JobControl::record_finished_locked(const std::string& description) {
  jobs_.write_end_locked(id_, kJobFinished, description);
}

std::string Jobs::answer_json(int progress, int code, const std::string& description, const std::string& id) {
  return dump(json_pack("{s:i, s:i, s:s%, s:s%}", "Progress", progress, "Code", code, "Description",
                        description.data(), description.size(), "DocumentID", id.data(), id.size()));
}

bool Jobs::open(std::string& err) {
  std::vector<Job> loaded;
  {
    std::lock_guard<std::mutex> lock(store_.mutex());
    if (!store_.exec(kSchema)) {
      err = std::string("cannot prepare the job table: ") + sqlite3_errmsg(store_.db());
      return false;
    }
    Stmt st(store_,
            "SELECT id, token, kind, state, description, request, principal, public_url, host, acm, runs"
            " FROM delta_jobs ORDER BY created");
    while (st.row()) {
      Job j;
      j.order = JobOrder{st.text(0), st.text(1), st.text(2), st.text(5), st.text(6),
                         st.text(7), st.text(8), st.text(9), st.i64(10)};
      j.code = static_cast<int>(st.i64(3));
      j.description = st.text(4);
      loaded.push_back(j);
    }
  }
  for (Job& j : loaded) recover_row(j, j.code);
  return true;
}

// A job that was queued or running when the server stopped starts over, or
// fails once it has been cut short too often.
void Jobs::recover_row(Job& job, int state) {
  const std::string id = job.order.id;
  bool open_job = state == kJobQueued || state == kJobRunning;
  if (open_job && job.order.runs >= kMaxRuns) {
    job.code = kJobFailed;
    job.description = "The job was interrupted by a restart " + std::to_string(job.order.runs) + " times";
    std::lock_guard<std::mutex> lock(store_.mutex());
    write_end_locked(id, kJobFailed, job.description);
  } else if (open_job) {
    job.code = kJobQueued;
    queue_.push_back(id);
  }
  by_token_[job.order.token] = id;
  jobs_[id] = job;
}

void Jobs::start(size_t threads, Runner run) {
  std::lock_guard<std::mutex> lock(mu_);
  stopping_ = false;
  for (size_t i = 0; i < threads; ++i) threads_.emplace_back([this, run] { worker(run); });
}

void Jobs::stop() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    stopping_ = true;
  }
  cv_.notify_all();
  ended_.notify_all();
  for (auto& t : threads_) t.join();
  threads_.clear();
}

bool Jobs::submit(JobOrder& order, const std::string& status_base, const std::string& same_work) {
  if (!same_work.empty()) {
    std::lock_guard<std::mutex> lock(mu_);
    auto w = by_work_.find(same_work);
    if (w != by_work_.end() && under_way(jobs_[w->second].code)) {
      order = jobs_[w->second].order;
      return true;
    }
  }
  order.id = random_hex_id();
  order.token = random_hex_id() + random_hex_id();
  order.public_url = status_base + order.token;
  {
    std::lock_guard<std::mutex> lock(store_.mutex());
    store_.set_durable(true);
    bool ok =
        Stmt(store_,
             "INSERT INTO delta_jobs(id, token, kind, state, description, request, principal, public_url,"
             " host, acm, runs, created) VALUES(?,?,?,0,'',?,?,?,?,?,0,?)")
            .bind(1, order.id)
            .bind(2, order.token)
            .bind(3, order.kind)
            .bind(4, order.request)
            .bind(5, order.principal)
            .bind(6, order.public_url)
            .bind(7, order.host)
            .bind(8, order.acm)
            .bind(9, now_ms())
            .done();
    if (!ok) return false;
  }
  {
    std::lock_guard<std::mutex> lock(mu_);
    Job job;
    job.order = order;
    apply_script(job);
    by_token_[order.token] = order.id;
    if (!same_work.empty()) by_work_[same_work] = order.id;
    jobs_[order.id] = job;
    queue_.push_back(order.id);
  }
  cv_.notify_one();
  return true;
}

void Jobs::apply_script(Job& job) {
  for (auto it = scripts_.begin(); it != scripts_.end(); ++it) {
    if (!it->kind.empty() && it->kind != job.order.kind) continue;
    job.empty_polls = it->empty_polls;
    job.fail = it->fail;
    job.delay_ms = it->delay_ms;
    job.gap_after = it->gap_after;
    job.replace_description = it->replace_description;
    job.scripted_description = it->description;
    if (it->times > 0 && --it->times == 0) scripts_.erase(it);
    return;
  }
}

std::string Jobs::status_locked(Job& job) {
  ++polls_;
  ++job.polls;
  if (job.empty_polls > 0) {
    if (job.gap_due) {
      job.gap_due = false;
      return answer_json(job.progress, kJobRunning, job.order.public_url, job.order.id);
    }
    --job.empty_polls;
    if (job.gap_after > 0 && --job.gap_after == 0) job.gap_due = true;
    return answer_json(job.progress, kJobRunning, "", job.order.id);
  }
  bool ended = job.code == kJobFinished || job.code == kJobFailed;
  if (job.code == kJobFinished && job.replace_description)
    return answer_json(job.progress, job.code, job.scripted_description, job.order.id);
  // While a job is under way its Description is its status address, so
  // that a client can tell a live job from an empty answer.
  return answer_json(job.progress, job.code, ended ? job.description : job.order.public_url, job.order.id);
}

void Jobs::hold_while_under_way(std::unique_lock<std::mutex>& lock, const std::string& id) {
  ended_.wait_for(lock, kStatusHold, [&] {
    const Job& job = jobs_[id];
    return stopping_ || job.empty_polls > 0 || !under_way(job.code);
  });
}

bool Jobs::status_by_id(const std::string& kind, const std::string& id, std::string& json) {
  std::unique_lock<std::mutex> lock(mu_);
  auto it = jobs_.find(id);
  if (it == jobs_.end() || it->second.order.kind != kind) return false;
  hold_while_under_way(lock, id);
  json = status_locked(jobs_[id]);
  return true;
}

bool Jobs::status_by_token(const std::string& token, std::string& json) {
  std::unique_lock<std::mutex> lock(mu_);
  auto t = by_token_.find(token);
  if (t == by_token_.end()) return false;
  std::string id = t->second;
  hold_while_under_way(lock, id);
  json = status_locked(jobs_[id]);
  return true;
}

bool Jobs::next(std::string& id, JobOrder& order, std::string& fail, int64_t& delay_ms) {
  std::unique_lock<std::mutex> lock(mu_);
  cv_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
  if (stopping_) return false;
  id = queue_.front();
  queue_.pop_front();
  Job& job = jobs_[id];
  job.code = kJobRunning;
  job.order.runs++;
  order = job.order;
  fail = job.fail;
  delay_ms = job.delay_ms;
  return true;
}

void Jobs::worker(Runner run) {
  std::string id, fail;
  JobOrder order;
  int64_t delay_ms = 0;
  while (next(id, order, fail, delay_ms)) {
    {
      // The run count is durable before the work starts, so a job that
      // keeps taking the server down is given up in the end.
      std::lock_guard<std::mutex> lock(store_.mutex());
      store_.set_durable(true);
      Stmt(store_, "UPDATE delta_jobs SET state = 1, runs = ? WHERE id = ?")
          .bind(1, order.runs)
          .bind(2, id)
          .done();
    }
    if (delay_ms > 0) {
      std::unique_lock<std::mutex> lock(mu_);
      if (cv_.wait_for(lock, std::chrono::milliseconds(delay_ms), [this] { return stopping_; })) return;
    }
    if (!fail.empty()) {
      end(id, kJobFailed, fail, false);
      continue;
    }
    JobControl control(*this, id);
    JobOutcome outcome = run(order, control);
    end(id, outcome.ok ? kJobFinished : kJobFailed, outcome.text, outcome.recorded);
  }
}

void Jobs::write_end_locked(const std::string& id, int code, const std::string& text) {
  store_.set_durable(true);
  Stmt(store_, "UPDATE delta_jobs SET state = ?, description = ? WHERE id = ?")
      .bind(1, int64_t(code))
      .bind(2, text)
      .bind(3, id)
      .done();
}

void Jobs::end(const std::string& id, int code, const std::string& text, bool recorded) {
  if (!recorded) {
    std::lock_guard<std::mutex> lock(store_.mutex());
    write_end_locked(id, code, text);
  }
  {
    std::lock_guard<std::mutex> lock(mu_);
    Job& job = jobs_[id];
    job.code = code;
    job.description = text;
    if (code == kJobFinished) job.progress = 100;
  }
  ended_.notify_all();
}

void Jobs::add_script(const JobScript& script) {
  std::lock_guard<std::mutex> lock(mu_);
  scripts_.push_back(script);
}

void Jobs::clear_scripts() {
  std::lock_guard<std::mutex> lock(mu_);
  scripts_.clear();
}

std::string Jobs::report_json() {
  std::lock_guard<std::mutex> lock(mu_);
  json_t* list = json_array();
  for (const auto& entry : jobs_) {
    const Job& j = entry.second;
    json_array_append_new(
        list, json_pack("{s:s, s:s, s:i, s:i, s:s, s:I, s:I, s:o, s:o}", "DocumentID", j.order.id.c_str(),
                        "Kind", j.order.kind.c_str(), "Code", j.code, "Progress", j.progress, "Description",
                        j.description.c_str(), "Polls", static_cast<json_int_t>(j.polls), "Runs",
                        static_cast<json_int_t>(j.order.runs), "Acm", json_or_string(j.order.acm), "Request",
                        json_or_string(j.order.request)));
  }
  return dump(json_pack("{s:I, s:o}", "polls", static_cast<json_int_t>(polls_), "jobs", list));
}

}  // namespace zelsrv
