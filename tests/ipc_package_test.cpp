// The outgoing package queue (building, the overflow rule, draining into a write buffer, waiting) and
// the request ids and response callbacks of the client side.

#include <android/log.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "kova_ipc_test_util.h"
#include "kova_test_support.h"
#include "utils/kova_bpf_ipc_package.h"
#include "utils/kova_bpf_ipc_package_manager.h"
#include "utils/kova_bpf_ipc_req_callback_manager.h"

namespace kova::test {
namespace {

// Everything queued, as the bytes a connection would send, drained through `capacity`-byte buffers.
std::string DrainAll(IpcPackageManager* queue, size_t capacity = 1 << 16) {
    std::string sent;
    BufferState buffer = MakeBuffer(capacity);
    while (queue->getIpcPackageCount() > 0) {
        buffer.bufferCursor = buffer.bufferDataCursor = 0;
        EXPECT_TRUE(queue->fillIpcPackageToBuffer(&buffer));
        EXPECT_GT(buffer.bufferDataCursor, 0u);
        sent += std::string(buffer.buffer.data(), buffer.bufferDataCursor);
    }
    return sent;
}

class IpcPackageManagerTest : public ::testing::Test {
  protected:
    IpcPackageManager queue;
    ErrorLogDir errorLog;
    LogCapture log;
};

TEST_F(IpcPackageManagerTest, EachBuildingOperationWritesTheWireLayout) {
    const std::string data = "0123456789";
    queue.buildAndAppendIpcPackage(data.data(), data.size());
    EXPECT_TRUE(queue.buildAndAppendSecondIpcPackage(PACKAGE_TYPE_EVENT, data.data(), 4));
    KovaReqIpcPackage request{7, 51, 4, data.data()};
    queue.appendReqIpcPackage(&request);
    KovaRespIpcPackage response{7, -1, 3, {'a', 'b', 'c'}};
    queue.appendRespIpcPackage(&response);
    KovaRespIpcPackage empty{8, 0, 0, {}};
    queue.appendRespIpcPackage(&empty);
    EXPECT_EQ(queue.getIpcPackageCount(), 5u);

    EXPECT_EQ(DrainAll(&queue), Frame(data) + EventFrame("0123") + RequestFrame(7, 51, "0123") +
                                        ResponseFrame(7, -1, "abc") + ResponseFrame(8, 0, ""));
    // Spelled out once, for the request: 8 + 8 + 12 + dataSize bytes.
    const std::string requestFrame = RequestFrame(7, 51, "0123");
    EXPECT_EQ(requestFrame, std::string("\x18\0\0\0\0\0\0\0"   // frame size 24
                                        "\0\0\0\0\x10\0\0\0"   // type 0, size 16
                                        "\x07\0\0\0\x33\0\0\0"  // reqId 7, reqType 51
                                        "\x04\0\0\0"            // dataSize 4
                                        "0123",
                                        32));
}

TEST_F(IpcPackageManagerTest, TypesAboveThreeAreRefused) {
    EXPECT_FALSE(queue.buildAndAppendSecondIpcPackage(4, "x", 1));
    EXPECT_EQ(queue.getIpcPackageCount(), 0u);
    EXPECT_TRUE(queue.buildAndAppendSecondIpcPackage(PACKAGE_TYPE_SPARE, "x", 1));
}

TEST_F(IpcPackageManagerTest, AResponseNeverReadsBeyondItsData) {
    KovaRespIpcPackage response{1, 0, 6, {'a', 'b'}};
    queue.appendRespIpcPackage(&response);
    EXPECT_EQ(DrainAll(&queue), ResponseFrame(1, 0, std::string("ab\0\0\0\0", 6)));
}

// Each operation, with its error code and message, queues 10002 numbered packages.
struct OverflowCase {
    const char* name;
    int code;
    const char* message;
    std::function<void(IpcPackageManager*, uint32_t)> append;
};

TEST_F(IpcPackageManagerTest, AQueueAbove10000IsTrimmedTo5000BeforeTheNextAppend) {
    const std::vector<OverflowCase> cases = {
            {"raw", 3, "[BuildAndAppendIpc] ipc Package Queue too big: 10001",
             [](IpcPackageManager* q, uint32_t n) { q->buildAndAppendIpcPackage(U32(n).data(), 4); }},
            {"second", 4, "[AppendSecondIpc] ipc Package Queue too big: 10001",
             [](IpcPackageManager* q, uint32_t n) { q->buildAndAppendSecondIpcPackage(3, U32(n).data(), 4); }},
            {"request", 5, "[AppendReqIpc] ipc Package Queue too big: 10001",
             [](IpcPackageManager* q, uint32_t n) {
                 KovaReqIpcPackage request{n, 51, 0, nullptr};
                 q->appendReqIpcPackage(&request);
             }},
            {"response", 6, "[AppendRespIpc] ipc Package Queue too big: 10001",
             [](IpcPackageManager* q, uint32_t n) {
                 KovaRespIpcPackage response{n, 0, 0, {}};
                 q->appendRespIpcPackage(&response);
             }},
    };
    for (const OverflowCase& c : cases) {
        SCOPED_TRACE(c.name);
        IpcPackageManager overflowing;
        for (uint32_t n = 0; n < 10001; ++n) c.append(&overflowing, n);
        EXPECT_EQ(overflowing.getIpcPackageCount(), 10001u);
        EXPECT_EQ(errorLog.CountCode(c.code), 0);

        c.append(&overflowing, 10001);
        EXPECT_EQ(overflowing.getIpcPackageCount(), 5001u);
        EXPECT_TRUE(errorLog.HasEntry(c.code, "B&A Ipc Package queue full 10000")) << errorLog.Text();
        EXPECT_EQ(errorLog.CountCode(c.code), 1);
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "BpfUtils", c.message)) << log.Dump();

