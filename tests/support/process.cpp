#include "process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "editor_port.hpp"

extern char** environ;

namespace tondrel::test {

std::string editorAt(int port) {
  return std::string(kPortVariable) + "=" + std::to_string(port);
}

std::string toolCall(std::string_view tool, int id, std::string_view arguments) {
  return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"method":"tools/call","params":{"name":")" +
         std::string(tool) + R"(","arguments":)" + std::string(arguments) + "}}\n";
}

std::string answered(std::string_view text, int id) {
  return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) +
         R"(,"result":{"content":[{"type":"text","text":")" + std::string(text) + R"("}],"isError":false}})";
}

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
  std::vector<std::string> command = launch.command;
  // Another build of tondrel-mcp may stand in, to see what a test finds in it.
  const char* other = std::getenv("TONDREL_TEST_BINARY");
  if (command.empty()) command.emplace_back(other && *other ? other : TONDREL_MCP_BINARY);
  std::vector<char*> argv;
  for (auto& word : command) argv.push_back(word.data());
  argv.push_back(nullptr);

  // Tests start servers from several threads at once: no child may inherit another
  // child's pipes, or that one would never see the end of its input.
  static std::mutex spawning;
  std::lock_guard lock(spawning);
  int in[2], out[2], err[2];
  if (::pipe(in) || ::pipe(out) || ::pipe(err)) throw std::runtime_error("pipe");
  for (int fd : {in[1], out[0], err[0]}) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
  if (launch.nonBlockingOutput) ::fcntl(out[1], F_SETFL, O_NONBLOCK);
  pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(in[0], 0), ::dup2(out[1], 1), ::dup2(err[1], 2);
    for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) ::close(fd);
    if (launch.closedOutput) ::close(1);
    ::signal(SIGPIPE, SIG_DFL);  // as a host leaves it, not as this process ignores it
    if (launch.addressSpace) {
      rlimit limit{launch.addressSpace, launch.addressSpace};
      ::setrlimit(RLIMIT_AS, &limit);
    }
    ::execve(argv[0], argv.data(), envp.data());
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

// A server silent for a minute counts as finished, so that a test of a server
// that hangs fails instead of hanging with it.
ssize_t ServerProcess::readSome(char* buffer, std::size_t size) {
  pollfd ready{out_, POLLIN, 0};
  if (out_ < 0 || ::poll(&ready, 1, 60000) != 1) return 0;
  return ::read(out_, buffer, size);
}

std::string ServerProcess::readLine() {
  char chunk[1 << 16];
  for (;;) {
    if (auto lf = pending_.find('\n'); lf != std::string::npos) {
      std::string line = pending_.substr(0, lf);
      pending_.erase(0, lf + 1);
      return line;
    }
    ssize_t n = readSome(chunk, sizeof chunk);
    if (n <= 0) return std::exchange(pending_, "");
    pending_.append(chunk, n);
  }
}

std::string ServerProcess::readAll() {
  std::string all = std::exchange(pending_, "");
  char chunk[1 << 16];
  for (ssize_t n; (n = readSome(chunk, sizeof chunk)) > 0;) all.append(chunk, n);
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

namespace {

// A figure of /proc/<pid>/status, in KiB; 0 where the system has none.
std::size_t statusKiB([[maybe_unused]] int pid, [[maybe_unused]] std::string_view name) {
#ifdef __linux__
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with(name)) return std::stoul(line.substr(name.size()));
#endif
  return 0;
}

}  // namespace

std::size_t ServerProcess::residentMiB() const {
  return statusKiB(pid_, "VmRSS:") >> 10;
}

std::size_t ServerProcess::mappedBytes() const {
  return statusKiB(pid_, "VmSize:") << 10;
}

bool ServerProcess::capAddressSpace([[maybe_unused]] std::size_t bytes) {
#ifdef __linux__
  rlimit limit{bytes ? bytes : RLIM_INFINITY, RLIM_INFINITY};  // the soft cap alone, which it may lift
  return ::prlimit(pid_, RLIMIT_AS, &limit, nullptr) == 0;
#else
  return false;
#endif
}

}  // namespace tondrel::test
