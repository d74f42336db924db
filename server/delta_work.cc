// Job runs of the delta engine. Each works on snapshots of the objects it
// reads (open descriptors, reached by the delta library through /proc), so
// a concurrent upload can neither change nor remove the bytes under it, and
// each publishes only verified results.
#include <dirent.h>
#include <fcntl.h>
#include <jansson.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zel/diff.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstring>
#include <system_error>
#include <thread>
#include <vector>

#include "bodies.h"
#include "delta.h"
#include "digest.h"
#include "util.h"

namespace zelsrv {
namespace {

// The largest block size a job may ask for.
const uint64_t kMaxBlock = 16u << 20;

struct Snapshot {
  ObjectMeta meta;
  int fd = -1;
  ~Snapshot() {
    if (fd >= 0) close(fd);
  }
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd); }
};

bool take(App& app, const std::string& bucket, const std::string& key, Snapshot& s) {
  s.fd = app.objects.open_live(bucket, key, s.meta);
  return s.fd >= 0;
}

JobOutcome failed(const std::string& reason) { return JobOutcome{false, reason, false}; }

std::string take_message(char*& msg) {
  std::string out = msg ? msg : "no reason given";
  free_err_msg(&msg);
  return out;
}

std::string kept_json(const KeptFile& k) {
  json_t* o = json_pack("{s:I, s:s}", "size", static_cast<json_int_t>(k.size), "sha1", k.sha1.c_str());
  char* text = json_dumps(o, JSON_COMPACT | JSON_PRESERVE_ORDER);
  json_decref(o);
  std::string out = text ? text : "";
  free(text);
  return out;
}

JobOutcome run_signature(App& app, const DeltaRequest& r, JobControl& control) {
  Snapshot object;
  if (!take(app, r.bucket, r.object, object)) return failed("Object not found: " + r.object);
  control.progress(10);
  KeptFile sig;
  std::string why;
  if (!app.deltas.signature(object.meta.sha1, object.path(), static_cast<uint32_t>(r.block_size), sig, why))
    return failed(why);
  return JobOutcome{true, kept_json(sig), false};
}

bool make_patch(App& app, const KeptFile& base_sig, const Snapshot& target, std::string& made,
                std::string& why) {
  DiffFileList* bases = file_list_init();
  if (bases == nullptr) return why = "Cannot make a base list", false;
  bases = file_list_append(bases, wide_path(base_sig.path).c_str());
  made = app.deltas.scratch_path("patch");
  char* msg = nullptr;
  int32_t rc = diff_create_patch(wide_path(target.path()).c_str(), bases, wide_path(made).c_str(),
                                 wide_path(app.store.tmp_dir()).c_str(), 1, 0, 6, 1, &msg);
  file_list_cleanup(bases);
  if (rc >= 0) {
    free_err_msg(&msg);
    return true;
  }
  why = "Cannot make the patch: " + take_message(msg);
  unlink(made.c_str());
  return false;
}

JobOutcome run_delta(App& app, const DeltaRequest& r, JobControl& control) {
  Snapshot base, target;
  if (!take(app, r.bucket, r.object, base)) return failed("Object not found: " + r.object);
  if (!take(app, r.bucket, r.other, target)) return failed("Object not found: " + r.other);
  KeptFile patch;
  if (app.deltas.find_patch(base.meta.sha1, target.meta.sha1, patch))
    return JobOutcome{true, kept_json(patch), false};
  KeptFile sig;
  std::string why, made;
  if (!app.deltas.signature(base.meta.sha1, base.path(), static_cast<uint32_t>(r.block_size), sig, why))
    return failed(why);
  control.progress(40);
  if (!make_patch(app, sig, target, made, why)) return failed(why);
  control.progress(90);
  if (!app.deltas.keep_patch(base.meta.sha1, target.meta.sha1, made, patch, why)) return failed(why);
  return JobOutcome{true, kept_json(patch), false};
}

// Follows the delta library's result while it is written. The library
// writes it from start to end into "<made>.zeltmp-<random>" beside `made`
// and renames it at the end; hashing the bytes as they land, and starting
// their write-back, takes both off the end of the job, on the core the
// library leaves idle. What the follower saw counts only when it is the very
// file renamed to `made`, read to its end; the caller still checks the
// SHA-1 and hashes the file again when it does not match.
class ResultFollower {
 public:
  explicit ResultFollower(const std::string& made) : made_(made) {
    try {
      thread_ = std::thread([this] { follow(); });
    } catch (const std::system_error&) {
      // Without a thread the result is hashed after the library returns.
    }
  }
  ~ResultFollower() {
    stop();
    if (fd_ >= 0) close(fd_);
  }
  ResultFollower(const ResultFollower&) = delete;
  ResultFollower& operator=(const ResultFollower&) = delete;

