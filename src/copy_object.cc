#include "object_op.h"

namespace {
constexpr const char* kLogTag = "src\\copy_object";
using Opt = ZELCopyObjectOpt;

const OptField kFields[] = {
    OPT_FIELD(wide, Opt, source_key, "Cannot allocate memory for ZELCopyObjectOpt source key"),
    OPT_FIELD(wide, Opt, destination_key, "Cannot allocate memory for ZELCopyObjectOpt destination key"),
    OPT_FIELD(wide, Opt, bucket_key, "Cannot allocate memory for ZELCopyObjectOpt bucket key"),
    OPT_FIELD(headers, Opt, headers, "Cannot clone the ZELCopyObjectOpt headers")};
const OptTable kCopy =
    opt_table<Opt>(ZSITE, "Cannot allocate memory for the cloned ZELCopyObjectOpt", kFields);

const char* missing(const void* raw) {
  const auto* opt = static_cast<const Opt*>(raw);
  if (opt->bucket_key == nullptr) return "ZELCopyObjectOpt bucket_key is (null)";
  if (opt->source_key == nullptr) return "ZELCopyObjectOpt source_key is (null)";
  if (opt->destination_key == nullptr) return "ZELCopyObjectOpt destination_key is (null)";
  return nullptr;
}

void on_success(const OpCall& call, const Exchange& exchange) {
  deliver_object_details(ZSITE, call, exchange, call.options<Opt>()->details_callback);
}

// A PUT without body: application/octet-stream and an upload size of 0.
const Operation kOperation = [] {
  Operation op;
  operation_for<Opt>(op, kCopy);
  OPERATION_NAMES(op, "ZELCopyObject");
  op.family_tag = "src\\object";
  op.check_handle = true;
  op.log_clone_failures = true;
  op.site = ZSITE;
  op.missing = missing;
  op.path = "/buckets/%s/objects/%s/copyto/%s";
  op.args[0] = PATH_NAME(Opt, bucket_key);
  op.args[1] = PATH_NAME(Opt, source_key);
  op.args[2] = PATH_NAME(Opt, destination_key);
  op.method = HttpMethod::put;
  op.on_success = on_success;
  return op;
}();
}  // namespace

extern "C" ZEL_EXPORT void zel_copy_object(ZEL* handle, const ZELCopyObjectOpt* opt, void* user_data) {
  FRAME_START(kOperation, handle, opt, user_data);
}
