// Lock requirements written where clang's -Wthread-safety can check them:
// which mutex guards a global, which functions need it held, which types
// take and release it. Under g++ every macro expands to nothing.
#pragma once

#if defined(__clang__)
#define QDQ_TSA(x) __attribute__((x))
#else
#define QDQ_TSA(x)
#endif

#define QDQ_CAPABILITY(name) QDQ_TSA(capability(name))
#define QDQ_SCOPED_CAPABILITY QDQ_TSA(scoped_lockable)
#define QDQ_GUARDED_BY(m) QDQ_TSA(guarded_by(m))
#define QDQ_PT_GUARDED_BY(m) QDQ_TSA(pt_guarded_by(m))
#define QDQ_REQUIRES(...) QDQ_TSA(requires_capability(__VA_ARGS__))
#define QDQ_EXCLUDES(...) QDQ_TSA(locks_excluded(__VA_ARGS__))
#define QDQ_ACQUIRE(...) QDQ_TSA(acquire_capability(__VA_ARGS__))
#define QDQ_RELEASE(...) QDQ_TSA(release_capability(__VA_ARGS__))
#define QDQ_RETURN_CAPABILITY(m) QDQ_TSA(lock_returned(m))
#define QDQ_NO_THREAD_SAFETY_ANALYSIS QDQ_TSA(no_thread_safety_analysis)
