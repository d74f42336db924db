#pragma once
// Internal logging helpers. Every module defines its own tag,
//   namespace { constexpr const char* kLogTag = "src\\http"; }
// and logs with ZLOG("fixed message") or ZLOG("%s", text); the line number
// identifies the call site.
#include <zel/zel.h>

#define ZLOG(...) zel_log(nullptr, kLogTag, __LINE__, __VA_ARGS__)
