// The built tondrel-mcp against a recording stand-in editor, as a host runs it.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

#include "json.hpp"
#include "process.hpp"
#include "stand_in_editor.hpp"

namespace tondrel::test {
namespace {

using nlohmann::json;

std::string call(int id, std::string_view tool, std::string_view arguments = "{}") {
  return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"method":"tools/call","params":{"name":")" +
         std::string(tool) + R"(","arguments":)" + std::string(arguments) + "}}\n";
}

std::vector<json> answers(const Finished& finished) {
  std::vector<json> parsed;
  std::istringstream lines(finished.out);
  for (std::string line; std::getline(lines, line);) parsed.push_back(json::parse(line));
  return parsed;
}

Finished runAgainst(const StandInEditor& editor, std::string_view input) {
  Finished finished = runServer(input, {"TONDREL_API_PORT=" + std::to_string(editor.port())});
  EXPECT_EQ(finished.status, 0);
  EXPECT_EQ(finished.err, "");
  return finished;
}

TEST(LineLoop, AnswersEachRequestLineInOrderAndNothingElse) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"\n\n   \n", ""},
      {R"({"id":1,"method":"ping"})", "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":{}}\n"},
      {"{\"id\":1,\"method\":\"ping\"}\r\n{\"id\":2,\"method\":\"ping\"}\r\n",
       "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":{}}\n{\"jsonrpc\":\"2.0\",\"id\":2,\"result\":{}}\n"},
      {"{\"method\":\"notifications/"
       "initialized\"}\n\n{\"id\":\"a\",\"method\":\"ping\"}\n{\"id\":3,\"method\":\"x\"}",
       "{\"jsonrpc\":\"2.0\",\"id\":\"a\",\"result\":{}}\n"
       "{\"jsonrpc\":\"2.0\",\"id\":3,\"error\":{\"code\":-32601,\"message\":\"method not found: x\"}}\n"},
  };
  StandInEditor editor;
  for (const auto& [input, output] : cases) EXPECT_EQ(runAgainst(editor, input).out, output) << input;
  EXPECT_TRUE(editor.requests().empty());
}

TEST(LineLoop, AnswersAToolCallOnTheLastLineBeforeExiting) {
  StandInEditor editor;
  std::string input = call(1, "tondrel_state");
  input.pop_back();  // no final line feed
  auto replies = answers(runAgainst(editor, input));
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_EQ(replies[0]["result"]["content"][0]["text"], R"({"ok":true})");
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
      {"tondrel_edit", R"({"ops":[],"label":""})", "POST", "/v1/edit", R"({"ops":[]})"},
      {"tondrel_edit", R"({"ops":[],"label":3})", "POST", "/v1/edit", R"({"ops":[]})"},
      {"tondrel_edit", R"({"ops":{}})", nullptr, nullptr, std::nullopt, "missing argument 'ops'"},
      {"tondrel_replace_document",
       R"({"save":true,"document":{"tracks":[],"tempo":120.0,"gain":-3,"n":null}})", "PUT",
       "/v1/document?save=1", R"({"tracks":[],"tempo":120.0,"gain":-3,"n":null})"},
      {"tondrel_replace_document", R"({"document":{},"save":"true"})", "PUT", "/v1/document", "{}"},
      {"tondrel_replace_document", R"({"document":{},"save":1})", "PUT", "/v1/document", "{}"},
      {"tondrel_replace_document", R"({"document":[],"save":true})", nullptr, nullptr, std::nullopt,
       "missing argument 'document'"},
      {"tondrel_open", R"({"path":"/a.wav","x":1})", "POST", "/v1/open", R"({"path":"/a.wav"})"},
      {"tondrel_open", R"({"path":""})", nullptr, nullptr, std::nullopt, "missing argument 'path'"},
      {"tondrel_open", R"({"path":42})", nullptr, nullptr, std::nullopt, "missing argument 'path'"},
      {"tondrel_import", R"({"at":2,"track":null,"path":"/a.wav"})", "POST", "/v1/import",
       R"({"path":"/a.wav","track":null,"at":2})"},
      {"tondrel_import", R"({"track":1})", nullptr, nullptr, std::nullopt, "missing argument 'path'"},
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
      {"tondrel_transport", R"({"time":12.5})", nullptr, nullptr, std::nullopt, "missing argument 'action'"},
      {"tondrel_select", "{}", "POST", "/v1/select", "{}"},
      {"tondrel_select", R"({"fit":true,"clips":["A"]})", "POST", "/v1/select",
       R"({"clips":["A"],"fit":true})"},
      {"tondrel_select", R"({"range":[0,1],"track":0,"clips":[],"fit":false})", "POST", "/v1/select",
       R"({"clips":[],"track":0,"range":[0,1],"fit":false})"},
      {"tondrel_undo", R"({"x":1})", "POST", "/v1/undo", std::nullopt},
      {"tondrel_redo", "{}", "POST", "/v1/redo", std::nullopt},
      {"tondrel_save", R"({"path":""})", "POST", "/v1/save", "{}"},
      {"tondrel_save", R"({"path":"/p.tondrel"})", "POST", "/v1/save", R"({"path":"/p.tondrel"})"},
      {"tondrel_snapshot", "{}", "GET", "/v1/snapshot.png", std::nullopt},
      {"tondrel_waveform", R"({"path":"/x.wav"})", "GET", "/v1/waveform?path=/x.wav", std::nullopt},
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
  for (std::size_t i = 0; i < std::size(cases); ++i) input += call(int(i), cases[i].tool, cases[i].arguments);
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
    EXPECT_EQ(r.headers.count("expect"), 0u);
    if (std::string_view(c.tool) != "tondrel_snapshot") {
      EXPECT_EQ(result,
                json::parse(R"({"content":[{"type":"text","text":"{\"ok\":true}"}],"isError":false})"));
    }
  }
  EXPECT_EQ(sent, requests.size());
}

