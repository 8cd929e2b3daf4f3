// The floor for the editor round trip: a plain HTTP/1.1 client keeping one
// socket alive, doing what the bridge's HTTP client does and nothing more.
#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <string_view>

#include "editor.hpp"

namespace bench {

class NativeHttp {
 public:
  explicit NativeHttp(int port) : host_("127.0.0.1:" + std::to_string(port)) {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int one = 1;  // as libcurl does
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      throw std::runtime_error("native client: cannot connect to the stand-in editor");
  }
  ~NativeHttp() { ::close(fd_); }
  NativeHttp(const NativeHttp&) = delete;
  NativeHttp& operator=(const NativeHttp&) = delete;

  // One request, one answer; returns the answer's body, valid until the next request.
  std::string_view request(std::string_view method, std::string_view target, std::string_view body = {}) {
    std::string head =
        std::string(method) + " " + std::string(target) + " HTTP/1.1\r\nHost: " + host_ + "\r\n";
    if (method != "GET")
      head +=
          "Content-Type: application/json; charset=utf-8\r\nContent-Length: " + std::to_string(body.size()) +
          "\r\n";
    head += "\r\n";
    iovec parts[2] = {{head.data(), head.size()}, {const_cast<char*>(body.data()), body.size()}};
    for (std::size_t sent = 0, total = head.size() + body.size(); sent < total;) {
      msghdr message{};
      message.msg_iov = parts, message.msg_iovlen = 2;
      ssize_t n = ::sendmsg(fd_, &message, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) throw std::runtime_error("native client: send failed");
      sent += n;
      for (iovec& part : parts) {  // skip what went out
        std::size_t done = std::min<std::size_t>(part.iov_len, n);
        part.iov_base = static_cast<char*>(part.iov_base) + done, part.iov_len -= done, n -= done;
      }
    }
    std::size_t headEnd = 0, need = 0;
    in_.used = 0;
    while (!need || in_.used < need) {
      in_.reserve(std::max(need, in_.used + 64 * 1024));
      ssize_t n = ::recv(fd_, in_.data.get() + in_.used, in_.capacity - in_.used, 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) throw std::runtime_error("native client: connection lost");
      in_.used += n;
      std::string_view text(in_.data.get(), in_.used);
      if (!need && (headEnd = text.find("\r\n\r\n")) != std::string_view::npos) {
        auto at = text.find("Content-Length: ");
        if (at == std::string_view::npos || at > headEnd)
          throw std::runtime_error("native client: no length");
        need = headEnd + 4 + std::stoul(std::string(text.substr(at + 16, headEnd - at - 16)));
        headEnd += 4;
      }
    }
    return {in_.data.get() + headEnd, need - headEnd};
  }

 private:
  int fd_;
  std::string host_;
  Buffer in_;
};

}  // namespace bench
