#include "kova_service_harness.h"

#include <bpf/bpf.h>
#include <string.h>

#include "kova_bpf_records.h"

namespace kova::test {
namespace {

constexpr const char* kObjects[2] = {"KovaBpfDefineset", "KovaBpfGplDefineset"};

}  // namespace

std::string ForkRecord(int32_t pid, const char* comm, uint32_t kind, uint64_t timestampNs, int32_t ppid, uint32_t uid) {
    kova_task_create_record record{};
    record.type = KOVA_RAW_TASK_CREATE;
    record.timestamp_ns = timestampNs;
    record.ppid = ppid;
    record.pid = pid;
    record.uid = uid;
    strncpy(record.comm, comm, sizeof(record.comm) - 1);
    record.kind = kind;
    return RecordBytes(record);
}

std::string ExitRecord(int32_t pid, const char* comm, uint64_t timestampNs, uint32_t kind) {
    kova_task_exit_record record{};
    record.type = KOVA_RAW_TASK_EXIT;
    record.timestamp_ns = timestampNs;
    record.pid = pid;
    strncpy(record.comm, comm, sizeof(record.comm) - 1);
    record.kind = kind;
    return RecordBytes(record);
}

std::string RssRecord(int32_t pid, int32_t member, int64_t size, uint64_t timestampNs) {
    kova_rss_record record{};
    record.type = KOVA_RAW_RSS;
    record.timestamp_ns = timestampNs;
    record.pid = pid;
    record.member = member;
    record.size = size;
    return RecordBytes(record);
}

PinnedRings::PinnedRings(uint32_t ringSize) {
    for (int ring = 0; ring < 2; ++ring) {
        const std::string prefix = std::string("map_") + kObjects[ring] + "_";
        ring_[ring].reset(bpf_map_create(BPF_MAP_TYPE_RINGBUF, "ringbuf_map", 0, 0, ringSize, nullptr));
        status_[ring].reset(bpf_map_create(BPF_MAP_TYPE_ARRAY, "ringbuf_status", sizeof(uint32_t), sizeof(uint64_t),
                                           KOVA_STATUS_KEY_COUNT, nullptr));
        if (!ring_[ring].ok() || !status_[ring].ok()) continue;
        pins_.Pin(ring_[ring].get(), prefix + "ringbuf_map");
        pins_.Pin(status_[ring].get(), prefix + "ringbuf_status");
        injector_[ring] = std::make_unique<RingBufferInjector>(ring_[ring].get());
    }
}

bool PinnedRings::ok() const {
    for (int ring = 0; ring < 2; ++ring) {
        if (!injector_[ring] || !injector_[ring]->ok()) return false;
    }
    return true;
}

bool PinnedRings::WaitForMonitors(std::chrono::milliseconds timeout) const {
    constexpr uint64_t kEnabled = KOVA_STATUS_CORE | KOVA_STATUS_NORMAL;
    return WaitUntil(
            [this] {
                return (StatusWord(kNormalRing) & kEnabled) == kEnabled && (StatusWord(kGplRing) & kEnabled) == kEnabled;
            },
            timeout);
}

ServiceHarness::~ServiceHarness() {
    if (started_) Stop();
}

bool ServiceHarness::Start() {
    properties_.Set("sys.kova_bpf_ready", "1");
    if (!Kova::Bpf::BpfServiceMain()) return false;
    started_ = true;
    return WaitForMonitors(std::chrono::seconds(10));
}

void ServiceHarness::Stop() {
    started_ = false;
    service()->stop();
    service()->Wait();
}

bool PinnedRings::Inject(Ring ring, const std::string& bytes) {
    return injector_[ring] && injector_[ring]->ok() && injector_[ring]->Write(bytes);
}

uint64_t PinnedRings::StatusWord(Ring ring) const {
    uint32_t key = KOVA_STATUS_WORD;
    uint64_t value = 0;
    return bpf_map_lookup_elem(status_[ring].get(), &key, &value) == 0 ? value : ~0ull;
}

bool PinnedRings::SetStatus(Ring ring, uint32_t key, uint64_t value) const {
    return bpf_map_update_elem(status_[ring].get(), &key, &value, BPF_ANY) == 0;
}

}  // namespace kova::test
