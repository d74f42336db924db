// The test API under /_emulator/ (only with --test-api): the request journal
// and the fault rules.
#pragma once

#include <string>

#include "router.h"

namespace zelsrv {

void serve_test_api(Ctx& c, const std::string& path);

}  // namespace zelsrv
