// zel.hpp: a header-only C++17 layer over the C interface in zel.h.
//
// What it adds:
//  1. RAII owners: zel::Library for the process-wide start-up and shut-down,
//     zel::Client for a service handle.
//  2. UTF-8 std::string in and out; the UTF-16 keys, file names and URLs of
//     the C records are converted here.
//  3. Every operation twice: with a std::function that receives a
//     zel::Result<T> exactly once, and as a call returning
//     std::future<zel::Result<T>>. A Result holds either the value, copied out
//     of the library's records (so it outlives the C callbacks), or the status
//     code and message of the failure.
//
// Rules:
//  - Calls may throw on the calling thread: std::bad_alloc, and
//    std::invalid_argument for a key, file name or URL that is not UTF-8.
//    One Client may serve several threads at once, as long as nobody
//    changes its settings() meanwhile.
//  - Nothing thrown by your std::function callbacks leaves them: the layer
//    catches and drops it, because they run inside C callbacks on library
//    threads. A progress callback that throws cancels its transfer.
//  - Completion callbacks run on library threads. Progress callbacks of one
//    transfer may run on several threads at once; they all return before the
//    transfer's completion callback runs.
//  - The C token function takes no arguments, so the token is process-wide:
//    zel::set_token() or zel::set_token_provider() applies to every Client.
//    An empty token sends no Authorization header.
//  - Delta operations (match, put_patch, get_patch) report "too different"
//    and "no patch yet" as outcomes of a successful Result, so callers can
//    fall back to a whole transfer; put_patch blocks the calling thread while
//    the signature, the patch and the SHA-1 are computed.
//  - Each call's state is released with its final report. A download whose
//    size query fails reports twice in the C interface (the query's failure,
//    then "Cannot get object size"); the first reaches you, and the state is
//    kept until the second arrives or the Library goes away.
#ifndef ZEL_ZEL_HPP
#define ZEL_ZEL_HPP

#include <zel/zel.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace zel {

// ---------------------------------------------------------------- text

