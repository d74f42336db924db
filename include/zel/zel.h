/*
 * zel: client library for the zel object-storage service.
 *
 * Conventions of this interface:
 *  1. Ownership. Every record type has an `_init` that allocates it (zeroed or
 *     with defaults) and a `_cleanup` that frees it together with everything
 *     it owns; every `_cleanup` accepts NULL. Records you build (options,
 *     header lists, permission lists, streams) stay yours: operations copy
 *     what they need before they return, so you may free or change your
 *     records as soon as the call has returned.
 *  2. Lists (header lists, permission lists, byte ranges, listing pages) grow
 *     at the front: the entry appended last is the first one you see.
 *  3. Wide texts (bucket keys, object keys, file names, download URLs) are
 *     UTF-16 `char16_t` strings on every platform; C code writes u"...".
 *     Every other text is UTF-8.
 *  4. Storage operations return nothing and report through callbacks in their
 *     options record. Callbacks run on library threads, possibly several at
 *     once; only failures found before an operation is handed off (copying,
 *     starting a thread, queueing) are reported on the calling thread before
 *     the call returns. Every callback is optional.
 *  5. Records handed to callbacks (status records, details, permission lists,
 *     listing pages, sessions) live only during the call; copy what you keep.
 *  6. Call zel_global_init() once before any operation and
 *     zel_global_cleanup() once at the end, from one thread, while no
 *     operation runs. Operations still queued at cleanup never report.
 *  7. No function of this interface throws or lets an exception out.
 */
#ifndef ZEL_ZEL_H
#define ZEL_ZEL_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#ifndef __cplusplus
#include <uchar.h>
#endif

#if defined(_WIN32)
#if defined(ZEL_BUILDING_LIBRARY)
#define ZEL_EXPORT __declspec(dllexport)
#else
#define ZEL_EXPORT
#endif
#else
#define ZEL_EXPORT __attribute__((visibility("default")))
#endif

#if defined(__GNUC__)
#define ZEL_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define ZEL_PRINTF(fmt, args)
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Service handle                                                            */
/* ------------------------------------------------------------------------ */

/* Deployments a handle can address. Any other value means the local test
 * endpoint, exactly like ZEL_ENV_LOCAL. */
#define ZEL_ENV_LOCAL 0u
#define ZEL_ENV_DEVELOPMENT 1u
#define ZEL_ENV_STAGING 2u
#define ZEL_ENV_PRODUCTION 3u

/* Size of the buffer that zel_api_url and its siblings write into. */
#define ZEL_URL_SIZE 4096

/* Returns the bearer token for one request (UTF-8), or NULL for none. Called
 * on library threads, possibly several at once. */
typedef char* (*ZELGetTokenFn)(void);
/* Takes back a token returned by the ZELGetTokenFn once the Authorization
 * header has been built. */
typedef void (*ZELFreeTokenFn)(char* token);

typedef struct ZEL {
  uint32_t environment;        /* ZEL_ENV_* */
  uint32_t api_version;        /* 1 or 2 */
  uint32_t http_pool_size;     /* default 8; applied by every transfer call */
  uint32_t thread_pool_size;   /* default 8; applied by every transfer call */
  uint64_t chunk_size;         /* default 5 MiB */
  uint32_t max_retries;        /* default 5: a chunk is tried at most 6 times */
  uint32_t auto_create_bucket; /* non-zero: uploads create missing buckets */
  uint32_t timeout_ms;         /* default 30 minutes, per HTTP transfer */
  uint32_t low_speed_limit;    /* bytes/s; 0 disables the check */
  uint32_t low_speed_time;     /* seconds below low_speed_limit */
  uint32_t ssl_verify_peer;    /* default 1 */
  int64_t max_send_speed;      /* bytes/s; 0: no cap */
  int64_t max_recv_speed;      /* bytes/s; 0: no cap */
  char* proxy;                 /* owned; set with zel_set_proxy* */
  char* proxy_username;        /* owned */
  char* proxy_password;        /* owned */
  ZELGetTokenFn get_token;
  ZELFreeTokenFn free_token;
} ZEL;

/* New handle with defaults, or NULL when memory runs out. Free it with
 * zel_cleanup. A handle without get_token is refused by the operations. */
ZEL_EXPORT ZEL* zel_init(uint32_t environment, uint32_t api_version, ZELGetTokenFn get_token,
                         ZELFreeTokenFn free_token);
/* Deep copy (proxy texts duplicated; token functions shared), or NULL. */
ZEL_EXPORT ZEL* zel_clone(const ZEL* handle);
ZEL_EXPORT void zel_cleanup(ZEL* handle);
/* Replaces the proxy (NULL clears it) and clears the proxy credentials. */
ZEL_EXPORT void zel_set_proxy(ZEL* handle, const char* proxy);
ZEL_EXPORT void zel_set_proxy_with_credentials(ZEL* handle, const char* proxy, const char* username,
                                               const char* password);
ZEL_EXPORT void zel_set_low_speed_limit(ZEL* handle, uint32_t limit, uint32_t time);

