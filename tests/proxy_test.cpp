#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "editor_client.hpp"
#include "stand_in_editor.hpp"

namespace tondrel {
namespace {

using test::CannedAnswer;
using test::readRequest;
using test::ScriptedServer;
using test::StandInEditor;
using test::writeText;

// The transport as a caller that wants the whole answer uses it.
auto client(std::string base, double timeout) {
  return [send = curlTransport(std::move(base), timeout)](std::string_view method, std::string_view path,
                                                          std::optional<std::string_view> body) {
    return send(method, path, body, nullptr);
  };
}

TEST(ApiBaseURL, PortComesFromTheEnvironmentWhenItIsASignedDecimal) {
  const std::pair<const char*, const char*> cases[] = {
      {"8080", "8080"},
      {"+8080", "8080"},
      {"08080", "8080"},
      {"-0", "0"},
      {"-1", "-1"},
      {"99999", "99999"},
      {"", "17910"},
      {"8080\n", "17910"},
      {" 8080", "17910"},
      {"+", "17910"},
      {"-", "17910"},
      {"80a", "17910"},
      {"0x1F90", "17910"},
      {"8_080", "17910"},
      {"--1", "17910"},
      {"+-1", "17910"},
      {"9223372036854775807", "9223372036854775807"},
      {"9223372036854775808", "17910"},
      {"-9223372036854775808", "-9223372036854775808"},
      {"-9223372036854775809", "17910"},
  };
  for (auto [value, port] : cases)
    EXPECT_EQ(apiBaseURL({{"TONDREL_API_PORT", value}}), std::string("http://127.0.0.1:") + port) << value;
  EXPECT_EQ(apiBaseURL({}), "http://127.0.0.1:17910");
  EXPECT_EQ(apiBaseURL({{"tondrel_api_port", "8080"}}), "http://127.0.0.1:17910");
}

TEST(ProxyError, DescriptionIsTheAgentsText) {
  EXPECT_EQ(ProxyError::unreachable("http://127.0.0.1:8080").description(),
            "Tondrel is not reachable at http://127.0.0.1:8080 \xE2\x80\x94 launch /Applications/Tondrel.app "
            "and retry.");
  EXPECT_EQ(ProxyError::unreachable("").description(),
            "Tondrel is not reachable at  \xE2\x80\x94 launch /Applications/Tondrel.app and retry.");
  EXPECT_EQ(ProxyError::badArguments("missing argument 'ops'").description(), "missing argument 'ops'");
  EXPECT_EQ(ProxyError::badArguments("").description(), "");
  EXPECT_EQ(ProxyError::unreachable("x").kind(), ProxyError::Kind::unreachable);
  EXPECT_EQ(ProxyError::badArguments("x").kind(), ProxyError::Kind::badArguments);
}

// What reached the editor, for each way a request may carry a body.
TEST(CurlTransport, SendsBodyAndContentTypeExactlyWhenThereIsABody) {
  StandInEditor editor;
  auto send = client(editor.base(), 5);
  const std::string big(2 << 20, 'x');  // past the size where curl would wait for "100 Continue"
  send("POST", "/v1/edit", R"({"ops":[]})");
  send("GET", "/v1/state", std::nullopt);
  send("POST", "/v1/undo", std::nullopt);
  send("PUT", "/v1/document", "");
  send("PUT", "/v1/document", big);

  auto requests = editor.requests();
  ASSERT_EQ(requests.size(), 5u);
  struct Expected {
    const char* method;
    const char* target;
    std::string body;
    bool typed;
  } expected[] = {{"POST", "/v1/edit", R"({"ops":[]})", true},
                  {"GET", "/v1/state", "", false},
                  {"POST", "/v1/undo", "", false},
                  {"PUT", "/v1/document", "", true},
                  {"PUT", "/v1/document", big, true}};
  for (std::size_t i = 0; i < requests.size(); ++i) {
    const auto& r = requests[i];
    EXPECT_EQ(r.method, expected[i].method) << i;
    EXPECT_EQ(r.target, expected[i].target) << i;
    EXPECT_TRUE(r.body == expected[i].body) << i;
    EXPECT_EQ(r.headers.count("content-type"), expected[i].typed ? 1u : 0u) << i;
    if (expected[i].typed) {
      EXPECT_EQ(r.headers.at("content-type"), "application/json; charset=utf-8");
    }
    EXPECT_EQ(r.headers.count("expect"), 0u) << i;
  }
}

TEST(CurlTransport, PassesEveryStatusThroughWithItsBody) {
  StandInEditor editor;
  auto send = client(editor.base(), 5);
  for (int status : {200, 399, 404, 500}) {
    editor.answer({status, R"({"error":"nope"})", "application/json; charset=utf-8"});
    APIResponse response = send("GET", "/v1/state", std::nullopt);
    EXPECT_EQ(response.status, status);
    EXPECT_EQ(response.data, R"({"error":"nope"})");
    EXPECT_EQ(response.contentType, "application/json; charset=utf-8");
    EXPECT_EQ(response.headers.at("content-type"), response.contentType);
  }
}

ScriptedServer::Script answerWith(std::string raw) {
  return [raw](int fd) {
    while (!readRequest(fd).empty()) writeText(fd, raw);
  };
}

TEST(CurlTransport, FoldsHeaderNamesAndLeavesContentTypeEmptyWhenAbsent) {
  ScriptedServer editor(answerWith("HTTP/1.1 200 OK\r\nX-Request-Id: AbC\r\nContent-Length: 2\r\n\r\nhi"));
  APIResponse response = client(editor.base(), 5)("GET", "/v1/state", std::nullopt);
  EXPECT_EQ(response.headers.at("x-request-id"), "AbC");
  EXPECT_EQ(response.contentType, "");
  EXPECT_EQ(response.headers.count("content-type"), 0u);
  EXPECT_EQ(response.data, "hi");

  ScriptedServer image(answerWith("HTTP/1.1 200 OK\r\nCONTENT-TYPE: image/png\r\nContent-Length: 0\r\n\r\n"));
  response = client(image.base(), 5)("GET", "/v1/snapshot.png", std::nullopt);
  EXPECT_EQ(response.contentType, "image/png");
  EXPECT_EQ(response.headers.at("content-type"), "image/png");
  EXPECT_TRUE(response.data.empty());
}

void expectUnreachable(const std::string& base,
                       const std::function<APIResponse(std::string_view, std::string_view,
                                                       std::optional<std::string_view>)>& send) {
  try {
    send("GET", "/v1/state", std::nullopt);
    ADD_FAILURE() << "no error";
  } catch (const ProxyError& error) {
    EXPECT_EQ(error.kind(), ProxyError::Kind::unreachable);
    EXPECT_EQ(error.payload(), base);
  }
}

TEST(CurlTransport, EveryWayOfGettingNoAnswerIsUnreachable) {
  std::string refused = "http://127.0.0.1:" + std::to_string(test::closedPort());
  expectUnreachable(refused, client(refused, 1));

  const std::pair<const char*, ScriptedServer::Script> faults[] = {
      {"stalls past the timeout",
       [](int fd) {
         readRequest(fd);
         char c;
         ::recv(fd, &c, 1, 0);  // silent until the client gives up
       }},
      {"breaks off mid-body",
       [](int fd) {
         readRequest(fd);
         writeText(fd, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nonly ten b");
       }},
      {"answers with bytes that are not HTTP",
       [](int fd) {
         readRequest(fd);
         writeText(fd, "SSH-2.0-OpenSSH_9.2\r\n\r\n");
       }},
      {"closes without a word", [](int fd) { readRequest(fd); }},
  };
  for (const auto& [what, script] : faults) {
    SCOPED_TRACE(what);
    ScriptedServer editor(script);
    expectUnreachable(editor.base(), client(editor.base(), 1));
  }
}

TEST(CurlTransport, AResetInTheMiddleOfALargeUploadIsUnreachable) {
  ScriptedServer editor([](int fd) {
    char chunk[1 << 16];
    for (std::size_t read = 0; read < (4 << 20);)
      read += std::max<ssize_t>(::recv(fd, chunk, sizeof chunk, 0), 1);
    linger reset{1, 0};  // close with a RST, as a crashing editor's kernel would
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  });
  const std::string document(32 << 20, ' ');
  try {
    client(editor.base(), 5)("PUT", "/v1/document", document);
    ADD_FAILURE() << "no error";
  } catch (const ProxyError& error) {
    EXPECT_EQ(error.kind(), ProxyError::Kind::unreachable);
  }
}

TEST(CurlTransport, AnAnswerThatKeepsFlowingOutlastsTheTimeout) {
  ScriptedServer editor([](int fd) {
    readRequest(fd);
    writeText(fd, "HTTP/1.1 200 OK\r\nContent-Length: 20\r\n\r\n");
    for (int i = 0; i < 20; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      writeText(fd, "x");
    }
  });
  EXPECT_EQ(client(editor.base(), 1)("GET", "/v1/state", std::nullopt).data, std::string(20, 'x'));
}

TEST(CurlTransport, KeepsOneConnectionAndSurvivesTheEditorClosingIt) {
  const std::string ok = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
  // The first connection serves two requests, then takes a third and hangs up on
  // it, as an editor that quits between calls does.
  ScriptedServer editor([&, served = 0](int fd) mutable {
    while (!readRequest(fd).empty()) {
      if (served++ == 2) return;
      writeText(fd, ok);
    }
  });
  auto send = client(editor.base(), 5);
  for (int call = 0; call < 4; ++call) EXPECT_EQ(send("POST", "/v1/undo", std::nullopt).data, "ok") << call;
  EXPECT_EQ(editor.connections(), 2);
}

TEST(CurlTransport, AnswersAgainAfterTheEditorRestarts) {
  auto editor = std::make_unique<ScriptedServer>(answerWith("HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\n1"));
  int port = editor->port();
  auto send = client(editor->base(), 5);
  EXPECT_EQ(send("GET", "/v1/state", std::nullopt).data, "1");
  editor.reset();
  expectUnreachable("http://127.0.0.1:" + std::to_string(port), send);
  editor =
      std::make_unique<ScriptedServer>(answerWith("HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\n2"), port);
  EXPECT_EQ(send("GET", "/v1/state", std::nullopt).data, "2");
}

TEST(CurlTransport, IgnoresProxiesNamedInTheEnvironment) {
  StandInEditor editor;
  std::string nowhere = "http://127.0.0.1:" + std::to_string(test::closedPort());
  for (const char* name : {"http_proxy", "HTTP_PROXY", "ALL_PROXY", "all_proxy"})
    ::setenv(name, nowhere.c_str(), 1);
  auto response = client(editor.base(), 5)("GET", "/v1/state", std::nullopt);
  for (const char* name : {"http_proxy", "HTTP_PROXY", "ALL_PROXY", "all_proxy"}) ::unsetenv(name);
  EXPECT_EQ(response.status, 200);
}

TEST(CurlTransport, AnAddressThatIsNoURLIsABadPathAndSendsNothing) {
  for (const char* base : {"http://127.0.0.1:99999", "http://127.0.0.1:-1"}) {
    try {
      client(base, 1)("GET", "/v1/state", std::nullopt);
      ADD_FAILURE() << base;
    } catch (const ProxyError& error) {
      EXPECT_EQ(error.kind(), ProxyError::Kind::badArguments);
      EXPECT_EQ(error.description(), "bad path /v1/state");
    }
  }
}

}  // namespace
}  // namespace tondrel
