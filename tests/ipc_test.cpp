// The package stream below the sockets. Framing: frame completeness, frames cut across receives,
// frames that can never fit, dispatch by package type, and the fatal checks on inconsistent sizes.
// The outgoing package queue: building, the overflow rule, draining into a write buffer, waiting. And
// the request ids and response callbacks of the client side.

#include <android/log.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "kova_ipc_test_util.h"
#include "kova_test_support.h"
#include "utils/kova_bpf_common.h"
#include "ipc/kova_bpf_ipc_helper.h"
#include "ipc/kova_bpf_ipc_package.h"
#include "ipc/kova_bpf_ipc_package_handler.h"
#include "ipc/kova_bpf_ipc_package_manager.h"
#include "ipc/kova_bpf_ipc_req_callback_manager.h"

namespace kova::test {
namespace {

// The service's error log and the log lines, both of the test's own.
class IpcTest : public ::testing::Test {
  protected:
    ErrorLogDir errorLog;
    LogCapture log;
};

// Runs the frames of a buffer through an IpcPackageHandler and keeps what the event type received.
class FramingTest : public IpcTest {
  protected:
    IpcPackageHandler MakeHandler() {
        std::map<unsigned, IpcPackageHandler::Handler> handlers;
        handlers[PACKAGE_TYPE_EVENT] = [this](int fd, char* payload, size_t size) {
            EXPECT_EQ(fd, kFd);
            events.emplace_back(payload, size);
            return eventResult;
        };
        handlers[PACKAGE_TYPE_RESPONSE] = nullptr;  // registered but empty
        return IpcPackageHandler(handlers);
    }
    int HandleAll(BufferState* state) { return MakeHandler().handleAllIpcPackageInBuffer(kFd, state); }

    // Delivers `stream` in pieces of `piece` bytes, compacting before each receive and handling what is
    // complete after it, as a connection's receive path does.
    void Stream(BufferState* state, const std::string& stream, size_t piece) {
        for (size_t offset = 0; offset < stream.size();) {
            CompactIpcBuffer(state);
            const size_t n = std::min({piece, stream.size() - offset, static_cast<size_t>(state->freeSpace())});
            Deliver(state, stream.substr(offset, n));
            offset += n;
            ASSERT_EQ(HandleAll(state), 1);
        }
    }