/* Write base URL + formatted path into `buffer`, which must hold
 * ZEL_URL_SIZE bytes. The text is cut to fit and always terminated; the
 * result is the length the whole URL would have had, -1 without a handle. */
ZEL_EXPORT int zel_api_url(const ZEL* handle, char* buffer, const char* format, ...) ZEL_PRINTF(3, 4);
ZEL_EXPORT int zel_upload_url(const ZEL* handle, char* buffer, const char* format, ...) ZEL_PRINTF(3, 4);
ZEL_EXPORT int zel_download_url(const ZEL* handle, char* buffer, const char* format, ...) ZEL_PRINTF(3, 4);
/* The same with an explicit buffer size. */
ZEL_EXPORT int zel_api_url_bounded(const ZEL* handle, char* buffer, size_t size, const char* format, ...)
    ZEL_PRINTF(4, 5);
ZEL_EXPORT int zel_upload_url_bounded(const ZEL* handle, char* buffer, size_t size, const char* format, ...)
    ZEL_PRINTF(4, 5);
ZEL_EXPORT int zel_download_url_bounded(const ZEL* handle, char* buffer, size_t size, const char* format, ...)
    ZEL_PRINTF(4, 5);

/* Points one environment of the storage service at another base URL,
 * "scheme://host[:port]" without a path; NULL restores the built-in one.
 * Process-wide; takes effect for URLs built afterwards. Returns 0, or -1 for
 * a malformed value (the setting is then unchanged). */
ZEL_EXPORT int zel_set_environment_url(uint32_t environment, const char* base_url);

/* ------------------------------------------------------------------------ */
/* Logging                                                                   */
/* ------------------------------------------------------------------------ */

/* Receives one finished log line (with its line feed). May be called from
 * several threads at once. */
typedef void (*ZELLogSink)(const char* line);
/* Installs the sink; NULL sends lines to standard error again. */
ZEL_EXPORT void zel_logger_init(ZELLogSink sink);
/* Formats one line "<time> <tag>:<line>: <message>" (prefix first when
 * given), at most 1023 characters. No output when tag or format is NULL. */
ZEL_EXPORT void zel_log(const char* prefix, const char* tag, int32_t line, const char* format, ...)
    ZEL_PRINTF(4, 5);

/* ------------------------------------------------------------------------ */
/* Header lists                                                              */
/* ------------------------------------------------------------------------ */

typedef struct ZELHeaders {
  char* line; /* "name:value", at most 102400 characters */
  struct ZELHeaders* next;
} ZELHeaders;

/* Puts "name:value" in front of the list and returns the new first node, or
 * the unchanged list when memory runs out. */
ZEL_EXPORT ZELHeaders* zel_headers_append(ZELHeaders* list, const char* name, const char* value);
ZEL_EXPORT void zel_headers_cleanup(ZELHeaders* list);
/* Copy in reverse order (order carries no meaning for the service). */
ZEL_EXPORT ZELHeaders* zel_headers_clone(const ZELHeaders* list);
/* Value of the first line whose first strlen(name) bytes equal name (case
 * matters) and that has a non-empty value; points into the list. */
ZEL_EXPORT const char* zel_headers_find(const ZELHeaders* list, const char* name);

/* ------------------------------------------------------------------------ */
/* Process-wide start-up                                                     */
/* ------------------------------------------------------------------------ */

/* 0 on success, -1 on failure (nothing is left initialised then). The
 * caller's thread is left as it was (its locale included); the library's
 * own threads run in the "C" locale. */
ZEL_EXPORT int zel_global_init(void);
/* Stops every exchange in flight (an operation stopped so reports once,
 * with code 42) and every retry waiting for its next attempt, waits for
 * running operations and transfer workers, then removes the pools and
 * caches. */
ZEL_EXPORT void zel_global_cleanup(void);

/* ------------------------------------------------------------------------ */
/* Bucket records                                                            */
/* ------------------------------------------------------------------------ */

typedef uint32_t ZELBucketPolicy;
#define ZEL_BUCKET_POLICY_TRANSIENT 0u
#define ZEL_BUCKET_POLICY_TEMPORARY 1u
#define ZEL_BUCKET_POLICY_PERSISTENT 2u
#define ZEL_BUCKET_POLICY_UNDEFINED 255u

typedef uint32_t ZELBucketAccess;
#define ZEL_BUCKET_ACCESS_READ 0u
#define ZEL_BUCKET_ACCESS_FULL 1u
#define ZEL_BUCKET_ACCESS_UNDEFINED 255u

typedef struct ZELBucketPermissionItem {
  char* auth_id; /* owned; may be NULL */
  uint32_t access;
  struct ZELBucketPermissionItem* next;
} ZELBucketPermissionItem;

typedef struct ZELBucketPermissions {
  ZELBucketPermissionItem* head;
  uint32_t count;
} ZELBucketPermissions;

typedef struct ZELBucketDetails {
  char16_t* bucket_key;
  char* bucket_owner;
  uint32_t policy;
  ZELBucketPermissions* permissions; /* always present */
  int64_t created_date;              /* as the service sends it */
} ZELBucketDetails;

