#include "curl_transport.hpp"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "libcurl.hpp"
#include "parsed_urls.hpp"

namespace tondrel {
namespace {

using Clock = std::chrono::steady_clock;

// libcurl keeps a request head in one buffer of at most 1 MiB; a longer address
// would fail as if the editor had not answered.
constexpr std::size_t kMaxAddress = (1 << 20) - 4096;

// When the kernel last received bytes on the connection, heads and interim answers
// included, which libcurl's own counts leave out; the epoch where the system does
// not tell. seen holds what was seen of the connection before.
Clock::time_point lastArrival(int fd, Clock::time_point now, [[maybe_unused]] std::uint64_t& seen) {
#if defined(__linux__)
  tcp_info info{};
  socklen_t length = sizeof info;
  if (::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) == 0)
    return now - std::chrono::milliseconds(info.tcpi_last_data_recv);
#elif defined(TCP_CONNECTION_INFO)
  tcp_connection_info info{};
  socklen_t length = sizeof info;
  if (::getsockopt(fd, IPPROTO_TCP, TCP_CONNECTION_INFO, &info, &length) == 0 && info.tcpi_rxbytes != seen) {
    seen = info.tcpi_rxbytes;
    return now;
  }
#endif
  return {};
}

// A header's name, folded to lower case, equals a name written in lower case.
bool named(std::string_view name, std::string_view lower) {
  return name.size() == lower.size() && std::equal(name.begin(), name.end(), lower.begin(),
                                                   [](char a, char b) { return std::tolower(a) == b; });
}

}  // namespace

class CurlClient::Impl {
 public:
  Impl(std::string base, double timeout) : base_(std::move(base)), timeout_(timeout) {}
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  ~Impl() {
    if (!curl_) return;
    urls_.reset();
    closeConnections();
    if (easy_) curl_->easy_cleanup(easy_);
    curl_->slist_free_all(bodyHeaders_);
    curl_->slist_free_all(plainHeaders_);
    curl_->slist_free_all(emptyHeaders_);
  }

