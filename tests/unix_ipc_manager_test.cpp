// A server and client UnixIpcManager talking over a real local socket: requests and responses,
// events pushed from another thread, peers that hang up, stop reading or send a frame that can never
// fit, and the client's reconnecting and the server's re-creating of its socket.

#include <android/log.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kova_ipc_test_util.h"
#include "kova_test_client.h"
#include "kova_test_support.h"
#include "ipc/kova_bpf_ipc_helper.h"
#include "ipc/kova_bpf_ipc_package_handler.h"
#include "ipc/kova_bpf_ipc_package_manager.h"
#include "ipc/kova_bpf_ipc_req_callback_manager.h"
#include "ipc/kova_bpf_unix_ipc_manager.h"

namespace kova::test {
namespace {

using namespace std::chrono_literals;
using android::base::unique_fd;

constexpr auto kWait = 20s;
constexpr int kBufferSize = 32768;
constexpr int32_t kAnsweredType = 51;  // answered with result 0; other types get -1
constexpr int32_t kBlockingType = 60;  // holds the server's loop until Release()

std::string UniqueSocketName() {
    static int counter = 0;
    return "kova-ipc-test-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
}

// One end in the shape of the service or of a client library: a package queue per connection filled on
// the loop thread, requests answered there, responses handed to their callbacks, events kept in order.
class Peer {
  public:
    struct Message {
        int fd;
        uint32_t reqId;
        int32_t typeOrResult;
        std::string data;
        bool operator==(const Message&) const = default;
    };

    Peer(bool isServer, const std::string& name) {
        IpcHandlerState handlers;
        handlers.compactBeforeRead = true;
        handlers.closeOnFailure = true;
        handlers.readHandler = [this](int fd, BufferState* buffer) {
            return packageHandler.handleAllIpcPackageInBuffer(fd, buffer) == 0 ? -1 : 0;
        };
        handlers.writeHandler = [this](int fd, BufferState* buffer) {
            if (IpcPackageManager* queue = Queue(fd)) queue->fillNextIpcPackagesToBuffer(buffer);
            return 0;
        };
        handlers.connectionHandler = [this](int fd) {
            Keep(&connected, fd);
            return 0;
        };
        handlers.closeHandler = [this](int fd) {
            Keep(&closed, fd);
            return 0;
        };
        handlers.releaseHandler = [this](IpcConnection& connection) { Keep(&released, connection.fd); };
        manager = UnixIpcManager::Create(isServer, kBufferSize, name, handlers,
                                         isServer ? "IpcTestServer" : "IpcTestClient", std::nullopt, 10, 32);
        manager->start();
        // A server's socket is made on the loop thread; peers that connect on their own need it.
        if (isServer) WaitUntil([this] { return manager->getSocketFd() >= 0; }, kWait);
    }
    // The loop goes before the state its callbacks use, and while `manager` still points at it (a
    // reset() would clear the pointer that running callbacks read).
    ~Peer() {
        std::default_delete<UnixIpcManager>()(manager.get());
        (void)manager.release();
    }

    // Queues an event record for `fd` and arms its write event, as the event pump does.
    void Push(int fd, const std::string& record) {
        if (IpcPackageManager* queue = Queue(fd)) {
            queue->buildAndAppendSecondIpcPackage(PACKAGE_TYPE_EVENT, record.data(), record.size());
            manager->notifyNeedWriteData(fd);
        }
    }
    // Queues it without arming anything.
    void Enqueue(int fd, const std::string& record) {
        if (IpcPackageManager* queue = Queue(fd)) queue->buildAndAppendSecondIpcPackage(PACKAGE_TYPE_EVENT, record.data(), record.size());
    }
    void Respond(int fd, uint32_t reqId, int32_t result) {
        KovaRespIpcPackage response{reqId, result, 0, {}};
        Queue(fd)->appendRespIpcPackage(&response);
        manager->notifyNeedWriteData(fd);
    }
    // A client's request over its link; the response is kept by its callback.
    uint32_t Request(int32_t reqType, const std::string& data) {
        const int fd = manager->getSocketFd();
        const uint32_t reqId = callbacks.getReqId();
        callbacks.addIpcReqCallBack(reqId, [this, fd](uint32_t id, int32_t result, const char* bytes, uint32_t size) {
            Keep(&responses, {fd, id, result, std::string(bytes, size)});
            return 0;
        });
        KovaReqIpcPackage request{reqId, reqType, static_cast<uint32_t>(data.size()), data.data()};
        Queue(fd)->appendReqIpcPackage(&request);
        manager->notifyNeedWriteData(fd);
        return reqId;
    }
    void Release() {
        std::lock_guard<std::mutex> lock(mutex);
        releasedFromBlocking = true;
        releasedWake.notify_all();
    }

