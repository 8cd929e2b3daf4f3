#include "editor.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace bench {
namespace {

constexpr std::size_t kChunk = 64 * 1024, kMaxHead = 64 * 1024;

// What a session's first look at the editor returns: about 600 bytes.
constexpr std::string_view kState =
    R"({"app":"Tondrel","version":"2.4.1","project":{"name":"Sommerlied – Demo","path":"/Users/me/Music/)"
    R"(Sommerlied.tondrel","dirty":true,"sampleRate":48000,"tempo":120.5,"meter":[4,4],"duration":184.25},)"
    R"("transport":{"playing":false,"recording":false,"time":12.5,"loop":{"enabled":true,"range":[8,16]}},)"
    R"("selection":{"tracks":[1],"clips":["C1.12","C1.13"],"range":[8,12]},"tracks":[{"index":0,"name":)"
    R"("Drums","kind":"audio","clips":14,"mute":false,"solo":false},{"index":1,"name":"Gitarre ü","kind":)"
    R"("audio","clips":9,"mute":false,"solo":true},{"index":2,"name":"ベース","kind":"midi","clips":6,"mute":)"
    R"(true,"solo":false}],"undo":{"canUndo":true,"canRedo":false,"label":"Fade in"},"osc":{"port":9000}})";

std::string head(int status, std::string_view type, std::size_t length) {
  return "HTTP/1.1 " + std::string(status == 200 ? "200 OK" : "404 Not Found") +
         "\r\nContent-Type: " + std::string(type) + "\r\nContent-Length: " + std::to_string(length) +
         "\r\n\r\n";
}

std::size_t contentLength(std::string_view head) {
  constexpr std::string_view kName = "\r\ncontent-length:";
  auto found = std::search(head.begin(), head.end(), kName.begin(), kName.end(),
                           [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == b; });
  if (found == head.end()) return 0;
  std::size_t at = (found - head.begin()) + kName.size(), length = 0;
  while (at < head.size() && head[at] == ' ') ++at;
  std::from_chars(head.data() + at, head.data() + head.size(), length);
  return length;
}

std::uint64_t splitmix(std::uint64_t& state) {
  std::uint64_t z = (state += 0x9E3779B97F4A7C15u);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
  return z ^ (z >> 31);
}

}  // namespace

std::string makePng(std::size_t size, std::uint64_t seed) {
  std::string bytes = "\x89PNG\r\n\x1A\n";
  bytes.resize(std::max(size, bytes.size()));
  for (std::size_t at = 8; at < bytes.size(); at += 8) {
    std::uint64_t word = splitmix(seed);
    std::memcpy(bytes.data() + at, &word, std::min<std::size_t>(8, bytes.size() - at));
  }
  return bytes;
}

// Numbers are integers or short binary fractions, so they read back and write out unchanged.
std::string makeDocument(std::size_t size) {
  static const char* const kNames[] = {"Drums", "Gitarre ü", "Stimme – Refrain", "ベース", "Chœur", "Keys"};
  std::string text =
      R"({"format":"tondrel","version":3,"sampleRate":48000,"tempo":120.5,"meter":[4,4],"tracks":[)";
  for (int track = 0; text.size() < size; ++track) {
    bool midi = track % 3 == 2;
    std::string t = std::to_string(track);
    text += (track ? ",{\"id\":\"T" : "{\"id\":\"T") + t + R"(","name":")" + kNames[track % 6] + " " + t +
            R"(","kind":")" + (midi ? "midi" : "audio") +
            R"(","gainDB":-3.25,"pan":0.5,"mute":false,"clips":[)";
    for (int clip = 0; clip < 16; ++clip) {
      std::string c = std::to_string(clip);
      text += (clip ? ",{\"id\":\"C" : "{\"id\":\"C") + t + "." + c + R"(","start":)" +
              std::to_string(clip * 4) + R"(.5,"length":4,"fadeIn":0.125,"fadeOut":0.25,)";
      if (!midi) {
        text += R"("source":"/Users/me/Music/Takes/take )" + c + R"(.wav","offset":0})";
        continue;
      }
      text += R"("notes":[)";
      for (int note = 0; note < 8; ++note)
        text += (note ? ",{\"pitch\":" : "{\"pitch\":") + std::to_string(48 + (clip * 5 + note * 7) % 36) +
                R"(,"start":)" + std::to_string(note) + R"(.5,"length":0.25,"velocity":)" +
                std::to_string(64 + note * 8) + "}";
      text += "]}";
    }
    text += "]}";
  }
  return text + "]}";
}

void Buffer::reserve(std::size_t size) {
  if (size <= capacity) return;
  auto grown = std::make_unique_for_overwrite<char[]>(size);
  if (used) std::memcpy(grown.get(), data.get(), used);
  data = std::move(grown);
  capacity = size;
}

Editor::Editor(std::string png, std::string document)
    : state_(kState), png_(std::move(png)), document_(std::move(document)) {
  stateAnswer_ = {head(200, "application/json", state_.size()), &state_};
  pngAnswer_ = {head(200, "image/png", png_.size()), &png_};
  documentAnswer_ = {head(200, "application/json", document_.size()), &document_};
  replacedAnswer_ = {head(200, "application/json", replacedBody_.size()), &replacedBody_};
  okAnswer_ = {head(200, "application/json", ok_.size()), &ok_};
  notFoundAnswer_ = {head(404, "application/json", notFound_.size()), &notFound_};

  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* any = reinterpret_cast<sockaddr*>(&address);
  if (listener_ < 0 || ::bind(listener_, any, sizeof address) || ::listen(listener_, 64) ||
      ::getsockname(listener_, any, &length))
    throw std::runtime_error("stand-in editor: cannot listen on 127.0.0.1");
  port_ = ntohs(address.sin_port);
  epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = nullptr;  // the listener
  ::epoll_ctl(epoll_, EPOLL_CTL_ADD, listener_, &event);
  thread_ = std::thread([this] { loop(); });
}

