#include "object_op.h"

namespace {
constexpr const char* kLogTag = "src\\reset_expiration";
using Opt = ZELResetExpirationOpt;

const OptField kFields[] = {
    OPT_FIELD(wide, Opt, key, "Cannot allocate memory for ZELResetExpirationOpt key"),
    OPT_FIELD(wide, Opt, bucket_key, "Cannot allocate memory for ZELResetExpirationOpt bucket key"),
    OPT_FIELD(headers, Opt, headers, "Cannot clone the ZELResetExpirationOpt headers")};
const OptTable kCopy =
    opt_table<Opt>(ZSITE, "Cannot allocate memory for the cloned ZELResetExpirationOpt", kFields);

const char* missing(const void* raw) {
  const auto* opt = static_cast<const Opt*>(raw);
  if (opt->bucket_key == nullptr) return "ZELResetExpirationOpt bucket_key is (null)";
  if (opt->key == nullptr) return "ZELResetExpirationOpt object_key is (null)";
  return nullptr;
}

void on_success(const OpCall& call, const Exchange& exchange) {
  deliver_object_details(ZSITE, call, exchange, call.options<Opt>()->details_callback);
}

const Operation kOperation = [] {
  Operation op;
  object_operation<Opt>(op, kCopy, "/buckets/%s/objects/%s/resetexpiration");
  OPERATION_NAMES(op, "ZELResetExpiration");
  op.log_clone_failures = true;
  op.site = ZSITE;
  op.missing = missing;
  op.method = HttpMethod::post;
  op.content_type = "application/json";
  op.on_success = on_success;
  return op;
}();
}  // namespace

extern "C" ZEL_EXPORT void zel_reset_object_expiration(ZEL* handle, const ZELResetExpirationOpt* opt,
                                                       void* user_data) {
  FRAME_START(kOperation, handle, opt, user_data);
}
