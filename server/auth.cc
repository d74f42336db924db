#include "auth.h"

#include <strings.h>

namespace zelsrv {

std::string Auth::principal(const std::string& authorization) const {
  if (authorization.size() < 7 || strncasecmp(authorization.c_str(), "Bearer ", 7) != 0) return std::string();
  size_t b = authorization.find_first_not_of(' ', 7);
  if (b == std::string::npos) return std::string();
  size_t e = authorization.find_last_not_of(' ');
  auto it = tokens_.find(authorization.substr(b, e - b + 1));
  return it == tokens_.end() ? std::string() : it->second;
}

}  // namespace zelsrv
