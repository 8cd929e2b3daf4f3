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
  auto begin = (reinterpret_cast<std::uintptr_t>(block) + kHuge - 1) & ~(kHuge - 1);
  auto end = (reinterpret_cast<std::uintptr_t>(block) + size) & ~(kHuge - 1);
  if (end > begin) ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#endif
}

}  // namespace tondrel
