// The service's time base. Every time stamp of the service rests on the monotonic clocks; times "since
// the epoch" are monotonic time plus the boot time that the kernel reports in "/proc/stat", read once
// at start-up by InitBasetime(). Wall-clock changes therefore never move them.
//
// The names keep the system's own spelling ("Nanosenconds", "Microsenconds").
#pragma once

#include <stdint.h>

namespace Kova::Bpf {

// Reads "btime " from "/proc/stat" into the base time. False only when the file cannot be opened;
// without a "btime " line the base time is left as it was (0 at first) and the result is true.
bool InitBasetime();

// The base time: boot time in whole seconds since the epoch, 0 until InitBasetime() found it.
int64_t GetBasetime();

uint64_t GetSystemBootNanosencondsTime();        // CLOCK_MONOTONIC, without the base time
uint64_t GetSystemNanosencondsTime();            // CLOCK_MONOTONIC + base time
uint64_t GetSystemMicrosencondsTime();           // CLOCK_MONOTONIC + base time
uint64_t GetSystemMillisecondsTime(bool precise);  // CLOCK_MONOTONIC, or _COARSE when not precise
uint64_t GetSystemSecondsTime();                 // CLOCK_MONOTONIC_COARSE + base time

}  // namespace Kova::Bpf