    template <typename T>
    std::vector<T> Get(const std::vector<T>& list) {
        std::lock_guard<std::mutex> lock(mutex);
        return list;
    }
    template <typename T>
    bool WaitFor(const std::vector<T>& list, size_t count) {
        return WaitUntil([&] { return Get(list).size() >= count; }, kWait);
    }

    std::unique_ptr<UnixIpcManager> manager;
    std::atomic<bool> blocking{false};
    std::vector<int> connected, closed, released;
    std::vector<Message> requests, responses;
    std::vector<std::string> events;

  private:
    // The connection's own queue. Every caller holds the connection open, so the pointer stays valid.
    IpcPackageManager* Queue(int fd) {
        const std::shared_ptr<IpcConnection> connection = manager->connection(fd);
        return connection ? &connection->ipcPackageManager : nullptr;
    }
    template <typename T>
    void Keep(std::vector<T>* list, T message) {
        std::lock_guard<std::mutex> lock(mutex);
        list->push_back(std::move(message));
    }

    int OnRequest(int fd, char* payload, size_t size) {
        const KovaReqIpcPackageHeader header = ReadReqIpcPackageHeader(payload, size);
        if (header.reqType == kBlockingType) {
            std::unique_lock<std::mutex> lock(mutex);
            blocking = true;
            releasedWake.wait(lock, [this] { return releasedFromBlocking; });
        }
        Keep(&requests, {fd, header.reqId, header.reqType, std::string(payload + sizeof(header), header.dataSize)});
        Respond(fd, header.reqId, header.reqType == kAnsweredType ? 0 : -1);
        return 0;
    }

