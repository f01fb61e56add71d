// A server and client UnixIpcManager talking over a real local socket: requests and responses,
// events pushed from another thread, peers that hang up, stop reading or send a frame that can never
// fit, and the client's reconnecting and the server's re-creating of its socket.

#include <android/log.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
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
#include "kova_test_support.h"
#include "utils/kova_bpf_ipc_helper.h"
#include "utils/kova_bpf_ipc_package_handler.h"
#include "utils/kova_bpf_ipc_package_manager.h"
#include "utils/kova_bpf_ipc_req_callback_manager.h"
#include "utils/kova_bpf_unix_ipc_manager.h"

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

void DestroyInPlace(std::unique_ptr<UnixIpcManager>* manager) {
    std::default_delete<UnixIpcManager>()(manager->get());
    (void)manager->release();
}

// A server in the shape of the service: a package queue per connection, requests answered on the loop
// thread, events pushed by any thread.
class TestServer {
  public:
    struct Request {
        int fd;
        uint32_t reqId;
        int32_t reqType;
        std::string data;
    };

    explicit TestServer(const std::string& name) {
        IpcHandlerState handlers;
        handlers.compactBeforeRead = true;
        handlers.closeOnFailure = true;
        handlers.thirdFlag = true;
        handlers.readHandler = [this](int fd, BufferState* buffer) {
            return packageHandler.handleAllIpcPackageInBuffer(fd, buffer) == 0 ? -1 : 0;
        };
        handlers.writeHandler = [this](int fd, BufferState* buffer) {
            if (std::shared_ptr<IpcPackageManager> queue = Queue(fd)) {
                while (queue->fillNextIpcPackageToBuffer(buffer)) {
                }
            }
            return 0;
        };
        handlers.connectionHandler = [this](int fd) {
            std::lock_guard<std::mutex> lock(mutex);
            queues.try_emplace(fd, std::make_shared<IpcPackageManager>());
            connected.push_back(fd);
            return 0;
        };
        handlers.closeHandler = [this](int fd) {
            std::lock_guard<std::mutex> lock(mutex);
            queues.erase(fd);
            closed.push_back(fd);
            return 0;
        };
        manager = std::make_unique<UnixIpcManager>(true, kBufferSize, name, handlers, "IpcTestServer", 10, 32);
        manager->start();
        // The socket is made on the loop thread; peers that connect on their own need it to exist.
        listening = WaitUntil([this] { return manager->getSocketFd() >= 0; }, kWait);
    }
    // The loop goes before the state its callbacks use, and while `manager` still points at it (a
    // reset() would clear the pointer that running callbacks read).
    ~TestServer() { DestroyInPlace(&manager); }

    // Queues an event record for `fd` and arms its write event, as the event pump does.
    void Push(int fd, const std::string& record) {
        if (std::shared_ptr<IpcPackageManager> queue = Queue(fd)) {
            queue->buildAndAppendSecondIpcPackage(PACKAGE_TYPE_EVENT, record.data(), record.size());
            manager->notifyNeedWriteData(fd);
        }
    }
    void Respond(int fd, uint32_t reqId, int32_t result) {
        KovaRespIpcPackage response{reqId, result, 0, {}};
        Queue(fd)->appendRespIpcPackage(&response);
        manager->notifyNeedWriteData(fd);
    }
    void Release() {
        std::lock_guard<std::mutex> lock(mutex);
        released = true;
        releasedWake.notify_all();
    }

    std::vector<int> Connected() {
        std::lock_guard<std::mutex> lock(mutex);
        return connected;
    }
    std::vector<int> Closed() {
        std::lock_guard<std::mutex> lock(mutex);
        return closed;
    }
    std::vector<Request> Requests() {
        std::lock_guard<std::mutex> lock(mutex);
        return requests;
    }
    bool WaitUntilBlocking() {
        return WaitUntil([&] { return blocking.load(); }, kWait);
    }
    bool WaitForConnections(size_t count) {
        return WaitUntil([&] { return Connected().size() >= count; }, kWait);
    }

