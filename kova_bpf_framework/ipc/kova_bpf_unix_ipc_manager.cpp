#include "ipc/kova_bpf_unix_ipc_manager.h"

#include <android/log.h>
#include <errno.h>
#include <linux/sockios.h>
#include <sched.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "utils/kova_bpf_common.h"
#include "utils/kova_bpf_error_log.h"
#include "utils/kova_bpf_locking.h"
#include "utils/kova_bpf_time.h"
#include "ipc/kova_bpf_ipc_helper.h"

using Kova::Bpf::ConvertToHexString;
using Kova::Bpf::RecordBpfServiceErrorInfo;
using Kova::Bpf::StringPrintf;

namespace {

constexpr char kDefaultTag[] = "BpfUtils";
constexpr int kReconnectDelaySeconds = 5;
constexpr int kSendAttempts = 11;  // ten quick retries of a full socket, then one after a pause
constexpr int kSendDataFailedErrorCode = 1;

#define IPC_LOGI(...) __android_log_print(ANDROID_LOG_INFO, tag, __VA_ARGS__)
#define IPC_LOGW(...) __android_log_print(ANDROID_LOG_WARN, tag, __VA_ARGS__)
#define IPC_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, tag, __VA_ARGS__)

}  // namespace

UnixIpcManager::UnixIpcManager(bool isServer, int bufferSize, std::string socketName, IpcHandlerState handlers,
                               const char* tag)
    : socketName(std::move(socketName)),
      isServer(isServer),
      bufferSize(bufferSize),
      tag(tag != nullptr ? tag : kDefaultTag),
      handlers(std::move(handlers)) {}

std::unique_ptr<UnixIpcManager> UnixIpcManager::Create(bool isServer, int bufferSize, std::string socketName,
                                                       IpcHandlerState handlers, const char* tag,
                                                       std::optional<cpu_set_t> cpus, int epollSize, int maxEvents) {
    std::unique_ptr<UnixIpcManager> manager(
            new UnixIpcManager(isServer, bufferSize, std::move(socketName), std::move(handlers), tag));
    UnixIpcManager* self = manager.get();
    // The socket is made on the loop thread, so that a client's endless connecting never blocks the
    // thread that starts the manager.
    std::function<int()> initFunc = [self] { return self->isServer ? self->createServer() : self->connect(); };
    self->epollManager = cpus ? EpollManager::Create(epollSize, maxEvents, std::move(initFunc), self->tag, *cpus, -1)
                              : EpollManager::Create(epollSize, maxEvents, std::move(initFunc), self->tag, -1);
    if (!self->epollManager) {
        __android_log_print(ANDROID_LOG_ERROR, self->tag, "[UnixIpcManager] epoll manager not exists!");
        return nullptr;
    }
    return manager;
}

UnixIpcManager::~UnixIpcManager() {
    // The loop goes first, so that no callback runs while the handlers and buffers go away.
    {
        std::lock_guard<std::mutex> lock(stopLock);
        stopRequested = true;
    }
    stopWake.notify_all();
    // Joined before it is destroyed: callbacks still running reach it through epollManager.
    if (epollManager) {
        epollManager->stop();
        epollManager->join();
        epollManager.reset();
    }
    handlers = IpcHandlerState();
    // The listening socket first: a client that sees its link close and connects again at once must be
    // refused, not accepted into a backlog that is about to go.
    listeningSocket.reset();
    std::lock_guard<std::mutex> lock(mutex);
    connections.clear();  // each connection closes its socket
}

void UnixIpcManager::closeConnections() {
    if (listeningSocket.ok()) {
        closeConnection(listeningSocket.get());  // first, for the destructor's reason
        socketFd.store(-1, std::memory_order_release);
    }
    std::map<int, std::shared_ptr<IpcConnection>> open;
    {
        std::lock_guard<std::mutex> lock(mutex);
        open = connections;
    }
    for (const auto& [fd, connection] : open) closeConnection(fd);
}

