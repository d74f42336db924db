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
  zel::mtx_t mutex;  // guards message, last_status, done/failed counts, details
  ZEL* handle;
  ZELPutObjectOpt* opt;
  ZELProgress* progress;  // only with a progress_callback
  char* url;
  char* message;       // text of the most recent attempt that recorded one
  char* details;       // body of the service's 200/201 answer, once it came
  uint64_t file_size;  // the total of every Content-Range
  uint32_t chunk_count;
  int32_t range_flag;     // the options carry a range
  uint32_t done_count;    // chunks finished, failed or never queued
  uint32_t failed_count;  // chunks that failed for good or were never queued
  int32_t last_status;    // of the most recent attempt that recorded one; 0 before
  int32_t failed_status;  // of the most recent chunk that failed for good
  const char* fatal;      // why queuing stopped, when it did
  void* user_data;
};

struct ZELChunkUploadDecorator {
  ZELUploadDecorator* upload;
  ZELByteRange* range;  // owned
};

// Worker task queued by zel_put_object; frees the decorator on every path.
void put_object_task(void* decorator);
// Release of a put_object_task that never ran.
void put_object_task_drop(void* decorator);
// One request for the whole range, no retry; frees the upload record.
int upload_single(ZELUploadDecorator* upload);
// Queued once per chunk; the task that finishes the last chunk reports and
// frees the upload record.
void upload_chunk_task(void* chunk);
// One PUT of range->start .. range->end. Its status is the HTTP status,
// libcurl's code after a failed transfer, or -1 when no request was made.
AttemptOutcome upload_request(ZELUploadDecorator* upload, const ZELByteRange* range, uint32_t attempt,
                              const char* url);
// 32 lowercase hex digits (each pair a printable character code from 21 to
// 7e), mem_free'd by the caller; nullptr when memory runs out.
char* generate_session_id();
