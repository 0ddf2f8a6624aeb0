/*
 * Clang thread-safety annotations behind small macros, so the compiler
 * checks what a comment would only ask for: which lock guards a field,
 * which lock a function needs held (or must not hold), which calls take
 * and give back a lock. With clang and -Wthread-safety a broken rule is a
 * warning (an error with -Werror: `make test` builds the module and the
 * POSIX backend that way); every other compiler sees nothing.
 *
 * Only C++ code uses them (attributes on classes and members); the header
 * itself is plain C so that any header may include it.
 */
#ifndef SF_LOCK_ANNOTATIONS_H
#define SF_LOCK_ANNOTATIONS_H

#if defined(__clang__)
#define SF_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define SF_THREAD_ANNOTATION(x)
#endif

/* A type whose objects are locks ("mutex"). */
#define SF_CAPABILITY(name) SF_THREAD_ANNOTATION(capability(name))
/* A type that holds a lock for its own lifetime (a scoped lock). */
#define SF_SCOPED_CAPABILITY SF_THREAD_ANNOTATION(scoped_lockable)
/* The field is read and written only with the lock held. */
#define SF_GUARDED_BY(lock) SF_THREAD_ANNOTATION(guarded_by(lock))
/* What the pointer points at is read and written only with the lock held. */
#define SF_PT_GUARDED_BY(lock) SF_THREAD_ANNOTATION(pt_guarded_by(lock))
/* The caller must hold the locks. */
#define SF_REQUIRES(...) SF_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
/* The caller must hold the locks, shared (readers) or exclusive. */
#define SF_REQUIRES_SHARED(...) SF_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
/* The caller must not hold the locks (the function takes them). */
#define SF_EXCLUDES(...) SF_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
/* The function takes the locks (no argument: the object itself) and returns holding them. */
#define SF_ACQUIRE(...) SF_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
/* The function takes the locks shared (no argument: the object itself) and returns holding them. */
#define SF_ACQUIRE_SHARED(...) SF_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
/* The function takes the locks only when it returns the first argument (true or false);
 * the other arguments name the locks (none: the object itself). */
#define SF_TRY_ACQUIRE(...) SF_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
/* The function gives back the locks (no argument: the object itself). */
#define SF_RELEASE(...) SF_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
/* The function gives back locks it held shared (no argument: the object itself). */
#define SF_RELEASE_SHARED(...) SF_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
/* The function returns a reference to this lock. */
#define SF_RETURN_CAPABILITY(lock) SF_THREAD_ANNOTATION(lock_returned(lock))
/* The function is outside the analysis (the one place that maps a lock onto another API). */
#define SF_NO_THREAD_SAFETY_ANALYSIS SF_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif /* SF_LOCK_ANNOTATIONS_H */
