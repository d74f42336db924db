#pragma once
// The download engine: learns the object's size, then fetches it in one
// ranged GET or in chunks that run in parallel on the worker pool, each
// written straight into its own place in the output file.
#include <zel/zel.h>

#include <cstdint>

#include "object.h"
#include "progress.h"
#include "thread.h"
#include "transfer.h"

// The shared record of one download; owns its handle and options copies.
struct ZELDownloadDecorator {
  zel::mtx_t mutex;  // guards message and last_status
  ZEL* handle;
  ZELGetObjectOpt* opt;  // by URL: made from the URL options, without callback
  // By URL the status callback has the URL options' type; by key it is
  // opt->callback. Exactly one of the two is used.
  void (*url_callback)(const ZELGetObjectByURLResp* resp, void* user_data);
  ZELProgress* progress;  // only with a progress_callback; total = size
  char* url;
  const char* message;  // fixed or system text of the last chunk that failed
  uint64_t size;        // bytes to fetch; 0 when unknown
  int32_t range_flag;
  int32_t size_unknown;
  int32_t last_status;  // 0 until a chunk fails for good, then its status
  // By key, when the size query learnt it: the object's SHA-1, checked
  // against the object's details again once every chunk has arrived.
  char* sha1;
  char* details_url;
  long details_url_length;
  void* user_data;
  bool authenticate;
  // The output is the library's own file (the stream's functions are the
  // defaults): requests write it through a ChunkWriter.
  bool own_file;
};

// Worker tasks queued by zel_get_object and zel_get_object_by_url; each
// frees its decorator on every path. The _drop variants release a task
// that never ran.
void get_object_task(void* decorator);
void get_object_by_url_task(void* decorator);
void get_object_task_drop(void* decorator);
void get_object_by_url_task_drop(void* decorator);

// The object's size; *found is 1 when it was learnt. Failures are reported
// through the options' callback as they happen.
// By key the object's SHA-1 comes along (*sha1, mem_free; none when the
// service gave none).
uint64_t query_object_size(const ZELGetObjectDecorator* decorator, int* found, char** sha1);
uint64_t query_object_size_by_url(const ZELGetObjectByURLDecorator* decorator, int* found);

// One request, no retry; frees the download record.
int download_single(ZELDownloadDecorator* download);
// Every attempt of one chunk into the output file; true when it arrived,
// otherwise *status is why not.
bool download_chunk(void* download, const ZELByteRange* range, int32_t* status);
// One GET of `range` into the output file; on failure the error status and
// message (static texts) are set.
AttemptOutcome download_request(ZELDownloadDecorator* download, const ZELByteRange* range, uint32_t attempt,
                                int32_t* error_status, const char** error_message);

// What the details of an object say about its bytes.
struct ObjectFacts {
  uint64_t size;
  char* sha1;  // mem_free; none when the service gave none
};
// The object's details through the details URL, with retries. 0, or -1
// with the code and message (mem_free) of the last attempt's failure.
int object_facts_query(const ZEL* handle, const char* url, long url_length, const ZELHeaders* headers,
                       ObjectFacts* facts, int32_t* code, char** message);

// Reports through whichever status callback the download has.
void download_report(const ZELDownloadDecorator* download, int32_t code, const char* message);
void download_free(ZELDownloadDecorator* download);

// A ZELGetObjectOpt made from URL options: copies of range, stream and
// headers; size_unknown and the callbacks of matching type shared. NULL
// (logged) when a copy fails.
ZELGetObjectOpt* get_object_opt_from_url(const ZELGetObjectByURLOpt* opt);
// The UTF-8 form of a download URL (escaped, then unescaped), freed with
// http_text_free; NULL when it cannot be made.
char* download_url_utf8(const char16_t* download_url);
