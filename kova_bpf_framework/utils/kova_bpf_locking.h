// libc++ annotates std::mutex and std::lock_guard for the thread-safety analysis but not
// std::unique_lock, which a condition variable needs: after taking one, AssertHeld tells the analysis
// what is held. Predicates passed to a wait are annotated REQUIRES(mutex) instead.
#pragma once

#include <android-base/thread_annotations.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

namespace Kova::Bpf {

inline void AssertHeld(const std::mutex& mutex) ASSERT_CAPABILITY(mutex) { (void)mutex; }

// A mutex that spins a little before it sleeps, for a lock that one thread holds for microseconds
// while another keeps taking it: a producer that finds a drain in progress then waits it out instead of
// paying a sleep and a wake-up in the kernel. Taking and releasing it uncontended is one atomic
// operation each, inline: a client queue takes it once per package.
class CAPABILITY("mutex") AdaptiveMutex {
  public:
    AdaptiveMutex() = default;
    AdaptiveMutex(const AdaptiveMutex&) = delete;
    AdaptiveMutex& operator=(const AdaptiveMutex&) = delete;
    void lock() ACQUIRE() {
        int expected = kFree;
        if (!state_.compare_exchange_strong(expected, kLocked, std::memory_order_acquire, std::memory_order_relaxed)) {
            lockContended();
        }
    }
    void unlock() RELEASE() {
        if (state_.exchange(kFree, std::memory_order_release) == kLockedWithWaiters) wakeOne();
    }

  private:
    static constexpr int kFree = 0, kLocked = 1, kLockedWithWaiters = 2;
    static constexpr int kSpins = 100;

    void lockContended() {
        for (int spin = 0; spin < kSpins; ++spin) {
            int expected = kFree;
            if (state_.load(std::memory_order_relaxed) == kFree &&
                state_.compare_exchange_weak(expected, kLocked, std::memory_order_acquire, std::memory_order_relaxed)) {
                return;
            }
            Relax();
        }
        // From here on the holder is told to wake someone, even if this thread then takes it at once.
        while (state_.exchange(kLockedWithWaiters, std::memory_order_acquire) != kFree) {
            syscall(SYS_futex, &state_, FUTEX_WAIT_PRIVATE, kLockedWithWaiters, nullptr, nullptr, 0);
        }
    }
    void wakeOne() { syscall(SYS_futex, &state_, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0); }
    static void Relax() {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__aarch64__)
        asm volatile("yield");
#endif
    }

    std::atomic<int> state_{kFree};
};

}  // namespace Kova::Bpf