typedef struct ZELListBucketItem {
  char16_t* bucket_key;
  int64_t created_date;
  char* policy_key; /* the policy name as sent */
  struct ZELListBucketItem* next;
} ZELListBucketItem;

/* One page of a bucket listing; head is the last bucket the service listed. */
typedef struct ZELListBucketsDetails {
  ZELListBucketItem* head;
  char16_t* next_page; /* empty on the last page */
  uint32_t count;
} ZELListBucketsDetails;

ZEL_EXPORT ZELBucketDetails* zel_bucket_details_init(void);
ZEL_EXPORT void zel_bucket_details_cleanup(ZELBucketDetails* details);
ZEL_EXPORT ZELBucketPermissions* zel_permissions_init(void);
/* Adds {auth_id copy, access} in front; returns the list, NULL for no list. */
ZEL_EXPORT ZELBucketPermissions* zel_permissions_append(ZELBucketPermissions* list, const char* auth_id,
                                                        uint32_t access);
ZEL_EXPORT void zel_permissions_cleanup(ZELBucketPermissions* list);
/* Constant names; "undefined" for any value outside the enumeration. */
ZEL_EXPORT const char* zel_bucket_policy_tostr(uint32_t policy);
ZEL_EXPORT const char* zel_bucket_access_tostr(uint32_t access);

/* ------------------------------------------------------------------------ */
/* Bucket operations. Each call copies the handle and the options (the     */
/* caller may free both as soon as it returns) and runs on its own detached  */
/* library thread, where its callbacks run. Exactly one report per call:     */
/* the success callback, or `callback` with the HTTP status (or libcurl's    */
/* code, or 0 for a failure before any exchange) and a message. A thread     */
/* that cannot be started is reported on the calling thread with the thread  */
/* layer's result as code. Missing options are only logged.                  */
/* ------------------------------------------------------------------------ */

typedef struct ZELCreateBucketResp {
  int32_t code; /* HTTP status, libcurl code, thread result or 0 */
  const char* message;
} ZELCreateBucketResp;

typedef struct ZELCreateBucketOpt {
  const char16_t* key;
  uint32_t policy;                   /* ZEL_BUCKET_POLICY_* */
  ZELBucketPermissions* permissions; /* optional; sent in the order appended */
  ZELHeaders* headers;               /* optional extra header lines */
  void (*callback)(const ZELCreateBucketResp* resp, void* user_data);
  void (*details_callback)(const ZELBucketDetails* details, void* user_data);
} ZELCreateBucketOpt;

/* POST /buckets. details_callback receives the new bucket (freed when it
 * returns); 409 (exists) reaches callback with the service's body. */
ZEL_EXPORT void zel_create_bucket(ZEL* handle, const ZELCreateBucketOpt* opt, void* user_data);

typedef struct ZELGetBucketDetailsResp {
  int32_t code;
  const char* message;
} ZELGetBucketDetailsResp;

typedef struct ZELGetBucketDetailsOpt {
  const char16_t* key;
  ZELHeaders* headers;
  void (*callback)(const ZELGetBucketDetailsResp* resp, void* user_data);
  void (*details_callback)(const ZELBucketDetails* details, void* user_data);
} ZELGetBucketDetailsOpt;

/* details_callback receives the bucket's details, freed when it returns. */
ZEL_EXPORT void zel_get_bucket_details(ZEL* handle, const ZELGetBucketDetailsOpt* opt, void* user_data);

typedef struct ZELListBucketsResp {
  int32_t code;
  const char* message;
} ZELListBucketsResp;

typedef struct ZELListBucketsOpt {
  const char16_t* region;   /* optional */
  uint32_t limit;           /* page size; 0 means 10 */
  const char16_t* start_at; /* optional: next_page of the previous page */
  ZELHeaders* headers;
  void (*callback)(const ZELListBucketsResp* resp, void* user_data);
  /* The page is freed by the library when this callback returns. */
  void (*list_callback)(const ZELListBucketsDetails* page, void* user_data);
} ZELListBucketsOpt;

/* One page per call; start the next call at the page's next_page until it
 * is empty. API version 2 only: version 1 reports (200, "Cannot unmarshall
 * json response"). */
ZEL_EXPORT void zel_list_buckets(ZEL* handle, const ZELListBucketsOpt* opt, void* user_data);

typedef struct ZELGrantBucketAccessResp {
  int32_t code;
  const char* message;
} ZELGrantBucketAccessResp;

typedef struct ZELGrantBucketAccessOpt {
  const char16_t* key;
  ZELBucketPermissions* permissions;
  ZELHeaders* headers;
  void (*callback)(const ZELGrantBucketAccessResp* resp, void* user_data);
  /* The bucket's whole permission list after the grant. */
  void (*permissions_callback)(const ZELBucketPermissions* permissions, void* user_data);
} ZELGrantBucketAccessOpt;

/* permissions_callback receives the bucket's permission list after the
 * grant (freed when it returns). */
ZEL_EXPORT void zel_grant_bucket_access(ZEL* handle, const ZELGrantBucketAccessOpt* opt, void* user_data);

typedef struct ZELRevokeBucketAccessResp {
  int32_t code;
  const char* message;
} ZELRevokeBucketAccessResp;

