// The ring-buffer event pump and its fan-out, each measured beside its ceiling in the same run.
//
// In process (the producer thread's work):
//   - BM_CopyRecords: copying 32-byte records into 1 or 8 destinations, nothing else (the ceiling);
//   - BM_DispatchFanOut: the same records through KovaBpfService::handleBpfRingBuffEvent, which counts
//     each one and fans it out with EventManager::AppendEvent to 0, 1 or 8 subscribed connections. The
//     subscribers are real connections of the running service, drained by a reader thread, so the IPC
//     thread sends while the producer appends, as in the service.
// End to end (kernel to client):
//   - a BPF program (bpf/bench/kova_ringbuf_flood.bpf.c) writes stamped, numbered records into the
//     service's normal ring buffer; one subscribed client reads them from the socket;
//   - the ceiling: the same program fills a ring buffer of the same size that a minimal pipeline
//     drains with ring_buffer__poll, writing the raw records in 32 KiB batches through a Unix socket
//     pair to a reader that counts them.
//   BM_EndToEndBurst: bursts written as fast as the kernel can, each below the client's queue bound
//   (10000 packages); the rate is records over the time from the first write to the last read, and
//   every record must arrive. BM_EndToEndFlood: one second of writing without pause; what arrives, what
//   found the ring full, what was lost after the ring. BM_EndToEndLatency: single records at a fixed
//   rate; latency from the kernel's write (bpf_ktime_get_ns) to the client's read.
//
// Needs root and BPF. Run: build/bin/event_pump_bench --benchmark_repetitions=5
//   --benchmark_report_aggregates_only=true (see bench/README.md).

#include <benchmark/benchmark.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <errno.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kova_bpf_records.h"
#include "kova_flood_support.h"
#include "kova_service_harness.h"
#include "service/kova_bpf_service.h"
#include "utils/kova_bpf_paths.h"

