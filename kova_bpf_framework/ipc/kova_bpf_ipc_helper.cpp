#include "ipc/kova_bpf_ipc_helper.h"

#define LOG_TAG "BpfUtils"

#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <cutils/sockets.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <log/log.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include "utils/kova_bpf_common.h"
#include "utils/kova_bpf_error_log.h"

using Kova::Bpf::ConvertToHexString;
using Kova::Bpf::RecordBpfServiceErrorInfo;
using Kova::Bpf::StringPrintf;

namespace {

constexpr int kIpcPackageDamageErrorCode = 2;
constexpr int kListenBacklog = 4;

bool AddDescriptorFlags(int fd, int getCommand, int setCommand, int flags) {
    const int current = fcntl(fd, getCommand);
    return current >= 0 && fcntl(fd, setCommand, current | flags) == 0;
}

bool EpollCtl(int epfd, int op, int fd, uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    return epoll_ctl(epfd, op, fd, &event) == 0;
}

}  // namespace

bool BufferState::write(uint64_t value) {
    if (bufferDataCursor + sizeof(value) > buffer.size()) return false;
    memcpy(buffer.data() + bufferDataCursor, &value, sizeof(value));
    bufferDataCursor += sizeof(value);
    return true;
}

bool BufferState::write(const std::vector<char>& data) {
    if (bufferDataCursor + data.size() > buffer.size()) return false;
    if (!data.empty()) memcpy(buffer.data() + bufferDataCursor, data.data(), data.size());
    bufferDataCursor += data.size();
    return true;
}

bool ClearDamagedIpcBuffer(BufferState* state, uint64_t total) {
    const uint64_t bufferSize = state->buffer.size();
    const std::string dump = ConvertToHexString(state->buffer.data(), static_cast<int>(state->bufferDataCursor));
    RecordBpfServiceErrorInfo(
            kIpcPackageDamageErrorCode,
            StringPrintf("Ipc package damage, packageSize: %zd, cursor: %zd, data: %zd, bufferSize: %zd, "
                         "Buffer hexdump: %s",
                         static_cast<ssize_t>(total), static_cast<ssize_t>(state->bufferCursor),
                         static_cast<ssize_t>(state->bufferDataCursor), static_cast<ssize_t>(bufferSize),
                         dump.c_str()));
    ALOGE("Ipc package too big or damage, clear buffer. packageSize: %zd, cursor: %zd, data: %zd, bufferSize: %zd",
          static_cast<ssize_t>(total), static_cast<ssize_t>(state->bufferCursor),
          static_cast<ssize_t>(state->bufferDataCursor), static_cast<ssize_t>(bufferSize));
    ALOGE("Buffer hexdump: %s", dump.c_str());
    state->bufferCursor = 0;
    state->bufferDataCursor = 0;
    return false;
}

void FailIpcPackageHeaderRead(BufferState* readBufferState) {
    CHECK(readBufferState->read(ipcPackageHeaderSize) != nullptr);
    abort();  // not reached: the read fails again, as it changed nothing
}

void FailSecondLevelPackageSize(const char* package, size_t size) {
    // A body shorter than the header leaves it zeroed, and size - 8 then wraps, so the check fails
    // without reading past the body.
    KovaIpcSecondLevelPackageHeader header{};
    if (size >= sizeof(header)) header = LoadIpcWire<KovaIpcSecondLevelPackageHeader>(package);
    const KovaIpcSecondLevelPackageHeader* packagePtr = &header;
    CHECK(packagePtr->size == size - sizeof(KovaIpcSecondLevelPackageHeader));
    abort();  // not reached: only called when the sizes disagree
}

KovaReqIpcPackageHeader ReadReqIpcPackageHeader(const char* data, size_t size, const char* file, unsigned line) {
    KovaReqIpcPackageHeader header{};
    if (size >= sizeof(header)) header = LoadIpcWire<KovaReqIpcPackageHeader>(data);
    if (header.dataSize != size - sizeof(KovaReqIpcPackageHeader)) {
        // The text of CHECK, reported where the request is served.
        android::base::LogMessage(file, line, android::base::FATAL, LOG_TAG, -1).stream()
                << "Check failed: ((KovaReqIpcPackageHeader*)data)->dataSize == size - sizeof(KovaReqIpcPackageHeader) ";
    }
    return header;
}

