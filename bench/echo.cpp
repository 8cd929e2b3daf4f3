// The floor for the pipe and for start-up: a native process that answers every
// line of its input with the line itself, and does nothing else. It is driven
// exactly as tondrel-mcp is, and links libstdc++ as tondrel-mcp does.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace {

bool writeAll(const char* data, std::size_t size) {
  while (size > 0) {
    ssize_t n = ::write(1, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n, size -= n;
  }
  return true;
}

}  // namespace

int main() {
  std::string buffer(64 * 1024, '\0');
  std::size_t used = 0, scanned = 0;
  for (;;) {
    if (buffer.size() - used < 16 * 1024) buffer.resize(buffer.size() * 2);
    ssize_t n = ::read(0, buffer.data() + used, buffer.size() - used);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return 0;
    used += n;
    // Answers every complete line at once; keeps the unfinished one.
    auto* last = static_cast<char*>(::memrchr(buffer.data() + scanned, '\n', used - scanned));
    scanned = used;
    if (!last) continue;
    std::size_t lines = last - buffer.data() + 1;
    if (!writeAll(buffer.data(), lines)) return 0;
    std::memmove(buffer.data(), buffer.data() + lines, used - lines);
    used -= lines, scanned = used;
  }
}
