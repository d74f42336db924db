// Uploads a file and downloads it back through the C++ layer.
// Run: ./transfer_example_cpp ENDPOINT FILE
// ENDPOINT is the service's base URL, for example http://127.0.0.1:9000
// (zel-server). The object lands in bucket "examples" (created on demand).
#include <cstdio>
#include <zel/zel.hpp>

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s ENDPOINT FILE\n", argv[0]);
    return 2;
  }
  zel::Library library;  // process-wide start-up until the end of main
  if (!zel::set_environment_url(ZEL_ENV_LOCAL, argv[1])) return 2;
  zel::set_token("local-dev-token");
  zel::Client client(ZEL_ENV_LOCAL, 2);
  client.settings().auto_create_bucket = 1;

  const std::string file = argv[2], key = "dossier/éxample-cpp.bin";
  zel::PutOptions options;
  options.progress = [](uint64_t sent, uint64_t total) {
    return sent <= total;  // returning false would cancel the upload
  };
  zel::Result<zel::UploadResult> put = client.put_object(file, "examples", key, options).get();
  if (!put || !put.value().details) {
    std::fprintf(stderr, "upload failed: %d %s\n", put ? 0 : put.error().code,
                 put ? "incomplete" : put.error().message.c_str());
    return 1;
  }
  std::printf("uploaded %s as examples/%s, sha1 %s\n", file.c_str(), key.c_str(),
              put.value().details->sha1.c_str());

  zel::Result<zel::Done> got = client.get_object("examples", key, file + ".copy").get();
  if (!got) {
    std::fprintf(stderr, "download failed: %d %s\n", got.error().code, got.error().message.c_str());
    return 1;
  }
  zel::Result<zel::ObjectDetails> details = client.object_details("examples", key).get();
  if (!details) return 1;
  std::printf("downloaded it back to %s.copy (%llu bytes)\n", file.c_str(),
              static_cast<unsigned long long>(details.value().size));
  return 0;
}
