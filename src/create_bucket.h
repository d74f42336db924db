#pragma once
#include <zel/zel.h>

// One create exchange on the current thread with the caller's handle and
// options: reports through the options' callbacks, keeps the bucket cache
// up to date, and returns the HTTP status (or -1 when no exchange took
// place). Nothing is copied or freed.
int create_bucket_run(const ZEL* handle, const ZELCreateBucketOpt* opt, void* user_data);

// Makes sure the upload's bucket exists before its first request, when the
// handle asks for automatic creation. 1 when the cache already knows the
// bucket in the handle's environment, 0 when nothing had to be done or the
// bucket exists now, -1 when the upload must stop (its callback has then
// been called).
int ensure_bucket_exists(const ZEL* handle, const ZELPutObjectOpt* opt, void* user_data);
