/* Keeps a copy of a file in step through a patch: the signature of the old
 * version, a match test, a patch to the new version, and its application.
 * Run: ./diff_example DIR   (DIR: an existing scratch directory, ASCII) */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zel/diff.h>

/* Wide form of an ASCII path (enough for the example). */
static char16_t* wide(const char* dir, const char* name) {
  size_t n = strlen(dir) + 1 + strlen(name);
  char16_t* out = malloc((n + 1) * sizeof(char16_t));
  if (out == NULL) return NULL;
  size_t k = 0;
  for (const char* p = dir; *p; ++p) out[k++] = (unsigned char)*p;
  out[k++] = '/';
  for (const char* p = name; *p; ++p) out[k++] = (unsigned char)*p;
  out[k] = 0;
  return out;
}

static int write_file(const char* dir, const char* name, unsigned seed, size_t size, size_t changed_at) {
  char path[4096];
  snprintf(path, sizeof path, "%s/%s", dir, name);
  FILE* f = fopen(path, "wb");
  if (f == NULL) return -1;
  for (size_t i = 0; i < size; ++i) {
    seed = seed * 1103515245u + 12345u;
    fputc(i >= changed_at && i < changed_at + 100 ? 'x' : (int)(seed >> 16) & 0xFF, f);
  }
  return fclose(f);
}

static int fail(const char* what, char* message) {
  fprintf(stderr, "%s: %s\n", what, message != NULL ? message : "failed");
  free_err_msg(&message);
  return 1;
}

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const char* dir = argv[1];
  if (write_file(dir, "old.bin", 7, 200000, 200000) != 0 || write_file(dir, "new.bin", 7, 200000, 5000) != 0)
    return 1;
  char16_t *old_path = wide(dir, "old.bin"), *new_path = wide(dir, "new.bin"), *sig = wide(dir, "old.sig"),
           *patch = wide(dir, "new.patch"), *out = wide(dir, "copy.bin");
  char* message = NULL;
  if (diff_create_signature(old_path, sig, NULL, 2048, 1, 0, &message) < 0) return fail("signature", message);
  printf("match at ratio 0.1: %d\n", diff_file_match(sig, new_path, NULL, 0.1));
  DiffFileList* bases = file_list_init();
  if (bases == NULL || file_list_append(bases, sig) == NULL) return 1;
  if (diff_create_patch(new_path, bases, patch, NULL, 1, 0, 6, 1, &message) < 0)
    return fail("patch", message);
  file_list_cleanup(bases);
  char* sha1 = file_sha1(old_path);
  if (sha1 == NULL) return 1;
  DiffFileEntry entry = {old_path, sha1, NULL};
  DiffFileEntry* head = &entry;
  if (diff_apply_patch(out, patch, &head, NULL, 0, &message) < 0) return fail("apply", message);
  char *want = file_sha1(new_path), *got = file_sha1(out);
  int same = want != NULL && got != NULL && strcmp(want, got) == 0;
  printf("rebuilt copy %s the new file (sha1 %s)\n", same ? "equals" : "DIFFERS FROM", got ? got : "?");
  free(want), free(got), free(sha1);
  free(old_path), free(new_path), free(sig), free(patch), free(out);
  return same ? 0 : 1;
}
