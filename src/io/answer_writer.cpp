#include "answer_writer.hpp"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace tondrel {
namespace {

constexpr std::size_t kKeep = 1 << 20;  // what the buffer keeps between answers at most

void waitFor(int fd, short events) {
  pollfd p{fd, events, 0};
  while (::poll(&p, 1, -1) < 0 && errno == EINTR) {
  }
}

}  // namespace

bool AnswerWriter::flush() {
  std::string_view data = pending_.view();
  while (!data.empty()) {
    ssize_t n = ::write(fd_, data.data(), data.size());
    if (n > 0) {
      data.remove_prefix(n);
    } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      waitFor(fd_, POLLOUT);  // the host reads late: wait, never drop the rest of a line
    } else if (n < 0 && errno != EINTR) {
      return false;
    }
  }
  pending_.clear();
  return true;
}

void AnswerWriter::release() {
  if (pending_.capacity() > kKeep) pending_.release();
}

}  // namespace tondrel
