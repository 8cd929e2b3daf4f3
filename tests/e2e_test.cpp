// The built tondrel-mcp against a recording stand-in editor, as a host runs it.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>
#include <sstream>
#include <thread>

#include "json_writer.hpp"
#include "process.hpp"
#include "stand_in_editor.hpp"

namespace tondrel::test {
namespace {

using nlohmann::json;

// Everything tondrel-mcp writes for this input, which it must read to the end,
// exit cleanly and say nothing on standard error. The proxies the environment
// names lead nowhere: the editor on loopback must be reached directly.
std::string runAgainst(const StandInEditor& editor, std::string_view input) {
  const std::string nowhere = "http://127.0.0.1:" + std::to_string(closedPort());
  ServerProcess server({editorAt(editor.port()), "http_proxy=" + nowhere, "HTTP_PROXY=" + nowhere,
                        "ALL_PROXY=" + nowhere, "all_proxy=" + nowhere});
  std::thread writer([&] {  // written while the answers are read, so neither pipe can stall the other
    server.send(input);
    server.closeInput();
  });
  std::string out = server.readAll();
  writer.join();
  EXPECT_EQ(server.wait(60), 0);
  EXPECT_EQ(server.errors(), "");
  return out;
}

std::vector<json> answers(const std::string& out) {
  std::vector<json> parsed;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) parsed.push_back(json::parse(line));
  return parsed;
}

std::string nested(std::string_view open, std::string_view inner, std::string_view close) {
  std::string text;
  for (int i = 0; i < 100000; ++i) text += open;
  text += inner;
  for (int i = 0; i < 100000; ++i) text += close;
  return text;
}

// Each line gets what JSON-RPC says, or nothing, however hostile the one before;
// the last is answered though no line feed ends it.
TEST(LineLoop, AnswersEachRequestLineInOrderAndNothingElse) {
  const std::string parseError =
      R"({"jsonrpc":"2.0","id":null,"error":{"code":-32700,"message":"parse error"}})";
  std::string call = toolCall("tondrel_state", 4);
  call.pop_back();
  const std::pair<std::string, std::string> lines[] = {
      {R"({"jsonrpc":"2.0","id":0,"method":"initialize","params":{"protocolVersion":"2025-06-18"}})",
       R"({"jsonrpc":"2.0","id":0,"result":{"protocolVersion":"2025-06-18","capabilities":{"tools":{}},)"
       R"("serverInfo":{"name":"tondrel","version":")" TONDREL_VERSION R"("},"instructions":"Controls the )"
       R"(Tondrel macOS audio editor (waveforms, fades, copy-paste, multitrack, multi-format export, OSC). )"
       R"(Call tondrel_state first; edit live with tondrel_edit (one undo step per batch); inspect silences )"
       R"(with tondrel_silences; export with tondrel_export; check visually with tondrel_snapshot."}})"},
      {"", ""},
      {std::string(1000000, ' '), ""},
      {"{\"id\":1,\"method\":\"ping\"}\r", R"({"jsonrpc":"2.0","id":1,"result":{}})"},
      {R"({"method":"ping","id":)" + nested("[", "", "]") + "}", parseError},
      {R"({"id":1,"method":"ping","params":)" + nested(R"({"a":)", "1", "}") + "}", parseError},
      {R"({"id":1,"method":"tools/call","params":{"name":"tondrel_edit","arguments":{"ops":)" +
           nested("[", "", "]") + "}}}",
       parseError},
      {std::string(R"({"id":1,"method":"ping"})") + '\0', parseError},
      {std::string(R"({"id":"a)") + '\0' + R"(b","method":"ping"})", parseError},
      {R"({"id":"a","method":"ping","params":{"pad":")" + std::string(64 << 20, 'x') + "\"}}",
       R"({"jsonrpc":"2.0","id":"a","result":{}})"},
      {call, answered(R"({\"ok\":true})", 4)},
  };
  StandInEditor editor;
  std::string input, expected;
  for (const auto& [line, answer] : lines) {
    input += line + "\n";
    if (!answer.empty()) expected += answer + "\n";
  }
  input.pop_back();
  EXPECT_TRUE(runAgainst(editor, input) == expected);  // not printed: it holds a 64 MiB line
  EXPECT_EQ(editor.requests().size(), 1u);
}

// One tool call, and the one request it must send; nullptr method: none at all.
struct Case {
  const char* tool;
  const char* arguments;
  const char* method;
  const char* target;
  std::optional<std::string> body;
  const char* failure = nullptr;  // the failed-call text, when nothing may be sent
};

