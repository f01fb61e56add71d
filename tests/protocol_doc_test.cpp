// docs/protocol.md is what client authors write against: every layout table in it must match the
// structs the service and the client library are built from, field by field, and every such struct must
// have its table.

#include <gtest/gtest.h>
#include <stddef.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "ipc/kova_bpf_ipc_package.h"
#include "kova_bpf_records.h"
#include "protocol/kova_bpf_protocol.h"

namespace kova::test {
namespace {

using namespace Kova::Bpf;

struct Field {
    std::string name;
    size_t offset = 0;
    size_t size = 0;
    bool operator==(const Field&) const = default;
};
struct Layout {
    size_t size = 0;
    std::vector<Field> fields;
    bool operator==(const Layout&) const = default;
};

#define KOVA_FIELD(T, f) Field{#f, offsetof(T, f), sizeof(T::f)}
#define KOVA_LAYOUT(T, ...) {#T, Layout{sizeof(T), {__VA_ARGS__}}}

const std::map<std::string, Layout> kWire = {
        KOVA_LAYOUT(KovaIpcFirstLevelPackageHeader, KOVA_FIELD(KovaIpcFirstLevelPackageHeader, size)),
        KOVA_LAYOUT(KovaIpcSecondLevelPackageHeader, KOVA_FIELD(KovaIpcSecondLevelPackageHeader, type),
                    KOVA_FIELD(KovaIpcSecondLevelPackageHeader, size)),
        KOVA_LAYOUT(KovaReqIpcPackageHeader, KOVA_FIELD(KovaReqIpcPackageHeader, reqId),
                    KOVA_FIELD(KovaReqIpcPackageHeader, reqType), KOVA_FIELD(KovaReqIpcPackageHeader, dataSize)),
        KOVA_LAYOUT(KovaRespIpcPackageHeader, KOVA_FIELD(KovaRespIpcPackageHeader, reqId),
                    KOVA_FIELD(KovaRespIpcPackageHeader, result), KOVA_FIELD(KovaRespIpcPackageHeader, dataSize)),
        KOVA_LAYOUT(KovaTaskCreateEvent, KOVA_FIELD(KovaTaskCreateEvent, id), KOVA_FIELD(KovaTaskCreateEvent, pid),
                    KOVA_FIELD(KovaTaskCreateEvent, ppid), KOVA_FIELD(KovaTaskCreateEvent, uid),
                    KOVA_FIELD(KovaTaskCreateEvent, comm)),
        KOVA_LAYOUT(KovaTaskExitEvent, KOVA_FIELD(KovaTaskExitEvent, id), KOVA_FIELD(KovaTaskExitEvent, pid),
                    KOVA_FIELD(KovaTaskExitEvent, comm)),
        KOVA_LAYOUT(KovaThreadCountChangeEvent, KOVA_FIELD(KovaThreadCountChangeEvent, id),
                    KOVA_FIELD(KovaThreadCountChangeEvent, pid), KOVA_FIELD(KovaThreadCountChangeEvent, ppid),
                    KOVA_FIELD(KovaThreadCountChangeEvent, uid), KOVA_FIELD(KovaThreadCountChangeEvent, oldThreadNum),
                    KOVA_FIELD(KovaThreadCountChangeEvent, threadNum)),
        KOVA_LAYOUT(KovaRssChangeEvent, KOVA_FIELD(KovaRssChangeEvent, id), KOVA_FIELD(KovaRssChangeEvent, pid),
                    KOVA_FIELD(KovaRssChangeEvent, ppid), KOVA_FIELD(KovaRssChangeEvent, uid),
                    KOVA_FIELD(KovaRssChangeEvent, comm), KOVA_FIELD(KovaRssChangeEvent, rssSize),
                    KOVA_FIELD(KovaRssChangeEvent, rssOldSize)),
        KOVA_LAYOUT(KovaTotalTimeReportHeader, KOVA_FIELD(KovaTotalTimeReportHeader, id),
                    KOVA_FIELD(KovaTotalTimeReportHeader, timestamp), KOVA_FIELD(KovaTotalTimeReportHeader, hasData)),
        KOVA_LAYOUT(KovaCpuTimeReportHeader, KOVA_FIELD(KovaCpuTimeReportHeader, id),
                    KOVA_FIELD(KovaCpuTimeReportHeader, timestamp), KOVA_FIELD(KovaCpuTimeReportHeader, reportedTimeNs),
                    KOVA_FIELD(KovaCpuTimeReportHeader, totalTimeNs), KOVA_FIELD(KovaCpuTimeReportHeader, hasRecords)),
        KOVA_LAYOUT(KovaProcessTimeRecord, KOVA_FIELD(KovaProcessTimeRecord, key), KOVA_FIELD(KovaProcessTimeRecord, tgid),
                    KOVA_FIELD(KovaProcessTimeRecord, timeNs), KOVA_FIELD(KovaProcessTimeRecord, name)),
        KOVA_LAYOUT(KovaThreadTimeRecord, KOVA_FIELD(KovaThreadTimeRecord, key), KOVA_FIELD(KovaThreadTimeRecord, pid),
                    KOVA_FIELD(KovaThreadTimeRecord, tgid), KOVA_FIELD(KovaThreadTimeRecord, threadName),
                    KOVA_FIELD(KovaThreadTimeRecord, timeNs), KOVA_FIELD(KovaThreadTimeRecord, processName)),
        KOVA_LAYOUT(KovaTimeResetReport, KOVA_FIELD(KovaTimeResetReport, id), KOVA_FIELD(KovaTimeResetReport, timestamp)),
        KOVA_LAYOUT(kova_task_init_record, KOVA_FIELD(kova_task_init_record, type), KOVA_FIELD(kova_task_init_record, pad),
                    KOVA_FIELD(kova_task_init_record, timestamp_ns), KOVA_FIELD(kova_task_init_record, pid),
                    KOVA_FIELD(kova_task_init_record, ppid), KOVA_FIELD(kova_task_init_record, uid),
                    KOVA_FIELD(kova_task_init_record, thread_count), KOVA_FIELD(kova_task_init_record, comm),
                    KOVA_FIELD(kova_task_init_record, rss_file_bytes), KOVA_FIELD(kova_task_init_record, rss_anon_bytes),
                    KOVA_FIELD(kova_task_init_record, rss_shmem_bytes), KOVA_FIELD(kova_task_init_record, swap_bytes),
                    KOVA_FIELD(kova_task_init_record, start_time_s)),
        KOVA_LAYOUT(kova_rss_record, KOVA_FIELD(kova_rss_record, type), KOVA_FIELD(kova_rss_record, pad),
                    KOVA_FIELD(kova_rss_record, timestamp_ns), KOVA_FIELD(kova_rss_record, pid),
                    KOVA_FIELD(kova_rss_record, member), KOVA_FIELD(kova_rss_record, size)),
        KOVA_LAYOUT(kova_task_create_record, KOVA_FIELD(kova_task_create_record, type),
                    KOVA_FIELD(kova_task_create_record, pad), KOVA_FIELD(kova_task_create_record, timestamp_ns),
                    KOVA_FIELD(kova_task_create_record, ppid), KOVA_FIELD(kova_task_create_record, pid),
                    KOVA_FIELD(kova_task_create_record, uid), KOVA_FIELD(kova_task_create_record, comm),
                    KOVA_FIELD(kova_task_create_record, kind)),
        KOVA_LAYOUT(kova_task_exit_record, KOVA_FIELD(kova_task_exit_record, type), KOVA_FIELD(kova_task_exit_record, pad),
                    KOVA_FIELD(kova_task_exit_record, timestamp_ns), KOVA_FIELD(kova_task_exit_record, pid),
                    KOVA_FIELD(kova_task_exit_record, comm), KOVA_FIELD(kova_task_exit_record, kind)),
        KOVA_LAYOUT(kova_dmabuf_size_record, KOVA_FIELD(kova_dmabuf_size_record, type),
                    KOVA_FIELD(kova_dmabuf_size_record, pad), KOVA_FIELD(kova_dmabuf_size_record, timestamp_ns),
                    KOVA_FIELD(kova_dmabuf_size_record, pid), KOVA_FIELD(kova_dmabuf_size_record, buffers),
                    KOVA_FIELD(kova_dmabuf_size_record, bytes), KOVA_FIELD(kova_dmabuf_size_record, reported_bytes)),
        KOVA_LAYOUT(kova_cgroup_attach_record, KOVA_FIELD(kova_cgroup_attach_record, type),
                    KOVA_FIELD(kova_cgroup_attach_record, pad), KOVA_FIELD(kova_cgroup_attach_record, timestamp_ns),
                    KOVA_FIELD(kova_cgroup_attach_record, dst_id), KOVA_FIELD(kova_cgroup_attach_record, pid),
                    KOVA_FIELD(kova_cgroup_attach_record, caller_pid), KOVA_FIELD(kova_cgroup_attach_record, dst_root),
                    KOVA_FIELD(kova_cgroup_attach_record, dst_level), KOVA_FIELD(kova_cgroup_attach_record, comm),
                    KOVA_FIELD(kova_cgroup_attach_record, dst_path)),
        KOVA_LAYOUT(kova_fd_update_record, KOVA_FIELD(kova_fd_update_record, type), KOVA_FIELD(kova_fd_update_record, pad),
                    KOVA_FIELD(kova_fd_update_record, timestamp_ns), KOVA_FIELD(kova_fd_update_record, pid),
                    KOVA_FIELD(kova_fd_update_record, pad2), KOVA_FIELD(kova_fd_update_record, open_fds),
                    KOVA_FIELD(kova_fd_update_record, reported_fds), KOVA_FIELD(kova_fd_update_record, comm)),
        KOVA_LAYOUT(kova_dmabuf_update_record, KOVA_FIELD(kova_dmabuf_update_record, type),
                    KOVA_FIELD(kova_dmabuf_update_record, pad), KOVA_FIELD(kova_dmabuf_update_record, timestamp_ns),
                    KOVA_FIELD(kova_dmabuf_update_record, pid), KOVA_FIELD(kova_dmabuf_update_record, op),
                    KOVA_FIELD(kova_dmabuf_update_record, inode), KOVA_FIELD(kova_dmabuf_update_record, size)),
};

// The layouts the document gives: under each heading that names a struct in backquotes and its size
// ("... `Name`, 32 bytes"), the rows "| offset | size | type | field | meaning |" of the first table.
std::map<std::string, Layout> DocumentedLayouts(std::istream& document, std::vector<std::string>* errors) {
    static const std::regex heading(R"(^#+ .*`(\w+)`, (\d+) bytes)");
    static const std::regex row(R"(^\| (\d+) \| (\d+) \| [^|]+ \| (\w+) \|)");
    std::map<std::string, Layout> layouts;
    std::string line, current;
    bool inTable = false;
    while (std::getline(document, line)) {
        std::smatch match;
        if (std::regex_search(line, match, heading)) {
            current = match[1];
            if (layouts.count(current) != 0) errors->push_back("documented twice: " + current);
            layouts[current].size = std::stoul(match[2]);
            inTable = false;
        } else if (!current.empty() && line.starts_with("|")) {
            inTable = true;
            if (std::regex_search(line, match, row)) {
                layouts[current].fields.push_back({match[3], std::stoul(match[1]), std::stoul(match[2])});
            }
        } else if (inTable) {
            current.clear();  // only the first table after a heading
            inTable = false;
        }
    }
    return layouts;
}

std::string Describe(const Layout& layout) {
    std::ostringstream out;
    out << layout.size << " bytes:";
    for (const Field& field : layout.fields) out << " " << field.name << "@" << field.offset << "+" << field.size;
    return out.str();
}

TEST(ProtocolDocTest, EveryWireLayoutIsDocumentedAsTheHeadersDefineIt) {
    std::ifstream document(KOVA_PROTOCOL_DOC);
    ASSERT_TRUE(document.is_open()) << KOVA_PROTOCOL_DOC;
    std::vector<std::string> errors;
    const std::map<std::string, Layout> documented = DocumentedLayouts(document, &errors);
    EXPECT_TRUE(errors.empty()) << errors.front();
    for (const auto& [name, layout] : kWire) {
        const auto found = documented.find(name);
        if (found == documented.end()) {
            ADD_FAILURE() << name << " has no table in docs/protocol.md";
        } else {
            EXPECT_EQ(Describe(found->second), Describe(layout)) << name;
        }
    }
    for (const auto& [name, layout] : documented) {
        EXPECT_EQ(kWire.count(name), 1u) << "docs/protocol.md documents " << name << ", which this test does not know";
    }
}

}  // namespace
}  // namespace kova::test
