#pragma once

// Names for Clang's thread-safety attributes; they say nothing to other compilers.
#if defined(__clang__)
#define QN_TSA(x) __attribute__((x))
#else
#define QN_TSA(x)
#endif

#define CAPABILITY(x) QN_TSA(capability(x))
#define SCOPED_CAPABILITY QN_TSA(scoped_lockable)
#define GUARDED_BY(x) QN_TSA(guarded_by(x))
#define PT_GUARDED_BY(x) QN_TSA(pt_guarded_by(x))
#define REQUIRES(...) QN_TSA(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) QN_TSA(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) QN_TSA(acquire_capability(__VA_ARGS__))
#define RELEASE(...) QN_TSA(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) QN_TSA(try_acquire_capability(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) QN_TSA(assert_capability(x))
#define RETURN_CAPABILITY(x) QN_TSA(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS QN_TSA(no_thread_safety_analysis)
