// zel_client.hpp: the operations of the C++ layer; include <zel/zel.hpp>.
#ifndef ZEL_ZEL_CLIENT_HPP
#define ZEL_ZEL_CLIENT_HPP

#include <zel/zel.hpp>

namespace zel {
namespace detail {

// A download that has to learn its object's size first may report twice
// when that query fails: the query's own failure, then "Cannot get object
// size". Such a call cannot be freed at its first failure report; it is kept
// here until its second report or until the Library shuts down.
struct CallBase {
  virtual ~CallBase() = default;
  bool reported = false;
  bool may_repeat = false;
};

struct Kept {
  std::mutex mutex;
  std::vector<CallBase*> calls;
};
inline Kept& kept() {
  static Kept k;
  return k;
}
inline void keep(CallBase* call) noexcept {
  try {
    std::lock_guard<std::mutex> lock(kept().mutex);
    kept().calls.push_back(call);
  } catch (...) {
    // Not kept: a leak is better than freeing what a report may touch.
  }
}
inline void release(CallBase* call) noexcept {
  {
    std::lock_guard<std::mutex> lock(kept().mutex);
    auto& calls = kept().calls;
    calls.erase(std::remove(calls.begin(), calls.end(), call), calls.end());
  }
  delete call;
}
inline void release_kept() noexcept {
  std::vector<CallBase*> calls;
  {
    std::lock_guard<std::mutex> lock(kept().mutex);
    calls.swap(kept().calls);
  }
  for (CallBase* call : calls) delete call;
}

// The state of one operation, handed to the C callbacks as user_data. It is
// released by the final report, so every trampoline either forwards an
// intermediate report or finishes the call exactly once.
template <class T>
struct Call : CallBase {
  explicit Call(Callback<T> d, ProgressFn p = {}, std::function<void(ByteRange)> cd = {},
                std::function<void(ByteRange, const Error&)> cf = {})
      : done(std::move(d)), progress(std::move(p)), chunk_done(std::move(cd)), chunk_failed(std::move(cf)) {}
  Callback<T> done;
  ProgressFn progress;
  std::function<void(ByteRange)> chunk_done;
  std::function<void(ByteRange, const Error&)> chunk_failed;

