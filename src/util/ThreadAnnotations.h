// Annotations that let clang check the lock rules the headers state: which
// mutex guards a member, which lock a function needs held or must not hold,
// and in which order locks are taken. Under clang with -Wthread-safety a
// broken rule is a compile error (the thread-safety build); under every
// other compiler the macros expand to nothing, so the annotations never
// change what is built.
#ifndef BRVO_UTIL_THREADANNOTATIONS_H
#define BRVO_UTIL_THREADANNOTATIONS_H

#if defined(__clang__)
#define BRVO_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define BRVO_THREAD_ANNOTATION(x)
#endif

// A class whose objects are locks (`x` names the kind in messages).
#define CAPABILITY(x) BRVO_THREAD_ANNOTATION(capability(x))
// A class whose objects hold a lock for their lifetime.
#define SCOPED_CAPABILITY BRVO_THREAD_ANNOTATION(scoped_lockable)
// A member read or written only with the lock `x` held.
#define GUARDED_BY(x) BRVO_THREAD_ANNOTATION(guarded_by(x))
// A pointer whose target is read or written only with the lock `x` held.
#define PT_GUARDED_BY(x) BRVO_THREAD_ANNOTATION(pt_guarded_by(x))
// This lock is taken before / after the locks named, never the other way.
#define ACQUIRED_BEFORE(...) BRVO_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) BRVO_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
// The caller holds the locks named.
#define REQUIRES(...) BRVO_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
// The function takes the locks named (or the object itself) and returns
// with them held.
#define ACQUIRE(...) BRVO_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
// The function releases the locks named (or the object itself).
#define RELEASE(...) BRVO_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
// The function takes the lock when it returns `__VA_ARGS__`'s first value.
#define TRY_ACQUIRE(...) BRVO_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
// The caller must not hold the locks named (the function takes them).
#define EXCLUDES(...) BRVO_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
// After the call the analysis takes the lock as held (the function checks
// nothing at run time): for code the caller runs under its lock through a
// callback, which the analysis cannot follow.
#define ASSERT_CAPABILITY(x) BRVO_THREAD_ANNOTATION(assert_capability(x))
// The function returns a reference to the lock `x`.
#define RETURN_CAPABILITY(x) BRVO_THREAD_ANNOTATION(lock_returned(x))
// The function is not checked: for the few spots whose locking the
// analysis cannot follow; each one says why next to it.
#define NO_THREAD_SAFETY_ANALYSIS BRVO_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif
