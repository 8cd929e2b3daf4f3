// The editor client on its own: the base address, and what one exchange sends and
// gives back. How it survives a misbehaving editor is in faults_test.cpp.
#include "editor_client.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include "stand_in_editor.hpp"

namespace tondrel {
namespace {

using test::ScriptedServer;
using test::StandInEditor;

// The transport as a caller that wants the whole answer uses it.
auto client(std::string base) {
  return [send = curlTransport(std::move(base), 5)](std::string_view method, std::string_view path,
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

TEST(CurlTransport, GivesBackStatusBodyAndHeadersAsReceived) {
  ScriptedServer raw([](int fd, int, const std::string&) {
    test::writeText(fd, "HTTP/1.1 200 OK\r\nX-Request-Id: AbC\r\nContent-Length: 2\r\n\r\nhi");
    return true;
  });
  APIResponse response = client(raw.base())("GET", "/v1/state", std::nullopt);
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.data, "hi");
  EXPECT_EQ(response.headers.at("x-request-id"), "AbC");
  EXPECT_EQ(response.contentType, "");
  EXPECT_EQ(response.headers.count("content-type"), 0u);
}

TEST(CurlTransport, IgnoresProxiesNamedInTheEnvironment) {
  StandInEditor editor;
  std::string nowhere = "http://127.0.0.1:" + std::to_string(test::closedPort());
  for (const char* name : {"http_proxy", "HTTP_PROXY", "ALL_PROXY", "all_proxy"})
    ::setenv(name, nowhere.c_str(), 1);
  auto response = client(editor.base())("GET", "/v1/state", std::nullopt);
  for (const char* name : {"http_proxy", "HTTP_PROXY", "ALL_PROXY", "all_proxy"}) ::unsetenv(name);
  EXPECT_EQ(response.status, 200);
}

// An address no request can carry is the agent's to fix, never the editor's
// fault, and nothing at all is sent for it.
TEST(CurlTransport, AnAddressNoRequestCanCarryIsABadPathAndSendsNothing) {
  StandInEditor editor;
  const std::pair<std::string, std::string> cases[] = {
      {"http://127.0.0.1:99999", "/v1/state"},
      {"http://127.0.0.1:-1", "/v1/state"},
      {editor.base(), std::string("/v1/waveform?path=a\0b", 21)},
      {editor.base(), "/v1/waveform?path=" + std::string(1 << 20, 'a')},
  };
  for (const auto& [base, path] : cases) {
    try {
      client(base)("GET", path, std::nullopt);
      ADD_FAILURE() << base;
    } catch (const ProxyError& error) {
      EXPECT_EQ(error.kind(), ProxyError::Kind::badArguments);
      EXPECT_TRUE(error.description() == "bad path " + path) << base;
    }
  }
  EXPECT_TRUE(editor.requests().empty());
}

}  // namespace
}  // namespace tondrel
