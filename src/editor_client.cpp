#include "editor_client.hpp"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <csignal>
#include <memory>

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

// One easy handle for the life of the process keeps one connection alive.
class CurlClient {
 public:
  CurlClient(std::string base, double timeout) : base_(std::move(base)), timeout_(timeout) {}
  CurlClient(const CurlClient&) = delete;
  CurlClient& operator=(const CurlClient&) = delete;

  ~CurlClient() {
    if (!curl_) return;
    for (auto& [path, url] : urls_) curl_->url_cleanup(url);
    if (easy_) curl_->easy_cleanup(easy_);
    curl_->slist_free_all(bodyHeaders_);
    curl_->slist_free_all(plainHeaders_);
    curl_->slist_free_all(emptyHeaders_);
  }

  APIResponse send(std::string_view method, std::string_view path, std::optional<std::string_view> body) {
    setUp();
    CURLU* url = parsedURL(path);
    if (!url) throw ProxyError::badArguments("bad path " + std::string(path));

    method_.assign(method);
    setopt(CURLOPT_CURLU, url);
    setopt(CURLOPT_FRESH_CONNECT, 0L);
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

    CURLcode code = perform();
    long connects = 0;
    curl_->easy_getinfo(easy_, CURLINFO_NUM_CONNECTS, &connects);
    if (code != CURLE_OK && connects == 0 && !answered_) {
      // The kept-alive connection was closed by the editor (it restarted): try
      // once on a fresh one rather than report the editor as gone.
      setopt(CURLOPT_FRESH_CONNECT, 1L);
      code = perform();
    }
    if (code != CURLE_OK) throw ProxyError::unreachable(base_);

    long status = 0;
    curl_->easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
    response_.status = status;
    if (auto found = response_.headers.find("content-type"); found != response_.headers.end())
      response_.contentType = found->second;
    return std::move(response_);
  }

 private:
  template <typename T>
  void setopt(CURLoption option, T value) {
    curl_->easy_setopt(easy_, option, value);
  }

  void setUp() {
    if (easy_) return;
    // A peer that vanishes mid-write must be an error, not the death of the process.
    std::signal(SIGPIPE, SIG_IGN);
    curl_ = Libcurl::get();
    if (!curl_ || !(easy_ = curl_->easy_init()))
      throw ProxyError::badArguments(
          "libcurl (libcurl.so.4) could not be loaded; install libcurl and retry.");

    // No "Expect: 100-continue" stall on large bodies, no "Accept: */*" nobody reads.
    plainHeaders_ = curl_->slist_append(nullptr, "Accept:");
    emptyHeaders_ = curl_->slist_append(curl_->slist_append(nullptr, "Accept:"), "Content-Type:");
    bodyHeaders_ = curl_->slist_append(nullptr, "Accept:");
    bodyHeaders_ = curl_->slist_append(bodyHeaders_, "Expect:");
    bodyHeaders_ = curl_->slist_append(bodyHeaders_, "Content-Type: application/json; charset=utf-8");

    setopt(CURLOPT_NOSIGNAL, 1L);
    setopt(CURLOPT_PROXY, "");  // the editor is on loopback: never via a proxy from the environment
    setopt(CURLOPT_HTTP_VERSION, long(CURL_HTTP_VERSION_1_1));
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
  }

  // Parsing once per path also tells us early whether base + path is a URL at all.
  CURLU* parsedURL(std::string_view path) {
    if (auto found = urls_.find(path); found != urls_.end()) return found->second;
    if (urls_.size() >= 256) {
      for (auto& [cached, url] : urls_) curl_->url_cleanup(url);
      urls_.clear();
    }
    CURLU* url = curl_->url();
    std::string text = base_ + std::string(path);
    if (!url || curl_->url_set(url, CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) {
      if (url) curl_->url_cleanup(url);
      return nullptr;
    }
    urls_.emplace(path, url);
    return url;
  }

  CURLcode perform() {
    response_ = APIResponse{};
    answered_ = false;
    moved_ = 0;
    lastMoved_ = Clock::now();
    return curl_->easy_perform(easy_);
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

  static size_t onBody(char* data, size_t, size_t size, void* self) {
    static_cast<CurlClient*>(self)->response_.data.append(data, size);
    return size;
  }

  static size_t onHeader(char* data, size_t, size_t size, void* user) {
    auto& self = *static_cast<CurlClient*>(user);
    self.answered_ = true;
    std::string_view line(data, size);
    if (line.starts_with("HTTP/")) {  // a new response begins (after a 1xx, say)
      self.response_.headers.clear();
      return size;
    }
    auto colon = line.find(':');
    if (colon == std::string_view::npos) return size;
    std::string name(line.substr(0, colon));
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    std::string_view value = line.substr(colon + 1);
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
    while (!value.empty() && std::isspace(static_cast<unsigned char>(value.back()))) value.remove_suffix(1);
    if (name == "content-length") {
      std::size_t length = 0;
      std::from_chars(value.data(), value.data() + value.size(), length);
      self.response_.data.reserve(std::min<std::size_t>(length, std::size_t(1) << 31));
    }
    self.response_.headers.insert_or_assign(std::move(name), std::string(value));
    return size;
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
  std::string method_;
  APIResponse response_;
  bool answered_ = false;
  curl_off_t moved_ = 0;
  Clock::time_point lastMoved_;
};

}  // namespace

Transport curlTransport(std::string base, double timeout) {
  auto client = std::make_shared<CurlClient>(std::move(base), timeout);
  return [client](std::string_view method, std::string_view path, std::optional<std::string_view> body) {
    return client->send(method, path, body);
  };
}

}  // namespace tondrel
