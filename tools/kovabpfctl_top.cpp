#include "kovabpfctl_top.h"

#include <stdio.h>

#include <algorithm>
#include <sstream>

namespace kovabpfctl {

std::vector<TopProcess> ParseShortDump(const std::string& dump) {
    std::vector<TopProcess> processes;
    std::istringstream lines(dump);
    std::string line;
    std::getline(lines, line);  // the title, with the count
    std::getline(lines, line);  // the column names
    constexpr size_t kCommWidth = 16;  // "%-16s", then the numbers
    while (std::getline(lines, line)) {
        if (line.size() <= kCommWidth) continue;
        std::istringstream numbers(line.substr(kCommWidth));
        TopProcess process;
        int64_t ppid = 0, mmId = 0, anonKb = 0, fileKb = 0, shmemKb = 0, swapKb = 0;
        std::string kb;
        // pid ppid threadNum mmId anon KB file KB shmem KB swap KB initTimeStamp
        if (!(numbers >> process.pid >> ppid >> process.threads >> mmId >> anonKb >> kb >> fileKb >> kb >> shmemKb >> kb >>
              swapKb >> kb)) {
            continue;
        }
        process.comm = line.substr(0, line.find_last_not_of(' ', kCommWidth - 1) + 1);
        process.rssKb = static_cast<uint64_t>(std::max<int64_t>(0, anonKb + fileKb + shmemKb));
        processes.push_back(process);
    }
    return processes;
}

std::string FormatTop(const std::string& title, const std::vector<TopProcess>& processes,
                      const std::vector<std::string>& events, bool byCpu, size_t height) {
    std::string out = title + "\n\n";
    char line[256];
    snprintf(line, sizeof(line), "%8s  %-16s %8s %12s%s\n", "PID", "COMMAND", "THREADS", "RSS MiB",
             byCpu ? "     CPU s" : "");
    out += line;
    // Title, blank, header; a blank line, a heading and the events below the table.
    const size_t fixed = 3 + 2 + events.size();
    const size_t rows = height > fixed + 1 ? std::min(processes.size(), height - fixed) : std::min<size_t>(processes.size(), 5);
    for (size_t i = 0; i < rows; ++i) {
        const TopProcess& process = processes[i];
        snprintf(line, sizeof(line), "%8d  %-16s %8d %12.1f", process.pid, process.comm.c_str(), process.threads,
                 static_cast<double>(process.rssKb) / 1024.0);
        out += line;
        if (byCpu) {
            snprintf(line, sizeof(line), " %9.2f", static_cast<double>(process.cpuTimeNs) / 1e9);
            out += line;
        }
        out += "\n";
    }
    out += "\nlatest events\n";
    for (const std::string& event : events) out += event + "\n";
    return out;
}

}  // namespace kovabpfctl
