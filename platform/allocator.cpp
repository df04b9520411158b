#include "platform/allocator.h"

#include <malloc.h>

namespace host {

void useOneAllocatorArena() {
    ::mallopt(M_ARENA_MAX, 1);
}

}  // namespace host
