#include "dispatch.hpp"

#include <charconv>
#include <initializer_list>
#include <new>
#include <stdexcept>

#include "catalogue.hpp"

namespace tondrel {

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

namespace {

using simdjson::dom::element;
using simdjson::dom::element_type;

// A double as a query reader expects a number: its shortest digits with no
// exponent (whose "+" a query decoder would read as a space), and no ".0" on a
// whole number. 1e21 is "1000000000000000000000", 1.5e-07 is "0.00000015".
std::string plainDecimal(double value) {
  std::string shortest;
  JsonWriter(shortest).number(value);
  if (shortest == "null") return shortest;  // not finite: no digits to give
  std::string_view text = shortest;
  std::string out;
  if (text.starts_with('-')) out += '-', text.remove_prefix(1);
  auto e = text.find('e');
  int exponent = 0;
  if (e != std::string_view::npos) {
    std::string_view power = text.substr(e + 1);
    if (power.starts_with('+')) power.remove_prefix(1);
    std::from_chars(power.data(), power.data() + power.size(), exponent);
    text = text.substr(0, e);
  }
  auto dot = text.find('.');
  std::string digits(text.substr(0, dot));
  if (dot != std::string_view::npos) digits += text.substr(dot + 1);
  long point = long(dot == std::string_view::npos ? text.size() : dot) + exponent;
  if (point <= 0) {
    digits.insert(0, std::size_t(1 - point), '0');
    point = 1;
  } else if (std::size_t(point) > digits.size()) {
    digits.append(std::size_t(point) - digits.size(), '0');
  }
  std::string whole = digits.substr(0, std::size_t(point)), fraction = digits.substr(std::size_t(point));
  whole.erase(0, std::min(whole.find_first_not_of('0'), whole.size() - 1));
  fraction.erase(fraction.find_last_not_of('0') + 1);
  out += whole;
  if (!fraction.empty()) out += '.' + fraction;
  return out;
}

std::string missing(std::string_view key) {
  return "missing argument '" + std::string(key) + "'";
}

// An object or array argument: its parsed value, or the text it is forwarded as.
struct Structured {
  element value;
  std::optional<std::string_view> json;
};

// One request to the editor, as a tool's branch describes it: arguments are read
// and checked first, and nothing is sent until the branch has finished.
class Request {
 public:
  Request(const Members& args, std::optional<ForwardedArgument> forwarded, std::string& body)
      : args_(args), forwarded_(forwarded), body_(body), json_(body) {
    body_.clear();
  }

  // A required non-empty string.
  std::string_view string(std::string_view key) const {
    auto text = args_.string(key);
    if (!text || text->empty()) throw ProxyError::badArguments(missing(key));
    return *text;
  }
  // A required value of one JSON kind (an array or an object), possibly empty.
  Structured structured(std::string_view key, element_type kind) const {
    auto value = args_[key];
    if (!value || value->type() != kind) throw ProxyError::badArguments(missing(key));
    if (forwarded_ && forwarded_->key == key) return {*value, forwarded_->json};
    return {*value, std::nullopt};
  }
  // A non-empty string, or nothing for any other value.
  std::optional<std::string_view> optionalString(std::string_view key) const {
    auto text = args_.string(key);
    return text && !text->empty() ? text : std::nullopt;
  }
  bool isTrue(std::string_view key) const {
    auto value = args_[key];
    return value && value->is_bool() && bool(*value);
  }

  Request& to(std::string_view method, std::string_view path) {
    method_ = method;
    path_ = path;
    return *this;
  }
  // The body is an object of the fields that follow, {} when none does.
  Request& object() {
    json_.beginObject();
    open_ = hasBody_ = true;
    return *this;
  }
  Request& body(Structured value) {
    if (value.json)
      forwardedBody_ = value.json;  // sent from where it lies
    else
      json_.value(value.value);
    hasBody_ = true;
    return *this;
  }
  Request& field(std::string_view key, std::string_view value) {
    json_.member(key, value);
    return *this;
  }
  Request& field(std::string_view key, std::optional<std::string_view> value) {
    return value ? field(key, *value) : *this;
  }
  Request& field(std::string_view key, element value) {
    json_.member(key, value);
    return *this;
  }
  Request& field(std::string_view key, Structured value) {
    if (value.json) {
      json_.key(key).raw(*value.json);
      return *this;
    }
    return field(key, value.value);
  }
  // Each key present is copied unchanged, whatever its kind, null included.
  Request& forward(std::initializer_list<std::string_view> keys) {
    for (auto key : keys)
      if (auto value = args_[key]) field(key, *value);
    return *this;
  }
  Request& pathQuery(std::string_view path) {
    path_ += "?path=";
    path_ += escapeQueryValue(path);
    return *this;
  }
  // "&key=" and the value's plain text, when the key is present; not escaped.
  Request& query(std::string_view key) {
    auto value = args_[key];
    if (!value) return *this;
    (path_ += '&').append(key) += '=';
    if (auto text = value->get_string(); !text.error()) {
      path_ += text.value_unsafe();
    } else if (value->type() == element_type::DOUBLE) {
      path_ += plainDecimal(double(*value));
    } else {
      JsonWriter(path_).value(*value);
    }
    return *this;
  }
  Request& image(std::string_view caption) {
    caption_ = caption;
    return *this;
  }

