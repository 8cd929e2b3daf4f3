// Processes on pipes, started and spoken to as an MCP host does.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

struct Child {
  pid_t pid = -1;
  int in = -1, out = -1;
  Child() = default;
  Child(Child&& other) noexcept { *this = std::move(other); }
  Child& operator=(Child&& other) noexcept {
    std::swap(pid, other.pid), std::swap(in, other.in), std::swap(out, other.out);
    return *this;
  }
  ~Child() {  // only reached early when something failed: the process is ours to end
    if (in >= 0) ::close(in);
    if (out >= 0) ::close(out);
    if (pid > 0) ::kill(pid, SIGKILL), ::waitpid(pid, nullptr, 0);
  }
};

// posix_spawn is fork and exec without copying this driver's page tables: they
// are large (payloads, answer buffer), and copying them would count as start-up.
// The process inherits the CPU the driver is pinned to.
inline Child spawn(std::vector<std::string> argv, const std::vector<std::string>& environment) {
  std::vector<char*> args, env;
  for (auto& a : argv) args.push_back(a.data());
  for (auto& e : environment) env.push_back(const_cast<char*>(e.c_str()));
  args.push_back(nullptr), env.push_back(nullptr);
  int toChild[2], fromChild[2];
  if (::pipe2(toChild, O_CLOEXEC) || ::pipe2(fromChild, O_CLOEXEC)) throw std::runtime_error("pipe");
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, toChild[0], 0);
  ::posix_spawn_file_actions_adddup2(&actions, fromChild[1], 1);
  Child c;
  int error = ::posix_spawn(&c.pid, args[0], &actions, nullptr, args.data(), env.data());
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(toChild[0]), ::close(fromChild[1]);
  c.in = toChild[1], c.out = fromChild[0];
  if (error) c.pid = -1;
  if (error) throw std::runtime_error("cannot start " + argv[0]);
  ::fcntl(c.in, F_SETFL, O_NONBLOCK);
  return c;
}

// Answers land here: paged in once and reused, so the driver's own page faults
// never count against the process measured.
inline std::string sink;

// Writes `request` while reading answers, until `lines` whole lines have come.
inline std::string_view exchange(Child& c, std::string_view request, std::size_t lines) {
  std::size_t used = 0, seen = 0;
  for (;;) {
    while (!request.empty()) {
      ssize_t n = ::write(c.in, request.data(), request.size());
      if (n > 0)
        request.remove_prefix(n);
      else if (errno == EAGAIN)
        break;
      else if (errno != EINTR)
        throw std::runtime_error("the process stopped reading");
    }
    if (seen >= lines && request.empty()) break;  // lines == 0: a notification, nothing comes back
    pollfd fds[2] = {{c.out, POLLIN, 0}, {request.empty() ? -1 : c.in, POLLOUT, 0}};
    if (::poll(fds, 2, 60'000) <= 0) throw std::runtime_error("no answer within 60 s");
    if (!fds[0].revents) continue;
    if (sink.size() - used < (1 << 20)) sink.resize(sink.size() * 2);
    ssize_t n = ::read(c.out, sink.data() + used, sink.size() - used);
    if (n == 0) throw std::runtime_error("the process ended before answering");
    if (n < 0 && errno != EINTR) throw std::runtime_error("read failed");
    if (n > 0) seen += std::count(sink.data() + used, sink.data() + used + n, '\n'), used += n;
  }
  if (seen != lines || (used && sink[used - 1] != '\n'))
    throw std::runtime_error("output beyond the answers asked for");
  return {sink.data(), used};
}

// Closes standard input as a host does when it is done: the process must end
// cleanly, without writing anything more.
inline bool finish(Child& c) {
  ::close(c.in), c.in = -1;
  char rest[256];
  ssize_t n, extra = 0;
  while ((n = ::read(c.out, rest, sizeof rest)) > 0 || (n < 0 && errno == EINTR))
    extra += std::max<ssize_t>(n, 0);
  int status = 0;
  ::waitpid(c.pid, &status, 0), c.pid = -1;
  return extra == 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// MiB from /proc/<pid>/status: "VmRSS" now, or "VmHWM" the peak so far.
inline double mebibytes(pid_t pid, std::string_view field) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with(field)) return std::stod(line.substr(field.size() + 1)) / 1024;
  return 0;
}

// The instructions counted in a callgrind output file, which is then removed.
inline double callgrindTotal(const std::string& file) {
  std::ifstream out(file);
  double total = 0;
  for (std::string line; std::getline(out, line);)
    if (line.starts_with("totals:") || line.starts_with("summary:"))
      total = std::stod(line.substr(line.find(':') + 1));
  std::remove(file.c_str());
  return total;
}

inline std::string which(std::string_view name) {
  std::istringstream path(std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin");
  for (std::string dir; std::getline(path, dir, ':');)
    if (::access((dir + "/" + std::string(name)).c_str(), X_OK) == 0) return dir + "/" + std::string(name);
  return "";
}

}  // namespace bench
