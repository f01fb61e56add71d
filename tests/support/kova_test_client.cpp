#include "kova_test_client.h"

#include <cutils/sockets.h>
#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <thread>

#include "kova_ipc_test_util.h"

namespace kova::test {

int NextRead(int fd, std::chrono::milliseconds timeout) {
    pollfd ready{fd, POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(timeout.count())) != 1) return -ETIMEDOUT;
    char byte = 0;
    const ssize_t received = recv(fd, &byte, 1, MSG_DONTWAIT);
    return received < 0 ? -errno : static_cast<int>(received);
}

TestClient::TestClient(const std::string& name, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        fd_.reset(socket_local_client(name.c_str(), ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM));
        if (fd_.ok() || std::chrono::steady_clock::now() >= deadline) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

bool TestClient::Send(const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = send(fd_.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

uint32_t TestClient::Request(int32_t reqType, const std::string& data) {
    const uint32_t reqId = nextReqId_++;
    Send(RequestFrame(reqId, reqType, data));
    return reqId;
}

std::optional<Response> TestClient::AwaitResponse(uint32_t reqId, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::optional<ReceivedPackage> package = NextPackageBefore(deadline)) {
        if (package->type != PACKAGE_TYPE_RESPONSE || package->payload.size() < sizeof(KovaRespIpcPackageHeader)) continue;
        const auto header = LoadIpcWire<KovaRespIpcPackageHeader>(package->payload.data());
        if (header.reqId == reqId) return Response{header.reqId, header.result, package->payload.substr(sizeof(header))};
    }
    return std::nullopt;
}

std::optional<int32_t> TestClient::Subscribe(int32_t eventId) { return Answer(51, eventId); }
std::optional<int32_t> TestClient::Unsubscribe(int32_t eventId) { return Answer(52, eventId); }

std::optional<int32_t> TestClient::Answer(int32_t reqType, int32_t eventId) {
    const std::optional<Response> response = AwaitResponse(Request(reqType, U32(static_cast<uint32_t>(eventId))));
    return response ? std::optional<int32_t>(response->result) : std::nullopt;
}

std::optional<std::string> TestClient::NextEvent(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (pendingEvents_.empty() && NextPackageBefore(deadline)) {
    }
    if (pendingEvents_.empty()) return std::nullopt;
    std::string event = pendingEvents_.front();
    pendingEvents_.pop_front();
    return event;
}

std::optional<ReceivedPackage> TestClient::NextPackageBefore(std::chrono::steady_clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    std::optional<ReceivedPackage> package = NextPackage(std::max(left, std::chrono::milliseconds(0)));
    if (package && package->type == PACKAGE_TYPE_EVENT) pendingEvents_.push_back(package->payload);
    return package;
}

std::optional<ReceivedPackage> TestClient::NextPackage(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::string header;
    if (!ReadExactly(ipcPackageHeaderSize, &header, deadline)) return std::nullopt;
    const auto size = LoadIpcWire<uint64_t>(header.data());
    std::string body;
    // Once a frame has begun, the rest of it is waited for regardless of the deadline.
    if (!ReadExactly(size, &body, std::chrono::steady_clock::now() + std::chrono::seconds(5))) return std::nullopt;
    if (body.size() < sizeof(KovaIpcSecondLevelPackageHeader)) return ReceivedPackage{UINT32_MAX, body};
    const auto second = LoadIpcWire<KovaIpcSecondLevelPackageHeader>(body.data());
    return ReceivedPackage{second.type, body.substr(sizeof(second))};
}

bool TestClient::ReadExactly(size_t size, std::string* out, std::chrono::steady_clock::time_point deadline) {
    out->resize(size);
    size_t got = 0;
    while (got < size) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd ready{fd_.get(), POLLIN, 0};
        const int polled = poll(&ready, 1, static_cast<int>(std::max<int64_t>(0, left.count())));
        if (polled == 0 && got > 0) {
            deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);  // never stop mid-frame
            continue;
        }
        if (polled == 0) return false;
        if (polled < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        const ssize_t n = recv(fd_.get(), out->data() + got, size - got, 0);
        if (n <= 0) return false;
        got += static_cast<size_t>(n);
    }
    return true;
}

TestClient ConnectAs(const std::string& name, uid_t uid, gid_t gid, const std::vector<gid_t>& groups) {
    TestClient client{android::base::unique_fd()};
    std::thread([&] {
        if (syscall(SYS_setgroups, groups.size(), groups.data()) == 0 && syscall(SYS_setresgid, gid, gid, gid) == 0 &&
            syscall(SYS_setresuid, uid, uid, uid) == 0) {
            client = TestClient(name);
        }
    }).join();
    return client;
}

}  // namespace kova::test