        // The oldest went: the queue now starts at package 5001 and ends with the new one.
        IpcPackageManager expected;
        for (uint32_t n = 5001; n <= 10001; ++n) c.append(&expected, n);
        EXPECT_EQ(DrainAll(&overflowing), DrainAll(&expected));
    }
}

TEST_F(IpcPackageManagerTest, APackageAsLongAsTheBufferGoesOnlyIntoAnEmptyBuffer) {
    const std::string record(64 - 16, 'e');
    BufferState buffer = MakeBuffer(64);
    ASSERT_TRUE(queue.buildAndAppendSecondIpcPackage(3, record.data(), record.size()));
    Deliver(&buffer, "x");
    EXPECT_FALSE(queue.fillNextIpcPackageToBuffer(&buffer));
    EXPECT_TRUE(queue.fillIpcPackageToBuffer(&buffer));  // nothing lost, nothing written
    EXPECT_EQ(buffer.bufferDataCursor, 1u);
    EXPECT_EQ(queue.getIpcPackageCount(), 1u);

    buffer.bufferDataCursor = 0;
    EXPECT_TRUE(queue.fillNextIpcPackageToBuffer(&buffer));
    EXPECT_EQ(std::string(buffer.buffer.data(), 64), EventFrame(record));
    EXPECT_EQ(queue.getIpcPackageCount(), 0u);
    EXPECT_FALSE(queue.fillNextIpcPackageToBuffer(&buffer));
    EXPECT_FALSE(queue.fillIpcPackageToBuffer(&buffer));
}

TEST_F(IpcPackageManagerTest, FillingMovesWholePackagesInOrderUntilOneDoesNotFit) {
    for (const char* record : {"aaaa", "bbbb", "cccc"}) queue.buildAndAppendSecondIpcPackage(3, record, 4);
    BufferState buffer = MakeBuffer(45);  // room for two 20-byte frames
    EXPECT_TRUE(queue.fillIpcPackageToBuffer(&buffer));
    EXPECT_EQ(std::string(buffer.buffer.data(), buffer.bufferDataCursor), EventFrame("aaaa") + EventFrame("bbbb"));
    EXPECT_EQ(queue.getIpcPackageCount(), 1u);
    buffer.bufferDataCursor = 0;
    EXPECT_TRUE(queue.fillNextIpcPackageToBuffer(&buffer));
    EXPECT_EQ(std::string(buffer.buffer.data(), buffer.bufferDataCursor), EventFrame("cccc"));
}

