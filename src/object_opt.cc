// Copies of the transfer options and the decorators that carry them to the
// worker pool. A queued transfer may start long after its entry point has
// returned and the caller has freed its own records, so everything the
// worker reads is copied here.
#include "frame.h"
#include "object.h"

namespace {
constexpr const char* kLogTag = "src\\object";

const OptField kPutFields[] = {
    OPT_FIELD(wide, ZELPutObjectOpt, bucket_key, "Cannot allocate memory for ZELPutObjectOpt bucket_key"),
    OPT_FIELD(wide, ZELPutObjectOpt, key, "Cannot allocate memory for ZELPutObjectOpt key"),
    OPT_FIELD(text, ZELPutObjectOpt, session_id, "Cannot allocate memory for ZELPutObjectOpt session_id"),
    OPT_FIELD(text, ZELPutObjectOpt, content_type, "Cannot allocate memory for ZELPutObjectOpt content_type"),
    OPT_FIELD(range, ZELPutObjectOpt, range, "Cannot allocate memory for ZELByteRanges list"),
    OPT_FIELD(stream, ZELPutObjectOpt, stream, "Cannot allocate memory for ZELPutObjectOpt stream"),
    OPT_FIELD(headers, ZELPutObjectOpt, headers, "Cannot allocate memory for ZELPutObjectOpt headers")};
const OptTable kPutCopy =
    opt_table<ZELPutObjectOpt>(ZSITE, "Cannot allocate memory for the cloned ZELPutObjectOpt", kPutFields);

const OptField kGetFields[] = {
    OPT_FIELD(wide, ZELGetObjectOpt, bucket_key, "Cannot allocate memory for the ZELGetObjectOpt bucket_key"),
    OPT_FIELD(wide, ZELGetObjectOpt, key, "Cannot allocate memory for the ZELGetObjectOpt key"),
    OPT_FIELD(range, ZELGetObjectOpt, range, "Cannot allocate memory for the ZELGetObjectOpt range"),
    OPT_FIELD(stream, ZELGetObjectOpt, stream, "Cannot allocate for the ZELGetObjectOpt stream"),
    OPT_FIELD(headers, ZELGetObjectOpt, headers, "Cannot allocate memory for the ZELGetObjectOpt headers")};
const OptTable kGetCopy =
    opt_table<ZELGetObjectOpt>(ZSITE, "Cannot allocate memory for the cloned ZELGetObjectOpt", kGetFields);

const OptField kByUrlFields[] = {
    OPT_FIELD(wide, ZELGetObjectByURLOpt, download_url,
              "Cannot allocate memory for the ZELGetObjectByURLOpt download_url"),
    OPT_FIELD(range, ZELGetObjectByURLOpt, range,
              "Cannot allocate memory for the ZELGetObjectByURLOpt range"),
    OPT_FIELD(stream, ZELGetObjectByURLOpt, stream, "Cannot allocate for the ZELGetObjectByURLOpt stream"),
    OPT_FIELD(headers, ZELGetObjectByURLOpt, headers,
              "Cannot allocate memory for the ZELGetObjectByURLOpt headers")};
const OptTable kByUrlCopy = opt_table<ZELGetObjectByURLOpt>(
    ZSITE, "Cannot allocate memory for the cloned ZELGetObjectByURLOpt", kByUrlFields);

// A transfer decorator copies what it was given: a missing handle or
// options record stays missing.
DecoratorRules transfer_rules(LogSite site, const char* record_name) {
  return {site, record_name, false, false};
}

}  // namespace

ZELPutObjectOpt* put_object_opt_clone(const ZELPutObjectOpt* opt) { return opt_clone_as(kPutCopy, opt); }
void put_object_opt_cleanup(ZELPutObjectOpt* opt) { opt_free(kPutCopy, opt); }

ZELGetObjectOpt* get_object_opt_clone(const ZELGetObjectOpt* opt) { return opt_clone_as(kGetCopy, opt); }
void get_object_opt_cleanup(ZELGetObjectOpt* opt) { opt_free(kGetCopy, opt); }

ZELGetObjectByURLOpt* get_object_by_url_opt_clone(const ZELGetObjectByURLOpt* opt) {
  return opt_clone_as(kByUrlCopy, opt);
}
void get_object_by_url_opt_cleanup(ZELGetObjectByURLOpt* opt) { opt_free(kByUrlCopy, opt); }

ZELPutObjectDecorator* put_object_decorator_init(const ZEL* handle, const ZELPutObjectOpt* opt, uint64_t size,
                                                 void* user_data) {
  auto* decorator = decorator_make<ZELPutObjectDecorator>(transfer_rules(ZSITE, "ZELPutObjectDecorator"),
                                                          kPutCopy, handle, opt, user_data);
  if (decorator != nullptr) decorator->size = size;
  return decorator;
}

void put_object_decorator_cleanup(ZELPutObjectDecorator* decorator) { decorator_free(kPutCopy, decorator); }

ZELGetObjectDecorator* get_object_decorator_init(const ZEL* handle, const ZELGetObjectOpt* opt,
                                                 void* user_data) {
  return decorator_make<ZELGetObjectDecorator>(transfer_rules(ZSITE, "ZELGetObjectDecorator"), kGetCopy,
                                               handle, opt, user_data);
}

void get_object_decorator_cleanup(ZELGetObjectDecorator* decorator) { decorator_free(kGetCopy, decorator); }

ZELGetObjectByURLDecorator* get_object_by_url_decorator_init(const ZEL* handle,
                                                             const ZELGetObjectByURLOpt* opt,
                                                             void* user_data) {
  return decorator_make<ZELGetObjectByURLDecorator>(transfer_rules(ZSITE, "ZELGetObjectByURLDecorator"),
                                                    kByUrlCopy, handle, opt, user_data);
}

void get_object_by_url_decorator_cleanup(ZELGetObjectByURLDecorator* decorator) {
  decorator_free(kByUrlCopy, decorator);
}
