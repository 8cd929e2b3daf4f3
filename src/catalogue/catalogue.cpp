#include "catalogue.hpp"

#include <utility>

#include "json_writer.hpp"

namespace tondrel {
namespace {

// Shorthands so that each row below reads like the tool's entry in the catalogue.
Argument required(std::string_view name, JsonType type, std::string_view description = {},
                  Into into = Into::member) {
  return {name, type, type == JsonType::string ? Read::required : Read::structured, into, description};
}
Argument optional(std::string_view name, std::string_view description = {}) {
  return {name, JsonType::string, Read::optional, Into::member, description};
}
Argument copied(std::string_view name, JsonType type, std::string_view description = {}) {
  return {name, type, Read::copied, Into::member, description};
}
Argument arrayOf(std::string_view name, JsonType items, Read read, std::string_view description = {}) {
  return {name, JsonType::array, read, Into::member, description, items};
}
Argument oneOf(std::string_view name, Read read, std::vector<std::string_view> values) {
  return {name, JsonType::string, read, Into::member, {}, JsonType::none, std::move(values)};
}
Argument inQuery(Argument argument) {
  argument.into = Into::query;
  return argument;
}

std::string_view typeName(JsonType type) {
  static constexpr std::string_view kNames[] = {"",        "string", "integer", "number",
                                                "boolean", "array",  "object"};
  return kNames[static_cast<int>(type)];
}

void writeProperty(JsonWriter& json, const Argument& argument) {
  json.key(argument.name).beginObject().member("type", typeName(argument.type));
  if (argument.items != JsonType::none) {
    json.key("items").beginObject().member("type", typeName(argument.items)).endObject();
  }
  if (!argument.enumValues.empty()) {
    json.key("enum").beginArray();
    for (std::string_view value : argument.enumValues) json.string(value);
    json.endArray();
  }
  if (!argument.description.empty()) json.member("description", argument.description);
  json.endObject();
}

}  // namespace

const std::vector<ToolDefinition>& tondrelToolDefinitions() {
  using enum JsonType;
  static const std::vector<ToolDefinition> tools = {
      {"tondrel_state",
       "Returns the current state of Tondrel: file, dirty, changeCount, playing, time, duration, loopRange, "
       "selectionRange, selectedClips, selectedTrack, peakLeft, peakRight, oscInPort, apiPort, undoLabel, "
       "redoLabel, version.",
       "GET",
       "/v1/state",
       {}},
      {"tondrel_document",
       "Returns the complete AudioProject JSON document (tracks, clips, fades, gains, pan, markers, "
       "sampleRate).",
       "GET",
       "/v1/document",
       {}},
      {"tondrel_help",
       "Returns the full HTTP API, batch edit operations, and OSC address reference.",
       "GET",
       "/v1/help",
       {}},
      {"tondrel_edit",
       editReference(),
       "POST",
       "/v1/edit",
       {optional("label", "Optional undo label"),
        arrayOf("ops", object, Read::structured, "Operations to apply atomically")}},
      {"tondrel_replace_document",
       "Replaces the whole AudioProject JSON as a single undo step.",
       "PUT",
       "/v1/document",
       {required("document", object, {}, Into::body), inQuery({"save", boolean, Read::flag})}},
      {"tondrel_open",
       "Opens an audio file (.wav, .aiff, .flac, .m4a, .mp3, .caf\u2026) or a .tondrel project file.",
       "POST",
       "/v1/open",
       {required("path", string)}},
      {"tondrel_import",
       "Imports an audio file onto an existing track (or creates a new track when track is omitted).",
       "POST",
       "/v1/import",
       {required("path", string), copied("track", integer, "0-based track index; omit to create a new track"),
        copied("at", number, "Start time in seconds (default 0)")}},
      {"tondrel_export",
       "Exports the project (or a time range) to an audio or MIDI file in wav, aiff, caf, m4a, alac, flac, "
       "mp3, or mid format.",
       "POST",
       "/v1/export",
       {required("path", string, "Destination file path"),
        oneOf("format", Read::copied, {"wav", "aiff", "caf", "m4a", "alac", "flac", "mp3", "mid"}),
        copied("sampleRate", number, "44100, 48000, or 96000 (default 48000)"),
        copied("bitDepth", integer, "16, 24, or 32 (default 24)"),
        copied("bitRateKbps", integer, "128, 192, 256, or 320 for m4a/mp3 (default 256)"),
        copied("channels", integer, "1 (mono) or 2 (stereo, default)"),
        oneOf("normalization", Read::copied, {"none", "peak", "lufs"}),
        arrayOf("range", number, Read::copied, "Optional [start, end] in seconds"),
        copied("stems", boolean, "When true, exports one file per track into the directory of path")}},
      {"tondrel_transport",
       "Controls playback transport: play, pause, toggle, stop, rewind, seek, loop, loopOff.",
       "POST",
       "/v1/transport",
       {oneOf("action", Read::required,
              {"play", "pause", "toggle", "stop", "rewind", "seek", "loop", "loopOff"}),
        copied("time", number), arrayOf("range", number, Read::copied)}},
      {"tondrel_select",
       "Selects clips (UUID strings), a track (0-based index), and/or a time range [start, end]; fit=true "
       "zooms to fit.",
       "POST",
       "/v1/select",
       {arrayOf("clips", string, Read::copied), copied("track", integer),
        arrayOf("range", number, Read::copied), copied("fit", boolean)}},
      {"tondrel_undo", "Undoes the last editing operation.", "POST", "/v1/undo", {}},
      {"tondrel_redo", "Redoes the last undone editing operation.", "POST", "/v1/redo", {}},
      {"tondrel_save",
       "Saves the current project to disk (optionally at a new path).",
       "POST",
       "/v1/save",
       {optional("path")}},
      {"tondrel_snapshot",
       "Captures the Tondrel window as a PNG image.",
       "GET",
       "/v1/snapshot.png",
       {},
       "Snapshot of the Tondrel window."},
      {"tondrel_waveform",
       "Returns the peak and RMS envelope of a source file so an agent can inspect amplitude profiles.",
       "GET",
       "/v1/waveform",
       {inQuery(required("path", string, "Source path as stored in a clip, or absolute path")),
        inQuery(copied("bins", integer, "Number of downsampled bins to return (default 200)"))}},
      {"tondrel_silences",
       "Detects silent intervals in a source audio file for clean cuts.",
       "GET",
       "/v1/silences",
       {inQuery(required("path", string)),
        inQuery(copied("thresholdDB", number, "dBFS threshold (default -42)")),
        inQuery(copied("minDuration", number, "Minimum silence duration in seconds (default 0.15)"))}},
  };
  return tools;
}

const ToolDefinition* findTool(std::string_view name) {
  for (const ToolDefinition& tool : tondrelToolDefinitions())
    if (tool.name == name) return &tool;
  return nullptr;
}

const std::string& toolsJSON() {
  static const std::string json = [] {
    Buffer out;
    JsonWriter writer(out);
    writer.beginArray();
    for (const ToolDefinition& tool : tondrelToolDefinitions()) {
      writer.beginObject().member("name", tool.name).member("description", tool.description);
      writer.key("inputSchema").beginObject().member("type", "object").key("properties").beginObject();
      for (const Argument& argument : tool.arguments) writeProperty(writer, argument);
      writer.endObject();
      for (const Argument& argument : tool.arguments)
        if (argument.isRequired()) writer.key("required").beginArray().string(argument.name).endArray();
      writer.endObject().endObject();
    }
    writer.endArray();
    return std::string(out.view());
  }();
  return json;
}

}  // namespace tondrel
