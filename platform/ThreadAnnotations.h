#pragma once

// Names for Clang's thread-safety attributes; they say nothing to other compilers. Other libraries
// define the same names to the same end; whoever comes first wins.
#if defined(__clang__)
#define QN_TSA(x) __attribute__((x))
#else
#define QN_TSA(x)
#endif

#ifndef CAPABILITY
#define CAPABILITY(x) QN_TSA(capability(x))
#endif

#ifndef SCOPED_CAPABILITY
#define SCOPED_CAPABILITY QN_TSA(scoped_lockable)
#endif

#ifndef GUARDED_BY
#define GUARDED_BY(x) QN_TSA(guarded_by(x))
#endif

#ifndef PT_GUARDED_BY
#define PT_GUARDED_BY(x) QN_TSA(pt_guarded_by(x))
#endif

#ifndef REQUIRES
#define REQUIRES(...) QN_TSA(requires_capability(__VA_ARGS__))
#endif

#ifndef EXCLUDES
#define EXCLUDES(...) QN_TSA(locks_excluded(__VA_ARGS__))
#endif

#ifndef ACQUIRE
#define ACQUIRE(...) QN_TSA(acquire_capability(__VA_ARGS__))
#endif

#ifndef RELEASE
#define RELEASE(...) QN_TSA(release_capability(__VA_ARGS__))
#endif

#ifndef TRY_ACQUIRE
#define TRY_ACQUIRE(...) QN_TSA(try_acquire_capability(__VA_ARGS__))
#endif

#ifndef ASSERT_CAPABILITY
#define ASSERT_CAPABILITY(x) QN_TSA(assert_capability(x))
#endif

#ifndef RETURN_CAPABILITY
#define RETURN_CAPABILITY(x) QN_TSA(lock_returned(x))
#endif

#ifndef NO_THREAD_SAFETY_ANALYSIS
#define NO_THREAD_SAFETY_ANALYSIS QN_TSA(no_thread_safety_analysis)
#endif
