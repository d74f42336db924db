// Failures: sorting the library's errors into local, transport and service
// ones, and the text that reaches a terminal.
#include <curl/curl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cli.h"

namespace zelcli {
namespace {

// The service's reason when a message is a JSON error body.
std::string reason_of(const std::string& message) {
  if (message.empty() || message[0] != '{') return message;
  Json body(json_loads(message.c_str(), 0, nullptr));
  for (const char* key : {"reason", "message", "error"}) {
    json_t* value = body ? json_object_get(body.get(), key) : nullptr;
    if (json_is_string(value)) return json_string_value(value);
  }
  return "an error body the tool cannot read";
}

bool loopback(const std::string& endpoint) {
  for (const char* host : {"://localhost", "://127.", "://[::1]"})
    if (endpoint.find(host) != std::string::npos) return true;
  return false;
}

std::string port_of(const std::string& endpoint) {
  size_t colon = endpoint.rfind(':');
  if (colon == std::string::npos ||
      endpoint.find_first_not_of("0123456789", colon + 1) != std::string::npos ||
      colon + 1 == endpoint.size())
    return "9000";
  return endpoint.substr(colon + 1);
}

Failure transport(const zel::Error& error, const std::string& endpoint) {
  Failure f{FailureKind::kTransport, endpoint, escape_text(error.message), 0, ""};
  if (error.code == CURLE_COULDNT_CONNECT && loopback(endpoint))
    f.hint = "is zel-server running? start it with: zel-server --port " + port_of(endpoint);
  else if (error.code == CURLE_OPERATION_TIMEDOUT)
    f.hint = "--timeout and --stall-timeout set how long an attempt may take or stall";
  return f;
}

Failure service(const zel::Error& error, const std::string& target) {
  Failure f{FailureKind::kService, target, escape_text(reason_of(error.message)), error.code, ""};
  if (error.message.find("unmarshal") != std::string::npos ||
      error.message.find("Cannot parse") != std::string::npos) {
    f.message = "the service's answer could not be read";
    f.status = 0;
    f.hint = "check --api (1 or 2) and --endpoint";
  }
  if (f.message.empty()) f.message = "(no reason given)";
  return f;
}

}  // namespace

int exit_status(FailureKind kind) {
  switch (kind) {
    case FailureKind::kLocal:
      return kLocalFailed;
    case FailureKind::kTransport:
      return kTransportFailed;
    case FailureKind::kUsage:
      return kUsage;
    case FailureKind::kInterrupted:
      return kInterrupted;
    case FailureKind::kNoPatch:
      return kNoPatch;
    default:
      return kServiceFailed;
  }
}

std::string escape_text(const std::string& text) {
  std::u16string unused;
  bool utf8 = zel::utf8_to_utf16(text, unused);
  std::string out;
  for (unsigned char c : text) {
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\\') {
      out += "\\\\";
    } else if (c < 0x20 || c == 0x7f || (c >= 0x80 && !utf8)) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02x", c);
      out += hex;
    } else {
      out += static_cast<char>(c);
    }
  }
  // C1 controls (U+0080..U+009F) act on some terminals too.
  for (size_t i = 0; (i = out.find('\xc2', i)) != std::string::npos;) {
    auto next = static_cast<unsigned char>(i + 1 < out.size() ? out[i + 1] : 0);
    if (next >= 0x80 && next <= 0x9f) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\u%04x", next);
      out.replace(i, 2, hex);
    }
    ++i;
  }
  return out;
}

Failure local_failure(const std::string& path, int error_number) {
  return {FailureKind::kLocal, path, std::strerror(error_number), 0, ""};
}

// Codes below 100 are libcurl's or the system's; the message tells which,
// because the library passes each one's own text along.
Failure classify(const zel::Error& error, const std::string& endpoint, const std::string& target) {
  if (error.code >= 100) return service(error, target);
  if (error.code > 0 && error.message == curl_easy_strerror(static_cast<CURLcode>(error.code)))
    return transport(error, endpoint);
  if (error.code > 0 && error.message == std::strerror(error.code))
    return {FailureKind::kLocal, target, error.message, 0, ""};
  if (error.code > 0 && error.code < CURL_LAST) return transport(error, endpoint);
  return service(error, target);
}