  void send(const Transport& transport, JsonWriter& out) {
    if (open_) json_.endObject();
    ResultSink sink(out, caption_);
    std::optional<std::string_view> body;
    if (hasBody_) body = forwardedBody_ ? *forwardedBody_ : std::string_view(body_);
    transport(method_, path_, body, &sink);
    sink.finish();
  }

 private:
  const Members& args_;
  std::optional<ForwardedArgument> forwarded_;
  std::string& body_;
  std::optional<std::string_view> forwardedBody_;
  JsonWriter json_;
  std::string_view method_;
  std::string path_;
  std::string_view caption_;
  bool hasBody_ = false, open_ = false;
};

struct Endpoint {
  std::string_view tool;
  void (*branch)(Request&);
};

constexpr auto kArray = element_type::ARRAY;
constexpr auto kObject = element_type::OBJECT;

// Each tool's one request, in catalogue order: method, path, body, and how its
// arguments are read.
constexpr Endpoint kEndpoints[] = {
    {"tondrel_state", [](Request& r) { r.to("GET", "/v1/state"); }},
    {"tondrel_document", [](Request& r) { r.to("GET", "/v1/document"); }},
    {"tondrel_help", [](Request& r) { r.to("GET", "/v1/help"); }},
    {"tondrel_edit",
     [](Request& r) {
       auto ops = r.structured("ops", kArray);
       r.to("POST", "/v1/edit").object().field("ops", ops).field("label", r.optionalString("label"));
     }},
    {"tondrel_replace_document",
     [](Request& r) {
       auto document = r.structured("document", kObject);
       r.to("PUT", r.isTrue("save") ? "/v1/document?save=1" : "/v1/document").body(document);
     }},
    {"tondrel_open", [](Request& r) { r.to("POST", "/v1/open").object().field("path", r.string("path")); }},
    {"tondrel_import",
     [](Request& r) {
       r.to("POST", "/v1/import").object().field("path", r.string("path")).forward({"track", "at"});
     }},
    {"tondrel_export",
     [](Request& r) {
       r.to("POST", "/v1/export").object().field("path", r.string("path"));
       r.forward({"format", "sampleRate", "bitDepth", "bitRateKbps", "channels", "normalization", "range",
                  "stems"});
     }},
    {"tondrel_transport",
     [](Request& r) {
       r.to("POST", "/v1/transport").object().field("action", r.string("action")).forward({"time", "range"});
     }},
    {"tondrel_select",
     [](Request& r) {
       r.to("POST", "/v1/select").object().forward({"clips", "track", "range", "fit"});
     }},
    {"tondrel_undo", [](Request& r) { r.to("POST", "/v1/undo"); }},
    {"tondrel_redo", [](Request& r) { r.to("POST", "/v1/redo"); }},
    {"tondrel_save",
     [](Request& r) { r.to("POST", "/v1/save").object().field("path", r.optionalString("path")); }},
    {"tondrel_snapshot",
     [](Request& r) { r.to("GET", "/v1/snapshot.png").image("Snapshot of the Tondrel window."); }},
    {"tondrel_waveform",
     [](Request& r) { r.to("GET", "/v1/waveform").pathQuery(r.string("path")).query("bins"); }},
    {"tondrel_silences",
     [](Request& r) {
       r.to("GET", "/v1/silences").pathQuery(r.string("path")).query("thresholdDB").query("minDuration");
     }},
};

std::string_view outOfMemory(bool sent) {
  return sent ? kAnswerTooLarge : "The request was too large for the memory available.";
}

constexpr bool endpointsFollowTheCatalogue() {
  if (std::size(kEndpoints) != kToolNames.size()) return false;
  for (std::size_t i = 0; i < kToolNames.size(); ++i)
    if (kEndpoints[i].tool != kToolNames[i]) return false;
  return true;
}
static_assert(endpointsFollowTheCatalogue(), "one endpoint per catalogued tool, in catalogue order");

}  // namespace

void callTool(const Transport& transport, std::string_view name, const Members& args, JsonWriter& out,
              std::optional<ForwardedArgument> forwarded) {
  auto index = toolIndex(name);
  if (!index) return writeFailedResult(out, "unknown tool " + std::string(name));
  // Part of the answer may already be written when a call fails: the failure takes its place.
  auto failed = [&out, mark = out.mark()](std::string_view text) {
    out.rollBack(mark);
    writeFailedResult(out, text);
  };
  bool sent = false;
  try {
    std::string body;
    Request request(args, forwarded, body);
    kEndpoints[*index].branch(request);
    sent = true;
    request.send(transport, out);
  } catch (const ProxyError& error) {
    failed(error.description());
  } catch (const std::bad_alloc&) {
    failed(outOfMemory(sent));
  } catch (const std::length_error&) {
    failed(outOfMemory(sent));
  }
}

}  // namespace tondrel
