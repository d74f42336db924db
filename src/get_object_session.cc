#include <cstring>

#include "object.h"
#include "object_op.h"

namespace {
constexpr const char* kLogTag = "src\\get_object_session";
using Opt = ZELGetObjectSessionOpt;

const OptField kFields[] = {
    OPT_FIELD(wide, Opt, bucket_key, "Cannot allocate memory for ZELGetObjectSessionOpt bucket_key"),
    OPT_FIELD(wide, Opt, key, "Cannot allocate memory for ZELGetObjectSessionOpt key"),
    OPT_FIELD(text, Opt, session_id, "Cannot allocate memory for ZELGetObjectSessionOpt session_id"),
    OPT_FIELD(headers, Opt, headers, "Cannot clone the ZELGetObjectSessionOpt headers")};
const OptTable kCopy = opt_table<Opt>(ZSITE, "Cannot allocate memory for ZELGetObjectSessionOpt", kFields);

// Fills the session from the answer's range header and hands it over.
void deliver_session(const OpCall& call, const Exchange& exchange) {
  const Opt* opt = call.options<Opt>();
  if (opt->session_callback == nullptr) return;
  ZELObjectSession* session = zel_object_session_init();
  if (session == nullptr) {
    call.report(0, "Cannot allocate memory for ZELObjectSession");
    return;
  }
  char* value = http_response_range(exchange.response());
  bool filled = copy_wide(opt->bucket_key, const_cast<const char16_t**>(&session->bucket_key)) &&
                copy_wide(opt->key, const_cast<const char16_t**>(&session->key)) &&
                copy_text(opt->session_id, const_cast<const char**>(&session->session_id));
  if (!filled) {
    call.report(0, "Cannot allocate memory for ZELObjectSession");
  } else if (byte_ranges_from_header(value, session->ranges) != 0) {
    ZLOG("Cannot parse range header response: %s", value != nullptr ? value : "(null)");
    call.report(exchange.status(), "Cannot parse range header");
  } else {
    opt->session_callback(session, call.user_data);
  }
  mem_free(value);
  zel_object_session_cleanup(session);
}

const char* missing(const void* raw) {
  const auto* opt = static_cast<const Opt*>(raw);
  if (opt->bucket_key == nullptr) return "ZELGetObjectSessionOpt bucket_key is (null)";
  if (opt->key == nullptr) return "ZELGetObjectSessionOpt object key is (null)";
  if (opt->session_id == nullptr) return "ZELGetObjectSessionOpt session id is (null)";
  // The id goes into the path as it stands; one that would end the path,
  // start a query or fragment, or read as an escape would address
  // something else.
  for (const char* c = opt->session_id; *c != '\0'; c++) {
    auto byte = static_cast<unsigned char>(*c);
    if (byte <= 0x20 || byte == 0x7f || std::strchr("/?#%", byte) != nullptr)
      return "The session id holds characters a URL path cannot carry as they are";
  }
  return nullptr;
}

const Operation kOperation = [] {
  Operation op;
  object_operation<Opt>(op, kCopy, "/buckets/%s/objects/%s/status/%s");
  OPERATION_NAMES(op, "ZELGetObjectSession");
  op.site = ZSITE;
  op.missing = missing;
  op.args[2] = PATH_TEXT(Opt, session_id);
  op.success[1] = 202;
  op.on_success = deliver_session;
  return op;
}();
}  // namespace

extern "C" ZEL_EXPORT void zel_get_object_session(ZEL* handle, const ZELGetObjectSessionOpt* opt,
                                                  void* user_data) {
  FRAME_START(kOperation, handle, opt, user_data);
}