// Strict UTF-8 to UTF-16: false for malformed input (overlong forms,
// surrogates, truncated sequences, values beyond U+10FFFF).
inline bool utf8_to_utf16(std::string_view in, std::u16string& out) {
  out.clear();
  for (size_t i = 0; i < in.size();) {
    auto byte = static_cast<unsigned char>(in[i]);
    int extra = byte < 0x80 ? 0 : (byte >> 5) == 6 ? 1 : (byte >> 4) == 14 ? 2 : (byte >> 3) == 30 ? 3 : -1;
    if (extra < 0 || i + static_cast<size_t>(extra) >= in.size()) return false;
    char32_t cp = extra == 0 ? byte : byte & (0x3F >> extra);
    for (int k = 1; k <= extra; ++k) {
      auto next = static_cast<unsigned char>(in[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (next & 0x3F);
    }
    static const char32_t kMin[] = {0, 0x80, 0x800, 0x10000};
    if (cp < kMin[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    if (cp >= 0x10000) {
      out.push_back(static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
    i += static_cast<size_t>(extra) + 1;
  }
  return true;
}

// UTF-8 to UTF-16; throws std::invalid_argument for malformed input, so a
// bad key is refused instead of reaching the service altered.
inline std::u16string to_utf16(std::string_view in) {
  std::u16string out;
  if (!utf8_to_utf16(in, out)) throw std::invalid_argument("text is not valid UTF-8");
  return out;
}

// UTF-16 to UTF-8; an unpaired surrogate becomes U+FFFD. NULL gives "".
inline std::string to_utf8(const char16_t* in) {
  std::string out;
  if (in == nullptr) return out;
  for (; *in != 0; ++in) {
    char32_t cp = *in;
    if (cp >= 0xD800 && cp <= 0xDBFF && in[1] >= 0xDC00 && in[1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (in[1] - 0xDC00);
      ++in;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = 0xFFFD;
    }
    if (cp < 0x80) {
      out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
  }
  return out;
}
inline std::string to_utf8(const std::u16string& in) { return to_utf8(in.c_str()); }

// ---------------------------------------------------------------- results

struct Error {
  int32_t code = 0;  // HTTP status, libcurl code, system error or 0
  std::string message;
};

// Success value of operations that deliver nothing but their success.
struct Done {};

template <class T>
class Result {
 public:
  Result(T value) : value_(std::in_place_index<0>, std::move(value)) {}
  Result(Error error) : value_(std::in_place_index<1>, std::move(error)) {}
  bool ok() const { return value_.index() == 0; }
  explicit operator bool() const { return ok(); }
  // Throw std::bad_variant_access when asked for the wrong side.
  const T& value() const { return std::get<0>(value_); }
  T& value() { return std::get<0>(value_); }
  const Error& error() const { return std::get<1>(value_); }

 private:
  std::variant<T, Error> value_;
};

template <class T>
using Callback = std::function<void(Result<T>)>;

// ---------------------------------------------------------------- records

struct ByteRange {
  uint64_t start = 0;  // inclusive
  uint64_t end = 0;    // inclusive
};

struct Permission {
  std::string auth_id;
  uint32_t access = ZEL_BUCKET_ACCESS_READ;
};

struct BucketDetails {
  std::string bucket_key;
  std::string owner;
  uint32_t policy = ZEL_BUCKET_POLICY_UNDEFINED;
  std::vector<Permission> permissions;  // in the service's order
  int64_t created_date = 0;
};

struct BucketListItem {
  std::string bucket_key;
  int64_t created_date = 0;
  std::string policy;
};

struct BucketPage {
  std::vector<BucketListItem> buckets;  // in the service's order
  std::string next_page;                // empty on the last page
};

struct ObjectDetails {
  std::string bucket_key;
  std::string object_id;
  std::string object_key;
  std::string sha1;
  uint64_t size = 0;
  std::string content_type;
  std::string location;
  int64_t created_date = 0;
  int64_t last_accessed_date = 0;
  int64_t last_modified_date = 0;
};

struct UploadSession {
  std::string bucket_key;
  std::string key;
  std::string session_id;
  std::vector<ByteRange> ranges;  // held by the service, ascending
};

struct UploadResult {
  // None when the upload was accepted but the service still misses other
  // ranges of the object (a ranged or resumed upload).
  std::optional<ObjectDetails> details;
};

// Returns false to cancel the transfer. Called on library threads.
using ProgressFn = std::function<bool(uint64_t transferred, uint64_t total)>;

struct PutOptions {
  std::string content_type;        // empty: application/octet-stream
  std::string session_id;          // empty: the library makes one
  std::optional<ByteRange> range;  // only these bytes of the file
  ProgressFn progress;
  std::function<void(ByteRange)> chunk_done;  // a chunk the service accepted
  std::function<void(ByteRange, const Error&)> chunk_failed;
};

struct GetOptions {
  std::optional<ByteRange> range;  // written from offset 0 of the file
  bool size_unknown = false;       // one request, no size query
  ProgressFn progress;
};

// ---------------------------------------------------------------- delta

// How a delta operation ended when nothing failed. Only kPatched means the
// wanted bytes are in place; the others leave everything as it was.
enum class DeltaOutcome {
  kMatched,        // match: the file is within the ratio of the stored object
  kTooDifferent,   // the files differ by more than the ratio (match, put_patch),
                   // or the service's patch is too large for it (get_patch)
  kPatched,        // put_patch: the service applied the patch and stored the
                   // new object; get_patch: the patched file is written
  kPatchNotReady,  // get_patch: the service has no patch yet; it was asked to
                   // make one, so a later call may find it
};

struct DeltaResult {
  DeltaOutcome outcome = DeltaOutcome::kTooDifferent;
  // put_patch, kPatched: the new object as the service stored it.
  std::optional<ObjectDetails> details;
  // Size of the patch that went over the wire (kPatched only), when it
  // could be observed before the library removed the file.
  std::optional<uint64_t> patch_size;
  // match: the delta library's verdict (0: too different, >0: within).
  int32_t match_value = 0;
};

struct DeltaOptions {
  // match and put_patch: the largest share of difference that still counts
  // as close (0.0 to 1.0); get_patch: patches of this share of the new
  // object's size or more are refused.
  double ratio = 0.5;
  // Signatures, patches and the delta library's scratch files go here;
  // empty: $TMPDIR, else /tmp. Each call removes its own files.
  std::string temp_dir;
  int32_t process_type = 0;  // passed through to the service (0 or more)
  int32_t apply_mode = 0;    // get_patch: handed to the delta library
  // put_patch: asked during the upload and while the service applies the
  // patch, on library threads; true aborts.
  std::function<bool()> abort;
};

// ---------------------------------------------------------------- token

namespace detail {
struct TokenHolder {
  std::mutex mutex;
  std::string token;
  std::function<std::string()> provider;
};
inline TokenHolder& token_holder() {
  static TokenHolder holder;
  return holder;
}
inline char* token_get() {
  try {
    TokenHolder& holder = token_holder();
    std::unique_lock<std::mutex> lock(holder.mutex);
    std::function<std::string()> provider = holder.provider;
    std::string token = holder.token;
    lock.unlock();
    if (provider) token = provider();
    return token.empty() ? nullptr : strdup(token.c_str());
  } catch (...) {
    return nullptr;
  }
}
inline void token_free(char* token) { std::free(token); }
}  // namespace detail

// The bearer token every Client sends.
inline void set_token(std::string token) {
  std::lock_guard<std::mutex> lock(detail::token_holder().mutex);
  detail::token_holder().token = std::move(token);
}
// Asked for the token before each request, on library threads, possibly
// several at once; replaces set_token() while set. Exceptions mean no token.
inline void set_token_provider(std::function<std::string()> provider) {
  std::lock_guard<std::mutex> lock(detail::token_holder().mutex);
  detail::token_holder().provider = std::move(provider);
}

// ---------------------------------------------------------------- owners

// Process-wide start-up for the lifetime of the object. Create one (one at
// a time, on one thread) before any Client operation, and let it go only
// after every operation reported.
class Library {
 public:
  Library() {
    if (zel_global_init() != 0) throw std::runtime_error("zel: process-wide start-up failed");
  }
  ~Library();
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
};

// Points an environment of both services (storage and delta engine) at
// another base URL ("scheme://host[:port]"); process-wide. Empty restores
// the built-in ones. False for a malformed URL.
inline bool set_environment_url(uint32_t environment, const std::string& base_url) {
  const char* url = base_url.empty() ? nullptr : base_url.c_str();
  return zel_set_environment_url(environment, url) == 0 && kri_set_environment_url(environment, url) == 0;
}

namespace detail {
struct HandleFree {
  void operator()(ZEL* handle) const { zel_cleanup(handle); }
};
struct PermissionsFree {
  void operator()(ZELBucketPermissions* list) const { zel_permissions_cleanup(list); }
};
struct StreamFree {
  void operator()(ZELStream* stream) const { zel_stream_cleanup(stream); }
};
}  // namespace detail

}  // namespace zel

#include <zel/zel_client.hpp>

namespace zel {
// Transfers have all ended once the pools are down, so calls kept for a
// second report can go.
inline Library::~Library() {
  zel_global_cleanup();
  detail::release_kept();
}
}  // namespace zel

#endif  // ZEL_ZEL_HPP