std::shared_ptr<IpcConnection> UnixIpcManager::connection(int fd) const {
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = connections.find(fd);
    return it == connections.end() ? nullptr : it->second;
}

size_t UnixIpcManager::connectionCount() const {
    std::lock_guard<std::mutex> lock(mutex);
    return connections.size();
}

bool UnixIpcManager::start() {
    IPC_LOGI("[UnixIpcManager][start] Start epoll Manager...");
    if (isServer) {
        IPC_LOGI("[UnixIpcManager][start] Create server: %s", socketName.c_str());
    } else {
        IPC_LOGI("[UnixIpcManager][start] Connection to server: %s", socketName.c_str());
    }
    epollManager->start();
    return true;
}

bool UnixIpcManager::stop() {
    IPC_LOGI("[UnixIpcManager][stop] Stop epoll Manager...");
    {
        std::lock_guard<std::mutex> lock(stopLock);
        stopRequested = true;
    }
    stopWake.notify_all();
    if (!epollManager) return false;
    epollManager->stop();
    return true;
}

void UnixIpcManager::join() {
    if (epollManager) epollManager->join();
}

bool UnixIpcManager::notifyNeedWriteData(int fd) { return epollManager->notifyWriteEventReady(fd); }

bool UnixIpcManager::writeDataNow(int fd) { return epollManager->writeEventNow(fd); }

bool UnixIpcManager::sendNowOrNotify(int fd) {
    const std::shared_ptr<IpcConnection> connection = this->connection(fd);
    if (!connection) return false;
    {
        std::unique_lock<std::mutex> writeLock(connection->writeLock, std::try_to_lock);
        if (writeLock.owns_lock()) {
            Kova::Bpf::AssertHeld(connection->writeLock);
            if (connection->writeBuffer && sendOnce(*connection)) return true;
        }
    }
    return notifyNeedWriteData(fd);
}

bool UnixIpcManager::sendOnce(IpcConnection& connection) {
    BufferState* buffer = &*connection.writeBuffer;
    if (buffer->bufferCursor != buffer->bufferDataCursor) return false;  // the loop's unsent tail goes first
    buffer->bufferCursor = 0;
    buffer->bufferDataCursor = 0;
    if (handlers.writeHandler && handlers.writeHandler(connection.fd, buffer) == -1) return false;
    if (buffer->bufferDataCursor == 0) return true;
    const ssize_t sent = sendto(connection.fd, buffer->buffer.data(), buffer->bufferDataCursor,
                                MSG_NOSIGNAL | MSG_DONTWAIT, nullptr, 0);
    if (sent > 0) buffer->bufferCursor = std::min<uint64_t>(static_cast<uint64_t>(sent), buffer->bufferDataCursor);
    if (buffer->bufferCursor != buffer->bufferDataCursor) return false;
    buffer->bufferCursor = 0;
    buffer->bufferDataCursor = 0;
    if (isServer) notePeerKeepingUp(connection);
    return connection.ipcPackageManager.getIpcPackageCount() == 0;
}

bool UnixIpcManager::createServer() {
    if (!isServer) {
        IPC_LOGE("[UnixIpcManager] Create server in client manager");
        return false;
    }
    const int fd = CreateNonblockingServerSocket(socketName.c_str());
    socketFd.store(fd, std::memory_order_release);
    if (fd == -1) {
        IPC_LOGE("[UnixIpcManager] Create server Socket failed: %d, message: %s", errno, strerror(errno));
        return false;
    }
    listeningSocket.reset(fd);
    EpollCallback callback;
    callback.readCallback = [this](epoll_event event) { return onServerReadableCallback(event); };
    callback.closeCallback = [this](epoll_event event) { return onServerCloseCallback(event); };
    epollManager->addMonitorFd(fd, std::move(callback));
    return true;
}

