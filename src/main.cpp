// tondrel-mcp: the MCP server on standard input and output, bridged to the
// Tondrel editor's local HTTP API.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <string>

#include "build_info.hpp"
#include "editor_client.hpp"
#include "server.hpp"
#include "stdio.hpp"

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

std::map<std::string, std::string> environment() {
  std::map<std::string, std::string> variables;
  for (char** entry = environ; *entry; ++entry) {
    std::string text(*entry);
    auto equals = text.find('=');
    if (equals != std::string::npos) variables.emplace(text.substr(0, equals), text.substr(equals + 1));
  }
  return variables;
}

// Answers each line of input, one line each, until input ends or the host stops
// reading. Answers to lines that arrive together go out in one write, but never
// wait behind a tool call, which may wait for the editor.
void serve(tondrel::TondrelMCPServer& server, int input, int output) {
  constexpr std::size_t kWriteAt = 64 * 1024;
  constexpr std::string_view kParseError =
      R"({"jsonrpc":"2.0","id":null,"error":{"code":-32700,"message":"parse error"}})"
      "\n";
  tondrel::LineReader lines(input, output, simdjson::SIMDJSON_PADDING);
  tondrel::AnswerWriter answers(output);
  std::string& out = answers.pending();
  while (auto line = lines.next()) {
    if (line->tooLarge) {
      out += kParseError;
    } else {
      if (!out.empty() && line->text.find("tools/call") != std::string_view::npos && !answers.flush()) return;
      std::size_t mark = out.size();
      try {
        if (server.handlePadded(line->text, out)) out.push_back('\n');
      } catch (...) {  // not even the line feed fitted: the line goes unanswered
        out.resize(mark);
      }
    }
    if (out.size() < kWriteAt && lines.hasLine()) continue;
    if (!answers.flush()) return;
    answers.release();
    lines.release();
    server.release();
  }
  answers.flush();
}

}  // namespace

int main() {
  holdStandardDescriptors();
  // A host that stops reading must end the process through a failed write, not a signal.
  std::signal(SIGPIPE, SIG_IGN);
#ifdef __GLIBC__
  // Large blocks come from their own mappings, so that freeing them gives them back.
  ::mallopt(M_MMAP_THRESHOLD, 1 << 20);
#endif
  std::string base = tondrel::apiBaseURL(environment());
  tondrel::TondrelMCPServer server(tondrel::curlTransport(base, 30.0), base, tondrel::kVersion);
  serve(server, 0, 1);
  return 0;
}
