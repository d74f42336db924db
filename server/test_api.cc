#include "test_api.h"

#include "delta.h"

namespace zelsrv {

void serve_test_api(Ctx& c, const std::string& path) {
  const std::string& m = c.req.method;
  if (path == "/_emulator/requests") {
    if (m == "GET" || m == "HEAD") return c.reply(200, c.app.journal.json());
    if (m == "DELETE") {
      c.app.journal.clear();
      return c.reply(200, "[]");
    }
    return c.error(405, "Method not allowed");
  }
  if (path == "/_emulator/faults") {
    if (m == "DELETE") {
      c.app.faults.clear();
      return c.reply(200, "{}");
    }
    if (m != "POST") return c.error(405, "Method not allowed");
    std::string body, why;
    if (!c.body_text(body)) return;
    if (!c.app.faults.add_json(body, why)) return c.error(400, why);
    return c.reply(200, "{}");
  }
  if (path.compare(0, 16, "/_emulator/delta") == 0) return serve_delta_test_api(c, path);
  c.error(404, "No such endpoint");
}

}  // namespace zelsrv
