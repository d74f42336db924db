// The signature loader: a signature file as the service or a peer could send
// it, used for a match and for a patch. Both must fail cleanly or work.
#include "fuzz_diff_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const fuzzdiff::Scratch& s = fuzzdiff::scratch();
  fuzzdiff::write_file(s.path("sig"), data, size);
  std::u16string sig = fuzzdiff::wide(s.path("sig")), base = fuzzdiff::wide(s.path("base"));
  if (diff_file_match(sig.c_str(), base.c_str(), nullptr, 0.5) > 1) __builtin_trap();
  DiffFileList* list = file_list_init();
  if (list == nullptr || file_list_append(list, sig.c_str()) != list) __builtin_trap();
  char* message = nullptr;
  std::u16string patch = fuzzdiff::wide(s.path("patch"));
  int32_t made = diff_create_patch(base.c_str(), list, patch.c_str(), nullptr, 1, 0, 3, 1, &message);
  if (made < 0 && message == nullptr) __builtin_trap();
  free_err_msg(&message);
  file_list_cleanup(list);
  std::remove(s.path("patch").c_str());
  return 0;
}
