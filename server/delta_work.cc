// Job runs of the delta engine. Each works on snapshots of the objects it
// reads (open descriptors, reached by the delta library through /proc), so
// a concurrent upload can neither change nor remove the bytes under it, and
// each publishes only verified results.
#include <fcntl.h>
#include <jansson.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zel/diff.h>

#include <cctype>
#include <cstring>

#include "bodies.h"
#include "delta.h"
#include "patch.h"  // the delta library's patch header
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

// The SHA-1 a patch promises for its result, from the patch's header
// (read with the delta library's own decoder); false with the reason.
bool promised_sha1(const std::string& patch_path, std::string& sha1, std::string& why) {
  uint8_t raw[zeldiff::kPatchHeaderSize];
  int fd = open(patch_path.c_str(), O_RDONLY | O_CLOEXEC);
  bool read = fd >= 0 && pread(fd, raw, sizeof raw, 0) == static_cast<ssize_t>(sizeof raw);
  if (fd >= 0) close(fd);
  if (!read) return why = "Cannot apply the patch: it is not a patch file", false;
  try {
    zeldiff::PatchHeader h = zeldiff::patch_header_decode(raw);
    char hex[2 * zeldiff::kSha1Size + 1];
    zeldiff::sha1_to_hex(h.new_sha1, hex);
    sha1 = hex;
    return true;
  } catch (const std::exception& e) {
    return why = std::string("Cannot apply the patch: ") + e.what(), false;
  }
}

// Applies the patch held by `patch` to `base` into a scratch file whose
// SHA-1 and size come back; false with the reason. `expected` is the SHA-1
// the result should have. The library renames its result into place only
// once the result's size and SHA-1 match the patch's header, so a result
// is never hashed twice: the header's SHA-1 is the result's. A patch that
// promises another result is not applied at all, and the sync mode flushes
// the result while it is written, so publishing it waits for little.
bool apply_into(App& app, const Snapshot& base, const Snapshot& patch, const std::string& expected,
                std::string& made, std::string& sha1, uint64_t& size, std::string& why) {
  made = app.deltas.scratch_path("apply");
  if (!promised_sha1(patch.path(), sha1, why)) return false;
  if (sha1 != expected) return true;  // the caller refuses it
  std::u16string base_path = wide_path(base.path());
  DiffFileEntry entry{&base_path[0], const_cast<char*>(base.meta.sha1.c_str()), nullptr};
  DiffFileEntry* head = &entry;
  char* msg = nullptr;
  const int32_t kSync = 2;
  int32_t rc = diff_apply_patch(wide_path(made).c_str(), wide_path(patch.path()).c_str(), &head,
                                wide_path(app.store.tmp_dir()).c_str(), kSync, &msg);
  if (rc < 0) {
    why = "Cannot apply the patch: " + take_message(msg);
    unlink(made.c_str());
    return false;
  }
  free_err_msg(&msg);
  struct stat st;
  if (stat(made.c_str(), &st) != 0) {
    unlink(made.c_str());
    return why = "Cannot read the applied result", false;
  }
  size = static_cast<uint64_t>(st.st_size);
  return true;
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
