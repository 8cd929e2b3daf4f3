#include "editor_client.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "libcurl.hpp"

namespace tondrel {

ProxyError ProxyError::unreachable(std::string base) {
  std::string text =
      "Tondrel is not reachable at " + base + " \u2014 launch /Applications/Tondrel.app and retry.";
  return {Kind::unreachable, std::move(base), std::move(text)};
}

ProxyError ProxyError::badArguments(std::string message) {
  std::string text = message;
  return {Kind::badArguments, std::move(message), std::move(text)};
}

std::string apiBaseURL(const std::map<std::string, std::string>& environment) {
  std::int64_t port = kDefaultPort;
  if (auto found = environment.find(std::string(kPortVariable)); found != environment.end()) {
    std::string_view text = found->second;
    bool negative = !text.empty() && text[0] == '-';
    if (!text.empty() && (text[0] == '+' || text[0] == '-')) text.remove_prefix(1);
    std::uint64_t magnitude = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude);
    std::uint64_t limit = std::uint64_t(INT64_MAX) + (negative ? 1 : 0);
    if (!text.empty() && error == std::errc() && end == text.data() + text.size() && magnitude <= limit)
      port = negative ? std::int64_t(0 - magnitude) : std::int64_t(magnitude);
  }
  return "http://127.0.0.1:" + std::to_string(port);
}

namespace {

using Clock = std::chrono::steady_clock;

// libcurl keeps a request head in one buffer of at most 1 MiB; a longer address
// would fail as if the editor had not answered.
constexpr std::size_t kMaxAddress = (1 << 20) - 4096;
// Parsed addresses are kept for short paths only, so the cache stays small in bytes.
constexpr std::size_t kCachedPaths = 64, kCachedPathLength = 256;

class CurlClient {
 public:
  CurlClient(std::string base, double timeout) : base_(std::move(base)), timeout_(timeout) {}
  CurlClient(const CurlClient&) = delete;
  CurlClient& operator=(const CurlClient&) = delete;

  ~CurlClient() {
    if (!curl_) return;
    forgetURLs();
    if (easy_) curl_->easy_cleanup(easy_);
    curl_->slist_free_all(bodyHeaders_);
    curl_->slist_free_all(plainHeaders_);
    curl_->slist_free_all(emptyHeaders_);
  }

  APIResponse send(std::string_view method, std::string_view path, std::optional<std::string_view> body,
                   AnswerSink* sink) {
    // A NUL would end the address early and send another request than the one asked for.
    if (path.find('\0') != std::string_view::npos || base_.size() + path.size() > kMaxAddress)
      throw ProxyError::badArguments("bad path " + std::string(path));
    load();
    CURLU* url = parsedURL(path);
    if (!url) throw ProxyError::badArguments("bad path " + std::string(path));
    // A connection the editor has written to or closed since its last answer is
    // never used again: what it holds would be read as this request's answer.
    if (idleConnectionIsStale()) reopen();

    method_.assign(method);
    setopt(CURLOPT_CURLU, url);
    // libcurl sends a request again when a reused connection dies before the
    // answer: harmless for a GET, a second edit for anything else.
    setopt(CURLOPT_FRESH_CONNECT, long(method != "GET"));
    if (body) {
      // An empty view may have no data pointer; curl would then read from stdin.
      setopt(CURLOPT_POSTFIELDS, body->empty() ? "" : body->data());
      setopt(CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(body->size()));
      setopt(CURLOPT_HTTPHEADER, bodyHeaders_);
    } else if (method == "GET") {
      setopt(CURLOPT_HTTPGET, 1L);
      setopt(CURLOPT_HTTPHEADER, plainHeaders_);
    } else {
      // A bodiless POST still says "Content-Length: 0", or a server may wait for a body.
      setopt(CURLOPT_POSTFIELDS, "");
      setopt(CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(0));
      setopt(CURLOPT_HTTPHEADER, emptyHeaders_);
    }
    setopt(CURLOPT_CUSTOMREQUEST, method_.c_str());

    response_ = APIResponse{};
    sink_ = sink;
    headed_ = false;
    failure_ = nullptr;
    moved_ = 0;
    lastMoved_ = Clock::now();
    CURLcode code = curl_->easy_perform(easy_);
    if (failure_) {
      response_ = APIResponse{};
      std::rethrow_exception(std::exchange(failure_, nullptr));
    }
    if (code != CURLE_OK) throw ProxyError::unreachable(base_);
    readHead();
    headOnce();  // an answer without a body has not told the sink yet
    return std::move(response_);
  }