namespace kova::bench {
namespace {

using Kova::Bpf::KovaBpfService;

// Records of a type without a handler measure the dispatch and the fan-out alone.
constexpr uint32_t kInProcessEventId = KOVA_RAW_FD_UPDATE;
constexpr uint32_t kFloodEventId = KOVA_RAW_CGROUP_ATTACH;
constexpr size_t kBatch = 4096;  // records per timed batch in process: below the queue bound
constexpr size_t kFrameBytes = 8 + 8 + sizeof(kova_flood_record);  // frame header, package header, record
constexpr size_t kSendBatchBytes = 32768;  // the service's write buffer, used by the minimal pipeline too

// ---- The service, started once for the whole run ----

struct RunningService {
    std::unique_ptr<test::ServiceHarness> harness;
    std::string error;
};

RunningService& Service() {
    static RunningService* const service = [] {
        auto* running = new RunningService;
        std::string reason;
        if (!test::HaveBpf(&reason)) {
            running->error = reason;
            return running;
        }
        running->harness = std::make_unique<test::ServiceHarness>(KOVA_RINGBUF_SIZE);
        if (!running->harness->Start()) running->error = "the service did not start";
        return running;
    }();
    return *service;
}

std::vector<kova_flood_record> Records(uint32_t type, size_t count) {
    std::vector<kova_flood_record> records(count);
    for (size_t i = 0; i < count; ++i) records[i] = {type, 0, 1000 + i, i, 0};
    return records;
}

// Process CPU (all threads) per record since `cpuStart`, in nanoseconds.
void ReportCpuPerRecord(benchmark::State& state, double cpuStart, uint64_t records) {
    state.counters["cpu_ns_per_record"] =
            records > 0 ? (ProcessCpuSeconds() - cpuStart) * 1e9 / static_cast<double>(records) : 0;
}

// ---- In process ----

void BM_CopyRecords(benchmark::State& state) {
    const size_t copies = static_cast<size_t>(state.range(0));
    const std::vector<kova_flood_record> records = Records(kInProcessEventId, kBatch);
    std::vector<std::vector<char>> targets(copies, std::vector<char>(kBatch * sizeof(kova_flood_record)));
    for (auto _ : state) {
        for (size_t i = 0; i < kBatch; ++i) {
            for (std::vector<char>& target : targets) {
                memcpy(target.data() + i * sizeof(kova_flood_record), &records[i], sizeof(kova_flood_record));
            }
        }
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kBatch));
}
BENCHMARK(BM_CopyRecords)->ArgName("copies")->Arg(1)->Arg(8)->UseRealTime();

// Connections of the running service subscribed to one event id, with one thread that reads and
// discards everything they receive.
class Subscribers {
  public:
    Subscribers(const std::string& socketName, int count, int32_t eventId) {
        epoll_.reset(epoll_create1(EPOLL_CLOEXEC));
        for (int i = 0; i < count; ++i) {
            const int fd = ConnectAndSubscribe(socketName, eventId);
            if (fd < 0) return;
            fds_.emplace_back(fd);
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.fd = fd;
            epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event);
        }
        ok_ = true;
        reader_ = std::thread([this] { Read(); });
    }
    ~Subscribers() {
        stop_ = true;
        if (reader_.joinable()) reader_.join();
        fds_.clear();
        // The service forgets closed subscribers on its IPC thread; let it, before the next benchmark.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    bool ok() const { return ok_; }
    bool WaitForBytes(uint64_t bytes, int timeoutMs) {
        std::unique_lock<std::mutex> lock(lock_);
        awaited_ = bytes;
        const bool arrived =
                arrived_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return bytes_ >= bytes; });
        awaited_ = UINT64_MAX;
        return arrived;
    }

  private:
    void Read() {
        std::vector<char> buffer(1 << 16);
        epoll_event events[16];
        while (!stop_) {
            const int ready = epoll_wait(epoll_.get(), events, 16, 50);
            for (int i = 0; i < ready; ++i) {
                const ssize_t n = recv(events[i].data.fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
                if (n <= 0) continue;
                bool reached = false;
                {
                    std::lock_guard<std::mutex> lock(lock_);
                    bytes_ += static_cast<uint64_t>(n);
                    reached = bytes_ >= awaited_;
                }
                if (reached) arrived_.notify_all();  // only then: see Tally::Add
            }
        }
    }

    android::base::unique_fd epoll_;
    std::vector<android::base::unique_fd> fds_;
    bool ok_ = false;
    std::atomic<bool> stop_{false};
    std::thread reader_;
    std::mutex lock_;
    std::condition_variable arrived_;
    uint64_t bytes_ = 0;
    uint64_t awaited_ = UINT64_MAX;
};

void BM_DispatchFanOut(benchmark::State& state) {
    RunningService& service = Service();
    if (!service.error.empty()) {
        state.SkipWithError(service.error.c_str());
        return;
    }
    const int subscriberCount = static_cast<int>(state.range(0));
    Subscribers subscribers(service.harness->socketName(), subscriberCount, kInProcessEventId);
    if (!subscribers.ok()) {
        state.SkipWithError("cannot connect and subscribe");
        return;
    }
    std::vector<kova_flood_record> records = Records(kInProcessEventId, kBatch);
    uint64_t expectedBytes = 0;
    const double cpuStart = ProcessCpuSeconds();
    for (auto _ : state) {
        for (kova_flood_record& record : records) {
            KovaBpfService::handleBpfRingBuffEvent(nullptr, &record, sizeof(record));
        }
        // Every batch is delivered before the next, so no queue nears its bound.
        state.PauseTiming();
        expectedBytes += static_cast<uint64_t>(subscriberCount) * kBatch * kFrameBytes;
        if (!subscribers.WaitForBytes(expectedBytes, 10000)) {
            state.SkipWithError("the subscribers did not receive every record");
            break;
        }
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kBatch));
    ReportCpuPerRecord(state, cpuStart, state.iterations() * kBatch);
}
BENCHMARK(BM_DispatchFanOut)->ArgName("subscribers")->Arg(0)->Arg(1)->Arg(8)->UseRealTime();

// ---- End to end ----

// A producer, a ring buffer, something that drains it, and one reader that tallies what arrives.
class Pipeline {
  public:
    virtual ~Pipeline() = default;
    FloodProducer& producer() { return *producer_; }
    Tally& tally() { return tally_; }
    const std::string& error() const { return error_; }