TEST(ToolCalls, EachToolSendsItsOneRequest) {
  const Case cases[] = {
      {"tondrel_state", R"({"x":1})", "GET", "/v1/state", std::nullopt},
      {"tondrel_document", "{}", "GET", "/v1/document", std::nullopt},
      {"tondrel_help", "{}", "GET", "/v1/help", std::nullopt},
      {"tondrel_edit", R"({"label":"Add","ops":[{"op":"track.add","name":"Vox \u00e9/1"}]})", "POST",
       "/v1/edit", R"({"ops":[{"op":"track.add","name":"Vox é/1"}],"label":"Add"})"},
      {"tondrel_edit", R"({"ops":[],"label":3})", "POST", "/v1/edit", R"({"ops":[]})"},
      {"tondrel_edit", R"({"ops":{}})", nullptr, nullptr, std::nullopt, "missing argument 'ops'"},
      {"tondrel_replace_document",
       R"({"save":true,"document":{"tracks":[],"tempo":120.0,"gain":-3,"n":null}})", "PUT",
       "/v1/document?save=1", R"({"tracks":[],"tempo":120.0,"gain":-3,"n":null})"},
      {"tondrel_replace_document", R"({"document":{},"save":"true"})", "PUT", "/v1/document", "{}"},
      {"tondrel_replace_document", R"({"document":[],"save":true})", nullptr, nullptr, std::nullopt,
       "missing argument 'document'"},
      {"tondrel_open", R"({"path":"/a.wav","x":1})", "POST", "/v1/open", R"({"path":"/a.wav"})"},
      {"tondrel_open", R"({"path":""})", nullptr, nullptr, std::nullopt, "missing argument 'path'"},
      {"tondrel_open", R"({"path":42})", nullptr, nullptr, std::nullopt, "missing argument 'path'"},
      {"tondrel_import", R"({"at":2,"track":null,"path":"/a.wav"})", "POST", "/v1/import",
       R"({"path":"/a.wav","track":null,"at":2})"},
      {"tondrel_export", R"({"path":"/tmp/out.wav","format":"wav","sampleRate":48000,"foo":1})", "POST",
       "/v1/export", R"({"path":"/tmp/out.wav","format":"wav","sampleRate":48000})"},
      {"tondrel_export",
       R"({"stems":false,"range":[0,1.5],"normalization":"peak","channels":1,"bitRateKbps":320,"bitDepth":16,)"
       R"("sampleRate":44100.0,"format":"mp3","path":"/o.mp3"})",
       "POST", "/v1/export",
       R"({"path":"/o.mp3","format":"mp3","sampleRate":44100.0,"bitDepth":16,"bitRateKbps":320,"channels":1,)"
       R"("normalization":"peak","range":[0,1.5],"stems":false})"},
      {"tondrel_transport", R"({"action":"seek","time":12.5})", "POST", "/v1/transport",
       R"({"action":"seek","time":12.5})"},
      {"tondrel_transport", R"({"range":[1,2],"action":"loop"})", "POST", "/v1/transport",
       R"({"action":"loop","range":[1,2]})"},
      {"tondrel_select", "{}", "POST", "/v1/select", "{}"},
      {"tondrel_select", R"({"range":[0,1],"track":0,"clips":[],"fit":false})", "POST", "/v1/select",
       R"({"clips":[],"track":0,"range":[0,1],"fit":false})"},
      {"tondrel_undo", R"({"x":1})", "POST", "/v1/undo", std::nullopt},
      {"tondrel_redo", "{}", "POST", "/v1/redo", std::nullopt},
      {"tondrel_save", R"({"path":""})", "POST", "/v1/save", "{}"},
      {"tondrel_save", R"({"path":"/p.tondrel"})", "POST", "/v1/save", R"({"path":"/p.tondrel"})"},
      {"tondrel_snapshot", "{}", "GET", "/v1/snapshot.png", std::nullopt},
      {"tondrel_waveform", R"({"bins":512,"path":"/Users/me/My Song & Co+1.wav"})", "GET",
       "/v1/waveform?path=/Users/me/My%20Song%20%26%20Co%2B1.wav&bins=512", std::nullopt},
      {"tondrel_waveform", R"({"path":"/a#b%c \u00e9=:@.wav","bins":"64"})", "GET",
       "/v1/waveform?path=/a%23b%25c%20%C3%A9=:@.wav&bins=64", std::nullopt},
      {"tondrel_silences", R"({"minDuration":0.3,"path":"/a.wav","thresholdDB":-50})", "GET",
       "/v1/silences?path=/a.wav&thresholdDB=-50&minDuration=0.3", std::nullopt},
      {"tondrel_silences", R"({"path":"/a.wav","minDuration":0.15,"thresholdDB":-42.0})", "GET",
       "/v1/silences?path=/a.wav&thresholdDB=-42&minDuration=0.15", std::nullopt},
      {"tondrel_silences", R"({"path":"/a.wav","thresholdDB":"x y"})", nullptr, nullptr, std::nullopt,
       "bad path /v1/silences?path=/a.wav&thresholdDB=x y"},
      // Numbers in a query as a query reader expects them: digits, never an exponent.
      {"tondrel_waveform", R"({"path":"\"<>[]\\^`{|}\t","bins":9007199254740993})", "GET",
       "/v1/waveform?path=%22%3C%3E%5B%5D%5C%5E%60%7B%7C%7D%09&bins=9007199254740993", std::nullopt},
      {"tondrel_waveform", R"({"path":"/a:@-._~","bins":100000})", "GET",
       "/v1/waveform?path=/a:@-._~&bins=100000", std::nullopt},
      {"tondrel_silences", R"({"path":"/a","thresholdDB":1000000.0,"minDuration":1e21})", "GET",
       "/v1/silences?path=/a&thresholdDB=1000000&minDuration=1000000000000000000000", std::nullopt},
      {"tondrel_silences", R"({"path":"/a","thresholdDB":-1.5e-7,"minDuration":true})", "GET",
       "/v1/silences?path=/a&thresholdDB=-0.00000015&minDuration=true", std::nullopt},
  };
  StandInEditor editor;
  std::string input;
  for (std::size_t i = 0; i < std::size(cases); ++i)
    input += toolCall(cases[i].tool, int(i), cases[i].arguments);
  auto replies = answers(runAgainst(editor, input));
  auto requests = editor.requests();
  ASSERT_EQ(replies.size(), std::size(cases));

  std::size_t sent = 0;
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const Case& c = cases[i];
    SCOPED_TRACE(std::string(c.tool) + " " + c.arguments);
    const json& result = replies[i]["result"];
    if (!c.method) {
      EXPECT_EQ(result, (json{{"content", {{{"type", "text"}, {"text", c.failure}}}}, {"isError", true}}));
      continue;
    }
    ASSERT_LT(sent, requests.size());
    const RecordedRequest& r = requests[sent++];
    EXPECT_EQ(r.method, c.method);
    EXPECT_EQ(r.target, c.target);
    EXPECT_EQ(r.body, c.body.value_or(""));
    EXPECT_EQ(r.headers.count("content-type") ? r.headers.at("content-type") : "none",
              c.body ? "application/json; charset=utf-8" : "none");
    if (std::string_view(c.tool) != "tondrel_snapshot") {
      EXPECT_EQ(result,
                json::parse(R"({"content":[{"type":"text","text":"{\"ok\":true}"}],"isError":false})"));
    }
  }
  EXPECT_EQ(sent, requests.size());
}

