/* Uses the public interface from C: records, lists, URLs, logging. */
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
  CHECK(handle != NULL);
  CHECK(handle->chunk_size == 5242880u);

  char url[ZEL_URL_SIZE];
  CHECK(zel_set_environment_url(ZEL_ENV_PRODUCTION, "http://127.0.0.1:1") == 0);
  int n = zel_api_url(handle, url, "/buckets/%s/details", "b1");
  CHECK(strcmp(url, "http://127.0.0.1:1/zel/v2/buckets/b1/details") == 0);
  CHECK(n == (int)strlen(url));
  CHECK(zel_set_environment_url(ZEL_ENV_PRODUCTION, NULL) == 0);

  ZELHeaders* headers = zel_headers_append(NULL, "X-Trace", "abc");
  headers = zel_headers_append(headers, "Accept", "application/json");
  CHECK(strcmp(zel_headers_find(headers, "X-Trace"), "abc") == 0);
  ZELHeaders* copy = zel_headers_clone(headers);
  CHECK(strcmp(copy->line, "X-Trace:abc") == 0);
  zel_headers_cleanup(copy);
  zel_headers_cleanup(headers);

  const char16_t* key = u"caf\u00e9";
  CHECK(key[3] == 0x00E9);

  zel_logger_init(sink);
  zel_log(NULL, "src\\zel", __LINE__, "from C %d", 1);
  zel_logger_init(NULL);
  CHECK(lines_logged == 1);

  KRI* kri = kri_init(ZEL_ENV_LOCAL, 1, get_token, NULL);
  CHECK(kri != NULL);
  CHECK(kri_api_url(kri, url, "/%s/%s", "applypatch", "id1") == 15);
  CHECK(strcmp(url, "/applypatch/id1") == 0);
  KRIApplyPatchOpt apply = {u"bucket", u"base", u"new", "00", 5, 0, NULL, NULL, NULL};
  KRIApplyPatchResp job = {0, 0, NULL, NULL};
  CHECK(strcmp(kri_apply_patch(NULL, &apply, &job),
               "One of the kri_apply_patch parameters (kri, opt, resp) are not initialized") == 0);
  kri_set_proxy(kri, "http://proxy:8080", NULL, NULL);
  kri_cleanup(kri);

  ZEL* copy_handle = zel_clone(handle);
  zel_set_proxy_with_credentials(copy_handle, "http://proxy:8080", "u", "p");
  zel_cleanup(copy_handle);
  zel_cleanup(handle);
  if (failures == 0) printf("c_api_test: ok\n");
  return failures == 0 ? 0 : 1;
}
