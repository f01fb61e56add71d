#include "utils/kova_bpf_time.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <atomic>

#include "utils/kova_bpf_paths.h"

namespace Kova::Bpf {
namespace {

// Written once by the event producer before the other threads read it; atomic so that a second
// initialisation (tests) is not a data race.
std::atomic<int64_t> gBaseTime{0};

timespec ReadClock(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return ts;
}

}  // namespace

bool InitBasetime() {
    FILE* stat = fopen(KovaPath(KOVA_PROC_STAT).c_str(), "re");
    if (stat == nullptr) return false;
    char* line = nullptr;
    size_t capacity = 0;
    while (getline(&line, &capacity, stat) != -1) {
        if (strstr(line, "btime ") == nullptr) continue;
        // The value starts after the six bytes of "btime ".
        gBaseTime.store(strtol(line + 6, nullptr, 10), std::memory_order_relaxed);
        break;
    }
    free(line);
    fclose(stat);
    return true;
}

int64_t GetBasetime() { return gBaseTime.load(std::memory_order_relaxed); }

uint64_t GetSystemBootNanosencondsTime() {
    const timespec ts = ReadClock(CLOCK_MONOTONIC);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
}

uint64_t GetSystemNanosencondsTime() {
    const timespec ts = ReadClock(CLOCK_MONOTONIC);
    return static_cast<uint64_t>(ts.tv_sec + GetBasetime()) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
}

uint64_t GetSystemMicrosencondsTime() {
    const timespec ts = ReadClock(CLOCK_MONOTONIC);
    return static_cast<uint64_t>(ts.tv_sec + GetBasetime()) * 1000000ULL + static_cast<uint64_t>(ts.tv_nsec) / 1000;
}

uint64_t GetSystemMillisecondsTime(bool precise) {
    const timespec ts = ReadClock(precise ? CLOCK_MONOTONIC : CLOCK_MONOTONIC_COARSE);
    return static_cast<uint64_t>(ts.tv_sec + GetBasetime()) * 1000ULL + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

uint64_t GetSystemSecondsTime() {
    return static_cast<uint64_t>(ReadClock(CLOCK_MONOTONIC_COARSE).tv_sec + GetBasetime());
}

}  // namespace Kova::Bpf