    std::unique_ptr<UnixIpcManager> manager;
    bool listening = false;

  private:
    std::shared_ptr<IpcPackageManager> Queue(int fd) {
        std::lock_guard<std::mutex> lock(mutex);
        const auto it = queues.find(fd);
        return it == queues.end() ? nullptr : it->second;
    }

    int onRequest(int fd, char* payload, size_t size) {
        const KovaReqIpcPackageHeader header = ReadReqIpcPackageHeader(payload, size);
        if (header.reqType == kBlockingType) {
            std::unique_lock<std::mutex> lock(mutex);
            blocking = true;
            releasedWake.wait(lock, [this] { return released; });
        }
        {
            std::lock_guard<std::mutex> lock(mutex);
            requests.push_back({fd, header.reqId, header.reqType,
                                std::string(payload + sizeof(header), header.dataSize)});
        }
        Respond(fd, header.reqId, header.reqType == kAnsweredType ? 0 : -1);
        return 0;
    }

    IpcPackageHandler packageHandler{{{PACKAGE_TYPE_REQUEST, [this](int fd, char* payload, size_t size) {
                                           return onRequest(fd, payload, size);
                                       }}}};
    std::mutex mutex;
    std::condition_variable releasedWake;
    bool released = false;
    std::atomic<bool> blocking{false};
    std::map<int, std::shared_ptr<IpcPackageManager>> queues;
    std::vector<int> connected;
    std::vector<int> closed;
    std::vector<Request> requests;
};

// A client library in miniature: requests with callbacks, events kept in arrival order.
class TestClient {
  public:
    struct Response {
        uint32_t reqId;
        int32_t result;
    };

    explicit TestClient(const std::string& name) {
        IpcHandlerState handlers;
        handlers.compactBeforeRead = true;
        handlers.closeOnFailure = true;
        handlers.readHandler = [this](int fd, BufferState* buffer) {
            return packageHandler.handleAllIpcPackageInBuffer(fd, buffer) == 0 ? -1 : 0;
        };
        handlers.writeHandler = [this](int, BufferState* buffer) {
            queue.fillIpcPackageToBuffer(buffer);
            return 0;
        };
        handlers.connectionHandler = [this](int) { return ++connections; };
        handlers.closeHandler = [this](int) { return ++closes; };
        manager = std::make_unique<UnixIpcManager>(false, kBufferSize, name, handlers, "IpcTestClient", 10, 32);
        manager->start();
    }
    ~TestClient() { DestroyInPlace(&manager); }

    bool WaitForConnection(int count = 1) {
        return WaitUntil([&] { return connections >= count; }, kWait);
    }

    uint32_t Request(int32_t reqType, const std::string& data) {
        const uint32_t reqId = callbacks.getReqId();
        callbacks.addIpcReqCallBack(reqId, [this](uint32_t id, int32_t result, const char*, uint32_t) {
            std::lock_guard<std::mutex> lock(mutex);
            responses.push_back({id, result});
            return 0;
        });
        KovaReqIpcPackage request{reqId, reqType, static_cast<uint32_t>(data.size()), data.data()};
        queue.appendReqIpcPackage(&request);
        manager->notifyNeedWriteData(manager->getSocketFd());
        return reqId;
    }
    std::vector<Response> Responses() {
        std::lock_guard<std::mutex> lock(mutex);
        return responses;
    }
    std::vector<std::string> Events() {
        std::lock_guard<std::mutex> lock(mutex);
        return events;
    }
    bool WaitForResponses(size_t count) {
        return WaitUntil([&] { return Responses().size() >= count; }, kWait);
    }

    std::atomic<int> connections{0};
    std::atomic<int> closes{0};
    std::unique_ptr<UnixIpcManager> manager;

  private:
    IpcReqCallBackManager callbacks;
    IpcPackageManager queue;
    IpcPackageHandler packageHandler{{
            {PACKAGE_TYPE_RESPONSE,
             [this](int, char* payload, size_t size) {
                 callbacks.handleReqCallBack(payload, size);
                 return 0;
             }},
            {PACKAGE_TYPE_EVENT,
             [this](int, char* payload, size_t size) {
                 std::lock_guard<std::mutex> lock(mutex);
                 events.emplace_back(payload, size);
                 return 0;
             }},
    }};
    std::mutex mutex;
    std::vector<Response> responses;
    std::vector<std::string> events;
};

