#pragma once
// Test support for what a well-behaved HTTP client never does: raw sockets
// that send a request slowly or not at all, and runs of zel-server whose
// exit and output are themselves the result.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

namespace zeltest {

// A connected loopback socket, or -1.
inline int raw_connect(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0) return fd;
  if (fd >= 0) close(fd);
  return -1;
}

inline bool raw_send(int fd, const std::string& bytes) {
  return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

// Reads until the peer closes or `ms` pass; true when it closed (any bytes
// it sent before are in `got`).
inline bool raw_closed_within(int fd, int ms, std::string* got = nullptr) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  for (;;) {
    auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd p{fd, POLLIN, 0};
    if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0) return false;
    char buf[4096];
    ssize_t n = recv(fd, buf, sizeof(buf), 0);
    if (n <= 0) return true;
    if (got) got->append(buf, static_cast<size_t>(n));
  }
}

struct ProgramRun {
  int wait_status = -1;
  bool timed_out = false;
  std::string out, err;
  bool exited(int code) const {
    return !timed_out && WIFEXITED(wait_status) && WEXITSTATUS(wait_status) == code;
  }
};

// Runs `argv` (argv[0] is the program) to its end, killing it after `ms`.
inline ProgramRun run_program(const std::vector<std::string>& argv, int ms) {
  ProgramRun run;
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0) return run;
  if (pipe2(err, O_CLOEXEC) != 0) return close(out[0]), close(out[1]), run;
  std::vector<std::string> args = argv;
  std::vector<char*> ptrs;
  for (auto& a : args) ptrs.push_back(&a[0]);
  ptrs.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(out[1], 1);
    dup2(err[1], 2);
    execv(ptrs[0], ptrs.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string* sinks[2] = {&run.out, &run.err};
  int open_fds = 2;
  while (open_fds > 0 && !run.timed_out) {
    auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || poll(fds, 2, static_cast<int>(left.count())) <= 0) {
      run.timed_out = true;
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP))) continue;
      char buf[4096];
      ssize_t n = read(fds[i].fd, buf, sizeof(buf));
      if (n > 0) {
        sinks[i]->append(buf, static_cast<size_t>(n));
      } else {
        fds[i].fd = -1;
        --open_fds;
      }
    }
  }
  if (run.timed_out && pid > 0) kill(pid, SIGKILL);
  if (pid > 0) waitpid(pid, &run.wait_status, 0);
  close(out[0]);
  close(err[0]);
  return run;
}

}  // namespace zeltest
