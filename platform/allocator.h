#pragma once
// The process's heap policy.

namespace host {

// Lets every thread allocate from one heap arena. The C library otherwise
// gives threads arenas of their own (up to eight per core), and each keeps
// the pages it once used: with a session thread per client and a thread per
// device change, the unit's resident memory crept up for hours before that
// bounded cache was full. Call once, before the first thread starts.
void useOneAllocatorArena();

// Gives the pages of freed blocks inside the heap back to the system. The
// C library returns only the heap's free top; pages freed in its middle
// (a finished session's buffers among blocks still in use) stay resident,
// and each new high-water mark of a busy minute raised the resident memory
// a little more. Costs a walk over the free blocks.
void returnFreeHeapPages();

}  // namespace host
