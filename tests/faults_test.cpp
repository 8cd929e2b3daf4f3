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
// decides what happens to the second, the one under test; any later request (a
// GET sent again, which is allowed) is answered.
struct EditorFault {
  const char* what;
  std::function<bool(int fd, int number)> script;
  enum { answered, unreachable, eitherForAGet } outcome;  // a GET may be sent again; an edit never
};

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
    {"breaks off mid-body", secondGets("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nonly ten b"),
     EditorFault::unreachable},
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
    {"closes the idle connection (it restarted)",
     [](int fd, int number) {
       writeText(fd, ok(number));
       return number != 1;
     },
     EditorFault::answered},
};

// Each fault for a GET and for an edit (a POST), all at once: the silent editor
// costs the timeout once, not once per case.
TEST(EditorFaults, EachCallIsAnsweredAndAnEditReachesTheEditorAtMostOnce) {
  std::vector<std::future<void>> runs;
  for (const EditorFault& fault : kEditorFaults) {
    for (std::string_view tool : {"tondrel_state", "tondrel_undo"}) {
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
        EXPECT_EQ(server.wait(40), 0);
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
  for (std::string_view tool : {"tondrel_document", "tondrel_help"}) {
    SCOPED_TRACE(tool);
    server.send(toolCall(tool, 4));
    EXPECT_NE(server.readLine().find(tooLarge), std::string::npos);
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
    SCOPED_TRACE("standard output closed: nothing may go into the editor's connection");
    ScriptedServer recording([](int fd, int number, const std::string&) {
      writeText(fd, ok(number));
      return true;
    });
    ServerProcess server(Launch{{editorAt(recording.port())}, 0, false, true});
    server.send(toolCall("tondrel_state") + toolCall("tondrel_state", 2));
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
  {
    SCOPED_TRACE("lines sent together with a call: their answers go out before the call waits");
    std::atomic<bool> release = false, editorAnswered = false;
    ScriptedServer heldEditor([&](int fd, int, const std::string&) {
      for (int i = 0; i < 500 && !release; ++i) std::this_thread::sleep_for(10ms);
      editorAnswered = true;
      writeText(fd, "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}");
      return true;
    });
    ServerProcess server({editorAt(heldEditor.port())});
    server.send(std::string(R"({"jsonrpc":"2.0","id":"p","method":"ping"})") + "\n" +
                toolCall("tondrel_state"));
    EXPECT_EQ(server.readLine(), R"({"jsonrpc":"2.0","id":"p","result":{}})");
    EXPECT_FALSE(editorAnswered) << "the ping's answer waited for the editor";
    release = true;
    EXPECT_EQ(server.readLine(), answered("{}"));
  }
}

}  // namespace
}  // namespace tondrel::test