    IpcReqCallBackManager callbacks;
    IpcPackageHandler packageHandler{{
            {PACKAGE_TYPE_REQUEST, [this](int fd, char* payload, size_t size) { return OnRequest(fd, payload, size); }},
            {PACKAGE_TYPE_RESPONSE,
             [this](int, char* payload, size_t size) {
                 callbacks.handleReqCallBack(payload, size);
                 return 0;
             }},
            {PACKAGE_TYPE_SPARE, [](int, char*, size_t) { return -1; }},  // refused
            {PACKAGE_TYPE_EVENT,
             [this](int, char* payload, size_t size) {
                 std::lock_guard<std::mutex> lock(mutex);
                 events.emplace_back(payload, size);
                 return 0;
             }},
    }};
    std::mutex mutex;
    std::condition_variable releasedWake;
    bool releasedFromBlocking = false;
};

// A raw connection to a server: blocking, so that writes go out whole, with receives that give up
// after 20 seconds.
unique_fd ConnectRaw(const std::string& name) {
    unique_fd fd(ConnectToServer(name.c_str()));
    const timeval timeout{20, 0};
    if (!fd.ok() || fcntl(fd.get(), F_SETFL, 0) != 0 ||
        setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) != 0) {
        ADD_FAILURE() << "no raw connection";
    }
    return fd;
}

// Writes `bytes` and returns the next `replySize` bytes received (fewer on timeout or end).
std::string Exchange(int fd, const std::string& bytes, size_t replySize = 0) {
    EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    std::string reply(replySize, '\0');
    reply.resize(replySize == 0 ? 0 : std::max<ssize_t>(recv(fd, reply.data(), replySize, MSG_WAITALL), 0));
    return reply;
}

class UnixIpcManagerTest : public ::testing::Test {
  protected:
    const std::string name = UniqueSocketName();
    LogCapture log;
    ErrorLogDir errorLog;
};

TEST_F(UnixIpcManagerTest, RequestsAreAnsweredEachResponseReachesItsCallbackOnceAndEventsArriveInOrder) {
    Peer server(true, name);
    Peer client(false, name);
    ASSERT_TRUE(server.WaitFor(server.connected, 1));
    ASSERT_TRUE(client.WaitFor(client.connected, 1));
    const int fd = server.Get(server.connected)[0];
    std::vector<std::string> sent;
    for (int i = 0; i < 3000; ++i) sent.push_back(EventRecord(50001 + i % 4, 32 + (i * 37) % 1000, static_cast<uint8_t>(i)));
    std::thread producer([&] {
        for (const std::string& record : sent) server.Push(fd, record);
    });

    const uint32_t subscribe = client.Request(kAnsweredType, U32(50001));
    const uint32_t unknown = client.Request(99, "");
    const uint32_t third = client.Request(kAnsweredType, U32(50002) + U32(7));
    ASSERT_TRUE(client.WaitFor(client.responses, 3));
    EXPECT_EQ(server.Get(server.requests), (std::vector<Peer::Message>{{fd, subscribe, kAnsweredType, U32(50001)},
                                                                       {fd, unknown, 99, ""},
                                                                       {fd, third, kAnsweredType, U32(50002) + U32(7)}}));
    const int link = client.manager->getSocketFd();
    EXPECT_EQ(client.Get(client.responses),
              (std::vector<Peer::Message>{{link, subscribe, 0, ""}, {link, unknown, -1, ""}, {link, third, 0, ""}}));

    // A response nobody waits for, and a second one for an answered request: logged and ignored.
    producer.join();
    server.Respond(fd, 777, 0);
    server.Respond(fd, subscribe, 0);
    for (const uint32_t reqId : {777u, subscribe}) {
        EXPECT_TRUE(log.WaitFor("[IRCB Manager] Unknow request callback functuin: reqId: " + std::to_string(reqId), kWait));
    }
    EXPECT_EQ(client.Get(client.responses).size(), 3u);
    EXPECT_EQ(client.Get(client.events), sent);
    EXPECT_EQ(errorLog.CountCode(1), 0);
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "IpcTestServer", "[UnixIpcManager][start] Create server: " + name));
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "IpcTestClient", "[UnixIpcManager][start] Connection to server: " + name));
}

TEST_F(UnixIpcManagerTest, APeerThatStopsReadingLosesTheBatchAndTheOthersAreStillServed) {
    Peer server(true, name);
    Peer client(false, name);
    ASSERT_TRUE(server.WaitFor(server.connected, 1));
    unique_fd stalled(ConnectToServer(name.c_str()));
    ASSERT_TRUE(server.WaitFor(server.connected, 2));
    const int stalledFd = server.Get(server.connected)[1];
    for (int i = 0; i < 300; ++i) server.Push(stalledFd, EventRecord(50001, 1000));
    // The loop sends a batch; then the socket no longer reports writable (a Unix socket does so only
    // below a quarter of its send buffer) and the loop leaves it alone. Sending from a producer
    // thread meets the full socket.
    bool sent = true;
    std::thread producer([&] { sent = server.manager->writeDataNow(stalledFd); });
    ASSERT_TRUE(log.WaitFor("[UnixIpcManager] Socket buffer full! tryCount: 1, message: Resource temporarily unavailable",
                            kWait));
    // Meanwhile the loop goes on serving everyone else.
    client.Request(kAnsweredType, U32(50001));
    EXPECT_TRUE(client.WaitFor(client.responses, 1));

    producer.join();
    EXPECT_FALSE(sent);
    for (int tryCount = 1; tryCount <= 11; ++tryCount) {
        EXPECT_EQ(log.Count(ANDROID_LOG_WARN, "IpcTestServer",
                            "[UnixIpcManager] Socket buffer full! tryCount: " + std::to_string(tryCount) +
                                    ", message: Resource temporarily unavailable"),
                  1);
    }
    EXPECT_EQ(log.CountContaining("[UnixIpcManager] Send data 10 times failed! leftSize: "), 1);
    EXPECT_EQ(log.CountContaining(", error: 11, message: Resource temporarily unavailable, clientFd: " +
                                  std::to_string(stalledFd)),
              1);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "IpcTestServer", "[UnixIpcManager] Clear send buffer"));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "IpcTestServer",
                        "[UnixIpcManager] Send ipc data failed: 11, message: Resource temporarily unavailable"));
    EXPECT_EQ(errorLog.CountCode(1), 1);
    EXPECT_NE(errorLog.Text().find("Error: Send data 10 times failed. bufferCursor: "), std::string::npos);
    EXPECT_TRUE(server.Get(server.closed).empty());
}