    static constexpr int kFd = 7;
    std::vector<std::string> events;
    int eventResult = 0;
};

// A frame may hold at most the buffer less its 8-byte header; one that can never fit clears the buffer,
// and sizes that wrap around count as damaged, never as small.
TEST_F(FramingTest, AFrameIsCompleteOnlyWithItsWholeHeaderAndBodyAndNeverFitsWhenTooBig) {
    const struct {
        std::string bytes;
        bool complete;
        size_t packageSize;
        bool cleared;
    } cases[] = {
            {U64(4).substr(0, 7), false, 1234, false},  // a partial header leaves the size alone
            {EventFrame("abcd").substr(0, 19), false, 12, false},
            {EventFrame("abcd"), true, 12, false},
            {U64(0), true, 0, false},  // a zero-size frame is its header alone
            {U64(64 - 8) + "0123456789", false, 56, false},
            {U64(64 - 7) + "0123456789", false, 57, true},
            {U64(UINT64_MAX - 7) + "0123456789", false, UINT64_MAX - 7, true},
            {U64(UINT64_MAX - 3) + "0123456789", false, UINT64_MAX - 3, true},
            {U64(UINT64_MAX) + "0123456789", false, UINT64_MAX, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.packageSize);
        BufferState state = MakeBuffer(64);
        Deliver(&state, c.bytes);
        size_t headerSize = 0;
        size_t packageSize = 1234;
        EXPECT_EQ(CheckIpcPackageComplete(&state, &headerSize, &packageSize), c.complete);
        EXPECT_EQ(headerSize, 8u);
        EXPECT_EQ(packageSize, c.packageSize);
        EXPECT_EQ(Unread(state), c.cleared ? "" : c.bytes);  // checking consumes nothing
        if (c.complete) {
            EXPECT_EQ(ReadCompleteIpcPackage(&state, packageSize), state.buffer.data() + 8);
            EXPECT_EQ(state.bufferCursor, 8 + packageSize);
        }
    }
    EXPECT_EQ(errorLog.CountCode(2), 4);
    EXPECT_EQ(log.CountContaining("packageSize: 0, cursor: 0, data: 18, bufferSize: 64"), 1);  // 2^64 - 8 + 8
}

// Up to the largest frame that fits a 64-byte buffer (64 - 8 bytes of body), cut at every point.
TEST_F(FramingTest, FramesCutAtEveryPointArriveWholeAndInOrder) {
    std::string stream;
    std::vector<std::string> sent;
    for (int i = 0; i < 40; ++i) {
        sent.push_back(EventRecord(50001 + i % 4, i % 10 == 9 ? 64 - 16 : 4 + (i * 7) % 44, static_cast<uint8_t>(i)));
        stream += EventFrame(sent.back());
    }
    for (const size_t piece : {1, 3, 7, 8, 9, 31, 64}) {
        SCOPED_TRACE("piece " + std::to_string(piece));
        events.clear();
        BufferState state = MakeBuffer(64);
        Stream(&state, stream, piece);
        EXPECT_EQ(events, sent);
        EXPECT_EQ(state.bufferCursor, state.bufferDataCursor);
    }
    EXPECT_EQ(errorLog.CountCode(2), 0);
}

TEST_F(FramingTest, SeveralFramesInOneReceiveAreDispatchedByTypeUntilAHandlerFails) {
    BufferState state = MakeBuffer(128);
    const std::string third = EventFrame("third");
    Deliver(&state, EventFrame("first") + PackageFrame(PACKAGE_TYPE_SPARE, "spare") + PackageFrame(9, "nine") +
                            EventFrame("second") + ResponseFrame(1, 0, "") + third.substr(0, 10));
    EXPECT_EQ(HandleAll(&state), 1);
    EXPECT_EQ(events, (std::vector<std::string>{"first", "second"}));
    EXPECT_EQ(Unread(state), third.substr(0, 10));  // a partial frame waits

    // A failing handler stops the round and leaves the later frames.
    state = MakeBuffer(128);
    Deliver(&state, EventFrame("one") + EventFrame("two"));
    eventResult = -1;
    EXPECT_EQ(HandleAll(&state), 0);
    EXPECT_EQ(events, (std::vector<std::string>{"first", "second", "one"}));
    EXPECT_EQ(Unread(state), EventFrame("two"));
}

TEST_F(FramingTest, AFrameOneByteTooBigClearsTheBufferWithTheFramesAfterItAndIsReported) {
    BufferState state = MakeBuffer(64);
    Deliver(&state, EventFrame("kept") + U64(64 - 8 + 1) + EventFrame("lost"));
    const std::string dump = Kova::Bpf::ConvertToHexString(state.buffer.data(), 48);
    EXPECT_EQ(HandleAll(&state), 1);
    EXPECT_EQ(events, std::vector<std::string>{"kept"});
    EXPECT_EQ(state.bufferDataCursor, 0u);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "BpfUtils",
                        "Ipc package too big or damage, clear buffer. packageSize: 65, cursor: 20, data: 48, "
                        "bufferSize: 64"))
            << log.Dump();
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "BpfUtils", "Buffer hexdump: " + dump));
    EXPECT_TRUE(errorLog.HasEntry(
            2, "Ipc package damage, packageSize: 65, cursor: 20, data: 48, bufferSize: 64, Buffer hexdump: " + dump))
            << errorLog.Text();

    // The connection goes on: the next bytes are the start of a new frame.
    Stream(&state, EventFrame("after"), 64);
    EXPECT_EQ(events, (std::vector<std::string>{"kept", "after"}));
    EXPECT_EQ(errorLog.CountCode(2), 1);
}

// A peer that writes inconsistent inner sizes takes the process down, by design.
using FramingDeathTest = FramingTest;

TEST_F(FramingDeathTest, ASecondLevelSizeThatDisagreesWithTheFrameIsFatal) {
    // The last two bodies are shorter than the second-level header and end the buffer: nothing may be
    // read past them.
    for (const std::string& body : {U32(PACKAGE_TYPE_EVENT) + U32(5) + "abcd", std::string(), U32(3)}) {
        BufferState state = MakeBuffer(64);
        Deliver(&state, Frame(body));
        state.buffer.resize(state.bufferDataCursor);
        EXPECT_DEATH(HandleAll(&state), R"(kova_bpf_framework/ipc/kova_bpf_ipc_helper\.cpp:[0-9]+\] Check failed: )"
                                        R"(packagePtr->size == size - sizeof\(KovaIpcSecondLevelPackageHeader\) )");
    }
}

