// Large buffers (answers, lines) are written once, right after they are allocated.
// On fresh 4 KiB pages that first touch costs more than the writing itself, one
// fault for each page (on a virtual machine, some microseconds each): huge pages
// make the faults some 500 times fewer, and faulting a stretch in at once, before
// it is written, spares the rest.
#pragma once

#include <cstddef>

namespace tondrel {

// Asks for huge pages over the whole aligned 2 MiB stretches of a large block; a
// no-op for small blocks and where the system has no such thing.
void adviseHugePages(void* block, std::size_t size);

// Faults in the pages of a stretch about to be written, in one go; a no-op for a
// stretch under 1 MiB and where the system cannot (Linux before 5.14, macOS).
void faultIn(void* stretch, std::size_t size);

}  // namespace tondrel
