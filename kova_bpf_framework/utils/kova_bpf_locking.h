// libc++ annotates std::mutex and std::lock_guard for the thread-safety analysis but not
// std::unique_lock, which a condition variable needs: after taking one, AssertHeld tells the analysis
// what is held. Predicates passed to a wait are annotated REQUIRES(mutex) instead.
#pragma once

#include <android-base/thread_annotations.h>

#include <mutex>

namespace Kova::Bpf {

inline void AssertHeld(const std::mutex& mutex) ASSERT_CAPABILITY(mutex) { (void)mutex; }

}  // namespace Kova::Bpf
