#include "object_op.h"

namespace {
constexpr const char* kLogTag = "src\\delete_object";

ZELDeleteObjectOpt* clone_opt(const ZELDeleteObjectOpt* source) {
  static const KeyPairMessages messages{
      "Cannot allocate memory for the cloned ZELDeleteObjectOpt",
      "Cannot allocate memory for the ZELDeleteObjectOpt bucket_key",
      "Cannot allocate memory for the ZELDeleteObjectOpt key", "Cannot clone the ZELDeleteObjectOpt headers",
      false};
  return clone_key_pair_opt(kLogTag, source, messages);
}

void free_opt(ZELDeleteObjectOpt* opt) { free_key_pair_opt(opt); }

void on_success(const Exchange&, const OpDecorator<ZELDeleteObjectOpt>& decorator) {
  if (decorator.opt->done_callback != nullptr) decorator.opt->done_callback(decorator.user_data);
}

int worker(void* raw) {
  static const KeyPairWorker w{kLogTag,
                               "ZELDeleteObjectDecorator",
                               "ZELDeleteObjectOpt",
                               "ZELDeleteObjectOpt bucket_key is (null)",
                               "ZELDeleteObjectOpt object_key is (null)",
                               "",
                               HttpMethod::del,
                               nullptr};
  return run_key_pair_worker<ZELDeleteObjectOpt, ZELDeleteObjectResp, free_opt>(raw, w, on_success);
}
}  // namespace

extern "C" ZEL_EXPORT void zel_delete_object(ZEL* handle, const ZELDeleteObjectOpt* opt, void* user_data) {
  static const EntryConfig cfg{"src\\object",
                               "ZELDeleteObjectOpt",
                               "ZELDeleteObjectDecorator",
                               "Cannot allocate memory for ZELDeleteObjectDecorator",
                               true,
                               false,
                               false};
  start_operation<ZELDeleteObjectOpt, ZELDeleteObjectResp, clone_opt, free_opt>(cfg, handle, opt, user_data,
                                                                                worker);
}