TEST_F(IpcPackageManagerTest, APackageThatCanNeverFitIsDroppedAndReported) {
    const std::string big(60, 'b');
    BufferState buffer = MakeBuffer(64);

    queue.buildAndAppendSecondIpcPackage(3, big.data(), big.size());
    queue.buildAndAppendSecondIpcPackage(3, "next", 4);
    EXPECT_FALSE(queue.fillNextIpcPackageToBuffer(&buffer));
    EXPECT_TRUE(errorLog.HasEntry(8, "fillNextIpcPackageToBuffer ipc package damaged"));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "BpfUtils", "The ipc package is too big! remove this package"));
    EXPECT_EQ(buffer.bufferDataCursor, 0u);
    EXPECT_TRUE(queue.fillNextIpcPackageToBuffer(&buffer));
    EXPECT_EQ(std::string(buffer.buffer.data(), buffer.bufferDataCursor), EventFrame("next"));

    buffer.bufferDataCursor = 0;
    queue.buildAndAppendSecondIpcPackage(3, "head", 4);
    queue.buildAndAppendSecondIpcPackage(3, big.data(), big.size());
    queue.buildAndAppendSecondIpcPackage(3, "tail", 4);
    EXPECT_FALSE(queue.fillIpcPackageToBuffer(&buffer));
    EXPECT_TRUE(errorLog.HasEntry(7, "fillIpcPackageToBuffer ipc package damaged"));
    EXPECT_EQ(std::string(buffer.buffer.data(), buffer.bufferDataCursor), EventFrame("head"));
    EXPECT_EQ(queue.getIpcPackageCount(), 1u);
    EXPECT_TRUE(queue.fillIpcPackageToBuffer(&buffer));
    EXPECT_EQ(std::string(buffer.buffer.data(), buffer.bufferDataCursor), EventFrame("head") + EventFrame("tail"));
}

// The connection's write handler fills a buffer with one call; it must stop exactly where repeated
// single fills would: at a package that does not fit now (kept), or at one that never can (dropped,
// reported as code 8).
TEST_F(IpcPackageManagerTest, FillingManyAtOnceStopsWhereRepeatedSingleFillsStop) {
    const std::string big(60, 'b');
    for (const char* record : {"aaaa", "bbbb", "cccc"}) queue.buildAndAppendSecondIpcPackage(3, record, 4);
    queue.buildAndAppendSecondIpcPackage(3, big.data(), big.size());
    queue.buildAndAppendSecondIpcPackage(3, "dddd", 4);
    BufferState buffer = MakeBuffer(64);
    Deliver(&buffer, std::string(20, 'x'));  // room for two 20-byte frames

    EXPECT_EQ(queue.fillNextIpcPackagesToBuffer(&buffer), 2u);
    EXPECT_EQ(Unread(buffer), std::string(20, 'x') + EventFrame("aaaa") + EventFrame("bbbb"));
    EXPECT_EQ(queue.getIpcPackageCount(), 3u);

    buffer.bufferCursor = buffer.bufferDataCursor = 0;
    EXPECT_EQ(queue.fillNextIpcPackagesToBuffer(&buffer), 1u);  // then the 76-byte frame can never fit
    EXPECT_EQ(Unread(buffer), EventFrame("cccc"));
    EXPECT_TRUE(errorLog.HasEntry(8, "fillNextIpcPackageToBuffer ipc package damaged"));
    EXPECT_EQ(queue.getIpcPackageCount(), 1u);

    EXPECT_EQ(queue.fillNextIpcPackagesToBuffer(&buffer), 1u);
    EXPECT_EQ(Unread(buffer), EventFrame("cccc") + EventFrame("dddd"));
    EXPECT_EQ(queue.fillNextIpcPackagesToBuffer(&buffer), 0u);
}

TEST_F(IpcPackageManagerTest, WaitingEndsWhenAnotherThreadQueuesAPackage) {
    std::thread producer([this] {
        // Give the waiter a chance to block first; correctness does not depend on it.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        queue.buildAndAppendSecondIpcPackage(3, "wake", 4);
    });
    queue.waitEventReady(60 * 1000);
    EXPECT_EQ(queue.getIpcPackageCount(), 1u);
    producer.join();
    queue.waitEventReady(60 * 1000);  // not empty: returns at once
}

