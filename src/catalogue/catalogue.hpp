// The fixed catalogue of tools the server offers: for each tool, one row that
// holds everything about it, what the agent reads ("tools/list") and the one
// request the dispatcher makes of it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "edit_reference.hpp"

namespace tondrel {

enum class JsonType { none, string, integer, number, boolean, array, object };

// How the dispatcher reads an argument, and where the request carries it.
enum class Read {
  required,    // a non-empty string; without one the call fails with "missing argument '<name>'"
  structured,  // a value of the schema's type (an array or an object), possibly empty, or the call fails as
               // above
  optional,    // a non-empty string, or left out
  copied,      // any value, null included, copied unchanged when present
  flag,        // counts only as the boolean true
};
enum class Into {
  member,  // a member of the body, an object; required and structured arguments come first
  body,    // the whole body
  query,   // "name=" in the query: a required string percent-encoded, a copied value as its plain
           // text, a flag as "1"
};

struct Argument {
  std::string_view name;
  JsonType type;
  Read read;
  Into into = Into::member;
  std::string_view description = {};              // absent when empty
  JsonType items = JsonType::none;                // element type, arrays only
  std::vector<std::string_view> enumValues = {};  // permitted values, strings only

  // Without it the call fails: the schema lists it as required.
  bool isRequired() const { return read == Read::required || read == Read::structured; }
};

struct ToolDefinition {
  std::string_view name;
  std::string_view description;
  std::string_view method;
  std::string_view path;            // under the API's base address
  std::vector<Argument> arguments;  // in the order of the schema's properties
  std::string_view caption = {};    // an image result with this caption, when not empty
};

// The sixteen tools in catalogue order.
const std::vector<ToolDefinition>& tondrelToolDefinitions();

// The tool of that name; nullptr for a name the catalogue lacks.
const ToolDefinition* findTool(std::string_view name);

// The catalogue as one JSON array, written once; "tools/list" sends these bytes.
const std::string& toolsJSON();

}  // namespace tondrel
