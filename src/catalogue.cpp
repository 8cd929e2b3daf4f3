#include "catalogue.hpp"

#include <algorithm>
#include <utility>

#include "json.hpp"

namespace tondrel {
namespace {

// Shorthands so that each row of the tables below reads like its line in the reference.
EditField req(std::string_view name, FieldType type) {
  return {name, false, type};
}
EditField opt(std::string_view name, FieldType type) {
  return {name, true, type};
}
EditField opt(std::string_view name, std::vector<std::string_view> choices) {
  return {name, true, FieldType::choice, std::move(choices)};
}

Property plain(std::string_view name, JsonType type, std::string_view description = {}) {
  return {name, type, description};
}
Property arrayOf(std::string_view name, JsonType items, std::string_view description = {}) {
  return {name, JsonType::array, description, items};
}
Property oneOf(std::string_view name, std::vector<std::string_view> values) {
  return {name, JsonType::string, {}, JsonType::none, std::move(values)};
}

std::string_view typeName(JsonType type) {
  static constexpr std::string_view kNames[] = {"",        "string", "integer", "number",
                                                "boolean", "array",  "object"};
  return kNames[static_cast<int>(type)];
}

void writeProperty(JsonWriter& json, const Property& property) {
  json.key(property.name).beginObject().member("type", typeName(property.type));
  if (property.items != JsonType::none) {
    json.key("items").beginObject().member("type", typeName(property.items)).endObject();
  }
  if (!property.enumValues.empty()) {
    json.key("enum").beginArray();
    for (std::string_view value : property.enumValues) json.string(value);
    json.endArray();
  }
  if (!property.description.empty()) json.member("description", property.description);
  json.endObject();
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

const std::vector<ToolDefinition>& tondrelToolDefinitions() {
  using enum JsonType;
  // Rows in catalogue order; each takes its name from kToolNames by position.
  static const std::vector<ToolDefinition> tools = [] {
    std::vector<ToolDefinition> rows = {
        {{},
         "Returns the current state of Tondrel: file, dirty, changeCount, playing, time, duration, "
         "loopRange, "
         "selectionRange, selectedClips, selectedTrack, peakLeft, peakRight, oscInPort, apiPort, undoLabel, "
         "redoLabel, version.",
         {}},
        {{},
         "Returns the complete AudioProject JSON document (tracks, clips, fades, gains, pan, markers, "
         "sampleRate).",
         {}},
        {{}, "Returns the full HTTP API, batch edit operations, and OSC address reference.", {}},
        {{},
         editReference(),
         {plain("label", string, "Optional undo label"),
          arrayOf("ops", object, "Operations to apply atomically")},
         "ops"},
        {{},
         "Replaces the whole AudioProject JSON as a single undo step.",
         {plain("document", object), plain("save", boolean)},
         "document"},
        {{},
         "Opens an audio file (.wav, .aiff, .flac, .m4a, .mp3, .caf\u2026) or a .tondrel project file.",
         {plain("path", string)},
         "path"},
        {{},
         "Imports an audio file onto an existing track (or creates a new track when track is omitted).",
         {plain("path", string), plain("track", integer, "0-based track index; omit to create a new track"),
          plain("at", number, "Start time in seconds (default 0)")},
         "path"},
        {{},
         "Exports the project (or a time range) to an audio or MIDI file in wav, aiff, caf, m4a, alac, flac, "
         "mp3, or mid format.",
         {plain("path", string, "Destination file path"),
          oneOf("format", {"wav", "aiff", "caf", "m4a", "alac", "flac", "mp3", "mid"}),
          plain("sampleRate", number, "44100, 48000, or 96000 (default 48000)"),
          plain("bitDepth", integer, "16, 24, or 32 (default 24)"),
          plain("bitRateKbps", integer, "128, 192, 256, or 320 for m4a/mp3 (default 256)"),
          plain("channels", integer, "1 (mono) or 2 (stereo, default)"),
          oneOf("normalization", {"none", "peak", "lufs"}),
          arrayOf("range", number, "Optional [start, end] in seconds"),
          plain("stems", boolean, "When true, exports one file per track into the directory of path")},
         "path"},
        {{},
         "Controls playback transport: play, pause, toggle, stop, rewind, seek, loop, loopOff.",
         {oneOf("action", {"play", "pause", "toggle", "stop", "rewind", "seek", "loop", "loopOff"}),
          plain("time", number), arrayOf("range", number)},
         "action"},
        {{},
         "Selects clips (UUID strings), a track (0-based index), and/or a time range [start, end]; fit=true "
         "zooms to fit.",
         {arrayOf("clips", string), plain("track", integer), arrayOf("range", number),
          plain("fit", boolean)}},
        {{}, "Undoes the last editing operation.", {}},
        {{}, "Redoes the last undone editing operation.", {}},
        {{}, "Saves the current project to disk (optionally at a new path).", {plain("path", string)}},
        {{}, "Captures the Tondrel window as a PNG image.", {}},
        {{},
         "Returns the peak and RMS envelope of a source file so an agent can inspect amplitude profiles.",
         {plain("path", string, "Source path as stored in a clip, or absolute path"),
          plain("bins", integer, "Number of downsampled bins to return (default 200)")},
         "path"},
        {{},
         "Detects silent intervals in a source audio file for clean cuts.",
         {plain("path", string), plain("thresholdDB", number, "dBFS threshold (default -42)"),
          plain("minDuration", number, "Minimum silence duration in seconds (default 0.15)")},
         "path"},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) rows[i].name = kToolNames.at(i);
    return rows;
  }();
  return tools;
}

const std::string& toolsJSON() {
  static const std::string json = [] {
    std::string out;
    JsonWriter writer(out);
    writer.beginArray();
    for (const ToolDefinition& tool : tondrelToolDefinitions()) {
      writer.beginObject()
          .member("name", tool.name)
          .member("description", std::string_view(tool.description));
      writer.key("inputSchema").beginObject().member("type", "object").key("properties").beginObject();
      for (const Property& property : tool.properties) writeProperty(writer, property);
      writer.endObject();
      if (!tool.required.empty()) writer.key("required").beginArray().string(tool.required).endArray();
      writer.endObject().endObject();
    }
    writer.endArray();
    return out;
  }();
  return json;
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
