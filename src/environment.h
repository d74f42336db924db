#pragma once
// Process-wide table of service base URLs per environment. Both services
// (storage and delta engine) keep their bases here, so overriding an
// environment to point at a local emulator works the same way for both.
#include <cstddef>
#include <cstdint>

enum class EnvService { storage = 0, delta = 1 };

// Sets the base URL ("scheme://host[:port]", no path) of one environment;
// nullptr restores the built-in value. 0, or -1 for a malformed value (or
// when memory ran out).
// Environments other than 1, 2 and 3 all share the local entry.
int env_set_url(EnvService service, uint32_t environment, const char* base_url);

// Copies the base URL of an environment into `out` (terminated, cut to fit)
// and returns its full length. The delta engine's local base is empty: its
// URLs are then bare paths.
size_t env_base_url(EnvService service, uint32_t environment, char* out, size_t size);

// True when `base_url` is an absolute http(s) URL with a host, an optional
// port and nothing else.
bool env_url_is_valid(const char* base_url);