int Output::fail(const std::string& target, const zel::Error& error, const std::string& endpoint) const {
  return fail(classify(error, endpoint, target));
}

// Text shapes: "zel CMD: cannot use PATH: why" (local), "zel CMD: cannot
// reach ENDPOINT: why" (transport), "zel CMD: TARGET: STATUS reason"
// (service), "zel CMD: TARGET: why" (verification, usage, interruption).
int Output::fail(const Failure& f) const {
  std::string line = "zel" + (command_.empty() ? std::string() : " " + command_) + ": ";
  switch (f.kind) {
    case FailureKind::kLocal:
      line += "cannot use " + escape_text(f.target) + ": " + f.message;
      break;
    case FailureKind::kTransport:
      line += "cannot reach " + escape_text(f.target) + ": " + f.message;
      break;
    case FailureKind::kService:
      line += escape_text(f.target) + ": " + (f.status > 0 ? std::to_string(f.status) + " " : "") + f.message;
      break;
    default:
      line += (f.target.empty() ? "" : escape_text(f.target) + ": ") + f.message;
  }
  std::fprintf(stderr, "%s\n", line.c_str());
  if (!f.hint.empty()) std::fprintf(stderr, "hint: %s\n", f.hint.c_str());
  if (global_.json) {
    static const char* kinds[] = {"local", "transport",   "service", "verification",
                                  "usage", "interrupted", "no-patch"};
    json_t* error = json_pack("{s:s, s:s, s:s}", "kind", kinds[static_cast<int>(f.kind)], "target",
                              f.target.c_str(), "message", f.message.c_str());
    json_object_set_new(error, "status", f.status > 0 ? json_integer(f.status) : json_null());
    json_object_set_new(error, "hint", f.hint.empty() ? json_null() : json_string(f.hint.c_str()));
    Json doc(json_pack("{s:b, s:s, s:o}", "ok", 0, "command", command_.c_str(), "error", error));
    char* dumped = json_dumps(doc.get(), JSON_COMPACT);
    std::fprintf(result_stream(), "%s\n", dumped != nullptr ? dumped : "null");
    std::free(dumped);
    std::fflush(result_stream());
  }
  return exit_status(f.kind);
}

// ---------------------------------------------------------------- signals

namespace {
// Lock-free atomics are safe to use in a signal handler.
std::atomic<int> g_signal{0};
char g_cleanup[4096];
std::atomic<bool> g_cleanup_set{false};
std::atomic<int> g_transfers{0};

void on_signal(int signal) {
  if (g_transfers.load() == 0) {
    // Nothing to clean up or report: die of the signal, as shells expect.
    ::signal(signal, SIG_DFL);
    raise(signal);
    return;
  }
  if (g_signal != 0) {
    // A second signal: the user insists.
    if (g_cleanup_set.load()) unlink(g_cleanup);
    _exit(kInterruptedBase + signal);
  }
  g_signal = signal;
}
}  // namespace

void install_signal_handlers() {
  struct sigaction action {};
  action.sa_handler = on_signal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

int interrupted() { return g_signal; }

TransferScope::TransferScope() { ++g_transfers; }
TransferScope::~TransferScope() { --g_transfers; }

void set_cleanup_file(const std::string& path) {
  g_cleanup_set = false;
  if (path.empty() || path.size() >= sizeof g_cleanup) return;
  std::memcpy(g_cleanup, path.c_str(), path.size() + 1);
  g_cleanup_set = true;
}

void exit_interrupted(const Output& out, const std::string& message) {
  out.fail({FailureKind::kInterrupted, "", message, 0, ""});
  std::fflush(stdout);
  std::fflush(stderr);
  std::_Exit(kInterrupted);
}

}  // namespace zelcli