// A producer's send needs no loop: with the loop held, its events arrive. What the socket does not take
// stays for the loop, a cut frame's tail first, and arrives whole and in order once the loop runs.
TEST_F(UnixIpcManagerTest, AProducerSendsWithoutTheLoopAndLeavesWhatDoesNotFitToIt) {
    Peer server(true, name);
    TestClient reader(ConnectRaw(name));
    ASSERT_TRUE(server.WaitFor(server.connected, 1));
    const int fd = server.Get(server.connected)[0];
    reader.Request(kBlockingType, "");
    ASSERT_TRUE(WaitUntil([&] { return server.blocking.load(); }, kWait));

    server.Enqueue(fd, EventRecord(50001, 64, 0));
    EXPECT_TRUE(server.manager->sendNowOrNotify(fd));
    EXPECT_EQ(reader.NextEvent(5s), EventRecord(50001, 64, 0));

    constexpr int kEvents = 600;  // 600 KB, more than the socket holds
    for (int i = 1; i <= kEvents; ++i) server.Enqueue(fd, EventRecord(50001, 1000, static_cast<uint8_t>(i)));
    for (int i = 0; i < 20; ++i) server.manager->sendNowOrNotify(fd);
    server.Release();
    for (int i = 1; i <= kEvents; ++i) {
        ASSERT_EQ(reader.NextEvent(5s), EventRecord(50001, 1000, static_cast<uint8_t>(i))) << "event " << i;
    }
}

TEST_F(UnixIpcManagerTest, APeerThatHangsUpIsClosedOnceEvenWithUnreadBytes) {
    Peer server(true, name);
    Peer holder(false, name);
    ASSERT_TRUE(holder.WaitFor(holder.connected, 1));
    unique_fd leaving = ConnectRaw(name);
    ASSERT_TRUE(server.WaitFor(server.connected, 2));
    const int leavingFd = server.Get(server.connected)[1];

    // Hold the loop inside a request, so that the next bytes and the hang-up arrive together.
    holder.Request(kBlockingType, "");
    ASSERT_TRUE(WaitUntil([&] { return server.blocking.load(); }, kWait));
    Exchange(leaving.get(), RequestFrame(1, kAnsweredType, ""));
    leaving.reset();
    server.Release();

    ASSERT_TRUE(server.WaitFor(server.closed, 1));
    EXPECT_TRUE(holder.WaitFor(holder.responses, 1));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(server.Get(server.closed), std::vector<int>{leavingFd});
    for (const Peer::Message& request : server.Get(server.requests)) EXPECT_NE(request.fd, leavingFd);
}