TEST_F(FramingDeathTest, ARequestDataSizeThatDisagreesWithThePayloadIsFatalWhereTheRequestIsServed) {
    BufferState state = MakeBuffer(64);
    Deliver(&state, PackageFrame(PACKAGE_TYPE_REQUEST, U32(1) + U32(51) + U32(3) + U32(50001)));  // 3 for 4
    IpcPackageHandler handler({{PACKAGE_TYPE_REQUEST, [](int, char* data, size_t size) {
                                    ReadReqIpcPackageHeader(data, size);
                                    return 0;
                                }}});
    EXPECT_DEATH(handler.handleAllIpcPackageInBuffer(kFd, &state),
                 R"(tests/ipc_test\.cpp:[0-9]+\] Check failed: \(\(KovaReqIpcPackageHeader\*\)data\)->)"
                 R"(dataSize == size - sizeof\(KovaReqIpcPackageHeader\) )");
    const std::string shortPayload = U32(1) + U32(51);
    EXPECT_DEATH(ReadReqIpcPackageHeader(shortPayload.data(), shortPayload.size()),
                 R"(Check failed: \(\(KovaReqIpcPackageHeader\*\)data\)->dataSize == )");
}

TEST(FrameCodecDeathTest, WritingOrReadingAFrameThatIsNotThereIsFatal) {
    KovaIpcPackage package;
    package.data.assign(8, 'p');
    package.size = 8;
    BufferState noRoomForSize = MakeBuffer(7);
    EXPECT_DEATH(WriteIpcPackageToBuffer(&noRoomForSize, package),
                 R"(kova_bpf_framework/ipc/kova_bpf_ipc_helper\.cpp:[0-9]+\] Check failed: )"
                 R"(bufferState->write\(ipcPackage\.size\) )");
    BufferState noRoomForData = MakeBuffer(15);
    EXPECT_DEATH(WriteIpcPackageToBuffer(&noRoomForData, package),
                 R"(Check failed: bufferState->write\(ipcPackage\.data\) )");
    BufferState fourBytes = MakeBuffer(16);
    Deliver(&fourBytes, "1234");
    EXPECT_DEATH(ReadCompleteIpcPackage(&fourBytes, 0),
                 R"(Check failed: readBufferState->read\(ipcPackageHeaderSize\) != nullptr )");
}

// What a buffer holds, emptying it as a send would.
std::string Take(BufferState* buffer) {
    std::string sent = Unread(*buffer);
    buffer->bufferCursor = buffer->bufferDataCursor = 0;
    return sent;
}

// Everything queued, as the bytes a connection would send.
std::string DrainAll(IpcPackageManager* queue) {
    std::string sent;
    BufferState buffer = MakeBuffer(1 << 16);
    while (queue->getIpcPackageCount() > 0) {
        EXPECT_TRUE(queue->fillIpcPackageToBuffer(&buffer));
        sent += Take(&buffer);
    }
    return sent;
}

class IpcPackageManagerTest : public IpcTest {
  protected:
    void QueueEvents(const std::vector<std::string>& records) {
        for (const std::string& r : records) queue.buildAndAppendSecondIpcPackage(PACKAGE_TYPE_EVENT, r.data(), r.size());
    }

    const std::string big = std::string(60, 'b');  // a 76-byte frame: never fits a 64-byte buffer
    IpcPackageManager queue;
};

TEST_F(IpcPackageManagerTest, EachBuildingOperationWritesTheWireLayout) {
    const std::string data = "0123456789";
    queue.buildAndAppendIpcPackage(data.data(), data.size());
    EXPECT_TRUE(queue.buildAndAppendSecondIpcPackage(PACKAGE_TYPE_EVENT, data.data(), 4));
    EXPECT_FALSE(queue.buildAndAppendSecondIpcPackage(4, "x", 1));  // types above 3 are refused
    KovaReqIpcPackage request{7, 51, 4, data.data()};
    queue.appendReqIpcPackage(&request);
    KovaRespIpcPackage response{7, -1, 3, {'a', 'b', 'c'}};
    queue.appendRespIpcPackage(&response);
    KovaRespIpcPackage shortData{8, 0, 6, {'a', 'b'}};  // never read beyond its data
    queue.appendRespIpcPackage(&shortData);
    EXPECT_EQ(DrainAll(&queue), Frame(data) + EventFrame("0123") + RequestFrame(7, 51, "0123") +
                                        ResponseFrame(7, -1, "abc") + ResponseFrame(8, 0, std::string("ab\0\0\0\0", 6)));
}

// Each operation, with its error code and message, queues 10002 numbered packages.
struct OverflowCase {
    int code;
    const char* message;
    std::function<void(IpcPackageManager*, uint32_t)> append;
};

