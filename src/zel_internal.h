#pragma once
// Internal face of the zel module (service handle, URLs, header lists).
#include <cstdarg>
#include <cstddef>

#include <zel/zel.h>

// Buffer size the operations use for URLs: ZEL_URL_SIZE characters at most
// plus a terminator that is never written.
constexpr size_t kUrlBuffer = ZEL_URL_SIZE + 1;

// Shared body of the URL functions: storage base for the handle's
// environment and API version, then the formatted path, bounded by `size`.
int url_build(const ZEL* handle, char* buffer, size_t size, const char* format, va_list args);

// Line buffer bound shared by header lists and the HTTP layer.
constexpr size_t kHeaderLineMax = 102400;
