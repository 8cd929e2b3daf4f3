#include "edit.hpp"

#include <map>

#include "editor.hpp"
#include "validate.hpp"

namespace tondrel::sim {

namespace {

using OperationTable = std::map<std::string_view, void (*)(Editor&, const json&), std::less<>>;

const OperationTable& operationTable() {
  static const OperationTable table = [] {
    OperationTable map;
    for (auto family :
         {trackOperations(), noteOperations(), clipOperations(), rangeOperations(), projectOperations()})
      for (const Operation& operation : family) map.emplace(operation.name, operation.apply);
    return map;
  }();
  return table;
}

// Pastes, ripples and moves may push material along; none may end past the timeline.
void checkBounds(Editor& e) {
  for (const json& track : e.tracks()) {
    for (const json& clip : track["clips"])
      if (clipEnd(clip) > kMaxTime)
        e.fail("it would move clip " + clip["id"].dump() + " past the timeline's end (24 h)");
    for (const json& note : track["notes"])
      if (noteEnd(note) > kMaxTime)
        e.fail("it would move note " + note["id"].dump() + " past the timeline's end (24 h)");
  }
}

}  // namespace

json applyOperations(Session& session, const json& ops, const std::string& label,
                     const std::string& context) {
  Editor editor{session, session.document(), session.clipboard, session.clipboardLength, json::array(), ""};
  for (std::size_t i = 0; i < ops.size(); ++i) {
    std::string name = ops[i]["op"];
    editor.at = context.empty() ? "ops[" + std::to_string(i) + "] (" + name + ")" : context;
    json op = ops[i];
    // A null field counts as absent, as the validator took it.
    for (auto item = op.begin(); item != op.end();) item = item->is_null() ? op.erase(item) : std::next(item);
    operationTable().at(name)(editor, op);
    checkBounds(editor);
  }
  session.commit(std::move(editor.doc), label);
  session.clipboard = std::move(editor.clipboard);
  session.clipboardLength = editor.clipboardLength;
  return {{"ok", true},
          {"label", label},
          {"applied", ops.size()},
          {"created", editor.created},
          {"duration", projectDuration(session.document())}};
}

json applyEdit(Session& session, const json& request) {
  if (!request.is_object() || !request.contains("ops"))
    throw SimError("the body must be an object with \"ops\", an array");
  const json& ops = request["ops"];
  validateOps(ops);
  std::string label;
  if (request.contains("label") && request["label"].is_string()) label = request["label"];
  if (label.empty())
    label = ops.size() == 1 ? ops[0]["op"].get<std::string>()
                            : "Edit (" + std::to_string(ops.size()) + " operations)";
  if (ops.empty()) return {{"ok", true}, {"applied", 0}, {"created", json::array()}};
  return applyOperations(session, ops, label);
}

}  // namespace tondrel::sim
