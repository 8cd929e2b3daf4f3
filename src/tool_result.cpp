#include "tool_result.hpp"

#include <cctype>

namespace tondrel {

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

}  // namespace tondrel
