#include "request_log.hpp"

namespace tondrel::sim {

namespace {

bool binary(const std::string& type) {
  return type.starts_with("image/") || type == "application/octet-stream";
}

// Keeps the first bytes, without splitting a UTF-8 sequence at the cut.
void cut(std::string& body) {
  if (body.size() <= RequestLog::kBodyBytes) return;
  std::size_t n = RequestLog::kBodyBytes;
  while (n > 0 && (static_cast<unsigned char>(body[n]) & 0xC0) == 0x80) --n;
  body.resize(n);
  body.shrink_to_fit();
}

json body(const std::string& text, std::size_t bytes, const std::string& type, bool dropped) {
  json out = {{"bytes", bytes}, {"type", type}, {"text", nullptr}, {"dropped", dropped}};
  if (!binary(type) && !dropped) out["text"] = text, out["truncated"] = text.size() < bytes;
  return out;
}

}  // namespace

const LogEntry& RequestLog::add(LogEntry entry) {
  entry.id = nextId_++;
  if (binary(entry.answerType)) entry.answerBody.clear();
  cut(entry.requestBody);
  cut(entry.answerBody);
  bodyBytes_ += entry.requestBody.size() + entry.answerBody.size();
  entries_.push_back(std::move(entry));
  auto drop = [&](LogEntry& old) {
    bodyBytes_ -= old.requestBody.size() + old.answerBody.size();
    std::string().swap(old.requestBody), std::string().swap(old.answerBody);
    old.dropped = true;
  };
  if (entries_.size() > kEntries) drop(entries_.front()), entries_.pop_front();
  for (auto old = entries_.begin(); bodyBytes_ > kAllBodies && old != entries_.end(); ++old)
    if (!old->dropped) drop(*old);
  return entries_.back();
}

json RequestLog::row(const LogEntry& entry) {
  return {{"id", entry.id},
          {"at", entry.at},
          {"method", entry.method},
          {"target", entry.target},
          {"status", entry.status},
          {"ms", entry.ms},
          {"requestBytes", entry.requestBytes},
          {"answerBytes", entry.answerBytes},
          {"faults", entry.faults}};
}

json RequestLog::list() const {
  json rows = json::array();
  for (auto entry = entries_.rbegin(); entry != entries_.rend(); ++entry) rows.push_back(row(*entry));
  return rows;
}

std::optional<json> RequestLog::entry(std::uint64_t id) const {
  if (entries_.empty() || id < entries_.front().id || id > entries_.back().id) return std::nullopt;
  const LogEntry& entry = entries_[id - entries_.front().id];
  json out = row(entry);
  out["request"] = body(entry.requestBody, entry.requestBytes, "application/json", entry.dropped);
  out["answer"] = body(entry.answerBody, entry.answerBytes, entry.answerType, entry.dropped);
  return out;
}

}  // namespace tondrel::sim
