#include "server.hpp"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "memory.hpp"
#include "tools.hpp"

namespace tondrel {
namespace {

constexpr std::size_t kPadding = simdjson::SIMDJSON_PADDING;

constexpr std::string_view kInstructions =
    "Controls the Tondrel macOS audio editor (waveforms, fades, copy-paste, multitrack, multi-format export, "
    "OSC). Call tondrel_state first; edit live with tondrel_edit (one undo step per batch); inspect silences "
    "with tondrel_silences; export with tondrel_export; check visually with tondrel_snapshot.";

// Splits a byte stream into lines, each followed by readable padding so that the
// parser can work on it where it lies, without a copy. Input also ends when the
// reader of `output` goes away: nobody would see the answers.
class LineReader {
 public:
  LineReader(int input, int output) : fd_(input), output_(output) {}
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;
  ~LineReader() { std::free(buffer_); }

  // Whether next() has a line ready, without waiting for input.
  bool hasLine() const {
    return atEnd_ ? begin_ < end_ : scan_ < end_ && std::memchr(buffer_ + scan_, '\n', end_ - scan_);
  }

  // The next line without its terminator (LF or CRLF); nothing at the end of input.
  std::optional<std::string_view> next() {
    for (;;) {
      auto* lf =
          scan_ < end_ ? static_cast<char*>(std::memchr(buffer_ + scan_, '\n', end_ - scan_)) : nullptr;
      if (lf) {
        std::size_t begin = begin_, length = lf - (buffer_ + begin);
        begin_ = scan_ = length + begin + 1;
        if (length > 0 && buffer_[begin + length - 1] == '\r') --length;
        return std::string_view(buffer_ + begin, length);
      }
      scan_ = end_;
      if (atEnd_) {
        if (begin_ == end_) return std::nullopt;
        std::string_view last(buffer_ + begin_, end_ - begin_);
        begin_ = scan_ = end_;
        return last;
      }
      fill();
    }
  }

 private:
  void fill() {
    if (begin_ > 0) {  // keep only the unfinished line
      std::memmove(buffer_, buffer_ + begin_, end_ - begin_);
      end_ -= begin_, scan_ -= begin_, begin_ = 0;
    }
    if (capacity_ - end_ < kPadding + kMinRead) {
      // realloc can move large blocks by remapping pages, without copying them.
      std::size_t capacity = std::max(capacity_ * 2, kPadding + 4 * kMinRead);
      auto* grown = static_cast<char*>(std::realloc(buffer_, capacity));
      if (!grown) throw std::bad_alloc();
      buffer_ = grown, capacity_ = capacity;
      adviseHugePages(buffer_, capacity_);
    }
    pollfd fds[] = {{fd_, POLLIN, 0}, {output_, 0, 0}};
    while (::poll(fds, 2, -1) < 0 && errno == EINTR) {
    }
    if (fds[1].revents & (POLLERR | POLLHUP)) {
      atEnd_ = true;
      return;
    }
    ssize_t n;
    do n = ::read(fd_, buffer_ + end_, capacity_ - end_ - kPadding);
    while (n < 0 && errno == EINTR);
    if (n <= 0)
      atEnd_ = true;
    else
      end_ += n;
  }

  static constexpr std::size_t kMinRead = 16 * 1024;
  int fd_, output_;
  char* buffer_ = nullptr;
  std::size_t capacity_ = 0, begin_ = 0, scan_ = 0, end_ = 0;
  bool atEnd_ = false;
};

bool writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data.remove_prefix(n);
  }
  return true;
}

}  // namespace

ToolResult textResult(APIResponse response) {
  ToolResult result;
  result.body = std::move(response.data);
  result.isError = response.status > 399;
  return result;
}

ToolResult imageResult(APIResponse response, std::string caption) {
  std::string type = response.contentType;
  for (char& c : type) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (response.status != 200 || type.find("json") != std::string::npos)
    return textResult(std::move(response));

  ToolResult result;
  result.kind = ToolResult::Kind::image;
  result.mimeType = type.starts_with("image/")
                        ? response.contentType.substr(0, response.contentType.find(';'))
                        : "image/png";
  result.body = std::move(response.data);
  result.caption = std::move(caption);
  return result;
}

ToolResult failedResult(std::string description) {
  ToolResult result;
  result.body = std::move(description);
  result.isError = true;
  return result;
}

