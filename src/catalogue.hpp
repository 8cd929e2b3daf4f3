// The fixed catalogue of tools the server offers, and the batch edit reference
// that describes tondrel_edit's operations.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tondrel {

// The sixteen tools in catalogue order: the one place their names are written.
// The dispatcher's table is checked against it at compile time.
inline constexpr std::array<std::string_view, 16> kToolNames = {
    "tondrel_state",   "tondrel_document", "tondrel_help",   "tondrel_edit",      "tondrel_replace_document",
    "tondrel_open",    "tondrel_import",   "tondrel_export", "tondrel_transport", "tondrel_select",
    "tondrel_undo",    "tondrel_redo",     "tondrel_save",   "tondrel_snapshot",  "tondrel_waveform",
    "tondrel_silences"};

// A tool's place in the catalogue; nothing for a name the catalogue lacks.
constexpr std::optional<std::size_t> toolIndex(std::string_view name) {
  for (std::size_t i = 0; i < kToolNames.size(); ++i)
    if (kToolNames[i] == name) return i;
  return std::nullopt;
}

enum class JsonType { none, string, integer, number, boolean, array, object };

struct Property {
  std::string_view name;
  JsonType type;
  std::string_view description = {};              // absent when empty
  JsonType items = JsonType::none;                // element type, arrays only
  std::vector<std::string_view> enumValues = {};  // permitted values, strings only
};

struct ToolDefinition {
  std::string_view name;  // from kToolNames
  std::string description;
  std::vector<Property> properties;
  std::string_view required = {};  // the one required property; absent when empty
};

// Field types of edit operations, as the reference writes them: i, n, s, b,
// uuid, i|uuid, [uuid], or a choice of quoted values.
enum class FieldType { integer, number, string, boolean, uuid, indexOrUuid, uuidList, choice };

struct EditField {
  std::string_view name;
  bool optional;
  FieldType type;
  std::vector<std::string_view> choices = {};  // FieldType::choice only
};

struct EditOperation {
  std::string_view op;
  std::vector<EditField> fields;
};

// How the reference writes a field's type: i, n, s, b, uuid, i|uuid, [uuid] or "a"|"b".
std::string typeCode(const EditField& field);

// The 39 operations in reference order.
const std::vector<EditOperation>& editOperations();

// The description of tondrel_edit: two header lines, then one line per operation.
const std::string& editReference();

// The sixteen tools in catalogue order, named as kToolNames names them.
const std::vector<ToolDefinition>& tondrelToolDefinitions();

// The catalogue as one JSON array, written once; "tools/list" sends these bytes.
const std::string& toolsJSON();

}  // namespace tondrel
