#include "edit_reference.hpp"

namespace tondrel {
namespace {

// Shorthands so that each row of the table below reads like its line in the reference.
EditField req(std::string_view name, FieldType type) {
  return {name, false, type};
}
EditField opt(std::string_view name, FieldType type) {
  return {name, true, type};
}
EditField opt(std::string_view name, std::vector<std::string_view> choices) {
  return {name, true, FieldType::choice, std::move(choices)};
}

}  // namespace

const std::vector<EditOperation>& editOperations() {
  using enum FieldType;
  static const std::vector<EditOperation> operations = {
      {"track.add",
       {opt("name", string), opt("at", integer), opt("kind", {"audio", "midi"}), opt("program", integer),
        opt("channel", integer), opt("isDrum", boolean)}},
      {"track.remove", {req("track", indexOrUuid)}},
      {"track.duplicate", {req("track", indexOrUuid)}},
      {"track.move", {req("track", indexOrUuid), opt("to", integer), opt("delta", integer)}},
      {"track.set",
       {req("track", indexOrUuid), opt("name", string), opt("gainDB", number), opt("pan", number),
        opt("mute", boolean), opt("solo", boolean), opt("locked", boolean), opt("stereoSplit", boolean),
        opt("program", integer), opt("channel", integer), opt("transpose", integer),
        opt("pianoRollExpanded", boolean)}},
      {"track.bounceToAudio", {req("track", indexOrUuid), opt("replace", boolean)}},

      {"note.add",
       {opt("track", indexOrUuid), req("pitch", integer), req("start", number), opt("duration", number),
        opt("velocity", integer)}},
      {"note.move",
       {req("note", uuid), opt("start", number), opt("pitch", integer), opt("track", indexOrUuid)}},
      {"note.trim", {req("note", uuid), opt("start", number), opt("duration", number)}},
      {"note.velocity", {req("note", uuid), req("velocity", integer)}},
      {"note.pitch", {req("note", uuid), req("pitch", integer)}},
      {"note.remove", {req("notes", uuidList), opt("ripple", boolean)}},
      {"note.quantize", {opt("notes", uuidList), opt("track", indexOrUuid), opt("subdivisionBeats", number)}},
      {"note.transpose", {opt("notes", uuidList), opt("track", indexOrUuid), req("semitones", integer)}},

      {"tempo.set", {opt("bpm", number), opt("numerator", integer), opt("denominator", integer)}},

      {"clip.add",
       {opt("track", indexOrUuid), req("path", string), opt("offset", number), opt("sourceStart", number),
        opt("duration", number), opt("gainDB", number), opt("fadeIn", number), opt("fadeOut", number),
        opt("fadeShape", string)}},
      {"clip.trim", {req("clip", uuid), opt("start", number), opt("end", number)}},
      {"clip.move", {req("clip", uuid), req("offset", number), opt("track", indexOrUuid)}},
      {"clip.slip", {req("clip", uuid), req("by", number)}},
      {"clip.split", {opt("clip", uuid), req("at", number)}},
      {"clip.remove", {req("clips", uuidList), opt("ripple", boolean)}},
      {"clip.duplicate", {req("clips", uuidList)}},
      {"clip.fades",
       {req("clip", uuid), opt("fadeIn", number), opt("fadeOut", number),
        opt("shape", {"cosine", "linear", "exponential", "logarithmic"})}},
      {"clip.gain", {req("clip", uuid), req("db", number)}},
      {"clip.normalize", {req("clip", uuid), opt("targetDB", number)}},
      {"clip.reverse", {req("clip", uuid), opt("reversed", boolean)}},
      {"clip.mute", {req("clip", uuid), req("mute", boolean)}},
      {"clip.crossfade", {req("clipA", uuid), req("clipB", uuid), opt("duration", number)}},

      {"range.cut", {req("start", number), req("end", number), opt("ripple", boolean)}},
      {"range.copy", {req("start", number), req("end", number)}},
      {"range.paste", {req("at", number), opt("track", indexOrUuid), opt("ripple", boolean)}},
      {"range.delete", {req("start", number), req("end", number), opt("ripple", boolean)}},
      {"range.crop", {req("start", number), req("end", number)}},
      {"range.silence", {req("start", number), req("end", number)}},
      {"range.fadeIn", {req("start", number), req("end", number), opt("shape", string)}},
      {"range.fadeOut", {req("start", number), req("end", number), opt("shape", string)}},

      {"marker.add", {opt("name", string), req("time", number)}},
      {"marker.remove", {req("marker", indexOrUuid)}},

      {"master.gain", {req("db", number)}},
  };
  return operations;
}

const std::string& editReference() {
  static const std::string text = [] {
    std::string out =
        "Applies an atomic batch of editing operations to the active Tondrel document as ONE undo step.\n"
        "Operations (indices are 0-based track/clip indices or UUID strings):";
    for (const EditOperation& operation : editOperations()) {
      out += "\n- {\"op\":\"";
      out += operation.op;
      out += '"';
      for (const EditField& field : operation.fields) {
        out += ", \"";
        out += field.name;
        out += field.optional ? "\"?:" : "\":";
        out += typeCode(field);
      }
      out += '}';
    }
    return out;
  }();
  return text;
}

std::string typeCode(const EditField& field) {
  static constexpr std::string_view kCodes[] = {"i", "n", "s", "b", "uuid", "i|uuid", "[uuid]"};
  if (field.type != FieldType::choice) return std::string(kCodes[static_cast<int>(field.type)]);
  std::string code;
  for (std::string_view choice : field.choices) {
    if (!code.empty()) code += '|';
    (code += '"').append(choice) += '"';
  }
  return code;
}

}  // namespace tondrel
