// Soak: mixed uploads and downloads through the fault proxy (random cuts,
// resets, stalls, redirects), the emulator's 500/503/504/403 rules, and a
// zel-server killed with SIGKILL and restarted now and then. Every success
// has its SHA-1 checked, every transfer must report exactly once (the
// documented second report of a download whose size cannot be learnt
// excepted), and none may hang. Prints its counts; exits non-zero on any
// wrong byte, extra report or hang.
//   ZEL_SOAK_MINUTES  run time (default 10)
//   ZEL_SOAK_SEED     random seed (default: the clock)
#include <unistd.h>
#include <zel/zel.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "fault_proxy.h"
#include "transfer.h"
#include "transfer_support.h"

namespace {
using Clock = std::chrono::steady_clock;
constexpr uint64_t kChunk = 1u << 20;
constexpr size_t kInFlight = 4;
constexpr auto kHangLimit = std::chrono::seconds(240);
const char* const kSizeQuery = "Cannot get object size";

struct Sample {
  uint64_t size;
  int weight;
  std::string path, sha1;
};

// One transfer: its options (owning texts and stream) and all it reported.
struct Transfer {
  bool upload = false;
  const Sample* sample = nullptr;
  std::string out;  // a download's file
  std::unique_ptr<zeltest::PutOptions> put;
  std::unique_ptr<zeltest::GetOptions> get;
  zeltest::Outcome outcome;
  std::string sha1;  // of a download's file, read once it reported
  Clock::time_point started = Clock::now();

  int finals() {
    std::lock_guard<std::mutex> lock(outcome.mutex);
    return outcome.finals;
  }
};

void start(ZEL* h, Transfer* t, const std::string& key) {
  if (t->upload) {
    t->put = std::make_unique<zeltest::PutOptions>("soak", key, t->sample->path);
    zel_put_object(h, &t->put->opt, &t->outcome);
  } else {
    t->get = std::make_unique<zeltest::GetOptions>("soak", key, t->out);
    zel_get_object(h, &t->get->opt, &t->outcome);
  }
}

struct Counts {
  int transfers = 0, ok = 0, failed = 0, wrong = 0, extra = 0, hangs = 0, restarts = 0;
  std::map<std::string, int> failures;
};

bool add_rules(zeltest::ServerProcess& server) {
  const char* rules[] = {
      R"({"method":"PUT","path":"resumable","probability":0.03,"status":500,"body":"{\"reason\":\"soak\"}"})",
      R"({"method":"GET","path":"/objects/d","probability":0.03,"status":503})",
      R"({"method":"GET","path":"/objects/d","probability":0.02,"status":504})",
      R"({"method":"GET","path":"/details","probability":0.01,"status":403})"};
  bool ok = true;
  for (const char* rule : rules) ok = server.add_fault(rule) && ok;
  return ok;
}

// Judges a transfer that has reported, once a stray second report had
// time to come. A download whose size could not be learnt reports twice.
void judge(Transfer* t, Counts& c) {
  const zeltest::Outcome& o = t->outcome;
  std::lock_guard<std::mutex> lock(t->outcome.mutex);
  bool ok = t->upload ? o.details == 1 && !o.details_null : o.done == 1;
  c.transfers++;
  if (o.finals > (o.message == kSizeQuery ? 2 : 1)) c.extra++;
  if (ok && (t->upload ? o.sha1 : t->sha1) != t->sample->sha1) {
    c.wrong++;
    std::fprintf(stderr, "WRONG BYTES: %s size %llu\n", t->upload ? "upload" : "download",
                 static_cast<unsigned long long>(t->sample->size));
  }
  if (ok) {
    c.ok++;
  } else {
    c.failed++;
    c.failures[std::to_string(o.code) + " " + o.message]++;
  }
}

struct Soak {
  std::mt19937 random;
  std::string dir;
  std::vector<Sample> samples;
  zeltest::ServerProcess server;
  std::unique_ptr<zeltest::FaultProxy> proxy;
  ZEL* h = nullptr;
  std::vector<std::unique_ptr<Transfer>> all;
  std::vector<Transfer*> running;
  Counts counts;
  int serial = 0;

  void make_samples() {
    samples = {{0, 8, "", ""},          {1, 15, "", ""},          {kChunk - 1, 15, "", ""},
               {kChunk, 15, "", ""},    {kChunk + 1, 15, "", ""}, {13 * kChunk + 7, 4, "", ""},
               {64 * kChunk, 1, "", ""}};
    for (Sample& s : samples) {
      s.path = dir + "/in-" + std::to_string(s.size);
      std::string bytes = zeltest::pattern_bytes(s.size, static_cast<uint32_t>(s.size) + 1);
      std::ofstream(s.path, std::ios::binary) << bytes;
      s.sha1 = zeltest::sha1_hex(bytes);
    }
  }

  Transfer* add(const Sample& s, bool upload, const std::string& key) {
    all.push_back(std::make_unique<Transfer>());
    Transfer* t = all.back().get();
    t->sample = &s;
    t->upload = upload;
    if (!upload) t->out = dir + "/out-" + std::to_string(serial);
    serial++;
    start(h, t, key);
    return t;
  }

