// Everything we send, answers and request bodies alike, is written by JsonWriter
// straight into one output buffer, from parsed values or from values built in code.
#pragma once

#include <simdjson.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "buffer.hpp"

namespace tondrel {

// Compact JSON: no blanks, "/" plain, members in the order written. Strings must
// be valid UTF-8 except where a method says it repairs them.
class JsonWriter {
 public:
  explicit JsonWriter(Buffer& out) : out_(out) {}

  JsonWriter& beginObject();
  JsonWriter& endObject();
  JsonWriter& beginArray();
  JsonWriter& endArray();
  JsonWriter& key(std::string_view name);

  JsonWriter& string(std::string_view text);
  // Writes bytes of any origin as a string, each invalid UTF-8 sequence as U+FFFD.
  JsonWriter& lossyString(std::string_view bytes);
  JsonWriter& number(std::int64_t value);
  JsonWriter& number(std::uint64_t value);
  // Shortest text that reads back as the same double, and still reads as a
  // fractional number: 2.0 is written "2.0", never "2".
  JsonWriter& number(double value);
  JsonWriter& boolean(bool value);
  JsonWriter& null();
  // A parsed value, written unchanged: kinds of numbers and member order kept.
  JsonWriter& value(simdjson::dom::element element);
  // Text that is already one complete JSON value.
  JsonWriter& raw(std::string_view json);

  // A string written in pieces as its bytes arrive, for a large answer that should
  // never be held whole beside its escaped form. Between beginString() and the end
  // call, only pieces of one kind go in; carry holds the 0-3 bytes of a piece
  // that belong with the next one, and starts empty.
  JsonWriter& beginString();
  // As lossyString, over all the pieces together: a sequence split between two
  // pieces is judged whole.
  void lossyPiece(std::string_view bytes, std::string& carry);
  JsonWriter& endLossyString(std::string& carry);
  // The standard base64 of all the pieces together (padded, no line breaks).
  void base64Piece(std::string_view bytes, std::string& carry);
  JsonWriter& endBase64String(std::string& carry);
  // Room for size more bytes and the rest of the message, so that a large string
  // written in pieces is never copied to grow. Returns the output's bytes, the
  // room included.
  std::string_view reserve(std::size_t size) {
    out_.reserve(out_.size() + size + 8192);
    return {out_.data(), out_.size() + size};
  }

  // Where the output stands, to go back to when what follows cannot be finished.
  struct Mark {
    std::size_t size;
    bool needComma;
  };
  Mark mark() const { return {out_.size(), needComma_}; }
  void rollBack(Mark mark) {
    out_.truncate(mark.size);
    needComma_ = mark.needComma;
  }

  // Convenience for the common "key":value member.
  template <typename T>
  JsonWriter& member(std::string_view name, T&& v) {
    key(name);
    return write(std::forward<T>(v));
  }

 private:
  JsonWriter& write(std::string_view s) { return string(s); }
  JsonWriter& write(const char* s) { return string(s); }
  JsonWriter& write(bool b) { return boolean(b); }
  JsonWriter& write(int v) { return number(static_cast<std::int64_t>(v)); }
  JsonWriter& write(std::int64_t v) { return number(v); }
  JsonWriter& write(simdjson::dom::element e) { return value(e); }

  void separate() {
    if (needComma_) out_.push_back(',');
    needComma_ = true;
  }
  void escaped(std::string_view text, bool quotes = false);
  void base64(const unsigned char* bytes, std::size_t size);

  Buffer& out_;
  bool needComma_ = false;
};

}  // namespace tondrel