  void finish(Result<T>&& result) noexcept {
    bool again = may_repeat && !result.ok() &&
                 !(result.error().code == 0 && result.error().message == "Cannot get object size");
    reported = true;
    try {
      if (done) done(std::move(result));
    } catch (...) {
      // The caller's callback runs inside a C callback; nowhere to go.
    }
    if (again) {
      keep(this);
    } else {
      delete this;
    }
  }
};

// Builds the result (which copies and may run out of memory) and finishes.
template <class T, class Make>
void deliver(void* user_data, Make make) noexcept {
  auto* call = static_cast<Call<T>*>(user_data);
  std::optional<Result<T>> result;
  try {
    result.emplace(make());
  } catch (...) {
    result.emplace(Error{0, std::string()});
  }
  call->finish(std::move(*result));
}

template <class T, class Resp>
void on_status(const Resp* resp, void* user_data) noexcept {
  auto* call = static_cast<Call<T>*>(user_data);
  if (call->reported) return release(call);  // the second report of a kept call
  deliver<T>(user_data, [&] { return Result<T>(Error{resp->code, resp->message ? resp->message : ""}); });
}

inline void on_done(void* user_data) noexcept {
  deliver<Done>(user_data, [] { return Result<Done>(Done{}); });
}

inline std::vector<Permission> copy_permissions(const ZELBucketPermissions* list) {
  std::vector<Permission> out;
  for (const ZELBucketPermissionItem* item = list ? list->head : nullptr; item; item = item->next)
    out.push_back({item->auth_id ? item->auth_id : "", item->access});
  std::reverse(out.begin(), out.end());  // lists grow at the front
  return out;
}

inline BucketDetails copy_bucket(const ZELBucketDetails* d) {
  return {to_utf8(d->bucket_key), d->bucket_owner ? d->bucket_owner : "", d->policy,
          copy_permissions(d->permissions), d->created_date};
}

inline ObjectDetails copy_object(const ZELObjectDetails* d) {
  auto text = [](const char* s) { return std::string(s ? s : ""); };
  return {to_utf8(d->bucket_key),
          text(d->object_id),
          to_utf8(d->object_key),
          text(d->sha1),
          d->size,
          text(d->content_type),
          text(d->location),
          d->created_date,
          d->last_accessed_date,
          d->last_modified_date};
}

inline void on_bucket(const ZELBucketDetails* d, void* user_data) noexcept {
  deliver<BucketDetails>(user_data, [&] { return Result<BucketDetails>(copy_bucket(d)); });
}

inline void on_object(const ZELObjectDetails* d, void* user_data) noexcept {
  deliver<ObjectDetails>(user_data, [&] { return Result<ObjectDetails>(copy_object(d)); });
}

inline void on_page(const ZELListBucketsDetails* page, void* user_data) noexcept {
  deliver<BucketPage>(user_data, [&] {
    BucketPage out;
    for (const ZELListBucketItem* item = page->head; item; item = item->next)
      out.buckets.push_back(
          {to_utf8(item->bucket_key), item->created_date, item->policy_key ? item->policy_key : ""});
    std::reverse(out.buckets.begin(), out.buckets.end());
    out.next_page = to_utf8(page->next_page);
    return Result<BucketPage>(std::move(out));
  });
}

inline void on_permissions(const ZELBucketPermissions* list, void* user_data) noexcept {
  using List = std::vector<Permission>;
  deliver<List>(user_data, [&] { return Result<List>(copy_permissions(list)); });
}

inline void on_session(const ZELObjectSession* s, void* user_data) noexcept {
  deliver<UploadSession>(user_data, [&] {
    UploadSession out{to_utf8(s->bucket_key), to_utf8(s->key), s->session_id ? s->session_id : "", {}};
    for (const ZELByteRangeItem* r = s->ranges ? s->ranges->head : nullptr; r; r = r->next)
      out.ranges.push_back({r->start, r->end});
    std::sort(out.ranges.begin(), out.ranges.end(),
              [](const ByteRange& a, const ByteRange& b) { return a.start < b.start; });
    return Result<UploadSession>(std::move(out));
  });
}

inline void on_uploaded(const ZELObjectDetails* d, void* user_data) noexcept {
  deliver<UploadResult>(user_data, [&] {
    UploadResult out;
    if (d != nullptr) out.details = copy_object(d);
    return Result<UploadResult>(std::move(out));
  });
}

template <class T>
int32_t on_progress(uint64_t transferred, uint64_t total, void* user_data) noexcept {
  auto* call = static_cast<Call<T>*>(user_data);
  try {
    return call->progress(transferred, total) ? 0 : 1;
  } catch (...) {
    return 1;  // a failing observer stops the transfer rather than lying
  }
}

inline void on_chunk_done(const ZELPutObjectOpt* chunk, void* user_data) noexcept {
  auto* call = static_cast<Call<UploadResult>*>(user_data);
  try {
    if (call->chunk_done && chunk->range) call->chunk_done({chunk->range->start, chunk->range->end});
  } catch (...) {
  }
}

inline void on_chunk_failed(const ZELPutObjectResp* resp, const ZELPutObjectOpt* chunk,
                            void* user_data) noexcept {
  auto* call = static_cast<Call<UploadResult>*>(user_data);
  try {
    if (call->chunk_failed && chunk->range)
      call->chunk_failed({chunk->range->start, chunk->range->end},
                         Error{resp->code, resp->message ? resp->message : ""});
  } catch (...) {
  }
}

// Runs the callback form of an operation and hands back its future.
template <class T, class Start>
std::future<Result<T>> as_future(Start start) {
  auto promise = std::make_shared<std::promise<Result<T>>>();
  std::future<Result<T>> future = promise->get_future();
  start([promise](Result<T> result) { promise->set_value(std::move(result)); });
  return future;
}

// ---------------------------------------------------------------- delta

// A delta call owns the names of its scratch files: the library removes
// them on its own paths, and the final report removes whatever is left.
struct DeltaCall : Call<DeltaResult> {
  using Call<DeltaResult>::Call;
  std::u16string sig_path, patch_path;
  std::filesystem::path patch_file;  // the same name, to look at its size
  std::function<bool()> abort;
  std::mutex mutex;  // guards patch_size: abort checks may overlap
  std::optional<uint64_t> patch_size;

