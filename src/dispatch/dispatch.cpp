#include "dispatch.hpp"

#include <cctype>
#include <new>
#include <stdexcept>
#include <string>

#include "shortest_double.hpp"
#include "tool_result.hpp"

namespace tondrel {
namespace {

using simdjson::dom::element;
using simdjson::dom::element_type;

constexpr std::string_view kRequestTooLarge = "The request was too large for the memory available.";
constexpr std::string_view kNoMemoryForTheCall = "Not enough memory was available to reach the editor.";
constexpr std::string_view kAnswerTooLarge = "The editor's answer was too large for the memory available.";

// A query value made safe for the editor's URL: percent-encoded outside the
// characters a query may carry, and "&" and "+" encoded too so that they stay data.
std::string escapeQueryValue(std::string_view value) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  static constexpr std::string_view kPlain = "-._~!$'()*,;=:@/?";
  std::string escaped;
  escaped.reserve(value.size());
  for (unsigned char c : value) {
    if ((std::isalnum(c) && c < 0x80) || kPlain.find(static_cast<char>(c)) != std::string_view::npos)
      escaped.push_back(static_cast<char>(c));
    else
      escaped.append({'%', kHex[c >> 4], kHex[c & 0xF]});
  }
  return escaped;
}

element_type kindOf(JsonType type) {
  return type == JsonType::array ? element_type::ARRAY : element_type::OBJECT;
}

// The one request of a call, built from the tool's row: every argument is read
// and checked before anything is sent.
class Request {
 public:
  Request(const ToolDefinition& tool, const Members& args, std::optional<ForwardedArgument> forwarded)
      : tool_(tool), args_(args), forwarded_(forwarded), path_(tool.path) {
    bool object = false;
    for (const Argument& argument : tool.arguments) object = object || argument.into == Into::member;
    if (object) json_.beginObject();
    // Required and structured arguments first: they are the ones that can fail,
    // and the body names them before the rest.
    for (bool first : {true, false})
      for (const Argument& argument : tool.arguments)
        if (first == argument.isRequired()) add(argument);
    if (object) json_.endObject(), hasBody_ = true;
  }

  APIResponse send(const Transport& transport, AnswerSink& sink) const {
    std::optional<std::string_view> body;
    if (hasBody_) body = forwardedBody_ ? *forwardedBody_ : body_.view();
    return transport(tool_.method, path_, body, sink);
  }

 private:
  void add(const Argument& argument) {
    std::string_view name = argument.name;
    auto value = args_[name];
    switch (argument.read) {
      case Read::required: {
        auto text = args_.string(name);
        if (!text || text->empty())
          throw ProxyError::badArguments("missing argument '" + std::string(name) + "'");
        if (argument.into == Into::query)
          query(name) += escapeQueryValue(*text);
        else
          json_.member(name, *text);
        break;
      }
      case Read::structured:
        if (!value || value->type() != kindOf(argument.type))
          throw ProxyError::badArguments("missing argument '" + std::string(name) + "'");
        structured(argument, *value);
        break;
      case Read::optional:
        if (auto text = args_.string(name); text && !text->empty()) json_.member(name, *text);
        break;
      case Read::copied:
        if (!value) break;
        if (argument.into == Into::query)
          plainText(query(name), *value);
        else
          json_.member(name, *value);
        break;
      case Read::flag:
        if (value && value->is_bool() && bool(*value)) query(name) += '1';
        break;
    }
  }

  // An array or object, sent from where it lies in the line when it was forwarded.
  void structured(const Argument& argument, element value) {
    std::optional<std::string_view> text;
    if (forwarded_ && forwarded_->key == argument.name) text = forwarded_->json;
    if (argument.into == Into::body) {
      hasBody_ = true;
      if (text)
        forwardedBody_ = text;
      else
        json_.value(value);
    } else if (text) {
      json_.key(argument.name).raw(*text);
    } else {
      json_.member(argument.name, value);
    }
  }

  // Opens "name=" in the query; the value follows.
  std::string& query(std::string_view name) {
    path_ += path_.find('?') == std::string::npos ? '?' : '&';
    return (path_ += name) += '=';
  }

  // A value as a query reader expects it: a string as it stands (a character the
  // address cannot carry then fails the call as a bad path), a fractional number
  // in plain decimal, anything else as JSON writes it.
  static void plainText(std::string& out, element value) {
    if (auto text = value.get_string(); !text.error())
      out += text.value_unsafe();
    else if (value.type() == element_type::DOUBLE)
      out += plainDecimal(double(value));
    else
      out += writtenAsJson(value);
  }

  static std::string writtenAsJson(element value) {
    Buffer text;
    JsonWriter(text).value(value);
    return std::string(text.view());
  }

  const ToolDefinition& tool_;
  const Members& args_;
  std::optional<ForwardedArgument> forwarded_;
  std::string path_;
  Buffer body_;
  JsonWriter json_{body_};
  std::optional<std::string_view> forwardedBody_;
  bool hasBody_ = false;
};

// The agent's text for memory that ran out: while the request was built, before
// any answer came, or while one arrived.
std::string_view outOfMemory(bool built, bool answered) {
  return !built ? kRequestTooLarge : answered ? kAnswerTooLarge : kNoMemoryForTheCall;
}

// The one place where a failed call becomes a tool result; tool is null for a name
// the catalogue lacks.
void carryOut(const Transport& transport, const ToolDefinition* tool, std::string_view name,
              const Members& args, JsonWriter& out, std::optional<ForwardedArgument> forwarded) {
  // Part of the answer may already be written when a call fails: the failure takes its place.
  auto fail = [&out, mark = out.mark()](std::string_view text) {
    out.rollBack(mark);
    writeFailedResult(out, text);
  };
  ResultSink sink(out, tool ? tool->caption : "");
  bool built = false;
  try {
    if (!tool) throw ProxyError::badArguments("unknown tool " + std::string(name));
    Request request(*tool, args, forwarded);
    built = true;
    request.send(transport, sink);
    sink.finish();
  } catch (const ProxyError& error) {
    fail(error.description());
  } catch (const std::bad_alloc&) {
    fail(outOfMemory(built, sink.started()));
  } catch (const std::length_error&) {
    fail(outOfMemory(built, sink.started()));
  }
}

}  // namespace

void callTool(const Transport& transport, const ToolDefinition& tool, const Members& args, JsonWriter& out,
              std::optional<ForwardedArgument> forwarded) {
  carryOut(transport, &tool, tool.name, args, out, forwarded);
}

void callTool(const Transport& transport, std::string_view name, const Members& args, JsonWriter& out) {
  carryOut(transport, findTool(name), name, args, out, std::nullopt);
}

}  // namespace tondrel
