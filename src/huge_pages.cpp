#include "huge_pages.hpp"

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <new>

namespace tondrel {

void adviseHugePages([[maybe_unused]] void* block, [[maybe_unused]] std::size_t size) {
#ifdef MADV_HUGEPAGE
  constexpr std::uintptr_t kHuge = 2 << 20;
  if (size < 2 * kHuge) return;
  auto address = reinterpret_cast<std::uintptr_t>(block);
  auto begin = (address + kHuge - 1) & ~(kHuge - 1);
  auto end = (address + size) & ~(kHuge - 1);
  // Offsets from the block itself, so the compiler still knows where the pointer points.
  if (end > begin) ::madvise(static_cast<char*>(block) + (begin - address), end - begin, MADV_HUGEPAGE);
#endif
}

}  // namespace tondrel
