// The fixed catalogue of tools the server offers, and the batch edit reference
// that describes tondrel_edit's operations.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tondrel {

enum class JsonType { none, string, integer, number, boolean, array, object };

struct Property {
  std::string_view name;
  JsonType type;
  std::string_view description = {};              // absent when empty
  JsonType items = JsonType::none;                // element type, arrays only
  std::vector<std::string_view> enumValues = {};  // permitted values, strings only
};

struct ToolDefinition {
  std::string_view name;
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

// The sixteen tools in catalogue order.
const std::vector<ToolDefinition>& tondrelToolDefinitions();

// The catalogue as one JSON array, written once; "tools/list" sends these bytes.
const std::string& toolsJSON();

bool isCatalogued(std::string_view name);

}  // namespace tondrel
