#pragma once
// Internal face of the object records: the copies that queued transfers keep
// of their options, the decorators that carry those copies to the worker
// pool, and the reading of an upload session's Range header value.
#include <zel/zel.h>

#include <cstdint>

// Deep copies; NULL gives NULL. They log which allocation failed and leave
// nothing allocated.
ZELStream* stream_clone(const ZELStream* stream);
ZELByteRange* byte_range_clone(const ZELByteRange* range);
void byte_range_cleanup(ZELByteRange* range);

// Options copies own every text, the range, the stream and the header list
// (the const text fields of a copy point to library allocations). A field
// absent in the source stays absent; callbacks and flags are shared. NULL
// for NULL or when any copy fails (with its log line; the partial copy is
// freed). The cleanups free everything a copy owns and accept NULL.
ZELPutObjectOpt* put_object_opt_clone(const ZELPutObjectOpt* opt);
void put_object_opt_cleanup(ZELPutObjectOpt* opt);
ZELGetObjectOpt* get_object_opt_clone(const ZELGetObjectOpt* opt);
void get_object_opt_cleanup(ZELGetObjectOpt* opt);
ZELGetObjectByURLOpt* get_object_by_url_opt_clone(const ZELGetObjectByURLOpt* opt);
void get_object_by_url_opt_cleanup(ZELGetObjectByURLOpt* opt);

// What a queued transfer owns: copies of the caller's handle and options, so
// the caller may free its own records as soon as the entry point returns.
struct ZELPutObjectDecorator {
  ZEL* handle;           // zel_clone copy; NULL when no handle was given
  ZELPutObjectOpt* opt;  // put_object_opt_clone copy; NULL when none was given
  uint64_t size;         // size of the file to upload
  void* user_data;
};

struct ZELGetObjectDecorator {
  ZEL* handle;
  ZELGetObjectOpt* opt;
  void* user_data;
};

struct ZELGetObjectByURLDecorator {
  ZEL* handle;
  ZELGetObjectByURLOpt* opt;
  void* user_data;
};

// A missing handle or options record gives no copy; a copy that fails gives
// NULL for the whole decorator, with everything made so far freed. The
// cleanups free both copies and the decorator and accept NULL.
ZELPutObjectDecorator* put_object_decorator_init(const ZEL* handle, const ZELPutObjectOpt* opt, uint64_t size,
                                                 void* user_data);
void put_object_decorator_cleanup(ZELPutObjectDecorator* decorator);
ZELGetObjectDecorator* get_object_decorator_init(const ZEL* handle, const ZELGetObjectOpt* opt,
                                                 void* user_data);
void get_object_decorator_cleanup(ZELGetObjectDecorator* decorator);
ZELGetObjectByURLDecorator* get_object_by_url_decorator_init(const ZEL* handle,
                                                             const ZELGetObjectByURLOpt* opt,
                                                             void* user_data);
void get_object_by_url_decorator_cleanup(ZELGetObjectByURLDecorator* decorator);

// Reads a session's Range header value ("bytes=0-99,200-299", anything
// before the "=" ignored) into `out` with zel_byte_ranges_append, so the
// last range of the text ends up at head. Numbers are decimal after optional
// blanks and stop at the first other character (empty text reads as 0).
// 0 on success (nothing after "=" is an empty list); -1 for no value, no
// "=", a piece without "-", or a range that could not be stored. Ranges
// appended before a failing piece stay in `out`.
int byte_ranges_from_header(const char* value, ZELByteRanges* out);
