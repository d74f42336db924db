#include "object_op.h"

namespace {
constexpr const char* kLogTag = "src\\undelete_object";

ZELUndeleteObjectOpt* clone_opt(const ZELUndeleteObjectOpt* source) {
  static const KeyPairMessages messages{"Cannot allocate memory for the cloned ZELUndeleteObjectOpt",
                                        "Cannot allocate memory for ZELUndeleteObjectOpt key",
                                        "Cannot allocate memory for ZELUndeleteObjectOpt bucket key",
                                        "Cannot clone the ZELUndeleteObjectOpt headers", true};
  return clone_key_pair_opt(kLogTag, source, messages);
}

void free_opt(ZELUndeleteObjectOpt* opt) { free_key_pair_opt(opt); }

void on_success(const Exchange&, const OpDecorator<ZELUndeleteObjectOpt>& decorator) {
  if (decorator.opt->done_callback != nullptr) decorator.opt->done_callback(decorator.user_data);
}

int worker(void* raw) {
  // An empty POST without a Content-Type line.
  static const KeyPairWorker w{kLogTag,
                               "ZELUndeleteObjectDecorator",
                               "ZELUndeleteObjectOpt",
                               "ZELUndeleteObjectOpt bucket_key is (null)",
                               "ZELUndeleteObjectOpt object_key is (null)",
                               "/undelete",
                               HttpMethod::post,
                               nullptr};
  return run_key_pair_worker<ZELUndeleteObjectOpt, ZELUndeleteObjectResp, free_opt>(raw, w, on_success);
}
}  // namespace

extern "C" ZEL_EXPORT void zel_undelete_object(ZEL* handle, const ZELUndeleteObjectOpt* opt,
                                               void* user_data) {
  static const EntryConfig cfg{"src\\object",
                               "ZELUndeleteObjectOpt",
                               "ZELUndeleteObjectDecorator",
                               "Cannot allocate memory for ZELUndeleteObjectDecorator",
                               true,
                               true,
                               false};
  start_operation<ZELUndeleteObjectOpt, ZELUndeleteObjectResp, clone_opt, free_opt>(cfg, handle, opt,
                                                                                    user_data, worker);
}
