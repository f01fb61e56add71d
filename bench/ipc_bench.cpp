// Throughput of the IPC layer, each measured beside a baseline in the same run:
//   - framing: frames cut out of a full 32768-byte receive buffer of event frames of 32, 96 and 1024
//     bytes, bare and with dispatch by type, against a memcpy of the same bytes;
//   - queueing: event packages built into an IpcPackageManager and drained into a 32768-byte write
//     buffer, against a memcpy of the same bytes;
//   - delivery: 32-byte events from a server UnixIpcManager to 1 and 8 client managers over real local
//     sockets, against the same bytes written and read in 32768-byte blocks over a socket pair.
//
// Run: build/bin/ipc_bench (add --benchmark_filter=... to pick).

#include <benchmark/benchmark.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ipc/kova_bpf_ipc_helper.h"
#include "ipc/kova_bpf_ipc_package.h"
#include "ipc/kova_bpf_ipc_package_handler.h"
#include "ipc/kova_bpf_ipc_package_manager.h"
#include "ipc/kova_bpf_unix_ipc_manager.h"

namespace {

constexpr size_t kBufferSize = 32768;

// An event record of `frameSize - 16` bytes, so that its frame is `frameSize` bytes long.
std::vector<char> Record(size_t frameSize) {
    std::vector<char> record(frameSize - 16, 'e');
    const int32_t eventId = 50001;
    memcpy(record.data(), &eventId, sizeof(eventId));
    return record;
}

// A receive buffer holding as many whole event frames of `frameSize` bytes as fit.
BufferState FullReceiveBuffer(size_t frameSize) {
    BufferState buffer;
    buffer.buffer.assign(kBufferSize, 0);
    IpcPackageManager queue;
    const std::vector<char> record = Record(frameSize);
    for (size_t i = 0; i < kBufferSize / frameSize; ++i) {
        queue.buildAndAppendSecondIpcPackage(PACKAGE_TYPE_EVENT, record.data(), record.size());
    }
    queue.fillIpcPackageToBuffer(&buffer);
    return buffer;
}

void SetCounters(benchmark::State& state, size_t frames, size_t bytes) {
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * frames));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

void BM_MemcpyReceiveBuffer(benchmark::State& state) {
    const size_t frameSize = static_cast<size_t>(state.range(0));
    const BufferState source = FullReceiveBuffer(frameSize);
    std::vector<char> target(kBufferSize);
    for (auto _ : state) {
        memcpy(target.data(), source.buffer.data(), source.bufferDataCursor);
        benchmark::ClobberMemory();
    }
    SetCounters(state, kBufferSize / frameSize, source.bufferDataCursor);
}

void BM_FrameParse(benchmark::State& state) {
    const size_t frameSize = static_cast<size_t>(state.range(0));
    BufferState buffer = FullReceiveBuffer(frameSize);
    for (auto _ : state) {
        buffer.bufferCursor = 0;
        char* body = nullptr;
        size_t size = 0;
        size_t seen = 0;
        while (ReadNextIpcFrame(&buffer, &body, &size)) seen += ReadSecondLevelPackageHeader(body, size).size;
        benchmark::DoNotOptimize(seen);
    }
    SetCounters(state, kBufferSize / frameSize, buffer.bufferDataCursor);
}

void BM_FrameDispatch(benchmark::State& state) {
    const size_t frameSize = static_cast<size_t>(state.range(0));
    BufferState buffer = FullReceiveBuffer(frameSize);
    size_t seen = 0;
    IpcPackageHandler handler({{PACKAGE_TYPE_EVENT, [&seen](int, char* payload, size_t size) {
                                    int32_t eventId;
                                    memcpy(&eventId, payload, sizeof(eventId));
                                    seen += size + static_cast<size_t>(eventId);
                                    return 0;
                                }}});
    for (auto _ : state) {
        buffer.bufferCursor = 0;
        handler.handleAllIpcPackageInBuffer(3, &buffer);
        benchmark::DoNotOptimize(seen);
    }
    SetCounters(state, kBufferSize / frameSize, buffer.bufferDataCursor);
}

