#include "platform/allocator.h"

#include <malloc.h>

namespace host {

void useOneAllocatorArena() {
    ::mallopt(M_ARENA_MAX, 1);
}

void returnFreeHeapPages() {
    ::malloc_trim(0);
}

}  // namespace host