// Reads exactly `size` bytes from a non-blocking socket within kWait; fewer on timeout or end.
std::string ReadExactly(int fd, size_t size) {
    std::string bytes;
    const auto deadline = std::chrono::steady_clock::now() + kWait;
    while (bytes.size() < size && std::chrono::steady_clock::now() < deadline) {
        pollfd poller{fd, POLLIN, 0};
        if (poll(&poller, 1, 100) <= 0) continue;
        char chunk[4096];
        const ssize_t n = read(fd, chunk, std::min(sizeof(chunk), size - bytes.size()));
        if (n == 0) break;
        if (n > 0) bytes.append(chunk, static_cast<size_t>(n));
    }
    return bytes;
}

class UnixIpcManagerTest : public ::testing::Test {
  protected:
    const std::string name = UniqueSocketName();
    LogCapture log;
    ErrorLogDir errorLog;
};

TEST_F(UnixIpcManagerTest, RequestsAreAnsweredAndEachResponseReachesItsCallbackOnce) {
    TestServer server(name);
    TestClient client(name);
    ASSERT_TRUE(server.WaitForConnections(1));
    ASSERT_TRUE(client.WaitForConnection());

    const uint32_t subscribe = client.Request(kAnsweredType, U32(50001));
    const uint32_t unknown = client.Request(99, "");
    const uint32_t third = client.Request(kAnsweredType, U32(50002) + U32(7));
    ASSERT_TRUE(client.WaitForResponses(3));

    const std::vector<TestServer::Request> requests = server.Requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].reqId, subscribe);
    EXPECT_EQ(requests[0].data, U32(50001));
    EXPECT_EQ(requests[1].reqType, 99);
    EXPECT_EQ(requests[2].data, U32(50002) + U32(7));
    const std::vector<TestClient::Response> responses = client.Responses();
    EXPECT_EQ(responses[0].reqId, subscribe);
    EXPECT_EQ(responses[0].result, 0);
    EXPECT_EQ(responses[1].reqId, unknown);
    EXPECT_EQ(responses[1].result, -1);
    EXPECT_EQ(responses[2].reqId, third);

    // A response nobody waits for, and a second one for an answered request: logged and ignored.
    const int fd = server.Connected()[0];
    server.Respond(fd, 777, 0);
    server.Respond(fd, subscribe, 0);
    EXPECT_TRUE(log.WaitFor("[IRCB Manager] Unknow request callback functuin: reqId: 777", kWait));
    EXPECT_TRUE(log.WaitFor("[IRCB Manager] Unknow request callback functuin: reqId: " + std::to_string(subscribe),
                            kWait));
    EXPECT_EQ(client.Responses().size(), 3u);
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "IpcTestServer", "[UnixIpcManager][start] Create server: " + name));
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "IpcTestClient", "[UnixIpcManager][start] Connection to server: " + name));
}

TEST_F(UnixIpcManagerTest, EventsPushedFromAnotherThreadArriveWholeAndInOrder) {
    TestServer server(name);
    TestClient client(name);
    ASSERT_TRUE(server.WaitForConnections(1));
    const int fd = server.Connected()[0];
    std::vector<std::string> sent;
    for (int i = 0; i < 3000; ++i) {
        sent.push_back(EventRecord(50001 + i % 4, 32 + (i * 37) % 1000, static_cast<uint8_t>(i)));
    }
    std::thread producer([&] {
        for (const std::string& record : sent) server.Push(fd, record);
    });
    producer.join();
    ASSERT_TRUE(WaitUntil([&] { return client.Events().size() >= sent.size(); }, kWait))
            << client.Events().size() << " events arrived";
    EXPECT_EQ(client.Events(), sent);
    EXPECT_EQ(errorLog.CountCode(1), 0);
}

