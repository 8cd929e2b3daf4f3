#include "json_writer.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>

#include "kernels.hpp"
#include "shortest_double.hpp"
#include "utf8.hpp"

namespace tondrel {
namespace {

bool isPlain(std::string_view text) {
  for (char c : text)
    if (static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\') return false;
  return true;
}

}  // namespace

JsonWriter& JsonWriter::beginObject() {
  separate();
  out_.push_back('{');
  needComma_ = false;
  return *this;
}

JsonWriter& JsonWriter::endObject() {
  out_.push_back('}');
  needComma_ = true;
  return *this;
}

JsonWriter& JsonWriter::beginArray() {
  separate();
  out_.push_back('[');
  needComma_ = false;
  return *this;
}

JsonWriter& JsonWriter::endArray() {
  out_.push_back(']');
  needComma_ = true;
  return *this;
}

JsonWriter& JsonWriter::key(std::string_view name) {
  separate();
  escaped(name, true);
  out_.push_back(':');
  needComma_ = false;
  return *this;
}

JsonWriter& JsonWriter::string(std::string_view text) {
  separate();
  escaped(text, true);
  return *this;
}

JsonWriter& JsonWriter::lossyString(std::string_view bytes) {
  std::string repaired;
  return string(decodeUtf8(bytes, repaired));
}

JsonWriter& JsonWriter::beginString() {
  separate();
  out_.push_back('"');
  return *this;
}

void JsonWriter::base64Piece(std::string_view bytes, std::string& carry) {
  if (!carry.empty()) {
    std::size_t taken = std::min(bytes.size(), 3 - carry.size());
    carry.append(bytes.substr(0, taken));
    bytes.remove_prefix(taken);
    if (carry.size() < 3) return;
    base64(reinterpret_cast<const unsigned char*>(carry.data()), 3);
    carry.clear();
  }
  std::size_t whole = bytes.size() - bytes.size() % 3;
  base64(reinterpret_cast<const unsigned char*>(bytes.data()), whole);
  carry.assign(bytes.substr(whole));
}

JsonWriter& JsonWriter::endBase64String(std::string& carry) {
  if (!carry.empty()) {  // the last one or two bytes, as three with zeros, then padded
    unsigned char last[3] = {static_cast<unsigned char>(carry[0]),
                             static_cast<unsigned char>(carry.size() > 1 ? carry[1] : 0), 0};
    char tail[4];
    kernels::kernels().base64(last, 3, tail);
    tail[3] = '=';
    if (carry.size() == 1) tail[2] = '=';
    out_.append({tail, 4});
    carry.clear();
  }
  out_.push_back('"');
  return *this;
}

void JsonWriter::lossyPiece(std::string_view bytes, std::string& carry) {
  if (!carry.empty()) {
    // The sequences that begin in the carried bytes, judged with what follows them:
    // no sequence is longer than four bytes.
    std::string joined = carry, repaired;
    joined.append(bytes.substr(0, std::min<std::size_t>(bytes.size(), 3)));
    std::size_t i = 0;
    while (i < carry.size()) {
      std::size_t bad = 0;
      if (!sequenceLength(joined, i, bad) && i + bad >= joined.size() &&
          joined.size() == carry.size() + bytes.size()) {  // still incomplete: wait for more
        escaped(repaired);
        carry.erase(0, i);
        carry.append(bytes);
        return;
      }
      i += appendRepaired(joined, i, repaired);
    }
    escaped(repaired);
    bytes.remove_prefix(i - carry.size());
    carry.clear();
  }
  // A sequence the piece ends inside waits for the rest. The decoder starts a
  // sequence at every byte from 0xC0 up (no sequence takes one as a continuation),
  // so the split falls where it would have started anyway.
  std::size_t end = bytes.size();
  for (std::size_t back = 1; back <= std::min<std::size_t>(3, bytes.size()); ++back) {
    auto c = static_cast<unsigned char>(bytes[bytes.size() - back]);
    if (c >= 0x80 && c < 0xC0) continue;
    std::size_t expected = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 1;
    if (expected > back) end = bytes.size() - back;
    break;
  }
  std::string repaired;
  escaped(decodeUtf8(bytes.substr(0, end), repaired));
  carry.assign(bytes.substr(end));
}

JsonWriter& JsonWriter::endLossyString(std::string& carry) {
  std::string repaired;
  escaped(decodeUtf8(carry, repaired));
  carry.clear();
  out_.push_back('"');
  return *this;
}

void JsonWriter::base64(const unsigned char* src, std::size_t n) {
  char* dst = out_.room(n / 3 * 4);
  kernels::kernels().base64(src, n, dst);
  out_.commit(n / 3 * 4);
}

JsonWriter& JsonWriter::number(std::int64_t value) {
  separate();
  char* at = out_.room(24);
  out_.commit(std::to_chars(at, at + 24, value).ptr - at);
  return *this;
}

JsonWriter& JsonWriter::number(std::uint64_t value) {
  separate();
  char* at = out_.room(24);
  out_.commit(std::to_chars(at, at + 24, value).ptr - at);
  return *this;
}

JsonWriter& JsonWriter::number(double value) {
  // Parsed JSON never holds NaN or infinity; null keeps the output valid JSON anyway.
  if (!std::isfinite(value)) return null();
  separate();
  char buffer[32];
  auto end = shortestChars(buffer, buffer + sizeof buffer, value).ptr;
  out_.append({buffer, std::size_t(end - buffer)});
  if (std::string_view(buffer, end - buffer).find_first_of(".e") == std::string_view::npos) out_ += ".0";
  return *this;
}

JsonWriter& JsonWriter::boolean(bool value) {
  separate();
  out_ += value ? "true" : "false";
  return *this;
}

JsonWriter& JsonWriter::null() {
  separate();
  out_ += "null";
  return *this;
}

JsonWriter& JsonWriter::value(simdjson::dom::element element) {
  using Type = simdjson::dom::element_type;
  switch (element.type()) {
    case Type::OBJECT:
      beginObject();
      for (auto field : simdjson::dom::object(element)) {
        key(field.key);
        value(field.value);
      }
      return endObject();
    case Type::ARRAY:
      beginArray();
      for (auto item : simdjson::dom::array(element)) value(item);
      return endArray();
    case Type::STRING:
      return string(std::string_view(element));
    case Type::INT64:
      return number(std::int64_t(element));
    case Type::UINT64:
      return number(std::uint64_t(element));
    case Type::DOUBLE:
      return number(double(element));
    case Type::BOOL:
      return boolean(bool(element));
    case Type::NULL_VALUE:
      break;
  }
  return null();
}

JsonWriter& JsonWriter::raw(std::string_view json) {
  separate();
  out_ += json;
  return *this;
}

void JsonWriter::escaped(std::string_view text, bool quotes) {
  // Keys and short values are mostly plain: copied at once.
  if (text.size() <= 24 && isPlain(text)) {
    char* o = out_.room(text.size() + 2);
    if (quotes) *o++ = '"';
    std::memcpy(o, text.data(), text.size());
    if (quotes) o[text.size()] = '"';
    out_.commit(text.size() + 2 * quotes);
    return;
  }
  if (quotes) out_.push_back('"');
  // Room for the text and an escape every eight bytes or so, which an editor's
  // document (JSON text itself) comes near; the kernel stops where the room runs
  // short, and the rest gets room of its own.
  const auto escape = kernels::kernels().escape;
  for (const char *p = text.data(), *end = p + text.size(); p < end;) {
    std::size_t rest = end - p, room = rest + rest / 8 + kernels::kEscapeRoom;
    char* dst = out_.room(room);
    auto [stop, written] = escape(p, end, dst, dst + room);
    out_.commit(written - dst);
    p = stop;
  }
  if (quotes) out_.push_back('"');
}

}  // namespace tondrel
