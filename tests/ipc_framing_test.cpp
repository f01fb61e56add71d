// Framing of the package stream: frame completeness, frames cut across receives, frames that can never
// fit, dispatch by package type, and the fatal checks on inconsistent sizes.

#include <android/log.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "kova_ipc_test_util.h"
#include "kova_test_support.h"
#include "utils/kova_bpf_common.h"
#include "ipc/kova_bpf_ipc_helper.h"
#include "ipc/kova_bpf_ipc_package.h"
#include "ipc/kova_bpf_ipc_package_handler.h"

namespace kova::test {
namespace {

// Runs the frames of a buffer through an IpcPackageHandler and keeps what the event type received.
class FramingTest : public ::testing::Test {
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
    ErrorLogDir errorLog;
    LogCapture log;
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
                 R"(tests/ipc_framing_test\.cpp:[0-9]+\] Check failed: \(\(KovaReqIpcPackageHeader\*\)data\)->)"
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

}  // namespace
}  // namespace kova::test
