// The operation validator against the same table that writes tondrel_edit's reference.
#include "validate.hpp"

#include <gtest/gtest.h>

#include "fades.hpp"
#include "sim_support.hpp"

namespace tondrel::sim::test {
namespace {

std::string failure(const json& ops) {
  return refusal([&] { validateOps(ops.is_array() ? ops : json::array({ops})); });
}

TEST(Validator, AcceptsAndRefusesEachFieldTypeAsTheReferenceWritesIt) {
  // A batch, or one op; "" when it must pass.
  const std::pair<const char*, const char*> cases[] = {
      {R"({"op":"track.add","at":2.0})", ""},
      {R"({"op":"track.add","at":2.5})", R"(ops[0] (track.add): field "at" must be an integer (i), got 2.5)"},
      {R"({"op":"master.gain","db":true})", R"(field "db" must be a number (n), got a boolean)"},
      {R"({"op":"marker.add","time":1,"name":7})", R"(field "name" must be a string (s), got 7)"},
      {R"({"op":"clip.mute","clip":"C","mute":0})", R"(field "mute" must be a boolean (b), got 0)"},
      {R"({"op":"clip.gain","clip":3,"db":1})", R"(field "clip" must be a UUID string (uuid), got 3)"},
      {R"({"op":"track.remove","track":"T-1"})", ""},
      {R"({"op":"track.remove","track":-1})", "a 0-based index or a UUID string (i|uuid), got -1"},
      {R"({"op":"clip.remove","clips":["A",1]})", R"("clips" must be an array of UUID strings ([uuid]))"},
      {R"({"op":"clip.fades","clip":"C","shape":"square"})",
       R"(must be one of "cosine"|"linear"|"exponential"|"logarithmic", got "square")"},
      {R"({"op":"clip.gain","clip":"C","db":null})", R"(clip.gain): missing field "db", a number (n))"},
      {R"({"op":"clip.split","at":1,"clip":null})", ""},
      {R"({"op":"clip.gain","clip":"C","db":1,"x":2})", R"(unknown field "x"; it takes clip:uuid, db:n)"},
      {R"({"op":"clip.gian","clip":"C"})", R"(unknown op "clip.gian"; did you mean one of clip.add,)"},
      {R"({"clip":"C"})", R"(ops[0] needs "op")"},
      {R"([7])", "ops[0] must be an object, got an integer"},
      {R"([{"op":"master.gain","db":1},{"op":"master.gain"}])", R"(ops[1] (master.gain): missing)"},
  };
  for (const auto& [ops, expected] : cases) {
    std::string message = failure(json::parse(ops));
    if (*expected == 0)
      EXPECT_EQ(message, "") << ops;
    else
      EXPECT_NE(message.find(expected), std::string::npos) << ops << "\n  got: " << message;
  }
  EXPECT_EQ(refusal([] { validateOps(json::object()); }), "ops must be an array of operation objects");
}

json sample(const EditField& field) {  // a value of the field's type, in FieldType's order
  const json values[] = {1, 0.5, "x", true, "x", 1, json::array({"x"})};
  return field.type == FieldType::choice ? json(std::string(field.choices.front())) : values[int(field.type)];
}

// Every operation of the table: all fields filled passes, required fields alone pass,
// and leaving out any required field or mistyping any field fails naming that field.
TEST(Validator, FollowsEveryLineOfTheOperationTable) {
  ASSERT_EQ(editOperations().size(), 39u);
  for (const EditOperation& operation : editOperations()) {
    json full = {{"op", operation.op}}, minimal = {{"op", operation.op}};
    for (const EditField& field : operation.fields) {
      full[std::string(field.name)] = sample(field);
      if (!field.optional) minimal[std::string(field.name)] = sample(field);
    }
    EXPECT_EQ(failure(full), "") << full;
    EXPECT_EQ(failure(minimal), "") << minimal;
    for (const EditField& field : operation.fields) {
      std::string name(field.name), quoted = "\"" + name + "\"";
      json wrong = full, missing = full;
      wrong[name] = json::object();
      missing.erase(name);
      EXPECT_NE(failure(wrong).find("field " + quoted + " must be "), std::string::npos) << wrong;
      if (!field.optional) {
        EXPECT_NE(failure(missing).find("missing field " + quoted), std::string::npos) << missing;
      }
    }
  }
}

// The reference offers the shapes the mixer can draw, no more and no fewer.
TEST(Validator, OffersExactlyTheFadeShapesTheMixerDraws) {
  const EditOperation* fades = findOperation("clip.fades");
  ASSERT_NE(fades, nullptr);
  std::vector<std::string_view> offered = fades->fields.back().choices, drawn;
  for (const FadeShape& shape : kFadeShapes) drawn.push_back(shape.name);
  EXPECT_EQ(offered, drawn);
}

}  // namespace
}  // namespace tondrel::sim::test
