#pragma once
// The upload engine: one PUT for a small file, or a resumable session whose
// chunks go up in parallel on the worker pool, each retried on its own.
#include <zel/zel.h>

#include <cstdint>

#include "object.h"
#include "progress.h"
#include "thread.h"
#include "transfer.h"

// The shared record of one upload. Its handle and options copies are owned.
struct ZELUploadDecorator {
  zel::mtx_t mutex;  // guards message, last_status and details
  ZEL* handle;
  ZELPutObjectOpt* opt;
  ZELProgress* progress;  // only with a progress_callback
  char* url;
  char* message;        // text of the most recent attempt that recorded one
  char* details;        // body of the service's 200/201 answer, once it came
  uint64_t file_size;   // the total of every Content-Range
  int32_t range_flag;   // the options carry a range
  int32_t last_status;  // of the most recent attempt that recorded one; 0 before
  void* user_data;
};

// Worker task queued by zel_put_object; frees the decorator on every path.
void put_object_task(void* decorator);
// Release of a put_object_task that never ran.
void put_object_task_drop(void* decorator);
// One request for the whole range, no retry; frees the upload record.
int upload_single(ZELUploadDecorator* upload);
// Every attempt of one chunk of a session, with the chunk callbacks; true
// when it went up, otherwise *status is why not.
bool upload_chunk(void* upload, const ZELByteRange* range, int32_t* status);
// One PUT of range->start .. range->end. Its status is the HTTP status,
// libcurl's code after a failed transfer, or -1 when no request was made.
AttemptOutcome upload_request(ZELUploadDecorator* upload, const ZELByteRange* range, uint32_t attempt,
                              const char* url);
// 32 lowercase hex digits (each pair a printable character code from 21 to
// 7e), mem_free'd by the caller; nullptr when memory runs out.
char* generate_session_id();
