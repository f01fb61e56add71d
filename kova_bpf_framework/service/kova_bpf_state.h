// Per-second counters of the raw events and ring-buffer polls that the service handled over the last
// half hour, written as "bpfservice_state.csv" when the process receives signal 50.
#pragma once

#include <stdint.h>

#include <atomic>
#include <mutex>
#include <string>

namespace Kova::Bpf {

class KovaBpfDataState {
  public:
    static constexpr int kSlotCount = 1800;    // seconds kept
    static constexpr int kCounterCount = 15;   // raw event types 0 to 13, then the poll counter
    static constexpr int kPollCounter = 14;

    using SecondsClock = uint64_t (*)();

    // The process-wide instance, created on first use and never destroyed.
    static KovaBpfDataState* GetInstance();

    // `clock` gives "now" in seconds; the instance uses GetSystemSecondsTime(). Tests pass their own.
    explicit KovaBpfDataState(SecondsClock clock);

    // Adds `count` to counter `type` (0 to 14; others are ignored) of the current second. Called on the
    // event path from both producer threads: it never allocates, and only the first call of a new
    // second takes a lock.
    void RecordEvent(int type, unsigned int count);

    // Writes the CSV file: a header line, then one line per kept second, newest first. The file is
    // replaced whole; a failed write leaves the previous one and is logged once until a write succeeds.
    void DumpState();

    // Sequence numbers of the newest and the oldest kept second (for tests and the CSV header).
    int64_t head() const { return head_.load(std::memory_order_acquire); }
    int64_t tail() const { return tail_.load(std::memory_order_acquire); }
    // Counter `type` of the second with sequence number `sequence`.
    uint32_t counter(int64_t sequence, int type) const {
        return slots_[SlotOf(sequence)][type].load(std::memory_order_relaxed);
    }

  private:
    static int SlotOf(int64_t sequence) {
        const int64_t slot = sequence % kSlotCount;
        return static_cast<int>(slot < 0 ? slot + kSlotCount : slot);
    }
    void AdvanceSecond();
    std::string Csv() const;

    const SecondsClock clock_;
    std::mutex advanceLock_;  // serialises moving to a new second
    std::atomic<uint64_t> lastTime_;
    std::atomic<int64_t> head_{0};
    std::atomic<int64_t> tail_{0};
    std::atomic<uint32_t> slots_[kSlotCount][kCounterCount] = {};
};

// Signal 50: writes the CSV of the process-wide instance (creating it if needed). Runs on the signal
// worker thread.
void DumpState(int signo);

}  // namespace Kova::Bpf
