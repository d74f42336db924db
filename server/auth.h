// Bearer tokens and the principals (auth ids) they stand for.
#pragma once

#include <map>
#include <string>

namespace zelsrv {

class Auth {
 public:
  Auth() { add("local-dev-token", "local"); }
  void add(const std::string& token, const std::string& auth_id) { tokens_[token] = auth_id; }
  // The principal of an Authorization header value; empty when the header is
  // missing, not a bearer token, or names an unknown token.
  std::string principal(const std::string& authorization) const;

 private:
  std::map<std::string, std::string> tokens_;
};

}  // namespace zelsrv
