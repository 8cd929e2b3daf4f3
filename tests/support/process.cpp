#include "process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <utility>

extern char** environ;

namespace tondrel::test {

namespace {

struct Child {
  pid_t pid;
  int in, out, err;
};

// Starts the binary with pipes on its three standard streams; our ends are returned.
Child spawn(const Launch& launch) {
  std::vector<std::string> entries(launch.environment);
  for (char** entry = environ; *entry; ++entry) entries.emplace_back(*entry);  // ours win: first found
  std::vector<char*> envp;
  for (auto& entry : entries) envp.push_back(entry.data());
  envp.push_back(nullptr);

  int in[2], out[2], err[2];
  if (::pipe(in) || ::pipe(out) || ::pipe(err)) throw std::runtime_error("pipe");
  if (launch.nonBlockingOutput) ::fcntl(out[1], F_SETFL, O_NONBLOCK);
  pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(in[0], 0), ::dup2(out[1], 1), ::dup2(err[1], 2);
    for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) ::close(fd);
    if (launch.closedOutput) ::close(1);
    if (launch.addressSpace) {
      rlimit limit{launch.addressSpace, launch.addressSpace};
      ::setrlimit(RLIMIT_AS, &limit);
    }
    char binary[] = TONDREL_MCP_BINARY;
    char* argv[] = {binary, nullptr};
    ::execve(binary, argv, envp.data());
    ::_exit(127);
  }
  ::close(in[0]), ::close(out[1]), ::close(err[1]);
  ::signal(SIGPIPE, SIG_IGN);
  return {pid, in[1], out[0], err[0]};
}

int exitStatus(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

Finished runServer(std::string_view input, const std::vector<std::string>& environment) {
  Child child = spawn(Launch{environment});
  int in[] = {-1, child.in}, out[] = {child.out, -1}, err[] = {child.err, -1};
  ::fcntl(in[1], F_SETFL, O_NONBLOCK);

  Finished finished;
  std::size_t written = 0;
  if (input.empty()) ::close(in[1]), in[1] = -1;
  char chunk[1 << 16];
  while (out[0] >= 0 || err[0] >= 0) {
    pollfd fds[] = {{in[1], POLLOUT, 0}, {out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    ::poll(fds, 3, -1);
    if (in[1] >= 0 && fds[0].revents) {
      ssize_t n = ::write(in[1], input.data() + written, input.size() - written);
      if (n > 0) written += n;
      if (n < 0 || written == input.size()) ::close(in[1]), in[1] = -1;
    }
    struct Stream {
      short revents;
      int* fd;
      std::string* sink;
    };
    for (Stream s :
         {Stream{fds[1].revents, &out[0], &finished.out}, Stream{fds[2].revents, &err[0], &finished.err}}) {
      if (*s.fd < 0 || !s.revents) continue;
      ssize_t n = ::read(*s.fd, chunk, sizeof chunk);
      if (n > 0)
        s.sink->append(chunk, n);
      else
        ::close(*s.fd), *s.fd = -1;
    }
  }
  if (in[1] >= 0) ::close(in[1]);
  int status = 0;
  ::waitpid(child.pid, &status, 0);
  finished.status = exitStatus(status);
  return finished;
}

ServerProcess::ServerProcess(const Launch& launch) {
  Child child = spawn(launch);
  pid_ = child.pid, in_ = child.in, out_ = child.out, err_ = child.err;
}

ServerProcess::~ServerProcess() {
  closeInput();
  closeOutput();
  if (wait(5) == -1 && pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  ::close(err_);
}

std::string ServerProcess::errors() {
  std::string text;
  char chunk[4096];
  for (ssize_t n; (n = ::read(err_, chunk, sizeof chunk)) > 0;) text.append(chunk, n);
  return text;
}

void ServerProcess::send(std::string_view text) {
  while (!text.empty()) {
    ssize_t n = ::write(in_, text.data(), text.size());
    if (n <= 0) return;
    text.remove_prefix(n);
  }
}

std::string ServerProcess::readLine() {
  char chunk[1 << 16];
  for (;;) {
    if (auto lf = pending_.find('\n'); lf != std::string::npos) {
      std::string line = pending_.substr(0, lf);
      pending_.erase(0, lf + 1);
      return line;
    }
    ssize_t n = out_ < 0 ? 0 : ::read(out_, chunk, sizeof chunk);
    if (n <= 0) return std::exchange(pending_, "");
    pending_.append(chunk, n);
  }
}

std::string ServerProcess::readAll() {
  std::string all = std::exchange(pending_, "");
  char chunk[1 << 16];
  for (ssize_t n; out_ >= 0 && (n = ::read(out_, chunk, sizeof chunk)) > 0;) all.append(chunk, n);
  return all;
}

void ServerProcess::closeInput() {
  if (in_ >= 0) ::close(in_), in_ = -1;
}

void ServerProcess::closeOutput() {
  if (out_ >= 0) ::close(out_), out_ = -1;
}

int ServerProcess::wait(int seconds) {
  for (int tick = 0; pid_ > 0 && tick <= seconds * 100; ++tick) {
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return status_ = exitStatus(status);
    }
    ::usleep(10000);
  }
  return pid_ > 0 ? -1 : status_;
}

}  // namespace tondrel::test
