// libc++ annotates std::mutex and std::lock_guard for the thread-safety analysis but not
// std::unique_lock, which a condition variable needs: after taking one, AssertHeld tells the analysis
// what is held. Predicates passed to a wait are annotated REQUIRES(mutex) instead.
#pragma once

#include <android-base/thread_annotations.h>

#include <pthread.h>

#include <mutex>

namespace Kova::Bpf {

inline void AssertHeld(const std::mutex& mutex) ASSERT_CAPABILITY(mutex) { (void)mutex; }

// A mutex that spins a little before it sleeps (the C library's adaptive kind, where it has one), for
// a lock that one thread holds for microseconds while another keeps taking it: a producer that finds
// a drain in progress then waits it out instead of paying a sleep and a wake-up in the kernel.
class CAPABILITY("mutex") AdaptiveMutex {
  public:
    AdaptiveMutex() {
#ifdef PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ADAPTIVE_NP);
        pthread_mutex_init(&mutex_, &attributes);
        pthread_mutexattr_destroy(&attributes);
#else
        pthread_mutex_init(&mutex_, nullptr);
#endif
    }
    ~AdaptiveMutex() { pthread_mutex_destroy(&mutex_); }
    AdaptiveMutex(const AdaptiveMutex&) = delete;
    AdaptiveMutex& operator=(const AdaptiveMutex&) = delete;

    void lock() ACQUIRE() { pthread_mutex_lock(&mutex_); }
    void unlock() RELEASE() { pthread_mutex_unlock(&mutex_); }

  private:
    pthread_mutex_t mutex_;
};

}  // namespace Kova::Bpf
