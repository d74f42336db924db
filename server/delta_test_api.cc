// Test API controls of the delta engine's jobs:
//   GET    /_emulator/delta          every job (state, polls, recorded headers)
//                                    and the number of status requests answered
//   POST   /_emulator/delta/scripts  one script or an array of them:
//          {"kind": "applypatch", "empty_polls": N, "fail": "reason",
//           "delay_ms": N, "times": N, "gap_after": N, "description": "text"};
//          every key optional. "gap_after": one answer with the status
//          address after that many empty ones; "description": what a
//          finished job answers as its Description.
//   DELETE /_emulator/delta/scripts  drops the scripts not yet taken
#include <jansson.h>

#include <vector>

#include "delta.h"

namespace zelsrv {
namespace {

bool parse_script(json_t* o, JobScript& s, std::string& why) {
  json_error_t err;
  const char *kind = "", *fail = "", *description = nullptr;
  json_int_t empty = 0, delay = 0, times = 1, gap = 0;
  if (json_unpack_ex(o, &err, JSON_STRICT, "{s?:s, s?:I, s?:s, s?:I, s?:I, s?:I, s?:s}", "kind", &kind,
                     "empty_polls", &empty, "fail", &fail, "delay_ms", &delay, "times", &times, "gap_after",
                     &gap, "description", &description) != 0) {
    why = std::string("Bad job script: ") + err.text;
    return false;
  }
  s = JobScript{kind, empty, fail, delay, times, gap, description != nullptr, description ? description : ""};
  return true;
}

bool parse_scripts(const std::string& body, std::vector<JobScript>& out, std::string& why) {
  json_error_t err;
  json_t* root = json_loads(body.c_str(), JSON_REJECT_DUPLICATES, &err);
  if (root == nullptr) {
    why = std::string("Malformed JSON body: ") + err.text;
    return false;
  }
  bool ok = true;
  if (json_is_array(root)) {
    size_t i;
    json_t* e;
    json_array_foreach(root, i, e) {
      JobScript s;
      if (!(ok = parse_script(e, s, why))) break;
      out.push_back(s);
    }
  } else {
    JobScript s;
    if ((ok = parse_script(root, s, why))) out.push_back(s);
  }
  json_decref(root);
  return ok;
}

}  // namespace

void serve_delta_test_api(Ctx& c, const std::string& path) {
  const std::string& m = c.req.method;
  if (path == "/_emulator/delta" && m == "GET") return c.reply(200, c.app.jobs.report_json());
  if (path != "/_emulator/delta/scripts") return c.error(404, "No such endpoint");
  if (m == "DELETE") {
    c.app.jobs.clear_scripts();
    return c.reply(200, "{}");
  }
  if (m != "POST") return c.error(405, "Method not allowed");
  std::string body, why;
  std::vector<JobScript> scripts;
  if (!c.body_text(body)) return;
  if (!parse_scripts(body, scripts, why)) return c.error(400, why);
  for (const JobScript& s : scripts) c.app.jobs.add_script(s);
  c.reply(200, "{}");
}

}  // namespace zelsrv