// Drained one package per call (range 1 = 0), as the service's write handler does, or all that fit in
// one call (range 1 = 1).
void BM_QueueAndDrain(benchmark::State& state) {
    const size_t frameSize = static_cast<size_t>(state.range(0));
    const bool batch = state.range(1) != 0;
    const size_t frames = kBufferSize / frameSize;
    const std::vector<char> record = Record(frameSize);
    IpcPackageManager queue;
    BufferState buffer;
    buffer.buffer.assign(kBufferSize, 0);
    for (auto _ : state) {
        for (size_t i = 0; i < frames; ++i) {
            queue.buildAndAppendSecondIpcPackage(PACKAGE_TYPE_EVENT, record.data(), record.size());
        }
        buffer.bufferCursor = buffer.bufferDataCursor = 0;
        if (batch) {
            queue.fillIpcPackageToBuffer(&buffer);
        } else {
            while (queue.fillNextIpcPackageToBuffer(&buffer)) {
            }
        }
        benchmark::DoNotOptimize(buffer.bufferDataCursor);
    }
    SetCounters(state, frames, frames * frameSize);
}

void BM_MemcpyQueueBytes(benchmark::State& state) {
    // The same bytes copied the way the queue copies them: once per package into its own storage, once
    // into the write buffer.
    const size_t frameSize = static_cast<size_t>(state.range(0));
    const size_t frames = kBufferSize / frameSize;
    const std::vector<char> record = Record(frameSize);
    std::vector<char> staging(kBufferSize);
    std::vector<char> target(kBufferSize);
    for (auto _ : state) {
        for (size_t i = 0; i < frames; ++i) memcpy(staging.data() + i * frameSize, record.data(), record.size());
        memcpy(target.data(), staging.data(), frames * frameSize);
        benchmark::ClobberMemory();
    }
    SetCounters(state, frames, frames * frameSize);
}

// A server manager shaped like the service's, with a package queue per connection, and client managers
// that count the events they receive.
class DeliveryRig {
  public:
    // `batchDrain`: the write handler drains with one fillIpcPackageToBuffer call per batch instead of
    // one fillNextIpcPackageToBuffer call per package.
    DeliveryRig(int clients, bool batchDrain) : name("kova-ipc-bench-" + std::to_string(getpid())) {
        IpcHandlerState serverHandlers;
        serverHandlers.compactBeforeRead = serverHandlers.closeOnFailure = serverHandlers.thirdFlag = true;
        serverHandlers.readHandler = [](int, BufferState* buffer) {
            buffer->bufferCursor = buffer->bufferDataCursor;
            return 0;
        };
        serverHandlers.writeHandler = [this, batchDrain](int fd, BufferState* buffer) {
            IpcPackageManager* queue = Queue(fd);
            if (queue != nullptr && batchDrain) {
                queue->fillIpcPackageToBuffer(buffer);
            } else {
                while (queue != nullptr && queue->fillNextIpcPackageToBuffer(buffer)) {
                }
            }
            return 0;
        };
        serverHandlers.connectionHandler = [this](int fd) {
            std::lock_guard<std::mutex> lock(mutex);
            queues.try_emplace(fd, std::make_unique<IpcPackageManager>());
            fds.push_back(fd);
            return 0;
        };
        cpu_set_t cpus;
        CPU_ZERO(&cpus);
        for (int cpu = 0; cpu < 3; ++cpu) CPU_SET(cpu, &cpus);
        server = UnixIpcManager::Create(true, static_cast<int>(kBufferSize), name, serverHandlers, "BpfServiceTr", cpus,
                                        10, 32);
        server->start();
        while (server->getSocketFd() < 0) std::this_thread::yield();

        IpcHandlerState clientHandlers;
        clientHandlers.compactBeforeRead = clientHandlers.closeOnFailure = true;
        clientHandlers.readHandler = [this](int fd, BufferState* buffer) {
            return clientHandler.handleAllIpcPackageInBuffer(fd, buffer) == 0 ? -1 : 0;
        };
        for (int i = 0; i < clients; ++i) {
            this->clients.push_back(UnixIpcManager::Create(false, static_cast<int>(kBufferSize), name, clientHandlers,
                                                           "BenchClient", std::nullopt, 10, 32));
            this->clients.back()->start();
        }
        while (true) {
            std::lock_guard<std::mutex> lock(mutex);
            if (fds.size() == static_cast<size_t>(clients)) break;
        }
    }
    ~DeliveryRig() {
        for (auto& client : clients) client->stop();
        clients.clear();
        server.reset();
    }