TEST_F(IpcPackageManagerTest, AQueueAbove10000IsTrimmedTo5000BeforeTheNextAppend) {
    // Packages of different lengths, so that trimming must step over each one by its own size.
    const auto payload = [](uint32_t n) { return U32(n) + std::string(n % 5, 'v'); };
    const std::vector<OverflowCase> cases = {
            {3, "[BuildAndAppendIpc] ipc Package Queue too big: 10001",
             [&](IpcPackageManager* q, uint32_t n) { q->buildAndAppendIpcPackage(payload(n).data(), payload(n).size()); }},
            {4, "[AppendSecondIpc] ipc Package Queue too big: 10001",
             [&](IpcPackageManager* q, uint32_t n) {
                 q->buildAndAppendSecondIpcPackage(3, payload(n).data(), payload(n).size());
             }},
            {5, "[AppendReqIpc] ipc Package Queue too big: 10001",
             [&](IpcPackageManager* q, uint32_t n) {
                 const std::string data = payload(n);
                 KovaReqIpcPackage request{n, 51, static_cast<uint32_t>(data.size()), data.data()};
                 q->appendReqIpcPackage(&request);
             }},
            {6, "[AppendRespIpc] ipc Package Queue too big: 10001",
             [&](IpcPackageManager* q, uint32_t n) {
                 const std::string data = payload(n);
                 KovaRespIpcPackage response{n, 0, static_cast<uint32_t>(data.size()), {data.begin(), data.end()}};
                 q->appendRespIpcPackage(&response);
             }},
    };
    for (const OverflowCase& c : cases) {
        SCOPED_TRACE(c.code);
        IpcPackageManager overflowing;
        for (uint32_t n = 0; n < 10001; ++n) c.append(&overflowing, n);
        EXPECT_EQ(overflowing.getIpcPackageCount(), 10001u);
        EXPECT_EQ(errorLog.CountCode(c.code), 0);

        c.append(&overflowing, 10001);
        EXPECT_TRUE(errorLog.HasEntry(c.code, "B&A Ipc Package queue full 10000")) << errorLog.Text();
        EXPECT_EQ(errorLog.CountCode(c.code), 1);
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "BpfUtils", c.message)) << log.Dump();

        // The oldest went: the queue now holds packages 5001 to 10001.
        IpcPackageManager expected;
        for (uint32_t n = 5001; n <= 10001; ++n) c.append(&expected, n);
        EXPECT_EQ(DrainAll(&overflowing), DrainAll(&expected));
    }
}

// True from filling means no package was lost, not that something was written.
TEST_F(IpcPackageManagerTest, FillingMovesWholePackagesInOrderAndTheLargestOnlyIntoAnEmptyBuffer) {
    const std::string largest(64 - 16, 'e');
    QueueEvents({"aaaa", "bbbb", largest});
    BufferState buffer = MakeBuffer(64);
    EXPECT_TRUE(queue.fillIpcPackageToBuffer(&buffer));
    EXPECT_FALSE(queue.fillNextIpcPackageToBuffer(&buffer));
    EXPECT_EQ(Take(&buffer), EventFrame("aaaa") + EventFrame("bbbb"));
    EXPECT_EQ(queue.getIpcPackageCount(), 1u);
    EXPECT_TRUE(queue.fillNextIpcPackageToBuffer(&buffer));
    EXPECT_EQ(Take(&buffer), EventFrame(largest));
    EXPECT_FALSE(queue.fillNextIpcPackageToBuffer(&buffer));
    EXPECT_FALSE(queue.fillIpcPackageToBuffer(&buffer));
}

TEST_F(IpcPackageManagerTest, APackageThatCanNeverFitIsDroppedAndReported) {
    BufferState buffer = MakeBuffer(64);
    QueueEvents({big, "next"});
    EXPECT_FALSE(queue.fillNextIpcPackageToBuffer(&buffer));
    EXPECT_TRUE(errorLog.HasEntry(8, "fillNextIpcPackageToBuffer ipc package damaged"));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "BpfUtils", "The ipc package is too big! remove this package"));
    EXPECT_TRUE(queue.fillNextIpcPackageToBuffer(&buffer));
    EXPECT_EQ(Take(&buffer), EventFrame("next"));

    QueueEvents({"head", big, "tail"});
    EXPECT_FALSE(queue.fillIpcPackageToBuffer(&buffer));
    EXPECT_TRUE(errorLog.HasEntry(7, "fillIpcPackageToBuffer ipc package damaged"));
    EXPECT_EQ(Take(&buffer), EventFrame("head"));
    EXPECT_TRUE(queue.fillIpcPackageToBuffer(&buffer));
    EXPECT_EQ(Take(&buffer), EventFrame("tail"));
}