 private:
  template <typename T>
  void setopt(CURLoption option, T value) {
    curl_->easy_setopt(easy_, option, value);
  }

  void load() {
    if (easy_) return;
    curl_ = Libcurl::get();
    if (!curl_)
      throw ProxyError::badArguments(
          "libcurl (libcurl.so.4) could not be loaded; install libcurl and retry.");
    // No "Expect: 100-continue" stall on large bodies, no "Accept: */*" nobody reads.
    plainHeaders_ = curl_->slist_append(nullptr, "Accept:");
    emptyHeaders_ = curl_->slist_append(curl_->slist_append(nullptr, "Accept:"), "Content-Type:");
    bodyHeaders_ = curl_->slist_append(nullptr, "Accept:");
    bodyHeaders_ = curl_->slist_append(bodyHeaders_, "Expect:");
    bodyHeaders_ = curl_->slist_append(bodyHeaders_, "Content-Type: application/json; charset=utf-8");
    reopen();
  }

  // A new easy handle: the old one, if any, closes every connection it kept.
  void reopen() {
    if (easy_) curl_->easy_cleanup(easy_);
    sockets_.clear();
    easy_ = curl_->easy_init();
    if (!easy_) throw std::bad_alloc();
    setopt(CURLOPT_NOSIGNAL, 1L);
    setopt(CURLOPT_PROXY, "");  // the editor is on loopback: never via a proxy from the environment
    setopt(CURLOPT_HTTP_VERSION, long(CURL_HTTP_VERSION_1_1));
    setopt(CURLOPT_MAXCONNECTS, 1L);  // a request on a connection of its own retires the older one
    // The timeout bounds connecting and silence, never a long answer that keeps flowing.
    setopt(CURLOPT_CONNECTTIMEOUT_MS, long(timeout_ * 1000));
    setopt(CURLOPT_NOPROGRESS, 0L);
    setopt(CURLOPT_XFERINFOFUNCTION, &CurlClient::onProgress);
    setopt(CURLOPT_XFERINFODATA, this);
    setopt(CURLOPT_BUFFERSIZE, 256L * 1024);
    setopt(CURLOPT_WRITEFUNCTION, &CurlClient::onBody);
    setopt(CURLOPT_WRITEDATA, this);
    setopt(CURLOPT_HEADERFUNCTION, &CurlClient::onHeader);
    setopt(CURLOPT_HEADERDATA, this);
    setopt(CURLOPT_OPENSOCKETFUNCTION, &CurlClient::onOpenSocket);
    setopt(CURLOPT_OPENSOCKETDATA, this);
    setopt(CURLOPT_CLOSESOCKETFUNCTION, &CurlClient::onCloseSocket);
    setopt(CURLOPT_CLOSESOCKETDATA, this);
  }

  // An idle kept-alive connection should have nothing to read: bytes, an end of
  // stream or an error on it all mean it must not carry the next request.
  bool idleConnectionIsStale() {
    if (sockets_.empty()) return false;
    std::vector<pollfd> fds;
    for (curl_socket_t fd : sockets_) fds.push_back({fd, POLLIN, 0});
    while (::poll(fds.data(), fds.size(), 0) < 0 && errno == EINTR) {
    }
    return std::any_of(fds.begin(), fds.end(), [](const pollfd& p) { return p.revents != 0; });
  }

