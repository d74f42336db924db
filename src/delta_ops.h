#pragma once
// Pieces shared by the patch upload and the patch download.
#include <zel/zel.h>

#include <cstdlib>

// A delta-engine handle for the follow-up job of an operation on `handle`:
// its environment and token functions, API version 1, and its timeout,
// peer verification, speed caps and proxy. nullptr when memory runs out.
KRI* kri_for_handle(const ZEL* handle);

// Frees the texts a job request left in a response or status record.
template <class Resp>
void kri_resp_clear(Resp* resp) {
  std::free(resp->description);
  std::free(resp->document_id);
  resp->description = nullptr;
  resp->document_id = nullptr;
}
