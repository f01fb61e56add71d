#include "kova_flood_support.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cutils/sockets.h>
#include <errno.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "kova_ipc_test_util.h"

namespace kova::bench {

double ProcessCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

FloodProducer::FloodProducer(int ringBufferFd)
    : program_("kova_ringbuf_flood.o", "kova_ringbuf_flood", ringBufferFd) {}

int64_t FloodProducer::Write(uint32_t count, uint32_t type) {
    kova_flood_request request{};
    request.count = count;
    request.type = type;
    request.first_sequence = nextSequence_;
    LIBBPF_OPTS(bpf_test_run_opts, options, .ctx_in = &request, .ctx_size_in = sizeof(request));
    if (bpf_prog_test_run_opts(program_.fd(), &options) != 0) return -1;
    nextSequence_ += count;  // records that found the ring full keep their numbers: readers see a gap
    return static_cast<int64_t>(options.retval);
}

void Tally::Reset(uint64_t firstSequence, bool keepLatencies) {
    std::lock_guard<std::mutex> lock(lock_);
    received_ = 0;
    expected_ = firstSequence;
    lost_ = 0;
    lastReadNs_ = 0;
    awaited_ = UINT64_MAX;
    keepLatencies_ = keepLatencies;
    latenciesNs_.clear();
    if (keepLatencies) latenciesNs_.reserve(kMaxLatencies);
}

void Tally::Add(const kova_flood_record* records, size_t count, uint64_t readNs) {
    bool reached = false;
    {
        std::lock_guard<std::mutex> lock(lock_);
        for (size_t i = 0; i < count; ++i) {
            const kova_flood_record& record = records[i];
            if (record.sequence > expected_) lost_ += record.sequence - expected_;
            expected_ = record.sequence + 1;
            if (keepLatencies_ && latenciesNs_.size() < kMaxLatencies) {
                latenciesNs_.push_back(readNs - record.timestamp_ns);
            }
        }
        received_ += count;
        lastReadNs_ = readNs;
        reached = received_ >= awaited_;
    }
    // Waking the waiter on every read would cost the reader a futex call and a context switch each
    // time, which is the benchmark's cost, not the pipeline's.
    if (reached) arrived_.notify_all();
}

bool Tally::WaitFor(uint64_t count, int timeoutMs) {
    std::unique_lock<std::mutex> lock(lock_);
    awaited_ = count;
    const bool arrived =
            arrived_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return received_ >= count; });
    awaited_ = UINT64_MAX;
    return arrived;
}

uint64_t Tally::received() {
    std::lock_guard<std::mutex> lock(lock_);
    return received_;
}

uint64_t Tally::lost() {
    std::lock_guard<std::mutex> lock(lock_);
    return lost_;
}

uint64_t Tally::lastReadNs() {
    std::lock_guard<std::mutex> lock(lock_);
    return lastReadNs_;
}

double Tally::PercentileUs(double percentile) {
    std::lock_guard<std::mutex> lock(lock_);
    if (latenciesNs_.empty()) return 0;
    const size_t rank = std::min(latenciesNs_.size() - 1,
                                 static_cast<size_t>(percentile / 100.0 * static_cast<double>(latenciesNs_.size())));
    std::nth_element(latenciesNs_.begin(), latenciesNs_.begin() + static_cast<std::ptrdiff_t>(rank), latenciesNs_.end());
    return static_cast<double>(latenciesNs_[rank]) / 1000.0;
}

bool PackageStream::Fill() {
    if (begin_ == end_) {
        begin_ = end_ = 0;
    } else if (buffer_.size() - end_ < buffer_.size() / 2) {
        memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
    }
    while (true) {
        const ssize_t n = recv(fd_, buffer_.data() + end_, buffer_.size() - end_, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        end_ += static_cast<size_t>(n);
        return true;
    }
}

int ConnectAndSubscribe(const std::string& socketName, int32_t eventId) {
    int fd = -1;
    for (int attempt = 0; attempt < 250 && fd < 0; ++attempt) {
        fd = socket_local_client(socketName.c_str(), ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM);
        if (fd < 0) usleep(20000);
    }
    if (fd < 0) return -1;
    const std::string request = test::RequestFrame(1, 51, test::U32(static_cast<uint32_t>(eventId)));
    if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) {
        close(fd);
        return -1;
    }
    // Nothing is produced before the answer, so the answer is the first package on the stream.
    PackageStream stream(fd);
    bool answered = false;
    int32_t result = -1;
    while (!answered && stream.Fill()) {
        stream.Drain([&](uint32_t type, const char* payload, size_t size) {
            if (type != PACKAGE_TYPE_RESPONSE || size < sizeof(KovaRespIpcPackageHeader)) return;
            result = LoadIpcWire<KovaRespIpcPackageHeader>(payload).result;
            answered = true;
        });
    }
    if (!answered || result != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace kova::bench