  // Once the library has returned: the SHA-1 of `result` (`size` bytes)
  // when the followed file is that file, read whole; false otherwise.
  bool sha1_of(int result, uint64_t size, std::string& sha1) {
    stop();
    struct stat seen, now;
    if (fd_ < 0 || failed_ || offset_ != size || fstat(fd_, &seen) != 0 || fstat(result, &now) != 0 ||
        seen.st_ino != now.st_ino || seen.st_dev != now.st_dev || static_cast<uint64_t>(now.st_size) != size)
      return false;
    sha1 = sha_.hex();
    return true;
  }

 private:
  void stop() {
    done_ = true;
    if (thread_.joinable()) thread_.join();
  }

  int open_temp() const {
    size_t slash = made_.rfind('/');
    std::string dir = made_.substr(0, slash), prefix = made_.substr(slash + 1) + ".zeltmp-";
    DIR* d = opendir(dir.c_str());
    int fd = -1;
    for (dirent* e = d ? readdir(d) : nullptr; e != nullptr && fd < 0; e = readdir(d)) {
      if (std::strncmp(e->d_name, prefix.c_str(), prefix.size()) == 0)
        fd = open((dir + "/" + e->d_name).c_str(), O_RDONLY | O_CLOEXEC);
    }
    if (d != nullptr) closedir(d);
    return fd;
  }

  void follow() {
    const auto pause = std::chrono::milliseconds(1);
    while ((fd_ = open_temp()) < 0) {
      if (done_) return;
      std::this_thread::sleep_for(pause);
    }
    std::vector<char> buf(1 << 20);
    uint64_t flushed = 0;
    for (;;) {
      bool last = done_;  // read before the file: all of it is written by then
      ssize_t n = pread(fd_, buf.data(), buf.size(), static_cast<off_t>(offset_));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        failed_ = true;
        return;
      }
      if (n == 0) {
        if (last) return;
        std::this_thread::sleep_for(pause);
        continue;
      }
      sha_.update(buf.data(), static_cast<size_t>(n));
      offset_ += static_cast<uint64_t>(n);
      if (offset_ - flushed >= (8u << 20)) {
        (void)sync_file_range(fd_, static_cast<off_t>(flushed), static_cast<off_t>(offset_ - flushed),
                              SYNC_FILE_RANGE_WRITE);
        flushed = offset_;
      }
    }
  }

  std::string made_;
  std::atomic<bool> done_{false};
  std::thread thread_;
  int fd_ = -1;  // written by the thread only until it is joined
  uint64_t offset_ = 0;
  bool failed_ = false;
  Sha1 sha_;
};

// Applies the patch held by `patch` to `base` into a scratch file whose
// SHA-1 and size come back; false with the reason. `expected` is the SHA-1
// the result should have.
bool apply_into(App& app, const Snapshot& base, const Snapshot& patch, const std::string& expected,
                std::string& made, std::string& sha1, uint64_t& size, std::string& why) {
  std::u16string base_path = wide_path(base.path());
  DiffFileEntry entry{&base_path[0], const_cast<char*>(base.meta.sha1.c_str()), nullptr};
  DiffFileEntry* head = &entry;
  made = app.deltas.scratch_path("apply");
  ResultFollower follower(made);
  char* msg = nullptr;
  int32_t rc = diff_apply_patch(wide_path(made).c_str(), wide_path(patch.path()).c_str(), &head,
                                wide_path(app.store.tmp_dir()).c_str(), 0, &msg);
  if (rc < 0) {
    why = "Cannot apply the patch: " + take_message(msg);
    unlink(made.c_str());
    return false;
  }
  free_err_msg(&msg);
  int fd = open(made.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0) {
    if (fd >= 0) close(fd);
    return why = "Cannot read the applied result", false;
  }
  size = static_cast<uint64_t>(st.st_size);
  // The result must reach the disk before it is published (mostly written
  // back already when the follower kept up); a SHA-1 that the follower did
  // not see whole is computed while the disk catches up.
  std::thread flush;
  try {
    flush = std::thread([fd] { (void)fsync(fd); });
  } catch (const std::system_error&) {
    // No thread to spare: publishing flushes the file itself.
  }
  bool hashed = (follower.sha1_of(fd, size, sha1) && sha1 == expected) || sha1_file(fd, sha1);
  if (flush.joinable()) flush.join();
  close(fd);
  if (!hashed) why = "Cannot read the applied result";
  return hashed;
}

