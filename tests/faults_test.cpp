// What the built tondrel-mcp does when the editor or the host misbehaves: every
// call is answered once, in order, an edit reaches the editor at most once, and
// the process goes on serving (or, for a host that left, ends quietly).
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include "process.hpp"
#include "stand_in_editor.hpp"

namespace tondrel::test {
namespace {

using namespace std::chrono_literals;

std::string ok(int number) {
  std::string body = "n" + std::to_string(number);
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

bool silentUntilClosed(int fd) {
  char c;
  while (::recv(fd, &c, 1, 0) > 0) {
  }
  return false;
}

const std::string kUnreachable = "Tondrel is not reachable at http://127.0.0.1:";

// The first request is answered and leaves a kept-alive connection; `fault`
// decides what happens to the second, the one under test, made by each tool
// given; any later request (a GET sent again, which is allowed) is answered.
struct EditorFault {
  const char* what;
  std::function<bool(int fd, int number)> script;
  enum { answered, unreachable, eitherForAGet } outcome;  // a GET may be sent again; an edit never
  std::vector<std::string_view> tools = {"tondrel_state", "tondrel_undo"};
};

// Writes the text a byte at a time, `gap` apart.
void dribble(int fd, const std::string& text, std::chrono::milliseconds gap) {
  for (char c : text) {
    writeText(fd, std::string(1, c));
    std::this_thread::sleep_for(gap);
  }
}

// Writes these bytes for the second request and closes; answers every other.
std::function<bool(int, int)> secondGets(std::string bytes) {
  return [bytes](int fd, int number) {
    writeText(fd, number == 2 ? bytes : ok(number));
    return number != 2;
  };
}

const EditorFault kEditorFaults[] = {
    {"stays silent past the timeout",
     [](int fd, int number) {
       return number == 2 ? silentUntilClosed(fd) : (writeText(fd, ok(number)), true);
     },
     EditorFault::unreachable},
    {"answers with bytes that are not HTTP", secondGets("SSH-2.0-OpenSSH_9.2\r\n\r\n"),
     EditorFault::unreachable},
    {"reads the request and closes unanswered",
     [](int fd, int number) { return number != 2 && (writeText(fd, ok(number)), true); },
     EditorFault::eitherForAGet},
    // An answer cut short is no answer, however much of it came.
    {"sends its status line alone",
     secondGets("HTTP/1.1 200 OK\r\n"),
     EditorFault::unreachable,
     {"tondrel_state", "tondrel_snapshot", "tondrel_undo"}},
    {"sends its head without the blank line that ends it",
     secondGets("HTTP/1.1 200 OK\r\nContent-Type: image/png\r\n"),
     EditorFault::unreachable,
     {"tondrel_state", "tondrel_snapshot", "tondrel_undo"}},
    {"breaks off mid-body", secondGets("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nonly ten b"),
     EditorFault::unreachable, {"tondrel_state", "tondrel_snapshot", "tondrel_undo"}},
    {"breaks off a chunked body",
     secondGets("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n10\r\nonly"),
     EditorFault::unreachable},
    // The timeout counts silence, and every byte from the editor ends one.
    {"sends its head a byte every two seconds",
     [](int fd, int number) {
       if (number != 2) return writeText(fd, ok(number)), true;
       dribble(fd, "HTTP/1.1 200 Yes\r\n\r\n", 2s);  // twenty bytes
       return writeText(fd, "n2"), false;            // the body ends where the connection does
     },
     EditorFault::answered},
    {"says 102 Processing every ten seconds and answers after 45",
     [](int fd, int number) {
       for (int i = 0; i < 4 && number == 2; ++i)
         std::this_thread::sleep_for(10s), writeText(fd, "HTTP/1.1 102 Processing\r\n\r\n");
       if (number == 2) std::this_thread::sleep_for(5s);
       return writeText(fd, ok(number)), true;
     },
     EditorFault::answered},
    {"sends its head after 20 seconds and its body 16 seconds later",
     [](int fd, int number) {
       if (number != 2) return writeText(fd, ok(number)), true;
       std::this_thread::sleep_for(20s);
       writeText(fd, "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n");
       std::this_thread::sleep_for(16s);
       return writeText(fd, "n2"), true;
     },
     EditorFault::answered},
    {"answers after four seconds of silence",
     [](int fd, int number) {
       if (number == 2) std::this_thread::sleep_for(4s);
       writeText(fd, ok(number));
       return true;
     },
     EditorFault::answered},
    {"sends an unasked answer along with its answer",
     [](int fd, int number) {
       // In the same segment as the answer, so that it may be read along with it.
       writeText(
           fd, ok(number) + (number == 1 ? "HTTP/1.1 408 Request Timeout\r\nContent-Length: 0\r\n\r\n" : ""));
       return true;
     },
     EditorFault::answered},
    {"sends an unasked answer on the idle connection later",
     [](int fd, int number) {
       writeText(fd, ok(number));
       if (number == 1) std::this_thread::sleep_for(50ms), writeText(fd, ok(7));
       return true;
     },
     EditorFault::answered},
};

// Each fault for a GET and for an edit (a POST), all at once: the longest case
// (an answer after 45 seconds, never silent for 30) is paid once, not once per case.
TEST(EditorFaults, EachCallIsAnsweredAndAnEditReachesTheEditorAtMostOnce) {
  std::vector<std::future<void>> runs;
  for (const EditorFault& fault : kEditorFaults) {
    for (std::string_view tool : fault.tools) {
      runs.push_back(std::async(std::launch::async, [&fault, tool] {
        SCOPED_TRACE(std::string(fault.what) + ", " + std::string(tool));
        ScriptedServer editor(
            [&](int fd, int number, const std::string&) { return fault.script(fd, number); });
        ServerProcess server({editorAt(editor.port())});
        server.send(toolCall("tondrel_state"));
        EXPECT_EQ(server.readLine(), answered("n1"));
        std::this_thread::sleep_for(200ms);  // whatever the editor does unasked has arrived

        server.send(toolCall(tool, 2));
        std::string line = server.readLine();
        bool isGet = tool == "tondrel_state";
        std::string answer =
            answered("n" + std::to_string(editor.requests("GET") + editor.requests("POST")), 2);
        if (fault.outcome == EditorFault::answered ||
            (fault.outcome == EditorFault::eitherForAGet && isGet && line == answer)) {
          EXPECT_EQ(line, answer);
        } else {
          EXPECT_NE(line.find(kUnreachable), std::string::npos) << line;
        }
        if (tool == "tondrel_undo") {
          EXPECT_EQ(editor.requests("POST"), 1);
        }

        server.send(toolCall("tondrel_state", 3));  // and the next call is served as usual
        EXPECT_NE(server.readLine().find(R"("id":3,"result")"), std::string::npos);
        server.closeInput();
        EXPECT_EQ(server.wait(60), 0);
        EXPECT_EQ(server.errors(), "");
      }));
    }
  }
  for (auto& run : runs) run.get();
}

// Under a cap on its address space (as `ulimit -v` sets), whatever does not fit
// fails that one line or that one call, and the next is served.
TEST(MemoryFaults, WhatDoesNotFitFailsOneLineOrOneCallAndTheNextIsServed) {
  if (kUnderAddressSanitizer) GTEST_SKIP() << "a cap on address space leaves no room for the sanitizer";
  constexpr std::size_t kCap = 512u << 20;
  const std::string tooLarge = R"("text":"The editor's answer was too large for the memory available.")";
  const std::string parseError =
      R"({"jsonrpc":"2.0","id":null,"error":{"code":-32700,"message":"parse error"}})";
  ScriptedServer editor([](int fd, int number, const std::string& request) {
    if (request.find("/v1/document") != std::string::npos) {  // an answer that never ends
      writeText(fd, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n");
      std::string chunk = "100000\r\n" + std::string(1 << 20, 'x') + "\r\n";
      for (int i = 0; i < 1024; ++i) writeText(fd, chunk);
      return false;
    }
    if (request.find("/v1/help") != std::string::npos) {  // an answer that only claims its size
      writeText(fd, "HTTP/1.1 200 OK\r\nContent-Length: 4000000000\r\n\r\n");
      return silentUntilClosed(fd);
    }
    // Lengths HTTP ignores, too large for memory: never to be reserved.
    const std::pair<const char*, const char*> ignored[] = {
        {"/v1/redo", "HTTP/1.1 204 No Content\r\nContent-Length: 40000000000\r\n\r\n"},
        {"/v1/waveform", "HTTP/1.1 304 Not Modified\r\nContent-Length: 40000000000\r\n\r\n"},
        {"/v1/undo",
         "HTTP/1.1 102 Processing\r\nContent-Length: 40000000000\r\n\r\n"
         "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"},
        {"/v1/save",
         "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nContent-Length: 900000000\r\n\r\n"
         "2\r\nok\r\n0\r\n\r\n"},
    };
    for (auto [path, answer] : ignored)
      if (request.find(path) != std::string::npos) return writeText(fd, answer), true;
    writeText(fd, ok(number));
    return true;
  });
  ServerProcess server(Launch{{editorAt(editor.port())}, kCap});
  server.send(toolCall("tondrel_state"));
  EXPECT_EQ(server.readLine(), answered("n1"));

  const std::pair<const char*, std::string> cases[] = {
      {"a line larger than memory", R"({"id":9,"method":"ping","pad":")" + std::string(kCap, 'x') + "\"}\n"},
      {"a line whose parse does not fit",
       R"({"id":9,"method":"ping","pad":")" + std::string(kCap / 8, 'x') + "\"}\n"},
  };
  for (const auto& [what, line] : cases) {
    SCOPED_TRACE(what);
    std::thread writer([&, &line = line] { server.send(line); });
    EXPECT_EQ(server.readLine(), parseError);
    writer.join();
    server.send(std::string(R"({"jsonrpc":"2.0","id":2,"method":"ping"})") + "\n");
    EXPECT_EQ(server.readLine(), R"({"jsonrpc":"2.0","id":2,"result":{}})");
  }
  const std::pair<const char*, std::string> calls[] = {
      {"tondrel_document", tooLarge},      {"tondrel_help", tooLarge},
      {"tondrel_redo", answered("", 4)},   {"tondrel_waveform", answered("", 4)},
      {"tondrel_undo", answered("ok", 4)}, {"tondrel_save", answered("ok", 4)},
  };
  for (const auto& [tool, expected] : calls) {
    SCOPED_TRACE(tool);
    server.send(toolCall(tool, 4, R"({"path":"/a.wav"})"));
    EXPECT_NE(server.readLine().find(expected), std::string::npos);
    int before = editor.requests("GET");
    server.send(toolCall("tondrel_state", 5));
    EXPECT_NE(server.readLine().find(R"("id":5,"result":{"content":[{"type":"text","text":"n)"),
              std::string::npos);
    EXPECT_EQ(editor.requests("GET"), before + 1) << "the next call reached the editor";
  }
  server.closeInput();
  EXPECT_EQ(server.wait(10), 0);
  EXPECT_EQ(server.errors(), "");
}

// Memory short when libcurl is first loaded fails that call, saying so, and the
// load is tried again at the next call, when there may be room.
TEST(MemoryFaults, ALoadOfLibcurlThatFailedIsTriedAgainAtTheNextCall) {
  if (kUnderAddressSanitizer) GTEST_SKIP() << "a cap on address space leaves no room for the sanitizer";
  StandInEditor editor;
  ServerProcess server({editorAt(editor.port())});
  server.send(std::string(R"({"jsonrpc":"2.0","id":1,"method":"ping"})") + "\n");
  server.readLine();
  // Room for the call itself, not for libcurl and the libraries it brings.
  if (!server.mappedBytes() || !server.capAddressSpace(server.mappedBytes() + (4 << 20)))
    GTEST_SKIP() << "this system cannot cap another process's address space";
  server.send(toolCall("tondrel_state", 2));
  EXPECT_EQ(server.readLine(),
            R"({"jsonrpc":"2.0","id":2,"result":{"content":[{"type":"text","text":)"
            R"("Not enough memory was available to reach the editor."}],"isError":true}})");
  server.capAddressSpace(0);
  server.send(toolCall("tondrel_state", 3));
  EXPECT_EQ(server.readLine(), answered(R"({\"ok\":true})", 3));
  EXPECT_EQ(editor.requests().size(), 1u);
}

// Hosts that hand over unusual standard streams.
TEST(HostFaults, AnswersGoOutWholeWhateverTheHostHandsOver) {
  StandInEditor editor;
  std::string input;
  for (int id = 1; id <= 400; ++id)
    input += R"({"jsonrpc":"2.0","id":)" + std::to_string(id) +
             R"(,"method":"tools/list"})"
             "\n";

  {
    SCOPED_TRACE("a non-blocking standard output that the host reads late");
    ServerProcess server(Launch{{editorAt(editor.port())}, 0, true});
    server.send(input);
    server.closeInput();
    std::this_thread::sleep_for(500ms);  // the pipe fills long before this
    std::string out = server.readAll();
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 400);
    EXPECT_TRUE(out.ends_with("}\n"));
    EXPECT_EQ(server.wait(10), 0);
  }
  {
    // More answers than a socket holds: none may go into a descriptor the editor
    // client opened in the place of standard output.
    SCOPED_TRACE("standard output closed: its answers go nowhere, never into the client's sockets");
    ScriptedServer recording([](int fd, int number, const std::string&) {
      writeText(fd, ok(number));
      return true;
    });
    ServerProcess server(Launch{{editorAt(recording.port())}, 0, false, true});
    server.send(toolCall("tondrel_state") + toolCall("tondrel_state", 2) + input);
    server.closeInput();
    EXPECT_EQ(server.wait(10), 0);
    EXPECT_EQ(recording.requests("GET"), 2);
    EXPECT_EQ(recording.requests(""), 2) << "an answer was written into the editor's connection";
  }
  {
    SCOPED_TRACE("a host that stops reading");
    ServerProcess server({editorAt(editor.port())});
    server.closeOutput();  // input stays open: only the vanished reader may end it
    EXPECT_EQ(server.wait(10), 0);
    EXPECT_EQ(server.errors(), "");
  }
  {
    SCOPED_TRACE("a host that stops reading while a call waits for the editor");
    ScriptedServer slowEditor([](int fd, int number, const std::string&) {
      std::this_thread::sleep_for(500ms);
      writeText(fd, ok(number));
      return true;
    });
    ServerProcess server({editorAt(slowEditor.port())});
    server.send(toolCall("tondrel_state"));
    std::this_thread::sleep_for(200ms);  // the call is under way
    server.closeOutput();
    EXPECT_EQ(server.wait(10), 0) << "its answer's write must fail, not raise SIGPIPE";
    EXPECT_EQ(server.errors(), "");
  }
  // However the host spells the method: the editor holds its answer until the
  // ping's has been read (or five seconds have gone).
  for (std::string_view method : {"tools/call", R"(tools\/call)", R"(tools\u002fcall)"}) {
    SCOPED_TRACE(std::string("lines sent together with a call: their answers go out before ") +
                 std::string(method) + " waits");
    std::atomic<bool> release = false, editorAnswered = false;
    ScriptedServer heldEditor([&](int fd, int, const std::string&) {
      for (int i = 0; i < 500 && !release; ++i) std::this_thread::sleep_for(10ms);
      editorAnswered = true;
      writeText(fd, "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}");
      return true;
    });
    ServerProcess server({editorAt(heldEditor.port())});
    server.send(R"({"jsonrpc":"2.0","id":"p","method":"ping"})"
                "\n"
                R"({"jsonrpc":"2.0","id":1,"method":")" +
                std::string(method) + R"(","params":{"name":"tondrel_state"}})" + "\n");
    EXPECT_EQ(server.readLine(), R"({"jsonrpc":"2.0","id":"p","result":{}})");
    EXPECT_FALSE(editorAnswered) << "the ping's answer waited for the editor";
    release = true;
    EXPECT_EQ(server.readLine(), answered("{}"));
  }
}

}  // namespace
}  // namespace tondrel::test