  void note_patch_size() noexcept {
    std::error_code error;
    uint64_t size = std::filesystem::file_size(patch_file, error);
    std::lock_guard<std::mutex> lock(mutex);
    if (!error && !patch_size) patch_size = size;
  }
  void remove_scratch() noexcept {
    std::error_code error;
    if (!sig_path.empty()) std::filesystem::remove(std::filesystem::path(sig_path), error);
    if (!patch_path.empty()) std::filesystem::remove(patch_file, error);
  }
  void succeed(DeltaResult result) noexcept {
    deliver<DeltaResult>(as_user_data(), [&] { return Result<DeltaResult>(std::move(result)); });
  }
  void fail(int32_t code, const char* message) noexcept {
    remove_scratch();
    deliver<DeltaResult>(as_user_data(), [&] {
      return Result<DeltaResult>(Error{code, message ? message : ""});
    });
  }
  // The library hands user data back to callbacks that reach it as a
  // Call<DeltaResult>, so that is the pointer it is given.
  void* as_user_data() noexcept { return static_cast<Call<DeltaResult>*>(this); }
  static DeltaCall* of(void* user_data) noexcept {
    return static_cast<DeltaCall*>(static_cast<Call<DeltaResult>*>(user_data));
  }
  std::optional<uint64_t> observed_patch_size() noexcept {
    std::lock_guard<std::mutex> lock(mutex);
    return patch_size;
  }
};

inline DeltaResult outcome(DeltaOutcome what) {
  DeltaResult result;
  result.outcome = what;
  return result;
}

// A fresh name in `dir` for one scratch file; the library creates the file.
inline std::u16string scratch_name(const std::string& dir, const char* kind) {
  std::filesystem::path base;
  if (dir.empty()) {
    std::error_code error;
    base = std::filesystem::temp_directory_path(error);
    if (error) base = ".";
  } else {
    base = std::filesystem::u8path(dir);
  }
  static std::atomic<uint64_t> counter{0};
  std::random_device device;
  char name[64];
  std::snprintf(name, sizeof name, ".zel-%s-%08x%08x-%llu", kind, device(), device(),
                static_cast<unsigned long long>(++counter));
  return to_utf16((base / name).u8string());
}

inline std::u16string temp_dir_of(const std::string& dir) {
  if (!dir.empty()) return to_utf16(dir);
  std::error_code error;
  std::filesystem::path base = std::filesystem::temp_directory_path(error);
  return to_utf16(error ? std::string(".") : base.u8string());
}

inline void on_match_status(const ZELMatchObjectResp* resp, void* user_data) noexcept {
  DeltaCall::of(user_data)->fail(resp->code, resp->message);
}

inline void on_match(int32_t value, void* user_data) noexcept {
  DeltaResult result = outcome(value > 0 ? DeltaOutcome::kMatched : DeltaOutcome::kTooDifferent);
  result.match_value = value;
  DeltaCall::of(user_data)->succeed(std::move(result));
}

inline void on_put_patch_status(const ZELPutPatchResp* resp, void* user_data) noexcept {
  auto* call = DeltaCall::of(user_data);
  if (resp->code != ZEL_PATCH_TOO_DIFFERENT) return call->fail(resp->code, resp->message);
  call->remove_scratch();
  call->succeed(outcome(DeltaOutcome::kTooDifferent));
}

inline void on_put_patch_done(const ZELObjectDetails* d, void* user_data) noexcept {
  auto* call = DeltaCall::of(user_data);
  call->remove_scratch();
  deliver<DeltaResult>(call->as_user_data(), [&] {
    DeltaResult result = outcome(DeltaOutcome::kPatched);
    if (d != nullptr) result.details = copy_object(d);
    result.patch_size = call->observed_patch_size();
    return Result<DeltaResult>(std::move(result));
  });
}

// Called while the patch goes up (so the patch file is still there: the
// library removes it only once the upload is done) and between polls.
inline int32_t on_put_patch_abort(void* user_data) noexcept {
  auto* call = DeltaCall::of(user_data);
  call->note_patch_size();
  try {
    return call->abort && call->abort() ? 1 : 0;
  } catch (...) {
    return 1;
  }
}

inline void on_get_patch_status(const ZELGetPatchResp* resp, void* user_data) noexcept {
  auto* call = DeltaCall::of(user_data);
  const char* message = resp->message ? resp->message : "";
  // A failed patch-details query also asks the service to make the patch.
  bool not_ready =
      resp->code == ZEL_PATCH_NOT_FOUND ||
      (resp->code == ZEL_PATCH_NO_DETAILS && std::strcmp(message, "Cannot get patch object details") == 0);
  if (!not_ready && resp->code != ZEL_PATCH_TOO_DIFFERENT) return call->fail(resp->code, message);
  call->remove_scratch();
  call->succeed(outcome(not_ready ? DeltaOutcome::kPatchNotReady : DeltaOutcome::kTooDifferent));
}

// The library removes the patch file after this returns.
inline void on_get_patch_done(void* user_data) noexcept {
  auto* call = DeltaCall::of(user_data);
  call->note_patch_size();
  DeltaResult result = outcome(DeltaOutcome::kPatched);
  result.patch_size = call->observed_patch_size();
  call->succeed(std::move(result));
}

inline std::unique_ptr<ZELStream, StreamFree> make_stream(const std::string& file) {
  std::unique_ptr<ZELStream, StreamFree> stream(zel_stream_init(to_utf16(file).c_str()));
  if (!stream) throw std::bad_alloc();
  return stream;
}

inline std::unique_ptr<ZELBucketPermissions, PermissionsFree> make_permissions(
    const std::vector<Permission>& in) {
  std::unique_ptr<ZELBucketPermissions, PermissionsFree> list(zel_permissions_init());
  if (!list) throw std::bad_alloc();
  for (const Permission& p : in) {
    uint32_t before = list->count;
    zel_permissions_append(list.get(), p.auth_id.c_str(), p.access);
    if (list->count == before) throw std::bad_alloc();
  }
  return list;
}
}  // namespace detail

// A service handle. The C operations copy what they need, so a Client may
// go away while its operations still run.
class Client {
 public:
  explicit Client(uint32_t environment = ZEL_ENV_LOCAL, uint32_t api_version = 2)
      : handle_(zel_init(environment, api_version, detail::token_get, detail::token_free)) {
    if (!handle_) throw std::bad_alloc();
  }
  // The handle's settings (pool sizes, chunk size, retries, speed limits).
  ZEL& settings() { return *handle_; }
  ZEL* get() const { return handle_.get(); }
  void set_proxy(const std::string& proxy) {
    zel_set_proxy(handle_.get(), proxy.empty() ? nullptr : proxy.c_str());
  }

