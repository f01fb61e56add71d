// A client of the service's socket for tests: blocking, single-threaded, speaking the wire protocol
// byte for byte through the frame builders of kova_ipc_test_util.h.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <chrono>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>

namespace kova::test {

struct ReceivedPackage {
    uint32_t type;        // second-level package type
    std::string payload;  // after the 8-byte second-level header
};

struct Response {
    uint32_t reqId;
    int32_t result;
    std::string data;
};

// What the next read of `fd` gives within `timeout`: 1 when a byte comes, 0 at the end of the stream,
// -errno when the read fails (-ETIMEDOUT when nothing happens).
int NextRead(int fd, std::chrono::milliseconds timeout = std::chrono::seconds(5));

class TestClient {
  public:
    // Connects to the abstract socket `name`, retrying for up to `timeout` while the server starts.
    explicit TestClient(const std::string& name, std::chrono::milliseconds timeout = std::chrono::seconds(5));
    // Speaks over a connected socket, such as one a test's own server accepted.
    explicit TestClient(android::base::unique_fd fd) : fd_(std::move(fd)) {}
    bool connected() const { return fd_.ok(); }
    int fd() const { return fd_.get(); }

    bool Send(const std::string& bytes);
    // Sends a request and returns its id.
    uint32_t Request(int32_t reqType, const std::string& data);
    // Waits for the response to `reqId`; events that arrive first are kept for NextEvent().
    std::optional<Response> AwaitResponse(uint32_t reqId, std::chrono::milliseconds timeout = std::chrono::seconds(5));
    // Subscribes (51) or unsubscribes (52) and returns the response's result, or nullopt without one.
    std::optional<int32_t> Subscribe(int32_t eventId);
    std::optional<int32_t> Unsubscribe(int32_t eventId);

    // The next event record (payload of a type-3 package), or nullopt after `timeout`.
    std::optional<std::string> NextEvent(std::chrono::milliseconds timeout = std::chrono::seconds(5));
    // The next package of any type, or nullopt after `timeout`.
    std::optional<ReceivedPackage> NextPackage(std::chrono::milliseconds timeout);
    void Close() { fd_.reset(); }
    // Hands the socket over, for a reader of its own; events already read here stay behind.
    android::base::unique_fd Release() { return std::move(fd_); }

  private:
    std::optional<int32_t> Answer(int32_t reqType, int32_t eventId);
    // The next package before `deadline`; events among them are kept for NextEvent().
    std::optional<ReceivedPackage> NextPackageBefore(std::chrono::steady_clock::time_point deadline);
    bool ReadExactly(size_t size, std::string* out, std::chrono::steady_clock::time_point deadline);

    android::base::unique_fd fd_;
    uint32_t nextReqId_ = 1;
    std::deque<std::string> pendingEvents_;
};

// A client connected as a process of another user: from a thread that first drops to the
// supplementary `groups`, `gid` and `uid` through raw system calls, which change the calling thread's
// ids only (the kernel takes a peer's ids from the thread that connects). Not connected when the ids
// cannot be taken. REQUIRES: root.
TestClient ConnectAs(const std::string& name, uid_t uid, gid_t gid, const std::vector<gid_t>& groups);

}  // namespace kova::test
