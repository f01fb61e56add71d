#include "kovabpfctl_stats.h"

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <stdio.h>

#include <fstream>
#include <sstream>

#include "kova_bpf_records.h"

namespace kovabpfctl {

namespace {

std::vector<std::string> SplitCsv(const std::string& line) {
    std::vector<std::string> fields;
    std::istringstream split(line);
    for (std::string field; std::getline(split, field, ',');) {
        const size_t start = field.find_first_not_of(' ');
        const size_t end = field.find_last_not_of(' ');
        fields.push_back(start == std::string::npos ? "" : field.substr(start, end - start + 1));
    }
    return fields;
}

std::string Kib(uint64_t bytes) { return std::to_string((bytes + 1023) / 1024) + " KiB"; }

}  // namespace

std::optional<EventCounters> ParseEventCounters(const std::string& csv) {
    std::istringstream lines(csv);
    std::string line;
    if (!std::getline(lines, line)) return std::nullopt;
    EventCounters counters;
    // The header names the columns of a line; it may carry bookkeeping after them.
    for (const std::string& name : SplitCsv(line)) {
        if (name.empty() || isdigit(static_cast<unsigned char>(name[0]))) break;
        counters.names.push_back(name);
    }
    if (counters.names.empty()) return std::nullopt;
    while (std::getline(lines, line)) {
        const std::vector<std::string> fields = SplitCsv(line);
        if (fields.size() < counters.names.size()) continue;
        std::vector<uint64_t> counts;
        for (size_t i = 0; i < counters.names.size(); ++i) counts.push_back(strtoull(fields[i].c_str(), nullptr, 10));
        counters.seconds.push_back(std::move(counts));
    }
    return counters;
}

RingStatus ReadRingStatus(const std::string& pinDir, const std::string& object, const std::string& name) {
    RingStatus ring{name};
    const android::base::unique_fd map(bpf_obj_get((pinDir + "/map_" + object + "_ringbuf_status").c_str()));
    if (!map.ok()) return ring;
    uint64_t values[KOVA_STATUS_KEY_COUNT] = {};
    for (uint32_t key = 0; key < KOVA_STATUS_KEY_COUNT; ++key) {
        if (bpf_map_lookup_elem(map.get(), &key, &values[key]) != 0) return ring;
    }
    ring.readable = true;
    ring.word = values[KOVA_STATUS_WORD];
    ring.sizeBytes = values[KOVA_STATUS_RING_SIZE];
    ring.unreadBytes = values[KOVA_STATUS_AVAIL_DATA];
    return ring;
}

std::optional<int> ConnectedClients(const std::string& socketName) {
    std::ifstream table("/proc/net/unix");
    if (!table) return std::nullopt;
    std::string line;
    std::getline(table, line);  // Num RefCount Protocol Flags Type St Inode Path
    int connected = 0;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string number, references, protocol, flags, type, state, inode, path;
        if (!(fields >> number >> references >> protocol >> flags >> type >> state >> inode >> path)) continue;
        // An accepted connection carries the listening socket's name; "03" is connected.
        if (path == "@" + socketName && state == "03") ++connected;
    }
    return connected;
}

std::string FormatStats(const EventCounters& counters, const std::vector<RingStatus>& rings, std::optional<int> clients) {
    const size_t minute = std::min<size_t>(60, counters.seconds.size());
    std::string out;
    char line[160];
    snprintf(line, sizeof(line), "%-28s %12s %12s %14s\n", "", "last minute", "per second",
             ("last " + std::to_string(counters.seconds.size()) + " s").c_str());
    out += line;
    for (size_t column = 0; column < counters.names.size(); ++column) {
        const std::string& name = counters.names[column];
        if (name == "UNKNOW") continue;  // columns of types no program writes
        uint64_t lastMinute = 0, total = 0;
        for (size_t second = 0; second < counters.seconds.size(); ++second) {
            total += counters.seconds[second][column];
            if (second < minute) lastMinute += counters.seconds[second][column];
        }
        snprintf(line, sizeof(line), "%-28s %12llu %12.1f %14llu\n", name.c_str(),
                 static_cast<unsigned long long>(lastMinute), minute == 0 ? 0.0 : static_cast<double>(lastMinute) / minute,
                 static_cast<unsigned long long>(total));
        out += line;
    }
    out += "\nring buffers\n";
    for (const RingStatus& ring : rings) {
        if (!ring.readable) {
            out += "  " + ring.name + ": its pinned status map cannot be read (root, and the daemon's KOVA_PIN_DIR)\n";
            continue;
        }
        std::string state = (ring.word & KOVA_STATUS_NORMAL) ? "all records flowing"
                            : (ring.word & KOVA_STATUS_CORE) ? "births and ends flowing, the start-up scan runs"
                                                             : "closed: no consumer";
        if (ring.word & KOVA_STATUS_FULL) state += "; FULL: records were lost";
        // The programs refresh the size and the unread bytes when they write; a quiet ring has none yet.
        const std::string fill = ring.sizeBytes == 0 ? "size not reported yet"
                                                     : Kib(ring.sizeBytes) + ", " + Kib(ring.unreadBytes) + " unread";
        snprintf(line, sizeof(line), "  %-7s %s, %s\n", ring.name.c_str(), fill.c_str(), state.c_str());
        out += line;
    }
    out += "\nclients connected: " + (clients ? std::to_string(*clients) : std::string("unknown")) + "\n";
    return out;
}

}  // namespace kovabpfctl
