#include "zel_server.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <dirent.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <poll.h>
#include <signal.h>
#include <strings.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <stdexcept>

#ifndef ZEL_SERVER_BIN
#define ZEL_SERVER_BIN ZEL_BIN_DIR "/zel-server"
#endif

namespace zeltest {

const char kAuthHeader[] = "Authorization: Bearer local-dev-token";

namespace {

std::string find_header(const HeaderList& headers, const std::string& name) {
  for (const auto& h : headers)
    if (strcasecmp(h.first.c_str(), name.c_str()) == 0) return h.second;
  return std::string();
}

size_t on_body(char* data, size_t size, size_t n, void* out) {
  static_cast<std::string*>(out)->append(data, size * n);
  return size * n;
}

size_t on_header(char* data, size_t size, size_t n, void* out) {
  std::string line(data, size * n);
  auto* result = static_cast<HttpResult*>(out);
  if (line.compare(0, 5, "HTTP/") == 0) result->headers.clear();  // a 100 Continue came first
  size_t colon = line.find(':');
  if (colon != std::string::npos) {
    size_t b = line.find_first_not_of(' ', colon + 1);
    size_t e = line.find_last_not_of("\r\n");
    result->headers.emplace_back(line.substr(0, colon),
                                 b == std::string::npos || e < b ? "" : line.substr(b, e - b + 1));
  }
  return size * n;
}

void remove_tree(const std::string& path) {
  if (DIR* d = opendir(path.c_str())) {
    while (dirent* e = readdir(d)) {
      if (!strcmp(e->d_name, ".") || !strcmp(e->d_name, "..")) continue;
      std::string child = path + "/" + e->d_name;
      struct stat st;
      if (lstat(child.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        remove_tree(child);
      else
        unlink(child.c_str());
    }
    closedir(d);
  }
  rmdir(path.c_str());
}

// Reads the child's first line of output, waiting at most `ms`.
std::string read_line(int fd, int ms) {
  std::string line;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (line.find('\n') == std::string::npos) {
    int left = static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now())
            .count());
    pollfd p{fd, POLLIN, 0};
    if (left <= 0 || poll(&p, 1, left) <= 0) break;
    char buf[256];
    ssize_t n = read(fd, buf, sizeof(buf));
    if (n <= 0) break;
    line.append(buf, static_cast<size_t>(n));
  }
  return line.substr(0, line.find('\n'));
}

}  // namespace

std::string HttpResult::header(const std::string& name) const { return find_header(headers, name); }

std::string RecordedRequest::header(const std::string& name) const { return find_header(headers, name); }

HttpResult http(const std::string& method, const std::string& url, const std::vector<std::string>& headers,
                const std::string& body) {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  HttpResult result;
  CURL* curl = curl_easy_init();
  curl_slist* list = nullptr;
  for (const auto& h : headers) list = curl_slist_append(list, h.c_str());
  // Without this libcurl waits for a 100 Continue before sending a body.
  list = curl_slist_append(list, "Expect:");
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
  if (method == "HEAD") curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
  if (!body.empty() || method == "POST" || method == "PUT") {
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  }
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, list);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, on_body);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &result.body);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, on_header);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &result);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 120L);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  CURLcode rc = curl_easy_perform(curl);
  if (rc != CURLE_OK) result.error = curl_easy_strerror(rc);
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &result.status);
  curl_slist_free_all(list);
  curl_easy_cleanup(curl);
  return result;
}

JsonPtr parse_json(const std::string& text) {
  json_error_t err;
  return JsonPtr(json_loadb(text.data(), text.size(), JSON_REJECT_DUPLICATES, &err));
}

std::string json_str(const json_t* object, const char* key) {
  const json_t* v = json_object_get(object, key);
  return json_is_string(v) ? json_string_value(v) : "";
}

long long json_int(const json_t* object, const char* key) {
  const json_t* v = json_object_get(object, key);
  return json_is_integer(v) ? json_integer_value(v) : -999;
}

std::vector<std::string> json_keys(const json_t* object) {
  std::vector<std::string> keys;
  const char* k;
  json_t* v;
  if (json_is_object(object)) json_object_foreach(const_cast<json_t*>(object), k, v) keys.push_back(k);
  std::sort(keys.begin(), keys.end());
  return keys;
}

std::string sha1_hex(const std::string& data) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EVP_Digest(data.data(), data.size(), md, &len, EVP_sha1(), nullptr);
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  for (unsigned int i = 0; i < len; ++i) out += {kHex[md[i] >> 4], kHex[md[i] & 15]};
  return out;
}

long elapsed_ms(std::chrono::steady_clock::time_point since) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since)
          .count());
}

ScratchDir::ScratchDir() {
  char tmpl[] = "/tmp/zel-test-XXXXXX";
  path_ = mkdtemp(tmpl) != nullptr ? tmpl : "";
}

