// What `kovabpfctl stats` shows at a glance: each event type's rate over the last minute and its total
// over the counters' window, the ring buffers' state, and the clients connected.
#pragma once

#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

namespace kovabpfctl {

// The daemon's per-second counters (bpfservice_state.csv): a header of names, then one line a second,
// newest first, each a count per name.
struct EventCounters {
    std::vector<std::string> names;
    std::vector<std::vector<uint64_t>> seconds;  // newest first, a count per name
};
std::optional<EventCounters> ParseEventCounters(const std::string& csv);

// One ring buffer, from its pinned status map (map_OBJECT_ringbuf_status).
struct RingStatus {
    std::string name;       // "normal" or "gpl"
    bool readable = false;  // false: the pinned map could not be read, and the figures are 0
    uint64_t word = 0;      // the status word: full, core and normal bits
    uint64_t sizeBytes = 0;
    uint64_t unreadBytes = 0;
};
RingStatus ReadRingStatus(const std::string& pinDir, const std::string& object, const std::string& name);

// The connections the service's abstract socket `socketName` holds, from /proc/net/unix; nullopt
// when that cannot be read.
std::optional<int> ConnectedClients(const std::string& socketName);

std::string FormatStats(const EventCounters& counters, const std::vector<RingStatus>& rings, std::optional<int> clients);

}  // namespace kovabpfctl
