// Delta-engine client: the KRI handle, its URLs, and the synchronous job
// requests. Every exchange goes through KriExchange, the one place where
// this module touches the library's request path.
#include <jansson.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "alloc.h"
#include "environment.h"
#include "http.h"
#include "http_plan.h"
#include "log.h"
#include "util.h"
#include "zel_internal.h"

namespace {
constexpr const char* kLogTag = "src\\kri";

constexpr uint32_t kDefaultTimeoutMs = 10000;
constexpr size_t kUrlMax = ZEL_URL_SIZE;  // kri_api_url writes at most this much

constexpr const char* kNoJobAddress = "DocumentId and Status Public URL are not defined";
constexpr const char* kUrlTooLong = "The status URL does not fit in 4096 bytes";
constexpr const char* kBadHeaderValue = "An access-control header value holds CR or LF";

void replace_text(char** field, const char* value) {
  mem_free(*field);
  *field = value != nullptr ? mem_strdup(value) : nullptr;
}

int url_build(const KRI* kri, char* buffer, size_t size, const char* format, va_list args) {
  if (kri == nullptr) {
    ZLOG("KRI handler is not initialized");
    return -1;
  }
  if (buffer == nullptr || size == 0 || format == nullptr) return -1;
  char host[ZEL_URL_SIZE] = {0};
  env_base_url(EnvService::delta, kri->environment, host, sizeof host);
  int n = 0;
  if (host[0] != '\0') n = snprintf(buffer, size, "%s/kri/api/v%u", host, kri->api_version);
  if (n < 0) return -1;
  size_t used = static_cast<size_t>(n) < size ? static_cast<size_t>(n) : size - 1;
  int m = vsnprintf(buffer + used, size - used, format, args);
  return m < 0 ? -1 : n + m;
}

int kri_url(const KRI* kri, char* buffer, const char* format, ...) ZEL_PRINTF(3, 4);
int kri_url(const KRI* kri, char* buffer, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int length = url_build(kri, buffer, kUrlMax, format, args);
  va_end(args);
  return length;
}

bool has_text(const char* text) { return text != nullptr && *text != '\0'; }

bool has_line_break(const char* text) { return text != nullptr && std::strpbrk(text, "\r\n") != nullptr; }

// One exchange with the delta engine on a fresh request (never pooled: the
// client is used from arbitrary threads, outside the transfer machinery).
// Each step returns none or the error text to hand back; the destructor
// releases whatever was made.
class KriExchange {
 public:
  KriExchange() = default;
  KriExchange(const KriExchange&) = delete;
  KriExchange& operator=(const KriExchange&) = delete;

  const char* open(const KRI* kri) {
    // A job request is short; a stalled one ends by the timeout alone.
    plan_.settings = HttpSettings{kri->timeout_ms,
                                  0,
                                  0,
                                  kri->ssl_verify_peer,
                                  kri->max_send_speed,
                                  kri->max_recv_speed,
                                  kri->proxy,
                                  kri->proxy_username,
                                  kri->proxy_password};
    return nullptr;
  }
  void authorize(const KRI* kri) {
    plan_.get_token = kri->get_token;
    plan_.free_token = kri->free_token;
  }
  // A header whose value is none is left out.
  void add_header(const char* name, const char* value) {
    if (value != nullptr && field_count_ < kMaxFields) fields_[field_count_++] = HttpField{name, value};
  }
  const char* post_json(const char* url, const char* body) {
    plan_.method = HttpMethod::post;
    plan_.url = url;
    plan_.content_type = "application/json";
    plan_.body = body;
    plan_.body_size = std::strlen(body);
    return nullptr;
  }
  const char* get(const char* url) {
    plan_.method = HttpMethod::get;
    plan_.url = url;
    return nullptr;
  }

  // Runs the request on a fresh, never pooled request. Every answer is
  // caught in memory: without a body, libcurl would copy it to the host
  // process's standard output.
  const char* perform() {
    plan_.fields = fields_;
    plan_.field_count = field_count_;
    return exchange_.run(plan_) ? nullptr : exchange_.error();
  }

  int32_t status() const { return exchange_.status(); }
  // The body as text; "" when nothing arrived.
  const char* body() const {
    const char* text = exchange_.body();
    return text != nullptr ? text : "";
  }