ScratchDir::~ScratchDir() {
  if (!path_.empty()) remove_tree(path_);
}

std::string ScratchDir::write(const std::string& name, const std::string& data) const {
  std::ofstream(file(name), std::ios::binary | std::ios::trunc) << data;
  return file(name);
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool file_exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::vector<std::string> dir_entries(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string pattern_bytes(size_t size, uint32_t seed) {
  std::string out(size, '\0');
  uint32_t x = seed * 2654435761u + 1;
  for (size_t i = 0; i < size; ++i) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    out[i] = static_cast<char>(x);
  }
  return out;
}

ServerProcess::ServerProcess(std::vector<std::string> extra_args) : extra_args_(std::move(extra_args)) {}

ServerProcess::~ServerProcess() {
  stop();
  if (!data_dir_.empty()) remove_tree(data_dir_);
}

std::string ServerProcess::base_url() const { return "http://127.0.0.1:" + std::to_string(port_); }

bool ServerProcess::start() {
  if (data_dir_.empty()) {
    const char* tmp = std::getenv("TMPDIR");
    std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/zel-test-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data())) return error_ = "mkdtemp failed", false;
    data_dir_ = buf.data();
  }
  return launch();
}

bool ServerProcess::launch() {
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) return error_ = "pipe failed", false;
  std::vector<std::string> args = {ZEL_SERVER_BIN, "--port", "0", "--test-api", "--data", data_dir_};
  args.insert(args.end(), extra_args_.begin(), extra_args_.end());
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlive a crashed test
    dup2(out[1], 1);
    int log = log_path_.empty() ? -1 : open(log_path_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (log >= 0) dup2(log, 2);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  std::string line = read_line(out[0], 20000);
  close(out[0]);
  const std::string prefix = "listening on http://";
  size_t colon = line.rfind(':');
  if (pid_ < 0 || line.compare(0, prefix.size(), prefix) != 0 || colon == std::string::npos) {
    error_ = "zel-server did not start (" + std::string(ZEL_SERVER_BIN) + "): '" + line + "'";
    kill9();
    return false;
  }
  port_ = std::atoi(line.c_str() + colon + 1);
  return true;
}

void ServerProcess::reap() {
  if (pid_ > 0) waitpid(pid_, &wait_status_, 0);
  pid_ = -1;
}

void ServerProcess::stop() {
  if (pid_ > 0) kill(pid_, SIGTERM);
  reap();
}

void ServerProcess::kill9() {
  if (pid_ > 0) kill(pid_, SIGKILL);
  reap();
}

bool ServerProcess::restart() {
  stop();
  return launch();
}

std::vector<RecordedRequest> ServerProcess::requests() {
  std::vector<RecordedRequest> out;
  JsonPtr arr = parse_json(http("GET", base_url() + "/_emulator/requests", {kAuthHeader}).body);
  size_t i, k;
  json_t *e, *h;
  json_array_foreach(arr.get(), i, e) {
    RecordedRequest r;
    r.method = json_string_value(json_object_get(e, "method"));
    r.target = json_string_value(json_object_get(e, "target"));
    r.body_size = static_cast<uint64_t>(json_integer_value(json_object_get(e, "body_size")));
    r.status = static_cast<int>(json_integer_value(json_object_get(e, "status")));
    const char* principal = json_string_value(json_object_get(e, "principal"));
    r.principal = principal ? principal : "";
    json_array_foreach(json_object_get(e, "headers"), k, h) {
      r.headers.emplace_back(json_string_value(json_array_get(h, 0)),
                             json_string_value(json_array_get(h, 1)));
    }
    out.push_back(r);
  }
  return out;
}

int listen_loopback(int* port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(fd, 64) != 0 || ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    if (fd >= 0) ::close(fd);
    throw std::runtime_error("cannot listen on a loopback port");
  }
  *port = ntohs(address.sin_port);
  return fd;
}

bool send_all(int fd, const char* data, size_t size) {
  for (size_t sent = 0; sent < size;) {
    ssize_t n = ::send(fd, data + sent, size - sent, MSG_NOSIGNAL);
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

bool ServerProcess::make_bucket(const std::string& key, const std::string& policy) {
  return http("POST", api(2) + "/buckets", {kAuthHeader, "Content-Type: application/json"},
              R"({"bucketKey":")" + key + R"(","policyKey":")" + policy + R"(","allow":[]})")
             .status == 200;
}

bool ServerProcess::clear_requests() {
  return http("DELETE", base_url() + "/_emulator/requests", {kAuthHeader}).status == 200;
}

bool ServerProcess::add_fault(const std::string& rule_json) {
  return http("POST", base_url() + "/_emulator/faults", {kAuthHeader, "Content-Type: application/json"},
              rule_json)
             .status == 200;
}

bool ServerProcess::clear_faults() {
  return http("DELETE", base_url() + "/_emulator/faults", {kAuthHeader}).status == 200;
}

}  // namespace zeltest
