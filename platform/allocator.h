#pragma once
// The process's heap policy.

namespace host {

// Lets every thread allocate from one heap arena. The C library otherwise
// gives threads arenas of their own (up to eight per core), and each keeps
// the pages it once used: with a session thread per client and a thread per
// device change, the unit's resident memory crept up for hours before that
// bounded cache was full. Call once, before the first thread starts.
void useOneAllocatorArena();

}  // namespace host