typedef struct ZELRevokeBucketAccessOpt {
  const char16_t* key;
  ZELBucketPermissions* permissions; /* access levels are ignored */
  ZELHeaders* headers;
  void (*callback)(const ZELRevokeBucketAccessResp* resp, void* user_data);
  void (*done_callback)(void* user_data);
} ZELRevokeBucketAccessOpt;

/* done_callback once the service accepted the revocation. */
ZEL_EXPORT void zel_revoke_bucket_access(ZEL* handle, const ZELRevokeBucketAccessOpt* opt, void* user_data);

/* ------------------------------------------------------------------------ */
/* Object records                                                            */
/* ------------------------------------------------------------------------ */

/* Access functions for the file a transfer reads or writes. The library
 * opens and closes the file itself by `filename` and hands the open file to
 * these functions; replace them to observe or transform the bytes. */
typedef int (*ZELStreamSeekFn)(FILE* file, int64_t offset, int origin);
typedef size_t (*ZELStreamReadFn)(void* buffer, size_t size, size_t count, FILE* file);
typedef size_t (*ZELStreamWriteFn)(const void* buffer, size_t size, size_t count, FILE* file);

typedef struct ZELStream {
  char16_t* filename; /* owned */
  ZELStreamSeekFn seek;
  ZELStreamReadFn read;
  ZELStreamWriteFn write;
} ZELStream;

/* Inclusive byte range: 0-9 is ten bytes. */
typedef struct ZELByteRange {
  uint64_t start;
  uint64_t end;
} ZELByteRange;

typedef struct ZELByteRangeItem {
  uint64_t start;
  uint64_t end;
  struct ZELByteRangeItem* next;
} ZELByteRangeItem;

typedef struct ZELByteRanges {
  ZELByteRangeItem* head;
  uint64_t count;
} ZELByteRanges;

typedef struct ZELObjectDetails {
  char16_t* bucket_key;
  char* object_id;
  char16_t* object_key;
  char* sha1;
  uint64_t size;
  char* content_type;
  char* location;
  int64_t created_date;
  int64_t last_accessed_date;
  int64_t last_modified_date;
} ZELObjectDetails;

/* State of a resumable upload: the ranges the service holds. */
typedef struct ZELObjectSession {
  char16_t* bucket_key;
  char16_t* key;
  char* session_id;
  ZELByteRanges* ranges;
} ZELObjectSession;

/* New stream for `filename` with the standard file functions, or NULL. */
ZEL_EXPORT ZELStream* zel_stream_init(const char16_t* filename);
ZEL_EXPORT void zel_stream_cleanup(ZELStream* stream);
ZEL_EXPORT ZELByteRanges* zel_byte_ranges_init(void);
ZEL_EXPORT ZELByteRanges* zel_byte_ranges_append(ZELByteRanges* list, uint64_t start, uint64_t end);
ZEL_EXPORT void zel_byte_ranges_cleanup(ZELByteRanges* list);
ZEL_EXPORT ZELObjectDetails* zel_object_details_init(void);
ZEL_EXPORT void zel_object_details_cleanup(ZELObjectDetails* details);
ZEL_EXPORT ZELObjectSession* zel_object_session_init(void);
ZEL_EXPORT void zel_object_session_cleanup(ZELObjectSession* session);

/* ------------------------------------------------------------------------ */
/* Transfers. Each call copies the handle and the options (free yours as    */
/* soon as it returns), sets the process-wide pools to the handle's sizes    */
/* and queues the transfer on the library's worker pool: uploads behind      */
/* waiting work, downloads ahead of it. Callbacks run on worker threads;     */
/* failures found before queueing (unreadable file, no memory, refused       */
/* queueing) are reported on the calling thread. A missing handle, token     */
/* function or options record is only logged.                                */
/* ------------------------------------------------------------------------ */

/* Progress: bytes so far and total. Return non-zero to cancel the transfer
 * (it then fails with code 42). Calls may overlap and arrive out of order. */
typedef int32_t (*ZELProgressFn)(uint64_t transferred, uint64_t total, void* user_data);
/* Per request: total, name look-up and connect time (s), speed (bytes/s) and
 * size (bytes) of the upload or download. */
typedef void (*ZELStatsFn)(double total_time, double namelookup_time, double connect_time, double speed,
                           double size, void* user_data);

typedef struct ZELPutObjectResp {
  int32_t code;
  const char* message;
} ZELPutObjectResp;

typedef struct ZELPutObjectOpt ZELPutObjectOpt;
struct ZELPutObjectOpt {
  const char16_t* bucket_key;
  const char16_t* key;
  const char* session_id;   /* optional; generated when absent */
  ZELByteRange* range;      /* optional: upload only these bytes */
  const char* content_type; /* optional; application/octet-stream */
  ZELStream* stream;        /* the file to upload */
  ZELHeaders* headers;      /* optional; sent with every request */
  void (*callback)(const ZELPutObjectResp* resp, void* user_data);
  /* The chunk's options (range = the chunk) live only during the call. */
  void (*chunk_failed_callback)(const ZELPutObjectResp* resp, const ZELPutObjectOpt* chunk, void* user_data);
  /* details is NULL when a ranged or resumed upload ends without the
   * service's final answer. Freed when the callback returns. */
  void (*details_callback)(const ZELObjectDetails* details, void* user_data);
  void (*chunk_done_callback)(const ZELPutObjectOpt* chunk, void* user_data);
  ZELProgressFn progress_callback;
  ZELStatsFn stats_callback;
};

