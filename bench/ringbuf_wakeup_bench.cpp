// What bounded wake-up batching saves: a fork storm observed by the normal object's fork and exit
// programs, with and without its sched_switch program (which enables batching), against a consumer
// that waits in the ring buffer's poll like the service's. Reports forks per second, records, records
// per consumer wake-up and the consumer's CPU time per record. Process births and ends are written
// with a wake-up of their own, so batching leaves this storm's records alone: the two variants show
// what that costs the consumer.
//
//   build/bin/ringbuf_wakeup_bench        (as root, with BPF)

#include <benchmark/benchmark.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "kova_bpf_records.h"

namespace {

double ThreadCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// The normal object, loaded privately (no pins) with the chosen programs attached.
class ObservedStorm {
  public:
    explicit ObservedStorm(bool batching) {
        const std::string path = std::string(KOVA_BPF_OBJECT_DIR) + "/KovaBpfDefineset.o";
        object_ = bpf_object__open_file(path.c_str(), nullptr);
        if (object_ == nullptr || bpf_object__load(object_) != 0) {
            error_ = "cannot load " + path + " (needs root and BPF)";
            return;
        }
        std::vector<const char*> programs{"sched_sched_process_fork", "sched_sched_process_exit"};
        if (batching) programs.push_back("sched_sched_switch");
        for (const char* name : programs) {
            bpf_link* link = bpf_program__attach(bpf_object__find_program_by_name(object_, name));
            if (link == nullptr) {
                error_ = std::string("cannot attach ") + name;
                return;
            }
            links_.push_back(link);
        }
        const uint32_t key = KOVA_STATUS_WORD;
        const uint64_t word = KOVA_STATUS_CORE | KOVA_STATUS_NORMAL;
        bpf_map_update_elem(bpf_map__fd(bpf_object__find_map_by_name(object_, "ringbuf_status")), &key, &word, BPF_ANY);
        ring_ = ring_buffer__new(bpf_map__fd(bpf_object__find_map_by_name(object_, "ringbuf_map")), &OnRecord, this,
                                 nullptr);
        consumer_ = std::thread([this] {
            const double start = ThreadCpuSeconds();
            while (!stop_) {
                if (ring_buffer__poll(ring_, 100) > 0) wakeups_++;
            }
            cpuSeconds_ = ThreadCpuSeconds() - start;
        });
    }
    ~ObservedStorm() {
        Stop();
        if (ring_ != nullptr) ring_buffer__free(ring_);
        for (bpf_link* link : links_) bpf_link__destroy(link);
        if (object_ != nullptr) bpf_object__close(object_);
    }
    void Stop() {
        stop_ = true;
        if (consumer_.joinable()) consumer_.join();
    }
    const std::string& error() const { return error_; }
    long records() const { return records_; }
    long wakeups() const { return wakeups_; }
    double cpuSeconds() const { return cpuSeconds_; }

  private:
    static int OnRecord(void* context, void*, size_t) {
        static_cast<ObservedStorm*>(context)->records_++;
        return 0;
    }

    bpf_object* object_ = nullptr;
    std::vector<bpf_link*> links_;
    ring_buffer* ring_ = nullptr;
    std::thread consumer_;
    std::atomic<bool> stop_{false};
    std::atomic<long> records_{0}, wakeups_{0};
    double cpuSeconds_ = 0;
    std::string error_;
};

void BM_ObservedForkStorm(benchmark::State& state) {
    ObservedStorm storm(state.range(0) != 0);
    if (!storm.error().empty()) {
        state.SkipWithError(storm.error().c_str());
        return;
    }
    for (auto _ : state) {
        const pid_t child = fork();
        if (child == 0) _exit(0);
        waitpid(child, nullptr, 0);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // lets the last batch arrive
    storm.Stop();
    const double records = static_cast<double>(storm.records());
    state.counters["forks/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["records"] = records;
    state.counters["records/wakeup"] = storm.wakeups() > 0 ? records / static_cast<double>(storm.wakeups()) : 0;
    state.counters["consumer_us/record"] = records > 0 ? storm.cpuSeconds() * 1e6 / records : 0;
}
BENCHMARK(BM_ObservedForkStorm)->ArgName("batching")->Arg(0)->Arg(1)->Iterations(5000)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
