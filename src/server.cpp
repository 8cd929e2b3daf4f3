#include "server.hpp"

#include <new>

#include "catalogue.hpp"
#include "dispatch.hpp"
#include "forwarded.hpp"
#include "tool_result.hpp"

namespace tondrel {
namespace {

constexpr std::size_t kPadding = simdjson::SIMDJSON_PADDING;
// Past this a parser's or a scratch buffer's capacity is given back after the line.
constexpr std::size_t kKeep = 1 << 20;
// From this length a document or a batch of edits is forwarded from the line's
// text; below it, parsing the whole line costs next to nothing.
constexpr std::size_t kForwardFrom = 32 << 10;

constexpr std::string_view kInstructions =
    "Controls the Tondrel macOS audio editor (waveforms, fades, copy-paste, multitrack, multi-format export, "
    "OSC). Call tondrel_state first; edit live with tondrel_edit (one undo step per batch); inspect silences "
    "with tondrel_silences; export with tondrel_export; check visually with tondrel_snapshot.";

// Writes {"jsonrpc":"2.0","id":id, ...} with the member that answer writes.
template <typename Answer>
void encode(std::string& out, const simdjson::dom::element* id, Answer&& answer) {
  JsonWriter w(out);
  w.beginObject().member("jsonrpc", "2.0").key("id");
  if (id)
    w.value(*id);
  else
    w.null();
  answer(w);
  w.endObject();
}

void writeError(JsonWriter& out, int code, std::string_view message, std::string_view detail = {}) {
  std::string text(message);
  text += detail;
  out.key("error").beginObject().member("code", code).member("message", text).endObject();
}

void parseError(std::string& out) {
  encode(out, nullptr, [](JsonWriter& w) { writeError(w, -32700, "parse error"); });
}

}  // namespace

const TondrelMCPServer::Method TondrelMCPServer::kMethods[] = {
    {"initialize", &TondrelMCPServer::initialize},
    {"ping", &TondrelMCPServer::ping},
    {"tools/list", &TondrelMCPServer::listTools},
    {"tools/call", &TondrelMCPServer::callToolRequest},
};

TondrelMCPServer::TondrelMCPServer(Transport transport, std::string apiBase, std::string version)
    : transport_(std::move(transport)), apiBase_(std::move(apiBase)), version_(std::move(version)) {}

std::optional<std::string> TondrelMCPServer::handle(std::string_view line) {
  std::string out;
  try {
    padded_.reserve(line.size() + kPadding);
    padded_.assign(line);
  } catch (const std::bad_alloc&) {
    padded_ = std::string();
    parseError(out);
    return out;
  }
  if (!handlePadded(padded_, out)) return std::nullopt;
  return out;
}

bool TondrelMCPServer::handlePadded(std::string_view line, std::string& out) {
  std::size_t mark = out.size();
  try {
    bool answered = answer(line, out);
    if (!answered) out.resize(mark);
    return answered;
  } catch (...) {  // out of memory: this line fails as unreadable, with a parser made anew
    out.resize(mark);
    parser_ = simdjson::dom::parser();
    std::string().swap(repaired_);
    try {
      parseError(out);
      return true;
    } catch (...) {
      out.resize(mark);
      return false;
    }
  }
}

void TondrelMCPServer::release() {
  if (parser_.capacity() > kKeep) parser_ = simdjson::dom::parser();
  if (repaired_.capacity() > kKeep) std::string().swap(repaired_);
  if (padded_.capacity() > kKeep) std::string().swap(padded_);
}

bool TondrelMCPServer::answer(std::string_view line, std::string& out) {
  std::string_view text = decodeUtf8(line, repaired_);
  if (text.data() == repaired_.data()) {
    repaired_.reserve(repaired_.size() + kPadding);
    text = repaired_;
  }
  text = trimWhitespace(text);
  if (text.empty()) return false;

  // The forwarded member is parsed as an empty stand-in, and written from the text.
  std::optional<ForwardedLine> forwarded;
  if (text.size() >= kForwardFrom && (forwarded = splitForwarded(text))) text = forwarded->line;
  forwarded_ = forwarded ? std::optional(ForwardedArgument{forwarded->key, forwarded->json()}) : std::nullopt;

  simdjson::dom::element root;
  auto parsed = parser_.parse(text.data(), text.size(), false);
  if (parsed.error() == simdjson::MEMALLOC) throw std::bad_alloc();
  if (parsed.get(root) != simdjson::SUCCESS || !root.is_object()) {
    parseError(out);
    return true;
  }
  Members request(root);
  auto method = request.string("method");
  auto id = request["id"];
  if (!method || !id) return false;  // unreadable, or a notification

  Members params(request["params"]);
  encode(out, &*id, [&](JsonWriter& w) {
    for (const Method& m : kMethods)
      if (m.name == *method) return (this->*m.handler)(params, w);
    writeError(w, -32601, "method not found: ", *method);
  });
  return true;
}

void TondrelMCPServer::initialize(const Members& params, JsonWriter& out) {
  std::string_view version = params.string("protocolVersion").value_or("2024-11-05");
  out.key("result").beginObject().member("protocolVersion", version);
  out.key("capabilities").beginObject().key("tools").beginObject().endObject().endObject();
  out.key("serverInfo").beginObject().member("name", "tondrel").member("version", version_).endObject();
  out.member("instructions", kInstructions).endObject();
}

void TondrelMCPServer::ping(const Members&, JsonWriter& out) {
  out.key("result").beginObject().endObject();
}

void TondrelMCPServer::listTools(const Members&, JsonWriter& out) {
  out.key("result").beginObject().key("tools").raw(toolsJSON()).endObject();
}

void TondrelMCPServer::callToolRequest(const Members& params, JsonWriter& out) {
  std::string_view name = params.string("name").value_or("");
  if (!toolIndex(name)) return writeError(out, -32602, "unknown tool: ", name);
  out.key("result");
  auto mark = out.mark();
  try {
    callTool(transport_, name, Members(params["arguments"]), out, forwarded_);
  } catch (const std::bad_alloc&) {
    out.rollBack(mark);
    writeFailedResult(out, kAnswerTooLarge);
  }
}

}  // namespace tondrel
