#pragma once
// Lock annotations that Clang's thread-safety analysis checks at compile time
// (-Wthread-safety): which lock guards a field, which locks a function needs,
// takes or gives back. Under a compiler without the analysis they expand to
// nothing, so they cost nothing and change no code.
//
// The host's locks are recursive, the analysis is not: a function that takes
// a lock its caller may already hold is not marked EXCLUDES, and a scope
// never takes the same lock twice by name.
#if defined(__clang__)
#define TOVEL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TOVEL_THREAD_ANNOTATION(x)
#endif

// A type whose objects are locks ("mutex", "link lock" ...).
#define CAPABILITY(name) TOVEL_THREAD_ANNOTATION(capability(name))
// An RAII type that holds the locks its constructor takes until it ends.
#define SCOPED_CAPABILITY TOVEL_THREAD_ANNOTATION(scoped_lockable)

// Data that is read and written only while the lock is held.
#define GUARDED_BY(lock) TOVEL_THREAD_ANNOTATION(guarded_by(lock))
// A pointer (or pointer-like object) whose target is guarded by the lock.
#define PT_GUARDED_BY(lock) TOVEL_THREAD_ANNOTATION(pt_guarded_by(lock))

// Lock order: this lock is taken before (after) the named ones.
#define ACQUIRED_BEFORE(...) TOVEL_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) TOVEL_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))

// The caller holds the locks.
#define REQUIRES(...) TOVEL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
// The caller must not hold the locks (the function takes them).
#define EXCLUDES(...) TOVEL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

// The function takes (gives back) the locks; without arguments, `this`.
#define ACQUIRE(...) TOVEL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) TOVEL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
// The function takes the locks when it answers the first argument
// (TRY_ACQUIRE(true) for `this`, TRY_ACQUIRE(true, lock) for another).
#define TRY_ACQUIRE(...) TOVEL_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
// The function answers the lock itself (an accessor of a lock).
#define RETURN_CAPABILITY(lock) TOVEL_THREAD_ANNOTATION(lock_returned(lock))

// The function is not analysed. Used only where the design deliberately
// touches guarded data without the lock; the comment there says why.
#define NO_THREAD_SAFETY_ANALYSIS TOVEL_THREAD_ANNOTATION(no_thread_safety_analysis)
