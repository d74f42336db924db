/* Builds the service URLs a handle addresses and shows the handle defaults.
 * Run: ./url_example */
#include <stdio.h>
#include <zel/zel.h>

static char* no_token(void) { return NULL; }

int main(void) {
  ZEL* handle = zel_init(ZEL_ENV_LOCAL, 2, no_token, NULL);
  if (handle == NULL) return 1;
  char url[ZEL_URL_SIZE];
  if (zel_api_url(handle, url, "/buckets/%s/details", "my-bucket") < 0) return 1;
  printf("details URL: %s\n", url);
  printf("chunk size: %llu bytes, retries: %u\n", (unsigned long long)handle->chunk_size,
         handle->max_retries);
  zel_cleanup(handle);
  return 0;
}
