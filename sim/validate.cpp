#include "validate.hpp"

#include <cmath>

#include "document.hpp"

namespace tondrel::sim {

namespace {

bool isInteger(const json& value) {
  if (value.is_number_integer()) return true;
  // 3.0 is an integer to an agent, and JSON does not tell the two apart.
  return value.is_number_float() && std::trunc(value.get<double>()) == value.get<double>() &&
         std::abs(value.get<double>()) < 9e15;
}

bool isUuid(const json& value) {
  return value.is_string() && !value.get_ref<const std::string&>().empty();
}

bool matches(const EditField& field, const json& value) {
  switch (field.type) {
    case FieldType::integer:
      return isInteger(value);
    case FieldType::number:
      return value.is_number();
    case FieldType::string:
      return value.is_string();
    case FieldType::boolean:
      return value.is_boolean();
    case FieldType::uuid:
      return isUuid(value);
    case FieldType::indexOrUuid:
      return (isInteger(value) && value.get<double>() >= 0) || isUuid(value);
    case FieldType::uuidList:
      if (!value.is_array()) return false;
      for (const json& item : value)
        if (!isUuid(item)) return false;
      return true;
    case FieldType::choice:
      if (!value.is_string()) return false;
      for (std::string_view choice : field.choices)
        if (value.get_ref<const std::string&>() == choice) return true;
      return false;
  }
  return false;
}

std::string expected(const EditField& field) {
  if (field.type == FieldType::choice) return "one of " + typeCode(field);
  static constexpr std::string_view kWords[] = {"an integer",
                                                "a number",
                                                "a string",
                                                "a boolean",
                                                "a UUID string",
                                                "a 0-based index or a UUID string",
                                                "an array of UUID strings"};
  return std::string(kWords[static_cast<int>(field.type)]) + " (" + typeCode(field) + ")";
}

std::string kindOf(const json& value) {
  switch (value.type()) {
    case json::value_t::null:
      return "null";
    case json::value_t::boolean:
      return "a boolean";
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
      return "an integer";
    case json::value_t::number_float:
      return "a number";
    case json::value_t::string:
      return "a string";
    case json::value_t::array:
      return "an array";
    default:
      return "an object";
  }
}

std::string fieldList(const EditOperation& operation) {
  std::string list;
  for (const EditField& field : operation.fields) {
    if (!list.empty()) list += ", ";
    list += std::string(field.name) + (field.optional ? "?" : "") + ":" + typeCode(field);
  }
  return list;
}

}  // namespace

const EditOperation* findOperation(std::string_view op) {
  for (const EditOperation& operation : editOperations())
    if (operation.op == op) return &operation;
  return nullptr;
}

void validateOps(const json& ops) {
  if (!ops.is_array()) throw SimError("ops must be an array of operation objects");
  for (std::size_t index = 0; index < ops.size(); ++index) {
    const json& op = ops[index];
    std::string at = "ops[" + std::to_string(index) + "]";
    if (!op.is_object()) throw SimError(at + " must be an object, got " + kindOf(op));
    if (!op.contains("op") || !op["op"].is_string())
      throw SimError(at + " needs \"op\", a string naming the operation");
    const std::string& name = op["op"].get_ref<const std::string&>();
    const EditOperation* operation = findOperation(name);
    if (!operation) {
      std::string family = name.substr(0, name.find('.') + 1), similar;
      for (const EditOperation& known : editOperations())
        if (!family.empty() && known.op.starts_with(family))
          similar += (similar.empty() ? "" : ", ") + std::string(known.op);
      throw SimError(at + ": unknown op \"" + name + "\"" +
                     (similar.empty() ? "; see GET /v1/help for the operations"
                                      : "; did you mean one of " + similar + "?"));
    }
    at += " (" + name + ")";
    for (const auto& [key, value] : op.items()) {
      if (key == "op") continue;
      bool known = false;
      for (const EditField& field : operation->fields) known = known || field.name == key;
      if (!known) throw SimError(at + ": unknown field \"" + key + "\"; it takes " + fieldList(*operation));
    }
    for (const EditField& field : operation->fields) {
      std::string key(field.name);
      bool present = op.contains(key) && !op[key].is_null();
      if (!present) {
        if (!field.optional) throw SimError(at + ": missing field \"" + key + "\", " + expected(field));
        continue;
      }
      if (!matches(field, op[key]))
        throw SimError(at + ": field \"" + key + "\" must be " + expected(field) + ", got " +
                       (op[key].is_string() || op[key].is_number() ? op[key].dump() : kindOf(op[key])));
    }
  }
}

}  // namespace tondrel::sim