TEST_F(UnixIpcManagerTest, APeerThatStopsReadingLosesTheBatchAndTheOthersAreStillServed) {
    TestServer server(name);
    TestClient client(name);
    ASSERT_TRUE(server.WaitForConnections(1));
    unique_fd stalled(ConnectToServer(name.c_str()));
    ASSERT_TRUE(stalled.ok());
    ASSERT_TRUE(server.WaitForConnections(2));
    const int stalledFd = server.Connected()[1];
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
    EXPECT_TRUE(client.WaitForResponses(1));

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
    EXPECT_TRUE(server.Closed().empty());
}

TEST_F(UnixIpcManagerTest, APeerThatHangsUpIsClosedOnceEvenWithUnreadBytes) {
    TestServer server(name);
    TestClient holder(name);
    ASSERT_TRUE(server.WaitForConnections(1));
    unique_fd leaving(ConnectToServer(name.c_str()));
    ASSERT_TRUE(server.WaitForConnections(2));
    const int leavingFd = server.Connected()[1];

    // Hold the loop inside a request, so that the next bytes and the hang-up arrive together.
    ASSERT_TRUE(holder.WaitForConnection());
    holder.Request(kBlockingType, "");
    ASSERT_TRUE(server.WaitUntilBlocking());
    const std::string last = RequestFrame(1, kAnsweredType, "");
    ASSERT_EQ(write(leaving.get(), last.data(), last.size()), static_cast<ssize_t>(last.size()));
    leaving.reset();
    server.Release();

    ASSERT_TRUE(WaitUntil([&] { return !server.Closed().empty(); }, kWait));
    EXPECT_TRUE(holder.WaitForResponses(1));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(server.Closed(), std::vector<int>{leavingFd});
    for (const TestServer::Request& request : server.Requests()) {
        EXPECT_NE(request.fd, leavingFd);
    }
}

TEST_F(UnixIpcManagerTest, AFrameThatCanNeverFitIsDroppedAndTheConnectionServesTheNextOne) {
    TestServer server(name);
    unique_fd raw(ConnectToServer(name.c_str()));
    ASSERT_TRUE(server.WaitForConnections(1));
    const std::string tooBig = U64(kBufferSize - 7) + "trailing bytes that are thrown away";
    ASSERT_EQ(write(raw.get(), tooBig.data(), tooBig.size()), static_cast<ssize_t>(tooBig.size()));
    ASSERT_TRUE(WaitUntil([&] { return errorLog.CountCode(2) == 1; }, kWait));
    EXPECT_EQ(log.CountContaining("Ipc package too big or damage, clear buffer. packageSize: 32769, cursor: 0, data: " +
                                  std::to_string(tooBig.size()) + ", bufferSize: 32768"),
              1)
            << log.Dump();

    const std::string request = RequestFrame(41, kAnsweredType, U32(50003));
    ASSERT_EQ(write(raw.get(), request.data(), request.size()), static_cast<ssize_t>(request.size()));
    EXPECT_EQ(ReadExactly(raw.get(), 28), ResponseFrame(41, 0, ""));
    EXPECT_TRUE(server.Closed().empty());
}

TEST_F(UnixIpcManagerTest, TheLargestRequestThatFitsIsServed) {
    TestServer server(name);
    unique_fd raw(ConnectToServer(name.c_str()));
    ASSERT_TRUE(server.WaitForConnections(1));
    const std::string data(kBufferSize - 28, 'd');
    const std::string request = RequestFrame(5, kAnsweredType, data);
    ASSERT_EQ(request.size(), static_cast<size_t>(kBufferSize));
    for (size_t offset = 0; offset < request.size();) {  // the socket may take it in pieces
        const ssize_t n = write(raw.get(), request.data() + offset, request.size() - offset);
        if (n > 0) offset += static_cast<size_t>(n);
    }
    EXPECT_EQ(ReadExactly(raw.get(), 28), ResponseFrame(5, 0, ""));
    ASSERT_EQ(server.Requests().size(), 1u);
    EXPECT_EQ(server.Requests()[0].data, data);
}