void WriteIpcPackageToBuffer(BufferState* bufferState, const KovaIpcPackage& ipcPackage) {
    CHECK(bufferState->write(ipcPackage.size));
    CHECK(bufferState->write(ipcPackage.data));
}

void CompactIpcBuffer(BufferState* readBuffer) {
    if (readBuffer->bufferDataCursor > readBuffer->bufferCursor) {
        const uint64_t unread = readBuffer->bufferDataCursor - readBuffer->bufferCursor;
        if (readBuffer->bufferCursor != 0) {
            memmove(readBuffer->buffer.data(), readBuffer->buffer.data() + readBuffer->bufferCursor, unread);
        }
        readBuffer->bufferDataCursor = unread;
    } else {
        readBuffer->bufferDataCursor = 0;
    }
    readBuffer->bufferCursor = 0;
}

bool Setnonblocking(int fd) { return AddDescriptorFlags(fd, F_GETFL, F_SETFL, O_NONBLOCK); }

namespace {

// A listening stream socket that a service manager handed over (systemd's socket activation: the
// first descriptor, 3, when LISTEN_PID is this process and LISTEN_FDS at least 1), or -1. The variables
// are cleared, so that no child takes them for its own.
int ActivationSocket() {
    const char* pid = getenv("LISTEN_PID");
    const char* count = getenv("LISTEN_FDS");
    if (pid == nullptr || count == nullptr || atoi(pid) != getpid() || atoi(count) < 1) return -1;
    unsetenv("LISTEN_PID");
    unsetenv("LISTEN_FDS");
    unsetenv("LISTEN_FDNAMES");
    constexpr int kFirst = 3;  // SD_LISTEN_FDS_START
    int listening = 0;
    socklen_t length = sizeof(listening);
    if (getsockopt(kFirst, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length) != 0 || !listening) return -1;
    return kFirst;
}

}  // namespace

int CreateNonblockingServerSocket(const char* name) {
    // Handed over by init on a device, or by a service manager on a host; else made here.
    int controlSocket = android_get_control_socket(name);
    if (controlSocket < 0) controlSocket = ActivationSocket();
    const bool inherited = controlSocket >= 0;
    android::base::unique_fd fd(inherited ? controlSocket : socket_local_server(name, ANDROID_SOCKET_NAMESPACE_ABSTRACT,
                                                                               SOCK_STREAM));
    if (!fd.ok()) {
        ALOGE("Create socket: %s failed: %d, message: %s", name, errno, strerror(errno));
        return -1;
    }
    if (!AddDescriptorFlags(fd.get(), F_GETFD, F_SETFD, FD_CLOEXEC) || !Setnonblocking(fd.get())) {
        const int error = errno;
        fd.reset();
        ALOGE("Setnonblocking (%s) failed: %d, message: %s", name, error, strerror(error));
        return -1;
    }
    if (!inherited && listen(fd.get(), kListenBacklog) != 0) {
        const int error = errno;
        fd.reset();
        ALOGE("Listen (%s) failed: %s", name, strerror(error));
        return -1;
    }
    return fd.release();
}

int ConnectToServer(const char* name) {
    int connected = socket_local_client(name, ANDROID_SOCKET_NAMESPACE_FILESYSTEM, SOCK_STREAM);
    if (connected < 0) connected = socket_local_client(name, ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM);
    android::base::unique_fd fd(connected);
    if (!fd.ok()) {
        ALOGE("Failed to create socket: %d, message: %s", errno, strerror(errno));
        return -1;
    }
    if (!Setnonblocking(fd.get())) {
        const int error = errno;
        fd.reset();
        ALOGE("Setnonblocking %s path failed: %d, message: %s", name, error, strerror(error));
        return -1;
    }
    return fd.release();
}

bool EpollCtlAdd(int epfd, int fd, uint32_t events) { return EpollCtl(epfd, EPOLL_CTL_ADD, fd, events); }

bool EpollCtlMod(int epfd, int fd, uint32_t events) { return EpollCtl(epfd, EPOLL_CTL_MOD, fd, events); }
