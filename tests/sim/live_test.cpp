// The live page's side of the simulator, without a browser: open pages never keep an
// agent waiting, what /live.json counts, who may read and change what, and the log's bounds.
#include "live.hpp"

#include <gtest/gtest.h>

#include <memory>

#include "process.hpp"
#include "running_sim.hpp"

namespace tondrel::sim::test {
namespace {

TEST(Live, TwentyOpenPagesLeaveTondrelMcpAnsweredAndEachSeesEveryCall) {
  RunningSim sim;
  std::vector<std::unique_ptr<EventStream>> pages;
  for (int i = 0; i < 20; ++i) {
    pages.push_back(std::make_unique<EventStream>(sim.port()));
    ASSERT_TRUE(pages.back()->waitFor("event: hello")) << "page " << i;
  }
  tondrel::test::ServerProcess server({tondrel::test::editorAt(sim.port())});
  const std::pair<const char*, const char*> calls[] = {
      {"tondrel_edit", R"({"ops":[{"op":"track.add","name":"Seen live"}]})"}, {"tondrel_document", "{}"}};
  int id = 0;
  for (const auto& [tool, arguments] : calls) {
    server.send(tondrel::test::toolCall(tool, ++id, arguments));
    std::string answer = server.readLine();
    ASSERT_FALSE(answer.empty()) << tool << ": no answer";
    EXPECT_EQ(json::parse(answer)["result"]["isError"], false) << tool << ": " << answer;
  }
  for (auto& page : pages) {
    EXPECT_TRUE(page->waitFor(R"("name":"Seen live")"));  // the project in short, changed
    EXPECT_TRUE(page->waitFor(R"("target":"/v1/document")"));
  }
  json live = liveState(sim.port());
  EXPECT_EQ(live["streams"], 20);
  EXPECT_EQ(live["requests"], 2);
  EXPECT_LE(live["apiConnections"]["most"], 2);  // the pages' connections are not /v1's
}

// Another site's page in the same browser may send requests here: it must not read the
// log, nor switch faults on.
TEST(Live, ThePageAnswersAtItsOwnAddressOnlyAndAllowsNoOtherOrigin) {
  RunningSim sim;
  const std::string faults = R"({"faults":"close/every=9"})";
  // Method, path, Host ('#' the port), Origin, content type, body, and the status.
  const std::tuple<const char*, const char*, const char*, const char*, const char*, std::string, int>
      cases[] = {
          {"GET", "/", "127.0.0.1:#", "", "", "", 200},
          {"GET", "/timeline.png", "127.0.0.1:#", "", "", "", 200},
          {"GET", "/live.json", "attacker.example:#", "", "", "", 403},
          {"GET", "/log/1", "127.0.0.1:#", "", "", "", 404},
          {"GET", "/elsewhere", "127.0.0.1:#", "", "", "", 404},
          {"POST", "/faults", "127.0.0.1:#", "http://attacker.example", "application/json", faults, 403},
          {"POST", "/faults", "127.0.0.1:#", "", "text/plain", faults, 415},
          {"POST", "/faults", "127.0.0.1:#", "", "application/json", "{\"faults\":\"never\"}", 400},
          {"OPTIONS", "/faults", "127.0.0.1:#", "http://attacker.example", "", "", 0},  // any status
          {"POST", "/faults", "localhost:#", "http://localhost:#", "application/json", faults, 200},
      };
  auto client = sim.client();
  for (const auto& [method, path, host, origin, type, body, status] : cases) {
    httplib::Request request;
    request.method = method, request.path = path, request.body = body;
    request.set_header("Host", withPort(host, sim.port()));
    if (*origin) request.set_header("Origin", withPort(origin, sim.port()));
    if (*type) request.set_header("Content-Type", type);
    auto answer = client.send(request);
    ASSERT_TRUE(answer) << method << " " << path;
    if (status) {
      EXPECT_EQ(answer->status, status) << method << " " << path << " " << host << " " << origin;
    }
    EXPECT_FALSE(answer->has_header("Access-Control-Allow-Origin")) << method << " " << path;
  }
  EXPECT_EQ(liveState(sim.port())["faults"]["text"], "close/every=9");  // the one change let through
}

TEST(Live, TheLogKeepsTheLastThousandRequestsAndBoundsTheirBodies) {
  RequestLog log;
  // Bodies past 64 KiB whose cut falls inside a two-byte character; 1,100 of them overrun every bound.
  std::string large = "x";
  while (large.size() < 70000) large += "\u00e9";
  for (int i = 0; i < 1100; ++i) {
    LogEntry entry;
    entry.requestBody = entry.answerBody = large;
    entry.requestBytes = entry.answerBytes = large.size();
    log.add(std::move(entry));
  }
  json rows = log.list();
  ASSERT_EQ(rows.size(), RequestLog::kEntries);
  EXPECT_EQ(rows.front()["id"], 1100);  // newest first
  EXPECT_EQ(rows.back()["id"], 101);
  EXPECT_LE(log.bodyBytes(), RequestLog::kAllBodies);
  json newest = *log.entry(1100);
  EXPECT_EQ(newest["request"]["text"].get<std::string>().size(),
            RequestLog::kBodyBytes - 1);  // whole characters
  EXPECT_EQ(newest["request"]["truncated"], true);
  EXPECT_EQ(newest["answer"]["bytes"], large.size());
  EXPECT_EQ((*log.entry(101))["request"]["dropped"], true);  // the oldest gave theirs up
  EXPECT_FALSE(log.entry(100));
}

}  // namespace
}  // namespace tondrel::sim::test
