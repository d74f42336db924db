#pragma once
// Internal logging helpers. Every module defines its own tag,
//   namespace { constexpr const char* kLogTag = "src\\http"; }
// and logs with ZLOG("fixed message") or ZLOG("%s", text); the line number
// identifies the call site. Shared code never logs its own line: its caller
// passes a LogSite (ZSITE at the call site, or a site stored in the
// caller's table) and the shared code logs with ZLOG_AT.
#include <zel/zel.h>

#include <cstdint>

struct LogSite {
  const char* tag;
  int32_t line;
};

#define ZLOG(...) zel_log(nullptr, kLogTag, __LINE__, __VA_ARGS__)
#define ZSITE (LogSite{kLogTag, __LINE__})
#define ZLOG_AT(site, ...) zel_log(nullptr, (site).tag, (site).line, __VA_ARGS__)
