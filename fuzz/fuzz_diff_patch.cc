// The patch applier: a patch file as a download could deliver it, applied to
// a fixed base. It must be refused, or rebuild exactly what its header
// promises; a refusal leaves no result file.
#include "fuzz_diff_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const fuzzdiff::Scratch& s = fuzzdiff::scratch();
  fuzzdiff::write_file(s.path("patch"), data, size);
  std::u16string base = fuzzdiff::wide(s.path("base")), out = fuzzdiff::wide(s.path("out"));
  std::string sha1 = s.base_sha1;
  DiffFileEntry entry{&base[0], &sha1[0], nullptr};
  DiffFileEntry* head = &entry;
  char* message = nullptr;
  std::u16string patch = fuzzdiff::wide(s.path("patch"));
  int32_t result = diff_apply_patch(out.c_str(), patch.c_str(), &head, nullptr, 0, &message);
  if (result < 0 && message == nullptr) __builtin_trap();
  free_err_msg(&message);
  bool written = access(s.path("out").c_str(), F_OK) == 0;
  if (written != (result >= 0)) __builtin_trap();
  std::remove(s.path("out").c_str());
  return 0;
}
