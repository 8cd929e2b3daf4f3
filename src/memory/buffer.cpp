#include "buffer.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <utility>

#include "large_buffers.hpp"

namespace tondrel {
namespace {

constexpr std::size_t kLarge = 4 << 20;       // below this, faults are too few to matter
constexpr std::size_t kFaultAhead = 1 << 20;  // how far ahead of what is written

}  // namespace

Buffer& Buffer::operator=(Buffer&& other) noexcept {
  std::swap(data_, other.data_);
  std::swap(size_, other.size_);
  std::swap(capacity_, other.capacity_);
  std::swap(ready_, other.ready_);
  return *this;
}

Buffer::~Buffer() {
  std::free(data_);
}

void Buffer::reserve(std::size_t size) {
  if (size <= capacity_) return;
  auto* grown = static_cast<char*>(std::realloc(data_, size));
  if (!grown) throw std::bad_alloc();
  data_ = grown, capacity_ = size;
  ready_ = std::min(ready_, size_);  // what was written moved with its pages; the rest is new
}

void Buffer::faultAhead(std::size_t n) {
  if (capacity_ < kLarge) {
    ready_ = capacity_;
    return;
  }
  std::size_t from = std::max(ready_, size_),
              to = std::min(capacity_, std::max(size_ + n, from + kFaultAhead));
  faultIn(data_ + from, to - from);
  ready_ = to;
}

void Buffer::grow(std::size_t more) {
  if (more > SIZE_MAX / 2 - size_) throw std::bad_alloc();
  reserve(std::max({size_ + more, capacity_ + capacity_ / 2, std::size_t(256)}));
}

void Buffer::release() {
  std::free(std::exchange(data_, nullptr));
  size_ = capacity_ = ready_ = 0;
}

}  // namespace tondrel