bool UnixIpcManager::connect() {
    if (isServer) {
        IPC_LOGE("[UnixIpcManager] Create client in server manager");
        return false;
    }
    if (stopping()) return false;
    int fd = ConnectToServer(socketName.c_str());
    socketFd.store(fd, std::memory_order_release);
    while (fd == -1) {
        IPC_LOGE("[UnixIpcManager] Connect failed: %d, message: %s, clientFd: %d, Wait 5 senconds", errno,
                 strerror(errno), fd);
        // Not in the retry rule itself: a manager being stopped or destroyed stops retrying, or its
        // loop could never be joined.
        if (waitBeforeRetry(kReconnectDelaySeconds)) return false;
        fd = ConnectToServer(socketName.c_str());
        socketFd.store(fd, std::memory_order_release);
    }
    setSocketBufferSizes(fd);
    if (!registerConnection(android::base::unique_fd(fd))) {
        socketFd.store(-1, std::memory_order_release);
        return false;
    }
    if (handlers.connectionHandler) handlers.connectionHandler(fd);
    return true;
}

bool UnixIpcManager::stopping() {
    std::lock_guard<std::mutex> lock(stopLock);
    return stopRequested;
}

bool UnixIpcManager::waitBeforeRetry(int seconds) {
    std::unique_lock<std::mutex> lock(stopLock);
    return stopWake.wait_for(lock, std::chrono::seconds(seconds), [this]() REQUIRES(stopLock) { return stopRequested; });
}

void UnixIpcManager::setSocketBufferSizes(int fd) {
    // The messages name socketFd (for a server, the listening socket), as they always have.
    const int size = bufferSize;
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)) != 0) {
        IPC_LOGE("[UnixIpcManager] Set send buffer size failed: %d, message: %s, clientFd: %d", errno, strerror(errno),
                 socketFd.load(std::memory_order_acquire));
    }
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size)) != 0) {
        IPC_LOGE("[UnixIpcManager] Set recv buffer size failed: %d, message: %s, clientFd: %d", errno, strerror(errno),
                 socketFd.load(std::memory_order_acquire));
    }
}

bool UnixIpcManager::registerConnection(android::base::unique_fd socket) {
    const int fd = socket.get();
    auto connection = std::make_shared<IpcConnection>(std::move(socket), static_cast<size_t>(bufferSize),
                                                      static_cast<bool>(handlers.readHandler),
                                                      static_cast<bool>(handlers.writeHandler));
    // The callbacks hold the connection, so one that is running keeps it while it is released.
    EpollCallback callback;
    callback.closeCallback = [this, connection](epoll_event) { return onClientCloseCallback(connection); };
    if (handlers.readHandler) {
        callback.readCallback = [this, connection](epoll_event) { return onClientReadableCallback(*connection); };
    }
    if (handlers.writeHandler) {
        callback.writeCallback = [this, connection](epoll_event) { return onCommWriteCallback(*connection); };
    }
    {
        // In the table before the loop can report anything of it.
        std::lock_guard<std::mutex> lock(mutex);
        connections[fd] = connection;
    }
    if (epollManager->addMonitorFd(fd, std::move(callback))) return true;
    std::lock_guard<std::mutex> lock(mutex);
    connections.erase(fd);  // the last owner of the connection: its socket closes here
    return false;
}

int UnixIpcManager::onServerReadableCallback(epoll_event event) {
    // Owned from the accept on: every way out before the connection is registered closes it.
    android::base::unique_fd accepted(accept4(event.data.fd, nullptr, nullptr, SOCK_CLOEXEC));
    if (!accepted.ok()) {
        IPC_LOGE("[UnixIpcManager] Accept client failed: %d, message: %s", errno, strerror(errno));
        return EPOLL_CALLBACK_FAILED;
    }
    // A refused peer is closed unread; the listening socket goes on serving.
    if (handlers.acceptFilter && !handlers.acceptFilter(accepted.get())) return EPOLL_CALLBACK_SUCCESS;
    if (!Setnonblocking(accepted.get())) {
        const int error = errno;
        accepted.reset();
        IPC_LOGE("[UnixIpcManager] Setnonblocking (client) failed: %d, message: %s", error, strerror(error));
        return EPOLL_CALLBACK_FAILED;
    }
    const int fd = accepted.get();
    setSocketBufferSizes(fd);
    // Never served when it cannot be registered, so never reported: the peer sees its connection closed.
    if (!registerConnection(std::move(accepted))) return EPOLL_CALLBACK_FAILED;
    if (handlers.connectionHandler) handlers.connectionHandler(fd);
    return 1;
}

