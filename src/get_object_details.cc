#include "object_op.h"

namespace {
constexpr const char* kLogTag = "src\\get_object_details";

ZELGetObjectDetailsOpt* clone_opt(const ZELGetObjectDetailsOpt* source) {
  static const KeyPairMessages messages{"Cannot allocate memroy for the cloned ZELGetObjectDetailsOpt",
                                        "Cannot allocate memory for the ZELGetObjectDetailsOpt bucket_key",
                                        "Cannot allocate memory for the ZELGetObjectDetailsOpt key",
                                        "Cannot clone the ZELGetObjectDetailsOpt headers", false};
  return clone_key_pair_opt(kLogTag, source, messages);
}

void free_opt(ZELGetObjectDetailsOpt* opt) { free_key_pair_opt(opt); }

void on_success(const Exchange& exchange, const OpDecorator<ZELGetObjectDetailsOpt>& decorator) {
  deliver_object_details(kLogTag, exchange, decorator.handle->api_version, decorator.opt->details_callback,
                         decorator.opt->callback, decorator.user_data);
}

int worker(void* raw) {
  // Both API versions are asked for the three dates.
  static const KeyPairWorker w{kLogTag,
                               "ZELGetObjectDetailsDecorator",
                               "ZELGetObjectDetailsOpt",
                               "ZELGetObjectDetailsOpt bucket_key is (null)",
                               "ZELGetObjectDetailsOpt object key is (null)",
                               "/details?with=createdDate&with=lastAccessedDate&with=lastModifiedDate",
                               HttpMethod::get,
                               nullptr};
  return run_key_pair_worker<ZELGetObjectDetailsOpt, ZELGetObjectDetailsResp, free_opt>(raw, w, on_success);
}
}  // namespace

extern "C" ZEL_EXPORT void zel_get_object_details(ZEL* handle, const ZELGetObjectDetailsOpt* opt,
                                                  void* user_data) {
  static const EntryConfig cfg{"src\\object",
                               "ZELGetObjectDetailsOpt",
                               "ZELGetObjectDetailsDecorator",
                               "Cannot allocate memory for ZELGetObjectDetailsDecorator",
                               true,
                               false,
                               false};
  start_operation<ZELGetObjectDetailsOpt, ZELGetObjectDetailsResp, clone_opt, free_opt>(cfg, handle, opt,
                                                                                        user_data, worker);
}
