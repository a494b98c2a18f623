#pragma once

// Data that crosses threads through Qt (the thread pool, a finished QFuture, a queued call) is
// ordered by locks inside Qt, which the distribution builds without ThreadSanitizer, so the checker
// cannot see that order. Marking the hand-over on both sides tells it what Qt guarantees; in every
// other build these are empty.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QUORVANE_THREAD_SANITIZER 1
#endif
#endif
#if !defined(QUORVANE_THREAD_SANITIZER) && defined(__SANITIZE_THREAD__)
#define QUORVANE_THREAD_SANITIZER 1
#endif

#ifdef QUORVANE_THREAD_SANITIZER
extern "C" void __tsan_acquire(void *address);
extern "C" void __tsan_release(void *address);
#endif

namespace HandOver {

// Everything this thread wrote before is visible to the thread that later calls received(token).
inline void sent([[maybe_unused]] const void *token) {
#ifdef QUORVANE_THREAD_SANITIZER
    __tsan_release(const_cast<void *>(token));
#endif
}

inline void received([[maybe_unused]] const void *token) {
#ifdef QUORVANE_THREAD_SANITIZER
    __tsan_acquire(const_cast<void *>(token));
#endif
}

} // namespace HandOver
