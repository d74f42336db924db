#include "delta_ops.h"

KRI* kri_for_handle(const ZEL* handle) {
  KRI* kri = kri_init(handle->environment, 1, handle->get_token, handle->free_token);
  if (kri == nullptr) return nullptr;
  kri->timeout_ms = handle->timeout_ms;
  kri->ssl_verify_peer = handle->ssl_verify_peer;
  kri->max_send_speed = handle->max_send_speed;
  kri->max_recv_speed = handle->max_recv_speed;
  kri_set_proxy(kri, handle->proxy, handle->proxy_username, handle->proxy_password);
  return kri;
}
