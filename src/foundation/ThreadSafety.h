// Clang's thread-safety annotations, spelled once. They expand to nothing under other compilers.
// https://clang.llvm.org/docs/ThreadSafetyAnalysis.html explains each.
#pragma once

#if defined(__clang__)
#define KEL_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define KEL_THREAD_ATTRIBUTE(x)
#endif

#define KEL_CAPABILITY(x) KEL_THREAD_ATTRIBUTE(capability(x))
#define KEL_SCOPED_CAPABILITY KEL_THREAD_ATTRIBUTE(scoped_lockable)
#define KEL_GUARDED_BY(x) KEL_THREAD_ATTRIBUTE(guarded_by(x))
#define KEL_ACQUIRE(...) KEL_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define KEL_ACQUIRE_SHARED(...) KEL_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define KEL_RELEASE(...) KEL_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define KEL_RELEASE_SHARED(...) KEL_THREAD_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
#define KEL_RELEASE_GENERIC(...) KEL_THREAD_ATTRIBUTE(release_generic_capability(__VA_ARGS__))
#define KEL_REQUIRES(...) KEL_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define KEL_REQUIRES_SHARED(...) KEL_THREAD_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define KEL_EXCLUDES(...) KEL_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define KEL_NO_THREAD_SAFETY_ANALYSIS KEL_THREAD_ATTRIBUTE(no_thread_safety_analysis)
