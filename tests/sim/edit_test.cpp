// Batch edits on a real session: atomic, one undo step, and the timeline arithmetic.
#include <gtest/gtest.h>

#include <set>

#include "sim_support.hpp"
#include "catalogue.hpp"

namespace tondrel::sim::test {
namespace {

std::string failure(Session& session, const json& ops) {
  try {
    edit(session, ops);
    return "";
  } catch (const SimError& error) {
    return error.what();
  }
}

// Each clip of track 0 as [offset, duration, sourceStart].
std::vector<std::array<double, 3>> clips(const Session& session, std::size_t track = 0) {
  std::vector<std::array<double, 3>> out;
  for (const json& clip : session.document()["tracks"][track]["clips"])
    out.push_back({clip["offset"], clip["duration"], clip["sourceStart"]});
  return out;
}

TEST(Edit, ABatchThatFailsAnywhereChangesNothing) {
  Scratch scratch;
  Session session(0);
  importTone(session, scratch);
  json before = session.document();
  std::string message = failure(session, {{{"op", "track.add"}},
                                          {{"op", "master.gain"}, {"db", -3}},
                                          {{"op", "clip.gain"}, {"clip", "NOPE"}, {"db", 1}}});
  EXPECT_EQ(message, "ops[2] (clip.gain): no clip with id \"NOPE\"");
  EXPECT_EQ(session.document(), before);
  EXPECT_EQ(session.state()["undoLabel"], "Edit (2 operations)");  // the import, not the failed batch
}

TEST(Edit, EachBatchIsOneUndoStepWithItsLabel) {
  Scratch scratch;
  Session session(0);
  std::string clip = importTone(session, scratch);
  json imported = session.document();
  edit(session, {{{"op", "clip.gain"}, {"clip", clip}, {"db", -6}}, {{"op", "marker.add"}, {"time", 1}}},
       "Duck");
  json edited = session.document();
  EXPECT_EQ(session.state()["undoLabel"], "Duck");
  session.undo();
  EXPECT_EQ(session.document(), imported);
  EXPECT_EQ(session.state()["redoLabel"], "Duck");
  session.redo();
  EXPECT_EQ(session.document(), edited);
  EXPECT_EQ(session.state()["redoLabel"], nullptr);
  session.undo();
  session.undo();
  EXPECT_THROW(session.undo(), SimError);
  EXPECT_TRUE(session.document()["tracks"].empty());
}

TEST(Edit, CutsAndMovesKeepSourceAndTimelineInStep) {
  struct Case {
    const char* ops;  // $ stands for the tone clip's id
    std::vector<std::array<double, 3>> expected;
  };
  const Case cases[] = {
      {R"([{"op":"clip.split","clip":"$","at":1.5}])", {{0, 1.5, 0}, {1.5, 2.5, 1.5}}},
      {R"([{"op":"clip.split","at":1.5}])", {{0, 1.5, 0}, {1.5, 2.5, 1.5}}},
      {R"([{"op":"range.delete","start":1,"end":2,"ripple":true}])", {{0, 1, 0}, {1, 2, 2}}},
      {R"([{"op":"range.delete","start":1,"end":2}])", {{0, 1, 0}, {2, 2, 2}}},
      {R"([{"op":"range.silence","start":3,"end":5}])", {{0, 3, 0}}},
      {R"([{"op":"range.crop","start":1,"end":3}])", {{0, 2, 1}}},
      {R"([{"op":"range.cut","start":0,"end":1,"ripple":true},{"op":"range.paste","at":3,"track":0}])",
       {{0, 3, 1}, {3, 1, 0}}},
      {R"([{"op":"range.copy","start":0,"end":1},{"op":"range.paste","at":0,"ripple":true}])",
       {{0, 1, 0}, {1, 4, 0}}},
      {R"([{"op":"clip.trim","clip":"$","start":0.5,"end":2}])", {{0.5, 1.5, 0.5}}},
      {R"([{"op":"clip.trim","clip":"$","start":1},{"op":"clip.slip","clip":"$","by":-0.25}])",
       {{1, 3, 0.75}}},
      {R"([{"op":"clip.trim","clip":"$","end":1},{"op":"clip.slip","clip":"$","by":10}])", {{0, 1, 3}}},
      {R"([{"op":"clip.move","clip":"$","offset":2},{"op":"clip.duplicate","clips":["$"]}])",
       {{2, 4, 0}, {6, 4, 0}}},
      {R"([{"op":"clip.remove","clips":["$"]}])", {}},
      // A reversed clip keeps the end of its source on its left.
      {R"([{"op":"clip.reverse","clip":"$"},{"op":"clip.split","at":1}])", {{0, 1, 3}, {1, 3, 0}}},
  };
  Scratch scratch;
  for (const Case& c : cases) {
    Session session(0);
    std::string clip = importTone(session, scratch);
    std::string ops = c.ops;
    for (std::size_t at; (at = ops.find('$')) != std::string::npos;) ops.replace(at, 1, clip);
    edit(session, json::parse(ops));
    EXPECT_EQ(clips(session), c.expected) << c.ops;
  }
}

TEST(Edit, RefusesWhatTheTimelineCannotHold) {
  const std::pair<const char*, const char*> cases[] = {
      {R"([{"op":"clip.trim","clip":"$","end":5}])", "covers only 4"},
      {R"([{"op":"clip.split","clip":"$","at":9}])", "does not span 9"},
      {R"([{"op":"range.delete","start":2,"end":1}])", "must come after start"},
      {R"([{"op":"clip.move","clip":"$","offset":-1}])", "offset must lie between 0 and"},
      {R"([{"op":"track.set","track":0,"pan":2}])", "pan must lie between -1 and 1"},
      {R"([{"op":"track.remove","track":3}])", "no track 3: the project has 1 tracks"},
      {R"([{"op":"note.add","pitch":60,"start":0}])", "no MIDI track"},
      {R"([{"op":"clip.add","path":"/nonexistent/a.wav"}])", "no audio file at /nonexistent/a.wav"},
      {R"([{"op":"range.paste","at":0}])", "nothing to paste"},
      {R"([{"op":"track.bounceToAudio","track":0}])", "already an audio track"},
      {R"([{"op":"tempo.set","denominator":3}])", "denominator must be"},
  };
  Scratch scratch;
  for (const auto& [text, expected] : cases) {
    Session session(0);
    std::string clip = importTone(session, scratch);
    std::string ops = text;
    for (std::size_t at; (at = ops.find('$')) != std::string::npos;) ops.replace(at, 1, clip);
    EXPECT_NE(failure(session, json::parse(ops)).find(expected), std::string::npos)
        << text << "\n  got: " << failure(session, json::parse(ops));
  }
}

// Every operation of the reference, once, on a project that has what it needs.
TEST(Edit, EveryOperationOfTheReferenceApplies) {
  Scratch scratch;
  Session session(0);
  std::string a = importTone(session, scratch);
  session.load(session.document(), scratch.file("project.tondrel"));
  std::set<std::string> used;
  auto apply = [&](json op) {
    used.insert(op["op"]);
    json result = edit(session, json::array({op}));
    return result["created"].empty() ? std::string() : result["created"][0].get<std::string>();
  };
  auto noteOn = [&](int pitch, double start) {
    return apply({{"op", "note.add"}, {"track", 1}, {"pitch", pitch}, {"start", start}, {"velocity", 90}});
  };
  std::string b = apply({{"op", "clip.add"},
                         {"path", scratch.file("tone.wav")},
                         {"track", 0},
                         {"offset", 3.5},
                         {"fadeIn", 0.1},
                         {"fadeShape", "linear"}});
  apply({{"op", "track.add"}, {"name", "Keys"}, {"kind", "midi"}, {"program", 4}});
  std::string n1 = noteOn(60, 0.1), n2 = noteOn(64, 0.6);
  apply({{"op", "note.move"}, {"note", n1}, {"start", 0.2}});
  apply({{"op", "note.trim"}, {"note", n1}, {"duration", 0.4}});
  apply({{"op", "note.velocity"}, {"note", n1}, {"velocity", 120}});
  apply({{"op", "note.pitch"}, {"note", n2}, {"pitch", 67}});
  apply({{"op", "note.quantize"}, {"track", 1}});
  apply({{"op", "note.transpose"}, {"notes", {n1, n2}}, {"semitones", 2}});
  apply({{"op", "tempo.set"}, {"bpm", 100}, {"numerator", 3}});
  apply({{"op", "track.bounceToAudio"}, {"track", 1}});
  apply({{"op", "note.remove"}, {"notes", {n2}}, {"ripple", true}});
  apply({{"op", "track.duplicate"}, {"track", 0}});
  apply({{"op", "track.move"}, {"track", 3}, {"delta", -1}});
  apply({{"op", "track.set"}, {"track", 0}, {"gainDB", -3}, {"pan", -0.5}, {"solo", true}});
  apply({{"op", "track.remove"}, {"track", 2}});
  apply({{"op", "clip.fades"}, {"clip", a}, {"fadeIn", 0.2}, {"fadeOut", 0.3}, {"shape", "exponential"}});
  apply({{"op", "clip.gain"}, {"clip", a}, {"db", -2}});
  apply({{"op", "clip.normalize"}, {"clip", a}, {"targetDB", -1}});
  EXPECT_NEAR(session.document()["tracks"][0]["clips"][0]["gainDB"].get<double>(), -1 + 6.0206, 0.01);
  apply({{"op", "clip.mute"}, {"clip", b}, {"mute", true}});
  apply({{"op", "clip.crossfade"}, {"clipA", a}, {"clipB", b}});
  apply({{"op", "clip.reverse"}, {"clip", b}});
  apply({{"op", "clip.move"}, {"clip", b}, {"offset", 5}});
  apply({{"op", "clip.slip"}, {"clip", b}, {"by", 0.1}});
  apply({{"op", "clip.trim"}, {"clip", b}, {"end", 7}});
  std::string c = apply({{"op", "clip.split"}, {"clip", b}, {"at", 6}});
  apply({{"op", "clip.duplicate"}, {"clips", {c}}});
  apply({{"op", "clip.remove"}, {"clips", {c}}, {"ripple", true}});
  apply({{"op", "range.copy"}, {"start", 0}, {"end", 1}});
  apply({{"op", "range.paste"}, {"at", 8}});
  apply({{"op", "range.cut"}, {"start", 8}, {"end", 8.5}});
  apply({{"op", "range.delete"}, {"start", 8}, {"end", 8.2}, {"ripple", true}});
  apply({{"op", "range.silence"}, {"start", 1.2}, {"end", 1.3}});
  apply({{"op", "range.fadeIn"}, {"start", 0}, {"end", 0.5}, {"shape", "logarithmic"}});
  apply({{"op", "range.fadeOut"}, {"start", 0.5}, {"end", 1.2}});
  apply({{"op", "range.crop"}, {"start", 0}, {"end", 9}});
  std::string m = apply({{"op", "marker.add"}, {"name", "Drop"}, {"time", 2}});
  apply({{"op", "marker.remove"}, {"marker", m}});
  apply({{"op", "clip.add"}, {"path", "tone.wav"}, {"offset", 9}});  // relative to the project's folder
  apply({{"op", "master.gain"}, {"db", -1}});

  for (const EditOperation& operation : editOperations())
    EXPECT_TRUE(used.count(std::string(operation.op))) << operation.op;
  EXPECT_NO_THROW(normalizedDocument(session.document()));  // still a document the editor can load
}

}  // namespace
}  // namespace tondrel::sim::test
