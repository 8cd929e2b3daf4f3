// The batch edit reference: the operations tondrel_edit sends to the editor, and
// the text that describes them to the agent. The simulator reads the same table.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tondrel {

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

}  // namespace tondrel
