// tondrel-mcp: the MCP server on standard input and output, bridged to the
// Tondrel editor's local HTTP API. Start-up and the wiring of the layers.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <memory>
#include <string>

#include "build_info.hpp"
#include "curl_transport.hpp"
#include "line_loop.hpp"
#include "server.hpp"
#include "standard_input.hpp"

#ifdef __GLIBC__
#include <malloc.h>
#endif

extern char** environ;

namespace {

// A descriptor 0-2 that the host left closed would be the first one the editor
// client opens: answers would go into its socket.
void holdStandardDescriptors() {
  for (int fd = 0; fd <= 2; ++fd)
    if (::fcntl(fd, F_GETFD) < 0) ::open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY);
}

// A large line or answer crosses a pipe of 64 KiB in hundreds of turns, each a
// wake-up of the other side; 1 MiB, what Linux grants without privilege, takes
// sixteen times fewer. Best effort: a terminal or a file stays as it is.
void widenPipes() {
#ifdef F_SETPIPE_SZ
  for (int fd : {0, 1}) ::fcntl(fd, F_SETPIPE_SZ, 1 << 20);
#endif
}

std::map<std::string, std::string> environment() {
  std::map<std::string, std::string> variables;
  for (char** entry = environ; *entry; ++entry) {
    std::string text(*entry);
    auto equals = text.find('=');
    if (equals != std::string::npos) variables.emplace(text.substr(0, equals), text.substr(equals + 1));
  }
  return variables;
}

// The loop's lines go to the server; while the loop waits for one, it looks after
// the connection the editor client keeps.
class Bridge final : public tondrel::LineHandler, public tondrel::IdleWatch {
 public:
  Bridge(tondrel::TondrelMCPServer& server, tondrel::CurlClient& editor) : server_(server), editor_(editor) {}

  bool answer(std::string_view line, tondrel::Buffer& out) override { return server_.handle(line, out); }
  void finish(tondrel::Buffer& out) override { server_.runCall(out); }
  void unreadable(tondrel::Buffer& out) override { server_.unreadable(out); }
  void release() override { server_.release(); }

  int descriptor() const override { return editor_.idleConnection(); }
  void expire() override { editor_.closeIdleConnection(); }
  void stayedQuiet() override { editor_.idleConnectionWasQuiet(); }

 private:
  tondrel::TondrelMCPServer& server_;
  tondrel::CurlClient& editor_;
};

}  // namespace

int main() {
  holdStandardDescriptors();
  widenPipes();
  // A host that stops reading must end the process through a failed write, not a signal.
  std::signal(SIGPIPE, SIG_IGN);
#ifdef __GLIBC__
  // Large blocks come from their own mappings, so that freeing them gives them back.
  ::mallopt(M_MMAP_THRESHOLD, 1 << 20);
#endif
  std::string base = tondrel::apiBaseURL(environment());
  auto editor = std::make_shared<tondrel::CurlClient>(base, 30.0);
  tondrel::TondrelMCPServer server(tondrel::curlTransport(editor), base, tondrel::kVersion);

  Bridge bridge(server, *editor);
  tondrel::StandardInput input(0, 1, &bridge);
  tondrel::LineReader lines(input, simdjson::SIMDJSON_PADDING);
  tondrel::AnswerWriter answers(1);
  tondrel::serveLines(lines, answers, bridge);
  return 0;
}