/* Files up to chunk_size go up in one PUT, larger ones (and any range) in
 * parallel chunks of one resumable session, each retried up to max_retries
 * times after transport failures and 5xx answers, with exponential backoff
 * and jitter (100 ms doubling to 5 s) between attempts. The upload ends
 * with details_callback or callback; the chunk callbacks report each chunk
 * of a chunked or ranged upload. A key whose URL would not fit, or a
 * content type, session id, header line or token holding CR or LF, is
 * refused with code 0 before anything is sent. */
ZEL_EXPORT void zel_put_object(ZEL* handle, const ZELPutObjectOpt* opt, void* user_data);

typedef struct ZELGetObjectResp {
  int32_t code;
  const char* message;
} ZELGetObjectResp;

typedef struct ZELGetObjectOpt {
  const char16_t* bucket_key;
  const char16_t* key;
  ZELByteRange* range;  /* optional; written from offset 0 of the file */
  ZELStream* stream;    /* the output file, created or emptied */
  ZELHeaders* headers;  /* optional */
  int32_t size_unknown; /* non-zero: one request, no size query */
  void (*callback)(const ZELGetObjectResp* resp, void* user_data);
  void (*done_callback)(void* user_data);
  ZELProgressFn progress_callback;
  ZELStatsFn stats_callback;
} ZELGetObjectOpt;

/* Learns the size (and SHA-1), then fetches the object in parallel ranged
 * chunks written at their offsets, each retried as for uploads. Ends with
 * done_callback only when every chunk delivered exactly its range and the
 * object's details are still the ones learnt at the start; a download that
 * spanned an overwrite ends with callback (0, "The downloaded bytes do not
 * match the object's SHA-1"). On failure the file holds no more than the
 * bytes that arrived. When the size cannot be learnt, callback comes
 * twice: first with the size query's own failure (when it had one), then
 * with (0, "Cannot get object size"). */
ZEL_EXPORT void zel_get_object(ZEL* handle, const ZELGetObjectOpt* opt, void* user_data);

typedef struct ZELGetObjectByURLResp {
  int32_t code;
  const char* message;
} ZELGetObjectByURLResp;

typedef struct ZELGetObjectByURLOpt {
  const char16_t* download_url;
  bool authenticate; /* send the handle's bearer token */
  ZELByteRange* range;
  ZELStream* stream;
  ZELHeaders* headers;
  int32_t size_unknown;
  void (*callback)(const ZELGetObjectByURLResp* resp, void* user_data);
  void (*done_callback)(void* user_data);
  ZELProgressFn progress_callback;
  ZELStatsFn stats_callback;
} ZELGetObjectByURLOpt;

/* As zel_get_object for any complete URL; the bearer token is sent only
 * with `authenticate`. */
ZEL_EXPORT void zel_get_object_by_url(ZEL* handle, const ZELGetObjectByURLOpt* opt, void* user_data);

/* ------------------------------------------------------------------------ */
/* Single-request object operations: the same rules as the bucket           */
/* operations (copies, one detached thread per call, one report), except     */
/* that a missing handle or token function is only logged and a thread that */
/* cannot be started is reported with code 0. Records handed to success      */
/* callbacks are freed when they return.                                     */
/* ------------------------------------------------------------------------ */

typedef struct ZELDeleteObjectResp {
  int32_t code;
  const char* message;
} ZELDeleteObjectResp;

typedef struct ZELDeleteObjectOpt {
  const char16_t* bucket_key;
  const char16_t* key;
  ZELHeaders* headers;
  void (*callback)(const ZELDeleteObjectResp* resp, void* user_data);
  void (*done_callback)(void* user_data);
} ZELDeleteObjectOpt;

ZEL_EXPORT void zel_delete_object(ZEL* handle, const ZELDeleteObjectOpt* opt, void* user_data);

typedef struct ZELUndeleteObjectResp {
  int32_t code;
  const char* message;
} ZELUndeleteObjectResp;

typedef struct ZELUndeleteObjectOpt {
  const char16_t* bucket_key;
  const char16_t* key;
  ZELHeaders* headers;
  void (*callback)(const ZELUndeleteObjectResp* resp, void* user_data);
  void (*done_callback)(void* user_data);
} ZELUndeleteObjectOpt;

ZEL_EXPORT void zel_undelete_object(ZEL* handle, const ZELUndeleteObjectOpt* opt, void* user_data);

typedef struct ZELResetExpirationResp {
  int32_t code;
  const char* message;
} ZELResetExpirationResp;

typedef struct ZELResetExpirationOpt {
  const char16_t* bucket_key;
  const char16_t* key;
  ZELHeaders* headers;
  void (*callback)(const ZELResetExpirationResp* resp, void* user_data);
  void (*details_callback)(const ZELObjectDetails* details, void* user_data);
} ZELResetExpirationOpt;