// However a connection ends, it leaves the table and the epoll loop, its release is told once, and the
// close handler hears only of those the peer closed. A failed receive takes the refused package's path.
TEST_F(UnixIpcManagerTest, EveryWayAConnectionEndsLeavesNoTrace) {
    Peer server(true, name);
    std::vector<int> fds;
    auto connect = [&] {
        unique_fd raw = ConnectRaw(name);
        EXPECT_TRUE(server.WaitFor(server.connected, fds.size() + 1));
        fds.push_back(server.Get(server.connected).back());
        return raw;
    };
    auto endsAfter = [&](size_t releases, size_t listening = 1) {
        return server.WaitFor(server.released, releases) && server.manager->connectionCount() == 0 &&
               server.manager->monitoredCount() == listening;
    };

    connect().reset();  // the peer hangs up
    ASSERT_TRUE(endsAfter(1));

    unique_fd refusing = connect();  // the read handler refuses what the peer sends
    Exchange(refusing.get(), PackageFrame(PACKAGE_TYPE_SPARE, "x"));
    ASSERT_TRUE(endsAfter(2));
    char byte;
    EXPECT_EQ(recv(refusing.get(), &byte, 1, 0), 0);

    unique_fd leaving = connect();
    // A producer sending to a peer that stopped reading meets the full socket, then the peer leaves:
    // the send fails, and the hang-up closes the connection.
    for (int i = 0; i < 300; ++i) server.Push(fds.back(), EventRecord(50001, 1000));
    bool sent = true;
    std::thread producer([&] { sent = server.manager->writeDataNow(fds.back()); });
    ASSERT_TRUE(log.WaitFor("[UnixIpcManager] Socket buffer full! tryCount: 1, message: Resource temporarily unavailable",
                            kWait));
    leaving.reset();
    producer.join();
    EXPECT_FALSE(sent);
    EXPECT_EQ(log.CountContaining("[UnixIpcManager] Send data failed! leftSize: "), 1);
    ASSERT_TRUE(endsAfter(3));

    unique_fd open = connect();  // the server stops
    server.manager->stop();
    server.manager->join();
    server.manager->closeConnections();
    ASSERT_TRUE(endsAfter(4, 0));
    EXPECT_EQ(recv(open.get(), &byte, 1, 0), 0);
    EXPECT_EQ(server.Get(server.released), fds);
    EXPECT_EQ(server.Get(server.closed), (std::vector<int>{fds[0], fds[2]}));
}

// The largest frame that fits is bufferSize - 8 bytes of body; one byte more is dropped with the buffer
// and the connection serves the next frame.
TEST_F(UnixIpcManagerTest, TheLargestRequestIsServedAndOneByteMoreIsDropped) {
    Peer server(true, name);
    unique_fd raw = ConnectRaw(name);
    const std::string data(kBufferSize - 28, 'd');
    EXPECT_EQ(Exchange(raw.get(), RequestFrame(5, kAnsweredType, data), 28), ResponseFrame(5, 0, ""));
    ASSERT_EQ(server.Get(server.requests).size(), 1u);
    EXPECT_EQ(server.Get(server.requests)[0].data, data);

    const std::string tooBig = U64(kBufferSize - 7) + "trailing bytes that are thrown away";
    Exchange(raw.get(), tooBig);
    ASSERT_TRUE(WaitUntil([&] { return errorLog.CountCode(2) == 1; }, kWait));
    EXPECT_EQ(log.CountContaining("Ipc package too big or damage, clear buffer. packageSize: 32769, cursor: 0, data: " +
                                  std::to_string(tooBig.size()) + ", bufferSize: 32768"),
              1)
            << log.Dump();
    EXPECT_EQ(Exchange(raw.get(), RequestFrame(41, kAnsweredType, U32(50003)), 28), ResponseFrame(41, 0, ""));
    EXPECT_TRUE(server.Get(server.closed).empty());
}

TEST_F(UnixIpcManagerTest, TheClientReconnectsWhenTheServerGoesAwayAndComesBack) {
    auto server = std::make_unique<Peer>(true, name);
    Peer client(false, name);
    ASSERT_TRUE(client.WaitFor(client.connected, 1));
    client.Request(kAnsweredType, U32(50001));
    ASSERT_TRUE(client.WaitFor(client.responses, 1));

    server.reset();
    EXPECT_TRUE(log.WaitFor("[UnixIpcManager][onClientCloseCallback] Server socket abnormal close! (" + name + ")",
                            kWait));
    EXPECT_TRUE(log.WaitFor("[UnixIpcManager] Connect failed: 111, message: Connection refused, clientFd: -1, Wait 5 "
                            "senconds",
                            kWait))
            << log.Dump();
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "BpfUtils", "Failed to create socket: 111, message: Connection refused"));
    EXPECT_EQ(client.Get(client.closed).size(), 1u);

    server = std::make_unique<Peer>(true, name);
    ASSERT_TRUE(client.WaitFor(client.connected, 2));
    client.Request(kAnsweredType, U32(50002));
    ASSERT_TRUE(client.WaitFor(client.responses, 2));
    EXPECT_EQ(client.Get(client.responses)[1].typeOrResult, 0);
}

