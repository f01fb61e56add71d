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
#include "ipc/kova_bpf_ipc_package.h"
#include "ipc/kova_bpf_ipc_package_manager.h"
#include "ipc/kova_bpf_ipc_req_callback_manager.h"

namespace kova::test {
namespace {

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

class IpcPackageManagerTest : public ::testing::Test {
  protected:
    void QueueEvents(const std::vector<std::string>& records) {
        for (const std::string& r : records) queue.buildAndAppendSecondIpcPackage(PACKAGE_TYPE_EVENT, r.data(), r.size());
    }

    const std::string big = std::string(60, 'b');  // a 76-byte frame: never fits a 64-byte buffer
    IpcPackageManager queue;
    ErrorLogDir errorLog;
    LogCapture log;
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
    const std::vector<OverflowCase> cases = {
            {3, "[BuildAndAppendIpc] ipc Package Queue too big: 10001",
             [](IpcPackageManager* q, uint32_t n) { q->buildAndAppendIpcPackage(U32(n).data(), 4); }},
            {4, "[AppendSecondIpc] ipc Package Queue too big: 10001",
             [](IpcPackageManager* q, uint32_t n) { q->buildAndAppendSecondIpcPackage(3, U32(n).data(), 4); }},
            {5, "[AppendReqIpc] ipc Package Queue too big: 10001",
             [](IpcPackageManager* q, uint32_t n) {
                 KovaReqIpcPackage request{n, 51, 0, nullptr};
                 q->appendReqIpcPackage(&request);
             }},
            {6, "[AppendRespIpc] ipc Package Queue too big: 10001",
             [](IpcPackageManager* q, uint32_t n) {
                 KovaRespIpcPackage response{n, 0, 0, {}};
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
    Deliver(&buffer, std::string(20, 'x'));  // room for two 20-byte frames
    EXPECT_EQ(queue.fillNextIpcPackagesToBuffer(&buffer), 2u);
    EXPECT_EQ(Take(&buffer), std::string(20, 'x') + EventFrame("aaaa") + EventFrame("bbbb"));
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
