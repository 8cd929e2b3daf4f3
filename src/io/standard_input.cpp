#include "standard_input.hpp"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace tondrel {

std::size_t StandardInput::read(char* buffer, std::size_t size) {
  for (;;) {
    int idle = idle_ ? idle_->descriptor() : -1;
    pollfd fds[] = {{input_, POLLIN, 0}, {output_, 0, 0}, {idle, POLLIN, 0}};
    int ready = ::poll(fds, idle >= 0 ? 3 : 2, idle >= 0 ? kIdleSeconds * 1000 : -1);
    if (ready < 0 && errno == EINTR) continue;
    if (fds[1].revents & (POLLERR | POLLHUP)) return 0;
    if (idle >= 0) {
      if (ready == 0 || fds[2].revents)
        idle_->expire();
      else
        idle_->stayedQuiet();
    }
    if (ready == 0 || (ready > 0 && !fds[0].revents)) continue;
    ssize_t n;
    do n = ::read(input_, buffer, size);
    while (n < 0 && errno == EINTR);
    if (n < 0 && errno == EAGAIN) continue;  // a non-blocking input with nothing yet: wait again
    return n > 0 ? std::size_t(n) : 0;
  }
}

}  // namespace tondrel