  // The objects downloads read: uploaded once, before any fault.
  bool seed_objects() {
    for (const Sample& s : samples) {
      Transfer* t = add(s, true, "d" + std::to_string(s.size));
      t->outcome.wait(std::chrono::seconds(120));
      std::lock_guard<std::mutex> lock(t->outcome.mutex);
      if (t->outcome.details != 1 || t->outcome.sha1 != s.sha1)
        return std::fprintf(stderr, "seeding failed: %s\n", t->outcome.message.c_str()), false;
    }
    all.clear();
    return true;
  }

  void launch(std::discrete_distribution<int>& pick_size) {
    const Sample& s = samples[static_cast<size_t>(pick_size(random))];
    bool upload = random() % 2 == 0;
    std::string size = std::to_string(s.size);
    running.push_back(add(s, upload, upload ? "u" + size + "-" + std::to_string(serial % 4) : "d" + size));
  }

  // Drops the transfers that have reported (or hang) from the running set.
  void collect() {
    for (auto it = running.begin(); it != running.end();) {
      Transfer* t = *it;
      int finals = t->finals();
      if (finals == 0 && Clock::now() - t->started <= kHangLimit) {
        ++it;
        continue;
      }
      if (finals == 0) counts.hangs++, std::fprintf(stderr, "HANG: %s\n", t->upload ? "upload" : "download");
      if (!t->out.empty()) t->sha1 = zeltest::sha1_hex(zeltest::read_file(t->out));
      if (!t->out.empty()) std::remove(t->out.c_str());
      it = running.erase(it);
    }
  }

  bool restart_server() {
    server.kill9();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    if (!server.restart()) return std::fprintf(stderr, "restart: %s\n", server.error().c_str()), false;
    proxy->set_upstream(server.port());
    add_rules(server);
    counts.restarts++;
    return true;
  }

  bool run(double minutes) {
    std::vector<int> weights;
    for (const Sample& s : samples) weights.push_back(s.weight);
    std::discrete_distribution<int> pick_size(weights.begin(), weights.end());
    auto deadline = Clock::now() + std::chrono::duration<double>(minutes * 60);
    auto next_kill = Clock::now() + std::chrono::seconds(15);
    while (Clock::now() < deadline || !running.empty()) {
      while (Clock::now() < deadline && running.size() < kInFlight) launch(pick_size);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      collect();
      if (Clock::now() > next_kill && Clock::now() < deadline) {
        if (!restart_server()) return false;
        next_kill = Clock::now() + std::chrono::seconds(10 + random() % 20);
      }
    }
    // Time for any stray second report, then the verdict.
    std::this_thread::sleep_for(std::chrono::seconds(2));
    for (auto& t : all) judge(t.get(), counts);
    return true;
  }

  void print(uint32_t seed, double minutes) const {
    const Counts& c = counts;
    std::printf(
        "soak: seed %u, %.1f min, %d transfers: %d ok, %d failed; wrong bytes %d, extra reports %d, hangs "
        "%d; "
        "server restarts %d\n",
        seed, minutes, c.transfers, c.ok, c.failed, c.wrong, c.extra, c.hangs, c.restarts);
    std::printf("proxy faults:");
    for (int f = 1; f < 8; f++)
      std::printf(" %s %d", zeltest::fault_name(static_cast<zeltest::Fault>(f)),
                  proxy->applied(static_cast<zeltest::Fault>(f)));
    std::printf("\nfailures by code and message:\n");
    for (const auto& f : c.failures) std::printf("  %5d  %s\n", f.second, f.first.c_str());
  }
};
}  // namespace

int main() {
  const char* env = std::getenv("ZEL_SOAK_MINUTES");
  double minutes = env != nullptr ? std::atof(env) : 10;
  const char* seed_env = std::getenv("ZEL_SOAK_SEED");
  uint32_t seed = seed_env ? static_cast<uint32_t>(std::atoi(seed_env))
                           : static_cast<uint32_t>(Clock::now().time_since_epoch().count());
  Soak soak;
  soak.random.seed(seed);
  char dir_template[] = "/tmp/zel-soak.XXXXXX";
  soak.dir = mkdtemp(dir_template);
  soak.make_samples();
  if (!soak.server.start()) return std::fprintf(stderr, "zel-server: %s\n", soak.server.error().c_str()), 2;
  soak.proxy = std::make_unique<zeltest::FaultProxy>(soak.server.port());
  zel_global_init();
  zel_set_environment_url(ZEL_ENV_LOCAL, soak.proxy->base_url().c_str());
  transfer_set_backoff(100, 1000);
  soak.h = zel_init(ZEL_ENV_LOCAL, 2, zeltest::get_token, zeltest::free_token);
  soak.h->chunk_size = kChunk;
  soak.h->auto_create_bucket = 1;
  soak.h->low_speed_limit = 1024;  // a stalled answer is given up after two seconds
  soak.h->low_speed_time = 2;
  if (!soak.seed_objects()) return 2;
  add_rules(soak.server);
  soak.proxy->set_random_faults(0.04, seed);
  bool ran = soak.run(minutes);
  zel_global_cleanup();
  zel_cleanup(soak.h);
  soak.all.clear();
  for (const Sample& s : soak.samples) std::remove(s.path.c_str());
  rmdir(soak.dir.c_str());
  if (!ran) return 2;
  soak.print(seed, minutes);
  const Counts& c = soak.counts;
  return c.wrong == 0 && c.extra == 0 && c.hangs == 0 ? 0 : 1;
}