ZEL_EXPORT void zel_reset_object_expiration(ZEL* handle, const ZELResetExpirationOpt* opt, void* user_data);

typedef struct ZELGetObjectDetailsResp {
  int32_t code;
  const char* message;
} ZELGetObjectDetailsResp;

typedef struct ZELGetObjectDetailsOpt {
  const char16_t* bucket_key;
  const char16_t* key;
  ZELHeaders* headers;
  void (*callback)(const ZELGetObjectDetailsResp* resp, void* user_data);
  void (*details_callback)(const ZELObjectDetails* details, void* user_data);
} ZELGetObjectDetailsOpt;

ZEL_EXPORT void zel_get_object_details(ZEL* handle, const ZELGetObjectDetailsOpt* opt, void* user_data);

typedef struct ZELGetObjectSessionResp {
  int32_t code;
  const char* message;
} ZELGetObjectSessionResp;

typedef struct ZELGetObjectSessionOpt {
  const char16_t* bucket_key;
  const char16_t* key;
  const char* session_id;
  ZELHeaders* headers;
  void (*callback)(const ZELGetObjectSessionResp* resp, void* user_data);
  void (*session_callback)(const ZELObjectSession* session, void* user_data);
} ZELGetObjectSessionOpt;

/* The byte ranges the service holds for an upload session (session_id is
 * sent as it stands); resume by uploading the missing ranges with the same
 * session_id. */
ZEL_EXPORT void zel_get_object_session(ZEL* handle, const ZELGetObjectSessionOpt* opt, void* user_data);

typedef struct ZELCopyObjectResp {
  int32_t code;
  const char* message;
} ZELCopyObjectResp;

typedef struct ZELCopyObjectOpt {
  const char16_t* bucket_key;
  const char16_t* source_key;
  const char16_t* destination_key;
  void (*callback)(const ZELCopyObjectResp* resp, void* user_data);
  void (*details_callback)(const ZELObjectDetails* details, void* user_data);
  ZELHeaders* headers;
} ZELCopyObjectOpt;

/* Copies source_key to destination_key inside the bucket, on the service. */
ZEL_EXPORT void zel_copy_object(ZEL* handle, const ZELCopyObjectOpt* opt, void* user_data);

/* ------------------------------------------------------------------------ */
/* Delta synchronisation: keep a local file and a stored object in step by   */
/* exchanging signatures and patches instead of whole files. The local work  */
/* (signatures, matching, patches, applying them) is done by the delta       */
/* library. Each call copies the handle and the options and reports exactly  */
/* once through its callbacks, on a worker thread: a failure through         */
/* `callback`, success through the operation's own callback. A missing       */
/* handle, token function or options record is only logged. The delta        */
/* operations' own failures carry negative codes (see each operation).       */
/* ------------------------------------------------------------------------ */

typedef struct ZELMatchObjectResp {
  int32_t code; /* 0, or the signature download's own code */
  const char* message;
} ZELMatchObjectResp;

typedef struct ZELMatchObjectOpt {
  const char16_t* bucket_key;
  const char16_t* orig_key; /* the stored object whose signature is fetched */
  const char16_t* sig_path; /* where the signature is written; removed at the end */
  const char16_t* dest;     /* the local file compared with the stored object */
  const char16_t* temp_dir; /* for the delta library's temporary files */
  double ratio;             /* largest share of difference that still matches, 0.0 to 1.0 */
  ZELHeaders* headers;      /* optional extra header lines */
  void (*callback)(const ZELMatchObjectResp* resp, void* user_data);
  /* The comparison ran: result 0 means "differs by more than ratio", a
   * positive value "within ratio". */
  void (*match_callback)(int32_t result, void* user_data);
} ZELMatchObjectOpt;

/* Downloads the signature of `orig_key` and asks the delta library whether
 * the local file `dest` is within `ratio` of it. */
ZEL_EXPORT void zel_match_object(ZEL* handle, const ZELMatchObjectOpt* opt, void* user_data);

/* Outcome codes of zel_put_patch besides 0 (bad options, no memory, a local
 * thread that cannot start) and the upload's own codes. */
#define ZEL_PATCH_TOO_DIFFERENT (-101)
#define ZEL_PATCH_CREATE_FAILED (-102)
#define ZEL_PATCH_APPLY_FAILED (-103)
#define ZEL_PATCH_REMOVE_FAILED (-104)
#define ZEL_PATCH_NO_SHA1 (-201)
#define ZEL_PATCH_SHA1_FAILED (-202)
#define ZEL_PATCH_EMPTY_RESPONSES (-301)
#define ZEL_PATCH_ABORTED (-302)
/* Outcome codes of zel_get_patch besides 0 and the two above it shares
 * (-101 patch too large for `ratio`, -103 patch could not be applied). */
#define ZEL_PATCH_NO_DETAILS (-203)
#define ZEL_PATCH_DOWNLOAD_FAILED (-401)
#define ZEL_PATCH_NOT_FOUND (-404)

