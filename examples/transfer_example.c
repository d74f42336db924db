/* Uploads a file and downloads it back through the C interface.
 * Run: ./transfer_example ENDPOINT FILE
 * ENDPOINT is the service's base URL, for example http://127.0.0.1:9000
 * (zel-server). The object lands in bucket "examples" (created on demand). */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <uchar.h>
#include <zel/zel.h>

/* The operations report on library threads; main waits for that report. */
struct wait {
  pthread_mutex_t mutex;
  pthread_cond_t cond;
  int finished;
  int ok;
  char sha1[64];
};

static void finish(struct wait* w, int ok) {
  pthread_mutex_lock(&w->mutex);
  w->ok = ok;
  w->finished = 1;
  pthread_cond_signal(&w->cond);
  pthread_mutex_unlock(&w->mutex);
}

static void wait_report(struct wait* w) {
  pthread_mutex_lock(&w->mutex);
  while (!w->finished) pthread_cond_wait(&w->cond, &w->mutex);
  w->finished = 0;
  pthread_mutex_unlock(&w->mutex);
}

static void on_put_failed(const ZELPutObjectResp* resp, void* user_data) {
  fprintf(stderr, "upload failed: %d %s\n", resp->code, resp->message);
  finish(user_data, 0);
}

static void on_uploaded(const ZELObjectDetails* details, void* user_data) {
  struct wait* w = user_data;
  /* The record is freed when this returns: copy what is kept. */
  if (details != NULL && details->sha1 != NULL) snprintf(w->sha1, sizeof w->sha1, "%s", details->sha1);
  finish(w, details != NULL);
}

static void on_get_failed(const ZELGetObjectResp* resp, void* user_data) {
  fprintf(stderr, "download failed: %d %s\n", resp->code, resp->message);
  finish(user_data, 0);
}

static void on_downloaded(void* user_data) { finish(user_data, 1); }

/* The library frees the token through token_free, so hand out a copy. */
static char* token(void) {
  static const char value[] = "local-dev-token";
  char* copy = malloc(sizeof value);
  if (copy != NULL) memcpy(copy, value, sizeof value);
  return copy;
}
static void token_free(char* t) { free(t); }

/* ASCII file names only, to keep the example short. */
static void widen(const char* in, char16_t* out, size_t size) {
  size_t i = 0;
  for (; in[i] != '\0' && i + 1 < size; ++i) out[i] = (char16_t)(unsigned char)in[i];
  out[i] = 0;
}

static int transfer(ZEL* handle, const char* file, struct wait* w) {
  char16_t name[1024], copy[1040];
  char copy_name[1040];
  snprintf(copy_name, sizeof copy_name, "%s.copy", file);
  widen(file, name, 1024);
  widen(copy_name, copy, 1040);
  ZELStream* up = zel_stream_init(name);
  ZELStream* down = zel_stream_init(copy);
  ZELPutObjectOpt put = {.bucket_key = u"examples",
                         .key = u"example.bin",
                         .stream = up,
                         .callback = on_put_failed,
                         .details_callback = on_uploaded};
  ZELGetObjectOpt get = {.bucket_key = u"examples",
                         .key = u"example.bin",
                         .stream = down,
                         .callback = on_get_failed,
                         .done_callback = on_downloaded};
  int ok = up != NULL && down != NULL;
  if (ok) {
    zel_put_object(handle, &put, w);
    wait_report(w);
    ok = w->ok;
  }
  if (ok) {
    printf("uploaded %s as examples/example.bin, sha1 %s\n", file, w->sha1);
    zel_get_object(handle, &get, w);
    wait_report(w);
    ok = w->ok;
  }
  if (ok) printf("downloaded it back to %s\n", copy_name);
  zel_stream_cleanup(up);
  zel_stream_cleanup(down);
  return ok;
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s ENDPOINT FILE\n", argv[0]);
    return 2;
  }
  if (zel_global_init() != 0) return 1;
  struct wait w = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, 0, 0, ""};
  ZEL* handle = NULL;
  int ok = zel_set_environment_url(ZEL_ENV_LOCAL, argv[1]) == 0 &&
           (handle = zel_init(ZEL_ENV_LOCAL, 2, token, token_free)) != NULL;
  if (ok) {
    handle->auto_create_bucket = 1;
    ok = transfer(handle, argv[2], &w);
  }
  zel_cleanup(handle);
  zel_global_cleanup();
  return ok ? 0 : 1;
}
