// Memory accounting: the start-up seeding of the kernel's descriptor-count and dmabuf maps from /proc.
// The programs that keep these maps only see changes from the moment they are attached; the state that
// already exists comes from here. Layouts and the rules the programs continue by: kova_bpf_records.h.

#include "service/kova_bpf_service.h"

#define LOG_TAG "BpfService"

#include <android-base/file.h>
#include <errno.h>
#include <linux/bpf.h>
#include <log/log.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <string_view>

#include "utils/kova_bpf_common.h"
#include "utils/kova_bpf_paths.h"
#include "utils/kova_bpf_proc_status.h"
#include "service/kova_bpf_syscall.h"

namespace Kova::Bpf {
namespace {

using android::base::unique_fd;

unique_fd OpenMap(const char* path) { return unique_fd(BpfObjGet(KovaPath(path).c_str(), 0)); }

// Calls visit(name) for every process of /proc.
void ForEachProcess(const std::function<void(const char* name)>& visit) {
    const std::string procDir = KovaPath(KovaBpfService::PROC_FS_PATH);
    if (!ForEachProcessDir(procDir, visit)) {
        ALOGE("[KovaBpfService][INIT] open %s failed: %s", procDir.c_str(), strerror(errno));
    }
}

// The decimal number after the first line of an fdinfo file that contains `key`. The number is read
// from the line's character at the key's length, wherever the key stands in the line.
long ReadFdinfoNumber(const std::string& path, std::string_view key) {
    std::ifstream file(path);
    if (!file.is_open()) {
        ALOGW("Unable to open %s", path.c_str());
        return 0;
    }
    std::string line;
    while (std::getline(file, line)) {
        if (line.find(key) == std::string::npos) continue;
        const long value = strtol(line.c_str() + key.size(), nullptr, 10);
        return value > 0 ? value : 0;
    }
    return 0;
}

// The process's name from its status file, at most 15 characters; false when the file cannot be read.
bool ReadProcessName(const char* pid, char (&comm)[KOVA_COMM_LEN]) {
    const std::optional<ProcStatus> status =
            ReadProcStatus(KovaPath(StringPrintf(KovaBpfService::TASK_STATUS_TEMPLATE, pid)));
    if (!status) return false;
    memset(comm, 0, sizeof(comm));
    memcpy(comm, status->name.data(), std::min(status->name.size(), sizeof(comm) - 1));
    return true;
}

// One "/dmabuf" line of a maps file: "start-end perms offset dev inode path".
struct Mapping {
    uint64_t inode = 0;
    uint64_t bytes = 0;
};
bool ParseDmabufMapping(const std::string& line, Mapping* out) {
    std::vector<std::string_view> fields;
    std::string_view rest(line);
    while (!rest.empty() && fields.size() < 6) {
        const size_t start = rest.find_first_not_of(' ');
        if (start == std::string_view::npos) break;
        rest.remove_prefix(start);
        const size_t end = std::min(rest.find(' '), rest.size());
        fields.push_back(rest.substr(0, end));
        rest.remove_prefix(end);
    }
    if (fields.size() < 5) return false;
    const std::string inode(fields[4]);
    if (!IsDigits(inode)) return false;
    out->inode = strtoull(inode.c_str(), nullptr, 10);
    const std::string range(fields[0]);
    char* dash = nullptr;
    const uint64_t start = strtoull(range.c_str(), &dash, 16);
    const uint64_t end = *dash == '-' ? strtoull(dash + 1, nullptr, 16) : 0;
    out->bytes = end > start ? end - start : 0;
    return out->inode != 0;
}

// Writes each element of `elements` under its key; failures are logged with `failure` and the rest go on.
template <typename Key, typename Value>
void WriteAll(int map, const std::map<Key, Value>& elements, const char* failure) {
    for (const auto& [key, value] : elements) {
        const uint32_t pid = static_cast<uint32_t>(key);
        if (BpfMapUpdateElem(map, &pid, &value, BPF_ANY) != 0) ALOGE(failure, strerror(errno));
    }
}

// A process's inode counts as the set its map holds, each buffer with the bytes it is counted with.
kova_dmabuf_inode_set InodeSet(const std::map<uint64_t, int32_t>& inodes, const std::map<uint64_t, uint64_t>& bytes) {
    kova_dmabuf_inode_set set{};
    for (const auto& [inode, refs] : inodes) {
        kova_dmabuf_inode_ref& ref = set.refs[set.count++];
        ref.inode = inode;
        ref.bytes = bytes.at(inode);
        ref.refs = refs;
    }
    return set;
}

using InodeRefs = std::map<int32_t, std::map<uint64_t, int32_t>>;  // pid -> inode -> references

// What the scan of /proc found besides the references: every buffer's size from any descriptor's
// fdinfo, and the bytes each process maps of each buffer (the size of a buffer no descriptor names).
struct DmabufSizes {
    std::map<uint64_t, uint64_t> fromFdinfo;
    std::map<int32_t, std::map<uint64_t, uint64_t>> mapped;
};

// The process's descriptors whose link names a dmabuf with a known size and inode.
void ScanDmabufDescriptors(const char* name, int32_t pid, InodeRefs* refs, DmabufSizes* sizes) {
    const std::string fdDir = KovaPath(StringPrintf(KovaBpfService::TASK_FD_TEMPLATE, name));
    ForEachDirEntry(fdDir, [&](const char* fd) {
        if (ReadSymlink((fdDir + "/" + fd).c_str()).find("/dmabuf") == std::string::npos) return;
        const std::string fdinfo = KovaPath(StringPrintf(KovaBpfService::TASK_FDINFO_TEMPLATE, name, fd));
        const long size = KovaBpfService::GetFdSize(fdinfo);
        const long inode = KovaBpfService::GetFdInode(fdinfo);
        if (size == 0 || inode == 0) return;
        sizes->fromFdinfo[static_cast<uint64_t>(inode)] = static_cast<uint64_t>(size);
        ++(*refs)[pid][static_cast<uint64_t>(inode)];
    });
}

// The "/dmabuf" lines of the process's maps file; false when the file cannot be opened.
bool ScanDmabufMappings(const char* name, int32_t pid, InodeRefs* refs, DmabufSizes* sizes) {
    std::ifstream maps(KovaPath(StringPrintf(KovaBpfService::TASK_MAPS_TEMPLATE, name)));
    if (!maps.is_open()) return false;
    for (std::string line; std::getline(maps, line);) {
        if (line.find("/dmabuf") == std::string::npos) continue;
        Mapping mapping;
        if (!ParseDmabufMapping(line, &mapping)) {
            ALOGW("[KovaBpfService][INIT] pid %d: skipped a dmabuf mapping without an inode: %s", pid, line.c_str());
            continue;
        }
        ++(*refs)[pid][mapping.inode];
        sizes->mapped[pid][mapping.inode] += mapping.bytes;
    }
    return true;
}

// Trims `refs` to what the kernel side can follow: at most KOVA_DMABUF_INODES_PER_PROCESS buffers per
// process, each with a known size, entered in `counted` (pid -> inode -> bytes). What is left out is
// neither listed nor counted, so that a release never takes more than was counted.
void KeepFollowable(InodeRefs* refs, DmabufSizes* sizes, const char* kind,
                    std::map<int32_t, std::map<uint64_t, uint64_t>>* counted) {
    for (auto& [pid, inodes] : *refs) {
        size_t kept = 0, dropped = 0;
        for (auto it = inodes.begin(); it != inodes.end();) {
            const auto known = sizes->fromFdinfo.find(it->first);
            const uint64_t bytes = known != sizes->fromFdinfo.end() ? known->second : sizes->mapped[pid][it->first];
            if (bytes == 0 || kept == KOVA_DMABUF_INODES_PER_PROCESS) {
                it = inodes.erase(it);
                ++dropped;
                continue;
            }
            (*counted)[pid][it->first] = bytes;
            ++kept;
            ++it;
        }
        if (dropped != 0) {
            ALOGW("[KovaBpfService][INIT] pid %d: %zu dmabufs held through %s are not followed (room for %d, or no "
                  "size)",
                  pid, dropped, kind, KOVA_DMABUF_INODES_PER_PROCESS);
        }
    }
}

// Per process, the count and bytes of the buffers keyed in `buffers` (pid -> inode -> anything).
template <typename Buffers>
std::map<int32_t, kova_dmabuf_stat> Sums(const Buffers& buffers, std::map<int32_t, std::map<uint64_t, uint64_t>>& bytes) {
    std::map<int32_t, kova_dmabuf_stat> sums;
    for (const auto& [pid, inodes] : buffers) {
        for (const auto& [inode, count] : inodes) {
            sums[pid].bytes += bytes[pid][inode];
            ++sums[pid].buffers;
        }
    }
    return sums;
}

}  // namespace

long KovaBpfService::GetFdSize(const std::string& fdinfoPath) { return ReadFdinfoNumber(fdinfoPath, "size:\t"); }

long KovaBpfService::GetFdInode(const std::string& fdinfoPath) { return ReadFdinfoNumber(fdinfoPath, "ino:\t"); }

int KovaBpfService::initBpfMap() {
    processInodeMapFd = OpenMap(PROCESS_INODE_MAP_PATH);
    if (!processInodeMapFd.ok()) {
        ALOGE("[KovaBpfService][InitBpfMap] get processInodeMap failed: %s", strerror(errno));
        errno = 0;
        return -1;
    }
    processMmapInfosFd = OpenMap(PROCESS_MMAP_INFOS_PATH);
    if (!processMmapInfosFd.ok()) {
        ALOGE("[KovaBpfService][InitBpfMap] get processMmapInfos failed: %s", strerror(errno));
        errno = 0;
        return -1;
    }
    return 0;
}

int KovaBpfService::initFdBpfProg() {
    // A start notice, deliberately at error level so that it shows in a filtered log.
    ALOGE("[KovaBpfService][INIT] update open_fd_caller_map !");
    const unique_fd map = OpenMap(OPEN_FD_CALLER_MAP_PATH);
    if (!map.ok()) {
        ALOGE("[KovaBpfService][INIT] get map_KovaBpfDefineset_open_fd_caller_map(%d) failed! %s", -1, strerror(errno));
        return -1;
    }
    int written = 0;
    ForEachProcess([&](const char* name) {
        kova_open_fd_caller caller{};
        if (!ReadProcessName(name, caller.comm)) return;
        int64_t open = 0;
        // A process that ended after its status was read is not written: its exit already went by.
        if (!ForEachDirEntry(KovaPath(StringPrintf(TASK_FD_TEMPLATE, name)), [&](const char*) { ++open; })) return;
        caller.pid = static_cast<uint32_t>(strtoul(name, nullptr, 10));
        caller.open_fds = open;
        caller.reported_fds = open;
        if (BpfMapUpdateElem(map.get(), &caller.pid, &caller, BPF_ANY) != 0) {
            ALOGE("[KovaBpfService][INIT] update open_fd_caller_map failed! %s", strerror(errno));
            return;
        }
        ++written;
    });
    return written;
}

int KovaBpfService::initDmabufBpfProg() {
    dmabufFdStats.clear();
    dmabufProcessStats.clear();
    dmabufFdInodes.clear();
    dmabufMmapInodes.clear();

    const struct {
        const char* path;
        const char* failure;
    } kMaps[] = {
            {DMABUF_ALLOCATE_MAP_PATH, "[KovaBpfService][INIT] get dmabufAllocateMap(%d) failed! %s"},
            {DMABUF_SIZE_MAP_PATH, "[KovaBpfService][INIT] get dmabufSizeMap(%d) failed! %s"},
            {DMABUF_PERPROCESS_SIZE_MAP_PATH, "[KovaBpfService][INIT] get dmabufPerprocessSizeMap(%d) failed! %s"},
            {PROCESS_INODE_MAP_PATH, "[KovaBpfService][INIT] get processInodeMap(%d) failed! %s"},
            {PROCESS_MMAP_INFOS_PATH, "[KovaBpfService][INIT] get processMmapInfos(%d) failed! %s"},
    };
    unique_fd maps[5];
    for (size_t i = 0; i < 5; ++i) {
        maps[i] = OpenMap(kMaps[i].path);
        if (!maps[i].ok()) {
            ALOGE(kMaps[i].failure, -1, strerror(errno));
            return -1;
        }
    }

    DmabufSizes sizes;
    ForEachProcess([&](const char* name) {
        const int32_t pid = static_cast<int32_t>(strtol(name, nullptr, 10));
        ScanDmabufDescriptors(name, pid, &dmabufFdInodes, &sizes);
        if (!ScanDmabufMappings(name, pid, &dmabufMmapInodes, &sizes)) {
            ALOGW("[KovaBpfService][IMIT] Task not exists, so we skip it (%s)", name);
        }
    });
    std::map<int32_t, std::map<uint64_t, uint64_t>> countedBytes;
    KeepFollowable(&dmabufFdInodes, &sizes, "descriptors", &countedBytes);
    KeepFollowable(&dmabufMmapInodes, &sizes, "mappings", &countedBytes);
    dmabufFdStats = Sums(dmabufFdInodes, countedBytes);
    dmabufProcessStats = Sums(countedBytes, countedBytes);  // through either, each buffer once

    WriteAll(maps[0].get(), dmabufFdStats, "[KovaBpfService][INIT] update dmabuf allocate map failed! %s");
    // The same element into both: nothing has been reported yet, so "at the last report" is "now".
    WriteAll(maps[1].get(), dmabufProcessStats, "[KovaBpfService][INIT] update dmabufSizeMap failed! %s");
    WriteAll(maps[2].get(), dmabufProcessStats, "[KovaBpfService][INIT] update dmabufPerprocessSizeMap failed! %s");
    std::map<int32_t, kova_dmabuf_inode_set> fdSets, mmapSets;
    for (const auto& [pid, inodes] : dmabufFdInodes) fdSets[pid] = InodeSet(inodes, countedBytes[pid]);
    for (const auto& [pid, inodes] : dmabufMmapInodes) mmapSets[pid] = InodeSet(inodes, countedBytes[pid]);
    WriteAll(maps[3].get(), fdSets, "[KovaBpfService][INIT] update processInodeMap failed! %s");
    WriteAll(maps[4].get(), mmapSets, "[KovaBpfService][INIT] update processMmapInfos failed! %s");
    return 0;
}

}  // namespace Kova::Bpf
