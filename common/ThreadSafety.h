#pragma once
// Locking rules the compiler can check. Under clang (-Wthread-safety) each lock type is a
// capability, each member names the lock that guards it and each function the locks it needs
// held or taken; a read or write without the lock, a lock taken twice or released without being
// held, and a documented lock order taken backwards are compile errors. Other compilers see
// nothing of it.
//
// The analysis cannot follow a lock into a lambda or a function passed elsewhere (a condition
// variable's predicate, a callback run under a lock). Such places say so with
// TS_NO_ANALYSIS and a comment giving the lock that is held.

#if defined(__clang__)
#define TS_ATTRIBUTE(x) __attribute__((x))
#else
#define TS_ATTRIBUTE(x)
#endif

#define TS_CAPABILITY(name) TS_ATTRIBUTE(capability(name))
#define TS_SCOPED_CAPABILITY TS_ATTRIBUTE(scoped_lockable)
#define TS_GUARDED_BY(lock) TS_ATTRIBUTE(guarded_by(lock))
#define TS_PT_GUARDED_BY(lock) TS_ATTRIBUTE(pt_guarded_by(lock))
#define TS_ACQUIRED_BEFORE(...) TS_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define TS_ACQUIRED_AFTER(...) TS_ATTRIBUTE(acquired_after(__VA_ARGS__))
#define TS_REQUIRES(...) TS_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define TS_REQUIRES_SHARED(...) TS_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define TS_ACQUIRE(...) TS_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TS_ACQUIRE_SHARED(...) TS_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define TS_RELEASE(...) TS_ATTRIBUTE(release_capability(__VA_ARGS__))
#define TS_RELEASE_SHARED(...) TS_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
#define TS_RELEASE_GENERIC(...) TS_ATTRIBUTE(release_generic_capability(__VA_ARGS__))
#define TS_TRY_ACQUIRE(...) TS_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define TS_TRY_ACQUIRE_SHARED(...) TS_ATTRIBUTE(try_acquire_shared_capability(__VA_ARGS__))
#define TS_EXCLUDES(...) TS_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define TS_ASSERT_CAPABILITY(x) TS_ATTRIBUTE(assert_capability(x))
#define TS_RETURN_CAPABILITY(x) TS_ATTRIBUTE(lock_returned(x))
#define TS_NO_ANALYSIS TS_ATTRIBUTE(no_thread_safety_analysis)
