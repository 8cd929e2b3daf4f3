// What tondrel-mcp survives: hostile input, an editor that fails or restarts, and
// a host that goes away. All through the built binary.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "process.hpp"
#include "stand_in_editor.hpp"

namespace tondrel::test {
namespace {

std::string port(int number) {
  return "TONDREL_API_PORT=" + std::to_string(number);
}

std::string call(std::string_view tool) {
  return R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":")" + std::string(tool) +
         R"("}})" + "\n";
}

std::string nested(std::string_view open, std::string_view inner, std::string_view close) {
  std::string text;
  for (int i = 0; i < 100000; ++i) text += open;
  text += inner;
  for (int i = 0; i < 100000; ++i) text += close;
  return text;
}

TEST(HostileInput, EveryLineGetsASensibleAnswerAndTheNextIsServed) {
  const std::string parseError =
      R"({"jsonrpc":"2.0","id":null,"error":{"code":-32700,"message":"parse error"}})";
  const std::pair<std::string, std::string> lines[] = {
      {R"({"method":"ping","id":)" + nested("[", "", "]") + "}", parseError},
      {R"({"id":1,"method":"ping","params":)" + nested(R"({"a":)", "1", "}") + "}", parseError},
      {R"({"id":1,"method":"tools/call","params":{"name":"tondrel_edit","arguments":{"ops":)" +
           nested("[", "", "]") + "}}}",
       parseError},
      {std::string(1000000, ' '), ""},
      {std::string(R"({"id":1,"method":"ping"})") + '\0', parseError},
      {std::string(R"({"id":"a)") + '\0' + R"(b","method":"ping"})", parseError},
      {"{\"id\":\"\xC3\x28\",\"method\":\"ping\"}",
       "{\"jsonrpc\":\"2.0\",\"id\":\"\xEF\xBF\xBD(\",\"result\":{}}"},
      {R"({"id":123456789012345678901234567890,"method":"ping"})", parseError},
      {R"({"id":1e400,"method":"ping"})", parseError},
      {R"({"id":2,"method":"ping","params":{"pad":")" + std::string(64 << 20, 'x') + "\"}}",
       R"({"jsonrpc":"2.0","id":2,"result":{}})"},
      {R"({"id":3,"method":"ping"})", R"({"jsonrpc":"2.0","id":3,"result":{}})"},
  };
  StandInEditor editor;
  std::string input, expected;
  for (const auto& [line, answer] : lines) {
    input += line + "\n";
    if (!answer.empty()) expected += answer + "\n";
  }
  Finished finished = runServer(input, {port(editor.port())});
  EXPECT_TRUE(finished.out == expected);
  EXPECT_EQ(finished.err, "");
  EXPECT_EQ(finished.status, 0);
  EXPECT_TRUE(editor.requests().empty());
}

TEST(EditorFaults, AnEditorStartedAgainAnswersTheNextCallOfTheSameSession) {
  auto editor = std::make_unique<StandInEditor>();
  int number = editor->port();
  ServerProcess server({port(number)});
  server.send(call("tondrel_state"));
  EXPECT_NE(server.readLine().find(R"("isError":false)"), std::string::npos);

  editor.reset();
  server.send(call("tondrel_state"));
  EXPECT_NE(server.readLine().find("Tondrel is not reachable at http://127.0.0.1:" + std::to_string(number)),
            std::string::npos);

  editor = std::make_unique<StandInEditor>(number);
  ASSERT_EQ(editor->port(), number);
  server.send(call("tondrel_state"));
  EXPECT_NE(server.readLine().find(R"("isError":false)"), std::string::npos);
  EXPECT_EQ(editor->requests().size(), 1u);
}

TEST(Host, InputClosedDuringACallStillGetsTheAnswerThenTheProcessExits) {
  ScriptedServer slowEditor([](int fd) {
    readRequest(fd);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    writeText(fd, "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nlate");
  });
  ServerProcess server({port(slowEditor.port())});
  server.send(call("tondrel_state"));
  server.closeInput();
  EXPECT_EQ(
      server.readLine(),
      R"({"jsonrpc":"2.0","id":1,"result":{"content":[{"type":"text","text":"late"}],"isError":false}})");
  EXPECT_EQ(server.wait(10), 0);
  EXPECT_EQ(server.errors(), "");
}

TEST(Host, AnswersSentTogetherWithACallArriveBeforeTheCallWaitsForTheEditor) {
  std::atomic<bool> release = false, editorAnswered = false;
  ScriptedServer heldEditor([&](int fd) {
    readRequest(fd);
    for (int i = 0; i < 500 && !release; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    editorAnswered = true;
    writeText(fd, "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}");
  });
  ServerProcess server({port(heldEditor.port())});
  server.send(R"({"jsonrpc":"2.0","id":"p","method":"ping"})"
              "\n" +
              call("tondrel_state"));
  EXPECT_EQ(server.readLine(), R"({"jsonrpc":"2.0","id":"p","result":{}})");
  EXPECT_FALSE(editorAnswered) << "the ping's answer waited for the editor";
  release = true;
  EXPECT_EQ(server.readLine(),
            R"({"jsonrpc":"2.0","id":1,"result":{"content":[{"type":"text","text":"{}"}],"isError":false}})");
}

TEST(Host, AHostThatStopsReadingEndsTheProcessAtOnce) {
  ServerProcess server;
  server.closeOutput();  // input stays open: only the vanished reader may end it
  EXPECT_EQ(server.wait(10), 0);
  EXPECT_EQ(server.errors(), "");
}

}  // namespace
}  // namespace tondrel::test
