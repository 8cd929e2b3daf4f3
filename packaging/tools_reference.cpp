// tondrel-tools-reference: writes docs/tools.md, the reference of the tools, from
// the catalogue itself, so that the page cannot drift from what the server offers.
//
//   tondrel-tools-reference [EXAMPLE]    the page on standard output; EXAMPLE is a file of
//                                         two lines, a tools/call and the answer it got
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <string_view>

#include "catalogue.hpp"

namespace {

using tondrel::Argument;
using tondrel::Into;
using tondrel::JsonType;
using tondrel::Read;

std::string_view typeName(JsonType type) {
  static constexpr std::string_view kNames[] = {"",        "string", "integer", "number",
                                                "boolean", "array",  "object"};
  return kNames[static_cast<int>(type)];
}

std::string_view firstLine(std::string_view text) {
  return text.substr(0, text.find('\n'));
}

// "path*: string", "range: array of number", "format: "wav" | ..."
std::string schemaOf(const Argument& argument) {
  std::string text = "`" + std::string(argument.name) + "`" + (argument.isRequired() ? "*" : "") + ": ";
  if (argument.type == JsonType::array) return text + "array of " + std::string(typeName(argument.items));
  if (argument.enumValues.empty()) return text + std::string(typeName(argument.type));
  for (std::size_t i = 0; i < argument.enumValues.size(); ++i)
    text += (i ? " \\| `" : "`") + std::string(argument.enumValues[i]) + "`";
  return text;
}

// Where the argument goes in the request, and when.
std::string placeOf(const Argument& argument) {
  std::string name(argument.name);
  switch (argument.into) {
    case Into::body:
      return "`" + name + "` is the body";
    case Into::query:
      if (argument.read == Read::flag) return "`true` adds `" + name + "=1` to the query";
      if (argument.read == Read::required) return "query `" + name + "=`, percent-encoded";
      return "query `" + name + "=` when given, as plain text";
    case Into::member:
      break;
  }
  switch (argument.read) {
    case Read::optional:
      return "body member `" + name + "` when a non-empty string";
    case Read::copied:
      return "body member `" + name + "` when given, unchanged";
    default:
      return "body member `" + name + "`";
  }
}

void tools(std::ostream& out) {
  out << "| Tool | What it does | Arguments (* required) | Request | Arguments in the request |\n"
         "|---|---|---|---|---|\n";
  for (const tondrel::ToolDefinition& tool : tondrel::tondrelToolDefinitions()) {
    std::string schema, places;
    bool object = false, required = false;
    for (const Argument& argument : tool.arguments) {
      schema += (schema.empty() ? "" : "<br>") + schemaOf(argument);
      places += (places.empty() ? "" : "<br>") + placeOf(argument);
      object = object || argument.into == Into::member;
      required = required || argument.isRequired();
    }
    if (places.empty()) places = tool.method == "GET" ? "none" : "none; no body";
    if (object && !required) places += "<br>(the body `{}` when none is given)";
    out << "| `" << tool.name << "` | " << firstLine(tool.description) << " | "
        << (schema.empty() ? "none" : schema) << " | `" << tool.method << " " << tool.path << "` | " << places
        << (tool.caption.empty() ? "" : "<br>the answer comes back as an image") << " |\n";
  }
}

void operations(std::ostream& out) {
  out << "| Operation | Fields (? optional) |\n|---|---|\n";
  for (const tondrel::EditOperation& operation : tondrel::editOperations()) {
    std::string fields;
    for (const tondrel::EditField& field : operation.fields) {
      std::string code = tondrel::typeCode(field);
      for (std::size_t at = 0; (at = code.find('|', at)) != std::string::npos; at += 2)
        code.replace(at, 1, "\\|");
      fields += (fields.empty() ? "`" : ", `") + std::string(field.name) + (field.optional ? "?" : "") +
                ": " + code + "`";
    }
    out << "| `" << operation.op << "` | " << fields << " |\n";
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::cout << "# The tools\n\n"
               "Written by `tondrel-tools-reference` from the catalogue the server itself offers (a test\n"
               "compares this page with what it writes). Each call is one HTTP request to the editor's API\n"
               "at `http://127.0.0.1:17910` (or `TONDREL_API_PORT`); a request with a body sends it as\n"
               "`application/json; charset=utf-8`. An argument missing, empty or of another type where one\n"
               "is required fails the call as \"missing argument '<name>'\", and nothing is sent.\n\n";
  tools(std::cout);
  std::cout << "\n## Edit operations\n\n"
               "`tondrel_edit` sends its `ops` to the editor as they are, applied as one undo step. Types:\n"
               "`i` integer, `n` number, `s` string, `b` boolean, `uuid` an id, `i|uuid` an index or an id,\n"
               "`[uuid]` a list of ids.\n\n";
  operations(std::cout);
  if (argc > 1) {
    std::ifstream example(argv[1]);
    std::string call, answer;
    std::getline(example, call);
    std::getline(example, answer);
    std::cout << "\n## A call, and what the simulator answered\n\n"
                 "A fresh `tondrel-editor-sim --seed 1`, through `tondrel-mcp`:\n\n```json\n"
              << call << "\n"
              << answer << "\n```\n";
  }
  return 0;
}
