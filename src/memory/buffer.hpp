// A growable run of bytes for what the bridge writes: answers and request bodies.
// Unlike std::string, its room can be written before it counts, with no zero-fill
// first; a large one grows by realloc, which moves whole pages instead of copying
// them, and has its pages faulted in a little ahead of what is written, so that
// they are still in the cache when they are.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

namespace tondrel {

class Buffer {
 public:
  Buffer() = default;
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  Buffer(Buffer&& other) noexcept
      : data_(other.data_), size_(other.size_), capacity_(other.capacity_), ready_(other.ready_) {
    other.data_ = nullptr, other.size_ = other.capacity_ = other.ready_ = 0;
  }
  Buffer& operator=(Buffer&& other) noexcept;
  ~Buffer();

  char* data() { return data_; }
  const char* data() const { return data_; }
  std::size_t size() const { return size_; }
  std::size_t capacity() const { return capacity_; }
  bool empty() const { return size_ == 0; }
  std::string_view view() const { return {data_, size_}; }

  // Room for n more bytes at the end, where they are then written; throws
  // std::bad_alloc. commit() counts those that were.
  char* room(std::size_t n) {
    if (capacity_ - size_ < n) grow(n);
    if (size_ + n > ready_) faultAhead(n);
    return data_ + size_;
  }
  void commit(std::size_t n) { size_ += n; }

  void append(std::string_view text) {
    std::memcpy(room(text.size()), text.data(), text.size());
    size_ += text.size();
  }
  void push_back(char c) {
    *room(1) = c;
    ++size_;
  }
  Buffer& operator+=(std::string_view text) {
    append(text);
    return *this;
  }
  Buffer& operator+=(char c) {
    push_back(c);
    return *this;
  }

  // Back to a size no larger than now.
  void truncate(std::size_t size) { size_ = size; }
  void clear() { size_ = 0; }
  // Capacity for size bytes in all; throws std::bad_alloc.
  void reserve(std::size_t size);
  // Gives the memory back.
  void release();

 private:
  void grow(std::size_t more);
  void faultAhead(std::size_t n);

  char* data_ = nullptr;
  std::size_t size_ = 0, capacity_ = 0;
  std::size_t ready_ = 0;  // the pages of the bytes before it are faulted in (or too few to matter)
};

}  // namespace tondrel