 private:
  static constexpr size_t kMaxFields = 3;  // the access-control lines
  HttpPlan plan_;
  HttpField fields_[kMaxFields] = {};
  size_t field_count_ = 0;
  HttpExchange exchange_;
};

// ---------------------------------------------------------------------------
// Job answers

template <class Resp>
void zero_resp(Resp* resp) {
  resp->progress = 0;
  resp->code = 0;
  resp->description = nullptr;
  resp->document_id = nullptr;
}

struct JsonFree {
  json_t* root;
  ~JsonFree() { json_decref(root); }
};

template <class Resp>
bool parse_job(const char* body, Resp* resp) {
  if (resp == nullptr) {
    ZLOG("The KRICreateSignatureResp pointer is (null)");
    return false;
  }
  json_error_t error;
  JsonFree root{json_loads(body, JSON_REJECT_DUPLICATES, &error)};
  if (root.root == nullptr) {
    ZLOG("Failed in post details from json error: %s\n", error.text);
    return false;
  }
  int progress = 0, code = 0;
  const char* description = "";
  const char* document_id = "";
  if (json_unpack_ex(root.root, &error, JSON_STRICT, "{s?:i, s:i, s:s, s?:s, *}", "Progress", &progress,
                     "Code", &code, "Description", &description, "DocumentID", &document_id) != 0) {
    ZLOG("Failed to unpack json in post details from json error: %s", error.text);
    return false;
  }
  char* description_copy = mem_strdup(description);
  char* document_copy = mem_strdup(document_id);
  if (description_copy == nullptr || document_copy == nullptr) {
    mem_free(description_copy);
    mem_free(document_copy);
    return false;
  }
  resp->progress = progress;
  resp->code = code;
  resp->description = description_copy;
  resp->document_id = document_copy;
  return true;
}

// The verdict on a performed exchange, shared by every job request.
template <class Resp>
const char* judge(const KriExchange& exchange, const char* url, Resp* resp) {
  switch (exchange.status()) {
    case 200:
      if (parse_job(exchange.body(), resp)) return nullptr;
      ZLOG("Cannot unmarshal json response: %s", exchange.body());
      return "Cannot unmarshal json response";
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
    case 404:
      ZLOG("Not Found: %s", url);
      return "Not Found";
    default:
      ZLOG("Unknown error(%d): %s", exchange.status(), exchange.body());
      return "Internal Server Error";
  }
}

// ---------------------------------------------------------------------------
// Request bodies. Each returns a compact JSON text (mem_free) or none, after
// logging the JSON library's reason.

struct Utf8 {
  char* text;
  explicit Utf8(const char16_t* wide) : text(wide_to_utf8(wide)) {}
  ~Utf8() { mem_free(text); }
  Utf8(const Utf8&) = delete;
  Utf8& operator=(const Utf8&) = delete;
};

char* dump_packed(json_t* packed, const json_error_t& error, const char* failure_format) {
  if (packed == nullptr) {
    zel_log(nullptr, kLogTag, __LINE__, failure_format, error.text);
    return nullptr;
  }
  char* dumped = json_dumps(packed, JSON_COMPACT | JSON_PRESERVE_ORDER);
  json_decref(packed);
  char* copy = mem_strdup(dumped);
  free(dumped);
  return copy;
}

char* signature_body(const KRICreateSignatureOpt* opt) {
  Utf8 bucket(opt->bucket_name), object(opt->object_name);
  json_error_t error;
  json_t* packed =
      json_pack_ex(&error, 0, "{s:s, s:s, s:i, s:I, s:i}", "BucketName", bucket.text, "ObjectName",
                   object.text, "MaximumAttempts", opt->maximum_attempts, "BlockSize",
                   static_cast<json_int_t>(opt->block_size), "ProcessType", opt->process_type);
  return dump_packed(packed, error, "Failed to create json format in create signature request %s");
}

char* delta_body(const KRICreateDeltaOpt* opt) {
  Utf8 bucket(opt->bucket_name), base(opt->object_name1), target(opt->object_name2);
  json_error_t error;
  json_t* packed =
      json_pack_ex(&error, 0, "{s:s, s:i, s:s, s:s, s:I, s:i}", "BucketName", bucket.text, "MaximumAttempts",
                   opt->maximum_attempts, "ObjectName1", base.text, "ObjectName2", target.text, "BlockSize",
                   static_cast<json_int_t>(opt->block_size), "ProcessType", opt->process_type);
  return dump_packed(packed, error, "Failed to create json format in create delta request %s");
}

char* apply_body(const KRIApplyPatchOpt* opt) {
  Utf8 bucket(opt->bucket_name), base(opt->object_name), target(opt->new_object_name);
  json_error_t error;
  json_t* packed =
      json_pack_ex(&error, 0, "{s:s, s:s, s:i, s:s, s:s, s:i}", "BucketName", bucket.text, "ObjectName",
                   base.text, "MaximumAttempts", opt->maximum_attempts, "NewObjectName", target.text,
                   "NewObjectSHA1", opt->new_object_sha1, "ProcessType", opt->process_type);
  return dump_packed(packed, error, "Failed to create json format in apply patch request %s");
}

// ---------------------------------------------------------------------------
// The two request shapes.

struct JobRoute {
  const char* path;            // create request path
  const char* kind;            // status path segment
  const char* create_refused;  // parameter message of the create request
  const char* status_refused;  // parameter message of the status request
  const char* body_failed;     // returned when the body cannot be built
};

const JobRoute kSignature{"/createsignature", "createsignature",
                          "One of the kri_create_signature parameters (kri, opt, resp) is not initialized",
                          "One of the kri_create_signature_status parameters (kri, opt, sigresp, statusresp) "
                          "are not initialized",
                          "Cannot marshall the json"};
const JobRoute kDelta{
    "/createdelta", "createdelta",
    "One of the kri_create_delta parameters (kri, opt, resp) are not initialized",
    "One of the kri_create_delta_status parameters (kri, opt, deltaresp, statusresp) are not "
    "initialized",
    "Cannot create json for create delta"};
const JobRoute kApply{
    "/applypatch", "applypatch", "One of the kri_apply_patch parameters (kri, opt, resp) are not initialized",
    "One of the kri_apply_patch_status parameters (kri, opt, patchresp, statusresp) are not "
    "initialized",
    "Cannot create json for apply patch"};

struct MemText {
  char* text;
  ~MemText() { mem_free(text); }
};

template <class Opt>
const char* add_acm_headers(KriExchange& exchange, const Opt* opt) {
  const char* names[] = {"x-pmw-acm-namespace", "x-pmw-acm-groups", "x-pmw-acm-check-groups"};
  const char* values[] = {opt->acm_namespace, opt->acm_groups, opt->acm_check_groups};
  // A line break would let a value forge further header lines.
  for (const char* value : values) {
    if (has_line_break(value)) return kBadHeaderValue;
  }
  for (int i = 0; i < 3; i++) exchange.add_header(names[i], values[i]);
  return nullptr;
}

template <class Opt, class Resp>
const char* submit_job(const KRI* kri, const Opt* opt, Resp* resp, const JobRoute& route,
                       char* (*build_body)(const Opt*)) {
  char url[kUrlMax + 1] = {0};
  if (kri == nullptr || opt == nullptr || kri->get_token == nullptr || resp == nullptr) {
    return route.create_refused;
  }
  zero_resp(resp);
  kri_url(kri, url, "%s", route.path);
  KriExchange exchange;
  if (const char* error = exchange.open(kri)) return error;
  exchange.authorize(kri);
  if (const char* error = add_acm_headers(exchange, opt)) return error;
  MemText body{build_body(opt)};
  if (body.text == nullptr) return route.body_failed;
  if (const char* error = exchange.post_json(url, body.text)) return error;
  if (const char* error = exchange.perform()) return error;
  return judge(exchange, url, resp);
}

// Addresses a job: by id with the token, else by its public address without.
template <class Job>
const char* address_job(const KRI* kri, const Job* job, const JobRoute& route, KriExchange& exchange,
                        char* url) {
  if (has_text(job->document_id)) {
    exchange.authorize(kri);
    int length = kri_url(kri, url, "/%s/%s", route.kind, job->document_id);
    return length >= 0 && static_cast<size_t>(length) < kUrlMax ? nullptr : kUrlTooLong;
  }
  if (has_text(job->description)) {
    if (std::strlen(job->description) >= kUrlMax) return kUrlTooLong;
    std::strcpy(url, job->description);
    return nullptr;
  }
  return kNoJobAddress;
}

template <class Job>
const char* job_status(const KRI* kri, const Job* job, KRIStatusResp* status, const JobRoute& route) {
  if (kri == nullptr || job == nullptr || status == nullptr) return route.status_refused;
  char url[kUrlMax + 1] = {0};
  zero_resp(status);
  KriExchange exchange;
  if (const char* error = exchange.open(kri)) return error;
  if (const char* error = address_job(kri, job, route, exchange, url)) return error;
  if (const char* error = exchange.get(url)) return error;
  if (const char* error = exchange.perform()) return error;
  return judge(exchange, url, status);
}

}  // namespace