  APIResponse send(std::string_view method, std::string_view path, std::optional<std::string_view> body,
                   AnswerSink& sink) {
    // A NUL would end the address early and send another request than the one asked for.
    if (path.find('\0') != std::string_view::npos || base_.size() + path.size() > kMaxAddress)
      throw ProxyError::badArguments("bad path " + std::string(path));
    load();
    CURLU* url = urls_->find(path);
    if (!url) throw ProxyError::badArguments("bad path " + std::string(path));
    // libcurl sends a request again when a reused connection dies before the
    // answer: harmless for a GET, a second edit for anything else. And a connection
    // the editor has written to or closed since its last answer is never used
    // again: what it holds would be read as this request's answer.
    bool fresh = method != "GET";
    if (!sockets_.empty() && (fresh || idleConnectionIsStale())) closeConnections();
    quietSince_ = {};
    if (!easy_) open();
    if (!multi_) {
      if (!(multi_ = curl_->multi_init())) throw std::bad_alloc();
      // A request on a connection of its own retires the older one.
      curl_->multi_setopt(multi_, CURLMOPT_MAXCONNECTS, 1L);
    }

    method_.assign(method);
    setopt(CURLOPT_CURLU, url);
    setopt(CURLOPT_FRESH_CONNECT, long(fresh));
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

    response_.status = 0;
    beginHead();
    sink_ = &sink;
    headed_ = false;
    failure_ = nullptr;
    moved_ = 0;
    lastMoved_ = Clock::now();
    CURLcode code = perform();
    if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
    if (code == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
    // An answer cut off before its head was complete is no answer at all.
    if (code != CURLE_OK || !headed_) throw ProxyError::unreachable(base_);
    return std::move(response_);
  }

  int idleConnection() const { return sockets_.empty() ? -1 : sockets_.front(); }

  // Closing the multi handle closes every connection it kept.
  void closeConnections() {
    if (!multi_) return;
    curl_->multi_cleanup(multi_);
    multi_ = nullptr;
    sockets_.clear();
  }

  // The line loop has just watched the idle connection, and nothing came.
  void noteQuiet() { quietSince_ = Clock::now(); }

 private:
  template <typename T>
  void setopt(CURLoption option, T value) {
    curl_->easy_setopt(easy_, option, value);
  }

  void load() {
    if (curl_) return;
    const Libcurl* curl = Libcurl::get();
    if (!curl)
      throw ProxyError::badArguments(
          "libcurl (libcurl.so.4) could not be loaded; install libcurl and retry.");
    // No "Expect: 100-continue" stall on large bodies, no "Accept: */*" nobody reads.
    curl_slist* plain = curl->slist_append(nullptr, "Accept:");
    curl_slist* empty = curl->slist_append(curl->slist_append(nullptr, "Accept:"), "Content-Type:");
    curl_slist* json = curl->slist_append(curl->slist_append(nullptr, "Accept:"), "Expect:");
    json = curl->slist_append(json, "Content-Type: application/json; charset=utf-8");
    if (!plain || !empty || !json) {
      for (curl_slist* list : {plain, empty, json}) curl->slist_free_all(list);
      throw std::bad_alloc();
    }
    curl_ = curl, plainHeaders_ = plain, emptyHeaders_ = empty, bodyHeaders_ = json;
    urls_.emplace(*curl, base_);
  }

  // A transfer on our own multi handle: sent at once, then a wait on the socket
  // alone (curl_easy_perform polls its wake-up socket besides, one syscall more).
  CURLcode perform() {
    if (CURLMcode added = curl_->multi_add_handle(multi_, easy_); added != CURLM_OK)
      return added == CURLM_OUT_OF_MEMORY ? CURLE_OUT_OF_MEMORY : CURLE_FAILED_INIT;
    int running = 1;
    CURLMcode code;
    while ((code = curl_->multi_perform(multi_, &running)) == CURLM_OK && running)
      if ((code = curl_->multi_wait(multi_, nullptr, 0, 1000, nullptr)) != CURLM_OK) break;
    CURLcode result = code == CURLM_OUT_OF_MEMORY ? CURLE_OUT_OF_MEMORY : CURLE_RECV_ERROR;
    int left;
    for (CURLMsg* message; (message = curl_->multi_info_read(multi_, &left));)
      if (message->msg == CURLMSG_DONE && code == CURLM_OK) result = message->data.result;
    curl_->multi_remove_handle(multi_, easy_);
    return result;
  }

  void open() {
    easy_ = curl_->easy_init();
    if (!easy_) throw std::bad_alloc();
    setopt(CURLOPT_NOSIGNAL, 1L);
    setopt(CURLOPT_PROXY, "");  // the editor is on loopback: never via a proxy from the environment
    setopt(CURLOPT_HTTP_VERSION, long(CURL_HTTP_VERSION_1_1));
    // The timeout bounds connecting and silence, never a long answer that keeps flowing.
    setopt(CURLOPT_CONNECTTIMEOUT_MS, long(timeout_ * 1000));
    setopt(CURLOPT_NOPROGRESS, 0L);
    setopt(CURLOPT_XFERINFOFUNCTION, &Impl::onProgress);
    setopt(CURLOPT_XFERINFODATA, this);
    setopt(CURLOPT_BUFFERSIZE, 256L * 1024);
    setopt(CURLOPT_WRITEFUNCTION, &Impl::onBody);
    setopt(CURLOPT_WRITEDATA, this);
    setopt(CURLOPT_HEADERFUNCTION, &Impl::onHeader);
    setopt(CURLOPT_HEADERDATA, this);
    setopt(CURLOPT_OPENSOCKETFUNCTION, &Impl::onOpenSocket);
    setopt(CURLOPT_OPENSOCKETDATA, this);
    setopt(CURLOPT_CLOSESOCKETFUNCTION, &Impl::onCloseSocket);
    setopt(CURLOPT_CLOSESOCKETDATA, this);
  }

  // An idle kept-alive connection should have nothing to read: bytes, an end of
  // stream or an error on it all mean it must not carry the next request. A look
  // the line loop took a moment ago stands for one of our own.
  bool idleConnectionIsStale() const {
    if (sockets_.empty() || Clock::now() - quietSince_ < std::chrono::milliseconds(1)) return false;
    pollfd p{sockets_.front(), POLLIN, 0};
    while (::poll(&p, 1, 0) < 0 && errno == EINTR) {
    }
    return p.revents != 0;
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

  // Called often while the body flows and about once a second while nothing
  // arrives: then the connection itself tells whether the editor sent anything.
  static int onProgress(void* user, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up) {
    auto& self = *static_cast<Impl*>(user);
    auto now = Clock::now();
    if (down + up != self.moved_) {
      self.moved_ = down + up;
      self.lastMoved_ = now;
    } else if (now - self.lastMoved_ > std::chrono::seconds(1)) {
      for (curl_socket_t fd : self.sockets_)
        self.lastMoved_ = std::max(self.lastMoved_, lastArrival(fd, now, self.received_));
    }
    return now - self.lastMoved_ > std::chrono::duration<double>(self.timeout_);  // non-zero ends it
  }

  static size_t onBody(char* data, size_t, size_t size, void* user) {
    auto& self = *static_cast<Impl*>(user);
    return self.guarded([&] { self.sink_->body({data, size}); }) ? size : 0;
  }

  static size_t onHeader(char* data, size_t, size_t size, void* user) {
    auto& self = *static_cast<Impl*>(user);
    return self.guarded([&] { self.header({data, size}); }) ? size : 0;
  }

  // Forgets what was read of an earlier head.
  void beginHead() {
    response_.contentType.clear();
    announced_ = 0;
    chunked_ = false;
  }

  // Of the head, the status and what the result needs: the content type and the
  // length HTTP gives the body.
  void header(std::string_view line) {
    if (headed_) return;              // trailers after a chunked body are not the head
    if (line.starts_with("HTTP/")) {  // a new response begins (after a 1xx, say)
      beginHead();
      return;
    }
    if (line == "\r\n" || line == "\n") {
      long status = 0;
      curl_->easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
      if (status < 200) return;  // an interim answer: the final one follows
      // A length counts only where the answer has a body and no transfer coding.
      if (status == 204 || status == 304 || chunked_) announced_ = 0;
      response_.status = status;
      headed_ = true;
      sink_->head(response_, announced_);
      return;
    }
    auto colon = line.find(':');
    if (colon == std::string_view::npos) return;
    std::string_view name = line.substr(0, colon), value = line.substr(colon + 1);
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
    while (!value.empty() && std::isspace(static_cast<unsigned char>(value.back()))) value.remove_suffix(1);
    if (named(name, "content-type")) {
      response_.contentType.assign(value);
    } else if (named(name, "content-length")) {
      auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), announced_);
      if (error != std::errc() || end != value.data() + value.size()) announced_ = 0;
    } else if (named(name, "transfer-encoding")) {
      chunked_ = true;
    }
  }