// A project document of about size bytes, compact as the writer writes it, with
// text that is not ASCII.
std::string document(std::size_t size) {
  std::string text = R"({"sampleRate":48000,"tempo":120.5,"tracks":[)";
  while (text.size() < size)
    text += R"({"name":"Gitarre ü/1","gainDB":-3.25,"notes":[60,62,64],"mute":false},)";
  text.back() = ']';
  return text + "}";
}

// Large answers arrive in many pieces and are written into the answer line as
// they come; a large request goes out from the line's own text. Both must give
// what writing the whole at once gives, and neither may leave its memory behind:
// after each, the process holds about what it held after its first small call.
TEST(ToolCalls, LargePayloadsComeThroughByteExactAndGiveTheirMemoryBack) {
  std::string png = "\x89PNG\r\n\x1A\n";
  for (std::minstd_rand bytes(1); png.size() < (16u << 20);) png += static_cast<char>(bytes());
  const std::string doc = document(20 << 20);
  Buffer written;
  {
    JsonWriter writer(written);
    std::string carry;
    writer.beginString().base64Piece(png, carry);
    writer.endBase64String(carry);
  }
  const std::string image =
      R"({"jsonrpc":"2.0","id":2,"result":{"content":[{"type":"image","data":)" +
      std::string(written.view()) +
      R"(,"mimeType":"image/png"},{"type":"text","text":"Snapshot of the Tondrel window."}]}})";
  written.clear();
  JsonWriter(written).string(doc);
  const std::string text(written.view());
  const std::tuple<CannedAnswer, std::string, std::string> calls[] = {
      {{200, png, "image/png"}, toolCall("tondrel_snapshot", 2), image},
      {{200, doc, "application/json"},
       toolCall("tondrel_document", 2),
       answered(std::string_view(text).substr(1, text.size() - 2), 2)},
      {{200, "{}", "application/json"},
       toolCall("tondrel_replace_document", 2, R"({"document":)" + doc + "}"),
       answered("{}", 2)},
      // A large line that is parsed whole.
      {{},
       R"({"jsonrpc":"2.0","id":2,"method":"ping","params":{"pad":")" + std::string(20 << 20, 'x') + "\"}}\n",
       R"({"jsonrpc":"2.0","id":2,"result":{}})"},
  };

  StandInEditor editor;
  ServerProcess server({editorAt(editor.port())});
  server.send(toolCall("tondrel_state"));
  server.readLine();
  std::size_t settled = server.residentMiB();
  for (const auto& [answer, line, expected] : calls) {
    editor.answer(answer);
    server.send(line);
    EXPECT_TRUE(server.readLine() == expected) << line.substr(0, 80);
    // Answered once the call is cleared away.
    server.send(std::string(R"({"jsonrpc":"2.0","id":3,"method":"ping"})") + "\n");
    server.readLine();
    if (!kUnderAddressSanitizer && settled) {
      EXPECT_LE(server.residentMiB(), settled + 8) << line.substr(0, 80);
    }
  }
  EXPECT_TRUE(editor.requests().back().body == doc);
  EXPECT_EQ(editor.requests().size(), 4u);
  EXPECT_EQ(editor.requests().back().headers.count("expect"), 0u) << "no wait for a 100 Continue";
}

}  // namespace
}  // namespace tondrel::test