TEST_F(UnixIpcManagerTest, TheClientReconnectsWhenTheServerGoesAwayAndComesBack) {
    auto server = std::make_unique<TestServer>(name);
    TestClient client(name);
    ASSERT_TRUE(client.WaitForConnection());
    client.Request(kAnsweredType, U32(50001));
    ASSERT_TRUE(client.WaitForResponses(1));

    server.reset();
    EXPECT_TRUE(log.WaitFor("[UnixIpcManager][onClientCloseCallback] Server socket abnormal close! (" + name + ")",
                            kWait));
    EXPECT_TRUE(log.WaitFor("[UnixIpcManager] Connect failed: 111, message: Connection refused, clientFd: -1, Wait 5 "
                            "senconds",
                            kWait))
            << log.Dump();
    EXPECT_EQ(client.closes, 1);

    server = std::make_unique<TestServer>(name);
    ASSERT_TRUE(client.WaitForConnection(2));
    client.Request(kAnsweredType, U32(50002));
    ASSERT_TRUE(client.WaitForResponses(2));
    EXPECT_EQ(client.Responses()[1].result, 0);
}

TEST_F(UnixIpcManagerTest, AClientWithoutAServerKeepsTryingUntilItIsStopped) {
    {
        TestClient client(name);
        EXPECT_TRUE(log.WaitFor("[UnixIpcManager] Connect failed: 111, message: Connection refused, clientFd: -1, "
                                "Wait 5 senconds",
                                kWait));
        EXPECT_EQ(client.manager->getSocketFd(), -1);
    }  // destruction ends the retrying at once
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "BpfUtils", "Failed to create socket: 111, message: Connection refused"));
}

TEST_F(UnixIpcManagerTest, TheServerRecreatesItsSocketWhenItHangsUp) {
    TestServer server(name);
    ASSERT_TRUE(WaitUntil([&] { return server.manager->getSocketFd() >= 0; }, kWait));
    const int listening = server.manager->getSocketFd();
    ASSERT_EQ(shutdown(listening, SHUT_RDWR), 0);
    EXPECT_TRUE(log.WaitFor("[UnixIpcManager][onServerCloseCallback] Server socket abnormal close! (" + name + ")",
                            kWait))
            << log.Dump();
    EXPECT_EQ(server.Closed(), std::vector<int>{listening});

    TestClient client(name);
    ASSERT_TRUE(client.WaitForConnection());
    client.Request(kAnsweredType, U32(50001));
    EXPECT_TRUE(client.WaitForResponses(1));
}

TEST_F(UnixIpcManagerTest, RolesAreKeptApart) {
    IpcHandlerState handlers;
    UnixIpcManager server(true, 64, name, handlers, 4, 4);
    EXPECT_FALSE(server.connect());
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "BpfUtils", "[UnixIpcManager] Create client in server manager"));
    UnixIpcManager client(false, 64, name, handlers, 4, 4);
    EXPECT_FALSE(client.createServer());
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "BpfUtils", "[UnixIpcManager] Create server in client manager"));
    EXPECT_TRUE(client.stop());
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "BpfUtils", "[UnixIpcManager][stop] Stop epoll Manager..."));
}

TEST(ReceiveTest, AFullReadBufferIsReportedAndReceivesNothing) {
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
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "ReceiveTest", "[UnixIpcManager] client readable callback buffer exception!"));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "ReceiveTest",
                        "[UnixIpcManager] client readable cb buffersize: 12, bufferDataCursor: 12"));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "ReceiveTest",
                        "[UnixIpcManager] client readable buffer hexdump: 28 00 00 00 00 00 00 00 70 61 72 74 "));

    // Compacting makes room behind the unread bytes.
    buffer.bufferCursor = 8;
    EXPECT_EQ(UnixIpcManager::receiveToBuffer(near.get(), &buffer, true, "ReceiveTest"), 4);
    EXPECT_EQ(Unread(buffer), "partmore");
}

TEST(SocketHelperTest, AServerNameInUseIsReported) {
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
