// UnixIpcManager: one end of a local stream-socket link. As a server it listens on a named local
// socket and serves any number of connections; as a client it connects to such a server and connects
// again whenever the link breaks. It owns an EpollManager, gives every connection one read and one write
// buffer of `bufferSize` bytes, moves bytes between sockets and buffers, and hands the buffers to the
// handlers of an IpcHandlerState. It knows nothing of package contents: the handlers do the framing.
//
// Ownership: the manager owns its socket and, in one table, every connection (IpcConnection): the
// socket, its buffers, its outgoing queue and its subscriptions. A connection leaves the table, closed,
// when the peer hangs up, when a receive or the read handler fails (with `closeOnFailure`), in
// closeConnections() and at destruction; the release handler hears of each.
//
// Threads: every callback runs on the epoll loop thread. Other threads enter only through
// notifyNeedWriteData and writeDataNow. The socket is created on the loop thread when it starts; a
// client keeps retrying there every 5 seconds until a server accepts, so meanwhile that loop serves
// nothing else.
#pragma once

#include <sched.h>
#include <stdint.h>
#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "ipc/kova_bpf_epoll_manager.h"
#include "ipc/kova_bpf_ipc_connection.h"
#include "ipc/kova_bpf_ipc_package.h"

// What a manager's user does with its connections. Every handler may be empty; without a read handler
// connections get no read buffer and are not read, without a write handler they get no write buffer.
struct IpcHandlerState {
    bool compactBeforeRead = false;  // move unread bytes to the buffer's start before each receive
    bool closeOnFailure = false;     // close a connection whose receive or read handler failed
    bool thirdFlag = false;          // carried along; nothing reads it
    // Consumes received bytes from the buffer; -1 is a failure, which drops the buffered bytes.
    std::function<int(int fd, BufferState* readBuffer)> readHandler;
    // Fills the (empty) write buffer with what is to be sent next; -1 is a failure.
    std::function<int(int fd, BufferState* writeBuffer)> writeHandler;
    // Asked of every connection a server accepts, before it is registered or any byte of it is read:
    // false closes it at once, and no other handler hears of it. Empty: every connection is served.
    std::function<bool(int fd)> acceptFilter;
    // Told of a new connection (and of a client's own link); the result is ignored.
    std::function<int(int fd)> connectionHandler;
    // Told of a connection the peer closed; the result is ignored.
    std::function<int(int fd)> closeHandler;
    // Told of every connection the manager releases, whichever way it ended (before the close handler,
    // when that is told too), so that what its user keeps of it goes with it. Not told at destruction.
    std::function<void(IpcConnection& connection)> releaseHandler;
};

class UnixIpcManager {
  public:
    // `socketName` is an abstract name for a server; a client tries it as a path, then as an abstract
    // name. The epoll loop runs `createServer` (server) or `connect` (client) first and has no wait
    // timeout. `tag` (null: "BpfUtils") is the log tag and the loop thread's name; `cpus` the loop
    // thread's CPUs (none: those of the creating thread). Null, after logging why, when the epoll loop
    // cannot be made.
    static std::unique_ptr<UnixIpcManager> Create(bool isServer, int bufferSize, std::string socketName,
                                                  IpcHandlerState handlers, const char* tag,
                                                  std::optional<cpu_set_t> cpus, int epollSize, int maxEvents);
    // Stops and joins the loop, then closes the socket and every connection still open, without telling
    // the handlers.
    virtual ~UnixIpcManager();

    UnixIpcManager(const UnixIpcManager&) = delete;
    UnixIpcManager& operator=(const UnixIpcManager&) = delete;

    // Loop thread: creates the listening socket and registers it. False in a client manager or when
    // the socket cannot be created.
    virtual bool createServer();
    // Loop thread: connects, retrying every 5 seconds, and registers the link like an accepted
    // connection. False in a server manager, or once the manager is stopped: a stopped client makes no
    // new link.
    virtual bool connect();
    // Starts the loop thread. Once only.
    virtual bool start();
    // Stops the loop thread; connections stay open until closeConnections() or destruction. Safe from
    // any thread.
    virtual bool stop();
    // Waits for a stopped loop thread to end (at once when it never started). Not from the loop thread.
    void join();
    // Closes the listening socket, then releases every open connection (telling the release handler):
    // a stopped server's clients learn that it has gone. Only once the loop has ended (after join()).
    void closeConnections();

