#include "server.hpp"

#include <new>

#include "dispatch.hpp"
#include "tool_result.hpp"
#include "utf8.hpp"

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

void openAnswer(JsonWriter& w, const simdjson::dom::element* id) {
  w.beginObject().member("jsonrpc", "2.0").key("id");
  if (id)
    w.value(*id);
  else
    w.null();
}

void writeError(JsonWriter& out, int code, std::string_view message, std::string_view detail = {}) {
  std::string text(message);
  text += detail;
  out.key("error").beginObject().member("code", code).member("message", text).endObject();
}

}  // namespace

const TondrelMCPServer::Method TondrelMCPServer::kMethods[] = {
    {"initialize", &TondrelMCPServer::initialize},
    {"ping", &TondrelMCPServer::ping},
    {"tools/list", &TondrelMCPServer::listTools},
    {"tools/call", &TondrelMCPServer::prepareCall},
};

TondrelMCPServer::TondrelMCPServer(Transport transport, std::string apiBase, std::string version)
    : transport_(std::move(transport)), apiBase_(std::move(apiBase)), version_(std::move(version)) {}

void TondrelMCPServer::unreadable(Buffer& out) {
  std::size_t mark = out.size();
  try {
    JsonWriter w(out);
    openAnswer(w, nullptr);
    writeError(w, -32700, "parse error");
    w.endObject();
  } catch (...) {  // not even that fits: the line goes unanswered
    out.truncate(mark);
  }
}

bool TondrelMCPServer::handle(std::string_view line, Buffer& out) {
  std::size_t mark = out.size();
  call_.reset();
  try {
    bool waits = answer(line, out);
    forwarded_.reset();
    return waits;
  } catch (...) {  // out of memory: this line fails as unreadable, with a parser made anew
    out.truncate(mark);
    call_.reset();
    forwarded_.reset();
    parser_ = simdjson::dom::parser();
    std::string().swap(repaired_);
    unreadable(out);
    return false;
  }
}

void TondrelMCPServer::runCall(Buffer& out) {
  if (!call_) return;
  std::size_t mark = out.size();
  try {
    JsonWriter w(out);
    openAnswer(w, &call_->id);
    w.key("result");
    std::optional<ForwardedArgument> forwarded;
    if (call_->forwarded) forwarded = ForwardedArgument{call_->forwarded->key, call_->forwarded->json()};
    callTool(transport_, *call_->tool, call_->arguments, w, forwarded);
    w.endObject();
  } catch (...) {  // not even the failed call's result fitted
    out.truncate(mark);
    unreadable(out);
  }
  call_.reset();
}

void TondrelMCPServer::release() {
  if (parser_.capacity() > kKeep) parser_ = simdjson::dom::parser();
  if (repaired_.capacity() > kKeep) std::string().swap(repaired_);
}

bool TondrelMCPServer::answer(std::string_view line, Buffer& out) {
  std::string_view text = decodeUtf8(line, repaired_);
  if (text.data() == repaired_.data()) {
    repaired_.reserve(repaired_.size() + kPadding);
    text = repaired_;
  }
  text = trimWhitespace(text);
  if (text.empty()) return false;

  // The forwarded member is parsed as an empty stand-in, and written from the text.
  if (text.size() >= kForwardFrom && (forwarded_ = splitForwarded(text))) text = forwarded_->line;

  simdjson::dom::element root;
  auto parsed = parser_.parse(text.data(), text.size(), false);
  if (parsed.error() == simdjson::MEMALLOC) throw std::bad_alloc();
  if (parsed.get(root) != simdjson::SUCCESS || !root.is_object()) {
    unreadable(out);
    return false;
  }
  Members request(root);
  auto method = request.string("method");
  auto id = request["id"];
  if (!method || !id) return false;  // unreadable, or a notification

  std::size_t mark = out.size();
  JsonWriter w(out);
  openAnswer(w, &*id);
  bool answered = [&] {
    for (const Method& m : kMethods)
      if (m.name == *method) return (this->*m.handler)(Members(request["params"]), w);
    writeError(w, -32601, "method not found: ", *method);
    return true;
  }();
  if (!answered) {
    out.truncate(mark);
    call_->id = *id;
    return true;
  }
  w.endObject();
  return false;
}

bool TondrelMCPServer::initialize(const Members& params, JsonWriter& out) {
  std::string_view version = params.string("protocolVersion").value_or("2024-11-05");
  out.key("result").beginObject().member("protocolVersion", version);
  out.key("capabilities").beginObject().key("tools").beginObject().endObject().endObject();
  out.key("serverInfo").beginObject().member("name", "tondrel").member("version", version_).endObject();
  out.member("instructions", kInstructions).endObject();
  return true;
}

bool TondrelMCPServer::ping(const Members&, JsonWriter& out) {
  out.key("result").beginObject().endObject();
  return true;
}

bool TondrelMCPServer::listTools(const Members&, JsonWriter& out) {
  out.key("result").beginObject().key("tools").raw(toolsJSON()).endObject();
  return true;
}

// The tool is looked up here once: a forwarded line has found it already.
bool TondrelMCPServer::prepareCall(const Members& params, JsonWriter& out) {
  std::string_view name = params.string("name").value_or("");
  const ToolDefinition* tool = forwarded_ ? forwarded_->tool : findTool(name);
  if (!tool) {
    writeError(out, -32602, "unknown tool: ", name);
    return true;
  }
  call_ = Call{tool, {}, Members(params["arguments"]), std::move(forwarded_)};
  return false;
}

}  // namespace tondrel