  // Parsing once per path also tells us early whether base + path is a URL at all.
  CURLU* parsedURL(std::string_view path) {
    if (auto found = urls_.find(path); found != urls_.end()) return found->second;
    CURLU* url = curl_->url();
    std::string text = base_ + std::string(path);
    if (!url || curl_->url_set(url, CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) {
      if (url) curl_->url_cleanup(url);
      return nullptr;
    }
    if (path.size() > kCachedPathLength) {
      curl_->url_cleanup(uncached_);  // the one long address, kept until the next call
      return uncached_ = url;
    }
    if (urls_.size() >= kCachedPaths) forgetURLs();
    urls_.emplace(path, url);
    return url;
  }

  void forgetURLs() {
    for (auto& [path, url] : urls_) curl_->url_cleanup(url);
    urls_.clear();
    curl_->url_cleanup(uncached_);
    uncached_ = nullptr;
  }

  // libcurl's callbacks are C: nothing may be thrown through them. A failure is
  // kept, the exchange ended, and the failure thrown again once libcurl returns.
  template <typename Action>
  bool guarded(Action&& action) noexcept {
    try {
      action();
      return true;
    } catch (...) {
      failure_ = std::current_exception();
      return false;
    }
  }

  // Called often while bytes flow and about once a second while none do.
  static int onProgress(void* user, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up) {
    auto& self = *static_cast<CurlClient*>(user);
    auto now = Clock::now();
    if (down + up != self.moved_) {
      self.moved_ = down + up;
      self.lastMoved_ = now;
    }
    return now - self.lastMoved_ >
           std::chrono::duration<double>(self.timeout_);  // non-zero ends the transfer
  }

  static size_t onBody(char* data, size_t, size_t size, void* user) {
    auto& self = *static_cast<CurlClient*>(user);
    bool ok = self.guarded([&] {
      std::string_view piece(data, size);
      if (!self.sink_) {
        self.response_.data.append(piece);
        return;
      }
      self.headOnce();
      self.sink_->body(piece);
    });
    return ok ? size : 0;
  }

  // The status and content type of the answer, from what has arrived of it.
  void readHead() {
    long status = 0;
    curl_->easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
    response_.status = status;
    if (auto found = response_.headers.find("content-type"); found != response_.headers.end())
      response_.contentType = found->second;
  }

  // Tells the sink the head of the final answer, once.
  void headOnce() {
    if (headed_ || !sink_) return;
    readHead();
    headed_ = true;
    sink_->head(response_);
  }

  static size_t onHeader(char* data, size_t, size_t size, void* user) {
    auto& self = *static_cast<CurlClient*>(user);
    bool ok = self.guarded([&] { self.header({data, size}); });
    return ok ? size : 0;
  }

  void header(std::string_view line) {
    if (line.starts_with("HTTP/")) {  // a new response begins (after a 1xx, say)
      response_.headers.clear();
      return;
    }
    if (line == "\r\n" || line == "\n") {  // the head is complete: the sink may prepare for the body
      long status = 0;
      curl_->easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
      if (status >= 200) headOnce();
      return;
    }
    auto colon = line.find(':');
    if (colon == std::string_view::npos) return;
    std::string name(line.substr(0, colon));
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    std::string_view value = line.substr(colon + 1);
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
    while (!value.empty() && std::isspace(static_cast<unsigned char>(value.back()))) value.remove_suffix(1);
    if (name == "content-length" && !sink_) {
      std::size_t length = 0;
      std::from_chars(value.data(), value.data() + value.size(), length);
      response_.data.reserve(length);  // an answer too large for memory fails here, not midway
    }
    response_.headers.insert_or_assign(std::move(name), std::string(value));
  }

  static curl_socket_t onOpenSocket(void* user, curlsocktype, curl_sockaddr* address) {
    auto& self = *static_cast<CurlClient*>(user);
    curl_socket_t fd = ::socket(address->family, address->socktype, address->protocol);
    if (fd == CURL_SOCKET_BAD) return fd;
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
#ifdef SO_NOSIGPIPE
    int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif
    if (!self.guarded([&] { self.sockets_.push_back(fd); })) {
      ::close(fd);
      return CURL_SOCKET_BAD;
    }
    return fd;
  }

  static int onCloseSocket(void* user, curl_socket_t fd) {
    auto& sockets = static_cast<CurlClient*>(user)->sockets_;
    sockets.erase(std::remove(sockets.begin(), sockets.end(), fd), sockets.end());
    return ::close(fd);
  }

  struct PathHash : std::hash<std::string_view> {
    using is_transparent = void;
  };

  const std::string base_;
  const double timeout_;
  const Libcurl* curl_ = nullptr;
  CURL* easy_ = nullptr;
  curl_slist* plainHeaders_ = nullptr;
  curl_slist* bodyHeaders_ = nullptr;
  curl_slist* emptyHeaders_ = nullptr;
  std::unordered_map<std::string, CURLU*, PathHash, std::equal_to<>> urls_;
  CURLU* uncached_ = nullptr;
  std::vector<curl_socket_t> sockets_;  // open connections, for the check before each request
  std::string method_;
  APIResponse response_;
  AnswerSink* sink_ = nullptr;
  bool headed_ = false;
  std::exception_ptr failure_;
  curl_off_t moved_ = 0;
  Clock::time_point lastMoved_;
};

}  // namespace

Transport curlTransport(std::string base, double timeout) {
  auto client = std::make_shared<CurlClient>(std::move(base), timeout);
  return [client](std::string_view method, std::string_view path, std::optional<std::string_view> body,
                  AnswerSink* sink) { return client->send(method, path, body, sink); };
}

}  // namespace tondrel
