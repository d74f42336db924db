// One whole or patch transfer through the library's C++ layer, for
// bench/delta_sync_bench.sh.
//
// usage: zel_delta put|get|put-patch|get-patch BASE_URL BUCKET KEY FILE
//                  [BASE_KEY BASE_FILE]
//   put        FILE goes up whole as KEY
//   get        KEY comes down whole into FILE
//   put-patch  FILE goes up as KEY by a patch against BASE_KEY (= BASE_FILE)
//   get-patch  KEY comes down into FILE by the service's patch from BASE_KEY
// The client runs with the library's defaults; a slow link is the network's
// business (the bench script shapes one), not a per-request speed cap.
// Prints "seconds wire_bytes peak_rss_kib": wire_bytes are the body bytes
// of the transfer (the whole file, or the patch). Exit 0 on success, 3 when
// get-patch found no patch yet (the service was asked to make one), 4 when
// put-patch found the files too different, 1 on failure.
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <zel/zel.hpp>

namespace {

void discard_log(const char*) {}

int usage() {
  std::fprintf(
      stderr, "usage: zel_delta put|get|put-patch|get-patch BASE_URL BUCKET KEY FILE [BASE_KEY BASE_FILE]\n");
  return 2;
}

long peak_rss_kib() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

int failed(const zel::Error& error) {
  std::fprintf(stderr, "transfer failed: %d %s\n", error.code, error.message.c_str());
  return 1;
}

struct Run {
  int status = 0;
  uint64_t wire = 0;
};

Run whole(zel::Client& client, bool put, const std::string& bucket, const std::string& key,
          const std::string& file) {
  if (put) {
    auto r = client.put_object(file, bucket, key).get();
    if (!r || !r.value().details) return {r ? 1 : failed(r.error()), 0};
    return {0, r.value().details->size};
  }
  auto details = client.object_details(bucket, key).get();
  if (!details) return {failed(details.error()), 0};
  auto r = client.get_object(bucket, key, file).get();
  return {r ? 0 : failed(r.error()), details.value().size};
}

Run patch(zel::Client& client, bool put, const std::string& bucket, const std::string& key,
          const std::string& file, const std::string& base_key, const std::string& base_file) {
  zel::DeltaOptions options;
  options.ratio = 0.1;
  auto r = put ? client.put_patch(base_file, file, bucket, base_key, key, options).get()
               : client.get_patch(bucket, base_key, key, base_file, file, options).get();
  if (!r) return {failed(r.error()), 0};
  switch (r.value().outcome) {
    case zel::DeltaOutcome::kPatched:
      if (!r.value().patch_size) std::fprintf(stderr, "the patch's size was not seen\n");
      return {r.value().patch_size ? 0 : 1, r.value().patch_size.value_or(0)};
    case zel::DeltaOutcome::kPatchNotReady:
      return {3, 0};
    default:
      std::fprintf(stderr, "the files differ too much for a patch\n");
      return {4, 0};
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 6) return usage();
  std::string mode = argv[1];
  bool is_patch = mode == "put-patch" || mode == "get-patch";
  if (mode != "put" && mode != "get" && !is_patch) return usage();
  if (argc != (is_patch ? 8 : 6)) return usage();
  try {
    zel_logger_init(discard_log);  // a missing patch is an expected answer here
    zel::Library library;
    if (!zel::set_environment_url(ZEL_ENV_LOCAL, argv[2])) return usage();
    zel::set_token("local-dev-token");
    zel::Client client;
    bool put = mode[0] == 'p';
    auto start = std::chrono::steady_clock::now();
    Run run = is_patch ? patch(client, put, argv[3], argv[4], argv[5], argv[6], argv[7])
                       : whole(client, put, argv[3], argv[4], argv[5]);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (run.status != 0) return run.status;
    std::printf("%.3f %llu %ld\n", seconds, static_cast<unsigned long long>(run.wire), peak_rss_kib());
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zel_delta: %s\n", e.what());
    return 1;
  }
}