  void create_bucket(const std::string& key, uint32_t policy, const std::vector<Permission>& permissions,
                     Callback<BucketDetails> done) {
    std::u16string wkey = to_utf16(key);
    auto list = detail::make_permissions(permissions);
    ZELCreateBucketOpt opt{wkey.c_str(),     policy, list.get(), nullptr, detail::on_status<BucketDetails>,
                           detail::on_bucket};
    zel_create_bucket(handle_.get(), &opt, new detail::Call<BucketDetails>(std::move(done)));
  }

  void bucket_details(const std::string& key, Callback<BucketDetails> done) {
    std::u16string wkey = to_utf16(key);
    ZELGetBucketDetailsOpt opt{wkey.c_str(), nullptr, detail::on_status<BucketDetails>, detail::on_bucket};
    zel_get_bucket_details(handle_.get(), &opt, new detail::Call<BucketDetails>(std::move(done)));
  }

  // One page; pass the previous page's next_page as start_at for the next.
  void list_buckets(const std::string& region, uint32_t limit, const std::string& start_at,
                    Callback<BucketPage> done) {
    std::u16string wregion = to_utf16(region), wstart = to_utf16(start_at);
    ZELListBucketsOpt opt{region.empty() ? nullptr : wregion.c_str(),
                          limit,
                          start_at.empty() ? nullptr : wstart.c_str(),
                          nullptr,
                          detail::on_status<BucketPage>,
                          detail::on_page};
    zel_list_buckets(handle_.get(), &opt, new detail::Call<BucketPage>(std::move(done)));
  }