typedef struct ZELPutPatchResp {
  int32_t code; /* ZEL_PATCH_*, 0, the upload's code or the apply job's code */
  const char* message;
} ZELPutPatchResp;

/* Returns non-zero to abort a patch upload (during the upload and between
 * polls of the apply job). */
typedef int32_t (*ZELAbortFn)(void* user_data);

typedef struct ZELPutPatchOpt {
  ZELStream* origin_stream;       /* the origin file (equal to origin_key); only its filename is used */
  ZELStream* derv_stream;         /* the new file; its functions serve the patch upload */
  const char16_t* signature_path; /* where the origin's signature is written; removed again */
  const char16_t* patch_path;     /* where the patch is written; removed again */
  const char16_t* bucket_key;
  const char16_t* origin_key; /* the stored object the origin file equals */
  const char16_t* derv_key;   /* receives the patch and becomes the new version */
  const char16_t* temp_dir;
  int32_t process_type; /* passed through to the delta library and the service */
  double ratio;         /* largest share of difference for which a patch is made */
  ZELHeaders* headers;  /* optional; also holds the x-pmw-acm-* values of the apply job */
  void (*callback)(const ZELPutPatchResp* resp, void* user_data);
  /* The new object once the service applied the patch; freed on return. */
  void (*details_callback)(const ZELObjectDetails* details, void* user_data);
  ZELAbortFn abort_callback;
} ZELPutPatchOpt;

/* Stores derv_stream as the new content of derv_key by uploading only a
 * patch against origin_key. Blocks the caller while the signature, the match
 * decision, the patch and the new file's SHA-1 are computed locally; then
 * uploads the patch on the worker pool and has the delta engine apply it,
 * polling its job. Failures before the upload are reported on the calling
 * thread. */
ZEL_EXPORT void zel_put_patch(ZEL* handle, const ZELPutPatchOpt* opt, void* user_data);

typedef struct ZELGetPatchResp {
  int32_t code; /* 0 or ZEL_PATCH_* */
  const char* message;
} ZELGetPatchResp;

typedef struct ZELGetPatchOpt {
  const char16_t* bucket_key;
  const char16_t* orig_key; /* the stored object the local file `orig` equals */
  const char16_t* dest_key; /* the stored object whose content is wanted */
  const char16_t* orig;     /* local base file */
  const char16_t* patch;    /* where the patch is downloaded; removed at the end */
  const char16_t* dest;     /* result file, written by the delta library */
  const char16_t* temp_dir;
  int32_t apply_mode;  /* handed to the delta library unchanged */
  int32_t preprocess;  /* 0 or more; the service's process type */
  double ratio;        /* patches of this share of dest_key's size or more are refused */
  ZELHeaders* headers; /* optional; also holds the x-pmw-acm-* values of the create-delta job */
  void (*callback)(const ZELGetPatchResp* resp, void* user_data);
  void (*done_callback)(void* user_data);
} ZELGetPatchOpt;

/* Writes the content of dest_key to `dest` by downloading the service's
 * patch from orig_key to dest_key and applying it to `orig`. When the
 * service has no such patch yet, a create-delta job is registered (not
 * awaited) and the call fails with ZEL_PATCH_NO_DETAILS or
 * ZEL_PATCH_NOT_FOUND; a later call can succeed. */
ZEL_EXPORT void zel_get_patch(ZEL* handle, const ZELGetPatchOpt* opt, void* user_data);

/* ------------------------------------------------------------------------ */
/* Delta-engine client. Every request function is synchronous: it performs   */
/* one exchange on the calling thread and returns NULL on success or a       */
/* constant message (never freed by the caller) on failure. The jobs run on  */
/* the service: a create or apply call registers one and answers with its    */
/* identifier and public status address; poll the matching status function   */
/* until `code` is KRI_JOB_FINISHED or KRI_JOB_FAILED. The client keeps no    */
/* record of jobs. A handle holds no lock: use it from one thread at a time. */
/* ------------------------------------------------------------------------ */

/* Job states as the service reports them in `code`; any other value means
 * the job is still under way. */
#define KRI_JOB_QUEUED 0
#define KRI_JOB_RUNNING 1
#define KRI_JOB_FINISHED 5
#define KRI_JOB_FAILED (-1)

typedef struct KRI {
  uint32_t environment;     /* ZEL_ENV_*; see kri_api_url */
  uint32_t api_version;     /* substituted into "/kri/api/v%u" */
  uint32_t timeout_ms;      /* whole exchange; default 10000 */
  uint32_t ssl_verify_peer; /* default 1 */
  int64_t max_send_speed;   /* bytes/s; 0: no cap */
  int64_t max_recv_speed;   /* bytes/s; 0: no cap */
  char* proxy;              /* owned; set with kri_set_proxy */
  char* proxy_username;     /* owned */
  char* proxy_password;     /* owned */
  ZELGetTokenFn get_token;  /* create and apply requests refuse a handle without it */
  ZELFreeTokenFn free_token;
} KRI;

/* Options are only read. Names are UTF-16; the access-control values are
 * sent as the headers x-pmw-acm-namespace, x-pmw-acm-groups and
 * x-pmw-acm-check-groups, each left out when NULL. */
