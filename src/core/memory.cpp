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

// Every large std::string and parser buffer comes through here.
namespace {
void* allocate(std::size_t size) {
  void* block = std::malloc(size ? size : 1);
  if (!block) throw std::bad_alloc();
  tondrel::adviseHugePages(block, size);
  return block;
}
}  // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