TEST_F(IpcPackageManagerTest, WaitingOnAnEmptyQueueEndsAtTheDeadline) {
    queue.waitEventReady(0);
    queue.waitEventReady(20);
    std::thread notifier([this] { queue.notifyEventReady(); });
    queue.waitEventReady(10);
    notifier.join();
    EXPECT_EQ(queue.getIpcPackageCount(), 0u);
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

class ResponseCallbackTest : public ::testing::Test {
  protected:
    struct Call {
        uint32_t reqId;
        int32_t result;
        std::string data;
        bool operator==(const Call&) const = default;
    };
    IpcReqCallBackManager::Callback Recorder() {
        return [this](uint32_t reqId, int32_t result, const char* data, uint32_t size) {
            calls.push_back({reqId, result, std::string(data, size)});
            return 0;
        };
    }
    bool Respond(uint32_t reqId, int32_t result, const std::string& data) {
        const std::string payload = ReqPayload(reqId, result, data);
        return callbacks.handleReqCallBack(payload.data(), payload.size());
    }

    IpcReqCallBackManager callbacks;
    std::vector<Call> calls;
    LogCapture log;
};

TEST_F(ResponseCallbackTest, EachResponseReachesItsCallbackOnce) {
    EXPECT_TRUE(callbacks.addIpcReqCallBack(1, Recorder()));
    EXPECT_TRUE(callbacks.addIpcReqCallBack(2, Recorder()));
    EXPECT_TRUE(Respond(2, -1, ""));
    EXPECT_TRUE(Respond(1, 0, "data"));
    EXPECT_EQ(calls, (std::vector<Call>{{2, -1, ""}, {1, 0, "data"}}));

    EXPECT_FALSE(Respond(1, 0, "again"));
    EXPECT_EQ(calls.size(), 2u);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "BpfUtils", "[IRCB Manager] Unknow request callback functuin: reqId: 1"))
            << log.Dump();
}

TEST_F(ResponseCallbackTest, ALaterCallbackForTheSameIdReplacesTheEarlierOne) {
    EXPECT_TRUE(callbacks.addIpcReqCallBack(5, [](uint32_t, int32_t, const char*, uint32_t) {
        ADD_FAILURE() << "replaced callback ran";
        return 0;
    }));
    EXPECT_FALSE(callbacks.addIpcReqCallBack(5, Recorder()));
    EXPECT_TRUE(Respond(5, 0, ""));
    EXPECT_EQ(calls.size(), 1u);
}

TEST_F(ResponseCallbackTest, DeletedAndEmptyCallbacks) {
    callbacks.addIpcReqCallBack(3, Recorder());
    EXPECT_EQ(callbacks.delIpcReq(3), 1u);
    EXPECT_EQ(callbacks.delIpcReq(3), 0u);
    EXPECT_FALSE(Respond(3, 0, ""));

    callbacks.addIpcReqCallBack(4, nullptr);
    EXPECT_TRUE(Respond(4, 0, ""));   // an empty callback is simply forgotten
    EXPECT_FALSE(Respond(4, 0, ""));
    EXPECT_TRUE(calls.empty());
}

TEST_F(ResponseCallbackTest, AResponseShorterThanItsHeaderSaysIsRefusedAndTheCallbackKept) {
    callbacks.addIpcReqCallBack(6, Recorder());
    const std::string truncated = ReqPayload(6, 0, "abcd").substr(0, 14);
    EXPECT_FALSE(callbacks.handleReqCallBack(truncated.data(), truncated.size()));
    EXPECT_FALSE(callbacks.handleReqCallBack(truncated.data(), 8));
    EXPECT_TRUE(calls.empty());
    EXPECT_TRUE(Respond(6, 0, "abcd"));
    EXPECT_EQ(calls, (std::vector<Call>{{6, 0, "abcd"}}));
}

}  // namespace
}  // namespace kova::test