extern "C" ZEL_EXPORT KRI* kri_init(uint32_t environment, uint32_t api_version, ZELGetTokenFn get_token,
                                    ZELFreeTokenFn free_token) {
  auto* kri = static_cast<KRI*>(mem_calloc(1, sizeof(KRI)));
  if (kri == nullptr) {
    ZLOG("Cannot initialize KRI hanlder");
    return nullptr;
  }
  kri->environment = environment;
  kri->api_version = api_version;
  kri->timeout_ms = kDefaultTimeoutMs;
  kri->ssl_verify_peer = 1;
  kri->get_token = get_token;
  kri->free_token = free_token;
  return kri;
}

extern "C" ZEL_EXPORT void kri_cleanup(KRI* kri) {
  if (kri == nullptr) return;
  mem_free(kri->proxy);
  mem_free(kri->proxy_username);
  mem_free(kri->proxy_password);
  mem_free(kri);
}

extern "C" ZEL_EXPORT void kri_set_proxy(KRI* kri, const char* proxy, const char* username,
                                         const char* password) {
  if (kri == nullptr) return;
  replace_text(&kri->proxy, proxy);
  replace_text(&kri->proxy_username, username);
  replace_text(&kri->proxy_password, password);
}

extern "C" ZEL_EXPORT int kri_api_url(const KRI* kri, char* buffer, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int length = url_build(kri, buffer, kUrlMax, format, args);
  va_end(args);
  return length;
}