  // Delivers the bucket's whole permission list after the grant.
  void grant(const std::string& key, const std::vector<Permission>& permissions,
             Callback<std::vector<Permission>> done) {
    std::u16string wkey = to_utf16(key);
    auto list = detail::make_permissions(permissions);
    using List = std::vector<Permission>;
    ZELGrantBucketAccessOpt opt{wkey.c_str(), list.get(), nullptr, detail::on_status<List>,
                                detail::on_permissions};
    zel_grant_bucket_access(handle_.get(), &opt, new detail::Call<List>(std::move(done)));
  }

  void revoke(const std::string& key, const std::vector<std::string>& auth_ids, Callback<Done> done) {
    std::u16string wkey = to_utf16(key);
    std::vector<Permission> ids;
    for (const std::string& id : auth_ids) ids.push_back({id, ZEL_BUCKET_ACCESS_READ});
    auto list = detail::make_permissions(ids);
    ZELRevokeBucketAccessOpt opt{wkey.c_str(), list.get(), nullptr, detail::on_status<Done>, detail::on_done};
    zel_revoke_bucket_access(handle_.get(), &opt, new detail::Call<Done>(std::move(done)));
  }

  void put_object(const std::string& file, const std::string& bucket, const std::string& key,
                  const PutOptions& options, Callback<UploadResult> done) {
    std::u16string wbucket = to_utf16(bucket), wkey = to_utf16(key);
    auto stream = detail::make_stream(file);
    ZELByteRange range{options.range ? options.range->start : 0, options.range ? options.range->end : 0};
    auto* call = new detail::Call<UploadResult>(std::move(done), options.progress, options.chunk_done,
                                                options.chunk_failed);
    ZELPutObjectOpt opt{};
    opt.bucket_key = wbucket.c_str();
    opt.key = wkey.c_str();
    opt.session_id = options.session_id.empty() ? nullptr : options.session_id.c_str();
    opt.range = options.range ? &range : nullptr;
    opt.content_type = options.content_type.empty() ? nullptr : options.content_type.c_str();
    opt.stream = stream.get();
    opt.callback = detail::on_status<UploadResult>;
    opt.chunk_failed_callback = detail::on_chunk_failed;
    opt.details_callback = detail::on_uploaded;
    opt.chunk_done_callback = detail::on_chunk_done;
    opt.progress_callback = options.progress ? detail::on_progress<UploadResult> : nullptr;
    zel_put_object(handle_.get(), &opt, call);
  }

  void get_object(const std::string& bucket, const std::string& key, const std::string& file,
                  const GetOptions& options, Callback<Done> done) {
    std::u16string wbucket = to_utf16(bucket), wkey = to_utf16(key);
    auto stream = detail::make_stream(file);
    ZELByteRange range{options.range ? options.range->start : 0, options.range ? options.range->end : 0};
    ZELGetObjectOpt opt{};
    opt.bucket_key = wbucket.c_str();
    opt.key = wkey.c_str();
    opt.range = options.range ? &range : nullptr;
    opt.stream = stream.get();
    opt.size_unknown = options.size_unknown ? 1 : 0;
    opt.callback = detail::on_status<Done>;
    opt.done_callback = detail::on_done;
    opt.progress_callback = options.progress ? detail::on_progress<Done> : nullptr;
    zel_get_object(handle_.get(), &opt, download_call(options, std::move(done)));
  }

  // `authenticate` sends the bearer token along.
  void get_object_by_url(const std::string& url, const std::string& file, bool authenticate,
                         const GetOptions& options, Callback<Done> done) {
    std::u16string wurl = to_utf16(url);
    auto stream = detail::make_stream(file);
    ZELByteRange range{options.range ? options.range->start : 0, options.range ? options.range->end : 0};
    ZELGetObjectByURLOpt opt{};
    opt.download_url = wurl.c_str();
    opt.authenticate = authenticate;
    opt.range = options.range ? &range : nullptr;
    opt.stream = stream.get();
    opt.size_unknown = options.size_unknown ? 1 : 0;
    opt.callback = detail::on_status<Done>;
    opt.done_callback = detail::on_done;
    opt.progress_callback = options.progress ? detail::on_progress<Done> : nullptr;
    zel_get_object_by_url(handle_.get(), &opt, download_call(options, std::move(done)));
  }

