// Faults on demand: the grammar, which requests each rule hits, and what an agent reads
// through the built tondrel-mcp for each kind.
#include <gtest/gtest.h>

#include <future>

#include "faults.hpp"
#include "process.hpp"
#include "running_sim.hpp"

namespace tondrel::sim::test {
namespace {

TEST(Faults, TheGrammarReadsEveryKindAndNamesWhatIsWrong) {
  // The text, and the rules it reads as; "!" and a piece of the message for a refusal.
  const std::pair<const char*, const char*> cases[] = {
      {" delay=3s/every=4, status500/p=0.1,close/every=7 ,down=10s/after=3,serial",
       "delay=3s/every=4,status500/p=0.1,close/every=7,down=10s/after=3,serial"},
      {"delay=250ms,delay=1.5s,down=2m/after=0", "delay=250ms,delay=1500ms,down=120s/after=0"},
      {"", ""},
      {"bogus", "!unknown fault 'bogus' (delay=T, status500, close, down=T, serial)"},
      {"delay", "!delay: delay needs a duration, as in delay=3s"},
      {"delay=3", "!written like 250ms, 3s or 2m"},
      {"delay=0.5ms", "!the duration must be from 1ms to 10 minutes"},
      {"close=1", "!close=1: close takes no value"},
      {"serial/every=2", "!serial takes no trigger"},
      {"close/p=1.5", "!p needs a probability above 0 and at most 1"},
      {"close/when=3", "!unknown trigger 'when=3' (every=N, after=N or p=X)"},
      {"close/every=2/after=3", "!one trigger at most"},
  };
  for (const auto& [text, expected] : cases) {
    std::string rules, error;
    try {
      for (const FaultRule& rule : parseFaults(text)) rules += (rules.empty() ? "" : ",") + faultText(rule);
    } catch (const SimError& refusal) {
      error = refusal.what();
    }
    if (expected[0] == '!')
      EXPECT_NE(error.find(expected + 1), std::string::npos) << text << "\n  got: " << error;
    else
      EXPECT_EQ(rules, expected) << text << "\n  error: " << error;
  }
}

// What the first requests meet: '.' an answer, 'w' an answer after a delay, '5' status 500,
// 'x' a close, 'v' a down.
std::string outcomes(const char* text, int requests = 12, int seed = 7) {
  Faults faults(seed);
  faults.set(parseFaults(text));
  std::string out;
  for (int request = 0; request < requests; ++request) {
    FaultDecision decision = faults.next();
    out += ".5xv"[int(decision.outcome)];
    if (out.back() == '.' && decision.delay.count() > 0) out.back() = 'w';
  }
  return out;
}

TEST(Faults, EachTriggerHitsTheRequestsItSays) {
  const std::pair<const char*, const char*> cases[] = {
      {"close", "xxxxxxxxxxxx"},
      {"status500/every=4", "...5...5...5"},
      {"down=1s/after=3", "...v........"},
      {"delay=1s/every=2", ".w.w.w.w.w.w"},
      {"close/every=3,status500/every=2", ".5x5.x.5x5.x"},  // the first that fires, in the order written
      {"serial", "............"},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(outcomes(text), expected) << text;
  // p= follows the seed: the same seed fails the same requests, about as often as asked.
  std::string drawn = outcomes("status500/p=0.25", 400);
  EXPECT_EQ(outcomes("status500/p=0.25", 400), drawn);
  EXPECT_NE(outcomes("status500/p=0.25", 400, 8), drawn);
  EXPECT_NEAR(std::count(drawn.begin(), drawn.end(), '5'), 100, 40);
}

// The text an agent reads through tondrel-mcp, as docs/simulator.md quotes it for each kind.
TEST(Faults, EachKindReadsThroughTondrelMcpAsDocumented) {
  const std::string kFailed =
      R"x({"error":"the editor failed on this request (fault status500 of tondrel-editor-sim)"})x";
  const std::string kNothingToUndo = R"({"error":"nothing to undo"})";  // the request answered as usual
  // The faults, the tool, and the text ('#' stands for the port); every one is an error result.
  const std::tuple<const char*, const char*, std::string> cases[] = {
      {"status500", "tondrel_undo", kFailed},          {"status500", "tondrel_state", kFailed},
      {"close", "tondrel_undo", kUnreachable},         {"close", "tondrel_state", kUnreachable},
      {"down=1s", "tondrel_undo", kUnreachable},       {"down=1s", "tondrel_state", kUnreachable},
      {"delay=200ms", "tondrel_undo", kNothingToUndo}, {"serial", "tondrel_undo", kNothingToUndo},
  };
  for (const auto& [faults, tool, expected] : cases) {
    RunningSim sim(faults);
    tondrel::test::ServerProcess server({tondrel::test::editorAt(sim.port())});
    server.send(tondrel::test::toolCall(tool));
    json result = json::parse(server.readLine())["result"];
    EXPECT_EQ(result["content"][0]["text"], withPort(expected, sim.port())) << faults << " " << tool;
    EXPECT_EQ(result["isError"], true) << faults << " " << tool;
    if (auto logged = sim.client().Get("/log/1")) {  // none while down: the port is closed
      json entry = json::parse(logged->body);
      EXPECT_EQ(entry["faults"], json({faults})) << faults << " " << tool;
      EXPECT_GE(entry["ms"].get<double>(), faults == std::string("delay=200ms") ? 200 : 0);
    }
  }
}

// Serial: a second connection's request waits until the first connection has gone, as with
// an editor that serves one connection at a time; both count as /v1 connections while open.
TEST(Faults, SerialServesOneConnectionAtATime) {
  RunningSim sim("serial");
  auto first = sim.client(), second = sim.client();
  first.set_keep_alive(true);
  ASSERT_TRUE(first.Get("/v1/state"));
  auto waiting = std::async(std::launch::async, [&] { return second.Get("/v1/state"); });
  for (int tick = 0; tick < 500 && liveState(sim.port())["apiConnections"]["open"] != 2; ++tick)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_EQ(liveState(sim.port())["apiConnections"]["open"], 2);
  ASSERT_TRUE(first.Get("/v1/state"));  // the first connection is still served
  EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
  first.stop();
  ASSERT_EQ(waiting.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_TRUE(waiting.get());
  json counts;
  for (int tick = 0; tick < 500 && counts["open"] != 0; ++tick) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    counts = liveState(sim.port())["apiConnections"];
  }
  EXPECT_EQ(counts, json({{"open", 0}, {"most", 2}}));
}

// Down gives the port up for its length, then takes it back with the same project.
TEST(Faults, DownRefusesConnectionsForItsLengthThenServesTheSameProject) {
  RunningSim sim("down=1s/after=1");
  auto client = sim.client();
  ASSERT_TRUE(client.Post("/v1/edit", R"({"ops":[{"op":"track.add"}]})", "application/json"));
  EXPECT_FALSE(client.Get("/v1/state"));   // the request that takes it down: no answer
  EXPECT_FALSE(client.Get("/live.json"));  // the port is closed to the page as well
  json state;
  for (int tick = 0; tick < 100 && state.is_null(); ++tick) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    if (auto answer = client.Get("/v1/state")) state = json::parse(answer->body);
  }
  EXPECT_EQ(state["undoLabel"], "track.add") << "not back within 5 s";
}

}  // namespace
}  // namespace tondrel::sim::test