TEST(ToolCalls, FailuresComeBackAsErrorResults) {
  StandInEditor editor;
  for (int status : {404, 500}) {
    editor.answer({status, R"({"error":"no such clip"})", "application/json"});
    auto reply = answers(runAgainst(editor, call(1, "tondrel_edit", R"({"ops":[]})")));
    EXPECT_EQ(
        reply.at(0)["result"],
        json::parse(R"({"content":[{"type":"text","text":"{\"error\":\"no such clip\"}"}],"isError":true})"));
  }

  int port = closedPort();
  auto down =
      runServer(call(7, "tondrel_state") + R"({"id":8,"method":"tools/call","params":{"name":"x"}})" + "\n",
                {"TONDREL_API_PORT=" + std::to_string(port)});
  auto replies = answers(down);
  ASSERT_EQ(replies.size(), 2u);
  EXPECT_EQ(replies[0]["result"]["isError"], true);
  EXPECT_EQ(replies[0]["result"]["content"][0]["text"],
            "Tondrel is not reachable at http://127.0.0.1:" + std::to_string(port) +
                " \xE2\x80\x94 launch /Applications/Tondrel.app and retry.");
  EXPECT_EQ(replies[1]["error"], json::parse(R"({"code":-32602,"message":"unknown tool: x"})"));
  EXPECT_EQ(down.err, "");
}

// A project document of about size bytes, compact as the writer writes it, with
// text that is not ASCII.
std::string document(std::size_t size) {
  std::string text = R"({"sampleRate":48000,"tempo":120.5,"tracks":[)";
  for (int clip = 0; text.size() < size; ++clip)
    text += (clip ? "," : "") + std::string("{\"name\":\"Gitarre \xC3\xBC/") + std::to_string(clip) +
            R"(","gainDB":-3.25,"clips":[{"id":"C)" + std::to_string(clip) + R"(","offset":)" +
            std::to_string(clip) + R"(.5,"notes":[60,62,64],"mute":false}]})";
  return text + "]}";
}

// Large answers arrive in many pieces and are written into the answer as they
// come: the answer must be what writing the whole body at once gives.
TEST(ToolCalls, LargePayloadsComeThroughByteExact) {
  StandInEditor editor;
  std::string png = "\x89PNG\r\n\x1A\n";
  for (std::minstd_rand bytes(1); png.size() < (16u << 20);) png += static_cast<char>(bytes());
  const std::string doc = document(20 << 20);
  std::string image = R"({"jsonrpc":"2.0","id":1,"result":{"content":[{"type":"image","data":)", text;
  JsonWriter(image).base64String(png);
  image += R"(,"mimeType":"image/png"},{"type":"text","text":"Snapshot of the Tondrel window."}]}})";
  JsonWriter(text).string(doc);

  editor.answer({200, png, "image/png"});
  EXPECT_TRUE(runAgainst(editor, call(1, "tondrel_snapshot")).out == image + "\n");
  editor.answer({200, doc, "application/json"});
  EXPECT_TRUE(runAgainst(editor, call(2, "tondrel_document")).out ==
              R"({"jsonrpc":"2.0","id":2,"result":{"content":[{"type":"text","text":)" + text +
                  R"(}],"isError":false}})" + "\n");
  runAgainst(editor, call(3, "tondrel_replace_document", R"({"document":)" + doc + "}"));
  EXPECT_TRUE(editor.requests().back().body == doc);
}

}  // namespace
}  // namespace tondrel::test
