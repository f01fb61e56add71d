// Host copy of android-base's Clang thread-safety annotations: they tell the compiler which lock
// guards a member and which locks a function needs, and -Wthread-safety checks every access. With any
// other compiler they expand to nothing. std::mutex and std::lock_guard are capabilities only in
// libc++ built with _LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS, which is how the checking build is made.
#pragma once

#if defined(__clang__)
#define KOVA_THREAD_ANNOTATION__(x) __attribute__((x))
#else
#define KOVA_THREAD_ANNOTATION__(x)
#endif

#define CAPABILITY(x) KOVA_THREAD_ANNOTATION__(capability(x))
#define SCOPED_CAPABILITY KOVA_THREAD_ANNOTATION__(scoped_lockable)
#define GUARDED_BY(x) KOVA_THREAD_ANNOTATION__(guarded_by(x))
#define PT_GUARDED_BY(x) KOVA_THREAD_ANNOTATION__(pt_guarded_by(x))
#define ACQUIRED_BEFORE(...) KOVA_THREAD_ANNOTATION__(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) KOVA_THREAD_ANNOTATION__(acquired_after(__VA_ARGS__))
#define REQUIRES(...) KOVA_THREAD_ANNOTATION__(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) KOVA_THREAD_ANNOTATION__(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) KOVA_THREAD_ANNOTATION__(acquire_capability(__VA_ARGS__))
#define RELEASE(...) KOVA_THREAD_ANNOTATION__(release_capability(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) KOVA_THREAD_ANNOTATION__(assert_capability(x))
#define RETURN_CAPABILITY(x) KOVA_THREAD_ANNOTATION__(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS KOVA_THREAD_ANNOTATION__(no_thread_safety_analysis)
