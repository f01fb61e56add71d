// IpcPackageHandler: takes the complete frames out of a connection's read buffer and hands each
// second-level package to the handler registered for its type. Types without a handler, and types
// whose handler is empty, are consumed silently.
//
// Threads: used by one thread, the one that owns the read buffer (the epoll loop); no lock.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <functional>
#include <map>

#include "ipc/kova_bpf_ipc_package.h"

class IpcPackageHandler {
  public:
    // Gets the payload (after the 8-byte second-level header) and its length; -1 is a failure.
    using Handler = std::function<int(int fd, char* payload, size_t size)>;

    explicit IpcPackageHandler(const std::map<unsigned, Handler>& handlers);

    // Handles every complete frame in `readBuffer`, in order. 1 when all were handled (or there were
    // none); 0 when a handler returned -1, in which case the frames after that one stay buffered.
    // A frame that can never complete clears the buffer (see CheckIpcPackageComplete); a second-level
    // header whose size disagrees with its frame is a fatal check.
    int handleAllIpcPackageInBuffer(int fd, BufferState* readBuffer);

    // Dispatches one frame body of `size` bytes. Returns the handler's result, or 0 without one.
    int handleSecondIpcPackage(int fd, char* package, size_t size);

  private:
    int dispatch(int fd, char* package, size_t size) const;

    const std::map<unsigned, Handler> handlers;
    // The handlers of the four defined types, looked up once (nullptr: none); later types use the map.
    std::array<const Handler*, PACKAGE_TYPE_MAX + 1> definedTypes{};
};