  static curl_socket_t onOpenSocket(void* user, curlsocktype, curl_sockaddr* address) {
    auto& self = *static_cast<Impl*>(user);
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
    self.received_ = 0;
    return fd;
  }

  static int onCloseSocket(void* user, curl_socket_t fd) {
    auto& sockets = static_cast<Impl*>(user)->sockets_;
    sockets.erase(std::remove(sockets.begin(), sockets.end(), fd), sockets.end());
    return ::close(fd);
  }

  const std::string base_;
  const double timeout_;
  const Libcurl* curl_ = nullptr;
  CURL* easy_ = nullptr;
  CURLM* multi_ = nullptr;  // holds the connection kept between calls
  curl_slist* plainHeaders_ = nullptr;
  curl_slist* bodyHeaders_ = nullptr;
  curl_slist* emptyHeaders_ = nullptr;
  std::optional<ParsedURLs> urls_;
  std::vector<curl_socket_t> sockets_;  // open connections: the one idle between calls, at most
  std::string method_;
  // The head as the sink gets it. The headers are not kept: the result needs the
  // content type and the body's length alone, found as the head arrives.
  APIResponse response_;
  std::uint64_t announced_ = 0;
  bool chunked_ = false;
  AnswerSink* sink_ = nullptr;
  bool headed_ = false;
  std::exception_ptr failure_;
  curl_off_t moved_ = 0;
  Clock::time_point lastMoved_;
  std::uint64_t received_ = 0;  // bytes the kernel had received on the connection, where it says
  Clock::time_point quietSince_;
};

CurlClient::CurlClient(std::string base, double timeout)
    : impl_(std::make_unique<Impl>(std::move(base), timeout)) {}

CurlClient::~CurlClient() = default;

APIResponse CurlClient::send(std::string_view method, std::string_view path,
                             std::optional<std::string_view> body, AnswerSink& sink) {
  return impl_->send(method, path, body, sink);
}

int CurlClient::idleConnection() const {
  return impl_->idleConnection();
}

void CurlClient::closeIdleConnection() {
  impl_->closeConnections();
}

void CurlClient::idleConnectionWasQuiet() {
  impl_->noteQuiet();
}

Transport curlTransport(std::shared_ptr<CurlClient> client) {
  return [client = std::move(client)](std::string_view method, std::string_view path,
                                      std::optional<std::string_view> body,
                                      AnswerSink& sink) { return client->send(method, path, body, sink); };
}

}  // namespace tondrel