    // Queues `count` events for every client, as the event fan-out does, and waits until all arrived.
    void DeliverToAll(int count, const std::vector<char>& record) {
        const uint64_t target = received.load() + static_cast<uint64_t>(count) * fds.size();
        for (int i = 0; i < count; ++i) {
            for (const int fd : fds) Queue(fd)->buildAndAppendSecondIpcPackage(PACKAGE_TYPE_EVENT, record.data(), record.size());
            for (const int fd : fds) server->notifyNeedWriteData(fd);
        }
        std::unique_lock<std::mutex> lock(receivedLock);
        while (!receivedWake.wait_for(lock, std::chrono::milliseconds(1), [&] { return received.load() >= target; })) {
        }
    }

  private:
    IpcPackageManager* Queue(int fd) {
        std::lock_guard<std::mutex> lock(mutex);
        const auto it = queues.find(fd);
        return it == queues.end() ? nullptr : it->second.get();
    }
    int onEvent() {
        if ((received.fetch_add(1) & 255) == 255) {
            std::lock_guard<std::mutex> lock(receivedLock);
            receivedWake.notify_all();
        }
        return 0;
    }

    const std::string name;
    std::mutex mutex;
    std::map<int, std::unique_ptr<IpcPackageManager>> queues;
    std::vector<int> fds;
    std::atomic<uint64_t> received{0};
    std::mutex receivedLock;
    std::condition_variable receivedWake;
    IpcPackageHandler clientHandler{{{PACKAGE_TYPE_EVENT, [this](int, char*, size_t) { return onEvent(); }}}};
    std::unique_ptr<UnixIpcManager> server;
    std::vector<std::unique_ptr<UnixIpcManager>> clients;
};

constexpr int kEventsPerRound = 4096;  // per client; below the queue's limit of 10000

// range 0: clients; range 1: 0 drains one package per call as the service does, 1 a batch per call.
void BM_SocketDelivery(benchmark::State& state) {
    const int clients = static_cast<int>(state.range(0));
    const std::vector<char> record = Record(32);
    DeliveryRig rig(clients, state.range(1) != 0);
    for (auto _ : state) rig.DeliverToAll(kEventsPerRound, record);
    SetCounters(state, static_cast<size_t>(kEventsPerRound) * clients, static_cast<size_t>(kEventsPerRound) * clients * 32);
}

// The kernel's share: the same bytes written in 32768-byte blocks by one thread and read by another
// over `pairs` socket pairs.
void BM_SocketPairBaseline(benchmark::State& state) {
    const int pairs = static_cast<int>(state.range(0));
    const size_t bytesPerPair = static_cast<size_t>(kEventsPerRound) * 32;
    std::vector<int> writers;
    std::vector<int> readers;
    for (int i = 0; i < pairs; ++i) {
        int fds[2];
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds);
        const int size = static_cast<int>(kBufferSize);
        setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
        setsockopt(fds[1], SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
        writers.push_back(fds[0]);
        readers.push_back(fds[1]);
    }
    std::atomic<bool> done{false};
    std::vector<std::thread> readerThreads;
    for (const int fd : readers) {
        readerThreads.emplace_back([fd] {
            std::vector<char> block(kBufferSize);
            while (read(fd, block.data(), block.size()) > 0) {
            }
        });
    }
    std::vector<char> block(kBufferSize, 'e');
    for (auto _ : state) {
        for (const int fd : writers) {
            for (size_t sent = 0; sent < bytesPerPair;) {
                const ssize_t n = write(fd, block.data(), std::min(block.size(), bytesPerPair - sent));
                if (n <= 0) break;
                sent += static_cast<size_t>(n);
            }
        }
    }
    for (const int fd : writers) close(fd);
    for (std::thread& thread : readerThreads) thread.join();
    for (const int fd : readers) close(fd);
    SetCounters(state, static_cast<size_t>(kEventsPerRound) * pairs, bytesPerPair * pairs);
}

}  // namespace

BENCHMARK(BM_MemcpyReceiveBuffer)->Arg(32)->Arg(96)->Arg(1024);
BENCHMARK(BM_FrameParse)->Arg(32)->Arg(96)->Arg(1024);
BENCHMARK(BM_FrameDispatch)->Arg(32)->Arg(96)->Arg(1024);
BENCHMARK(BM_MemcpyQueueBytes)->Arg(32)->Arg(96)->Arg(1024);
BENCHMARK(BM_QueueAndDrain)->ArgsProduct({{32, 96, 1024}, {0, 1}});
BENCHMARK(BM_SocketPairBaseline)->Arg(1)->Arg(8)->UseRealTime();
BENCHMARK(BM_SocketDelivery)->ArgsProduct({{1, 8}, {0, 1}})->UseRealTime();

BENCHMARK_MAIN();
