#include "tool_result.hpp"

#include <cctype>
#include <limits>
#include <new>
#include <optional>

#include "large_buffers.hpp"

namespace tondrel {

namespace {

// The MIME type of an image result for this answer, or nothing when the answer is text.
std::optional<std::string> imageType(const APIResponse& response) {
  std::string type = response.contentType;
  for (char& c : type) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (response.status != 200 || type.find("json") != std::string::npos) return std::nullopt;
  return type.starts_with("image/") ? response.contentType.substr(0, response.contentType.find(';'))
                                    : "image/png";
}

}  // namespace

void writeFailedResult(JsonWriter& out, std::string_view text) {
  out.beginObject().key("content").beginArray();
  out.beginObject().member("type", "text").key("text").lossyString(text).endObject();
  out.endArray().member("isError", true).endObject();
}

namespace {

void advise(std::string_view bytes) {
  adviseHugePages(const_cast<char*>(bytes.data()), bytes.size());
}

}  // namespace

void ResultSink::head(const APIResponse& head, std::uint64_t announced) {
  started_ = true;
  if (announced > std::numeric_limits<std::size_t>::max() / 2) throw std::bad_alloc();  // past any memory
  std::size_t length = announced;
  auto type = caption_.empty() ? std::nullopt : imageType(head);
  // Room for the whole result as the announced length gives it, so that the
  // buffer is never copied to grow; a length that cannot fit fails here, early.
  // Huge pages only where the answer is sure to reach: a partly used one at the
  // end would count whole.
  out_.beginObject().key("content").beginArray();
  if (type) {
    image_ = true;
    mimeType_ = std::move(*type);
    advise(out_.reserve(length / 3 * 4 + 4));
    out_.beginObject().member("type", "image").key("data").beginString();
  } else {
    isError_ = head.status > 399;
    // JSON text gains an escape every few bytes: a sixteenth more is about as
    // little as an editor's answer grows.
    std::string_view room = out_.reserve(length + length / 4);
    advise(room.substr(0, room.size() - length / 4 + length / 16));
    out_.beginObject().member("type", "text").key("text").beginString();
  }
}

void ResultSink::body(std::string_view piece) {
  if (image_)
    out_.base64Piece(piece, carry_);
  else
    out_.lossyPiece(piece, carry_);
}

void ResultSink::finish() {
  if (image_) {
    out_.endBase64String(carry_);
    out_.key("mimeType").lossyString(mimeType_).endObject();  // header bytes may be anything
    out_.beginObject().member("type", "text").member("text", caption_).endObject();
    out_.endArray();
  } else {
    out_.endLossyString(carry_);
    out_.endObject().endArray().member("isError", isError_);
  }
  out_.endObject();
}

}  // namespace tondrel
