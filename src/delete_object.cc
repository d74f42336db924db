#include "object_op.h"

namespace {
constexpr const char* kLogTag = "src\\delete_object";
using Opt = ZELDeleteObjectOpt;

const OptField kFields[] = {
    OPT_FIELD(wide, Opt, bucket_key, "Cannot allocate memory for the ZELDeleteObjectOpt bucket_key"),
    OPT_FIELD(wide, Opt, key, "Cannot allocate memory for the ZELDeleteObjectOpt key"),
    OPT_FIELD(headers, Opt, headers, "Cannot clone the ZELDeleteObjectOpt headers")};
const OptTable kCopy =
    opt_table<Opt>(ZSITE, "Cannot allocate memory for the cloned ZELDeleteObjectOpt", kFields);

const char* missing(const void* raw) {
  const auto* opt = static_cast<const Opt*>(raw);
  if (opt->bucket_key == nullptr) return "ZELDeleteObjectOpt bucket_key is (null)";
  if (opt->key == nullptr) return "ZELDeleteObjectOpt object_key is (null)";
  return nullptr;
}

const Operation kOperation = [] {
  Operation op;
  object_operation<Opt>(op, kCopy, "/buckets/%s/objects/%s");
  OPERATION_NAMES(op, "ZELDeleteObject");
  op.site = ZSITE;
  op.missing = missing;
  op.method = HttpMethod::del;
  op.on_success = call_done<Opt>;
  return op;
}();
}  // namespace

extern "C" ZEL_EXPORT void zel_delete_object(ZEL* handle, const ZELDeleteObjectOpt* opt, void* user_data) {
  FRAME_START(kOperation, handle, opt, user_data);
}
