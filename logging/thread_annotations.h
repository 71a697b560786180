#pragma once

// What clang's thread-safety analysis reads; nothing to other compilers.
#if defined(__clang__)
#define KX_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KX_THREAD_ANNOTATION(x)
#endif
#define KX_CAPABILITY(name) KX_THREAD_ANNOTATION(capability(name))
#define KX_SCOPED_CAPABILITY KX_THREAD_ANNOTATION(scoped_lockable)
#define KX_GUARDED_BY(mutex) KX_THREAD_ANNOTATION(guarded_by(mutex))
#define KX_REQUIRES(...) KX_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define KX_EXCLUDES(...) KX_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define KX_ACQUIRE(...) KX_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define KX_ACQUIRE_SHARED(...) KX_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define KX_RELEASE(...) KX_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define KX_RELEASE_SHARED(...) KX_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