void writeToolResult(JsonWriter& out, const ToolResult& result) {
  out.beginObject().key("content").beginArray();
  if (result.kind == ToolResult::Kind::image) {
    out.beginObject().member("type", "image").key("data").base64String(result.body);
    out.key("mimeType").lossyString(result.mimeType).endObject();  // header bytes may be anything
    out.beginObject().member("type", "text").member("text", result.caption).endObject();
    out.endArray();
  } else {
    out.beginObject().member("type", "text").key("text").lossyString(result.body).endObject();
    out.endArray().member("isError", result.isError);
  }
  out.endObject();
}

const TondrelMCPServer::Method TondrelMCPServer::kMethods[] = {
    {"initialize", &TondrelMCPServer::initialize},
    {"ping", &TondrelMCPServer::ping},
    {"tools/list", &TondrelMCPServer::listTools},
    {"tools/call", &TondrelMCPServer::callToolRequest},
};

TondrelMCPServer::TondrelMCPServer(Transport transport, std::string apiBase, std::string version)
    : transport_(std::move(transport)), apiBase_(std::move(apiBase)), version_(std::move(version)) {}

void TondrelMCPServer::run(int input, int output) {
  // Answers to lines that arrive together are written together: one write per
  // answer would make a burst of quick requests cost a system call each.
  constexpr std::size_t kWriteAt = 64 * 1024;
  LineReader lines(input, output);
  std::string out;  // kept across lines: large answers reuse memory already touched
  output_ = output, pending_ = &out, complete_ = 0, outputGone_ = false;
  while (auto line = lines.next()) {
    bool answered = false;
    try {
      answered = handlePadded(*line, out);
    } catch (...) {  // out of memory, say: this line goes unanswered, the next is served
    }
    if (outputGone_) break;
    if (answered) {
      out.push_back('\n');
      complete_ = out.size();
    } else {
      out.resize(complete_);  // nothing, or what was begun before the failure
    }
    if (out.size() < kWriteAt && lines.hasLine()) continue;
    if (!writeAll(output, out)) break;  // the client is gone
    out.clear();
    complete_ = 0;
  }
  pending_ = nullptr;
}

void TondrelMCPServer::writeCompleteAnswers() {
  if (!pending_ || complete_ == 0) return;
  if (!writeAll(output_, std::string_view(*pending_).substr(0, complete_))) outputGone_ = true;
  pending_->erase(0, complete_);
  complete_ = 0;
}

std::optional<std::string> TondrelMCPServer::handle(std::string_view line) {
  padded_.reserve(line.size() + kPadding);
  padded_.assign(line);
  std::string out;
  if (!handlePadded(padded_, out)) return std::nullopt;
  return out;
}

bool TondrelMCPServer::handlePadded(std::string_view line, std::string& out) {
  std::string_view text = decodeUtf8(line, repaired_);
  if (text.data() == repaired_.data()) {
    repaired_.reserve(repaired_.size() + kPadding);
    text = repaired_;
  }
  text = trimWhitespace(text);
  if (text.empty()) return false;
  lineSize_ = text.size();

  simdjson::dom::element root;
  if (parser_.parse(text.data(), text.size(), false).get(root) != simdjson::SUCCESS || !root.is_object()) {
    encode(out, nullptr, [](JsonWriter& w) { writeError(w, -32700, "parse error"); });
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

template <typename Answer>
void TondrelMCPServer::encode(std::string& out, const simdjson::dom::element* id, Answer&& answer) {
  JsonWriter w(out);
  w.beginObject().member("jsonrpc", "2.0").key("id");
  if (id)
    w.value(*id);
  else
    w.null();
  answer(w);
  w.endObject();
}

void TondrelMCPServer::writeError(JsonWriter& out, int code, std::string_view message,
                                  std::string_view detail) {
  std::string text(message);
  text += detail;
  out.key("error").beginObject().member("code", code).member("message", text).endObject();
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
  if (!isCatalogued(name)) return writeError(out, -32602, "unknown tool: ", name);

  Members args(params["arguments"]);
  ToolResult result;
  try {
    writeCompleteAnswers();
    result = callTool(name, args);
  } catch (const ProxyError& error) {
    result = failedResult(error.description());
  } catch (const std::exception& error) {
    result = failedResult(error.what());
  }
  writeToolResult(out.key("result"), result);
}

}  // namespace tondrel
