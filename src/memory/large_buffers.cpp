#include "large_buffers.hpp"

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <new>

// Linux 5.14 and later; older ones refuse the advice, which then does nothing.
#if defined(__linux__) && !defined(MADV_POPULATE_WRITE)
#define MADV_POPULATE_WRITE 23
#endif

namespace tondrel {

void adviseHugePages([[maybe_unused]] void* block, [[maybe_unused]] std::size_t size) {
#ifdef MADV_HUGEPAGE
  // The kernel maps a huge page wherever a whole aligned 2 MiB lies within the
  // advice. Rounded out to whole pages, advice over a block of its own mapping
  // covers all of it, so the mapping stays one piece: realloc can still move it by
  // remapping, where a mapping split by advice would be copied.
  constexpr std::uintptr_t kHuge = 2 << 20, kPage = 4096;
  if (size < 2 * kHuge) return;
  auto address = reinterpret_cast<std::uintptr_t>(block);
  auto begin = address & ~(kPage - 1);
  auto end = (address + size + kPage - 1) & ~(kPage - 1);
  // Offsets from the block itself, so the compiler still knows where the pointer points.
  ::madvise(static_cast<char*>(block) - (address - begin), end - begin, MADV_HUGEPAGE);
#endif
}

void faultIn([[maybe_unused]] void* stretch, [[maybe_unused]] std::size_t size) {
#ifdef MADV_POPULATE_WRITE
  constexpr std::uintptr_t kPage = 4096;
  if (size < (1 << 20)) return;  // a few faults cost less than the call
  auto address = reinterpret_cast<std::uintptr_t>(stretch);
  auto begin = (address + kPage - 1) & ~(kPage - 1);  // only whole pages: the rest is someone else's
  auto end = (address + size) & ~(kPage - 1);
  if (end > begin)
    ::madvise(static_cast<char*>(stretch) + (begin - address), end - begin, MADV_POPULATE_WRITE);
#endif
}

}  // namespace tondrel
