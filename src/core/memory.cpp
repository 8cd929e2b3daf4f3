#include "memory.hpp"

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <new>

namespace tondrel {

void adviseHugePages([[maybe_unused]] void* block, [[maybe_unused]] std::size_t size) {
#ifdef MADV_HUGEPAGE
  constexpr std::uintptr_t kHuge = 2 << 20;
  if (size < 2 * kHuge) return;
  auto begin = (reinterpret_cast<std::uintptr_t>(block) + kHuge - 1) & ~(kHuge - 1);
  auto end = (reinterpret_cast<std::uintptr_t>(block) + size) & ~(kHuge - 1);
  if (end > begin) ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#endif
}

}  // namespace tondrel

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

void* operator new(std::size_t size) { return allocateOrThrow(size); }
void* operator new[](std::size_t size) { return allocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { std::free(block); }
