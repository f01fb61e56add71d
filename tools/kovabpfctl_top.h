// What `kovabpfctl top` shows: the processes of the service's task table by memory, or the ten with the
// most CPU time, and the latest task events.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace kovabpfctl {

struct TopProcess {
    int32_t pid = 0;
    std::string comm;
    int32_t threads = 0;
    uint64_t rssKb = 0;      // anonymous + file-backed + shared memory
    uint64_t cpuTimeNs = 0;  // from a CPU time report; 0 without one
};

// The processes of a short task dump (kovabpfctl dump-tasks --short), in the dump's order.
std::vector<TopProcess> ParseShortDump(const std::string& dump);

// The screen: a title line, a table of `processes` (already in the order to show) cut to leave room for
// `events` (the latest, newest last) within `height` lines, then the events. `byCpu` shows CPU time.
std::string FormatTop(const std::string& title, const std::vector<TopProcess>& processes,
                      const std::vector<std::string>& events, bool byCpu, size_t height);

}  // namespace kovabpfctl
