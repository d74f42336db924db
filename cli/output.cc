// What the tool prints: results, failures, the progress bar and the summary
// of a transfer.
#include <openssl/evp.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <vector>

#include "cli.h"

namespace zelcli {

void Output::result(json_t* doc, const std::string& text, bool summary) const {
  Json owned(doc);
  FILE* stream = result_stream();
  if (global_.json) {
    Json wrapped(json_pack("{s:b, s:s, s:O}", "ok", 1, "command", command_.c_str(), "result",
                           owned ? owned.get() : json_null()));
    // Reals are rounded before they get here; 12 digits print them as such.
    char* dumped = wrapped ? json_dumps(wrapped.get(), JSON_COMPACT | JSON_REAL_PRECISION(12)) : nullptr;
    std::fprintf(stream, "%s\n", dumped != nullptr ? dumped : "null");
    std::free(dumped);
  } else if (!text.empty() && !(summary && global_.quiet)) {
    std::fputs(text.c_str(), stream);
    if (text.back() != '\n') std::fputc('\n', stream);
  }
  std::fflush(stream);
}

void Output::note(const std::string& text) const {
  if (global_.quiet || global_.json) return;
  std::fprintf(stderr, "%s\n", text.c_str());
}

namespace {
int terminal_columns() {
  struct winsize size {};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  const char* columns = std::getenv("COLUMNS");
  int value = columns != nullptr ? std::atoi(columns) : 0;
  return value > 0 ? value : 80;
}

std::string clock_text(double seconds) {
  if (!(seconds >= 0) || seconds > 359999) return "--:--";
  auto s = static_cast<long>(seconds + 0.5);
  char text[32];
  if (s >= 3600)
    std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
  else
    std::snprintf(text, sizeof text, "%ld:%02ld", s / 60, s % 60);
  return text;
}
}  // namespace

ProgressBar::ProgressBar(bool enabled, std::string label)
    : enabled_(enabled && isatty(STDERR_FILENO) == 1),
      label_(std::move(label)),
      start_(std::chrono::steady_clock::now()) {}

ProgressBar::~ProgressBar() { finish(); }

bool ProgressBar::update(uint64_t offset, uint64_t done, uint64_t total) {
  if (interrupted() != 0) {
    finish();
    return false;
  }
  if (!enabled_) return true;
  std::lock_guard<std::mutex> lock(mutex_);
  // Reports of parallel chunks may arrive out of order; the bar never goes
  // back.
  if (offset + done > done_) done_ = offset + done;
  if (total > total_) total_ = total;
  auto now = std::chrono::steady_clock::now();
  if (!enabled_ || (drawn_ && now - last_draw_ < std::chrono::milliseconds(100))) return true;
  last_draw_ = now;
  double seconds = std::chrono::duration<double>(now - start_).count();
  // One column is left free: a line that fills the last column wraps on
  // some terminals.
  std::string text = line(label_, done_, total_, seconds, terminal_columns() - 1);
  std::fprintf(stderr, "\r\033[K%s", text.c_str());
  std::fflush(stderr);
  drawn_ = true;
  return true;
}

void ProgressBar::finish() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (drawn_) std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
  drawn_ = false;
  enabled_ = false;
}

// "put  42% [=====     ] 1.2 MiB/3.0 MiB 5.1 MiB/s 0:03": the bar takes
// what the other parts leave, and parts are dropped from the right on a
// narrow terminal.
std::string ProgressBar::line(const std::string& label, uint64_t done, uint64_t total, double seconds,
                              int columns) {
  double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
  double fraction = total > 0 ? std::min(1.0, static_cast<double>(done) / static_cast<double>(total)) : 0;
  char percent[8];
  std::snprintf(percent, sizeof percent, "%3.0f%%", fraction * 100);
  std::string left =
      rate > 0 && total >= done ? clock_text(static_cast<double>(total - done) / rate) : "--:--";
  std::string tail = " " + human_bytes(static_cast<double>(done)) + "/" +
                     human_bytes(static_cast<double>(total)) + " " + human_bytes(rate) + "/s " + left;
  std::string head = label.substr(0, 12) + " " + percent;
  auto width = static_cast<size_t>(std::max(columns, 0));
  if (head.size() + tail.size() + 3 + 10 > width) tail = " " + left;
  if (head.size() + tail.size() + 3 + 10 > width) tail.clear();
  if (head.size() + tail.size() + 3 + 10 > width) return head.substr(0, width);
  size_t bar_width = std::min<size_t>(width - head.size() - tail.size() - 3, 40);
  std::string bar(static_cast<size_t>(fraction * static_cast<double>(bar_width)), '=');
  bar.resize(bar_width, ' ');
  return head + " [" + bar + "]" + tail;
}

std::string hex_sha1_of_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return "";
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> md(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  if (!md || EVP_DigestInit_ex(md.get(), EVP_sha1(), nullptr) != 1) return "";
  std::vector<char> buffer(1 << 20);
  while (in) {
    in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    if (in.gcount() > 0) EVP_DigestUpdate(md.get(), buffer.data(), static_cast<size_t>(in.gcount()));
  }
  if (in.bad()) return "";
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(md.get(), digest, &length) != 1) return "";
  std::string hex;
  static const char digits[] = "0123456789abcdef";
  for (unsigned int i = 0; i < length; ++i) hex += {digits[digest[i] >> 4], digits[digest[i] & 15]};
  return hex;
}

namespace {
// "by patch: 2.6 MiB over the wire for 256.0 MiB (1.0%)".
std::string wire_text(const Summary& s) {
  std::string text = " " + std::string(s.how == "patch" ? "by patch" : "in full") + ": ";
  if (!s.wire) return text + "patch size not seen, for " + human_bytes(static_cast<double>(s.size));
  char share[32];
  double percent = s.size > 0 ? 100.0 * static_cast<double>(*s.wire) / static_cast<double>(s.size) : 0;
  std::snprintf(share, sizeof share, percent < 10 ? " (%.2f%%)" : " (%.0f%%)", percent);
  return text + human_bytes(static_cast<double>(*s.wire)) + " over the wire for " +
         human_bytes(static_cast<double>(s.size)) + share;
}
}  // namespace

void print_summary(const Output& out, const Summary& s, json_t* extra) {
  double rate = s.seconds > 0 ? static_cast<double>(s.size) / s.seconds : 0;
  std::string text = s.verb + " " + escape_text(s.from) + " to " + escape_text(s.to) +
                     (s.how.empty() ? ": " + human_bytes(static_cast<double>(s.size)) : wire_text(s));
  char timing[96];
  std::snprintf(timing, sizeof timing, " in %.2f s (%s/s), sha1 %s", s.seconds, human_bytes(rate).c_str(),
                s.sha1.empty() ? "-" : s.sha1.c_str());
  json_t* doc = json_pack("{s:s, s:s, s:s, s:I, s:o, s:I, s:s}", "action", s.verb.c_str(), "from",
                          s.from.c_str(), "to", s.to.c_str(), "size", static_cast<json_int_t>(s.size),
                          "seconds", json_real_rounded(s.seconds, 1e-3), "bytes_per_second",
                          static_cast<json_int_t>(rate + 0.5), "sha1", s.sha1.c_str());
  if (!s.how.empty()) {
    json_object_set_new(doc, "transfer", json_string(s.how.c_str()));
    json_object_set_new(doc, "wire_bytes",
                        s.wire ? json_integer(static_cast<json_int_t>(*s.wire)) : json_null());
  }
  json_object_set_new(doc, "object", extra != nullptr ? extra : json_null());
  out.result(doc, text + timing, true);
}

}  // namespace zelcli
