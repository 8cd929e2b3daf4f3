// Runs the built tondrel-mcp as a host would: real pipes, its own environment.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tondrel::test {

// The environment entry that points a tondrel-mcp at an editor on this port.
std::string editorAt(int port);

// A tools/call line, and the answer line of one whose editor answered 200 with
// text (as it stands inside a JSON string).
std::string toolCall(std::string_view tool, int id = 1, std::string_view arguments = "{}");
std::string answered(std::string_view text, int id = 1);

// AddressSanitizer maps terabytes of shadow memory up front and keeps freed blocks
// in quarantine: neither a cap on address space nor resident memory means the same under it.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kUnderAddressSanitizer = true;
#elif defined(__has_feature)
constexpr bool kUnderAddressSanitizer = __has_feature(address_sanitizer);
#else
constexpr bool kUnderAddressSanitizer = false;
#endif

// How a tondrel-mcp is started besides its environment entries ("NAME=value",
// added to this process's own).
struct Launch {
  std::vector<std::string> environment;
  std::size_t addressSpace = 0;    // bytes of address space it may map, as `ulimit -v` sets; 0: no limit
  bool nonBlockingOutput = false;  // its standard output is a pipe in non-blocking mode
  bool closedOutput = false;       // it starts with descriptor 1 closed
  std::vector<std::string> command = {};  // another program to run instead, by its path, and its arguments
};

// A running tondrel-mcp (or another program, such as an editor) driven a line at a time, for
// sessions that change the world between calls. Killed when destroyed, if still running.
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
  std::string errors();             // all it wrote on standard error; call once it has exited
  std::size_t residentMiB() const;  // 0 where the system does not tell
  std::size_t mappedBytes() const;  // its address space in use; 0 where the system does not tell
  // Caps its address space from now on, as `prlimit` does (0 lifts the cap); false
  // where the system cannot.
  bool capAddressSpace(std::size_t bytes);
  int pid() const { return pid_; }  // -1 once it has exited

 private:
  ssize_t readSome(char* buffer, std::size_t size);

  int pid_ = -1, in_ = -1, out_ = -1, err_ = -1, status_ = -1;
  std::string pending_;
};

}  // namespace tondrel::test
