/* Uses the public interface from C: records initialised as C writes them,
 * wide literals, lists, URLs and logging. What each call does is checked by
 * the C++ suites; here it matters that a C11 program compiles, links and
 * runs against the header as it stands. */
#include <stdio.h>
#include <string.h>
#include <zel/zel.h>

static int failures = 0;
static int lines_logged = 0;

#define CHECK(cond)                                                            \
  do {                                                                         \
    if (!(cond)) {                                                             \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      failures++;                                                              \
    }                                                                          \
  } while (0)

static char* get_token(void) { return NULL; }
static void sink(const char* line) {
  (void)line;
  lines_logged++;
}

int main(void) {
  ZEL* handle = zel_init(ZEL_ENV_PRODUCTION, 2, get_token, NULL);
  CHECK(handle != NULL && handle->chunk_size == 5242880u);
  char url[ZEL_URL_SIZE];
  CHECK(zel_set_environment_url(ZEL_ENV_PRODUCTION, "http://127.0.0.1:1") == 0);
  CHECK(zel_api_url(handle, url, "/buckets/%s", "b1") == (int)strlen("http://127.0.0.1:1/zel/v2/buckets/b1"));
  CHECK(zel_set_environment_url(ZEL_ENV_PRODUCTION, NULL) == 0);

  ZELHeaders* headers = zel_headers_append(NULL, "X-Trace", "abc");
  CHECK(strcmp(zel_headers_find(headers, "X-Trace"), "abc") == 0);
  zel_headers_cleanup(headers);
  const char16_t* key = u"caf\u00e9";
  CHECK(key[3] == 0x00E9);

  zel_logger_init(sink);
  zel_log(NULL, "src\\zel", __LINE__, "from C %d", 1);
  zel_logger_init(NULL);
  CHECK(lines_logged == 1);

  KRIApplyPatchOpt apply = {u"bucket", u"base", u"new", "00", 5, 0, NULL, NULL, NULL};
  KRIApplyPatchResp job = {0, 0, NULL, NULL};
  CHECK(kri_apply_patch(NULL, &apply, &job) != NULL);
  zel_cleanup(handle);
  if (failures == 0) printf("c_api_test: ok\n");
  return failures == 0 ? 0 : 1;
}
