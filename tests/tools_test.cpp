#include "catalogue.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

using namespace tondrel;
using nlohmann::json;

namespace {

const json& catalogue() {
  static const json parsed = json::parse(toolsJSON());
  return parsed;
}

// Inside "properties" the keys are argument names, so only schema positions are checked as keywords.
void expectOnlySchemaKeywords(const json& schema) {
  static const std::set<std::string> keywords = {"type",  "properties", "required",
                                                 "items", "enum",       "description"};
  for (const auto& [key, value] : schema.items()) {
    EXPECT_TRUE(keywords.contains(key)) << key;
    if (key == "properties") {
      for (const json& property : value) expectOnlySchemaKeywords(property);
    } else if (value.is_object()) {
      expectOnlySchemaKeywords(value);
    } else if (value.is_array()) {
      for (const json& element : value) EXPECT_TRUE(element.is_string()) << key;
    } else {
      EXPECT_TRUE(value.is_string() && value != "") << key;
    }
  }
}

}  // namespace

TEST(ToolCatalogue, ListsSixteenToolsInOrder) {
  std::vector<std::string> names;
  for (const json& entry : catalogue()) names.push_back(entry["name"]);
  EXPECT_EQ(names, (std::vector<std::string>{"tondrel_state", "tondrel_document", "tondrel_help",
                                             "tondrel_edit", "tondrel_replace_document", "tondrel_open",
                                             "tondrel_import", "tondrel_export", "tondrel_transport",
                                             "tondrel_select", "tondrel_undo", "tondrel_redo", "tondrel_save",
                                             "tondrel_snapshot", "tondrel_waveform", "tondrel_silences"}));
  for (const std::string& name : names) EXPECT_TRUE(toolIndex(name)) << name;
  for (std::string_view name : {"", "tondrel_", "Tondrel_state", "tondrel_state "})
    EXPECT_FALSE(toolIndex(name));
}

TEST(ToolCatalogue, SchemasRequireOnePropertyInEightToolsAndUseOnlyKnownKeywords) {
  const std::map<std::string, std::string> required = {
      {"tondrel_edit", "ops"},      {"tondrel_replace_document", "document"},
      {"tondrel_open", "path"},     {"tondrel_import", "path"},
      {"tondrel_export", "path"},   {"tondrel_transport", "action"},
      {"tondrel_waveform", "path"}, {"tondrel_silences", "path"}};
  std::size_t properties = 0;
  for (const json& entry : catalogue()) {
    const json& schema = entry["inputSchema"];
    properties += schema["properties"].size();
    auto expected = required.find(entry["name"]);
    if (expected == required.end()) {
      EXPECT_FALSE(schema.contains("required")) << entry["name"];
    } else {
      EXPECT_EQ(schema["required"], json::array({expected->second})) << entry["name"];
      EXPECT_TRUE(schema["properties"].contains(expected->second)) << entry["name"];
    }
    EXPECT_EQ(entry.size(), 3u);
    EXPECT_TRUE(schema["properties"].is_object());
    expectOnlySchemaKeywords(schema);
  }
  EXPECT_EQ(properties, 30u);
}

// Member order, "/" left plain, the edit text's quotes and line feeds escaped, the ellipsis as one character.
TEST(ToolCatalogue, WritesExactText) {
  const std::string_view fragments[] = {
      R"({"name":"tondrel_undo","description":"Undoes the last editing operation.","inputSchema":{"type":"object","properties":{}}})",
      R"("range":{"type":"array","items":{"type":"number"},"description":"Optional [start, end] in seconds"})",
      "\"128, 192, 256, or 320 for m4a/mp3 (default 256)\"",
      R"(as ONE undo step.\nOperations (indices are 0-based track/clip indices)",
      R"(\n- {\"op\":\"track.add\", \"name\"?:s, \"at\"?:i, \"kind\"?:\"audio\"|\"midi\",)",
      ".mp3, .caf\xE2\x80\xA6) or a .tondrel project file.\"",
  };
  for (std::string_view fragment : fragments)
    EXPECT_NE(toolsJSON().find(fragment), std::string::npos) << fragment;
  EXPECT_EQ(toolsJSON().find("\\/"), std::string::npos);
  EXPECT_EQ(toolsJSON().find("..."), std::string::npos);
  EXPECT_EQ(catalogue()[3]["description"], editReference());
}

TEST(EditReference, HasExactShape) {
  const std::string& text = editReference();
  EXPECT_EQ(text.size(), 2618u);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 40);
  EXPECT_TRUE(text.starts_with(
      "Applies an atomic batch of editing operations to the active Tondrel document as ONE undo step.\n"));
  EXPECT_TRUE(text.ends_with("\n- {\"op\":\"master.gain\", \"db\":n}"));
  // An optional mark on the wrong one of two like-named fields would keep the length.
  EXPECT_NE(text.find("\n- {\"op\":\"clip.split\", \"clip\"?:uuid, \"at\":n}\n"), std::string::npos);

  // Counted as runs, so a family split across the list fails too.
  std::vector<std::pair<std::string, int>> runs;
  for (const EditOperation& operation : editOperations()) {
    std::string family(operation.op.substr(0, operation.op.find('.')));
    if (runs.empty() || runs.back().first != family) runs.emplace_back(family, 0);
    ++runs.back().second;
  }
  EXPECT_EQ(runs, (std::vector<std::pair<std::string, int>>{{"track", 6},
                                                            {"note", 8},
                                                            {"tempo", 1},
                                                            {"clip", 13},
                                                            {"range", 8},
                                                            {"marker", 2},
                                                            {"master", 1}}));
}
