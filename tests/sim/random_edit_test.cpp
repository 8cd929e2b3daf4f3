// Random batches built from the operation table: whatever an agent sends, the
// session either refuses it with a message or stays a document it can load and render.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "catalogue.hpp"
#include "export.hpp"
#include "sim_support.hpp"
#include "snapshot.hpp"

namespace tondrel::sim::test {
namespace {

class Generator {
 public:
  Generator(unsigned seed, std::string tone) : random_(seed), tone_(std::move(tone)) {}

  json batch(const json& document) {
    ids_.clear();
    for (const json& track : document["tracks"]) {
      ids_.push_back(track["id"]);
      for (const char* list : {"clips", "clips", "notes"})  // clips twice: most operations want one
        for (const json& item : track[list]) ids_.push_back(item["id"]);
    }
    for (const json& marker : document["markers"]) ids_.push_back(marker["id"]);
    json ops = json::array();
    for (int n = pick(2) + 1; n > 0; --n) {
      const EditOperation* operation;
      do operation = &editOperations()[std::size_t(pick(int(editOperations().size())))];
      while (operation->op == "track.bounceToAudio");  // it writes files; the edit tests cover it
      json op = {{"op", operation->op}};
      for (const EditField& field : operation->fields)
        if (!field.optional || pick(2)) op[std::string(field.name)] = pick(20) ? value(field) : wild();
      ops.push_back(op);
    }
    return ops;
  }

 private:
  int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(random_); }
  template <typename T>
  json one(const std::vector<T>& choices) {
    return choices.empty() ? json("none") : json(choices[std::size_t(pick(int(choices.size())))]);
  }
  json wild() {
    return one(std::vector<json>{nullptr, -1, 1e300, -0.0, "", json::array(), json::object(), true});
  }
  json value(const EditField& field) {
    switch (field.type) {
      case FieldType::integer:
        return one(std::vector<long long>{-1, 0, 1, 2, 4, 60, 127, 128, 1000000});
      case FieldType::number:
        return one(std::vector<double>{-1, 0, 0.001, 0.25, 0.5, 1, 1.5, 2, 3.9, 4, 7.5, 12, 1e6, 86400});
      case FieldType::string:
        return one(std::vector<std::string>{"", "x", "linear", "cosine", "tone.wav", tone_});
      case FieldType::boolean:
        return pick(2) == 1;
      case FieldType::uuid:
        return one(ids_);
      case FieldType::indexOrUuid:
        return pick(3) ? json(pick(4)) : one(ids_);
      case FieldType::uuidList:
        return json::array({one(ids_), one(ids_)});
      case FieldType::choice:
        return std::string(field.choices[std::size_t(pick(int(field.choices.size())))]);
    }
    return nullptr;
  }

  std::mt19937 random_;
  std::string tone_;
  std::vector<json> ids_;
};

void expectSound(const json& document, const std::string& context) {
  ASSERT_NO_THROW(normalizedDocument(document)) << context;
  for (const json& track : document["tracks"])
    for (const json& clip : track["clips"]) {
      double duration = clip["duration"], start = clip["sourceStart"];
      EXPECT_LE(start + duration, clip["sourceDuration"].get<double>() + 1e-6) << context;
      EXPECT_LE(clip["fadeIn"].get<double>(), duration + 1e-9) << context;
    }
}

TEST(RandomEdits, EveryBatchIsRefusedWithAMessageOrLeavesASoundDocument) {
  Scratch scratch;
  Session session(0);
  importTone(session, scratch);
  session.load(session.document(), scratch.file("project.tondrel"));
  const json start = session.document();
  // TONDREL_SIM_SEED explores other batches than the fixed ones the suite runs.
  const char* chosen = std::getenv("TONDREL_SIM_SEED");
  unsigned seed = chosen ? unsigned(std::strtoul(chosen, nullptr, 10)) : 20261123u;
  SCOPED_TRACE("seed " + std::to_string(seed));
  Generator generator(seed, scratch.file("tone.wav"));
  int applied = 0;
  for (int round = 0; round < 10000; ++round) {  // about a second; nothing here writes a file
    json ops = generator.batch(session.document());
    json before = session.document();
    try {
      edit(session, ops);
      ++applied;
    } catch (const SimError&) {
      EXPECT_EQ(session.document(), before) << ops;
    } catch (const std::exception& error) {
      ADD_FAILURE() << ops << "\n  threw " << error.what();
    }
    expectSound(session.document(), ops.dump());
    std::size_t clips = 0;
    for (const json& track : session.document()["tracks"]) clips += track["clips"].size();
    if (session.document()["tracks"].size() > 12 || clips > 60)
      session.load(start, session.file);  // stay small
  }
  EXPECT_GT(applied, 500);  // the generator reaches past validation often enough to mean something
  EXPECT_FALSE(snapshotPNG(session).empty());
  EXPECT_EQ(refusal([&] {
              exportAudio(session.document(),
                          {{"path", scratch.file("mix.wav")}, {"range", {0, 2}}, {"bitDepth", 16}});
            }),
            "");
}

}  // namespace
}  // namespace tondrel::sim::test
