#pragma once
// Internal face of zel_match_object: the record its download handlers share.
#include <zel/zel.h>

struct ZELMatchObjectDecorator {
  ZEL* handle;             // zel_clone copy
  ZELMatchObjectOpt* opt;  // deep copy, signature header in front
  void* user_data;
};

// True when the decorator holds everything the handlers need and the ratio
// lies in 0.0 to 1.0; otherwise reports (code 0) the first thing missing
// through the copy's callback, or only logs when there is no copy at all.
bool match_decorator_check(const ZELMatchObjectDecorator* decorator);
