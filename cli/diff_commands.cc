// zel diff: the delta library from the shell (signatures, matches, patches,
// apply and SHA-1 of local files); no service is involved.
#include <zel/diff.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "cli.h"

namespace zelcli {
namespace {

struct DiffArgs {
  std::string base, sig, file, patch, out, base_sha1;
  uint32_t block_size = 2048;
  double ratio = 0.5;
  int level = 6;
  bool keep_mode = false;
  bool sync = false;
};

std::u16string wide(const std::string& path) { return zel::to_utf16(path); }

// Reports the library's message (if any) and releases it.
int finish(Context& c, const char* what, int32_t result, char* message) {
  if (result < 0) {
    std::fprintf(stderr, "zel diff %s: %s\n", what, message != nullptr ? message : "failed");
    free_err_msg(&message);
    return kLocalFailed;
  }
  free_err_msg(&message);
  (void)c;
  return 0;
}

int run_signature(Context& c, const DiffArgs& a) {
  char* message = nullptr;
  int32_t r =
      diff_create_signature(wide(a.base).c_str(), wide(a.sig).c_str(), nullptr, a.block_size, 1, 0, &message);
  return finish(c, "signature", r, message);
}

int run_match(Context& c, const DiffArgs& a) {
  int32_t r = diff_file_match(wide(a.sig).c_str(), wide(a.file).c_str(), nullptr, a.ratio);
  if (r < 0) {
    std::fprintf(stderr, "zel diff match: cannot compare '%s' with '%s'\n", a.file.c_str(), a.sig.c_str());
    return kLocalFailed;
  }
  Json doc(json_pack("{s:b, s:f}", "match", r > 0, "ratio", a.ratio));
  c.out.result(doc.get(), r > 0 ? "match" : "differs");
  return 0;
}

int run_patch(Context& c, const DiffArgs& a) {
  DiffFileList* list = file_list_init();
  if (list == nullptr || file_list_append(list, wide(a.sig).c_str()) == nullptr) {
    file_list_cleanup(list);
    throw std::bad_alloc();
  }
  char* message = nullptr;
  int32_t r = diff_create_patch(wide(a.file).c_str(), list, wide(a.patch).c_str(), nullptr, 1, 0, a.level, 1,
                                &message);
  file_list_cleanup(list);
  return finish(c, "patch", r, message);
}

int run_apply(Context& c, const DiffArgs& a) {
  std::u16string base = wide(a.base);
  std::string sha1 = a.base_sha1;
  if (sha1.empty()) {
    char* text = file_sha1(base.c_str());
    if (text == nullptr) throw std::runtime_error("cannot read '" + a.base + "'");
    sha1 = text;
    std::free(text);
  }
  DiffFileEntry entry{&base[0], &sha1[0], nullptr};
  DiffFileEntry* head = &entry;
  char* message = nullptr;
  int32_t mode = (a.keep_mode ? 1 : 0) | (a.sync ? 2 : 0);
  int32_t r = diff_apply_patch(wide(a.out).c_str(), wide(a.patch).c_str(), &head, nullptr, mode, &message);
  return finish(c, "apply", r, message);
}

int run_sha1(Context& c, const DiffArgs& a) {
  char* text = file_sha1(wide(a.file).c_str());
  if (text == nullptr) throw std::runtime_error("cannot read '" + a.file + "'");
  std::string hex = text;
  std::free(text);
  Json doc(json_pack("{s:s, s:s}", "file", a.file.c_str(), "sha1", hex.c_str()));
  c.out.result(doc.get(), hex + "  " + a.file);
  return 0;
}

using Runner = int (*)(Context&, const DiffArgs&);

CLI::App* add(CLI::App* diff, Context& ctx, std::shared_ptr<DiffArgs> args, const char* name,
              const char* help, Runner run) {
  CLI::App* cmd = diff->add_subcommand(name, help);
  cmd->callback([&ctx, args, run] { ctx.action = [args, run](Context& c) { return run(c, *args); }; });
  return cmd;
}

}  // namespace

void add_diff_commands(CLI::App& app, Context& ctx) {
  auto a = std::make_shared<DiffArgs>();
  CLI::App* diff = app.add_subcommand("diff", "Local delta work: signatures, matches, patches (no service)");
  diff->require_subcommand(1);
  CLI::App* cmd = add(diff, ctx, a, "signature", "Write the signature of BASE", run_signature);
  cmd->add_option("BASE", a->base, "File to describe")->required();
  cmd->add_option("SIG", a->sig, "Signature file to write")->required();
  cmd->add_option("--block-size", a->block_size, "Bytes per block (default 2048)")
      ->check(CLI::Range(256, 1 << 20));
  cmd = add(diff, ctx, a, "match", "Tell whether FILE is within RATIO of the file behind SIG", run_match);
  cmd->add_option("SIG", a->sig, "Signature file")->required();
  cmd->add_option("FILE", a->file, "File to compare")->required();
  cmd->add_option("--ratio", a->ratio, "Largest share of uncovered bytes (default 0.5)")
      ->check(CLI::Range(0.0, 1.0));
  cmd = add(diff, ctx, a, "patch", "Write the patch from the base behind SIG to NEW", run_patch);
  cmd->add_option("SIG", a->sig, "Signature of the base")->required();
  cmd->add_option("NEW", a->file, "The new file")->required();
  cmd->add_option("PATCH", a->patch, "Patch file to write")->required();
  cmd->add_option("--level", a->level, "zstd level of the delta, 0 to store (default 6)")
      ->check(CLI::Range(0, 19));
  cmd = add(diff, ctx, a, "apply", "Rebuild OUT from BASE and PATCH (verified before it replaces OUT)",
            run_apply);
  cmd->add_option("BASE", a->base, "The base file")->required();
  cmd->add_option("PATCH", a->patch, "The patch")->required();
  cmd->add_option("OUT", a->out, "Result file")->required();
  cmd->add_option("--base-sha1", a->base_sha1, "Expected SHA-1 of BASE (default: computed)");
  cmd->add_flag("--keep-mode", a->keep_mode, "Give OUT the permissions of BASE");
  cmd->add_flag("--sync", a->sync, "Flush OUT to disk before it replaces the old one");
  cmd = add(diff, ctx, a, "sha1", "Print the SHA-1 of FILE", run_sha1);
  cmd->add_option("FILE", a->file, "File to hash")->required();
}

}  // namespace zelcli