  void object_details(const std::string& bucket, const std::string& key, Callback<ObjectDetails> done) {
    object_call<ZELGetObjectDetailsOpt, ObjectDetails>(zel_get_object_details, bucket, key, detail::on_object,
                                                       std::move(done));
  }
  void reset_expiration(const std::string& bucket, const std::string& key, Callback<ObjectDetails> done) {
    object_call<ZELResetExpirationOpt, ObjectDetails>(zel_reset_object_expiration, bucket, key,
                                                      detail::on_object, std::move(done));
  }
  void delete_object(const std::string& bucket, const std::string& key, Callback<Done> done) {
    object_call<ZELDeleteObjectOpt, Done>(zel_delete_object, bucket, key, detail::on_done, std::move(done));
  }
  void undelete_object(const std::string& bucket, const std::string& key, Callback<Done> done) {
    object_call<ZELUndeleteObjectOpt, Done>(zel_undelete_object, bucket, key, detail::on_done,
                                            std::move(done));
  }

  void upload_session(const std::string& bucket, const std::string& key, const std::string& session_id,
                      Callback<UploadSession> done) {
    std::u16string wbucket = to_utf16(bucket), wkey = to_utf16(key);
    ZELGetObjectSessionOpt opt{
        wbucket.c_str(),   wkey.c_str(), session_id.c_str(), nullptr, detail::on_status<UploadSession>,
        detail::on_session};
    zel_get_object_session(handle_.get(), &opt, new detail::Call<UploadSession>(std::move(done)));
  }

  // Copies within one bucket; delivers the copy's details.
  void copy_object(const std::string& bucket, const std::string& source, const std::string& destination,
                   Callback<ObjectDetails> done) {
    std::u16string wbucket = to_utf16(bucket), wsource = to_utf16(source), wdest = to_utf16(destination);
    ZELCopyObjectOpt opt{wbucket.c_str(),   wsource.c_str(), wdest.c_str(), detail::on_status<ObjectDetails>,
                         detail::on_object, nullptr};
    zel_copy_object(handle_.get(), &opt, new detail::Call<ObjectDetails>(std::move(done)));
  }

  // Downloads the signature of bucket/key and compares `file` with it:
  // kMatched or kTooDifferent (by options.ratio).
  void match(const std::string& bucket, const std::string& key, const std::string& file,
             const DeltaOptions& options, Callback<DeltaResult> done) {
    std::u16string wbucket = to_utf16(bucket), wkey = to_utf16(key), wfile = to_utf16(file);
    std::u16string wtemp = detail::temp_dir_of(options.temp_dir);
    auto call = std::make_unique<detail::DeltaCall>(std::move(done));
    const std::u16string sig_path = detail::scratch_name(options.temp_dir, "sig");
    call->sig_path = sig_path;
    ZELMatchObjectOpt opt{};
    opt.bucket_key = wbucket.c_str();
    opt.orig_key = wkey.c_str();
    opt.sig_path = sig_path.c_str();
    opt.dest = wfile.c_str();
    opt.temp_dir = wtemp.c_str();
    opt.ratio = options.ratio;
    opt.callback = detail::on_match_status;
    opt.match_callback = detail::on_match;
    zel_match_object(handle_.get(), &opt, call.release()->as_user_data());
  }

