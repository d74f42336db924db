// Jobs of the delta engine: registered durably in SQLite before they are
// answered, run on a bounded pool of job threads, and read back from
// memory, so that a status request costs one map look-up. Clients poll
// without a pause, so the answer for a job under way is held back until the
// job ends or a short while passes: a poller costs a few requests a second
// instead of taking the CPU from the job it waits for, and still learns of
// the end at once. A job cut short by a restart runs again from the start,
// up to a limit, and then ends failed with the reason.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "store.h"

namespace zelsrv {

// Job states as clients read them in "Code".
constexpr int kJobQueued = 0;
constexpr int kJobRunning = 1;
constexpr int kJobFinished = 5;
constexpr int kJobFailed = -1;

// What a job was asked to do: durable, and all a run needs.
struct JobOrder {
  std::string id;       // "DocumentID"
  std::string token;    // unguessable part of the public status address
  std::string kind;     // "createsignature", "createdelta" or "applypatch"
  std::string request;  // the request's JSON body
  std::string principal;
  std::string public_url;  // the public status address
  std::string host;        // Host the client reached, for locations in answers
  std::string acm;         // JSON object of the access-control headers sent
  int64_t runs = 0;        // runs started so far, restarts included
};

struct JobOutcome {
  bool ok = false;
  std::string text;       // "Description" when finished, the reason when failed
  bool recorded = false;  // the run wrote its finished row itself
};

// Scripted behaviour for tests (test API only). A script is taken by the
// next job of its kind (any kind when empty), `times` jobs in all.
struct JobScript {
  std::string kind;
  int64_t empty_polls = 0;           // answer "running" with an empty Description this often
  std::string fail;                  // end the job failed with this reason instead of running it
  int64_t delay_ms = 0;              // pause before running
  int64_t times = 1;                 // negative: every job
  int64_t gap_after = 0;             // after this many empty answers, one with the status address
  bool replace_description = false;  // a finished job answers `description` instead
  std::string description;
};

class Jobs;

// Handed to a run: progress reports and the finished row for a run that
// must write it inside its own transaction.
class JobControl {
 public:
  JobControl(Jobs& jobs, const std::string& id) : jobs_(jobs), id_(id) {}
  void progress(int percent);
  // Writes the finished row; the caller holds the store's mutex.
  void record_finished_locked(const std::string& description);

 private:
  Jobs& jobs_;
  std::string id_;
};

class Jobs {
 public:
  using Runner = std::function<JobOutcome(const JobOrder&, JobControl&)>;

  explicit Jobs(Store& store) : store_(store) {}
  ~Jobs() { stop(); }
  Jobs(const Jobs&) = delete;
  Jobs& operator=(const Jobs&) = delete;

  // Tables, and the jobs of earlier runs: interrupted ones are queued again
  // or failed. Call before start.
  bool open(std::string& err);
  void start(size_t threads, Runner run);
  // Lets running jobs end and stops the threads; queued jobs stay queued.
  void stop();

  // Registers the job durably and queues it; fills id, token and public_url
  // (from `status_base`, which the token is appended to). With a non-empty
  // `same_work` key, a job of that key still under way is answered instead
  // of queueing the same work twice (a client that retries at once after a
  // missing patch would otherwise start a second identical job).
  bool submit(JobOrder& order, const std::string& status_base, const std::string& same_work = "");
  // The status body of a job by kind and id, or by public token; false when
  // there is no such job.
  bool status_by_id(const std::string& kind, const std::string& id, std::string& json);
  bool status_by_token(const std::string& token, std::string& json);
  // The answer to a create or apply request.
  static std::string answer_json(int progress, int code, const std::string& description,
                                 const std::string& id);

  void add_script(const JobScript& script);
  void clear_scripts();
  // Every job with its state, polls and recorded headers, and the number of
  // status requests answered.
  std::string report_json();

 private:
  friend class JobControl;
  struct Job {
    JobOrder order;
    int code = kJobQueued;
    int progress = 0;
    std::string description;  // of an ended job
    int64_t polls = 0;
    int64_t empty_polls = 0;
    int64_t gap_after = 0;
    bool gap_due = false;
    std::string fail;
    int64_t delay_ms = 0;
    bool replace_description = false;
    std::string scripted_description;
  };

  void worker(Runner run);
  bool next(std::string& id, JobOrder& order, std::string& fail, int64_t& delay_ms);
  void end(const std::string& id, int code, const std::string& text, bool recorded);
  void write_end_locked(const std::string& id, int code, const std::string& text);
  std::string status_locked(Job& job);
  // Waits (mu_ held through `lock`) until the job ends, the hold passes or
  // the threads stop; answers scripted as empty are never held.
  void hold_while_under_way(std::unique_lock<std::mutex>& lock, const std::string& id);
  void apply_script(Job& job);
  void recover_row(Job& job, int state);

  Store& store_;
  std::mutex mu_;
  std::condition_variable cv_;
  std::condition_variable ended_;  // a job ended, or the threads stop
  std::unordered_map<std::string, Job> jobs_;
  std::unordered_map<std::string, std::string> by_token_;
  std::unordered_map<std::string, std::string> by_work_;  // same-work key -> job under way
  std::deque<std::string> queue_;
  std::vector<JobScript> scripts_;
  std::vector<std::thread> threads_;
  int64_t polls_ = 0;
  bool stopping_ = false;
};

}  // namespace zelsrv
