// Names for Clang's thread-safety attributes; they expand to nothing under other compilers.
#ifndef TSL_BASE_THREADANNOTATIONS_H
#define TSL_BASE_THREADANNOTATIONS_H

#if defined(__clang__)
#define TSL_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define TSL_THREAD_ATTRIBUTE(x)
#endif

#define TSL_CAPABILITY(name) TSL_THREAD_ATTRIBUTE(capability(name))
#define TSL_SCOPED_CAPABILITY TSL_THREAD_ATTRIBUTE(scoped_lockable)
#define TSL_GUARDED_BY(mutex) TSL_THREAD_ATTRIBUTE(guarded_by(mutex))
#define TSL_REQUIRES(...) TSL_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define TSL_ACQUIRE(...) TSL_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TSL_ACQUIRE_SHARED(...) TSL_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define TSL_RELEASE(...) TSL_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))

#endif