JobOutcome run_apply(App& app, const JobOrder& order, const DeltaRequest& r, JobControl& control) {
  PendingPatch pending;
  if (!app.deltas.pending(r.bucket, r.other, pending))
    return failed("No patch waits to be applied to " + r.other);
  Snapshot base, patch;
  if (!take(app, r.bucket, r.object, base)) return failed("Object not found: " + r.object);
  if (base.meta.sha1 != pending.base_sha1)
    return failed("The base object's SHA-1 " + base.meta.sha1 + " is not the patch's base " +
                  pending.base_sha1);
  if (!take(app, r.bucket, r.other, patch) || patch.meta.blob != pending.blob)
    return failed("The patch was replaced before it was applied");
  control.progress(20);
  std::string made, sha1, why;
  uint64_t size = 0;
  if (!apply_into(app, base, patch, r.new_sha1, made, sha1, size, why)) return failed(why);
  if (sha1 != r.new_sha1 || sha1 != pending.new_sha1) {
    unlink(made.c_str());
    return failed("The result's SHA-1 " + sha1 + " is not the expected " + r.new_sha1);
  }
  control.progress(90);
  std::string details;
  ObjectMeta result;
  bool published = app.deltas.publish_applied(
      r.bucket, r.other, pending.blob, made, sha1, size, result, [&](const ObjectMeta& m) {
        std::string where = object_location(order.host, pending.version, m.bucket, m.key);
        details = object_details_json(m, where, pending.version);
        control.record_finished_locked(details);
      });
  if (!published) {
    unlink(made.c_str());
    return failed("The object changed while the patch was applied");
  }
  return JobOutcome{true, details, true};
}

}  // namespace

bool valid_sha1(const std::string& text) {
  if (text.size() != 40) return false;
  for (char c : text) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

JobOutcome run_delta_job(App& app, const JobOrder& order, JobControl& control) {
  DeltaRequest r;
  std::string why;
  if (!parse_delta_request(order.kind, order.request, r, why)) return failed(why);
  if (order.kind == "createsignature") return run_signature(app, r, control);
  if (order.kind == "createdelta") return run_delta(app, r, control);
  return run_apply(app, order, r, control);
}

bool parse_delta_request(const std::string& kind, const std::string& body, DeltaRequest& out,
                         std::string& why) {
  json_error_t err;
  json_t* root = json_loadb(body.data(), body.size(), JSON_REJECT_DUPLICATES, &err);
  const char *bucket = nullptr, *first = nullptr, *second = nullptr, *sha1 = "";
  json_int_t block = 0;
  int rc = -1;
  if (root == nullptr) {
    why = std::string("Malformed JSON body: ") + err.text;
    return false;
  }
  if (kind == "createsignature")
    rc = json_unpack_ex(root, &err, 0, "{s:s, s:s, s:I}", "BucketName", &bucket, "ObjectName", &first,
                        "BlockSize", &block);
  else if (kind == "createdelta")
    rc = json_unpack_ex(root, &err, 0, "{s:s, s:s, s:s, s:I}", "BucketName", &bucket, "ObjectName1", &first,
                        "ObjectName2", &second, "BlockSize", &block);
  else
    rc = json_unpack_ex(root, &err, 0, "{s:s, s:s, s:s, s:s}", "BucketName", &bucket, "ObjectName", &first,
                        "NewObjectName", &second, "NewObjectSHA1", &sha1);
  if (rc == 0) out = DeltaRequest{bucket, first, second ? second : "", sha1, static_cast<uint64_t>(block)};
  json_decref(root);
  if (rc != 0) return why = std::string("The body does not fit the request: ") + err.text, false;
  for (char& ch : out.new_sha1) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  if (kind == "applypatch" && !valid_sha1(out.new_sha1))
    return why = "NewObjectSHA1 must be 40 hex digits", false;
  if (kind != "applypatch" && (block < 1 || static_cast<uint64_t>(block) > kMaxBlock))
    return why = "BlockSize must be 1 to " + std::to_string(kMaxBlock), false;
  return true;
}

}  // namespace zelsrv
