// One upload or download through the library, for bench/transfer_bench.sh.
//
// usage: zel_transfer put|get BASE_URL BUCKET KEY FILE
// Prints "seconds bytes peak_rss_kib" and exits 0 when the transfer
// reported success, 1 otherwise (with the library's code and message).
#include <sys/resource.h>
#include <zel/zel.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

namespace {

struct Result {
  std::mutex mutex;
  std::condition_variable changed;
  bool finished = false;
  bool ok = false;
  uint64_t bytes = 0;
  int code = 0;
  std::string message;

  void finish(bool success, int status, const char* text) {
    std::lock_guard<std::mutex> lock(mutex);
    finished = true;
    ok = success;
    code = status;
    message = text != nullptr ? text : "";
    changed.notify_all();
  }
};

char* get_token() { return strdup("local-dev-token"); }
void free_token(char* token) { free(token); }

template <class Resp>
void on_status(const Resp* resp, void* user_data) {
  static_cast<Result*>(user_data)->finish(false, resp->code, resp->message);
}
void on_details(const ZELObjectDetails* details, void* user_data) {
  auto* result = static_cast<Result*>(user_data);
  result->bytes = details != nullptr ? details->size : 0;
  result->finish(details != nullptr, 0, nullptr);
}
void on_done(void* user_data) { static_cast<Result*>(user_data)->finish(true, 0, nullptr); }

std::u16string wide(const char* text) { return std::u16string(text, text + strlen(text)); }

int usage() {
  fprintf(stderr, "usage: zel_transfer put|get BASE_URL BUCKET KEY FILE [CHUNK_BYTES]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if ((argc != 6 && argc != 7) || (strcmp(argv[1], "put") != 0 && strcmp(argv[1], "get") != 0))
    return usage();
  uint64_t chunk = argc == 7 ? strtoull(argv[6], nullptr, 10) : 0;
  bool put = strcmp(argv[1], "put") == 0;
  if (zel_global_init() != 0 || zel_set_environment_url(ZEL_ENV_LOCAL, argv[2]) != 0) return usage();
  ZEL* handle = zel_init(ZEL_ENV_LOCAL, 2, get_token, free_token);
  if (chunk != 0) handle->chunk_size = chunk;
  std::u16string bucket = wide(argv[3]), key = wide(argv[4]), file = wide(argv[5]);
  ZELStream* stream = zel_stream_init(file.c_str());
  Result result;
  auto start = std::chrono::steady_clock::now();
  if (put) {
    ZELPutObjectOpt opt{};
    opt.bucket_key = bucket.c_str();
    opt.key = key.c_str();
    opt.stream = stream;
    opt.callback = on_status<ZELPutObjectResp>;
    opt.details_callback = on_details;
    zel_put_object(handle, &opt, &result);
  } else {
    ZELGetObjectOpt opt{};
    opt.bucket_key = bucket.c_str();
    opt.key = key.c_str();
    opt.stream = stream;
    opt.callback = on_status<ZELGetObjectResp>;
    opt.done_callback = on_done;
    zel_get_object(handle, &opt, &result);
  }
  {
    std::unique_lock<std::mutex> lock(result.mutex);
    result.changed.wait(lock, [&] { return result.finished; });
  }
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  zel_stream_cleanup(stream);
  zel_cleanup(handle);
  zel_global_cleanup();
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  if (!result.ok) {
    fprintf(stderr, "transfer failed: %d %s\n", result.code, result.message.c_str());
    return 1;
  }
  printf("%.3f %llu %ld\n", seconds, static_cast<unsigned long long>(result.bytes), usage.ru_maxrss);
  return 0;
}