Editor::~Editor() {
  stop_ = true;
  thread_.join();
  while (!open_.empty()) close(*open_.back());
  ::close(epoll_);
  ::close(listener_);
}

bool Editor::replacedWith(std::string_view expected) {
  std::lock_guard lock(replacedLock_);
  bool same =
      hasReplaced_ && std::string_view(replaced_.data.get() + replacedBegin_, replacedSize_) == expected;
  hasReplaced_ = false;
  return same;
}

void Editor::loop() {
  epoll_event events[16];
  while (!stop_) {  // wakes every 50 ms to see whether to stop
    int count = ::epoll_wait(epoll_, events, 16, 50);
    for (int i = 0; i < count; ++i) {
      auto* c = static_cast<Connection*>(events[i].data.ptr);
      if (!c) {
        for (int fd; (fd = ::accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0;) {
          ++accepted_;
          int one = 1;
          ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
          auto& added = open_.emplace_back(new Connection{fd, {}});
          if (!spare_.empty()) added->in = std::move(spare_.back()), spare_.pop_back(), added->in.used = 0;
          epoll_event event{};
          event.events = EPOLLIN;
          event.data.ptr = added.get();
          ::epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event);
        }
        continue;
      }
      if (!(c->answer ? flush(*c) && serve(*c) : read(*c))) close(*c);
    }
  }
}

bool Editor::read(Connection& c) {
  for (;;) {
    c.in.reserve(std::max(c.need, c.in.used + kChunk));
    ssize_t n = ::recv(c.fd, c.in.data.get() + c.in.used, c.in.capacity - c.in.used, 0);
    if (n == 0) return false;
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN) return false;
      return serve(c);
    }
    c.in.used += n;
  }
}

bool Editor::serve(Connection& c) {
  while (!c.answer) {
    if (!c.need) {
      std::string_view text(c.in.data.get(), c.in.used);
      auto end = text.find("\r\n\r\n");
      if (end == std::string_view::npos) return c.in.used < kMaxHead;
      c.headEnd = end + 4;
      c.need = c.headEnd + contentLength(text.substr(0, end + 2));
    }
    if (c.in.used < c.need) return true;
    std::string_view head(c.in.data.get(), c.headEnd);
    std::string_view method = head.substr(0, head.find(' '));
    std::string_view target = head.substr(method.size() + 1);
    target = target.substr(0, target.find(' '));
    std::string_view path = target.substr(0, target.find('?'));
    if (method == "PUT" && path == "/v1/document") {
      keep(c);
    } else {
      c.answer = &route(method, path);
      std::size_t extra = c.in.used - c.need;  // a pipelined next request, if any
      std::memmove(c.in.data.get(), c.in.data.get() + c.need, extra);
      c.in.used = extra;
    }
    c.need = 0;
    c.sent = 0;
    if (!flush(c)) return false;
  }
  return true;
}

const Editor::Answer& Editor::route(std::string_view method, std::string_view path) {
  if (method == "GET" && path == "/v1/state") return stateAnswer_;
  if (method == "GET" && path == "/v1/snapshot.png") return pngAnswer_;
  if (method == "GET" && path == "/v1/document") return documentAnswer_;
  if (method == "POST" && path == "/v1/edit") return okAnswer_;
  return notFoundAnswer_;
}

// Keeps the received document where it lies: the connection reads on into the
// buffer that held the previous one, without a copy of either.
void Editor::keep(Connection& c) {
  std::lock_guard lock(replacedLock_);
  std::swap(c.in, replaced_);
  replacedBegin_ = c.headEnd;
  replacedSize_ = c.need - c.headEnd;
  hasReplaced_ = true;
  std::size_t extra = replaced_.used - c.need;  // a pipelined next request, if any
  c.in.used = 0;
  c.in.reserve(extra + kChunk);
  std::memcpy(c.in.data.get(), replaced_.data.get() + c.need, extra);
  c.in.used = extra;
  replaced_.used = c.need;
  c.answer = &replacedAnswer_;
}

bool Editor::flush(Connection& c) {
  const Answer& a = *c.answer;
  std::size_t headSize = a.head.size(), total = headSize + a.body->size();
  while (c.sent < total) {
    iovec parts[2];
    int count = 0;
    if (c.sent < headSize) parts[count++] = {const_cast<char*>(a.head.data()) + c.sent, headSize - c.sent};
    std::size_t bodySent = c.sent > headSize ? c.sent - headSize : 0;
    parts[count++] = {const_cast<char*>(a.body->data()) + bodySent, a.body->size() - bodySent};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = count;
    ssize_t n = ::sendmsg(c.fd, &message, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) return watch(c, EPOLLOUT);
    if (n < 0) return false;
    c.sent += n;
  }
  c.answer = nullptr;
  return watch(c, EPOLLIN);
}

bool Editor::watch(Connection& c, unsigned events) {
  if (c.events == events) return true;
  c.events = events;
  epoll_event event{};
  event.events = events;
  event.data.ptr = &c;
  return ::epoll_ctl(epoll_, EPOLL_CTL_MOD, c.fd, &event) == 0;
}

void Editor::close(Connection& c) {
  ::epoll_ctl(epoll_, EPOLL_CTL_DEL, c.fd, nullptr);
  ::close(c.fd);
  spare_.push_back(std::move(c.in));
  std::erase_if(open_, [&](const auto& open) { return open.get() == &c; });
}

}  // namespace bench
