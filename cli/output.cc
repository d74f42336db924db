// What the tool prints: results, failures, the progress bar and the summary
// of a transfer.
#include <openssl/evp.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <vector>

#include "cli.h"

namespace zelcli {

void Output::result(json_t* doc, const std::string& text) const {
  Json owned(doc);
  if (global_.json) {
    char* dumped = owned ? json_dumps(owned.get(), JSON_COMPACT) : nullptr;
    std::printf("%s\n", dumped != nullptr ? dumped : "null");
    std::free(dumped);
  } else if (!text.empty()) {
    std::fputs(text.c_str(), stdout);
    if (text.back() != '\n') std::fputc('\n', stdout);
  }
  std::fflush(stdout);
}

void Output::note(const std::string& text) const {
  if (global_.quiet || global_.json) return;
  std::fprintf(stderr, "%s\n", text.c_str());
}

int Output::fail(const std::string& command, const std::string& target, const zel::Error& error) const {
  std::string message = error.message.empty() ? "(no message)" : error.message;
  std::fprintf(stderr, "zel %s: %s: status %d: %s\n", command.c_str(), target.c_str(), error.code,
               message.c_str());
  if (global_.json) {
    result(json_pack("{s:{s:s, s:s, s:i, s:s}}", "error", "command", command.c_str(), "target",
                     target.c_str(), "code", error.code, "message", message.c_str()),
           "");
  }
  return kFailed;
}

ProgressBar::ProgressBar(bool enabled, std::string label)
    : enabled_(enabled && isatty(STDERR_FILENO) == 1),
      label_(std::move(label)),
      start_(std::chrono::steady_clock::now()) {}

ProgressBar::~ProgressBar() { finish(); }

bool ProgressBar::update(uint64_t offset, uint64_t done, uint64_t total) {
  if (!enabled_) return true;
  std::lock_guard<std::mutex> lock(mutex_);
  // Reports of parallel chunks may arrive out of order; the bar never goes
  // back.
  if (offset + done > done_) done_ = offset + done;
  if (total > total_) total_ = total;
  auto now = std::chrono::steady_clock::now();
  if (drawn_ && now - last_draw_ < std::chrono::milliseconds(100)) return true;
  last_draw_ = now;
  draw(done_, total_);
  return true;
}

void ProgressBar::finish() {
  if (!enabled_) return;
  std::lock_guard<std::mutex> lock(mutex_);
  if (drawn_) std::fputs("\r\033[K", stderr);
  drawn_ = false;
  enabled_ = false;
}

void ProgressBar::draw(uint64_t done, uint64_t total) {
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
  double fraction = total > 0 ? static_cast<double>(done) / static_cast<double>(total) : 0;
  if (fraction > 1) fraction = 1;
  constexpr int kWidth = 30;
  std::string bar(static_cast<size_t>(fraction * kWidth), '=');
  bar.resize(kWidth, ' ');
  std::string left = "--:--";
  if (rate > 0 && total >= done) {
    auto eta = static_cast<long>(static_cast<double>(total - done) / rate);
    char text[48];
    std::snprintf(text, sizeof text, "%ld:%02ld", eta / 60, eta % 60);
    left = text;
  }
  std::fprintf(stderr, "\r\033[K%s %3.0f%% [%s] %s / %s  %s/s  %s left", label_.c_str(), fraction * 100,
               bar.c_str(), human_bytes(static_cast<double>(done)).c_str(),
               human_bytes(static_cast<double>(total)).c_str(), human_bytes(rate).c_str(), left.c_str());
  std::fflush(stderr);
  drawn_ = true;
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

void print_summary(const Output& out, const Summary& s, json_t* extra) {
  double rate = s.seconds > 0 ? static_cast<double>(s.size) / s.seconds : 0;
  char text[8192];
  std::snprintf(text, sizeof text, "%s %s to %s: %s in %.2f s (%s/s), sha1 %s", s.verb.c_str(),
                s.from.c_str(), s.to.c_str(), human_bytes(static_cast<double>(s.size)).c_str(), s.seconds,
                human_bytes(rate).c_str(), s.sha1.empty() ? "-" : s.sha1.c_str());
  json_t* doc = json_pack("{s:s, s:s, s:s, s:I, s:f, s:f, s:s}", "result", s.verb.c_str(), "from",
                          s.from.c_str(), "to", s.to.c_str(), "size", static_cast<json_int_t>(s.size),
                          "seconds", s.seconds, "bytes_per_second", rate, "sha1", s.sha1.c_str());
  if (doc != nullptr && extra != nullptr)
    json_object_set_new(doc, "details", extra);
  else if (extra != nullptr)
    json_decref(extra);
  out.result(doc, text);
}

}  // namespace zelcli
