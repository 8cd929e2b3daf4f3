// Runs the built tondrel-mcp as a host would: real pipes, its own environment.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tondrel::test {

struct Finished {
  std::string out;
  std::string err;
  int status = -1;  // exit status, or -1 when it did not exit normally
};

// How a tondrel-mcp is started besides its environment entries ("NAME=value",
// added to this process's own).
struct Launch {
  std::vector<std::string> environment;
  std::size_t addressSpace = 0;    // bytes of address space it may map, as `ulimit -v` sets; 0: no limit
  bool nonBlockingOutput = false;  // its standard output is a pipe in non-blocking mode
  bool closedOutput = false;       // it starts with descriptor 1 closed
};

// Feeds input to a fresh tondrel-mcp and collects all it writes until it exits.
// environment entries ("NAME=value") are added to this process's own.
Finished runServer(std::string_view input, const std::vector<std::string>& environment = {});

// A running tondrel-mcp driven a line at a time, for sessions that change the
// world between calls. Killed when destroyed, if still running.
class ServerProcess {
 public:
  explicit ServerProcess(const std::vector<std::string>& environment = {})
      : ServerProcess(Launch{environment}) {}
  explicit ServerProcess(const Launch& launch);
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  void send(std::string_view text);
  std::string readLine();  // "" at the end of its output
  std::string readAll();   // everything until it closes its output
  void closeInput();
  void closeOutput();  // as a host that stops reading
  // Exit status once it has exited within seconds; -1 otherwise, or if killed by a signal.
  int wait(int seconds);
  std::string errors();  // all it wrote on standard error; call once it has exited
  int pid() const { return pid_; }

 private:
  ssize_t readSome(char* buffer, std::size_t size);

  int pid_ = -1, in_ = -1, out_ = -1, err_ = -1, status_ = -1;
  std::string pending_;
};

}  // namespace tondrel::test
