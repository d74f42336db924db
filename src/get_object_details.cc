#include "object_op.h"

namespace {
constexpr const char* kLogTag = "src\\get_object_details";
using Opt = ZELGetObjectDetailsOpt;

const OptField kFields[] = {
    OPT_FIELD(wide, Opt, bucket_key, "Cannot allocate memory for the ZELGetObjectDetailsOpt bucket_key"),
    OPT_FIELD(wide, Opt, key, "Cannot allocate memory for the ZELGetObjectDetailsOpt key"),
    OPT_FIELD(headers, Opt, headers, "Cannot clone the ZELGetObjectDetailsOpt headers")};
const OptTable kCopy =
    opt_table<Opt>(ZSITE, "Cannot allocate memroy for the cloned ZELGetObjectDetailsOpt", kFields);

const char* missing(const void* raw) {
  const auto* opt = static_cast<const Opt*>(raw);
  if (opt->bucket_key == nullptr) return "ZELGetObjectDetailsOpt bucket_key is (null)";
  if (opt->key == nullptr) return "ZELGetObjectDetailsOpt object key is (null)";
  return nullptr;
}

void on_success(const OpCall& call, const Exchange& exchange) {
  deliver_object_details(ZSITE, call, exchange, call.options<Opt>()->details_callback);
}

// Both API versions are asked for the three dates.
const Operation kOperation = [] {
  Operation op;
  object_operation<Opt>(
      op, kCopy,
      "/buckets/%s/objects/%s/details?with=createdDate&with=lastAccessedDate&with=lastModifiedDate");
  OPERATION_NAMES(op, "ZELGetObjectDetails");
  op.site = ZSITE;
  op.missing = missing;
  op.on_success = on_success;
  return op;
}();
}  // namespace

extern "C" ZEL_EXPORT void zel_get_object_details(ZEL* handle, const ZELGetObjectDetailsOpt* opt,
                                                  void* user_data) {
  FRAME_START(kOperation, handle, opt, user_data);
}