  // Stores `new_file` as bucket/new_key by uploading only a patch against
  // bucket/base_key, whose content `base_file` must equal; the service
  // applies the patch. Blocks while the patch is computed. kPatched (with
  // the new object's details) or kTooDifferent. new_key must differ from
  // base_key: the patch travels as new_key's content.
  void put_patch(const std::string& base_file, const std::string& new_file, const std::string& bucket,
                 const std::string& base_key, const std::string& new_key, const DeltaOptions& options,
                 Callback<DeltaResult> done) {
    std::u16string wbucket = to_utf16(bucket), wbase = to_utf16(base_key), wnew = to_utf16(new_key);
    std::u16string wtemp = detail::temp_dir_of(options.temp_dir);
    auto origin = detail::make_stream(base_file), derived = detail::make_stream(new_file);
    auto call = std::make_unique<detail::DeltaCall>(std::move(done));
    // The library may still read the options after it has reported, until it
    // returns, and the report frees the call: the options point at these.
    const std::u16string sig_path = detail::scratch_name(options.temp_dir, "sig");
    call->sig_path = sig_path;
    const std::u16string patch_path = detail::scratch_name(options.temp_dir, "patch");
    call->patch_path = patch_path;
    call->patch_file = std::filesystem::path(call->patch_path);
    call->abort = options.abort;
    ZELPutPatchOpt opt{};
    opt.origin_stream = origin.get();
    opt.derv_stream = derived.get();
    opt.signature_path = sig_path.c_str();
    opt.patch_path = patch_path.c_str();
    opt.bucket_key = wbucket.c_str();
    opt.origin_key = wbase.c_str();
    opt.derv_key = wnew.c_str();
    opt.temp_dir = wtemp.c_str();
    opt.process_type = options.process_type;
    opt.ratio = options.ratio;
    opt.callback = detail::on_put_patch_status;
    opt.details_callback = detail::on_put_patch_done;
    opt.abort_callback = detail::on_put_patch_abort;
    zel_put_patch(handle_.get(), &opt, call.release()->as_user_data());
  }

  // Writes the content of bucket/new_key to `out_file` by downloading the
  // service's patch from bucket/base_key and applying it to `base_file`.
  // kPatched, kTooDifferent (the patch is too large for options.ratio) or
  // kPatchNotReady (the service was asked to make the patch).
  void get_patch(const std::string& bucket, const std::string& base_key, const std::string& new_key,
                 const std::string& base_file, const std::string& out_file, const DeltaOptions& options,
                 Callback<DeltaResult> done) {
    std::u16string wbucket = to_utf16(bucket), wbase = to_utf16(base_key), wnew = to_utf16(new_key);
    std::u16string wbase_file = to_utf16(base_file), wout = to_utf16(out_file);
    std::u16string wtemp = detail::temp_dir_of(options.temp_dir);
    auto call = std::make_unique<detail::DeltaCall>(std::move(done));
    const std::u16string patch_path = detail::scratch_name(options.temp_dir, "patch");
    call->patch_path = patch_path;
    call->patch_file = std::filesystem::path(call->patch_path);
    ZELGetPatchOpt opt{};
    opt.bucket_key = wbucket.c_str();
    opt.orig_key = wbase.c_str();
    opt.dest_key = wnew.c_str();
    opt.orig = wbase_file.c_str();
    opt.patch = patch_path.c_str();
    opt.dest = wout.c_str();
    opt.temp_dir = wtemp.c_str();
    opt.apply_mode = options.apply_mode;
    opt.preprocess = options.process_type;
    opt.ratio = options.ratio;
    opt.callback = detail::on_get_patch_status;
    opt.done_callback = detail::on_get_patch_done;
    zel_get_patch(handle_.get(), &opt, call.release()->as_user_data());
  }

