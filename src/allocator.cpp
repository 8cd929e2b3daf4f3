// tondrel-mcp's own operator new: large blocks ask for huge pages, so that the first
// touch of a large answer costs far fewer page faults. Linked into the executable
// alone, never into a library that tests, the simulator or a sanitizer build link.
#include <cstdlib>
#include <new>

#include "huge_pages.hpp"

// Every large std::string and parser buffer comes through here, in every form of
// new, so that what one form allocates any form of delete may free.
namespace {
void* allocate(std::size_t size) noexcept {
  void* block = std::malloc(size ? size : 1);
  if (block) tondrel::adviseHugePages(block, size);
  return block;
}
void* allocateOrThrow(std::size_t size) {
  if (void* block = allocate(size)) return block;
  throw std::bad_alloc();
}
}  // namespace

void* operator new(std::size_t size) {
  return allocateOrThrow(size);
}
void* operator new[](std::size_t size) {
  return allocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return allocate(size);
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete[](void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  std::free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
  std::free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
  std::free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
  std::free(block);
}