int UnixIpcManager::onServerCloseCallback(epoll_event event) {
    const int fd = event.data.fd;
    if (!closeConnection(fd)) return EPOLL_CALLBACK_FAILED;
    if (fd != socketFd.load(std::memory_order_acquire)) {
        if (handlers.closeHandler) handlers.closeHandler(fd);
        return EPOLL_CALLBACK_SUCCESS;
    }
    IPC_LOGE("[UnixIpcManager][onServerCloseCallback] Server socket abnormal close! (%s)", socketName.c_str());
    if (handlers.closeHandler) handlers.closeHandler(fd);
    if (!createServer()) {
        IPC_LOGE("[UnixIpcManager] Restart server failed! (%s)", socketName.c_str());
        return EPOLL_CALLBACK_FAILED;
    }
    return EPOLL_CALLBACK_SUCCESS;
}

ssize_t UnixIpcManager::receiveToBuffer(int fd, BufferState* readBuffer, bool compactBeforeRead, const char* tag) {
    if (compactBeforeRead) CompactIpcBuffer(readBuffer);
    if (readBuffer->bufferDataCursor == readBuffer->buffer.size()) {
        IPC_LOGE("[UnixIpcManager] client readable callback buffer exception!");
        IPC_LOGE("[UnixIpcManager] client readable cb buffersize: %zd, bufferDataCursor: %zd",
                 static_cast<ssize_t>(readBuffer->buffer.size()), static_cast<ssize_t>(readBuffer->bufferDataCursor));
        IPC_LOGE("[UnixIpcManager] client readable buffer hexdump: %s",
                 ConvertToHexString(readBuffer->buffer.data(), static_cast<int>(readBuffer->buffer.size())).c_str());
    }
    const ssize_t received = recvfrom(fd, readBuffer->buffer.data() + readBuffer->bufferDataCursor,
                                      readBuffer->freeSpace(), 0, nullptr, nullptr);
    if (received > 0) readBuffer->bufferDataCursor += static_cast<uint64_t>(received);
    return received;
}

int UnixIpcManager::onClientReadableCallback(IpcConnection& connection) {
    const int fd = connection.fd;
    if (!connection.readBuffer) {
        IPC_LOGE("[UnixIpcManager][ClientCallback] Not allocate read buffer for the fd(%d)!", fd);
        return EPOLL_CALLBACK_FAILED;
    }
    BufferState* readBuffer = &*connection.readBuffer;
    const ssize_t received = receiveToBuffer(fd, readBuffer, handlers.compactBeforeRead, tag);
    // End of stream, or a full buffer: closing is left to the hang-up event.
    if (received == 0) return EPOLL_CALLBACK_NOTHING;

    bool receiveFailed = false;
    if (received < 0) {
        IPC_LOGE("[UnixIpcManager] Recv data failed: %d, message: %s", errno, strerror(errno));
        receiveFailed = true;
    } else {
        if (!handlers.readHandler || handlers.readHandler(fd, readBuffer) != -1) return EPOLL_CALLBACK_SUCCESS;
        IPC_LOGE("[UnixIpcManager] Callback ipc read handler failed: %d, message: %s", errno, strerror(errno));
    }
    // Drop what is buffered. Both cursors, so that a buffer that is not compacted before the next
    // receive does not keep a read cursor past its data.
    readBuffer->bufferCursor = 0;
    readBuffer->bufferDataCursor = 0;

    if (!handlers.closeOnFailure) return receiveFailed ? EPOLL_CALLBACK_FAILED : EPOLL_CALLBACK_SUCCESS;
    if (!closeConnection(fd)) return EPOLL_CALLBACK_FAILED;
    if (fd != socketFd.load(std::memory_order_acquire)) return EPOLL_CALLBACK_CLOSED;
    // A client's own link: the close handler is not told; the link is simply made again, unless the
    // client is stopping.
    if (stopping()) return EPOLL_CALLBACK_CLOSED;
    if (receiveFailed) {
        IPC_LOGE("[UnixIpcManager] Server socket abnormal close!! (%s)", socketName.c_str());
        if (!connect()) IPC_LOGE("[UnixIpcManager] Reconnect to server failed! (%s)", socketName.c_str());
    } else {
        IPC_LOGE("[UnixIpcManager] Server socket abnormal close! (%s)", socketName.c_str());
        if (!connect()) IPC_LOGE("[UnixIpcManager] Restart server failed! (%s)", socketName.c_str());
    }
    return EPOLL_CALLBACK_CLOSED;
}