// The connection's write handler fills a buffer with one call; it must stop exactly where repeated
// single fills would: at a package that does not fit now (kept), or at one that never can (dropped,
// reported as code 8).
TEST_F(IpcPackageManagerTest, FillingManyAtOnceStopsWhereRepeatedSingleFillsStop) {
    QueueEvents({"aaaa", "bbbb", "cccc", big, "dddd"});
    BufferState buffer = MakeBuffer(64);
    Deliver(&buffer, std::string(24, 'x'));  // room for exactly two 20-byte frames
    EXPECT_EQ(queue.fillNextIpcPackagesToBuffer(&buffer), 2u);
    EXPECT_EQ(Take(&buffer), std::string(24, 'x') + EventFrame("aaaa") + EventFrame("bbbb"));
    EXPECT_EQ(queue.fillNextIpcPackagesToBuffer(&buffer), 1u);
    EXPECT_TRUE(errorLog.HasEntry(8, "fillNextIpcPackageToBuffer ipc package damaged"));
    EXPECT_EQ(queue.getIpcPackageCount(), 1u);
    EXPECT_EQ(queue.fillNextIpcPackagesToBuffer(&buffer), 1u);
    EXPECT_EQ(Take(&buffer), EventFrame("cccc") + EventFrame("dddd"));
    EXPECT_EQ(queue.fillNextIpcPackagesToBuffer(&buffer), 0u);
}

TEST_F(IpcPackageManagerTest, WaitingEndsAtTheDeadlineOrWhenAnotherThreadQueuesAPackage) {
    queue.waitEventReady(20);
    std::thread producer([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the waiter most likely blocks first
        QueueEvents({"wake"});
    });
    queue.waitEventReady(60 * 1000);
    EXPECT_EQ(queue.getIpcPackageCount(), 1u);
    producer.join();
}

TEST(IpcReqCallBackManagerTest, RequestIdsCountUpAndWrapAfter4294967295) {
    IpcReqCallBackManager fresh;
    EXPECT_EQ(fresh.getReqId(), 0u);
    EXPECT_EQ(fresh.getReqId(), 1u);
    IpcReqCallBackManager nearTheEnd(4294967294u);
    EXPECT_EQ(nearTheEnd.getReqId(), 4294967294u);
    EXPECT_EQ(nearTheEnd.getReqId(), 4294967295u);
    EXPECT_EQ(nearTheEnd.getReqId(), 0u);
}

// Routing to the right callback, once, and unknown ids are shown over a socket in
// unix_ipc_manager_test; these are the cases a well-behaved peer does not produce.
TEST(IpcReqCallBackManagerTest, ReplacedDeletedEmptyCallbacksAndTruncatedResponses) {
    IpcReqCallBackManager callbacks;
    std::vector<std::string> calls;
    const auto recorder = [&](uint32_t reqId, int32_t result, const char* data, uint32_t size) {
        calls.push_back(std::to_string(reqId) + "/" + std::to_string(result) + "/" + std::string(data, size));
        return 0;
    };
    const auto respond = [&](uint32_t reqId, const std::string& data, size_t cut = 0) {
        const std::string payload = ReqPayload(reqId, 0, data);
        return callbacks.handleReqCallBack(payload.data(), payload.size() - cut);
    };
    EXPECT_TRUE(callbacks.addIpcReqCallBack(5, [](uint32_t, int32_t, const char*, uint32_t) {
        ADD_FAILURE() << "replaced callback ran";
        return 0;
    }));
    EXPECT_FALSE(callbacks.addIpcReqCallBack(5, recorder));
    EXPECT_FALSE(respond(5, "abcd", 2));  // shorter than its header says: refused, the callback kept
    EXPECT_FALSE(respond(5, "abcd", 10));
    EXPECT_TRUE(respond(5, "abcd"));
    EXPECT_EQ(calls, std::vector<std::string>{"5/0/abcd"});

    callbacks.addIpcReqCallBack(3, recorder);
    EXPECT_EQ(callbacks.delIpcReq(3), 1u);
    EXPECT_EQ(callbacks.delIpcReq(3), 0u);
    EXPECT_FALSE(respond(3, ""));
    callbacks.addIpcReqCallBack(4, nullptr);
    EXPECT_TRUE(respond(4, ""));  // an empty callback is simply forgotten
    EXPECT_FALSE(respond(4, ""));
    EXPECT_EQ(calls.size(), 1u);
}

}  // namespace
}  // namespace kova::test
