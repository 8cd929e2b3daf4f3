// The operation validator against the same table that writes tondrel_edit's reference.
#include "validate.hpp"

#include <gtest/gtest.h>

#include "session.hpp"

namespace tondrel::sim {
namespace {

// "" when the batch must pass; otherwise a piece of the message it must fail with.
std::string failure(const json& ops) {
  try {
    validateOps(ops);
    return "";
  } catch (const SimError& error) {
    return error.what();
  }
}

TEST(Validator, AcceptsAndRefusesEachFieldTypeAsTheReferenceWritesIt) {
  struct Case {
    const char* op;
    const char* why;
    std::string expected;
  };
  const Case cases[] = {
      // i
      {R"({"op":"track.add","at":2})", "integer", ""},
      {R"({"op":"track.add","at":2.0})", "integral number", ""},
      {R"({"op":"track.add","at":2.5})", "fraction",
       R"(ops[0] (track.add): field "at" must be an integer (i), got 2.5)"},
      {R"({"op":"track.add","at":"2"})", "string", R"(field "at" must be an integer (i), got "2")"},
      // n
      {R"({"op":"master.gain","db":-3.5})", "number", ""},
      {R"({"op":"master.gain","db":-3})", "integer as number", ""},
      {R"({"op":"master.gain","db":true})", "boolean", R"(field "db" must be a number (n), got a boolean)"},
      // s
      {R"({"op":"marker.add","time":1,"name":"Verse"})", "string", ""},
      {R"({"op":"marker.add","time":1,"name":7})", "number", R"(field "name" must be a string (s), got 7)"},
      // b
      {R"({"op":"clip.mute","clip":"C","mute":false})", "boolean", ""},
      {R"({"op":"clip.mute","clip":"C","mute":0})", "number", R"(field "mute" must be a boolean (b), got 0)"},
      // uuid
      {R"({"op":"clip.gain","clip":"5F0C-AA","db":1})", "string", ""},
      {R"({"op":"clip.gain","clip":3,"db":1})", "index",
       R"(field "clip" must be a UUID string (uuid), got 3)"},
      {R"({"op":"clip.gain","clip":"","db":1})", "empty", R"(field "clip" must be a UUID string (uuid))"},
      // i|uuid
      {R"({"op":"track.remove","track":0})", "index", ""},
      {R"({"op":"track.remove","track":"T-1"})", "uuid", ""},
      {R"({"op":"track.remove","track":-1})", "negative",
       "a 0-based index or a UUID string (i|uuid), got -1"},
      {R"({"op":"track.remove","track":[0]})", "array", "(i|uuid), got an array"},
      // [uuid]
      {R"({"op":"clip.remove","clips":["A","B"]})", "list", ""},
      {R"({"op":"clip.remove","clips":[]})", "empty list", ""},
      {R"({"op":"clip.remove","clips":"A"})", "one string",
       R"(field "clips" must be an array of UUID strings ([uuid]))"},
      {R"({"op":"clip.remove","clips":["A",1]})", "a number inside", "([uuid])"},
      // choices
      {R"({"op":"clip.fades","clip":"C","shape":"linear"})", "listed", ""},
      {R"({"op":"clip.fades","clip":"C","shape":"square"})", "unlisted",
       R"(must be one of "cosine"|"linear"|"exponential"|"logarithmic", got "square")"},
      {R"({"op":"track.add","kind":"video"})", "unlisted", R"(one of "audio"|"midi")"},
      // presence and shape
      {R"({"op":"clip.gain","clip":"C"})", "missing",
       R"(ops[0] (clip.gain): missing field "db", a number (n))"},
      {R"({"op":"clip.gain","clip":"C","db":null})", "null required", R"(missing field "db")"},
      {R"({"op":"clip.split","at":1,"clip":null})", "null optional", ""},
      {R"({"op":"clip.gain","clip":"C","db":1,"gain":2})", "unknown field",
       R"(unknown field "gain"; it takes clip:uuid, db:n)"},
      {R"({"op":"clip.gian","clip":"C"})", "unknown op",
       R"(unknown op "clip.gian"; did you mean one of clip.add,)"},
      {R"({"op":"warp"})", "unknown family", "see GET /v1/help"},
      {R"({"clip":"C"})", "no op", R"(ops[0] needs "op")"},
      {R"(7)", "not an object", "ops[0] must be an object, got an integer"},
  };
  for (const Case& c : cases) {
    std::string message = failure(json::array({json::parse(c.op)}));
    if (c.expected.empty())
      EXPECT_EQ(message, "") << c.op << " (" << c.why << ")";
    else
      EXPECT_NE(message.find(c.expected), std::string::npos)
          << c.op << " (" << c.why << ")\n  got: " << message;
  }
}

TEST(Validator, NamesTheIndexOfTheFirstBadOperation) {
  json ops = json::parse(R"([{"op":"master.gain","db":1},{"op":"master.gain","db":2},{"op":"master.gain"}])");
  EXPECT_EQ(failure(ops), R"(ops[2] (master.gain): missing field "db", a number (n))");
  EXPECT_EQ(failure(json::object()), "ops must be an array of operation objects");
}

json sample(const EditField& field) {
  switch (field.type) {
    case FieldType::integer:
      return 1;
    case FieldType::number:
      return 0.5;
    case FieldType::string:
      return "x";
    case FieldType::boolean:
      return true;
    case FieldType::uuid:
      return "00000000-0000-4000-8000-000000000000";
    case FieldType::indexOrUuid:
      return 0;
    case FieldType::uuidList:
      return json::array({"00000000-0000-4000-8000-000000000000"});
    case FieldType::choice:
      return std::string(field.choices.front());
  }
  return nullptr;
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
    EXPECT_EQ(failure(json::array({full})), "") << full;
    EXPECT_EQ(failure(json::array({minimal})), "") << minimal;
    for (const EditField& field : operation.fields) {
      std::string name(field.name), quoted = "\"" + name + "\"";
      json wrong = full;
      wrong[name] = json::object();
      EXPECT_NE(failure(json::array({wrong})).find("field " + quoted + " must be "), std::string::npos)
          << wrong;
      if (field.optional) continue;
      json missing = full;
      missing.erase(name);
      EXPECT_NE(failure(json::array({missing})).find("missing field " + quoted), std::string::npos)
          << missing;
    }
  }
}

}  // namespace
}  // namespace tondrel::sim