int UnixIpcManager::onClientCloseCallback(const std::shared_ptr<IpcConnection>& connection) {
    const int fd = connection->fd;
    if (!closeConnection(fd)) return EPOLL_CALLBACK_FAILED;
    if (handlers.closeHandler) handlers.closeHandler(fd);
    if (fd == socketFd.load(std::memory_order_acquire)) {
        // A stopped client makes no new link: its loop is ending, and a server that closes links at once
        // would only see one more.
        if (stopping()) return EPOLL_CALLBACK_SUCCESS;
        IPC_LOGE("[UnixIpcManager][onClientCloseCallback] Server socket abnormal close! (%s)", socketName.c_str());
        if (!connect()) {
            IPC_LOGE("[UnixIpcManager] Restart server failed! (%s)", socketName.c_str());
            return EPOLL_CALLBACK_FAILED;
        }
    }
    return EPOLL_CALLBACK_SUCCESS;
}

int UnixIpcManager::onCommWriteCallback(IpcConnection& connection) {
    const int fd = connection.fd;
    std::lock_guard<std::mutex> writeLock(connection.writeLock);
    if (!connection.writeBuffer) {
        IPC_LOGE("[UnixIpcManager][ClientCallback] Not allocate write buffer for the fd(%d)!", fd);
        return EPOLL_CALLBACK_FAILED;
    }
    BufferState* writeBuffer = &*connection.writeBuffer;
    // A tail that a send on another thread left (sendNowOrNotify) goes before anything new.
    if (writeBuffer->bufferCursor == writeBuffer->bufferDataCursor) {
        writeBuffer->bufferCursor = 0;
        writeBuffer->bufferDataCursor = 0;
        if (handlers.writeHandler && handlers.writeHandler(fd, writeBuffer) == -1) {
            IPC_LOGE("[UnixIpcManager] Callback ipc write handler failed: %d, message: %s", errno, strerror(errno));
            return EPOLL_CALLBACK_FAILED;
        }
        if (writeBuffer->bufferDataCursor == writeBuffer->bufferCursor) return EPOLL_CALLBACK_NOTHING;
    }
    if (!ensureDataSend(fd, writeBuffer, tag)) {
        IPC_LOGE("[UnixIpcManager] Send ipc data failed: %d, message: %s", errno, strerror(errno));
        return EPOLL_CALLBACK_FAILED;
    }
    if (isServer) notePeerKeepingUp(connection);
    // EPOLLOUT stays armed: the loop comes back when the socket is writable, for the next batch.
    return EPOLL_CALLBACK_SUCCESS;
}

void UnixIpcManager::notePeerKeepingUp(IpcConnection& connection) {
    if (connection.sendBufferBytes == 0) {
        socklen_t length = sizeof(connection.sendBufferBytes);
        if (getsockopt(connection.fd, SOL_SOCKET, SO_SNDBUF, &connection.sendBufferBytes, &length) != 0) return;
    }
    // The bytes sent that the peer has not read yet: at most half the buffer means it reads what it gets.
    int unread = 0;
    if (ioctl(connection.fd, SIOCOUTQ, &unread) != 0 || unread > connection.sendBufferBytes / 2) return;
    connection.lastKeptUpNs.store(static_cast<int64_t>(Kova::Bpf::GetSystemBootNanosencondsTime()),
                                 std::memory_order_relaxed);
}

