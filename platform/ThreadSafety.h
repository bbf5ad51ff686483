// Clang's thread-safety annotations under short names; nothing with other compilers.
#ifndef THREAD_SAFETY_H
#define THREAD_SAFETY_H

#if defined(__clang__)
#define ZEL_ANNOTATE(x) __attribute__((x))
#else
#define ZEL_ANNOTATE(x)
#endif

#define CAPABILITY(name) ZEL_ANNOTATE(capability(name))
#define SCOPED_CAPABILITY ZEL_ANNOTATE(scoped_lockable)
#define GUARDED_BY(lock) ZEL_ANNOTATE(guarded_by(lock))
#define REQUIRES(...) ZEL_ANNOTATE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) ZEL_ANNOTATE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) ZEL_ANNOTATE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) ZEL_ANNOTATE(release_capability(__VA_ARGS__))
#define ACQUIRED_AFTER(...) ZEL_ANNOTATE(acquired_after(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS ZEL_ANNOTATE(no_thread_safety_analysis)

#endif