typedef struct KRICreateSignatureOpt {
  const char16_t* bucket_name;
  const char16_t* object_name;
  uint64_t block_size;
  int32_t maximum_attempts;
  int32_t process_type;
  const char* acm_namespace;
  const char* acm_groups;
  const char* acm_check_groups;
} KRICreateSignatureOpt;

typedef struct KRICreateDeltaOpt {
  const char16_t* bucket_name;
  const char16_t* object_name1; /* the base */
  const char16_t* object_name2; /* the target */
  uint64_t block_size;
  int32_t maximum_attempts;
  int32_t process_type;
  const char* acm_namespace;
  const char* acm_groups;
  const char* acm_check_groups;
} KRICreateDeltaOpt;

typedef struct KRIApplyPatchOpt {
  const char16_t* bucket_name;
  const char16_t* object_name;     /* the stored base object */
  const char16_t* new_object_name; /* holds the uploaded patch; becomes the new version */
  const char* new_object_sha1;     /* SHA-1 of the expected result, 40 lowercase hex digits */
  int32_t maximum_attempts;
  int32_t process_type;
  const char* acm_namespace;
  const char* acm_groups;
  const char* acm_check_groups;
} KRIApplyPatchOpt;

/* Job answers, all of one layout. The caller allocates the record; each
 * request function first zeroes it (without freeing anything), and after a
 * successful call both texts are present (possibly empty). The texts are
 * allocated with malloc and belong to the caller, who frees them with
 * free(). `description` is the job's public status address in a create or
 * apply answer, and the new object's details JSON in the status of a
 * finished apply job. */
typedef struct KRICreateSignatureResp {
  int32_t progress; /* 0 to 100, as the service reports it */
  int32_t code;     /* KRI_JOB_* */
  char* description;
  char* document_id;
} KRICreateSignatureResp;

typedef struct KRICreateDeltaResp {
  int32_t progress;
  int32_t code;
  char* description;
  char* document_id;
} KRICreateDeltaResp;

typedef struct KRIApplyPatchResp {
  int32_t progress;
  int32_t code;
  char* description;
  char* document_id;
} KRIApplyPatchResp;

typedef struct KRIStatusResp {
  int32_t progress;
  int32_t code;
  char* description;
  char* document_id;
} KRIStatusResp;

/* New handle (timeout 10 s, peer verification on, no caps, no proxy), or
 * NULL when memory runs out. */
ZEL_EXPORT KRI* kri_init(uint32_t environment, uint32_t api_version, ZELGetTokenFn get_token,
                         ZELFreeTokenFn free_token);
ZEL_EXPORT void kri_cleanup(KRI* kri);
/* Replaces each of the three proxy texts by a copy of its argument (NULL
 * clears it). */
ZEL_EXPORT void kri_set_proxy(KRI* kri, const char* proxy, const char* username, const char* password);

/* Writes base + formatted path into `buffer`, which must hold ZEL_URL_SIZE
 * bytes; the text is cut to fit and always terminated. Environments 1 to 3
 * use their built-in hosts; any other environment has no base unless
 * kri_set_environment_url gave it one, and the URL is then the bare path.
 * Returns the length the whole URL would have had, -1 without a handle. */
ZEL_EXPORT int kri_api_url(const KRI* kri, char* buffer, const char* format, ...) ZEL_PRINTF(3, 4);

/* Points one environment of the delta engine at a base URL
 * "scheme://host[:port]"; NULL restores the built-in rule. Process-wide,
 * like zel_set_environment_url. 0, or -1 for a malformed value. */
ZEL_EXPORT int kri_set_environment_url(uint32_t environment, const char* base_url);

/* HTTP status of GET /health, or 0 when no exchange could be made. */
ZEL_EXPORT int32_t kri_health(const KRI* kri);

/* Register a job. Statuses: 200 fills `resp`; 401 "Unauthorized", 403
 * "Forbidden", 404 "Not Found", anything else "Internal Server Error". */
ZEL_EXPORT const char* kri_create_signature(const KRI* kri, const KRICreateSignatureOpt* opt,
                                            KRICreateSignatureResp* resp);
ZEL_EXPORT const char* kri_create_delta(const KRI* kri, const KRICreateDeltaOpt* opt,
                                        KRICreateDeltaResp* resp);
ZEL_EXPORT const char* kri_apply_patch(const KRI* kri, const KRIApplyPatchOpt* opt, KRIApplyPatchResp* resp);

/* Read a job's state into `status`. A job with a document id is asked for by
 * id, with the bearer token; otherwise its public status address is fetched
 * without one. The same status mapping as the create requests. */
ZEL_EXPORT const char* kri_create_signature_status(const KRI* kri, const KRICreateSignatureResp* job,
                                                   KRIStatusResp* status);
ZEL_EXPORT const char* kri_create_delta_status(const KRI* kri, const KRICreateDeltaResp* job,
                                               KRIStatusResp* status);
ZEL_EXPORT const char* kri_apply_patch_status(const KRI* kri, const KRIApplyPatchResp* job,
                                              KRIStatusResp* status);

#ifdef __cplusplus
}
#endif

#endif /* ZEL_ZEL_H */