  protected:
    std::unique_ptr<FloodProducer> producer_;
    Tally tally_;
    std::string error_;
};

// The service: the flood program writes into its normal ring buffer; one client subscribed to the
// records' id reads the socket.
class ServicePipeline : public Pipeline {
  public:
    ServicePipeline() {
        RunningService& service = Service();
        if (!service.error.empty()) {
            error_ = service.error;
            return;
        }
        android::base::unique_fd ring(
                bpf_obj_get(Kova::Bpf::KovaPath("/sys/fs/bpf/kova/map_KovaBpfDefineset_ringbuf_map").c_str()));
        producer_ = std::make_unique<FloodProducer>(ring.get());
        if (!producer_->ok()) {
            error_ = producer_->error();
            return;
        }
        client_.reset(ConnectAndSubscribe(service.harness->socketName(), kFloodEventId));
        if (!client_.ok()) {
            error_ = "cannot connect and subscribe";
            return;
        }
        reader_ = std::thread([this] { Read(); });
    }
    ~ServicePipeline() override {
        if (client_.ok()) shutdown(client_.get(), SHUT_RDWR);
        if (reader_.joinable()) reader_.join();
    }

  private:
    void Read() {
        PackageStream stream(client_.get());
        std::vector<kova_flood_record> records;
        while (stream.Fill()) {
            const uint64_t readNs = MonotonicNs();
            records.clear();
            stream.Drain([&](uint32_t type, const char* payload, size_t size) {
                if (type != PACKAGE_TYPE_EVENT || size != sizeof(kova_flood_record)) return;
                records.push_back(LoadIpcWire<kova_flood_record>(payload));
            });
            tally_.Add(records.data(), records.size(), readNs);
        }
    }

    android::base::unique_fd client_;
    std::thread reader_;
};

// The ceiling: a ring buffer of the same size, drained with ring_buffer__poll by a thread that writes
// the raw records, 32 KiB at a time, into a Unix socket pair; a reader cuts the stream into records.
class MinimalPipeline : public Pipeline {
  public:
    MinimalPipeline() {
        std::string reason;
        if (!test::HaveBpf(&reason)) {
            error_ = reason;
            return;
        }
        ring_.reset(bpf_map_create(BPF_MAP_TYPE_RINGBUF, "bench_ring", 0, 0, KOVA_RINGBUF_SIZE, nullptr));
        int pair[2];
        if (!ring_.ok() || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
            error_ = std::string("cannot create the ring buffer or the socket pair: ") + strerror(errno);
            return;
        }
        writeEnd_.reset(pair[0]);
        readEnd_.reset(pair[1]);
        producer_ = std::make_unique<FloodProducer>(ring_.get());
        if (!producer_->ok()) {
            error_ = producer_->error();
            return;
        }
        consumer_ = ring_buffer__new(ring_.get(), &MinimalPipeline::OnRecord, this, nullptr);
        if (consumer_ == nullptr) {
            error_ = "ring_buffer__new failed";
            return;
        }
        batch_.reserve(2 * kSendBatchBytes);
        drainer_ = std::thread([this] { Drain(); });
        reader_ = std::thread([this] { Read(); });
    }
    ~MinimalPipeline() override {
        stop_ = true;
        if (drainer_.joinable()) drainer_.join();
        if (writeEnd_.ok()) shutdown(writeEnd_.get(), SHUT_WR);
        if (reader_.joinable()) reader_.join();
        if (consumer_ != nullptr) ring_buffer__free(consumer_);
    }

