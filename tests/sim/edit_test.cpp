// Batch edits on a real session: atomic, one undo step, and what each operation does.
#include <gtest/gtest.h>

#include <set>

#include "catalogue.hpp"
#include "sim_support.hpp"

namespace tondrel::sim::test {
namespace {

// A session with tone.wav on track 0 ($), a MIDI track 1 with one note (#) at 0.5-1 s,
// and a project file, so that bounces have a folder.
struct Project {
  Scratch scratch;
  Session session{0};
  std::map<char, std::string> ids;
  Project() {
    ids['$'] = importTone(session, scratch);
    json created =
        edit(session, {{{"op", "track.add"}, {"name", "Keys"}, {"kind", "midi"}},
                       {{"op", "note.add"}, {"track", 1}, {"pitch", 60}, {"start", 0.5}, {"duration", 0.5}}});
    ids['#'] = created["created"][1];
    session.load(session.document(), scratch.file("project.tondrel"));
  }
  // Applies each op as its own edit; '@' stands for the id the previous op created.
  void apply(const char* text) {
    for (json op : withIds(text, ids)) {
      json created = edit(session, withIds(json::array({op}).dump(), ids))["created"];
      if (!created.empty()) ids['@'] = created[0];
    }
  }
};

TEST(Edit, ABatchThatFailsAnywhereChangesNothingAndEachBatchIsOneUndoStep) {
  Project p;
  json before = p.session.document();
  EXPECT_EQ(refusal([&] {
              edit(p.session, {{{"op", "track.add"}}, {{"op", "clip.gain"}, {"clip", "NOPE"}, {"db", 1}}});
            }),
            "ops[1] (clip.gain): no clip with id \"NOPE\"");
  EXPECT_EQ(p.session.document(), before);
  edit(p.session,
       {{{"op", "clip.gain"}, {"clip", p.ids['$']}, {"db", -6}}, {{"op", "marker.add"}, {"time", 1}}});
  json after = p.session.document();
  EXPECT_EQ(p.session.state()["undoLabel"], "Edit (2 operations)");
  p.session.undo();
  EXPECT_EQ(p.session.document(), before);
  EXPECT_EQ(p.session.state()["redoLabel"], "Edit (2 operations)");
  p.session.redo();
  EXPECT_EQ(p.session.document(), after);
  EXPECT_EQ(refusal([&] { p.session.redo(); }), "nothing to redo");
}

// Ops, and then the clips of track 0: offset, duration, sourceStart.
const std::pair<const char*, std::vector<std::array<double, 3>>> kCuts[] = {
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
    {R"([{"op":"clip.trim","clip":"$","start":1},{"op":"clip.slip","clip":"$","by":-0.25}])", {{1, 3, 0.75}}},
    {R"([{"op":"clip.trim","clip":"$","end":1},{"op":"clip.slip","clip":"$","by":10}])", {{0, 1, 3}}},
    {R"([{"op":"clip.move","clip":"$","offset":2},{"op":"clip.duplicate","clips":["$"]}])",
     {{2, 4, 0}, {6, 4, 0}}},
    {R"([{"op":"clip.remove","clips":["$"]}])", {}},
    // A reversed clip keeps the end of its source on its left.
    {R"([{"op":"clip.reverse","clip":"$"},{"op":"clip.split","at":1}])", {{0, 1, 3}, {1, 3, 0}}},
};

// Ops, a place in the document, and its value after them.
const std::tuple<const char*, const char*, json> kEffects[] = {
    {R"([{"op":"track.add","name":"Bus","at":0}])", "/tracks/0/name", "Bus"},
    {R"([{"op":"track.remove","track":0}])", "/tracks/0/name", "Keys"},
    {R"([{"op":"track.duplicate","track":0}])", "/tracks/1/name", "Tone copy"},
    {R"([{"op":"track.move","track":0,"delta":1}])", "/tracks/1/name", "Tone"},
    {R"([{"op":"track.set","track":0,"gainDB":-3,"solo":true}])", "/tracks/0/solo", true},
    {R"([{"op":"track.bounceToAudio","track":1,"replace":true}])", "/tracks/1/name", "Keys (bounced)"},
    {R"([{"op":"note.add","pitch":64,"start":0}])", "/tracks/1/notes/0/pitch", 64},
    {R"([{"op":"note.move","note":"#","start":0.55,"pitch":62},{"op":"note.quantize","track":1}])",
     "/tracks/1/notes/0/start", 0.5},
    {R"([{"op":"note.trim","note":"#","start":0.75}])", "/tracks/1/notes/0/duration", 0.25},
    {R"([{"op":"note.velocity","note":"#","velocity":20}])", "/tracks/1/notes/0/velocity", 20},
    {R"([{"op":"note.pitch","note":"#","pitch":70},{"op":"note.transpose","notes":["#"],"semitones":-12}])",
     "/tracks/1/notes/0/pitch", 58},
    {R"([{"op":"note.remove","notes":["#"]}])", "/tracks/1/notes", json::array()},
    {R"([{"op":"tempo.set","bpm":90,"numerator":3}])", "/tempo/numerator", 3},
    {R"([{"op":"clip.add","path":"tone.wav","track":0,"offset":5}])", "/tracks/0/clips/1/offset", 5},
    {R"([{"op":"clip.fades","clip":"$","fadeIn":9,"shape":"linear"}])", "/tracks/0/clips/0/fadeIn", 4},
    {R"([{"op":"clip.gain","clip":"$","db":-6}])", "/tracks/0/clips/0/gainDB", -6},
    {R"([{"op":"clip.normalize","clip":"$","targetDB":-1}])", "/tracks/0/clips/0/gainDB", 5.0206},
    {R"([{"op":"clip.mute","clip":"$","mute":true}])", "/tracks/0/clips/0/mute", true},
    {R"([{"op":"clip.duplicate","clips":["$"]},{"op":"clip.crossfade","clipA":"$","clipB":"@","duration":1}])",
     "/tracks/0/clips/1/offset", 3},
    {R"([{"op":"range.fadeIn","start":0,"end":1}])", "/tracks/0/clips/0/fadeIn", 1},
    {R"([{"op":"range.fadeOut","start":3,"end":4,"shape":"exponential"}])", "/tracks/0/clips/0/fadeShape",
     "exponential"},
    {R"([{"op":"marker.add","time":2,"name":"Drop"}])", "/markers/0/name", "Drop"},
    {R"([{"op":"marker.add","time":2},{"op":"marker.remove","marker":0}])", "/markers", json::array()},
    {R"([{"op":"master.gain","db":-1}])", "/masterGainDB", -1},
};

TEST(Edit, CutsAndMovesKeepSourceAndTimelineInStep) {
  for (const auto& [ops, expected] : kCuts) {
    Project p;
    p.apply(ops);
    std::vector<std::array<double, 3>> clips;
    for (const json& clip : p.session.document()["tracks"][0]["clips"])
      clips.push_back({clip["offset"], clip["duration"], clip["sourceStart"]});
    EXPECT_EQ(clips, expected) << ops;
  }
}

TEST(Edit, EachOperationChangesWhatItNames) {
  for (const auto& [ops, place, expected] : kEffects) {
    Project p;
    p.apply(ops);
    const json& value = p.session.document().at(json::json_pointer(place));
    if (expected.is_number())
      EXPECT_NEAR(value.get<double>(), expected.get<double>(), 1e-3) << ops;
    else
      EXPECT_EQ(value, expected) << ops;
    EXPECT_NO_THROW(normalizedDocument(p.session.document())) << ops;  // still a document the editor loads
  }
}

TEST(Edit, TheTablesApplyEveryOperationOfTheReference) {
  std::set<std::string> used;
  auto note = [&](const char* ops) {
    for (const json& op : json::parse(ops)) used.insert(op["op"]);
  };
  for (const auto& [ops, clips] : kCuts) note(ops);
  for (const auto& [ops, place, value] : kEffects) note(ops);
  for (const EditOperation& operation : editOperations())
    EXPECT_TRUE(used.count(std::string(operation.op))) << operation.op;
}

TEST(Edit, RefusesWhatTheTimelineCannotHold) {
  const std::pair<const char*, const char*> cases[] = {
      {R"([{"op":"clip.trim","clip":"$","end":5}])", "covers only 4"},
      {R"([{"op":"clip.split","clip":"$","at":9}])", "does not span 9"},
      {R"([{"op":"range.delete","start":2,"end":1}])", "must come after start"},
      {R"([{"op":"clip.move","clip":"$","offset":-1}])", "offset must lie between 0 and"},
      {R"([{"op":"track.set","track":0,"pan":2}])", "pan must lie between -1 and 1"},
      {R"([{"op":"track.remove","track":3}])", "no track 3: the project has 2 tracks"},
      {R"([{"op":"note.add","track":0,"pitch":60,"start":0}])", "track 0 is not a MIDI track"},
      {R"([{"op":"clip.add","path":"/nonexistent/a.wav"}])", "no audio file at /nonexistent/a.wav"},
      {R"([{"op":"range.paste","at":0}])", "nothing to paste"},
      {R"([{"op":"track.bounceToAudio","track":0}])", "already an audio track"},
      {R"([{"op":"tempo.set","denominator":3}])", "denominator must be"},
      {R"([{"op":"note.transpose","track":1,"semitones":100}])", "leaves the MIDI range"},
      {R"([{"op":"clip.move","clip":"$","offset":86399}])", "past the timeline's end"},
  };
  for (const auto& [ops, expected] : cases) {
    Project p;
    std::string message = refusal([&] { p.apply(ops); });
    EXPECT_NE(message.find(expected), std::string::npos) << ops << "\n  got: " << message;
  }
}

}  // namespace
}  // namespace tondrel::sim::test
