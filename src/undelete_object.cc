#include "object_op.h"

namespace {
constexpr const char* kLogTag = "src\\undelete_object";
using Opt = ZELUndeleteObjectOpt;

const OptField kFields[] = {
    OPT_FIELD(wide, Opt, key, "Cannot allocate memory for ZELUndeleteObjectOpt key"),
    OPT_FIELD(wide, Opt, bucket_key, "Cannot allocate memory for ZELUndeleteObjectOpt bucket key"),
    OPT_FIELD(headers, Opt, headers, "Cannot clone the ZELUndeleteObjectOpt headers")};
const OptTable kCopy =
    opt_table<Opt>(ZSITE, "Cannot allocate memory for the cloned ZELUndeleteObjectOpt", kFields);

const char* missing(const void* raw) {
  const auto* opt = static_cast<const Opt*>(raw);
  if (opt->bucket_key == nullptr) return "ZELUndeleteObjectOpt bucket_key is (null)";
  if (opt->key == nullptr) return "ZELUndeleteObjectOpt object_key is (null)";
  return nullptr;
}

// An empty POST without a Content-Type line.
const Operation kOperation = [] {
  Operation op;
  object_operation<Opt>(op, kCopy, "/buckets/%s/objects/%s/undelete");
  OPERATION_NAMES(op, "ZELUndeleteObject");
  op.log_clone_failures = true;
  op.site = ZSITE;
  op.missing = missing;
  op.method = HttpMethod::post;
  op.on_success = call_done<Opt>;
  return op;
}();
}  // namespace

extern "C" ZEL_EXPORT void zel_undelete_object(ZEL* handle, const ZELUndeleteObjectOpt* opt,
                                               void* user_data) {
  FRAME_START(kOperation, handle, opt, user_data);
}
