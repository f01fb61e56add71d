// The service, started in the test's own process against ring buffers and status maps that the test
// created and pinned under the service's names, with every fixed path redirected to the test.
#pragma once

#include <stdint.h>

#include <chrono>
#include <memory>
#include <string>

#include <android-base/unique_fd.h>

#include "kova_bpf_fixture.h"
#include "kova_bpf_records.h"
#include "kova_ringbuf_injector.h"
#include "kova_test_support.h"
#include "service/kova_bpf_service.h"
#include "utils/kova_bpf_paths.h"

namespace kova::test {

template <typename Record>
std::string RecordBytes(const Record& record) {
    return std::string(reinterpret_cast<const char*>(&record), sizeof(record));
}
// Records as the kernel programs write them (names are cut to 15 characters).
std::string ForkRecord(int32_t pid, const char* comm, uint32_t kind = KOVA_TASK_KIND_PROCESS, uint64_t timestampNs = 1,
                       int32_t ppid = 1, uint32_t uid = 2000);
std::string ExitRecord(int32_t pid, const char* comm, uint64_t timestampNs = 2,
                       uint32_t kind = KOVA_TASK_KIND_PROCESS);
std::string RssRecord(int32_t pid, int32_t member, int64_t size, uint64_t timestampNs);

// The two rings' ring-buffer and status maps, created by the test and pinned under the service's names
// in a bpffs directory of the test's own, with an injector for each ring buffer.
class PinnedRings {
  public:
    enum Ring { kNormalRing = 0, kGplRing = 1 };

    explicit PinnedRings(uint32_t ringSize = 256 * 1024);
    bool ok() const;
    const BpfTestDir& pins() const { return pins_; }
    // Writes `bytes` as one record into a ring buffer, from the kernel side.
    bool Inject(Ring ring, const std::string& bytes);
    uint64_t StatusWord(Ring ring) const;
    bool SetStatus(Ring ring, uint32_t key, uint64_t value) const;
    // Waits until the monitors of both rings have set the core and normal bits.
    bool WaitForMonitors(std::chrono::milliseconds timeout) const;

  private:
    BpfTestDir pins_;
    android::base::unique_fd ring_[2];
    android::base::unique_fd status_[2];
    std::unique_ptr<RingBufferInjector> injector_[2];
};

class ServiceHarness : public PinnedRings {
  public:
    // Creates and pins both rings' maps (ring buffers of `ringSize` bytes); /proc is redirected to an
    // empty directory, so that the start-up scan is under the test's control.
    explicit ServiceHarness(uint32_t ringSize = 256 * 1024) : PinnedRings(ringSize) {}
    ~ServiceHarness();

    // Runs the entry with readiness set and waits until both monitors have set status bits 1 and 2.
    bool Start();
    // stop() and Wait(), as the daemon does.
    void Stop();

    Kova::Bpf::KovaBpfService* service() const { return Kova::Bpf::KovaBpfService::GetInstance(); }
    const std::string& socketName() const { return roots_.socketName(); }

  private:
    ScopedPropertyStore properties_;
    ScopedServiceRoots roots_;
    TempDir proc_;
    ScopedRoot pinRoot_{Kova::Bpf::KOVA_PIN_DIR, pins().path()};
    ScopedRoot procRoot_{Kova::Bpf::KOVA_PROC_DIR, proc_.path()};
    bool started_ = false;
};

}  // namespace kova::test
