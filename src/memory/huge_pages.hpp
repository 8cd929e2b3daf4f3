// Large buffers (editor answers, responses, documents) are written once, right
// after they are allocated. On fresh 4 KiB pages that first touch costs more than
// the copy itself; transparent huge pages make it some 500 times fewer faults.
#pragma once

#include <cstddef>

namespace tondrel {

// Asks for huge pages over the whole aligned 2 MiB stretches of a large block; a no-op for
// small blocks and where the system has no such thing.
void adviseHugePages(void* block, std::size_t size);

}  // namespace tondrel
