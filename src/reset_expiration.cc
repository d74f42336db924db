#include "object_op.h"

namespace {
constexpr const char* kLogTag = "src\\reset_expiration";

ZELResetExpirationOpt* clone_opt(const ZELResetExpirationOpt* source) {
  static const KeyPairMessages messages{"Cannot allocate memory for the cloned ZELResetExpirationOpt",
                                        "Cannot allocate memory for ZELResetExpirationOpt key",
                                        "Cannot allocate memory for ZELResetExpirationOpt bucket key",
                                        "Cannot clone the ZELResetExpirationOpt headers", true};
  return clone_key_pair_opt(kLogTag, source, messages);
}

void free_opt(ZELResetExpirationOpt* opt) { free_key_pair_opt(opt); }

void on_success(const Exchange& exchange, const OpDecorator<ZELResetExpirationOpt>& decorator) {
  deliver_object_details(kLogTag, exchange, decorator.handle->api_version, decorator.opt->details_callback,
                         decorator.opt->callback, decorator.user_data);
}

int worker(void* raw) {
  static const KeyPairWorker w{kLogTag,
                               "ZELResetExpirationDecorator",
                               "ZELResetExpirationOpt",
                               "ZELResetExpirationOpt bucket_key is (null)",
                               "ZELResetExpirationOpt object_key is (null)",
                               "/resetexpiration",
                               HttpMethod::post,
                               "application/json"};
  return run_key_pair_worker<ZELResetExpirationOpt, ZELResetExpirationResp, free_opt>(raw, w, on_success);
}
}  // namespace

extern "C" ZEL_EXPORT void zel_reset_object_expiration(ZEL* handle, const ZELResetExpirationOpt* opt,
                                                       void* user_data) {
  static const EntryConfig cfg{"src\\object",
                               "ZELResetExpirationOpt",
                               "ZELResetExpirationDecorator",
                               "Cannot allocate memory for ZELResetExpirationDecorator",
                               true,
                               true,
                               false};
  start_operation<ZELResetExpirationOpt, ZELResetExpirationResp, clone_opt, free_opt>(cfg, handle, opt,
                                                                                      user_data, worker);
}