TEST_F(UnixIpcManagerTest, AClientWithoutAServerKeepsTryingUntilItIsStopped) {
    Peer client(false, name);
    EXPECT_TRUE(log.WaitFor("[UnixIpcManager] Connect failed: 111, message: Connection refused, clientFd: -1, Wait 5 "
                            "senconds",
                            kWait));
    EXPECT_EQ(client.manager->getSocketFd(), -1);
}  // destruction ends the retrying at once

TEST_F(UnixIpcManagerTest, TheServerRecreatesItsSocketWhenItHangsUp) {
    Peer server(true, name);
    const int listening = server.manager->getSocketFd();
    ASSERT_EQ(shutdown(listening, SHUT_RDWR), 0);
    EXPECT_TRUE(log.WaitFor("[UnixIpcManager][onServerCloseCallback] Server socket abnormal close! (" + name + ")",
                            kWait))
            << log.Dump();
    EXPECT_EQ(server.Get(server.closed), std::vector<int>{listening});

    Peer client(false, name);
    ASSERT_TRUE(client.WaitFor(client.connected, 1));
    client.Request(kAnsweredType, U32(50001));
    EXPECT_TRUE(client.WaitFor(client.responses, 1));
}

TEST_F(UnixIpcManagerTest, RolesAreKeptApart) {
    auto server = UnixIpcManager::Create(true, 64, name, IpcHandlerState{}, nullptr, std::nullopt, 4, 4);
    EXPECT_FALSE(server->connect());
    auto client = UnixIpcManager::Create(false, 64, name, IpcHandlerState{}, nullptr, std::nullopt, 4, 4);
    EXPECT_FALSE(client->createServer());
    EXPECT_TRUE(client->stop());
    for (const char* message : {"[UnixIpcManager] Create client in server manager",
                                "[UnixIpcManager] Create server in client manager"}) {
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "BpfUtils", message));
    }
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "BpfUtils", "[UnixIpcManager][stop] Stop epoll Manager..."));
}

TEST(ReceiveTest, AFullReadBufferIsReportedAndReceivesNothingUntilCompacted) {
    LogCapture log;
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
    unique_fd near(fds[0]);
    unique_fd far(fds[1]);
    ASSERT_EQ(write(far.get(), "more", 4), 4);
    BufferState buffer = MakeBuffer(12);
    Deliver(&buffer, U64(40) + "part");  // one frame that has not arrived yet, filling the buffer
    EXPECT_EQ(UnixIpcManager::receiveToBuffer(near.get(), &buffer, true, "ReceiveTest"), 0);
    EXPECT_EQ(buffer.bufferDataCursor, 12u);
    for (const char* message : {"[UnixIpcManager] client readable callback buffer exception!",
                                "[UnixIpcManager] client readable cb buffersize: 12, bufferDataCursor: 12",
                                "[UnixIpcManager] client readable buffer hexdump: 28 00 00 00 00 00 00 00 70 61 72 74 "}) {
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "ReceiveTest", message));
    }
    buffer.bufferCursor = 8;
    EXPECT_EQ(UnixIpcManager::receiveToBuffer(near.get(), &buffer, true, "ReceiveTest"), 4);
    EXPECT_EQ(Unread(buffer), "partmore");
}

TEST(SocketHelperTest, AServerNameInUseIsReportedAndSocketsAreNonBlocking) {
    LogCapture log;
    const std::string name = UniqueSocketName();
    unique_fd first(CreateNonblockingServerSocket(name.c_str()));
    ASSERT_TRUE(first.ok());
    EXPECT_EQ(CreateNonblockingServerSocket(name.c_str()), -1);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "BpfUtils",
                        "Create socket: " + name + " failed: 98, message: Address already in use"));
    unique_fd client(ConnectToServer(name.c_str()));
    ASSERT_TRUE(client.ok());
    EXPECT_TRUE(fcntl(client.get(), F_GETFL) & O_NONBLOCK);
    EXPECT_TRUE(fcntl(first.get(), F_GETFL) & O_NONBLOCK);
    EXPECT_TRUE(fcntl(first.get(), F_GETFD) & FD_CLOEXEC);
}

}  // namespace
}  // namespace kova::test
