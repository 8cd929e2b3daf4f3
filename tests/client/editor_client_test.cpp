// The editor client on its own: the base address, and what one exchange sends and
// gives back. How it survives a misbehaving editor is in faults_test.cpp.
#include "editor_client.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "curl_transport.hpp"
#include "stand_in_editor.hpp"

namespace tondrel {
namespace {

using test::StandInEditor;

// Collects what one exchange gave back.
struct Collected : AnswerSink {
  std::string text;
  void head(const APIResponse&, std::uint64_t) override {}
  void body(std::string_view piece) override { text += piece; }
};

TEST(ApiBaseURL, PortComesFromTheEnvironmentWhenItIsASignedDecimal) {
  const std::pair<const char*, const char*> cases[] = {
      {"8080", "8080"},
      {"+8080", "8080"},
      {"08080", "8080"},
      {"-0", "0"},
      {"99999", "99999"},
      {"", "17910"},
      {"8080\n", "17910"},
      {" 8080", "17910"},
      {"+", "17910"},
      {"80a", "17910"},
      {"0x1F90", "17910"},
      {"9223372036854775807", "9223372036854775807"},
      {"9223372036854775808", "17910"},
      {"-9223372036854775809", "17910"},
  };
  for (auto [value, port] : cases)
    EXPECT_EQ(apiBaseURL({{"TONDREL_API_PORT", value}}), std::string("http://127.0.0.1:") + port) << value;
  EXPECT_EQ(apiBaseURL({}), "http://127.0.0.1:17910");
  EXPECT_EQ(apiBaseURL({{"tondrel_api_port", "8080"}}), "http://127.0.0.1:17910");
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
  Collected sink;
  for (const auto& [base, path] : cases) {
    try {
      CurlClient(base, 5).send("GET", path, std::nullopt, sink);
      ADD_FAILURE() << base;
    } catch (const ProxyError& error) {
      EXPECT_EQ(error.kind(), ProxyError::Kind::badArguments);
      EXPECT_TRUE(error.description() == "bad path " + path) << base;
    }
  }
  EXPECT_TRUE(editor.requests().empty());
}

// Bytes the editor sent unasked on the idle connection, with no line loop looking at it
// in between, belong to no request: the next one goes out on a fresh connection.
TEST(CurlTransport, AConnectionWithUnreadBytesIsNeverReused) {
  std::atomic<bool> unasked = false;
  test::ScriptedServer editor([&](int fd, int number, const std::string&) {
    auto ok = [fd](int n) {
      test::writeText(fd, "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nn" + std::to_string(n));
    };
    ok(number);
    if (number == 1) std::this_thread::sleep_for(std::chrono::milliseconds(50)), ok(7), unasked = true;
    return true;
  });
  CurlClient client(editor.base(), 5);
  for (const char* expected : {"n1", "n2"}) {
    Collected answer;
    client.send("GET", "/v1/state", std::nullopt, answer);
    EXPECT_EQ(answer.text, expected);
    for (int i = 0; i < 500 && !unasked; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace
}  // namespace tondrel