extern "C" ZEL_EXPORT int kri_set_environment_url(uint32_t environment, const char* base_url) {
  return env_set_url(EnvService::delta, environment, base_url);
}

extern "C" ZEL_EXPORT int32_t kri_health(const KRI* kri) {
  if (kri == nullptr) {
    ZLOG("KRI handler is not initialized");
    return 0;
  }
  char url[kUrlMax + 1] = {0};
  kri_url(kri, url, "/health");
  KriExchange exchange;
  const char* error = exchange.open(kri);
  if (error == nullptr) error = exchange.get(url);
  if (error == nullptr) error = exchange.perform();
  if (error != nullptr) {
    ZLOG("%s", error);
    return 0;
  }
  return exchange.status();
}

extern "C" ZEL_EXPORT const char* kri_create_signature(const KRI* kri, const KRICreateSignatureOpt* opt,
                                                       KRICreateSignatureResp* resp) {
  return submit_job(kri, opt, resp, kSignature, signature_body);
}

extern "C" ZEL_EXPORT const char* kri_create_delta(const KRI* kri, const KRICreateDeltaOpt* opt,
                                                   KRICreateDeltaResp* resp) {
  return submit_job(kri, opt, resp, kDelta, delta_body);
}

extern "C" ZEL_EXPORT const char* kri_apply_patch(const KRI* kri, const KRIApplyPatchOpt* opt,
                                                  KRIApplyPatchResp* resp) {
  return submit_job(kri, opt, resp, kApply, apply_body);
}

extern "C" ZEL_EXPORT const char* kri_create_signature_status(const KRI* kri,
                                                              const KRICreateSignatureResp* job,
                                                              KRIStatusResp* status) {
  return job_status(kri, job, status, kSignature);
}

extern "C" ZEL_EXPORT const char* kri_create_delta_status(const KRI* kri, const KRICreateDeltaResp* job,
                                                          KRIStatusResp* status) {
  return job_status(kri, job, status, kDelta);
}

extern "C" ZEL_EXPORT const char* kri_apply_patch_status(const KRI* kri, const KRIApplyPatchResp* job,
                                                         KRIStatusResp* status) {
  return job_status(kri, job, status, kApply);
}