  private:
    static int OnRecord(void* context, void* data, size_t size) {
        auto* self = static_cast<MinimalPipeline*>(context);
        const char* bytes = static_cast<const char*>(data);
        self->batch_.insert(self->batch_.end(), bytes, bytes + size);
        if (self->batch_.size() >= kSendBatchBytes) self->Flush();
        return 0;
    }
    void Flush() {
        size_t sent = 0;
        while (sent < batch_.size()) {
            const ssize_t n = write(writeEnd_.get(), batch_.data() + sent, batch_.size() - sent);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            sent += static_cast<size_t>(n);
        }
        batch_.clear();
    }
    void Drain() {
        while (!stop_) {
            // A time limit only so that the thread can stop; records wake it at once.
            if (ring_buffer__poll(consumer_, 100) > 0 && !batch_.empty()) Flush();
        }
    }
    void Read() {
        std::vector<char> buffer(1 << 16);
        std::vector<kova_flood_record> records;
        size_t carried = 0;
        while (true) {
            const ssize_t n = read(readEnd_.get(), buffer.data() + carried, buffer.size() - carried);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return;
            const uint64_t readNs = MonotonicNs();
            const size_t have = carried + static_cast<size_t>(n);
            const size_t whole = have / sizeof(kova_flood_record);
            records.resize(whole);
            memcpy(records.data(), buffer.data(), whole * sizeof(kova_flood_record));
            carried = have - whole * sizeof(kova_flood_record);
            memmove(buffer.data(), buffer.data() + whole * sizeof(kova_flood_record), carried);
            tally_.Add(records.data(), records.size(), readNs);
        }
    }

    android::base::unique_fd ring_;
    android::base::unique_fd writeEnd_;
    android::base::unique_fd readEnd_;
    ring_buffer* consumer_ = nullptr;
    std::vector<char> batch_;  // drainer thread only
    std::atomic<bool> stop_{false};
    std::thread drainer_;
    std::thread reader_;
};

enum PipelineKind { kMinimal = 0, kService = 1 };

std::unique_ptr<Pipeline>& PipelineSlot(int kind) {
    static std::unique_ptr<Pipeline> pipelines[2];
    return pipelines[kind];
}

Pipeline* GetPipeline(benchmark::State& state) {
    std::unique_ptr<Pipeline>& slot = PipelineSlot(static_cast<int>(state.range(0)));
    if (!slot) {
        if (state.range(0) == kService) {
            slot = std::make_unique<ServicePipeline>();
        } else {
            slot = std::make_unique<MinimalPipeline>();
        }
    }
    if (!slot->error().empty()) {
        state.SkipWithError(slot->error().c_str());
        return nullptr;
    }
    return slot.get();
}

void BM_EndToEndBurst(benchmark::State& state) {
    Pipeline* pipeline = GetPipeline(state);
    if (pipeline == nullptr) return;
    const uint32_t burst = static_cast<uint32_t>(state.range(1));
    FloodProducer& producer = pipeline->producer();
    Tally& tally = pipeline->tally();
    tally.Reset(producer.nextSequence(), true);
    uint64_t written = 0;
    uint64_t ringFull = 0;
    const double cpuStart = ProcessCpuSeconds();
    for (auto _ : state) {
        const uint64_t start = MonotonicNs();
        const int64_t accepted = producer.Write(burst, kFloodEventId);
        if (accepted < 0) {
            state.SkipWithError("the flood program cannot run");
            return;
        }
        written += static_cast<uint64_t>(accepted);
        ringFull += burst - static_cast<uint64_t>(accepted);
        if (!tally.WaitFor(written, 5000)) {
            const std::string message = "records lost: " + std::to_string(written - tally.received()) + " of " +
                                        std::to_string(written) + " never arrived";
            state.SkipWithError(message.c_str());
            return;
        }
        state.SetIterationTime(static_cast<double>(tally.lastReadNs() - start) / 1e9);
    }
    state.SetItemsProcessed(static_cast<int64_t>(tally.received()));
    ReportCpuPerRecord(state, cpuStart, tally.received());
    state.counters["lost"] = static_cast<double>(tally.lost());
    state.counters["ring_full"] = static_cast<double>(ringFull);
    state.counters["p50_us"] = tally.PercentileUs(50);
    state.counters["p99_us"] = tally.PercentileUs(99);
}
BENCHMARK(BM_EndToEndBurst)
        ->ArgNames({"service", "burst"})
        ->ArgsProduct({{kMinimal, kService}, {1000, 8000}})
        ->UseManualTime();