bool UnixIpcManager::ensureDataSend(int fd, BufferState* buffer, const char* tag) {
    if (buffer->bufferDataCursor == buffer->bufferCursor) {
        buffer->bufferCursor = 0;
        buffer->bufferDataCursor = 0;
        return true;
    }
    int tryCount = 0;
    while (tryCount < kSendAttempts) {
        if (tryCount == kSendAttempts - 1) sleep(1);
        const uint64_t left = buffer->bufferDataCursor - buffer->bufferCursor;
        // MSG_NOSIGNAL: a peer that has gone must not raise SIGPIPE on a thread other than the loop's.
        const ssize_t sent =
                sendto(fd, buffer->buffer.data() + buffer->bufferCursor, left, MSG_NOSIGNAL, nullptr, 0);
        if (sent >= 0) {
            if (static_cast<uint64_t>(sent) <= left) buffer->bufferCursor += static_cast<uint64_t>(sent);
        } else if (errno != EAGAIN) {
            IPC_LOGE("[UnixIpcManager] Send data failed! leftSize: %zd, error: %d, message: %s, clientFd: %d",
                     static_cast<ssize_t>(left), errno, strerror(errno), fd);
            return false;
        } else {
            ++tryCount;
            IPC_LOGW("[UnixIpcManager] Socket buffer full! tryCount: %d, message: %s", tryCount, strerror(EAGAIN));
            sched_yield();
        }
        if (buffer->bufferCursor == buffer->bufferDataCursor) {
            buffer->bufferCursor = 0;
            buffer->bufferDataCursor = 0;
            return true;
        }
    }
    IPC_LOGE("[UnixIpcManager] Send data 10 times failed! leftSize: %zd, error: %d, message: %s, clientFd: %d",
             static_cast<ssize_t>(buffer->bufferDataCursor - buffer->bufferCursor), EAGAIN, strerror(EAGAIN), fd);
    IPC_LOGE("[UnixIpcManager] Clear send buffer");
    RecordBpfServiceErrorInfo(kSendDataFailedErrorCode,
                              StringPrintf("Send data 10 times failed. bufferCursor: %zd, bufferDataCursor: %zd",
                                           static_cast<ssize_t>(buffer->bufferCursor),
                                           static_cast<ssize_t>(buffer->bufferDataCursor)));
    buffer->bufferCursor = 0;
    buffer->bufferDataCursor = 0;
    errno = EAGAIN;
    return false;
}

bool UnixIpcManager::closeConnection(int fd) {
    epollManager->delMonitorFd(fd);
    android::base::unique_fd closing;
    std::shared_ptr<IpcConnection> released;
    if (fd == listeningSocket.get()) {
        closing = std::move(listeningSocket);
    } else {
        {
            std::lock_guard<std::mutex> lock(mutex);
            const auto it = connections.find(fd);
            if (it == connections.end()) return true;  // already released
            released = std::move(it->second);
            connections.erase(it);
        }
        closing = std::move(released->socket);
        released->readBuffer.reset();
        // Taken outside the table's lock: the write handler holds this one while it looks the table up.
        std::lock_guard<std::mutex> writeLock(released->writeLock);
        released->writeBuffer.reset();
    }
    const bool closed = close(closing.release()) == 0;
    if (!closed) {
        IPC_LOGE("[UnixIpcManager][ServerCallback] Close fd(%d) failed: %d, message: %s", fd, errno, strerror(errno));
    }
    // Released whether or not close() succeeded: the descriptor is gone either way.
    if (released && handlers.releaseHandler) handlers.releaseHandler(*released);
    return closed;
}