    // Arms the write event of `fd`: the loop calls the write handler when the socket is writable, until
    // the handler leaves nothing to send. Safe from any thread.
    bool notifyNeedWriteData(int fd);
    // Runs the send path of `fd` on the calling thread until nothing is left to send (true) or sending
    // fails (false). Safe from any thread.
    bool writeDataNow(int fd);
    // Sends what the write handler gives for `fd` with one send on the calling thread, which never waits
    // for the peer: a producer's events then reach it without a hop through the loop thread. Whatever
    // is left (a full socket, more than a buffer's worth, the loop sending at that moment) goes to the
    // loop, whose write event is armed, and an unsent tail stays at the front of the write buffer.
    // True when `fd` is a connection. Safe from any thread.
    bool sendNowOrNotify(int fd);

    // The listening socket (server) or the link (client); -1 while there is none. For diagnostics and
    // tests.
    int getSocketFd() const { return socketFd.load(std::memory_order_acquire); }
    // The open connection on `fd`, or null. Safe from any thread.
    std::shared_ptr<IpcConnection> connection(int fd) const EXCLUDES(mutex);
    // How many connections the table holds, and how many descriptors the epoll loop watches (the
    // listening socket included). For diagnostics and tests.
    size_t connectionCount() const EXCLUDES(mutex);
    size_t monitoredCount() const { return epollManager->monitoredCount(); }

    // Runs one round of the epoll loop on the calling thread (EpollManager::runRound), for a harness that
    // drives a manager it never started, after calling createServer() itself. Never while the loop
    // thread runs.
    int TEST_runLoopRound(int timeoutMs) { return epollManager->runRound(timeoutMs); }

    // One receive into `readBuffer`: compacts it first when asked, logs when it is full, then reads at
    // most its free space. Returns recvfrom's result (0 also when the buffer is full). The receive step
    // of every connection, exposed so the framing can be exercised without a manager.
    static ssize_t receiveToBuffer(int fd, BufferState* readBuffer, bool compactBeforeRead, const char* tag);

    // Sends the buffered bytes of `buffer`, retrying a full socket: after 10 attempts that found the
    // socket full (with a yield after each) and a pause of one second, an eleventh; then the rest is
    // dropped (error log code 1) and the result is false. Any other send error is false at once.
    // Empties the buffer on success.
    static bool ensureDataSend(int fd, BufferState* buffer, const char* tag);

  private:
    UnixIpcManager(bool isServer, int bufferSize, std::string socketName, IpcHandlerState handlers, const char* tag);

    // Epoll callbacks.
    int onServerReadableCallback(epoll_event event);
    int onServerCloseCallback(epoll_event event);
    int onClientReadableCallback(IpcConnection& connection);
    int onClientCloseCallback(const std::shared_ptr<IpcConnection>& connection);
    int onCommWriteCallback(IpcConnection& connection);

    // Puts an accepted connection (or a client's link) into the table and registers its callbacks.
    // False, leaving nothing behind but the closed socket, when the epoll manager refuses it.
    bool registerConnection(android::base::unique_fd socket);
    void setSocketBufferSizes(int fd);
    // Unregisters `fd`, takes its connection out of the table, closes it, empties its buffers and tells
    // the release handler. The listening socket closes the same way. False when close() fails (logged);
    // the descriptor is gone either way. A connection already released is left alone.
    bool closeConnection(int fd);
    // Waits up to `seconds` unless the manager stops; true when it stopped.
    bool waitBeforeRetry(int seconds);
    // Whether stop() (or destruction) has begun.
    bool stopping() EXCLUDES(stopLock);
    // After a server's send: stamps connection.lastKeptUpNs when the peer's socket is at most half full
    // (producers that pace themselves read it; a client's own link has none).
    static void notePeerKeepingUp(IpcConnection& connection);
    // sendNowOrNotify's one send; true when nothing is left to send.
    bool sendOnce(IpcConnection& connection) REQUIRES(connection.writeLock);

    // Constant after construction.
    const std::string socketName;
    const bool isServer;
    const int bufferSize;
    const char* const tag;
    IpcHandlerState handlers;
    std::unique_ptr<EpollManager> epollManager;

    // The open connections, by descriptor. Entries are added and removed on the loop thread (and by
    // closeConnections() and the destructor once it has ended); other threads look them up.
    mutable std::mutex mutex;
    std::map<int, std::shared_ptr<IpcConnection>> connections GUARDED_BY(mutex);

    // Loop thread only (and the destructor, after the loop ended): a server's listening socket.
    android::base::unique_fd listeningSocket;

    std::atomic<int> socketFd{-1};

    // Lets a client that keeps retrying notice stop().
    std::mutex stopLock;
    std::condition_variable stopWake;
    bool stopRequested GUARDED_BY(stopLock) = false;
};