void BM_EndToEndFlood(benchmark::State& state) {
    Pipeline* pipeline = GetPipeline(state);
    if (pipeline == nullptr) return;
    constexpr uint32_t kPerRun = 256;
    constexpr uint64_t kDurationNs = 1000000000ull;
    FloodProducer& producer = pipeline->producer();
    Tally& tally = pipeline->tally();
    uint64_t attempted = 0;
    uint64_t written = 0;
    uint64_t received = 0;
    double elapsed = 0;
    const double cpuStart = ProcessCpuSeconds();
    for (auto _ : state) {
        tally.Reset(producer.nextSequence(), false);
        const uint64_t start = MonotonicNs();
        const uint64_t writtenBefore = written;
        uint64_t now = start;
        while (now - start < kDurationNs) {
            const int64_t accepted = producer.Write(kPerRun, kFloodEventId);
            if (accepted < 0) {
                state.SkipWithError("the flood program cannot run");
                return;
            }
            attempted += kPerRun;
            written += static_cast<uint64_t>(accepted);
            now = MonotonicNs();
        }
        // What is still on its way arrives within a second, or is lost.
        tally.WaitFor(written - writtenBefore, 1000);
        received += tally.received();
        const double seconds = static_cast<double>(std::max(tally.lastReadNs(), now) - start) / 1e9;
        elapsed += seconds;
        state.SetIterationTime(seconds);
    }
    state.SetItemsProcessed(static_cast<int64_t>(received));
    ReportCpuPerRecord(state, cpuStart, received);
    state.counters["offered_per_s"] = benchmark::Counter(static_cast<double>(attempted) / elapsed);
    state.counters["ring_full"] = static_cast<double>(attempted - written);
    state.counters["lost_after_ring"] = static_cast<double>(written - received);
}
BENCHMARK(BM_EndToEndFlood)->ArgName("service")->Arg(kMinimal)->Arg(kService)->Iterations(1)->UseManualTime();

void BM_EndToEndLatency(benchmark::State& state) {
    Pipeline* pipeline = GetPipeline(state);
    if (pipeline == nullptr) return;
    const uint64_t rate = static_cast<uint64_t>(state.range(1));
    const uint64_t periodNs = 1000000000ull / rate;
    const uint64_t samples = 2 * rate;  // two seconds
    FloodProducer& producer = pipeline->producer();
    Tally& tally = pipeline->tally();
    for (auto _ : state) {
        tally.Reset(producer.nextSequence(), true);
        const uint64_t start = MonotonicNs();
        uint64_t written = 0;
        for (uint64_t i = 0; i < samples; ++i) {
            const uint64_t due = start + i * periodNs;
            const timespec wake{static_cast<time_t>(due / 1000000000ull), static_cast<long>(due % 1000000000ull)};
            while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &wake, nullptr) == EINTR) {
            }
            const int64_t accepted = producer.Write(1, kFloodEventId);
            if (accepted < 0) {
                state.SkipWithError("the flood program cannot run");
                return;
            }
            written += static_cast<uint64_t>(accepted);
        }
        if (!tally.WaitFor(written, 5000)) {
            state.SkipWithError("records lost at a paced rate");
            return;
        }
        state.SetIterationTime(static_cast<double>(tally.lastReadNs() - start) / 1e9);
    }
    state.SetItemsProcessed(static_cast<int64_t>(tally.received()));
    state.counters["p50_us"] = tally.PercentileUs(50);
    state.counters["p99_us"] = tally.PercentileUs(99);
    state.counters["p999_us"] = tally.PercentileUs(99.9);
    state.counters["max_us"] = tally.PercentileUs(100);
    state.counters["lost"] = static_cast<double>(tally.lost());
}
BENCHMARK(BM_EndToEndLatency)
        ->ArgNames({"service", "rate"})
        ->ArgsProduct({{kMinimal, kService}, {1000, 10000}})
        ->Iterations(1)
        ->UseManualTime();

}  // namespace
}  // namespace kova::bench

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    // Readers and producers first, then the service they talk to.
    kova::bench::PipelineSlot(kova::bench::kService).reset();
    kova::bench::PipelineSlot(kova::bench::kMinimal).reset();
    kova::bench::Service().harness.reset();
    return 0;
}
