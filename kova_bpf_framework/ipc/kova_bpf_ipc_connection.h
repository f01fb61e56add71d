// IpcConnection: one connection of a UnixIpcManager (an accepted client, or a client manager's own
// link) with everything kept for it: the socket, the read buffer, the write buffer, the queue of
// packages waiting to be sent and the event ids the peer subscribed to.
//
// Ownership: the manager's table of connections is the only place a connection lives while it is
// open; the manager closes the socket and empties the buffers when it releases it. Whoever keeps a
// connection beyond one call (the event fan-out, for one) holds a shared pointer, which keeps the
// object but never the socket.
#pragma once

#include <stdint.h>

#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>

#include <atomic>
#include <mutex>
#include <optional>
#include <vector>

#include "ipc/kova_bpf_ipc_package.h"
#include "ipc/kova_bpf_ipc_package_manager.h"

struct IpcConnection {
    // A read buffer and a write buffer of `bufferSize` bytes each, when asked for.
    IpcConnection(android::base::unique_fd socket, size_t bufferSize, bool withReadBuffer, bool withWriteBuffer)
        : fd(socket.get()), socket(std::move(socket)) {
        if (withReadBuffer) readBuffer.emplace().buffer.assign(bufferSize, 0);
        if (withWriteBuffer) writeBuffer.emplace().buffer.assign(bufferSize, 0);
    }

    IpcConnection(const IpcConnection&) = delete;
    IpcConnection& operator=(const IpcConnection&) = delete;

    // The descriptor's number, kept after the socket is closed: handlers and logs know a connection by it.
    const int fd;
    // Loop thread only.
    android::base::unique_fd socket;
    std::optional<BufferState> readBuffer;  // absent without a read handler, and once released

    // Serialises the loop's sends with sends on other threads; the buffer is absent without a write
    // handler and once the connection is released, so a late send finds nothing.
    std::mutex writeLock;
    std::optional<BufferState> writeBuffer GUARDED_BY(writeLock);

    // Packages waiting to be sent; safe from any thread.
    IpcPackageManager ipcPackageManager;
    // When the loop last sent a batch and found the peer's socket at most half full
    // (GetSystemBootNanosencondsTime), 0 before: a peer that reads slower than it is sent to stops this
    // clock. Written by the loop, read by producers that pace themselves.
    std::atomic<int64_t> lastKeptUpNs{0};
    int sendBufferBytes = 0;  // SO_SNDBUF, read at the first send; under writeLock

    // The event ids the peer subscribed to, in subscription order, without duplicates. Kept by the
    // subscriber (the service's EventManager) under its own lock; the IPC layer never reads it.
    std::vector<int32_t> clientEventIds;
};