  // The same operations returning futures.
  std::future<Result<BucketDetails>> create_bucket(const std::string& key, uint32_t policy,
                                                   const std::vector<Permission>& permissions) {
    return detail::as_future<BucketDetails>([&](auto cb) { create_bucket(key, policy, permissions, cb); });
  }
  std::future<Result<BucketDetails>> bucket_details(const std::string& key) {
    return detail::as_future<BucketDetails>([&](auto cb) { bucket_details(key, cb); });
  }
  std::future<Result<BucketPage>> list_buckets(const std::string& region, uint32_t limit,
                                               const std::string& start_at) {
    return detail::as_future<BucketPage>([&](auto cb) { list_buckets(region, limit, start_at, cb); });
  }
  std::future<Result<std::vector<Permission>>> grant(const std::string& key,
                                                     const std::vector<Permission>& permissions) {
    return detail::as_future<std::vector<Permission>>([&](auto cb) { grant(key, permissions, cb); });
  }
  std::future<Result<Done>> revoke(const std::string& key, const std::vector<std::string>& auth_ids) {
    return detail::as_future<Done>([&](auto cb) { revoke(key, auth_ids, cb); });
  }
  std::future<Result<UploadResult>> put_object(const std::string& file, const std::string& bucket,
                                               const std::string& key, const PutOptions& options = {}) {
    return detail::as_future<UploadResult>([&](auto cb) { put_object(file, bucket, key, options, cb); });
  }
  std::future<Result<Done>> get_object(const std::string& bucket, const std::string& key,
                                       const std::string& file, const GetOptions& options = {}) {
    return detail::as_future<Done>([&](auto cb) { get_object(bucket, key, file, options, cb); });
  }
  std::future<Result<Done>> get_object_by_url(const std::string& url, const std::string& file,
                                              bool authenticate, const GetOptions& options = {}) {
    return detail::as_future<Done>([&](auto cb) { get_object_by_url(url, file, authenticate, options, cb); });
  }
  std::future<Result<ObjectDetails>> object_details(const std::string& bucket, const std::string& key) {
    return detail::as_future<ObjectDetails>([&](auto cb) { object_details(bucket, key, cb); });
  }
  std::future<Result<ObjectDetails>> reset_expiration(const std::string& bucket, const std::string& key) {
    return detail::as_future<ObjectDetails>([&](auto cb) { reset_expiration(bucket, key, cb); });
  }
  std::future<Result<Done>> delete_object(const std::string& bucket, const std::string& key) {
    return detail::as_future<Done>([&](auto cb) { delete_object(bucket, key, cb); });
  }
  std::future<Result<Done>> undelete_object(const std::string& bucket, const std::string& key) {
    return detail::as_future<Done>([&](auto cb) { undelete_object(bucket, key, cb); });
  }
  std::future<Result<UploadSession>> upload_session(const std::string& bucket, const std::string& key,
                                                    const std::string& session_id) {
    return detail::as_future<UploadSession>([&](auto cb) { upload_session(bucket, key, session_id, cb); });
  }
  std::future<Result<ObjectDetails>> copy_object(const std::string& bucket, const std::string& source,
                                                 const std::string& destination) {
    return detail::as_future<ObjectDetails>([&](auto cb) { copy_object(bucket, source, destination, cb); });
  }
  std::future<Result<DeltaResult>> match(const std::string& bucket, const std::string& key,
                                         const std::string& file, const DeltaOptions& options = {}) {
    return detail::as_future<DeltaResult>([&](auto cb) { match(bucket, key, file, options, cb); });
  }
  std::future<Result<DeltaResult>> put_patch(const std::string& base_file, const std::string& new_file,
                                             const std::string& bucket, const std::string& base_key,
                                             const std::string& new_key, const DeltaOptions& options = {}) {
    return detail::as_future<DeltaResult>(
        [&](auto cb) { put_patch(base_file, new_file, bucket, base_key, new_key, options, cb); });
  }
  std::future<Result<DeltaResult>> get_patch(const std::string& bucket, const std::string& base_key,
                                             const std::string& new_key, const std::string& base_file,
                                             const std::string& out_file, const DeltaOptions& options = {}) {
    return detail::as_future<DeltaResult>(
        [&](auto cb) { get_patch(bucket, base_key, new_key, base_file, out_file, options, cb); });
  }

 private:
  static detail::Call<Done>* download_call(const GetOptions& options, Callback<Done> done) {
    auto* call = new detail::Call<Done>(std::move(done), options.progress);
    call->may_repeat = !options.range && !options.size_unknown;  // the size query comes first
    return call;
  }

  // The single-request object operations share the options shape
  // {bucket_key, key, headers, callback, success callback}.
  template <class Opt, class T, class Entry, class Success>
  void object_call(Entry entry, const std::string& bucket, const std::string& key, Success success,
                   Callback<T> done) {
    std::u16string wbucket = to_utf16(bucket), wkey = to_utf16(key);
    Opt opt{wbucket.c_str(), wkey.c_str(), nullptr, detail::on_status<T>, success};
    entry(handle_.get(), &opt, new detail::Call<T>(std::move(done)));
  }

  std::unique_ptr<ZEL, detail::HandleFree> handle_;
};

}  // namespace zel

#endif  // ZEL_ZEL_CLIENT_HPP
